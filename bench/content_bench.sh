#!/usr/bin/env bash
# Throughput of --get-content against OpenSSH's scp and rsync over the same local server.
#
#   bash bench/content_bench.sh [BUILD_DIR]        (as root; default build dir: build/)
#
# Inside scripts/sandbox.sh it starts OpenSSH on 127.0.0.1 (scripts/sshd-host.sh) with a login
# that accepts a password (for ferrygate) and a key (for scp and rsync), deploys the hostdump
# agent, and times, each in one run on a cold start:
#   1. one 1 GiB content file: ferrygate --get-content, then scp;
#   2. 2,000 files of 4 KiB: ferrygate --get-content, then scp -r, then rsync -a.
# The agent's manifest holds the files' MD5 sums, as after a dump, so that the timings compare
# transfers, not checksumming on the source side. ferrygate rewrites migration.status after
# every block throughout. FERRYGATE_BENCH_BIG_MIB changes the size of the large file.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build}
big_mib=${FERRYGATE_BENCH_BIG_MIB:-1024}

if [ "${FERRYGATE_SANDBOXED:-}" != 1 ]; then
    [ "$(id -u)" -eq 0 ] || { echo "content_bench.sh: run as root" >&2; exit 1; }
    exec bash "$here/scripts/sandbox.sh" bash "$0" "$build"
fi

work=$(mktemp -d /tmp/ferrygate-bench.XXXXXX)
chmod 0755 "$work"
sshd_pid=
cleanup() {
    [ -n "$sshd_pid" ] && bash "$here/scripts/sshd-host.sh" stop "$sshd_pid" >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT

ssh-keygen -q -t ed25519 -N '' -f "$work/key"
password=$(head -c 18 /dev/urandom | base64 | tr -d '/+=')
eval "$(FERRYGATE_SSHD_PASSWORD=$password bash "$here/scripts/sshd-host.sh" start --user fgbench \
    --auth password,publickey --authorized-key "$work/key.pub" --ports 20000-32767)"
sshd_pid=$pid
ssh_opts=(-i "$work/key" -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null -o LogLevel=ERROR)

useradd -M -r hmxadm 2>/dev/null || true
product=$work/product
mkdir -p "$product/RKU" /etc/hmx
cp -r "$here/data/scout.pl" "$here/data/log4cpp.properties" "$here/data/agents" "$product/RKU/"
chmod -R a+rX "$product"
echo "PRODUCT_ROOT_D $product" >/etc/hmx/hmx.conf

agent=$home/ferry-agent
ferrygate() {
    local session=$1
    shift
    HMX_PASSWORD=$password "$build/ferrygate" --host=127.0.0.1 --port="$port" --login=fgbench \
        --session-path="$session" --agent-dir="$agent" --agent-name=hostdump "$@"
}
ferrygate "$work/deploy" --deploy-agent

# Files are made as the login, in the agent's content directory, with their manifest lines.
as_login() { runuser -u fgbench -- "$@"; }
stage() {
    as_login mkdir -p "$agent/content"
    as_login bash -c 'cd "$1/content" && for f in *; do
        printf "%s\t%s\t%s\t%s\t%s\n" "$f" "$(stat -c %s "$f")" "$(stat -c %Y "$f")" \
            "$(md5sum <"$f" | cut -c1-32)" "$(stat -c %s "$f")"
    done >"$1/content-manifest"' _ "$agent"
}
seconds() { local start=$EPOCHREALTIME; "$@" >/dev/null; echo "$EPOCHREALTIME - $start" | bc; }
rate() { echo "scale=1; $1 / 1048576 / $2" | bc; }

printf '%-34s %10s %12s\n' "transfer" "seconds" "MiB/s"
report() { printf '%-34s %10.2f %12s\n' "$1" "$2" "$3"; }

# 1. One large file.
as_login mkdir -p "$agent/content"
as_login dd if=/dev/urandom of="$agent/content/big.bin" bs=1M count="$big_mib" status=none
stage
bytes=$((big_mib * 1048576))
t=$(seconds ferrygate "$work/s1" --get-content)
report "ferrygate, 1 x ${big_mib} MiB" "$t" "$(rate $bytes "$t")"
ferry_big=$t
as_login dd if=/dev/urandom of="$agent/content/big.bin" bs=1M count="$big_mib" status=none
mkdir -p "$work/scp1"
t=$(seconds scp -q "${ssh_opts[@]}" -P "$port" "fgbench@127.0.0.1:$agent/content/big.bin" "$work/scp1/")
report "scp, 1 x ${big_mib} MiB" "$t" "$(rate $bytes "$t")"
echo "   ferrygate / scp speed: $(echo "scale=2; $t / $ferry_big" | bc)"
as_login rm -f "$agent/content/big.bin"
rm -rf "$work/s1" "$work/scp1"

# 2. Many small files.
as_login bash -c 'cd "$1/content" && for i in $(seq -w 1 2000); do head -c 4096 /dev/urandom >"f$i"; done' _ "$agent"
stage
bytes=$((2000 * 4096))
mkdir -p "$work/scp2" "$work/rsync2"
as_login cp -a "$agent/content" "$home/small"
t=$(seconds ferrygate "$work/s2" --get-content)
report "ferrygate, 2000 x 4 KiB" "$t" "$(rate $bytes "$t")"
t=$(seconds scp -q -r "${ssh_opts[@]}" -P "$port" "fgbench@127.0.0.1:$home/small" "$work/scp2/")
report "scp -r, 2000 x 4 KiB" "$t" "$(rate $bytes "$t")"
t=$(seconds rsync -a -e "ssh ${ssh_opts[*]} -p $port" "fgbench@127.0.0.1:$home/small/" "$work/rsync2/")
report "rsync -a, 2000 x 4 KiB" "$t" "$(rate $bytes "$t")"
