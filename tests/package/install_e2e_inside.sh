#!/usr/bin/env bash
# The part of install_e2e.sh that runs inside the fresh Debian root (chroot):
# "install" installs the packages (with the host's network, should apt need to
# fetch a dependency the cached root lacks); "run", in a network namespace of
# the test's own, checks what they installed, runs the daemon as its systemd
# unit would, creates a session as an operator and reads its counters, and
# runs the exporter as its unit would and reads the same counters from it.
#
# usage: install_e2e_inside.sh install|run
set -uo pipefail

SERVICE=e2e
SOURCE_PORT=18621
REFLECTOR_PORT=18620
SESSION=pkg-e2e
# The daemon is started this many (faked) seconds before a minute boundary.
BEFORE=8
failures=0
PIDS=()

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

finish() {
    local pid
    for pid in "${PIDS[@]}"; do
        kill "$pid" 2>/dev/null
    done
    wait 2>/dev/null
    if [ "$failures" -ne 0 ]; then
        echo "--- restart log:"; cat /var/log/qrn_ng/restart.log 2>/dev/null
        echo "--- daemon:"; cat /tmp/daemon.log 2>/dev/null
        echo "--- exporter:"; cat /tmp/exporter.log 2>/dev/null
        echo "--- TnNetworkLog:"; cat /var/log/saflog/TnNetworkLog.log 2>/dev/null
        echo "--- TnApplicationLog:"; cat /var/log/saflog/TnApplicationLog.log* 2>/dev/null
        echo "$failures check(s) failed"
        exit 1
    fi
    echo "all checks passed"
    exit 0
}

# --- installation -------------------------------------------------------------
if [ "$1" = install ]; then
    export DEBIAN_FRONTEND=noninteractive
    if ! apt-get install -y --no-install-recommends /debs/*.deb >/tmp/apt.log 2>&1; then
        tail -30 /tmp/apt.log
        echo "FAIL: apt-get install of the packages"
        exit 1
    fi
    echo "ok: apt-get install $(cd /debs && echo *.deb)"
    exit 0
fi
VERSION="$(dpkg-query -W -f='${Version}' twamp-sender)"
echo "installed twamp-sender $VERSION"

for program in /usr/sbin/twampTestSession /usr/bin/twamp-ctl /usr/bin/twamp-reflector \
    /usr/bin/twamp-exporter; do
    check "$(basename "$program") --version prints '$(basename "$program") $VERSION'" \
        test "$("$program" --version)" = "$(basename "$program") $VERSION"
done
check "the system user twamp exists" test -n "$(id -u twamp 2>/dev/null)"
check "/run/itc is 2770 root:twamp" test "$(stat -c '%a %U:%G' /run/itc)" = "2770 root:twamp"
for stream in TnApplicationLog TnNetworkLog; do
    check "the $stream stream is configured" \
        test "$(stat -c '%a %U:%G' "/var/log/saflog/$stream.log")" = "640 twamp:twamp"
done
for page in man8/twampTestSession.8.gz man1/twamp-ctl.1.gz man1/twamp-reflector.1.gz \
    man1/twamp-exporter.1.gz; do
    check "man page $page is installed" test -s "/usr/share/man/$page"
done
check "the bash completion completes 'twamp-ctl cr' to create" bash -c '
    source /usr/share/bash-completion/bash_completion
    source /usr/share/bash-completion/completions/twamp-ctl
    COMP_WORDS=(twamp-ctl cr); COMP_CWORD=1; COMP_LINE="twamp-ctl cr"; COMP_POINT=12
    _twamp_ctl twamp-ctl cr twamp-ctl
    [ "${COMPREPLY[*]}" = create ]'
check "the daemon finds the stand-ins through its RUNPATH" \
    bash -c '! ldd /usr/sbin/twampTestSession | grep -q "not found"'

# --- the daemon as twamp-sender@e2e.service starts it ----------------------
UNIT=/lib/systemd/system/twamp-sender@.service
check "the template unit is installed" test -s "$UNIT"
unit_value() {
    sed -n "s/^$1=//p" "$UNIT"
}
# An instance settings file made from the example.
sed -e "s/^TWAMP_SRC_ADDRESS=.*/TWAMP_SRC_ADDRESS=127.0.0.1/" \
    -e "s/^TWAMP_SRC_PORT=.*/TWAMP_SRC_PORT=$SOURCE_PORT/" \
    -e "s/^TWAMP_TIMESTAMPING=.*/TWAMP_TIMESTAMPING=software/" \
    /usr/share/doc/twamp-sender/examples/sender-INSTANCE.conf >"/etc/twamp/sender-$SERVICE.conf"
