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

if [ "${FERRYGATE_SANDBOXED:-}" != 1 ]; then
    [ "$(id -u)" -eq 0 ] || { echo "wan.sh: run as root" >&2; exit 1; }
    cmake --build "$build" -j2 --target ferrygate fg-relay ssh_get_bench >/dev/null
    command -v sshpass >/dev/null || apt-get install -y -qq sshpass >/dev/null
    exec bash "$here/scripts/sandbox.sh" bash "$0" "$@"
fi

work=$(mktemp -d /tmp/ferrygate-wan.XXXXXX)
mount -t tmpfs -o size=4g,mode=0755 ferrygate-wan "$work"
sshd_pid= relay_pid=
stop_relay() {
    [ -n "$relay_pid" ] && { kill "$relay_pid" 2>/dev/null; wait "$relay_pid" 2>/dev/null || true; }
    relay_pid=
}
cleanup() {
    stop_relay
    [ -n "$sshd_pid" ] && bash "$here/scripts/sshd-host.sh" stop "$sshd_pid" >/dev/null 2>&1
    umount "$work" 2>/dev/null || true
    rmdir "$work" 2>/dev/null || true
}
trap cleanup EXIT

password=$(head -c 18 /dev/urandom | base64 | tr -d '/+=')
eval "$(FERRYGATE_SSHD_PASSWORD=$password bash "$here/scripts/sshd-host.sh" start --user fgbench \
    --ports 20000-32767)"
sshd_pid=$pid
server_port=$port

useradd -M -r hmxadm 2>/dev/null || true
product=$work/product
mkdir -p "$product/RKU" /etc/hmx
cp -r "$here/data/scout.pl" "$here/data/log4cpp.properties" "$here/data/agents" "$product/RKU/"
chmod -R a+rX "$product"
echo "PRODUCT_ROOT_D $product" >/etc/hmx/hmx.conf

agent=$home/ferry-agent
as_login() { runuser -u fgbench -- "$@"; }
ferrygate() { # PORT SESSION ACTION...
    local p=$1 session=$2 agent_args=(--agent-dir="$agent" --agent-name=hostdump)
    shift 2
    [ "$1" = --send-scout ] && agent_args=()
    rm -rf "$session"
    HMX_PASSWORD=$password $wrap "$build/ferrygate" --host=127.0.0.1 --port="$p" --login=fgbench \
        --session-path="$session" "${agent_args[@]}" "$@"
}
ferrygate "$server_port" "$work/deploy" --deploy-agent >/dev/null

# The source files, made once; each ferrygate download needs its content file staged again,
# since a finished download is removed on the source host.
as_login head -c $((mib << 20)) /dev/urandom >"$home/big.bin"
as_login head -c $((small_mib << 20)) "$home/big.bin" >"$home/small.bin"
as_login mkdir -p "$agent/content"
big_md5=$(md5sum <"$home/big.bin" | cut -c1-32)
stage() { # NAME SOURCE
    local copy=$agent/content/$1
    as_login cp "$2" "$copy"
    # The agent trusts a recorded sum only while size and mtime match the file: otherwise it
    # would sum the whole file again inside the measured run.
    printf '%s\t%s\t%s\t%s\t%s\n' "$1" "$(stat -c %s "$copy")" "$(stat -c %Y "$copy")" \
        "$(md5sum <"$2" | cut -c1-32)" "$(stat -c %s "$copy")" | as_login tee "$agent/content-manifest" >/dev/null
}
check() { # FILE MD5
    [ "$(md5sum <"$1" | cut -c1-32)" = "$2" ] || { echo "wan.sh: $1 differs from the source" >&2; exit 1; }
    rm -f "$1"
}
seconds() {
    local start=$EPOCHREALTIME
    "$@" >/dev/null || { echo "wan.sh: failed: $*" >&2; exit 1; }
    echo "$EPOCHREALTIME - $start" | bc -l
}
mbps() { echo "scale=1; $1 * 1048576 / 1000000 / $2" | bc -l; }

# OpenSSH gets the cipher and MAC that the library negotiates with this server.
algorithms=$(FERRYGATE_BENCH_PASSWORD=$password "$build/bench/ssh_get_bench" "$server_port" \
    fgbench small.bin "$work/probe.bin" 1)
cipher=$(awk '$1 == "cipher" { print $2 }' <<<"$algorithms")
mac=$(awk '$1 == "mac" { print $2 }' <<<"$algorithms")
rm -f "$work/probe.bin"
# OpenSSH logs in with the password too (through sshpass, which reads it from the environment), so
# that both pay the server's password check.
export SSHPASS=$password
ssh_opts=(-o PreferredAuthentications=password -o PubkeyAuthentication=no
    -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null -o LogLevel=ERROR
    -o Compression=no -c "$cipher" -o "MACs=$mac")
ssh() { sshpass -e /usr/bin/ssh "$@"; }
scp() { sshpass -e /usr/bin/scp "$@"; }

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
    stage big.bin "$home/big.bin"
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
    stop_relay
    printf '%-6s %10s %10s %10s %10s %7.2f %7.2f %10s %13s\n' "$rtt" "$(mbps "$mib" "$t_fg")" \
        "$transport" "$(mbps "$mib" "$t_cat")" "$(mbps "$mib" "$t_scp")" "$(echo "$t_cat / $t_fg" | bc -l)" \
        "$(echo "$t_scp / $t_fg" | bc -l)" "$window" "$(printf '%.2f/%.2f' "$t_scout" "$t_perl")"
done
echo "(MB/s of 10^6 bytes, including log-in; f/cat and f/scp: ferrygate's speed over theirs)"

# Resident size must not grow with the file.
as_login head -c $((1 << 30)) /dev/urandom >"$home/huge.bin"
for file in small.bin huge.bin; do
    stage "$file" "$home/$file"
    rm -rf "$work/m"
    HMX_PASSWORD=$password /usr/bin/time -f '%M' -o "$work/rss" "$build/ferrygate" --host=127.0.0.1 \
        --port="$server_port" --login=fgbench --session-path="$work/m" --agent-dir="$agent" \
        --agent-name=hostdump --get-content >/dev/null
    kib=$(tail -n 1 "$work/rss")
    printf 'peak RSS of ferrygate --get-content, %5d MiB: %6.1f MiB\n' \
        $(($(stat -c %s "$work/m/$file") >> 20)) "$(echo "$kib / 1024" | bc -l)"
    rm -rf "$work/m"
done
