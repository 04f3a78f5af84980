#!/usr/bin/env bash
# The documented counter rules, shown with the real daemon against lab
# reflectors that misbehave on purpose, all in one minute.
#
# Three daemons in fib_lab, all with software timestamps:
#   rules4   one session per reflector fault, each reflector on its own port:
#            a restart after a pause of one second (numbers from 0 again,
#            followed: the pause is forward loss, nothing late or repeated);
#            a restart at 100 packets/s in the first 4 s of the next minute
#            (the minute before is void, all -2); a stateless reflector with
#            forward loss (counted as reverse loss, traced once at INFO); a
#            Sender TTL left at 0 (no forward TTL, the rest exact); an echoed
#            send time 5 ms off (every reply discarded with its LAB trace, the
#            packets counted lost); and 65507-byte packets over IPv4.
#   shared4  four sessions with different DSCP towards one stateless
#            reflector address and port, one deleted half-way through the
#            minute (the others count exactly); and two sessions towards one
#            reflector that numbers its replies per sender, so that each sees
#            the other's numbers as replies lost on the way back although
#            every reply came back: the counts do not add up, the minute is
#            void, all -2, with its TnNetworkLog record.
#   large6   packets of 1453, 1500, 9000 and 65507 bytes over IPv6 on the
#            veth's 1500-byte MTU, fragmented: every reply counted.
# The daemons' clock is placed 20 s before a whole minute M; after M is
# finalised (4 s into M + 1) every session's counters of M are checked
# against the replay of the daemon's accounting on the reflector's ground
# truth (lib/truth_oracle.py): counts exactly, delays within the tolerance,
# -2 where the rule says so.
#
# usage: counter_rules_e2e.sh LAB_SH DAEMON TWAMP_CTL REFLECTOR [TOLERANCE_US [LARGE_TOLERANCE_US]]
#        (exit 77: skipped, not root)
#        LARGE_TOLERANCE_US bounds the veth's own time for fragmented packets.
set -euo pipefail
HERE="$(dirname "$(readlink -f "$0")")"
source "$HERE/lib/e2e_common.sh"
source "$HERE/lib/private_lttng.sh"
source "$HERE/lib/lab_daemon.sh"
lab_enter "$1" "$@"
private_lttng_enter "$@"

DAEMON="$2"
CTL="$3"
REFLECTOR="$4"
TOLERANCE_US="${5:-500}"
LARGE_TOLERANCE_US="${6:-50000}"
ORACLE="$HERE/lib/truth_oracle.py"
WORK="$(mktemp -d /tmp/counter_rules_e2e.XXXXXX)"
KEEP_WORK="${TWAMP_E2E_KEEP:-0}"
LEAD_SECONDS=20
# The echoed send time is this far off: 5 ms keeps every reply in the minute
# parity of its packet, so it is found and then refused for its send time.
ECHO_OFFSET_MS=5

cleanup() {
    stop_lab_processes
    private_lttng_stop
    discard_work "$WORK"
}
trap cleanup EXIT

# daemon source-address source-port
DAEMONS=(
    "rules4 198.18.0.1 8640"
    "shared4 198.18.0.1 8641"
    "large6 2001:db8:18::1 8640"
)
# reflector-port options...
# The restarts count accepted requests from the first packet at the start of
# minute M: the short one 30 s into M; the one at 100 packets/s half a second
# into M + 1, so that its 150 requests of pause end 2 s into M + 1, before M
# is finalised.
REFLECTORS=(
    "18851 --restart-after 300 --restart-gap-ms 1000"
    "18852 --restart-after 6050 --restart-gap 150"
    "18853 --stateless --fwd-loss 5 --seed 31"
    "18854 --sender-ttl 0 --reply-ttl 64"
    "18855 --corrupt-t1 $ECHO_OFFSET_MS"
    "18856"
    "18861 --stateless"
    "18862"
    "18871"
    "18872"
    "18873"
    "18874"
)
# name daemon reflector-port rate dscp size expectation
SESSIONS=(
    "restart4 rules4 18851 10 46 64 renumbered"
    "restartvoid4 rules4 18852 100 46 64 restart_void"
    "stateless4 rules4 18853 10 46 64 stateless"
    "ttl4 rules4 18854 10 46 64 valid"
    "echo4 rules4 18855 10 46 64 discarded"
    "big4 rules4 18856 10 0 65507 valid"
    "dscp10 shared4 18861 10 10 64 valid"
    "dscp20 shared4 18861 10 20 64 valid"
    "dscp30 shared4 18861 10 30 64 valid"
    "dscp40 shared4 18861 10 40 64 deleted"
    "numbered12 shared4 18862 10 12 64 unaccountable"
    "numbered14 shared4 18862 10 14 64 unaccountable"
    "frag1453 large6 18871 10 34 1453 valid"
    "frag1500 large6 18872 10 34 1500 valid"
    "frag9000 large6 18873 10 34 9000 valid"
    "frag65507 large6 18874 10 34 65507 valid"
)
# The session deleted half-way through the minute.
DELETED=dscp40
declare -A SOURCE_ADDRESS SOURCE_PORT
for entry in "${DAEMONS[@]}"; do
    read -r daemon address port <<<"$entry"
    SOURCE_ADDRESS[$daemon]="$address"
    SOURCE_PORT[$daemon]="$port"