# Capabilities as setpriv names them: CAP_NET_ADMIN -> +net_admin.
CAPS="$(unit_value AmbientCapabilities | tr 'A-Z ' 'a-z\n' | sed -n 's/^cap_/+/p' | paste -sd,)"
check "the unit grants capabilities" test -n "$CAPS"
# Becomes the daemon: call it in the background (&), so that $! is the
# daemon's own pid.
run_as_unit() {
    local instance="$1" settings="$2"
    shift 2
    set -a
    # shellcheck source=/dev/null
    . "$settings"
    eval "export $(unit_value Environment)"
    set +a
    eval "command=($(unit_value ExecStart | sed "s/%i/$instance/g"))"
    exec setpriv --reuid="$(unit_value User)" --regid="$(unit_value Group)" --init-groups \
        --inh-caps="-all,$CAPS" --ambient-caps="-all,$CAPS" --bounding-set="-all,$CAPS" \
        env "$@" "${command[@]}"
}
# ExecStartPre: the link to the initial namespace in the unit's own /tmp.
eval "$(unit_value ExecStartPre)"
check "ExecStartPre made /tmp/proc_1_ns_net" test -L /tmp/proc_1_ns_net

# A fatal start-up failure ends the daemon with the unit's status 75, for
# Restart=on-failure: a fib namespace that does not exist.
sed "s/^TWAMP_NAMESPACE=.*/TWAMP_NAMESPACE=fib_absent/" "/etc/twamp/sender-$SERVICE.conf" \
    >/tmp/sender-fatal.conf
run_as_unit fatal /tmp/sender-fatal.conf LTTNG_UST_REGISTER_TIMEOUT=0 2>/dev/null &
wait $!
status=$?
check "a fatal start-up failure exits 75 (got $status)" test "$status" -eq 75
check "the restart request is recorded" \
    grep -q "message=\"Unable to open '/var/run/netns/fib_absent': No such file or directory.\"" \
    /var/log/qrn_ng/restart.log

# The faked clock: BEFORE seconds before the next minute boundary whose bin
# is 5, so that the measured minute is never the last of an interval.
now=$(date +%s)
minute=$(((now + BEFORE + 59) / 60))
while [ $((minute % 15)) -ne 5 ]; do
    minute=$((minute + 1))
done
offset=$((minute * 60 - BEFORE - now))
FAKE="LD_PRELOAD=$(ls /usr/lib/*/faketime/libfaketime.so.1) FAKETIME=$(printf '%+d' "$offset") FAKETIME_DONT_FAKE_MONOTONIC=1 TZ=UTC"

# The reflector keeps the real clock: its T2 is the kernel's receive time,
# which libfaketime does not shift, and T3 must be on the same clock.
setpriv --reuid=nobody --regid=nogroup --clear-groups \
    twamp-reflector --listen 127.0.0.1 --port "$REFLECTOR_PORT" --quiet >/tmp/reflector.log 2>&1 &
PIDS+=($!)
# shellcheck disable=SC2086
run_as_unit "$SERVICE" "/etc/twamp/sender-$SERVICE.conf" LTTNG_UST_REGISTER_TIMEOUT=0 $FAKE \
    >/tmp/daemon.log 2>&1 &
PIDS+=($!)
for _ in $(seq 1 100); do
    [ -e "/run/itc/name.$SERVICE" ] && break
    sleep 0.1
done
check "the daemon opened its mailbox /run/itc/name.$SERVICE" test -e "/run/itc/name.$SERVICE"
check "the daemon runs as twamp" test "$(stat -c %U "/proc/${PIDS[1]}")" = twamp

# --- the exporter as twamp-exporter@e2e.service starts it -----------------
EXPORTER_UNIT=/lib/systemd/system/twamp-exporter@.service
# The example's port; the run has a network namespace of its own.
EXPORTER_PORT=9862
check "the exporter's template unit is installed" test -s "$EXPORTER_UNIT"
cp /usr/share/doc/twamp-exporter/examples/exporter-INSTANCE.conf "/etc/twamp/exporter-$SERVICE.conf"
# DynamicUser: a user without an account, in the unit's supplementary group.
# It runs on the daemon's faked clock: it takes a minute as final 10 s after
# the minute ends on its own clock.
(
    set -a
    # shellcheck source=/dev/null
    . "/etc/twamp/exporter-$SERVICE.conf"
    set +a
    eval "command=($(sed -n 's/^ExecStart=//p' "$EXPORTER_UNIT" | sed "s/%i/$SERVICE/g"))"
    # shellcheck disable=SC2086
    exec setpriv --reuid=nobody --regid=nogroup \
        --groups="$(sed -n 's/^SupplementaryGroups=//p' "$EXPORTER_UNIT")" \
        env LTTNG_UST_REGISTER_TIMEOUT=0 $FAKE "${command[@]}"
) >/tmp/exporter.log 2>&1 &
PIDS+=($!)
# GET /metrics over bash's own TCP client (the root has no curl).
scrape() {
    exec 3<>"/dev/tcp/127.0.0.1/$EXPORTER_PORT" || return 1
    printf 'GET /metrics HTTP/1.0\r\nHost: localhost\r\n\r\n' >&3
    cat <&3
    exec 3<&-
}
for _ in $(seq 1 50); do
    scrape >/dev/null 2>&1 && break
    sleep 0.1
