#!/usr/bin/env python3
"""The part of each measured delay that the ground truth cannot know, as the
daemon itself saw it: a measurement, which prints figures and checks nothing.

The daemon's PACKET trace events give, per analysed reply, its kernel's
transmit time T1' of the packet, the T2 and T3 the reflector wrote and its
kernel's receive time T4 of the reply. The reflector's truth gives the
kernel's receive time rx of the request and transmit time tx of the reply.
Per packet

    spread = (T4 - T1') - (T3 - T2) - ((T2 - rx) + (tx - T3))
           = (rx - T1') + (T4 - tx)

the veth pair's own time out and back, which the truth oracle's tolerance
covers.

usage: truth_spread.py --events FILE --session OFFSET:TRUTH [--session ...]
  --events   the daemon's events as babeltrace2 prints them
  --session  a session's start offset (how its PACKET events name it) and
             the ground truth of its reflector
"""

import argparse
import json
import re
import sys

PACKET = re.compile(r"PACKET:.*SenderSequenceNo: (\d+), ResponderSequenceNo: \d+, "
                    r"StartOffset: (-?\d+), T1: \w+, T1Prime: (\w+), T2: (\w+), T3: (\w+), "
                    r"T4: (\w+)")
NTP_UNIX_OFFSET = 2208988800


def nanoseconds(ntp_hex):
    value = int(ntp_hex, 16)
    return ((value >> 32) - NTP_UNIX_OFFSET) * 10**9 + (((value & 0xFFFFFFFF) * 10**9) >> 32)


def first_replies(path):
    """The first copy of each sender number's reply, with the kernel's times."""
    replies = {}
    with open(path) as stream:
        for line in stream:
            event = json.loads(line)
            if (event.get("event") == "reply" and event.get("rxKernelNs") is not None and
                    event.get("txKernelNs") is not None):
                replies.setdefault(event["senderSeq"], event)
    return replies


def spreads(events_path, sessions):
    values = []
    with open(events_path) as stream:
        for line in stream:
            match = PACKET.search(line)
            if not match:
                continue
            seq, offset = int(match.group(1)), int(match.group(2))
            reply = sessions.get(offset, {}).get(seq)
            if reply is None:
                continue
            t1_prime, t2, t3, t4 = (nanoseconds(match.group(k)) for k in range(3, 7))
            known = (reply["t2Ns"] - reply["rxKernelNs"]) + (reply["txKernelNs"] - reply["t3Ns"])
            values.append(((t4 - t1_prime) - (t3 - t2) - known) / 1000.0)
    return sorted(values)


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--events", required=True)
    parser.add_argument("--session", action="append", default=[])
    options = parser.parse_args(argv)
    sessions = {}
    for item in options.session:
        offset, _, path = item.partition(":")
        sessions[int(offset)] = first_replies(path)
    values = spreads(options.events, sessions)
    if not values:
        print("spread: no analysed reply found in both the events and the truths")
        return 1

    def rank(fraction):
        return values[min(len(values) - 1, int(fraction * len(values)))]

    print("spread us over %d replies: min %.1f  p50 %.1f  p99 %.1f  p99.9 %.1f  max %.1f" % (
        len(values), values[0], rank(0.5), rank(0.99), rank(0.999), values[-1]))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
