#!/usr/bin/env bash
# Fails when an #include runs against the layers, each of which may include only itself and
# the layers below it:
#   utils -> commons -> xml, ssh -> commons_xml -> ferrygate
# commons_xml is commons/xml_* (the execution log and XML error formatting, which write through
# xml/); xml and ssh know nothing of each other. Also fails when a header of commons/ or xml/
# includes libxml2 or libxslt, which only their sources and xml/xml_internal.h may: the actions
# include those headers. Every violation is printed as file:line. The build runs this first.
#   bash scripts/check-layers.sh
set -uo pipefail
cd "$(dirname "$0")/.." || exit 2

layer_of() {
    case $1 in
        commons/xml_*) echo commons_xml ;;
        utils/* | commons/* | xml/* | ssh/* | ferrygate/*) echo "${1%%/*}" ;;
    esac
}

allowed_for() {
    case $1 in
        utils) echo "utils" ;;
        commons) echo "utils commons" ;;
        xml) echo "utils commons xml" ;;
        ssh) echo "utils commons ssh" ;;
        commons_xml) echo "utils commons xml commons_xml" ;;
        ferrygate) echo "utils commons xml ssh commons_xml ferrygate" ;;
    esac
}

status=0
while IFS=: read -r file line text; do
    own=$(layer_of "$file")
    if [[ $text =~ \#[[:space:]]*include[[:space:]]*\"([^\"]*)\" ]]; then
        target=$(layer_of "${BASH_REMATCH[1]}")
        if [ -z "$target" ]; then
            echo "$file:$line: ${BASH_REMATCH[1]} is in no layer; include by the path from the" \
                "source root (dir/file.h)"
            status=1
        elif [[ " $(allowed_for "$own") " != *" $target "* ]]; then
            echo "$file:$line: $own may not include ${BASH_REMATCH[1]} ($target);" \
                "it may include: $(allowed_for "$own")"
            status=1
        fi
    elif [[ $file == *.h && $file != xml/xml_internal.h && ($own == commons || $own == commons_xml ||
        $own == xml) ]]; then
        library=${text#*<}
        echo "$file:$line: a header of $own may not include <${library%%>*}>" \
            "(forward-declare the library's types; include it in the source)"
        status=1
    fi
done < <(find utils commons xml ssh ferrygate -type f \( -name '*.cc' -o -name '*.h' \) -print0 |
    sort -z | xargs -0 -r grep -nHE '^[[:space:]]*#[[:space:]]*include[[:space:]]*("|<(libxml|libxslt)/)')
[ "$status" -eq 0 ] || echo "check-layers: includes against the layers (see scripts/check-layers.sh)" >&2
exit "$status"
