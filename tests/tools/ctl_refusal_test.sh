#!/bin/bash
# twamp-ctl refuses a create that the daemon would refuse, before it opens a
# mailbox: exit status 2 and a message naming the option, the value and the
# allowed range. ITC_RUNDIR points nowhere, so a create that got past the
# checks would fail with status 1 instead and send nothing.
#
# usage: ctl_refusal_test.sh TWAMP_CTL
set -u

CTL="${1:?usage: ctl_refusal_test.sh TWAMP_CTL}"
failures=0

# expect_refusal MESSAGE ARGUMENT...: exit 2, MESSAGE on the first line of stderr.
expect_refusal() {
    local expected="$1" output status
    shift
    output="$(ITC_RUNDIR=/nonexistent/itc "$CTL" --service refusal_test create --id r1 \
        --dst 198.18.0.2 --port 862 "$@" 2>&1 >/dev/null)"
    status=$?
    if [ "$status" -ne 2 ] || [ "$(head -n 1 <<<"$output")" != "twamp-ctl: $expected" ]; then
        echo "FAIL: $* gave status $status and: $(head -n 1 <<<"$output")"
        echo "      expected status 2 and: twamp-ctl: $expected"
        failures=$((failures + 1))
    else
        echo "ok: $*"
    fi
}

expect_refusal "--size: 40 is out of range 41..65507" --size 40
expect_refusal "--size: 65508 is out of range 41..65507" --size 65508
expect_refusal "--port: 0 is out of range 1..65535" --port 0
expect_refusal "--rate: '1k' is not a whole number in 0..10000" --rate 1k
expect_refusal "--offset: 2500 is out of range 0..2499 (0..5555 with --spreading-base 5000)" \
    --offset 2500
expect_refusal "--dst: 'reflector' is not an IPv4 or IPv6 address" --dst reflector

exit $((failures > 0))
