#!/usr/bin/env python3
"""Checks a session's counters against a reflector's ground truth.

The oracle replays the daemon's minute accounting on the replies of the
ground-truth file, in the order the reflector sent them (on a veth pair the
order in which they arrive), and compares the result with the counters that
twamp-ctl printed as JSON:

  * exactly: sentPkts, receivedPkts, lost, late and duplicate packets in both
    directions, loss periods (counts and milliseconds), DSCP and TTL minimum
    and maximum, and the all -2 of a void or invalidated minute;
  * within bounds: the round-trip delay and the forward and reverse IPDV
    (min, avg, max, P95, P98, P99).

Delay bounds. The daemon measures the forward delay T2 - T1', the reverse
delay T4 - T3 and the round trip (T4 - T1') - (T3 - T2), where T1' and T4 are
its kernel's transmit and receive times and T2 and T3 what the reflector
wrote. The truth gives, per reply, the reflector kernel's receive time rx of
the request and transmit time tx of the reply, and the T2 and T3 written, so

  T2 - T1' = (T2 - rx) + (rx - T1')      T4 - T3 = (tx - T3) + (T4 - tx)

T2 - rx is the forward hold really applied (0 without one), tx - T3 the
reverse hold, the wait behind a reordered reply and the loop's own lateness
(less the skew). What the truth cannot know, rx - T1' and T4 - tx, is the
veth pair's own time: each is taken inside one kernel call, the send of one
end, which stamps the frame leaving and queues it to the other end, where
its receive time is taken. Their sum lies in 0 to --tolerance-us (measured:
tests/reflector/kernel_spread.sh), whoever is scheduled late: neither time
waits for a process. Only a stall of the virtual CPU itself, by the host,
inside that call lengthens it (once 800 us, on a busy CI machine): with
--daemon-events the daemon's own kernel times T1' and T4 of such a reply
replace the tolerance, and a minute may hold only a few. An IPDV sample is the difference of two one-way delays,
so known to +-tolerance; the daemon keeps only samples >= 0, so a sample
near 0 may or may not have been kept, and every statistic is checked against
the range over all the sets of samples the daemon could have kept. A
negative delay (a skewed reflector clock) wraps as in the daemon.

Assumptions:
  * the daemon analyses replies in the order they arrive. It reads one
    transmit timestamp and one reply per turn of its loop, and analyses a
    reply once both are in; so this holds when, on its socket, every reply
    follows at least as many replies as its packet's timestamp follows
    timestamps, bar one held back for reordering. A session alone on its
    daemon, towards a reflector that answers in order, always has that;
    sessions whose replies are lost or held beside a session with
    duplicates or reordering do not, once the daemon was held up (it then
    reads both copies of a reply before the timestamp, or analyses a
    reordered pair in send order: no late packet);
  * a minute is finalised by the packet sent 4 s into the next minute, the
    rate times 4 packets after that minute's first (no clock jump there);
  * the outstanding packets of the minute's parity are that minute's own
    (true unless the minute two before was invalidated or never finalised).

usage: truth_oracle.py --counters FILE [--truth FILE --rate PPS --minute M[:open|:void]...]
                       [--tolerance-us N] [--label TEXT] [--na-bins LIST]
                       [--expect-sent N] [--expect WHAT] [--dscp N]
                       [--network-log FILE --session-text TEXT]
                       [--daemon-events FILE --start-offset N] [--verbose]
  --minute M       POSIX minute to check (bin M mod 15), finalised; M:open for
                   a minute not finalised yet (only the counters zeroed at its
                   start hold values); M:void for a minute the clock jumped
                   over before it could be finalised (all -2). Repeat for
                   several minutes.
  --na-bins LIST   bins that must be -2 in every counter, e.g. 0-4,6-14
  --expect-sent N  the truth must hold N requests of each minute checked
  --expect WHAT    what the truth must make of each minute checked, so that a
                   scenario really does what it is meant to: valid (delay
                   counters written), invalidated (a maximum above the 4 s
                   bound), restart (a reflector restart detected in it),
                   renumbered (valid, and the reflector numbered from 0 again
                   after a short pause), stateless (valid, and a reply with
                   the sender's own number revealed a gap), discarded (every
                   reply echoed another send time), unaccountable (the
                   counts break the rules every minute obeys: all -2) or
                   restart_void (a reflector restart seen before the minute
                   was finalised, in the first 4 s of the next: all -2)
  --dscp N         replay only the replies that carry DSCP N: one of several
                   sessions of a daemon towards one reflector port (the truth
                   must then hold replies only)
  --network-log    the TnNetworkLog file: an invalidated minute must have its
                   two records there, naming --session-text ("for dstIpAddress
                   ..."), an unaccountable one its record; a valid one must
                   have none for it.
  --declarations   a TnNetworkLog file (--network-log serves too): a minute
                   the daemon declared -2 there because a transmit timestamp
                   never came, for the reflector of --session-text, is
                   expected all -2 (the kernel's loss, not the network's)
  --daemon-events  the daemon's trace events as babeltrace2 prints them, and
  --start-offset   the session's start offset, which names it there: a reply
                   whose veth time (see Delay bounds) exceeds the tolerance
                   by the daemon's own kernel times is checked with those
                   times; at most 2 such replies per minute, or 1 %.
       truth_oracle.py --batch FILE
  --batch FILE     one run per line of FILE, its options quoted as in a shell;
                   each reported as "ok: LABEL" or "FAIL: LABEL"
Exit status 0 when everything matches, 1 otherwise, 2 on bad input.
"""

