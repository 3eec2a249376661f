#!/usr/bin/env bash
# The Debian package as a Debian developer and a first-time user meet it:
#
#   bash scripts/package-check.sh        (as root; FERRYGATE_PACKAGE_BUILD_DIR, default build-deb/)
#
# 1. Builds the program with Debian's build flags (dpkg-buildflags, all hardening) and the
#    package with cpack.
# 2. lintian: any error or warning that the package does not override with a reason fails.
# 3. The package, its changelog and `ferrygate --version` name the project's version.
# 4. `cmake --install --prefix P` with DESTDIR=D puts every file below D/P, and keeps an existing
#    hmx.conf.
# 5. In a private mount namespace (scripts/sandbox.sh: copies of /etc, /run and /home; here also
#    /usr and /var behind overlays on a tmpfs, so that dpkg's files and database vanish with it):
#    dpkg -i; the program on the PATH, its manual where man finds it, hmxadm with a group of the
#    same number; scripts/demo.sh --installed with nothing but the installed files; a second
#    dpkg -i keeps the account; dpkg -r keeps the configuration; dpkg --purge leaves nothing of
#    the package: no file, no account it made, no service.
# 6. The host's package database, product root and accounts are as they were.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${FERRYGATE_PACKAGE_BUILD_DIR:-$here/build-deb}

fail() {
    echo "package-check: $*" >&2
    exit 1
}

# Standard input closed: a question from dpkg fails the command instead of waiting.
dpkg_() { dpkg --log=/dev/null "$@" </dev/null; }

# PATH...: for each, "path yes" or "path no", whether it exists (a dangling link counts).
presence() {
    local p
    for p in "$@"; do
        if [ -e "$p" ] || [ -L "$p" ]; then echo "$p yes"; else echo "$p no"; fi
    done
}

inside() {
    # Below the sandbox's private /run, so that not even the mount point outlives it.
    local deb=$1 version=$2 scratch=/run/ferrygate-package
    mkdir -m 0700 "$scratch"
    mount -t tmpfs -o mode=0700 ferrygate-package "$scratch"
    local dir
    for dir in /usr /var; do
        mkdir -p "$scratch$dir/upper" "$scratch$dir/work"
        mount -t overlay ferrygate-package -o \
            "lowerdir=$dir,upperdir=$scratch$dir/upper,workdir=$scratch$dir/work" "$dir"
    done

    local -a paths
    mapfile -t paths < <(dpkg-deb -c "$deb" | awk '{ print substr($6, 2) }' | sed 's,/$,,')
    paths+=(/var/lib/ferrygate)
    local before account_before
    before=$(presence "${paths[@]}")
    account_before=$(getent passwd hmxadm || true)

    echo "== dpkg -i"
    dpkg_ -i "$deb" >/dev/null
    [ "$(readlink -f "$(command -v ferrygate)")" = /usr/local/hmx/bin/ferrygate ] ||
        fail "ferrygate on the PATH is not the installed program"
    [ "$(ferrygate --version)" = "ferrygate $version" ] || fail "installed --version"
    [ "$(man -w ferrygate)" = /usr/share/man/man1/ferrygate.1.gz ] ||
        fail "man does not find the page"
    dpkg -L ferrygate | grep -qx /usr/bin/ferrygate || fail "dpkg -L lacks /usr/bin/ferrygate"
    diff -r -x tmp "$here/data" /usr/local/hmx/RKU >&2 || fail "the installed data differ"
    [ "$(stat -c %a /usr/local/hmx/RKU/tmp)" = 750 ] || fail "RKU/tmp is not 0750"
    grep -qx 'PRODUCT_ROOT_D /usr/local/hmx' /etc/hmx/hmx.conf || fail "hmx.conf"
    # Session directories get hmxadm's user id as their group: the two numbers must agree.
    local uid gid
    uid=$(id -u hmxadm) gid=$(getent group hmxadm | cut -d: -f3)
    [ "$uid" = "$gid" ] && [ "$uid" -lt 1000 ] || fail "hmxadm: uid $uid, group $gid"
    ! dpkg -L ferrygate | grep -E '^/(etc|lib|usr/lib)/(systemd|init\.d|cron)' ||
        fail "the package brings a service"

    echo "== the demo, with the installed files"
    FERRYGATE_DEMO_SESSION=$scratch/session bash "$here/scripts/demo.sh" --installed
    grep -q 'status="success"' "$scratch/session/migration.result" || fail "the demo failed"
    ! pgrep -u hmxadm >/dev/null || fail "processes run as hmxadm"

    echo "== dpkg -i again, dpkg -r, dpkg --purge"
    dpkg_ -i "$deb" >/dev/null
    [ "$(id -u hmxadm)" = "$uid" ] || fail "reinstalling changed hmxadm's uid"
    dpkg_ -r ferrygate >/dev/null
    [ ! -e /usr/local/hmx/bin/ferrygate ] || fail "dpkg -r left the program"
    [ -f /etc/hmx/hmx.conf ] || fail "dpkg -r removed the configuration"
    dpkg_ --purge ferrygate >/dev/null
    [ "$(presence "${paths[@]}")" = "$before" ] ||
        fail "left after purge: $(diff <(echo "$before") <(presence "${paths[@]}") | grep '^>')"
    [ "$(getent passwd hmxadm || true)" = "$account_before" ] || fail "purge: hmxadm"
    if [ -z "$account_before" ] && getent group hmxadm >/dev/null; then
        fail "purge: group hmxadm"
    fi
    ! ls /var/lib/dpkg/info/ferrygate.* 2>/dev/null || fail "dpkg still knows the package"
    echo "== purged: nothing of the package is left"
}

