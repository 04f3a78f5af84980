#!/usr/bin/env bash
# The bash completion of twamp-ctl: what a few prefixes complete to, once on
# plain bash and once with the bash-completion library loaded (as on an
# operator's shell), when that library is installed.
#
# usage: completion_test.sh COMPLETION_FILE
set -uo pipefail

COMPLETION="$1"
failures=0

# expect "WANTED WORDS" WORD...: completes the command line WORD... (the last
# word is the one being completed) and compares the sorted candidates.
expect() {
    local wanted="$1"
    shift
    COMP_WORDS=("$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMP_LINE="$*"
    COMP_POINT=${#COMP_LINE}
    COMPREPLY=()
    _twamp_ctl twamp-ctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    local got
    got="$(printf '%s\n' "${COMPREPLY[@]}" | sort | paste -sd ' ')"
    if [ "$got" = "$wanted" ]; then
        echo "ok [$MODE]: '$*' -> $got"
    else
        echo "FAIL [$MODE]: '$*' -> '$got', expected '$wanted'"
        failures=$((failures + 1))
    fi
}

run_cases() {
    expect "counters create" twamp-ctl c
    expect "delete" twamp-ctl de
    expect "list" twamp-ctl --service core l
    expect "plot" twamp-ctl --timeout 3 p
    expect "--service" twamp-ctl --se
    expect "--version" twamp-ctl --v
    expect "--dscp --dst" twamp-ctl create --id s1 --d
    expect "--spare1 --spare2 --spreading-base" twamp-ctl create --sp
    expect "--completed --csv" twamp-ctl counters --id s1 --c
    expect "--completed" twamp-ctl counters --json --c
    expect "--json" twamp-ctl list --
    expect "--completed --id --out" twamp-ctl plot --
    expect "--id" twamp-ctl delete --
    expect "" twamp-ctl create --rate 1
    # --service offers the mailboxes of the run directory.
    expect "core core2" twamp-ctl --service co
    # --out offers files.
    expect "$WORK/plot.svg" twamp-ctl plot --id s1 --out "$WORK/pl"
}

WORK="$(mktemp -d)"
trap 'rm -rf "$WORK"' EXIT
mkdir "$WORK/itc"
ln -s mbox.0000abcd "$WORK/itc/name.core"
ln -s mbox.0000abce "$WORK/itc/name.core2"
ln -s mbox.0000abcf "$WORK/itc/name.edge"
: >"$WORK/plot.svg"
export ITC_RUNDIR="$WORK/itc"

MODE=plain
# shellcheck source=/dev/null
source "$COMPLETION"
run_cases

LIBRARY=/usr/share/bash-completion/bash_completion
if [ -r "$LIBRARY" ]; then
    MODE=bash-completion
    # shellcheck source=/dev/null
    source "$LIBRARY"
    # shellcheck source=/dev/null
    source "$COMPLETION"
    run_cases
fi

[ "$failures" -eq 0 ]