import argparse
import json
import math
import re
import shlex
import sys
from collections import defaultdict

COUNTERS = [
    "delayRtAvg", "delayRtMax", "delayRtMin", "delayRtP95", "delayRtP98", "delayRtP99",
    "dscpRevMax", "dscpRevMin", "duplicatePktsFwd", "duplicatePktsRev",
    "ipdvFwdAvg", "ipdvFwdMax", "ipdvFwdMin", "ipdvFwdP95", "ipdvFwdP98", "ipdvFwdP99",
    "ipdvRevAvg", "ipdvRevMax", "ipdvRevMin", "ipdvRevP95", "ipdvRevP98", "ipdvRevP99",
    "lossPeriodFwdMax", "lossPeriodRevMax", "lossPeriodFwdMin", "lossPeriodRevMin",
    "lossPeriodsFwd", "lossPeriodsRev", "lostPktsFwd", "lostPktsRev",
    "latePktsFwd", "latePktsRev", "receivedPkts",
    "ttlFwdMax", "ttlRevMax", "ttlFwdMin", "ttlRevMin", "sentPkts",
]
# Counters the minute start sets to 0; the others stay -2 until finalisation.
ZEROED_AT_MINUTE_START = [
    "sentPkts", "receivedPkts", "lostPktsFwd", "lostPktsRev", "lossPeriodsFwd",
    "lossPeriodsRev", "lossPeriodFwdMin", "lossPeriodRevMin", "lossPeriodFwdMax",
    "lossPeriodRevMax", "latePktsFwd", "latePktsRev", "duplicatePktsFwd", "duplicatePktsRev",
]
NA = -2
BINS = 15
MASK32 = 0xFFFFFFFF
# A negative NTP difference turned into microseconds wraps to 2^38 minus it.
WRAP_US = 1 << 38
# The 4 s bound in NTP units, applied by the daemon to microsecond maxima.
MAX_BOUND = 0x400000000
# A reply later than this after its transmit timestamp is discarded unseen.
ANALYSIS_LIMIT_US = 4000000
# Truncation of NTP differences to whole microseconds, summed over a few terms.
ROUNDING_US = 2
# Replies per minute (or 1 % of them) whose veth time may exceed the tolerance.
OUTLIERS_ALLOWED = 2
# Events that stand for one request the sender sent.
REQUEST_EVENTS = ("fwd_loss", "rev_loss", "reply", "send_error", "discarded")
PERCENTILES = (95, 98, 99)


class OracleError(Exception):
    """The truth does not allow a definite expectation."""


def int32(value):
    value &= MASK32
    return value - (1 << 32) if value & 0x80000000 else value


class Span:
    """A closed range of integers [lo, hi] (lo == hi for an exact value), and
    optionally one more value allowed besides (-2 where there may be no sample)."""

    def __init__(self, lo, hi=None, also=None):
        self.lo = int(lo)
        self.hi = int(lo if hi is None else hi)
        self.also = also

    def holds(self, value):
        return self.lo <= value <= self.hi or value == self.also

    def __str__(self):
        text = str(self.lo) if self.lo == self.hi else "%d..%d" % (self.lo, self.hi)
        return text if self.also is None else "%s or %d" % (text, self.also)


def wrapped(lo, hi):
    """The daemon's microseconds of a delay known to lie in [lo, hi] (floats),
    widened by the truncation to whole microseconds."""
    if hi < 0:
        lo, hi = lo + WRAP_US, hi + WRAP_US
    elif lo < 0:
        raise OracleError("a delay of %.0f..%.0f us may or may not be negative" % (lo, hi))
    return (max(math.floor(lo) - ROUNDING_US, 0), math.ceil(hi) + ROUNDING_US)


# ---- the ground truth ----


def load_truth(path):
    with open(path) as stream:
        events = [json.loads(line) for line in stream if line.strip()]
    if not events or events[0].get("event") != "start":
        raise OracleError("%s: no start line" % path)
    return events[0], events[1:]


def kernel_time(reply, key):
    value = reply.get(key)
    if value is None:
        raise OracleError("seq %d copy %d: the truth has no %s" % (
            reply["senderSeq"], reply.get("copy", 1), key))
    return int(value)


# ---- the daemon's own kernel times ----

PACKET_EVENT = re.compile(
    r"PACKET:.*SenderSequenceNo: (\d+), ResponderSequenceNo: \d+, StartOffset: (-?\d+), "
    r"T1: \w+, T1Prime: (\w+), T2: \w+, T3: \w+, T4: (\w+)")
NTP_UNIX_OFFSET = 2208988800
# A kernel time of the daemon belongs to a reply of the truth when it lies
# this close to the reflector's kernel time of the same packet.
KERNEL_MATCH_NS = 1000000000
_EVENTS_CACHE = {}


