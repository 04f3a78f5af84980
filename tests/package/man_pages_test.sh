#!/usr/bin/env bash
# The generated man pages: man and groff find nothing to warn about in any
# page of MAN_DIR, and each page named with a program names every option that
# program's --help prints.
#
# usage: man_pages_test.sh MAN_DIR [PAGE=PROGRAM]...
#   PAGE is the file name in MAN_DIR (twamp-ctl.1); PROGRAM the built binary
#   whose --help the page must cover.
set -uo pipefail

MAN_DIR="$1"
shift
failures=0

fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

check_warnings() {
    local page="$1" warnings
    # man renders as an operator would see it; groff -ww turns on every warning.
    warnings="$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -E UTF-8 -l "$page" 2>&1 >/dev/null)"
    warnings+="$(groff -ww -z -man "$page" 2>&1)"
    if [ -n "$warnings" ]; then
        fail "$(basename "$page") has warnings: $warnings"
    else
        echo "ok: $(basename "$page") renders without warnings"
    fi
}

check_options() {
    local page="$1" program="$2" option missing=""
    local text
    text="$(LC_ALL=C.UTF-8 MANWIDTH=200 man -l "$page" 2>/dev/null | col -b)"
    for option in $("$program" --help | grep -o -- '--[a-z0-9][a-z0-9-]*' | sort -u); do
        if ! grep -q -- "$option\\b" <<<"$text"; then
            missing+=" $option"
        fi
    done
    if [ -n "$missing" ]; then
        fail "$(basename "$page") lacks options of $(basename "$program") --help:$missing"
    else
        echo "ok: $(basename "$page") names every option of $(basename "$program") --help"
    fi
}

pages=("$MAN_DIR"/*.[1-9])
if [ ! -e "${pages[0]}" ]; then
    fail "no man page in $MAN_DIR"
fi
for page in "${pages[@]}"; do
    [ -e "$page" ] && check_warnings "$page"
done
for pair in "$@"; do
    page="$MAN_DIR/${pair%%=*}"
    if [ ! -s "$page" ]; then
        fail "$page was not generated"
        continue
    fi
    check_options "$page" "${pair#*=}"
done

[ "$failures" -eq 0 ]
