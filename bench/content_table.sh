#!/usr/bin/env bash
# The content download against OpenSSH, as one table from one run, on ext4 (not tmpfs), with no
# real-time priority: what an operator gets.
#
#   bash bench/content_table.sh        (root, on a built tree: FERRYGATE_BUILD_DIR, default build/)
#
# Rows, each the median of FERRYGATE_BENCH_RUNS (3) runs, every copy checked by MD5:
#   1 GiB: ferrygate --get-content (sum verified while it streams), the transport alone
#          (bench/ssh_get_bench: the same download without the sum, the status or the file
#          list), scp, ssh cat; and the transport with the content download's summing writer,
#          printed below the table as what the MD5 pass costs;
#   2,000 x 4 KiB on loopback and 200 x 4 KiB at 50 ms round trip: ferrygate, scp -r, rsync -a;
#   100 MiB at 20, 50 and 100 ms round trip: ferrygate, scp, ssh cat;
#   peak RSS of ferrygate for 100 MiB and 1 GiB.
# Every client uses the cipher and MAC that ferrygate negotiates. Round trips come from fg-relay.
# FERRYGATE_BENCH_BIG_MIB, FERRYGATE_BENCH_SMALL_FILES, FERRYGATE_BENCH_FAR_FILES and
# FERRYGATE_BENCH_RTTS change the sizes.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${FERRYGATE_BUILD_DIR:-$here/build}
big_mib=${FERRYGATE_BENCH_BIG_MIB:-1024}
small=${FERRYGATE_BENCH_SMALL_FILES:-2000}
far=${FERRYGATE_BENCH_FAR_FILES:-200}
rtts=${FERRYGATE_BENCH_RTTS:-20 50 100}
runs=${FERRYGATE_BENCH_RUNS:-3}
export FERRYGATE_BENCH_DISK=1

. "$here/bench/lib.sh"
if [ "${FERRYGATE_SANDBOXED:-}" != 1 ]; then
    cmake --build "$build" -j2 --target ferrygate fg-relay ssh_get_bench >/dev/null
fi
bench_sandbox "$0" "$@"
bench_host unused

