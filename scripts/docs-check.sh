#!/usr/bin/env bash
# The manual page against its formatters and against the program:
#
#   bash scripts/docs-check.sh        (FERRYGATE_BUILD_DIR, default build/; builds ferrygate there)
#
# - mandoc -T lint and groff -ww report nothing (groff reports on standard error but exits 0);
# - every option of the usage text is in the manual, and every option the manual names is one
#   the program accepts;
# - --help and -h print the same text and leave nothing behind; --version prints the project's
#   name and version.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${FERRYGATE_BUILD_DIR:-$here/build}
page=$here/docs/ferrygate.1
failed=0

fail() {
    echo "docs-check: $*" >&2
    failed=1
}

bash "$here/scripts/install-deps.sh"
[ -f "$build/CMakeCache.txt" ] ||
    cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j 2 --target ferrygate >/dev/null
ferrygate=$build/ferrygate

lint=$(mandoc -T lint -W warning "$page" 2>&1) || true
[ -z "$lint" ] || fail "mandoc -T lint: $lint"
lint=$(groff -ww -man -Tutf8 -z "$page" 2>&1) || true
[ -z "$lint" ] || fail "groff -ww: $lint"

cwd=$(mktemp -d /tmp/ferrygate-docs.XXXXXX)
trap 'rm -rf "$cwd"' EXIT
help=$(cd "$cwd" && "$ferrygate" --help --session-path=s 2>"$cwd.err") || fail "--help failed"
[ ! -s "$cwd.err" ] || fail "--help wrote to standard error: $(cat "$cwd.err")"
rm -f "$cwd.err"
[ -z "$(ls -A "$cwd")" ] || fail "--help left files: $(ls -A "$cwd")"
[ "$help" = "$("$ferrygate" -h)" ] || fail "-h and --help differ"

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
[ "$("$ferrygate" --version 2>&1)" = "ferrygate $version" ] ||
    fail "--version is not 'ferrygate $version'"

# In the page's source a long option reads \-\-name, with \- for every hyphen.
documented=$(grep -o '\\-\\-[a-z]\+\(\\-[a-z]\+\)*' "$page" | sed 's/\\-/-/g' | sort -u)
usage=$(grep -o -- '--[a-z]\+\(-[a-z]\+\)*' <<<"$help" | sort -u)
[ "$(wc -l <<<"$usage")" -gt 20 ] || fail "too few options in the usage text"
missing=$(comm -13 <(echo "$documented") <(echo "$usage"))
[ -z "$missing" ] || fail "usage options missing from the manual: $missing"
for option in $documented; do
    err=$(cd "$cwd" && "$ferrygate" "$option=x" 2>&1 >/dev/null) || true
    [[ $err != *unrecognized* ]] || fail "the manual names $option, which the program refuses"
done

[ $failed -eq 0 ] && echo "docs-check: passed"
exit $failed
