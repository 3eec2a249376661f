# Sourced by the scripts that run many slow, independent checks (scripts/fuzz.sh,
# scripts/valgrind-e2e.sh); each check prints its own report.
#
# run_parallel JOBS FUNCTION ENTRY...
#   Runs `FUNCTION ENTRY` for every entry, at most JOBS at once, the entry split into words.
#   Every entry runs, whatever the others did; returns 1 when any of them failed.
run_parallel() {
    local jobs=$1 run=$2 failed=0 running=0 entry
    shift 2
    for entry in "$@"; do
        if [ "$running" -ge "$jobs" ]; then
            wait -n || failed=1
            running=$((running - 1))
        fi
        # shellcheck disable=SC2086 # an entry holds the function's arguments
        "$run" $entry &
        running=$((running + 1))
    done
    while [ "$running" -gt 0 ]; do
        wait -n || failed=1
        running=$((running - 1))
    done
    return $failed
}