done
exporter_sees_daemon() {
    scrape | grep -q '^twamp_exporter_daemon_up 1$'
}
check "the exporter answers on port $EXPORTER_PORT and reaches the daemon" exporter_sees_daemon

# --- the operator, a member of group twamp ---------------------------------
# (The base system already has a group named operator.)
useradd --create-home --user-group --groups twamp netops
as_operator() {
    setpriv --reuid=netops --regid=netops --init-groups env HOME=/home/netops "$@"
}
check "the operator creates a session" as_operator twamp-ctl --service "$SERVICE" create \
    --id "$SESSION" --dst 127.0.0.1 --port "$REFLECTOR_PORT" --rate 10
check "a user outside the group twamp is refused (exit 1 or 3)" \
    bash -c 'setpriv --reuid=nobody --regid=nogroup --clear-groups twamp-ctl --service '"$SERVICE"' delete --id x >/dev/null 2>&1; s=$?; [ $s -eq 1 ] || [ $s -eq 3 ]'

# The operator log rotated under the running daemon by the package's logrotate
# configuration: a refused create (the session's id again) before and one
# after the rotation, each record in its own file.
refused_record_in() {
    local file="$1" count="$2"
    for _ in $(seq 1 50); do
        [ "$(grep -c "refused: sessionId already in use" "$file" 2>/dev/null)" = "$count" ] &&
            return 0
        sleep 0.1
    done
    return 1
}
create_again() {
    as_operator twamp-ctl --service "$SERVICE" create --id "$SESSION" --dst 127.0.0.1 \
        --port "$REFLECTOR_PORT" --rate 10 >/dev/null 2>&1
}
check "logrotate's configuration is installed" test -s /etc/logrotate.d/twamp-sender
create_again
check "a refused create is recorded in TnApplicationLog" \
    refused_record_in /var/log/saflog/TnApplicationLog.log 1
check "logrotate rotates the streams" logrotate --force /etc/logrotate.d/twamp-sender
check "the rotated TnApplicationLog holds the record" \
    refused_record_in /var/log/saflog/TnApplicationLog.log.1 1
check "the new TnApplicationLog is 0640 twamp:twamp" \
    test "$(stat -c '%a %U:%G' /var/log/saflog/TnApplicationLog.log)" = "640 twamp:twamp"
create_again
check "the next refused create is recorded in the new TnApplicationLog" \
    refused_record_in /var/log/saflog/TnApplicationLog.log 1

# The measured minute is finalised 4 s after it ends.
ready=$(((minute + 1) * 60 + 6 - offset))
echo "waiting $((ready - $(date +%s))) s for the minute to be finalised"
sleep $((ready - $(date +%s)))
csv="$(as_operator twamp-ctl --service "$SERVICE" counters --id "$SESSION" --csv)"
counter() {
    awk -F, -v name="$1" -v column=$((minute % 15 + 3)) '$1 == name { print $column }' <<<"$csv"
}
sent="$(counter sentPkts)"
received="$(counter receivedPkts)"
echo "measured minute: sentPkts $sent, receivedPkts $received"
check "sentPkts > 0 in the finalised minute" test "${sent:-0}" -gt 0
check "receivedPkts > 0 in the finalised minute" test "${received:-0}" -gt 0
# The exporter takes the minute as final 10 s after it ends; its totals then
# hold exactly that minute (the minutes before it were not measured).
exported=$(((minute + 1) * 60 + 12 - offset))
sleep $((exported - $(date +%s)))
page="$(scrape)"
exported_value() {
    awk -v name="$1" 'index($0, name "{") == 1 { print $NF }' <<<"$page"
}
echo "exporter: sent total $(exported_value twamp_session_sent_packets_total)," \
    "received total $(exported_value twamp_session_received_packets_total)"
check "the exporter's sent total equals the minute's sentPkts" \
    test "$(exported_value twamp_session_sent_packets_total)" = "$sent"
check "the exporter's received total equals the minute's receivedPkts" \
    test "$(exported_value twamp_session_received_packets_total)" = "$received"
check "the operator deletes the session" as_operator twamp-ctl --service "$SERVICE" delete --id "$SESSION"

finish
