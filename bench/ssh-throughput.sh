#!/usr/bin/env bash
# Download throughput of Ssh::get beside OpenSSH's own client on the same loopback server.
#
#   bash bench/ssh-throughput.sh [RUNS]     (root; builds into build/ unless FERRYGATE_BUILD_DIR)
#
# Starts a throw-away sshd in the sandbox, puts a 1 GiB file of random bytes in the test
# account's home, downloads it RUNS times (default 5) with Ssh::get, with "ssh ... cat FILE >
# OUT" and with scp, all with the cipher and MAC that the library negotiates, and prints the
# median throughput of each and the ratio. Then reports the peak RSS of Ssh::get for a 100 MiB
# and a 1 GiB download, each in a fresh process. Downloads land on a tmpfs, so that the disk
# does not set the pace. OpenSSH logs in with a throw-away key; no password reaches an argv.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
runs=${1:-5}
build=${FERRYGATE_BUILD_DIR:-$here/build}

if [ "${FERRYGATE_SANDBOXED:-}" != 1 ]; then
    cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build "$build" -j2 --target ssh_get_bench >/dev/null
    exec "$here/scripts/sandbox.sh" "$0" "$@"
fi

bench=$build/bench/ssh_get_bench
work=$(mktemp -d /tmp/ferrygate-bench.XXXXXX)
mount -t tmpfs -o size=3g,mode=0700 ferrygate-bench "$work"
pid=
cleanup() {
    [ -n "$pid" ] && "$here/scripts/sshd-host.sh" stop "$pid" || true
    umount "$work" 2>/dev/null || true
    rmdir "$work" 2>/dev/null || true
}
trap cleanup EXIT

password=$(head -c 18 /dev/urandom | base64)
ssh-keygen -q -t ed25519 -N '' -C ferrygate-bench -f "$work/key"
eval "$(FERRYGATE_SSHD_PASSWORD=$password "$here/scripts/sshd-host.sh" start \
    --auth password,keyboard-interactive,publickey --authorized-key "$work/key.pub" |
    sed 's/^/server_/')"
pid=$server_pid
port=$server_port
user=$server_user
home=$server_home

echo "server: OpenSSH on 127.0.0.1:$port, account $user"
runuser -u "$user" -- head -c $((1024 * 1024 * 1024)) /dev/urandom >"$home/1g.bin"
runuser -u "$user" -- head -c $((100 * 1024 * 1024)) "$home/1g.bin" >"$home/100m.bin"
chown "$user:" "$home/1g.bin" "$home/100m.bin"
expected=$(md5sum <"$home/1g.bin")
size=$(stat -c %s "$home/1g.bin")

median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
mbps() { awk -v s="$size" -v t="$1" 'BEGIN { printf "%.1f", s / 1e6 / t }'; }
now() { date +%s.%N; }

export FERRYGATE_BENCH_PASSWORD=$password
get_out=$("$bench" "$port" "$user" 1g.bin "$work/get.bin" "$runs")
unset FERRYGATE_BENCH_PASSWORD
[ "$(md5sum <"$work/get.bin")" = "$expected" ] || { echo "Ssh::get copy differs" >&2; exit 1; }
rm -f "$work/get.bin"
cipher=$(awk '$1 == "cipher" { print $2 }' <<<"$get_out")
mac=$(awk '$1 == "mac" { print $2 }' <<<"$get_out")
get_median=$(awk '$1 == "run" { print $3 }' <<<"$get_out" | median)

ssh_opts=(-i "$work/key" -o BatchMode=yes -o StrictHostKeyChecking=no
    -o UserKnownHostsFile=/dev/null -o LogLevel=ERROR -o Compression=no
    -c "$cipher" -o "MACs=$mac")
cat_times=() scp_times=()
for _ in $(seq "$runs"); do
    t0=$(now)
    ssh "${ssh_opts[@]}" -p "$port" "$user@127.0.0.1" cat 1g.bin >"$work/cat.bin"
    t1=$(now)
    cat_times+=("$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')")
    [ "$(md5sum <"$work/cat.bin")" = "$expected" ] || { echo "ssh cat copy differs" >&2; exit 1; }
    rm -f "$work/cat.bin"
    t0=$(now)
    scp -q "${ssh_opts[@]}" -P "$port" "$user@127.0.0.1:1g.bin" "$work/scp.bin"
    t1=$(now)
    scp_times+=("$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')")
    rm -f "$work/scp.bin"
done
cat_median=$(mbps "$(printf '%s\n' "${cat_times[@]}" | median)")
scp_median=$(mbps "$(printf '%s\n' "${scp_times[@]}" | median)")

echo "cipher $cipher, mac $mac, $runs downloads of $((size / 1024 / 1024)) MiB each, medians:"
printf '  Ssh::get      %8.1f MB/s   (runs: %s)\n' "$get_median" \
    "$(awk '$1 == "run" { printf "%.1f ", $3 }' <<<"$get_out")"
printf '  ssh cat       %8.1f MB/s\n' "$cat_median"
printf '  scp           %8.1f MB/s\n' "$scp_median"
awk -v g="$get_median" -v c="$cat_median" -v s="$scp_median" \
    'BEGIN { printf "  ratio Ssh::get / ssh cat %.2f, Ssh::get / scp %.2f\n", g / c, g / s }'

export FERRYGATE_BENCH_PASSWORD=$password
for file in 100m.bin 1g.bin; do
    rss=$("$bench" "$port" "$user" "$file" "$work/rss.bin" 1 | awk '$1 == "maxrss_kib" { print $2 }')
    printf '  peak RSS of Ssh::get for %-8s %6.1f MiB\n' "$file" "$(awk -v k="$rss" 'BEGIN { print k / 1024 }')"
    rm -f "$work/rss.bin"
done