def ntp_to_ns(ntp_hex):
    value = int(ntp_hex, 16)
    return ((value >> 32) - NTP_UNIX_OFFSET) * 10**9 + (((value & MASK32) * 10**9) >> 32)


def daemon_kernel_times(events_path, start_offset):
    """{sender number: [(T1', T4) in ns, ...]} of one session, from the
    daemon's PACKET trace events as babeltrace2 prints them."""
    if events_path not in _EVENTS_CACHE:
        by_offset = defaultdict(lambda: defaultdict(list))
        with open(events_path) as stream:
            for line in stream:
                match = PACKET_EVENT.search(line)
                if match:
                    by_offset[int(match.group(2))][int(match.group(1))].append(
                        (ntp_to_ns(match.group(3)), ntp_to_ns(match.group(4))))
        _EVENTS_CACHE[events_path] = by_offset
    return _EVENTS_CACHE[events_path].get(start_offset, {})


def veth_times(reply, rx, tx, kernel_times):
    """(rx - T1', T4 - tx) in us of this reply copy, as the daemon's kernel
    times give them, or None when the trace holds no time of it."""
    best = None
    for t1_prime, t4 in kernel_times.get(reply["senderSeq"], ()):
        out, back = rx - t1_prime, t4 - tx
        if 0 <= out <= KERNEL_MATCH_NS and 0 <= back <= KERNEL_MATCH_NS:
            if best is None or out + back < best[0] + best[1]:
                best = (out, back)
    return None if best is None else (best[0] / 1000.0, best[1] / 1000.0)


class Delays:
    """One-way and round-trip delay ranges of a reply, microseconds, from the
    reflector's real times (see the module's notes). When the daemon's own
    kernel times show that the veth took longer than the tolerance (a
    virtual CPU stopped by its host inside the send), the reply is an
    outlier: its delays are those times exactly."""

    def __init__(self, reply, tolerance_us, kernel_times=None):
        rx = kernel_time(reply, "rxKernelNs")
        tx = kernel_time(reply, "txKernelNs")
        fwd = (int(reply["t2Ns"]) - rx) / 1000.0
        rev = (tx - int(reply["t3Ns"])) / 1000.0
        self.outlier = None
        veth = veth_times(reply, rx, tx, kernel_times) if kernel_times else None
        self.traced = veth is not None
        if veth is not None and veth[0] + veth[1] > tolerance_us:
            self.outlier = veth
            fwd, rev, tolerance_us = fwd + veth[0], rev + veth[1], 0
        if (tx - rx) / 1000.0 + tolerance_us >= ANALYSIS_LIMIT_US:
            raise OracleError("seq %d: a reply near the 4 s limit may be analysed or not"
                              % reply["senderSeq"])
        self.fwd = wrapped(fwd, fwd + tolerance_us)
        self.rev = wrapped(rev, rev + tolerance_us)
        self.rt = wrapped(fwd + rev, fwd + rev + tolerance_us)


def session_events(events, dscp):
    """The events of the session with this DSCP among several sessions of one
    daemon towards one reflector port: its replies carry its TOS byte. A
    request lost without a reply cannot be told apart."""
    kept = []
    for event in events:
        if event.get("event") not in REQUEST_EVENTS:
            continue
        if "tos" not in event:
            raise OracleError("a %s line carries no TOS byte: its session is unknown"
                              % event["event"])
        if (event["tos"] >> 2) == dscp:
            kept.append(event)
    return kept


# ---- the replay of one minute ----


class Direction:
    """Sequence tracker of one direction of one minute."""

    def __init__(self, expected):
        self.expected = expected
        self.missing = []
        self.lost = 0
        self.late = 0
        self.duplicate = 0

    def track(self, seq, allowance, counted):
        """Returns (newly lost, counted). Numbers compare in serial-number
        order, so a wrap from 2^32 - 1 to 0 is a step forward."""
        if int32(seq - self.expected) > 0:
            gap = (seq - self.expected) & MASK32
            newly = 0
            if int32(gap) > int32(allowance):
                newly = (gap - allowance) & MASK32
                self.lost += newly
                self.missing.extend(range(self.expected, self.expected + newly))
            self.expected = (seq + 1) & MASK32
            return newly, counted
        if self.expected == seq:
            self.expected = (seq + 1) & MASK32
            return 0, counted
        if counted:
            return 0, counted
        if seq in self.missing:
            self.missing.remove(seq)
            self.lost -= 1
            self.late += 1
        else:
            self.duplicate += 1
        return 0, True


