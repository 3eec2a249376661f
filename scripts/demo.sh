#!/usr/bin/env bash
# A complete migration from a throw-away source host on this machine, as root:
#
#   bash scripts/demo.sh                 builds ferrygate and runs it from the build tree
#   bash scripts/demo.sh --installed     runs the installed ferrygate (the .deb or cmake --install)
#
# Inside scripts/sandbox.sh (a private copy of /etc, /run and /home that vanishes afterwards) it
# starts OpenSSH on 127.0.0.1 with a login that has a password, lays out a small hosting tree
# (two sites, three mailboxes) and runs the five steps a controlling process would: scout,
# deploy, dump-all, get-content (showing progress read from migration.status) and remove-agent.
# From the build tree, the product data goes under a temporary product root named by the
# sandbox's /etc/hmx/hmx.conf; with --installed, the program on the PATH uses the installed
# product tree as it is, and the demo changes nothing in it.
#
# The session directory is kept under /tmp, outside the sandbox, for you to look at (or made
# where FERRYGATE_DEMO_SESSION says); everything else is removed. FERRYGATE_BUILD_DIR overrides
# the build directory (default: build/).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${FERRYGATE_BUILD_DIR:-$here/build}

if [ "${1:-}" != "--inside" ]; then
    if [ "$(id -u)" -ne 0 ]; then
        echo "demo.sh: run as root (it makes a private namespace and a test account)" >&2
        exit 1
    fi
    if [ "${1:-}" = --installed ]; then
        ferrygate=$(command -v ferrygate) || {
            echo "demo.sh: no ferrygate on the PATH; install the package first" >&2
            exit 1
        }
    else
        bash "$here/scripts/install-deps.sh"
        echo "== building ferrygate in $build"
        cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
        cmake --build "$build" -j "$(nproc)" --target ferrygate >/dev/null
        ferrygate=$build/ferrygate
    fi
    session=${FERRYGATE_DEMO_SESSION:-$(mktemp -u /tmp/ferrygate-demo-session.XXXXXX)}
    exec bash "$here/scripts/sandbox.sh" bash "$0" --inside "$ferrygate" "$session" "${1:-}"
fi

ferrygate=$2
session=$3
installed=$([ "${4:-}" = --installed ] && echo 1 || echo 0)
work=$(mktemp -d /tmp/ferrygate-demo.XXXXXX)
chmod 0755 "$work"
sshd_pid=
cleanup() {
    [ -n "$sshd_pid" ] && bash "$here/scripts/sshd-host.sh" stop "$sshd_pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

password() { head -c 18 /dev/urandom | base64 | tr -d '/+=' ; }

echo "== source host: a login with a password, OpenSSH on 127.0.0.1"
login_password=$(password)
# Ports above 32767 are not accepted by --port.
eval "$(FERRYGATE_SSHD_PASSWORD=$login_password bash "$here/scripts/sshd-host.sh" start \
    --user fgdemo --ports 20000-32767)"
sshd_pid=$pid
echo "   login fgdemo on 127.0.0.1 port $port"

echo "== source host: two sites and three mailboxes"
web=$work/hosting/web
mail=$work/hosting/mail
mkdir -p "$web/example.com/httpdocs/media" "$web/shop.test/public" \
    "$mail/example.com/info/cur" "$mail/example.com/sales/new" "$mail/shop.test/orders/cur"
echo "<h1>example.com</h1>" >"$web/example.com/httpdocs/index.html"
head -c $((48 * 1024 * 1024)) /dev/urandom >"$web/example.com/httpdocs/media/intro.mp4"
echo "<?php echo 'shop';" >"$web/shop.test/public/index.php"
head -c $((16 * 1024 * 1024)) /dev/urandom >"$web/shop.test/public/catalogue.pdf"
for box in example.com/info/cur example.com/sales/new shop.test/orders/cur; do
    for n in 1 2 3; do printf 'Subject: message %s\n\nhello\n' "$n" >"$mail/$box/$n"; done
done
useradd -M -r hmxadm 2>/dev/null || true
chmod -R a+rX "$work/hosting"

if [ "$installed" = 1 ]; then
    echo "== destination: $ferrygate and the installed product tree"
else
    echo "== destination: product data under $work/product, named by /etc/hmx/hmx.conf"
    product=$work/product
    mkdir -p "$product/RKU" /etc/hmx
    cp -r "$here/data/scout.pl" "$here/data/log4cpp.properties" "$here/data/agents" "$product/RKU/"
    chmod -R a+rX "$product"
    echo "PRODUCT_ROOT_D $product" >/etc/hmx/hmx.conf
fi

agent_dir=$home/ferry-agent
run() {
    # In ferrygate's environment only, as a controlling process would pass it.
    HMX_PASSWORD=$login_password \
        "$ferrygate" --host=127.0.0.1 --port="$port" --login=fgdemo --session-path="$session" "$@"
}

echo "== 1. scout"
run --send-scout
sed -n 's/.*<os name="\([^"]*\)".*distribution="\([^"]*\)".*/   source runs \1, \2/p' "$session/scout-result.xml"
echo "== 2. deploy the hostdump agent to $agent_dir"
run --agent-dir="$agent_dir" --agent-name=hostdump --deploy-agent
# The agent reads where the source host keeps sites and mail from hostdump.conf beside it.
printf 'web_root = %s\nmail_root = %s\n' "$web" "$mail" >"$agent_dir/hostdump.conf"
chown fgdemo "$agent_dir/hostdump.conf"
echo "== 3. dump the whole source host"
run --agent-dir="$agent_dir" --agent-name=hostdump --dump-all
echo "   $(grep -c '<domain ' "$session/dump.xml") domains, $(grep -c '<mailbox ' "$session/dump.xml") mailboxes in dump.xml"

echo "== 4. download the content"
run --agent-dir="$agent_dir" --agent-name=hostdump --get-content &
transfer=$!
# As a controlling process would: read migration.status, which is always a whole document.
while kill -0 "$transfer" 2>/dev/null; do
    line=$(tr -d '\n' <"$session/migration.status" 2>/dev/null || true)
    if [[ $line =~ \<files\ total=\"([0-9]+)\"\ left=\"([0-9]+)\"\ size-total=\"([0-9]+)\"\ size-left=\"([0-9]+)\" ]]; then
        speed=$([[ $line =~ speed=\"([0-9]+)\" ]] && echo "${BASH_REMATCH[1]}" || echo 0)
        current=$([[ $line =~ \<current-file[^\>]*\>([^\<]*)\< ]] && echo "${BASH_REMATCH[1]}" || true)
        printf '   %s of %s files left, %s of %s bytes left, %s bytes/s  %s\n' \
            "${BASH_REMATCH[2]}" "${BASH_REMATCH[1]}" "${BASH_REMATCH[4]}" "${BASH_REMATCH[3]}" \
            "$speed" "$current"
    fi
    sleep 0.2
done
wait "$transfer"

echo "== 5. remove the agent"
run --agent-dir="$agent_dir" --agent-name=hostdump --remove-agent
[ -d "$agent_dir" ] && echo "   the agent directory is still there" || echo "   $agent_dir is gone"

echo
echo "== summary"
for f in "$session"/*.tar.gz; do
    printf '   %-28s %10s bytes  md5 %s\n' "$(basename "$f")" "$(stat -c %s "$f")" "$(md5sum <"$f" | cut -c1-32)"
done
grep -o 'status="[a-z]*"' "$session/migration.result" | sed 's/^/   last result: /'
echo "   session directory (kept outside the sandbox): $session"
