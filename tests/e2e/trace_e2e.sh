#!/usr/bin/env bash
# End-to-end trace test: a private lttng-sessiond records what a program emits
# through the production trace facade; babeltrace2 reads the trace back and
# every event is checked for provider, name, position, component and message.
#
# usage: trace_e2e.sh TRACE_EMITTER
set -euo pipefail
source "$(dirname "$(readlink -f "$0")")/lib/private_lttng.sh"
private_lttng_enter "$@"

EMITTER="$1"
WORK="$(mktemp -d /tmp/trace_e2e.XXXXXX)"
cleanup() {
    private_lttng_stop
    rm -rf "$WORK"
}
trap cleanup EXIT

failures=0
check() {
    local what="$1"
    shift
    if "$@"; then
        echo "ok: $what"
    else
        echo "FAIL: $what"
        failures=$((failures + 1))
    fi
}

private_lttng_start "$WORK"
# EXCEPTION stays disabled: it must not be recorded, nor its arguments evaluated.
private_lttng_session e2e "$WORK/trace" \
    com_quorin_tn_twamp:ERROR com_quorin_tn_twamp:INFO com_quorin_tn_twamp:LAB \
    com_quorin_tn_twamp:PACKET com_quorin_tn_troubleshooting:ERROR

# Wait for the emitter's registration with the session daemon before main runs.
LTTNG_UST_REGISTER_TIMEOUT=10000 "$EMITTER" >"$WORK/positions.txt"
private_lttng_finish e2e
babeltrace2 "$WORK/trace" >"$WORK/events.txt"

echo "--- emitter"
cat "$WORK/positions.txt"
echo "--- trace"
cat "$WORK/events.txt"
echo "---"

position_of() {
    grep -F "$1 " "$WORK/positions.txt" | head -n 1 | cut -d' ' -f2
}

# recorded PROVIDER:EVENT POSITION COMPONENT MESSAGE: exactly one such event.
recorded() {
    local name="$1" position="$2" component="$3" message="$4"
    local fields="{ position = \"$position\", component = \"$component\", message = \"$message\" }"
    [ "$(grep -F " $name: " "$WORK/events.txt" | grep -cF "$fields")" -eq 1 ]
}

check "ERROR recorded" recorded com_quorin_tn_twamp:ERROR \
    "$(position_of com_quorin_tn_twamp:ERROR)" TWAMP "main(): error event 1"
check "INFO recorded" recorded com_quorin_tn_twamp:INFO \
    "$(position_of com_quorin_tn_twamp:INFO)" TWAMP "main(): info event two"
check "LAB recorded" recorded com_quorin_tn_twamp:LAB \
    "$(position_of com_quorin_tn_twamp:LAB)" TWAMP "main(): argv[0] = emitter"
check "PACKET recorded" recorded com_quorin_tn_twamp:PACKET \
    "$(position_of com_quorin_tn_twamp:PACKET)" TWAMP "main(): seq 4"
check "troubleshooting ERROR recorded with component GENERAL" recorded \
    com_quorin_tn_troubleshooting:ERROR "$(position_of com_quorin_tn_troubleshooting:ERROR)" \
    GENERAL "main(): Unable to write to TnNetworkLog"
check "positions are file base name, colon, line" \
    grep -qE '^com_quorin_tn_twamp:ERROR trace_emitter\.cc:[0-9]+$' "$WORK/positions.txt"
check "GLib warning traced at INFO by the log handler" \
    grep -qE ' com_quorin_tn_twamp:INFO: .*\{ position = "TwampTestSessionMain\.cc:[0-9]+", component = "TWAMP", message = "twampTestSessionLoghandler\(\): WARNING: emitter: glib warning" \}' \
    "$WORK/events.txt"
check "disabled EXCEPTION not recorded" \
    bash -c "! grep -q 'com_quorin_tn_twamp:EXCEPTION' '$WORK/events.txt'"
check "disabled EXCEPTION arguments not evaluated" \
    grep -qx "exception arguments evaluated: 0" "$WORK/positions.txt"
check "exactly six events recorded" [ "$(wc -l <"$WORK/events.txt")" -eq 6 ]

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed"
    exit 1
fi
echo "all trace checks passed"
