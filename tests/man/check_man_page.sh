#!/bin/sh
# Every command of the table must appear, in bold, in the built manual page.
# Usage: check_man_page.sh CLI_COMMANDS_PROGRAM MAN_PAGE
set -eu
lister=$1
page=$2
[ -s "$page" ] || { echo "no manual page at $page"; exit 1; }
grep -q '@COMMANDS@' "$page" && { echo "$page still holds the placeholder"; exit 1; }
# Field 5 of the listing is the help text; its quoted start is the syntax,
# which the page shows with roff's escapes for backslashes and hyphens.
"$lister" | cut -f5 | sed -n 's/^"\([^"]*\)".*/\1/p' |
    sed -e 's/\\/\\e/g' -e 's/-/\\-/g' |
    awk -v page="$page" '
        BEGIN { while ((getline line < page) > 0) text = text "\n" line }
        { rows++; if (index(text, "\\fB" $0 "\\fR") == 0) { print "missing: " $0; bad++ } }
        END { if (rows < 500) { print "only " rows " commands listed"; exit 1 } exit bad > 0 }'