done
service_of() {
    echo "rules_$1_$$"
}
destination_of() {
    case "${SOURCE_ADDRESS[$1]}" in
        *:*) echo 2001:db8:18::2 ;;
        *) echo 198.18.0.2 ;;
    esac
}
truth_of() {
    echo "$WORK/reflector_$1.jsonl"
}

e2e_environment "$WORK"
private_lttng_start "$WORK"
private_lttng_session rules "$WORK/trace" com_quorin_tn_twamp:INFO com_quorin_tn_twamp:LAB \
    com_quorin_tn_twamp:PACKET

for entry in "${REFLECTORS[@]}"; do
    read -r port options <<<"$entry"
    # shellcheck disable=SC2086
    check "reflector $port starts" start_reflector "$(truth_of "$port")" "$port" $options
done

# Sixteen creates by twamp-ctl take a few seconds on a host whose CPUs are
# busy (each is a process of its own, started at the test's priority): all
# must be done before the minute starts.
start_daemons_before_minute "$LEAD_SECONDS" 9

offset=1
for entry in "${SESSIONS[@]}"; do
    read -r name daemon port rate dscp size _ <<<"$entry"
    check "session $name created" "$CTL" --service "$(service_of "$daemon")" create --id "$name" \
        --dst "$(destination_of "$daemon")" --port "$port" --rate "$rate" --dscp "$dscp" \
        --size "$size" --offset "$offset"
    offset=$((offset + 1))
done
check "every session armed before minute $MINUTE starts" \
    awk -v now="$(fake_now)" -v start=$((MINUTE * 60)) 'BEGIN { exit !(now < start - 0.5) }'

# Half-way through M one of the sessions sharing the stateless reflector goes.
wait_fake_until $((MINUTE * 60 + 30))
for entry in "${SESSIONS[@]}"; do
    read -r name daemon _ <<<"$entry"
    if [ "$name" = "$DELETED" ]; then
        check "session $name deleted half-way through minute $MINUTE" \
            "$CTL" --service "$(service_of "$daemon")" delete --id "$name"
    fi
done

# Minute M is finalised by the first packet 4 s into M + 1.
wait_fake_until $(((MINUTE + 1) * 60 + 6))
for entry in "${SESSIONS[@]}"; do
    read -r name daemon _ <<<"$entry"
    check "$name: counters read" counters_json "$(service_of "$daemon")" "$name" \
        "$WORK/$name.counters.json"
done
check "every session's counters read while minute $((MINUTE + 1)) runs" \
    awk -v now="$(fake_now)" -v end=$(((MINUTE + 2) * 60)) 'BEGIN { exit !(now < end) }'
stop_lab_processes
private_lttng_finish rules
private_lttng_read "$WORK/trace" "$WORK/events.txt"

# One oracle run per session, all in one interpreter (lib/truth_oracle.py --batch).
other_bins="$(seq 0 14 | grep -vx "$BIN" | paste -sd, -)"
batch="$WORK/oracle.batch"
: >"$batch"
offset=0
for entry in "${SESSIONS[@]}"; do
    read -r name daemon port rate dscp size expectation <<<"$entry"
    offset=$((offset + 1))
    if [ "$expectation" = deleted ]; then
        printf '%q ' --counters "$WORK/$name.counters.json" --na-bins 0-14 --label "$name" >>"$batch"
        echo >>"$batch"
        continue
    fi
    tolerance="$TOLERANCE_US"
    if [ "$size" -gt 1400 ]; then
        tolerance="$LARGE_TOLERANCE_US"
    fi
    split=()
    if [ "$daemon" = shared4 ]; then
        split=(--dscp "$dscp")
    fi
    # A daemon held up for more than 8 packet intervals catches up only 8
    # sends: at 100 packets/s a stall of 120 ms on a busy host costs a few.
    # The void minute does not depend on them.
    sent=(--expect-sent $((rate * 60)))
    if [ "$expectation" = restart_void ]; then
        sent=()
    fi
    session_text="for dstIpAddress $(destination_of "$daemon"), dstUdpPort $port,"
    session_text+=" srcIpAddress ${SOURCE_ADDRESS[$daemon]} and srcUdpPort ${SOURCE_PORT[$daemon]}."
    printf '%q ' --truth "$(truth_of "$port")" --counters "$WORK/$name.counters.json" \
        --rate "$rate" --minute "$MINUTE" --tolerance-us "$tolerance" \
        --label "$name ($expectation)" \
        "${sent[@]}" --expect "$expectation" --na-bins "$other_bins" \
        "${split[@]}" --network-log "$WORK/log_$daemon/TnNetworkLog.log" \
        --session-text "$session_text" --daemon-events "$WORK/events.txt" \
        --start-offset "$offset" >>"$batch"
    echo >>"$batch"
