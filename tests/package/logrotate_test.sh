#!/usr/bin/env bash
# The package's logrotate configuration, run by the real logrotate on a
# scratch copy of the log directory while a writer holds a stream open, as the
# daemon does: the record before a rotation stays in the rotated file, the
# next one goes into the new file, which logrotate created with the stream's
# mode; a second rotation compresses the first; an empty stream is left alone.
#
# usage: logrotate_test.sh CONFIG SALOG_WRITER
set -uo pipefail

CONFIG="$1"
WRITER="$2"
# shellcheck source=../e2e/lib/e2e_common.sh
. "$(dirname "$0")/../e2e/lib/e2e_common.sh"

if ! command -v logrotate >/dev/null; then
    echo "FAIL: logrotate is not installed (scripts/setup.sh installs it)"
    exit 1
fi

WORK="$(mktemp -d /tmp/twamp-logrotate.XXXXXX)"
LOGS="$WORK/saflog"
cleanup() {
    local status=$?
    exec 3>&- 4<&-
    wait 2>/dev/null
    rm -rf "$WORK"
    exit "$status"
}
trap cleanup EXIT

# The configuration with the scratch directory and this user for the system's.
sed -e "s|/var/log/saflog/|$LOGS/|g" \
    -e "s|^\([[:space:]]*create 0640\) twamp twamp\$|\1 $(id -un) $(id -gn)|" \
    "$CONFIG" >"$WORK/twamp-sender.conf"
check "the configuration names both streams in /var/log/saflog" \
    grep -q "^$LOGS/TnApplicationLog.log $LOGS/TnNetworkLog.log {\$" "$WORK/twamp-sender.conf"
check "the configuration creates the new file 0640 for twamp" \
    grep -q "create 0640 $(id -un) $(id -gn)\$" "$WORK/twamp-sender.conf"

install -d -m 0750 "$LOGS"
install -m 0640 /dev/null "$LOGS/TnApplicationLog.log"
install -m 0640 /dev/null "$LOGS/TnNetworkLog.log"

rotate() {
    logrotate --force --state "$WORK/state" "$WORK/twamp-sender.conf"
}

# The writer, with a pipe each way.
mkfifo "$WORK/in" "$WORK/out"
SA_LOG_DIR="$LOGS" "$WRITER" TnNetworkLog <"$WORK/in" >"$WORK/out" &
exec 3>"$WORK/in" 4<"$WORK/out"
record() {
    local answer
    echo "$1" >&3
    read -r -t 10 answer <&4 && [ "$answer" = ok ]
}

check "a record before the rotation is written" record "record before the first rotation"
check "logrotate rotates the stream" rotate
check "the rotated file holds the record before the rotation" \
    grep -q "record before the first rotation" "$LOGS/TnNetworkLog.log.1"
check "the new file is 0640" test "$(stat -c %a "$LOGS/TnNetworkLog.log")" = 640
check "the new file is empty until the next record" test ! -s "$LOGS/TnNetworkLog.log"
check "a record after the rotation is written" record "record after the first rotation"
check "it went into the new file" grep -q "record after the first rotation" "$LOGS/TnNetworkLog.log"
check "and not into the rotated one" \
    bash -c "! grep -q 'after the first' '$LOGS/TnNetworkLog.log.1'"

check "logrotate rotates the stream again" rotate
check "the first rotated file is now compressed" \
    bash -c "zcat '$LOGS/TnNetworkLog.log.2.gz' | grep -q 'record before the first rotation'"
check "the second rotated file holds the record between the rotations" \
    grep -q "record after the first rotation" "$LOGS/TnNetworkLog.log.1"
check "a record after the second rotation is written" record "record after the second rotation"
check "it went into the new file, alone" \
    test "$(wc -l <"$LOGS/TnNetworkLog.log")" -eq 1 -a \
    -n "$(grep "record after the second rotation" "$LOGS/TnNetworkLog.log")"
check "the empty stream was not rotated" test ! -e "$LOGS/TnApplicationLog.log.1"
check "the empty stream's file is still there" test -e "$LOGS/TnApplicationLog.log"

if [ "$E2E_FAILURES" -ne 0 ]; then
    echo "--- $LOGS:"
    ls -l "$LOGS"
    echo "$E2E_FAILURES check(s) failed"
    exit 1
fi
echo "all checks passed"