class MinuteState:
    """What the daemon accumulates for one minute from its start."""

    def __init__(self, first_seq, jump_limit):
        self.jump_limit = jump_limit
        self.restart_detected = False
        self.renumbered = False
        self.stateless_seen = False
        self.echo_discarded = 0
        self.received = 0
        self.forward = Direction(first_seq)
        self.reverse = Direction(0)
        self.reply_count = defaultdict(int)
        self.dscp = []
        self.ttl_fwd = []
        self.ttl_rev = []
        self.rt = []
        self.history = {}
        self.ipdv_fwd = []
        self.ipdv_rev = []
        self.outliers = []
        self.traced = 0

    def analyse(self, reply, session):
        """One reply, as the daemon analyses it; returns True when it detects a restart."""
        seq = reply["senderSeq"]
        rseq = reply["reflectorSeq"]
        self.reply_count[seq] += 1
        self.received += 1
        if session.sequence_error:
            self.resynchronise(seq, rseq)
            return False
        sender_jump = int32(seq - self.forward.expected)
        went_back = self.reverse.expected != 0 and int32(rseq - self.reverse.expected) < 0
        if went_back and sender_jump > self.jump_limit:
            session.sequence_error = True
            self.restart_detected = True
            self.resynchronise(seq, rseq)
            return True
        counted = False
        gap = 0
        if self.reverse.expected == 0:
            self.reverse.expected = (rseq + 1) & MASK32
        elif (went_back and sender_jump >= 0 and self.reply_count[seq] == 1 and
              rseq not in self.reverse.missing):
            # A reflector that restarted after a short pause: its new
            # numbering is followed, neither late nor duplicate.
            self.renumbered = True
            self.reverse.expected = (rseq + 1) & MASK32
        else:
            gap, counted = self.reverse.track(rseq, 0, counted)
        if gap > 0 and rseq == seq:
            self.stateless_seen = True
        self.forward.track(seq, gap, counted)
        if self.reply_count[seq] != 1:
            return False
        self.dscp.append((reply["tos"] >> 2) & 0xFF)
        # No packet arrives with TTL 0: a Sender TTL left at 0 tells nothing.
        if reply["ttl"] != 0:
            self.ttl_fwd.append(reply["ttl"])
        if session.reply_ttl != 0:
            self.ttl_rev.append(session.reply_ttl)
        delays = Delays(reply, session.tolerance_us, session.kernel_times)
        self.traced += delays.traced
        if delays.outlier is not None:
            self.outliers.append((seq, delays.outlier))
        self.rt.append(delays.rt)
        self.ipdv_step(seq, delays)
        return False

    def resynchronise(self, seq, rseq):
        self.forward.expected = (seq + 1) & MASK32
        self.reverse.expected = (rseq + 1) & MASK32

    def ipdv_step(self, seq, delays):
        if seq not in self.history:
            self.history[seq] = (delays.fwd, delays.rev)
        previous = self.history.get((seq - 1) & MASK32)
        if previous is None:
            return
        self.ipdv_fwd.append((delays.fwd[0] - previous[0][1], delays.fwd[1] - previous[0][0]))
        self.ipdv_rev.append((delays.rev[0] - previous[1][1], delays.rev[1] - previous[1][0]))
        del self.history[(seq - 1) & MASK32]


class SessionReplay:
    """Replays the whole truth file for one minute M (and M + 1 up to M's finalisation)."""

    def __init__(self, start, events, rate, tolerance_us, dscp=None, kernel_times=None):
        if dscp is not None:
            events = session_events(events, dscp)
        self.events = events
        self.kernel_times = kernel_times
        self.rate = rate
        self.reply_ttl = start.get("replyTtl", 255)
        self.tolerance_us = tolerance_us
        self.jump_limit = (rate * 4) & 0xFF
        self.sequence_error = False

    def requests(self, minute):
        return sorted({e["senderSeq"] for e in self.events
                       if e.get("event") in REQUEST_EVENTS and e.get("senderMinute") == minute})

    def replay(self, minute, finalised):
        """The state of the minute when it is finalised (or at the end, if never)."""
        sent = self.requests(minute)
        if not sent:
            raise OracleError("no request of minute %d in the truth" % minute)
        following = self.requests(minute + 1)
        # The first packet sent 4 s or more into the next minute finalises this one.
        tick_seq = following[0] + 4 * self.rate if following else None
        state = MinuteState(sent[0], self.jump_limit)
        after = None
        self.sequence_error = False
        for event in self.events:
            kind = event.get("event")
            event_minute = event.get("senderMinute")
            if event_minute == minute + 1 and kind in REQUEST_EVENTS:
                if after is None:
                    # The next minute's start clears the flag.
                    after = MinuteState(following[0], self.jump_limit)
                    self.sequence_error = False
                if finalised and tick_seq is not None and event["senderSeq"] >= tick_seq:
                    break
            if kind != "reply":
                continue
            if event.get("t1OffsetUs", 0) != 0:
                # A reply that echoes another send time is discarded unseen.
                if event_minute == minute:
                    state.echo_discarded += 1
                continue
            if event_minute == minute:
                state.analyse(event, self)
            elif event_minute == minute + 1 and after is not None:
                after.analyse(event, self)
        return sent, state, self.sequence_error


# ---- expected values ----


def percentile_index(count, percentile):
    return count - int(percentile / 100.0 * count + 0.5)


def state_values(values, capacity):
    """avg, max, min and the percentiles of one PmState, as the daemon computes them."""
    counted = values[:capacity]
    result = {"avg": sum(counted) // len(counted) if counted else 0,
              "max": max(values) if values else 0,
              "min": min(values) if values else 0}
    ordered = sorted(counted, reverse=True)
    for percentile in PERCENTILES:
        result["p%d" % percentile] = (ordered[percentile_index(len(ordered), percentile)]
                                      if ordered else NA)
    return result