done
check "every session's minute $MINUTE as its rule says, against its reflector's truth (one line each above)" \
    python3 "$ORACLE" --batch "$batch"

# bin_value NAME COUNTER: the counter of minute M of a session.
bin_value() {
    jq -r ".counters.$2[$BIN]" "$WORK/$1.counters.json"
}
equals() {
    [ "$1" = "$2" ]
}
# The figures each rule is about, written out, beside the oracle's full replay.
check "restart4: the pause is forward loss, not one late or repeated reply" \
    equals "$(bin_value restart4 latePktsRev)/$(bin_value restart4 duplicatePktsRev)/$(bin_value restart4 lostPktsRev)" 0/0/0
check "restart4: the reflector really paused ($(bin_value restart4 lostPktsFwd) packets lost forward)" \
    [ "$(bin_value restart4 lostPktsFwd)" -ge 9 ]
check "restartvoid4: minute $MINUTE is all -2" equals "$(bin_value restartvoid4 sentPkts)" -2
# Only a loss that no later reply reveals (the minute's last packets) stays forward.
stateless_dropped="$(grep -cE "\"event\":\"fwd_loss\",\"senderSeq\":[0-9]+,\"senderMinute\":${MINUTE}[,}]" \
    "$(truth_of 18853)" || true)"
check "stateless4: every request the reflector dropped ($stateless_dropped) is counted lost" \
    equals "$(($(bin_value stateless4 lostPktsFwd) + $(bin_value stateless4 lostPktsRev)))" \
    "$stateless_dropped"
check "stateless4: the forward loss reads as reverse loss" \
    [ "$(bin_value stateless4 lostPktsRev)" -gt "$(bin_value stateless4 lostPktsFwd)" ]
check "ttl4: no forward TTL" equals "$(bin_value ttl4 ttlFwdMin)/$(bin_value ttl4 ttlFwdMax)" -2/-2
check "ttl4: the reply TTL is there" equals "$(bin_value ttl4 ttlRevMin)/$(bin_value ttl4 ttlRevMax)" 64/64
check "echo4: no reply counted, every packet lost" \
    equals "$(bin_value echo4 receivedPkts)/$(bin_value echo4 lostPktsFwd)" 0/600
for name in dscp10 dscp20 dscp30 big4 frag1453 frag1500 frag9000 frag65507; do
    check "$name: every reply counted, no loss" \
        equals "$(bin_value "$name" sentPkts)/$(bin_value "$name" receivedPkts)/$(bin_value "$name" lostPktsFwd)/$(bin_value "$name" lostPktsRev)" 600/600/0/0
done
check "numbered12 and numbered14: minute $MINUTE all -2" \
    equals "$(bin_value numbered12 sentPkts)/$(bin_value numbered14 sentPkts)" -2/-2

# Traces. babeltrace2 prints the message as message = "function(): text".
traced() {
    grep -F "com_quorin_tn_twamp:$1:" "$WORK/events.txt" | grep -cF "$2" || true
}
stateless_text="updatePmMember(): Reflector of dstIpAddress 198.18.0.2, dstUdpPort 18853 numbers"
stateless_text+=" its replies with the sender sequence number: forward loss is counted as reverse loss\""
check "stateless4: the INFO trace once" equals "$(traced INFO "$stateless_text")" 1
check "the stateless reflector shared without loss: no such trace" \
    equals "$(traced INFO "dstUdpPort 18861 numbers its replies")" 0
# Every reply of the echo session's minute was refused with its echoed and
# sent time, the one exactly the reflector's offset (in NTP units) from the other.
echo_refusals() {
    grep -F 'com_quorin_tn_twamp:LAB:' "$WORK/events.txt" |
        grep -oE 'Response sender timestamp [0-9a-f]+ differs from [0-9a-f]+ sent, seqNum: [0-9]+ "' |
        python3 -c 'import json, sys
offset = round(float(sys.argv[2]) * (1 << 32) / 1000)
wrong = 0
seen = set()
for line in sys.stdin:
    words = line.split()
    echoed, sent, seq = int(words[3], 16), int(words[6], 16), int(words[9])
    wrong += echoed - sent != offset
    seen.add(seq)
replies = {event["senderSeq"] for event in map(json.loads, open(sys.argv[1]))
           if event["event"] == "reply" and event["senderMinute"] == int(sys.argv[3])}
print("%d refused, %d with another offset, %d replies unrefused" % (
    len(seen), wrong, len(replies - seen)))
sys.exit(0 if seen and not wrong and not replies - seen else 1)' "$(truth_of 18855)" "$ECHO_OFFSET_MS" \
            "$MINUTE"
}
check "echo4: every reply refused at LAB with the send time it echoed" echo_refusals
for entry in "${DAEMONS[@]}"; do
    read -r daemon _ <<<"$entry"
    check "daemon $daemon: standard error holds only the argc line" \
        cmp -s "$WORK/log_$daemon/stderr" <(printf 'argc= 6\n')
done

if [ "$E2E_FAILURES" -ne 0 ]; then
    KEEP_WORK=1
fi
e2e_finish
