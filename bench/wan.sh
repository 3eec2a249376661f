#!/usr/bin/env bash
# ferrygate's content download across emulated distance, side by side with OpenSSH.
#
#   bash bench/wan.sh        (root, on a built tree: FERRYGATE_BUILD_DIR, default build/)
#
# Inside scripts/sandbox.sh it starts a loopback sshd (scripts/sshd-host.sh) whose login takes a
# password (ferrygate from HMX_PASSWORD, OpenSSH through sshpass -e, installed when missing; no
# password reaches an argv), deploys the hostdump agent with ferrygate, and for every round trip of FERRYGATE_BENCH_RTTS (milliseconds,
# default "0 20 50 100"; 0 is the server itself, any other goes through fg-relay delaying each
# direction by half of it) downloads one content file of FERRYGATE_BENCH_MIB MiB (default 200):
#   ferrygate --get-content    the product path: log-in, content list, download, remote rm
#   ssh host cat FILE          OpenSSH with the cipher and MAC that ferrygate negotiated
#   scp                        the same
#   Ssh::get                   the transport alone (bench/ssh_get_bench), no content action
#   64 KiB window              the same "cat" on a channel with a 64 KiB window (bench/
#                              ssh_get_bench), on a smaller file: what the 2 MiB window is worth
# and times --send-scout against "ssh host perl -e 1". Then it reports ferrygate's peak resident
# size (/usr/bin/time) for --get-content of 100 MiB and of 1 GiB. Every copy is checked by MD5.
# All files live on tmpfs, so that no disk sets the pace. Takes about five minutes.
# FERRYGATE_BENCH_WRAP runs the timed ferrygate downloads under a profiler (see below).
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
build=${FERRYGATE_BUILD_DIR:-$here/build}
rtts=${FERRYGATE_BENCH_RTTS:-0 20 50 100}
mib=${FERRYGATE_BENCH_MIB:-200}
small_mib=16
# A profiler for the timed ferrygate runs, e.g. "strace -c -o /tmp/ferrygate.strace".
profiler=${FERRYGATE_BENCH_WRAP:-}
wrap=

# shellcheck source=bench/lib.sh
. "$here/bench/lib.sh"
if [ "${FERRYGATE_SANDBOXED:-}" != 1 ]; then
    cmake --build "$build" -j2 --target ferrygate fg-relay ssh_get_bench >/dev/null
fi
bench_sandbox "$0" "$@"
bench_host 4g

as_login head -c $((mib << 20)) /dev/urandom >"$home/big.bin"
as_login head -c $((small_mib << 20)) "$home/big.bin" >"$home/small.bin"
big_md5=$(md5sum <"$home/big.bin" | cut -c1-32)
check() { # FILE MD5
    [ "$(md5sum <"$1" | cut -c1-32)" = "$2" ] || { echo "wan.sh: $1 differs from the source" >&2; exit 1; }
    rm -f "$1"
}
mbps() { echo "scale=1; $1 * 1048576 / 1000000 / $2" | bc -l; }

algorithms=$(FERRYGATE_BENCH_PASSWORD=$password "$build/bench/ssh_get_bench" "$server_port" \
    fgbench small.bin "$work/probe.bin" 1)
cipher=$(awk '$1 == "cipher" { print $2 }' <<<"$algorithms")
mac=$(awk '$1 == "mac" { print $2 }' <<<"$algorithms")
rm -f "$work/probe.bin"
# OpenSSH logs in with the password too (through sshpass, which reads it from the environment), so
# that both pay the server's password check.
ssh_opts+=(-c "$cipher" -o "MACs=$mac")

echo "ferrygate $(git -C "$here" rev-parse --short HEAD 2>/dev/null || echo '?'), cipher $cipher, mac $mac," \
    "$mib MiB file ($small_mib MiB for the 64 KiB window), load $(cut -d' ' -f1-3 /proc/loadavg)"
printf '%-6s %10s %10s %10s %10s %7s %7s %10s %13s\n' "rtt ms" "ferrygate" "Ssh::get" \
    "ssh cat" "scp" "f/cat" "f/scp" "64K window" "scout/perl s"
for rtt in $rtts; do
    p=$server_port
    if [ "$rtt" -gt 0 ]; then
        coproc RELAY { exec "$build/tests/fg-relay" --listen 127.0.0.1:20000-32767 --target "127.0.0.1:$server_port" \
            --delay-up-ms $((rtt / 2)) --delay-down-ms $((rtt - rtt / 2)) 2>/dev/null; }
        relay_pid=$RELAY_PID
        read -r p <&"${RELAY[0]}"
    fi
    as_login cp "$home/big.bin" "$agent/content/big.bin"
    stage
    t_fg=$(wrap=$profiler seconds ferrygate "$p" "$work/s" --get-content)
    check "$work/s/big.bin" "$big_md5"
    t_cat=$(seconds bash -c 'sshpass -e ssh "${@:3}" -p "$1" fgbench@127.0.0.1 cat big.bin >"$2"' \
        _ "$p" "$work/cat.bin" "${ssh_opts[@]}")
    check "$work/cat.bin" "$big_md5"
    t_scp=$(seconds scp -q "${ssh_opts[@]}" -P "$p" fgbench@127.0.0.1:big.bin "$work/scp.bin")
    check "$work/scp.bin" "$big_md5"
    bench_get() { # FILE [WINDOW]: MB/s of one download by bench/ssh_get_bench
        FERRYGATE_BENCH_PASSWORD=$password "$build/bench/ssh_get_bench" "$p" fgbench "$1" \
            "$work/g.bin" 1 "${@:2}" | awk '$1 == "run" { printf "%.1f", $3 }'
        rm -f "$work/g.bin"
    }
    transport=$(bench_get big.bin)
    window=$(bench_get small.bin 65536)
    t_scout=$(seconds ferrygate "$p" "$work/scout" --send-scout)
    t_perl=$(seconds ssh "${ssh_opts[@]}" -p "$p" fgbench@127.0.0.1 perl -e 1)
    bench_stop_relay
    printf '%-6s %10s %10s %10s %10s %7.2f %7.2f %10s %13s\n' "$rtt" "$(mbps "$mib" "$t_fg")" \
        "$transport" "$(mbps "$mib" "$t_cat")" "$(mbps "$mib" "$t_scp")" "$(echo "$t_cat / $t_fg" | bc -l)" \
        "$(echo "$t_scp / $t_fg" | bc -l)" "$window" "$(printf '%.2f/%.2f' "$t_scout" "$t_perl")"
done
echo "(MB/s of 10^6 bytes, including log-in; f/cat and f/scp: ferrygate's speed over theirs)"

# Resident size must not grow with the file.
as_login head -c $((1 << 30)) /dev/urandom >"$home/huge.bin"
for file in small.bin huge.bin; do
    as_login cp "$home/$file" "$agent/content/$file"
    stage
    wrap="/usr/bin/time -f %M -o $work/rss" ferrygate "$server_port" "$work/m" --get-content >/dev/null
    kib=$(tail -n 1 "$work/rss")
    printf 'peak RSS of ferrygate --get-content, %5d MiB: %6.1f MiB\n' \
        $(($(stat -c %s "$work/m/$file") >> 20)) "$(echo "$kib / 1024" | bc -l)"
    rm -rf "$work/m"
done