if [ "${1:-}" = --inside ]; then
    inside "$2" "$3"
    exit 0
fi

[ "$(id -u)" -eq 0 ] || fail "run as root (dpkg runs in a private mount namespace)"
bash "$here/scripts/install-deps.sh"

echo "== building with Debian's build flags in $build"
(
    cd "$here"
    eval "$(DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh)"
    # CMake reads compiler flags from the environment when it first configures a tree, and never
    # reads CPPFLAGS.
    export CFLAGS="$CFLAGS $CPPFLAGS" CXXFLAGS="$CXXFLAGS $CPPFLAGS"
    cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=None -DBUILD_TESTING=OFF >/dev/null
)
cmake --build "$build" -j 2 >/dev/null
rm -rf "$build/deb"
(cd "$build" && cpack -G DEB -B "$build/deb" >/dev/null)
deb=$(echo "$build"/deb/*.deb)
[ -f "$deb" ] || fail "cpack made no package"
echo "   $deb"
depends=$(dpkg-deb -f "$deb" Depends)
echo "   Depends: $depends"
# dpkg-shlibdeps gives each library its minimum version; useradd and userdel come from passwd.
[[ $depends == *"libc6 (>= "* && $depends =~ (^|, )passwd(,|$) ]] || fail "Depends: $depends"

echo "== lintian"
# lintian counts overridden tags too when it is asked to show them: the verdict comes first.
lintian --fail-on error,warning "$deb" || fail "lintian: errors or warnings above"
echo "   clean; overridden in the package, with reasons (/usr/share/lintian/overrides/ferrygate):"
lintian --fail-on none --show-overrides --display-level ">=info" "$deb" 2>/dev/null |
    awk '$1 == "O:" { print $3 }' | sort | uniq -c | sed 's/^/   /'

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
for named in "$(dpkg-deb -f "$deb" Version)" \
    "$(dpkg-parsechangelog -l "$here/packaging/deb/changelog" -S Version)" \
    "$("$build/ferrygate" --version | sed -n 's/^ferrygate //p')"; do
    [ "$named" = "$version" ] || fail "version $named is not the project's $version"
done

echo "== cmake --install with DESTDIR and --prefix"
stage=$(mktemp -d /tmp/ferrygate-stage.XXXXXX)
trap 'rm -rf "$stage"' EXIT
root=/opt/ferrygate-check
DESTDIR=$stage cmake --install "$build" --prefix "$root" >/dev/null
outside=$(cd "$stage" && find . -mindepth 1 ! -path ./opt ! -path ".$root" ! -path ".$root/*")
[ -z "$outside" ] || fail "installed outside the prefix: $outside"
# The manifest names files as they will be once DESTDIR is taken away.
grep -qx "$root/etc/hmx/hmx.conf" "$build/install_manifest.txt" ||
    fail "hmx.conf not in the manifest"
! grep -v "^$root/" "$build/install_manifest.txt" || fail "installed outside the prefix"
[ -x "$stage$root/bin/ferrygate" ] && [ -f "$stage$root/RKU/log4cpp.properties" ] ||
    fail "the program or its data is missing"
grep -qx "PRODUCT_ROOT_D $root" "$stage$root/etc/hmx/hmx.conf" || fail "hmx.conf names no root"
echo "PRODUCT_ROOT_D /elsewhere" >"$stage$root/etc/hmx/hmx.conf"
DESTDIR=$stage cmake --install "$build" --prefix "$root" >/dev/null
grep -qx "PRODUCT_ROOT_D /elsewhere" "$stage$root/etc/hmx/hmx.conf" || fail "hmx.conf overwritten"

host_state() {
    md5sum /var/lib/dpkg/status
    presence /usr/local/hmx /usr/bin/ferrygate /etc/hmx /var/lib/ferrygate
    getent passwd hmxadm || true
}
host_before=$(host_state)
# Always a namespace of its own, even when called inside a sandbox: the overlays must never be
# mounted where anything else would see them.
env -u FERRYGATE_SANDBOXED bash "$here/scripts/sandbox.sh" bash "$0" --inside "$deb" "$version"
[ "$(host_state)" = "$host_before" ] ||
    fail "the host changed: $(diff <(echo "$host_before") <(host_state))"
echo "== package-check: passed"