def span_stats(samples, capacity):
    """Ranges of the statistics of samples that are all kept, each in [lo, hi]."""
    low = state_values([lo for lo, _ in samples], capacity)
    high = state_values([hi for _, hi in samples], capacity)
    return {name: Span(low[name], high[name]) for name in low}


def ipdv_stats(pairs, capacity):
    """Ranges of the statistics over every set of samples the daemon may have kept.

    Samples surely >= 0 are kept; those that may be either side of 0 are
    kept or not. The lowest statistics come from keeping all of them at
    their lowest (0 for the uncertain ones); the highest from the sure ones
    at their highest plus the t highest uncertain ones, for the best t."""
    definite = [(lo, hi) for lo, hi in pairs if lo >= 0]
    ambiguous = sorted(((0, hi) for lo, hi in pairs if lo < 0 <= hi), key=lambda s: -s[1])
    outcomes = []
    if definite or ambiguous:
        outcomes.append(state_values([lo for lo, _ in definite + ambiguous], capacity))
    highs = [hi for _, hi in definite]
    uncertain = [hi for _, hi in ambiguous]
    if len(highs) + len(uncertain) <= capacity:
        outcomes.extend(highest_outcomes(highs, uncertain))
    else:
        for taken in range(0 if definite else 1, len(ambiguous) + 1):
            outcomes.append(state_values(highs + uncertain[:taken], capacity))
    if not outcomes:
        # No sample at all: avg, max and min of an empty state, no percentiles.
        outcomes.append(state_values([], capacity))
    spans = {}
    for name in outcomes[0]:
        values = [outcome[name] for outcome in outcomes]
        spans[name] = Span(min(values), max(values))
    if not definite and ambiguous:
        # Perhaps none was kept: then the percentiles stay -2.
        for percentile in PERCENTILES:
            spans["p%d" % percentile].also = NA
    return spans, bool(definite), bool(ambiguous)


