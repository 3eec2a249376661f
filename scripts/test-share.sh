#!/usr/bin/env bash
# Prints the non-blank lines of C++ product code and of C++ test code and the share of the
# second in the first; fails when the tests are more than a third of the product, so that a new
# feature's tests come with cuts of tests that catch nothing new. Counts the files git tracks
# plus new ones it does not ignore.
#   bash scripts/test-share.sh
cd "$(dirname "$0")/.." || exit 1

# Non-blank lines of the C++ files that git knows (or would add) below the given paths.
count() {
    git ls-files -z --cached --others --exclude-standard -- "$@" |
        while IFS= read -r -d '' file; do
            case $file in
                tests/fuzz/corpus/*) ;;
                *.cc | *.h) [ -f "$file" ] && printf '%s\0' "$file" ;;
            esac
        done |
        xargs -0 -r cat | grep -cv '^[[:space:]]*$'
}

product=$(count commons ssh xml utils ferrygate)
tests=$(count tests)
echo "product: $product non-blank lines (commons ssh xml utils ferrygate)"
echo "tests:   $tests non-blank lines (tests/)"
awk -v t="$tests" -v p="$product" \
    'BEGIN { if (p > 0) printf "ratio:   %.3f (tests / product; at most a third wanted)\n", t / p }'
if [ $((3 * tests)) -gt "$product" ]; then
    echo "test-share.sh: the tests are more than a third of the product code" >&2
    exit 1
fi
