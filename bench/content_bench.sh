#!/usr/bin/env bash
# Throughput of --get-content against OpenSSH's scp and rsync over the same loopback server.
#
#   bash bench/content_bench.sh        (root, on a built tree: FERRYGATE_BUILD_DIR, default build/)
#
# Inside scripts/sandbox.sh it starts a loopback sshd whose login takes a password (ferrygate
# from HMX_PASSWORD, OpenSSH through sshpass -e: every client pays the same log-in), deploys the
# hostdump agent, and times, each in one run, all files on tmpfs:
#   1. one 1 GiB content file: ferrygate --get-content, then scp;
#   2. 2,000 files of 4 KiB: ferrygate --get-content, then scp -r, then rsync -a.
# The agent's manifest holds the files' MD5 sums, as after a dump, so that the timings compare
# transfers, not checksumming on the source side. ferrygate rewrites migration.status after
# every block throughout, and fetches and removes each file with a remote command of its own.
# FERRYGATE_BENCH_BIG_MIB and FERRYGATE_BENCH_SMALL_FILES change the sizes. Every copy is checked by MD5.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${FERRYGATE_BUILD_DIR:-$here/build}
big_mib=${FERRYGATE_BENCH_BIG_MIB:-1024}
small=${FERRYGATE_BENCH_SMALL_FILES:-2000}

# shellcheck source=bench/lib.sh
. "$here/bench/lib.sh"
bench_sandbox "$0" "$@"
bench_host $((3 * big_mib + 512))m

rate() { echo "scale=2; $1 / 1000000 / $2" | bc; }
report() { printf '%-26s %9.2f %9s\n' "$1" "$2" "$3"; }
same() { # DIR DIR: identical trees, or the run fails
    diff -r "$1" "$2" >&2 || { echo "content_bench.sh: $2 differs from $1" >&2; exit 1; }
}

echo "ferrygate $(git -C "$here" rev-parse --short HEAD 2>/dev/null || echo '?'), load $(cut -d' ' -f1-3 /proc/loadavg)"
printf '%-26s %9s %9s\n' "transfer" "seconds" "MB/s"

source=$work/source
mkdir -m 0755 "$source"
head -c $((big_mib << 20)) /dev/urandom >"$source/big.bin"
as_login cp "$source/big.bin" "$agent/content/"
stage
bytes=$((big_mib << 20))
t_fg=$(seconds ferrygate "$server_port" "$work/s1" --get-content)
report "ferrygate, 1 x ${big_mib} MiB" "$t_fg" "$(rate $bytes "$t_fg")"
cmp -s "$source/big.bin" "$work/s1/big.bin" || { echo "content_bench.sh: ferrygate's copy differs" >&2; exit 1; }
rm -rf "$work/s1"
as_login cp "$source/big.bin" "$home/big.bin"
t_scp=$(seconds scp -q "${ssh_opts[@]}" -P "$server_port" fgbench@127.0.0.1:big.bin "$work/big.bin")
report "scp, 1 x ${big_mib} MiB" "$t_scp" "$(rate $bytes "$t_scp")"
cmp -s "$source/big.bin" "$work/big.bin" || { echo "content_bench.sh: scp's copy differs" >&2; exit 1; }
echo "  ferrygate / scp: $(echo "scale=2; $t_scp / $t_fg" | bc)"
rm -f "$work/big.bin" "$source/big.bin" "$home/big.bin"

mkdir -m 0755 "$source/small"
for i in $(seq -w 1 "$small"); do head -c 4096 /dev/urandom >"$source/small/f$i"; done
as_login cp -r "$source/small/." "$agent/content/"
as_login cp -r "$source/small" "$home/small"
stage
bytes=$((small * 4096))
t_fg=$(seconds ferrygate "$server_port" "$work/s2" --get-content)
report "ferrygate, $small x 4 KiB" "$t_fg" "$(rate $bytes "$t_fg")"
# The session keeps its own files beside the content.
rm -rf "$work/s2"/migration.* "$work/s2"/dump-name "$work/s2"/archives
same "$source/small" "$work/s2"
t_scp=$(seconds scp -q -r "${ssh_opts[@]}" -P "$server_port" fgbench@127.0.0.1:small "$work/scp2")
report "scp -r, $small x 4 KiB" "$t_scp" "$(rate $bytes "$t_scp")"
same "$source/small" "$work/scp2"
t_rsync=$(seconds sshpass -e rsync -a -e "/usr/bin/ssh ${ssh_opts[*]} -p $server_port" \
    fgbench@127.0.0.1:small/ "$work/rsync2/")
report "rsync -a, $small x 4 KiB" "$t_rsync" "$(rate $bytes "$t_rsync")"
same "$source/small" "$work/rsync2"
echo "  ferrygate / scp -r: $(echo "scale=3; $t_scp / $t_fg" | bc)," \
    "ferrygate / rsync -a: $(echo "scale=3; $t_rsync / $t_fg" | bc)"
echo "(MB/s of 10^6 bytes, log-in included; ratios: ferrygate's speed over theirs)"