def highest_outcomes(highs, uncertain):
    """state_values of highs plus the t first of uncertain (sorted from the
    top), for every t, kept or not; as state_values computes them when every
    sample fits the vector, but in one sweep: a minute of samples within the
    tolerance of 0 would otherwise sort the minute once per sample."""
    ordered = sorted(highs, reverse=True)
    total = sum(ordered)
    outcomes = []
    for taken in range(0 if ordered else 1, len(uncertain) + 1):
        if taken > 0:
            total += uncertain[taken - 1]
        count = len(ordered) + taken
        kept_max = max(ordered[:1] + uncertain[:1])
        kept_min = min(ordered[-1:] + uncertain[taken - 1:taken]) if taken else ordered[-1]
        outcome = {"avg": total // count, "max": kept_max, "min": kept_min}
        for percentile in PERCENTILES:
            outcome["p%d" % percentile] = nth_largest(
                ordered, uncertain, taken, percentile_index(count, percentile))
        outcomes.append(outcome)
    return outcomes


def nth_largest(ordered, uncertain, taken, index):
    """The value at index (from 0) of ordered and the first taken of
    uncertain merged from the top; both lists are sorted from the top."""
    i = j = 0
    value = None
    for _ in range(index + 1):
        if j < taken and (i >= len(ordered) or uncertain[j] >= ordered[i]):
            value = uncertain[j]
            j += 1
        else:
            value = ordered[i]
            i += 1
    return value


def invalidation(state):
    """True when the minute's maxima exceed the bound, False when not; OracleError if unsure."""
    highs = [hi for _, hi in state.rt]
    lows = [lo for lo, _ in state.rt]
    kept = [(max(lo, 0), hi) for lo, hi in state.ipdv_fwd + state.ipdv_rev if hi >= 0]
    if max(lows) > MAX_BOUND or any(lo > MAX_BOUND for lo, _ in kept):
        return True
    if max(highs) <= MAX_BOUND and all(hi <= MAX_BOUND for _, hi in kept):
        return False
    raise OracleError("cannot tell whether the minute exceeds the 4 s bound")


def loss_runs(missing):
    runs = []
    for index, seq in enumerate(missing):
        if index > 0 and seq == ((missing[index - 1] + 1) & MASK32):
            runs[-1] += 1
        else:
            runs.append(1)
    return runs


class Expectation:
    """The expected value of each counter of one bin, as a Span."""

    def __init__(self):
        self.values = {name: Span(NA) for name in COUNTERS}
        self.invalidated = False
        self.unaccountable = False
        self.restart_void = False
        self.log_maxima = None
        self.notes = []

    def set(self, name, value):
        self.values[name] = value if isinstance(value, Span) else Span(value)


def expect_open(sent, state):
    expected = Expectation()
    expected.set("sentPkts", len(sent))
    expected.set("receivedPkts", state.received)
    for name in ZEROED_AT_MINUTE_START:
        if name not in ("sentPkts", "receivedPkts"):
            expected.set(name, 0)
    for prefix, direction in (("Fwd", state.forward), ("Rev", state.reverse)):
        expected.set("lostPkts" + prefix, direction.lost)
        expected.set("latePkts" + prefix, direction.late)
        expected.set("duplicatePkts" + prefix, direction.duplicate)
    expected.notes.append("never finalised: only the counters zeroed at its start")
    return expected


def expect_finalised(sent, state, sequence_error, rate):
    expected = Expectation()
    if sequence_error:
        expected.restart_void = True
        expected.notes.append("reflector restart seen before finalisation: all -2")
        return expected
    capacity = rate * 60
    if state.rt:
        if invalidation(state):
            expected.invalidated = True
            expected.log_maxima = (
                span_stats(state.rt, capacity)["max"],
                ipdv_stats(state.ipdv_fwd, capacity)[0]["max"],
                ipdv_stats(state.ipdv_rev, capacity)[0]["max"])
            expected.notes.append("a maximum above the 4 s bound: all -2")
            return expected
        write_delay_counters(expected, state, capacity)
    write_sequence_counters(expected, sent, state, rate)
    if not counts_in_range(expected):
        expected.values = {name: Span(NA) for name in COUNTERS}
        expected.unaccountable = True
        expected.notes.append("counts out of range: all -2")
    return expected


def counts_in_range(expected):
    """The rules every finalised minute obeys; a minute that breaks them is void."""
    value = {name: expected.values[name].lo for name in COUNTERS}
    sent = value["sentPkts"]
    for name in ("lostPktsFwd", "lostPktsRev", "latePktsFwd", "latePktsRev"):
        if value[name] != NA and not 0 <= value[name] <= sent:
            return False
    duplicates = value["duplicatePktsFwd"] + value["duplicatePktsRev"]
    if min(value["duplicatePktsFwd"], value["duplicatePktsRev"], value["receivedPkts"]) < 0:
        return False
    accounted = value["receivedPkts"] + sum(
        value[name] for name in ("lostPktsFwd", "lostPktsRev") if value[name] != NA)
    return accounted <= sent + duplicates


def write_delay_counters(expected, state, capacity):
    groups = [("delayRt", span_stats(state.rt, capacity))]
    for name, pairs in (("ipdvFwd", state.ipdv_fwd), ("ipdvRev", state.ipdv_rev)):
        spans, _, ambiguous = ipdv_stats(pairs, capacity)
        groups.append((name, spans))
        if ambiguous:
            expected.notes.append("%s: samples within the tolerance of 0 may be kept or not"
                                  % name)
    for prefix, spans in groups:
        expected.set(prefix + "Avg", spans["avg"])
        expected.set(prefix + "Max", spans["max"])
        expected.set(prefix + "Min", spans["min"])
        for percentile in PERCENTILES:
            expected.set("%sP%d" % (prefix, percentile), spans["p%d" % percentile])
    for name, values in (("dscpRev", state.dscp), ("ttlFwd", state.ttl_fwd),
                         ("ttlRev", state.ttl_rev)):
        if values:
            expected.set(name + "Max", max(values))
            expected.set(name + "Min", min(values))
        else:
            expected.notes.append("%s: no value in the minute" % name)


def write_sequence_counters(expected, sent, state, rate):
    forward, reverse = state.forward, state.reverse
    duplicate_fwd, duplicate_rev = forward.duplicate, reverse.duplicate
    duplicates = sum(count - 1 for count in state.reply_count.values() if count > 1)
    if duplicates != duplicate_fwd + duplicate_rev:
        duplicate_fwd = duplicates - duplicate_rev
    lost_fwd = forward.lost
    missing_fwd = list(forward.missing)
    unanswered = (len(sent) - state.received + duplicate_fwd + duplicate_rev - forward.lost -
                  reverse.lost)
    if unanswered < 0:
        lost_fwd = NA
    else:
        lost_fwd += unanswered
        if 0 < unanswered <= len(sent):
            missing_fwd.extend(sent[-unanswered:])
    interval_ms = 1000 // rate if rate != 0 else 1
    for prefix, missing in (("Fwd", missing_fwd), ("Rev", reverse.missing)):
        runs = loss_runs(missing)
        expected.set("lossPeriods" + prefix, len(runs))
        expected.set("lossPeriod%sMax" % prefix, max(runs) * interval_ms if runs else 0)
        expected.set("lossPeriod%sMin" % prefix, min(runs) * interval_ms if runs else 0)
    expected.set("sentPkts", len(sent))
    expected.set("receivedPkts", state.received)
    expected.set("lostPktsFwd", lost_fwd)
    expected.set("lostPktsRev", reverse.lost)
    expected.set("latePktsFwd", forward.late)
    expected.set("latePktsRev", reverse.late)
    expected.set("duplicatePktsFwd", duplicate_fwd)
    expected.set("duplicatePktsRev", duplicate_rev)


# ---- comparison and report ----


def compare_bin(label, minute, expected, measured, verbose):
    bin_index = minute % BINS
    rows = []
    failures = 0
    for name in COUNTERS:
        value = measured[name][bin_index]
        span = expected.values[name]
        good = span.holds(value)
        failures += 0 if good else 1
        rows.append((name, str(span), str(value), "ok" if good else "MISMATCH"))
    title = "%s minute %d (bin %d)" % (label, minute, bin_index)
    if failures or verbose:
        print("%s: %s" % (title, "; ".join(expected.notes) or "finalised"))
        print("  %-18s %-28s %-14s %s" % ("counter", "expected", "measured", ""))
        # Mismatches first: a log cut short still shows them.
        for row in sorted(rows, key=lambda row: row[3] == "ok"):
            print("  %-18s %-28s %-14s %s" % row)
    differing = [row[0] for row in rows if row[3] != "ok"]
    print("%s: %s" % (title, "%d counter(s) differ: %s" % (failures, ", ".join(differing))
                              if failures else "all 38 counters match"))
    return failures


def check_na_bins(label, bins, measured):
    failures = 0
    for bin_index in bins:
        wrong = [name for name in COUNTERS if measured[name][bin_index] != NA]
        if wrong:
            failures += 1
            print("%s: bin %d should be -2 throughout, but %s" % (
                label, bin_index, ", ".join("%s=%d" % (n, measured[n][bin_index]) for n in wrong)))
    if not failures:
        print("%s: bins %s are -2 throughout" % (label, ",".join(map(str, bins))))
    return failures


def check_unaccountable_record(label, lines, session_text, minute, expected):
    """The record of a minute voided for counts out of range, and none otherwise.
    The record names the reflector, not the session: sessions sharing a
    reflector port each write one."""
    session = re.match(r"for dstIpAddress (\S+), dstUdpPort (\S+),", session_text or "")
    if session is None:
        raise OracleError("--session-text does not name the reflector: %r" % session_text)
    record = (" TwampTestSession: minute %d cannot be accounted (counts out of range) for "
              "dstIpAddress %s, dstUdpPort %s so all counters of period %d are reset to -2" % (
                  minute, session.group(1), session.group(2), minute % BINS))
    found = sum(1 for line in lines if line.endswith(record))
    if expected.unaccountable and found < 1:
        print("%s: expected a record ending '%s', found none" % (label, record))
        return 1
    if not expected.unaccountable and found:
        print("%s: unexpected record: %s" % (label, record.strip()))
        return 1
    if found:
        print("%s: counts out of range recorded for period %d" % (label, minute % BINS))
    return 0


def timestamp_missing_declared(path, session_text, minute):
    """True when the log holds the daemon's record that the minute cannot be
    accounted because a reply's transmit timestamp never came."""
    session = re.match(r"for dstIpAddress (\S+), dstUdpPort (\S+),", session_text or "")
    if session is None:
        raise OracleError("--session-text does not name the reflector: %r" % session_text)
    record = (" TwampTestSession: minute %d cannot be accounted (transmit timestamp missing) "
              "for dstIpAddress %s, dstUdpPort %s so all counters of period %d are reset to -2"
              % (minute, session.group(1), session.group(2), minute % BINS))
    with open(path) as stream:
        return any(line.rstrip("\n").endswith(record) for line in stream)


def check_network_log(label, path, session_text, minute, expected):
    """The two records of an invalidated minute, and none for a valid one;
    likewise the record of a minute whose counts are out of range."""
    with open(path) as stream:
        lines = [line.rstrip("\n") for line in stream]
    failures = check_unaccountable_record(label, lines, session_text, minute, expected)
    return failures + check_invalidation_records(label, lines, session_text, minute, expected)


def check_invalidation_records(label, lines, session_text, minute, expected):
    head = re.compile(r" TwampTestSession: delayRtMax (\d+) or ipdvFwdMax (\d+) or ipdvRevMax "
                      r"(\d+) are larger than 4s for period (\d+) so all counters are reset to -2$")
    tail = " " + session_text
    found = [(index, head.search(line)) for index, line in enumerate(lines)
             if index + 1 < len(lines) and lines[index + 1].endswith(tail) and head.search(line)]
    if not expected.invalidated:
        if found:
            print("%s: unexpected invalidation record: %s" % (label, lines[found[0][0]]))
            return 1
        print("%s: no invalidation record, as expected" % label)
        return 0
    matching = [m for _, m in found if int(m.group(4)) == minute % BINS]
    if len(matching) != 1:
        print("%s: expected one pair of invalidation records for period %d ending '%s', found %d"
              % (label, minute % BINS, session_text, len(matching)))
        return 1
    maxima = [int(matching[0].group(n)) for n in (1, 2, 3)]
    failures = 0
    for name, span, value in zip(("delayRtMax", "ipdvFwdMax", "ipdvRevMax"),
                                 expected.log_maxima, maxima):
        if not span.holds(value):
            print("%s: invalidation record %s %d, expected %s" % (label, name, value, span))
            failures += 1
    if not failures:
        print("%s: invalidation records for period %d with delayRtMax %d in %s" % (
            label, minute % BINS, maxima[0], expected.log_maxima[0]))
    return failures


def check_outliers(label, minute, sent, state):
    """Replies whose veth time exceeded the tolerance are rare stalls of the
    host; many of them mean the daemon's times and the truth disagree."""
    for seq, (out, back) in state.outliers:
        print("%s: seq %d of minute %d took %.0f us out and %.0f us back on the veth, beyond "
              "the tolerance: checked with the daemon's own kernel times" % (
                  label, seq, minute, out, back))
    allowed = max(OUTLIERS_ALLOWED, len(sent) // 100)
    if len(state.outliers) > allowed:
        print("%s: %d replies of minute %d beyond the tolerance, at most %d expected" % (
            label, len(state.outliers), minute, allowed))
        return 1
    return 0


def check_scenario(options, minute, state, expected):
    """The truth does to the minute what the scenario is meant to do."""
    if options.expect is None:
        return 0
    valid = (not expected.invalidated and not expected.unaccountable and
             not expected.restart_void and bool(state.rt) and not state.restart_detected)
    outcome = {
        "valid": valid,
        "invalidated": expected.invalidated,
        "restart": state.restart_detected,
        "renumbered": valid and state.renumbered,
        "stateless": valid and state.stateless_seen,
        "discarded": state.echo_discarded > 0 and state.received == 0,
        "unaccountable": expected.unaccountable,
        "restart_void": expected.restart_void,
    }[options.expect]
    if not outcome:
        print("%s: the truth of minute %d does not give the '%s' scenario" % (
            options.label, minute, options.expect))
        return 1
    return 0


def parse_bins(text):
    bins = []
    for part in text.split(","):
        if "-" in part:
            first, last = part.split("-")
            bins.extend(range(int(first), int(last) + 1))
        elif part:
            bins.append(int(part))
    return bins


def parse_arguments(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--truth")
    parser.add_argument("--counters", required=True)
    parser.add_argument("--rate", type=int, default=1)
    parser.add_argument("--minute", action="append", default=[])
    parser.add_argument("--tolerance-us", type=int, default=500)
    parser.add_argument("--label", default="session")
    parser.add_argument("--na-bins", default="")
    parser.add_argument("--expect-sent", type=int)
    parser.add_argument("--expect", choices=("valid", "invalidated", "restart", "renumbered",
                                             "stateless", "discarded", "unaccountable",
                                             "restart_void"))
    parser.add_argument("--dscp", type=int)
    parser.add_argument("--network-log")
    parser.add_argument("--session-text")
    parser.add_argument("--declarations")
    parser.add_argument("--daemon-events")
    parser.add_argument("--start-offset", type=int)
    parser.add_argument("--verbose", action="store_true")
    options = parser.parse_args(argv)
    if (options.daemon_events is None) != (options.start_offset is None):
        parser.error("--daemon-events and --start-offset go together")
    return options


def run(options):
    with open(options.counters) as stream:
        measured = json.load(stream)["counters"]
    failures = 0
    if options.minute:
        if not options.truth:
            raise OracleError("--minute needs --truth")
        start, events = load_truth(options.truth)
        kernel_times = None
        if options.daemon_events:
            kernel_times = daemon_kernel_times(options.daemon_events, options.start_offset)
        session = SessionReplay(start, events, options.rate, options.tolerance_us, options.dscp,
                                kernel_times)
    for item in options.minute:
        text, _, mode = item.partition(":")
        minute = int(text)
        sent, state, sequence_error = session.replay(minute, mode != "open")
        declarations = options.declarations or options.network_log
        if mode not in ("open", "void") and declarations and timestamp_missing_declared(
                declarations, options.session_text, minute):
            expected = Expectation()
            expected.notes.append("declared -2 by the daemon: a transmit timestamp never came")
            print("%s: minute %d declared -2 by the daemon: a transmit timestamp never came"
                  % (options.label, minute))
            failures += compare_bin(options.label, minute, expected, measured, options.verbose)
            continue
        if mode == "open":
            expected = expect_open(sent, state)
        elif mode == "void":
            expected = Expectation()
            expected.notes.append("not finalised in time (the clock jumped on): all -2")
        else:
            expected = expect_finalised(sent, state, sequence_error, options.rate)
            if options.network_log:
                failures += check_network_log(options.label, options.network_log,
                                              options.session_text, minute, expected)
        if options.daemon_events:
            print("%s: minute %d: the daemon's kernel times of %d of %d analysed replies traced"
                  % (options.label, minute, state.traced, len(state.rt)))
        failures += check_outliers(options.label, minute, sent, state)
        failures += check_scenario(options, minute, state, expected)
        if options.expect_sent is not None and len(sent) != options.expect_sent:
            print("%s: the truth holds %d requests of minute %d, expected %d" % (
                options.label, len(sent), minute, options.expect_sent))
            failures += 1
        failures += compare_bin(options.label, minute, expected, measured, options.verbose)
    if options.na_bins:
        failures += check_na_bins(options.label, parse_bins(options.na_bins), measured)
    return failures


def check_one(argv):
    """One session's check: 0 when it matches, 1 when not, 2 on bad input."""
    options = parse_arguments(argv)
    try:
        failures = run(options)
    except (OracleError, OSError, ValueError, KeyError) as error:
        print("%s: oracle: %s" % (options.label, error))
        return 2
    return 1 if failures else 0


def check_batch(path):
    """One check per line of the file (the options of one run, quoted as in a
    shell), each reported ok or FAIL with its label: one interpreter for many
    sessions, which matters on a host whose CPUs are busy."""
    worst = 0
    with open(path) as stream:
        lines = [line for line in stream if line.strip()]
    for line in lines:
        argv = shlex.split(line)
        status = check_one(argv)
        print("%s: %s" % ("ok" if status == 0 else "FAIL", parse_arguments(argv).label))
        worst = max(worst, status)
    return worst


def main(argv):
    if len(argv) == 2 and argv[0] == "--batch":
        return check_batch(argv[1])
    return check_one(argv)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