median() { printf '%s\n' "$@" | sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
row() { printf '%-30s %10s %10s %10s %10s %8s %8s\n' "$@"; }
mbps() { echo "scale=1; $1 / 1000000 / $2" | bc -l; }
ratio() { echo "scale=2; $1 / $2" | bc -l; }
relay() { # RTT: starts fg-relay in front of sshd; sets $p
    p=$server_port
    [ "$1" -gt 0 ] || return 0
    coproc RELAY { exec "$build/tests/fg-relay" --listen 127.0.0.1:20000-32767 \
        --target "127.0.0.1:$server_port" --delay-up-ms $(($1 / 2)) \
        --delay-down-ms $(($1 - $1 / 2)) 2>/dev/null; }
    relay_pid=$RELAY_PID
    read -r p <&"${RELAY[0]}"
}
same_file() { cmp -s "$1" "$2" || { echo "content_table.sh: $2 differs" >&2; exit 1; }; rm -f "$2"; }
same_tree() { diff -r "$1" "$2" >/dev/null || { echo "content_table.sh: $2 differs" >&2; exit 1; }; }

summed_line=
algorithms=$(as_login head -c 1048576 /dev/urandom >"$home/probe.bin";
    FERRYGATE_BENCH_PASSWORD=$password "$build/bench/ssh_get_bench" "$server_port" fgbench \
        probe.bin "$work/probe.bin" 1)
ssh_opts+=(-c "$(awk '$1 == "cipher" { print $2 }' <<<"$algorithms")"
    -o "MACs=$(awk '$1 == "mac" { print $2 }' <<<"$algorithms")")

# One big file: TIMES of each client, medians in MB/s.
big_file() { # MIB RTT LABEL
    local mib=$1 bytes=$(($1 << 20)) label=$3 t f=() s=() c=() g=() m=()
    as_login head -c "$bytes" /dev/urandom >"$home/big.bin"
    cp "$home/big.bin" "$work/source.bin"
    relay "$2"
    for _ in $(seq "$runs"); do
        as_login cp "$home/big.bin" "$agent/content/big.bin"
        stage
        f+=("$(seconds ferrygate "$p" "$work/s" --get-content)")
        same_file "$work/source.bin" "$work/s/big.bin"
        s+=("$(seconds scp -q "${ssh_opts[@]}" -P "$p" fgbench@127.0.0.1:big.bin "$work/scp.bin")")
        same_file "$work/source.bin" "$work/scp.bin"
        c+=("$(seconds bash -c 'sshpass -e /usr/bin/ssh "${@:3}" -p "$1" fgbench@127.0.0.1 cat big.bin >"$2"' \
            _ "$p" "$work/cat.bin" "${ssh_opts[@]}")")
        same_file "$work/source.bin" "$work/cat.bin"
        if [ "$2" -eq 0 ]; then
            g+=("$(seconds env FERRYGATE_BENCH_PASSWORD="$password" "$build/bench/ssh_get_bench" \
                "$p" fgbench big.bin "$work/get.bin" 1)")
            same_file "$work/source.bin" "$work/get.bin"
            m+=("$(seconds env FERRYGATE_BENCH_PASSWORD="$password" "$build/bench/ssh_get_bench" \
                "$p" fgbench big.bin "$work/get.bin" 1 md5)")
            same_file "$work/source.bin" "$work/get.bin"
        fi
    done
    bench_stop_relay
    local tf ts tc transport=-
    tf=$(median "${f[@]}") ts=$(median "${s[@]}") tc=$(median "${c[@]}")
    [ ${#g[@]} -gt 0 ] && transport=$(mbps $bytes "$(median "${g[@]}")")
    row "$label" "$(mbps $bytes "$tf")" "$transport" "$(mbps $bytes "$ts")" "$(mbps $bytes "$tc")" \
        "$(ratio "$ts" "$tf")" "$(ratio "$tc" "$tf")"
    if [ ${#m[@]} -gt 0 ]; then
        summed_line="MD5 pass, $mib MiB on loopback (MB/s): transport $transport, transport with the sum $(mbps $bytes "$(median "${m[@]}")"), the sum costs $(echo "scale=1; 100 - 100 * $(median "${g[@]}") / $(median "${m[@]}")" | bc -l) %"
    fi
    rm -f "$home/big.bin" "$work/source.bin"
}

# Many small files: files per second of each client.
small_files() { # COUNT RTT LABEL
    local n=$1 label=$3 f=() s=() r=()
    rm -rf "$work/small" && mkdir -p "$work/small"
    for i in $(seq -w 1 "$n"); do head -c 4096 /dev/urandom >"$work/small/f$i"; done
    as_login rm -rf "$home/small" && as_login cp -r "$work/small" "$home/small"
    relay "$2"
    for _ in $(seq "$runs"); do
        as_login cp -r "$work/small/." "$agent/content/"
        stage
        f+=("$(seconds ferrygate "$p" "$work/s2" --get-content)")
        rm -rf "$work/s2"/migration.* "$work/s2"/dump-name "$work/s2"/archives
        same_tree "$work/small" "$work/s2"
        rm -rf "$work/scp2" "$work/rsync2"
        s+=("$(seconds scp -q -r "${ssh_opts[@]}" -P "$p" fgbench@127.0.0.1:small "$work/scp2")")
        same_tree "$work/small" "$work/scp2"
        r+=("$(seconds sshpass -e rsync -a -e "/usr/bin/ssh ${ssh_opts[*]} -p $p" \
            fgbench@127.0.0.1:small/ "$work/rsync2/")")
        same_tree "$work/small" "$work/rsync2"
    done
    bench_stop_relay
    local tf ts tr
    tf=$(median "${f[@]}") ts=$(median "${s[@]}") tr=$(median "${r[@]}")
    fps() { echo "scale=0; $n / $1" | bc -l; }
    row "$label" "$(fps "$tf")" - "$(fps "$ts")" \
        "$(fps "$tr")" "$(ratio "$ts" "$tf")" "$(ratio "$tr" "$tf")"
}

echo "ferrygate $(git -C "$here" rev-parse --short HEAD 2>/dev/null || echo '?'), $(nproc) cores," \
    "on $(df -T "$work" | awk 'NR == 2 { print $2 }'), medians of $runs, load before: $(cut -d' ' -f1-3 /proc/loadavg)"
row "work" "ferrygate" "transport" "scp" "cat/rsync" "f/scp" "f/other"
big_file "$big_mib" 0 "${big_mib} MiB, loopback (MB/s)"
small_files "$small" 0 "$small x 4 KiB, loopback (files/s)"
small_files "$far" 50 "$far x 4 KiB, 50 ms (files/s)"
for rtt in $rtts; do big_file 100 "$rtt" "100 MiB, $rtt ms (MB/s)"; done
echo "$summed_line"
echo "(f/scp, f/other: ferrygate's speed over scp's and over ssh cat's or rsync's; transport:"
echo " the same download without checksum, status or list; log-in included everywhere)"

for mib in 100 "$big_mib"; do
    as_login head -c $((mib << 20)) /dev/urandom >"$agent/content/rss.bin"
    stage
    wrap="/usr/bin/time -f %M -o $work/rss" ferrygate "$server_port" "$work/m" --get-content >/dev/null
    printf 'peak RSS, %5d MiB download: %6.1f MiB\n' "$mib" "$(echo "$(tail -n 1 "$work/rss") / 1024" | bc -l)"
done
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
