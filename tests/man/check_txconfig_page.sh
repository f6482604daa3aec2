#!/bin/sh
# Every setting that txconfig covers must appear, in bold, in its built manual
# page, and every option of its usage.
# Usage: check_txconfig_page.sh CLI_COMMANDS_PROGRAM TXCONFIG_PROGRAM MAN_PAGE
set -eu
lister=$1
txconfig=$2
page=$3
[ -s "$page" ] || { echo "no manual page at $page"; exit 1; }
grep -q '@COMMANDS@' "$page" && { echo "$page still holds the placeholder"; exit 1; }
{
    "$lister" --settings | cut -f1 | sed 's/^/setting /'
    "$txconfig" --help | grep -o -- '--[a-z-]*' | sort -u | sed 's/^/option /'
} | sed -e 's/-/\\-/g' |
    awk -v page="$page" '
        BEGIN { while ((getline line < page) > 0) text = text "\n" line }
        $1 == "setting" { rows++; wanted = "\\fB" $2 "\\fR" }
        $1 == "option" { wanted = $2 }
        { if (index(text, wanted) == 0) { print "missing: " $2; bad++ } }
        END { if (rows < 170) { print "only " rows " settings listed"; exit 1 } exit bad > 0 }'
