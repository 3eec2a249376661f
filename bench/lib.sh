# Shared by the benchmarks, sourced once `here` (the checkout) and `build` are set:
#   bench_sandbox SCRIPT ARG...   run as root; re-runs the script inside scripts/sandbox.sh
#   bench_host SIZE               a throw-away source host: a tmpfs of SIZE as $work, a loopback
#                                 sshd whose login fgbench takes $password, the product data
#                                 installed, the hostdump agent deployed to $agent
# then ferrygate PORT SESSION ACTION..., as_login CMD..., stage (manifest of $agent/content),
# seconds CMD..., and ssh/scp/rsync with the password through sshpass ($ssh_opts; no password
# reaches an argv).

bench_sandbox() {
    [ "${FERRYGATE_SANDBOXED:-}" = 1 ] && return 0
    [ "$(id -u)" -eq 0 ] || { echo "$(basename "$1"): run as root" >&2; exit 1; }
    # Listed in scripts/install-deps.sh too; here for a machine that only runs the benchmarks.
    if ! command -v sshpass >/dev/null || ! command -v rsync >/dev/null; then
        apt-get update -qq
        apt-get install -y -qq --no-install-recommends sshpass rsync >/dev/null
    fi
    exec bash "$here/scripts/sandbox.sh" bash "$@"
}

bench_host() {
    # FERRYGATE_BENCH_DISK=1: on the root file system (ext4 here), where users run, instead of
    # a tmpfs, on which creating and removing files costs almost nothing.
    if [ "${FERRYGATE_BENCH_DISK:-}" = 1 ]; then
        work=$(mktemp -d /var/tmp/ferrygate-bench.XXXXXX)
        chmod 0755 "$work"
    else
        work=$(mktemp -d /tmp/ferrygate-bench.XXXXXX)
        mount -t tmpfs -o "size=$1,mode=0755" ferrygate-bench "$work"
    fi
    sshd_pid= relay_pid=
    trap bench_cleanup EXIT
    password=$(head -c 18 /dev/urandom | base64 | tr -d '/+=')
    eval "$(FERRYGATE_SSHD_PASSWORD=$password bash "$here/scripts/sshd-host.sh" start \
        --user fgbench --ports 20000-32767)"
    sshd_pid=$pid
    server_port=$port
    export SSHPASS=$password

    useradd -M -r hmxadm 2>/dev/null || true
    local product=$work/product
    mkdir -p "$product/RKU" /etc/hmx
    cp -r "$here/data/scout.pl" "$here/data/log4cpp.properties" "$here/data/agents" "$product/RKU/"
    chmod -R a+rX "$product"
    echo "PRODUCT_ROOT_D $product" >/etc/hmx/hmx.conf

    agent=$home/ferry-agent
    ferrygate "$server_port" "$work/deploy" --deploy-agent >/dev/null
    as_login mkdir -p "$agent/content"
    ssh_opts=(-o PreferredAuthentications=password -o PubkeyAuthentication=no
        -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null -o LogLevel=ERROR
        -o Compression=no)
}

bench_stop_relay() {
    [ -n "$relay_pid" ] && { kill "$relay_pid" 2>/dev/null; wait "$relay_pid" 2>/dev/null || true; }
    relay_pid=
}

bench_cleanup() {
    bench_stop_relay
    [ -n "$sshd_pid" ] && bash "$here/scripts/sshd-host.sh" stop "$sshd_pid" >/dev/null 2>&1
    umount "$work" 2>/dev/null || true
    if [ "${FERRYGATE_BENCH_DISK:-}" = 1 ]; then rm -rf "$work"; else rmdir "$work" 2>/dev/null || true; fi
}

as_login() { runuser -u fgbench -- "$@"; }

# PORT SESSION ACTION...: one run against the source host, behind $wrap when set.
ferrygate() {
    local p=$1 session=$2 agent_args=(--agent-dir="$agent" --agent-name=hostdump)
    shift 2
    [ "$1" = --send-scout ] && agent_args=()
    rm -rf "$session"
    HMX_PASSWORD=$password ${wrap:-} "$build/ferrygate" --host=127.0.0.1 --port="$p" \
        --login=fgbench --session-path="$session" "${agent_args[@]}" "$@"
}

# Records every file of the agent's content directory in its manifest, as a dump does. The agent
# trusts a recorded sum only while size and mtime match: otherwise it would sum every file again
# inside the measured run.
stage() {
    as_login bash -c 'cd "$1/content" && for f in *; do
        printf "%s\t%s\t%s\t%s\t%s\n" "$f" "$(stat -c %s "$f")" "$(stat -c %Y "$f")" \
            "$(md5sum <"$f" | cut -c1-32)" "$(stat -c %s "$f")"
    done >"$1/content-manifest"' _ "$agent"
}

seconds() {
    local start=$EPOCHREALTIME
    "$@" >/dev/null || { echo "bench: failed: $*" >&2; exit 1; }
    echo "$EPOCHREALTIME - $start" | bc -l
}

ssh() { sshpass -e /usr/bin/ssh "$@"; }
scp() { sshpass -e /usr/bin/scp "$@"; }
