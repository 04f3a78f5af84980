#!/usr/bin/env python3
"""Tests of the oracle's replay of the minute accounting on small ground truths."""

import os
import random
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import truth_oracle as oracle  # noqa: E402

MINUTE = 29920000
RATE = 10
START = {"event": "start", "replyTtl": 64}
# The kernel's receive time of request 0, nanoseconds; one request every 100 ms.
FIRST_RX_NS = MINUTE * 60 * 1000000000 + 123456789
INTERVAL_NS = 100000000
# Between T2 and T3 the reflector processes the request.
RESIDENCE_NS = 20000


def reply(seq, rseq, minute=MINUTE, copy=1, fwd=0.0, rev=0.0, reordered=False, skew=0.0,
          planned_fwd=None, planned_rev=None):
    """A reply whose request really waited fwd us before T2 and whose reply
    really left rev us after T3 was taken (T3 written skew us late)."""
    rx = FIRST_RX_NS + seq * INTERVAL_NS
    t2 = rx + int(fwd * 1000)
    t3_real = t2 + RESIDENCE_NS
    return {"event": "reply", "senderSeq": seq, "senderMinute": minute, "reflectorSeq": rseq,
            "copy": copy, "fwdDelayUs": fwd if planned_fwd is None else planned_fwd,
            "revDelayUs": rev if planned_rev is None else planned_rev, "skewUs": skew,
            "ttl": 255, "tos": 184, "length": 64, "reordered": reordered, "t1OffsetUs": 0,
            "rxKernelNs": rx, "t2Ns": t2, "t3Ns": t3_real + int(skew * 1000),
            "txKernelNs": t3_real + int(rev * 1000), "fwdHeldUs": fwd, "revHeldUs": rev}


def fwd_loss(seq, minute=MINUTE):
    return {"event": "fwd_loss", "senderSeq": seq, "senderMinute": minute}


def rev_loss(seq, rseq, minute=MINUTE):
    return {"event": "rev_loss", "senderSeq": seq, "senderMinute": minute, "reflectorSeq": rseq,
            "fwdDelayUs": 0}


def finalised(events, tolerance_us=0):
    session = oracle.SessionReplay(START, events, RATE, tolerance_us)
    sent, state, sequence_error = session.replay(MINUTE, True)
    return oracle.expect_finalised(sent, state, sequence_error, RATE)


def value(expected, name):
    span = expected.values[name]
    return span.lo if span.lo == span.hi else (span.lo, span.hi)


class SequenceTest(unittest.TestCase):
    # Sender 1, 2, 4 answered with reflector 1, 2, 3: one forward loss, listed missing.
    def test_forward_gap(self):
        expected = finalised([reply(1, 1), reply(2, 2), fwd_loss(3), reply(4, 3)])
        self.assertEqual(1, value(expected, "lostPktsFwd"))
        self.assertEqual(0, value(expected, "lostPktsRev"))
        self.assertEqual(1, value(expected, "lossPeriodsFwd"))
        self.assertEqual(100, value(expected, "lossPeriodFwdMax"))
        self.assertEqual(3, value(expected, "receivedPkts"))
        self.assertEqual(4, value(expected, "sentPkts"))

    # A later reply to the missing number takes the loss back and counts it late.
    def test_forward_late(self):
        expected = finalised([reply(1, 1), reply(2, 2), reply(4, 3), reply(3, 4)])
        self.assertEqual(0, value(expected, "lostPktsFwd"))
        self.assertEqual(1, value(expected, "latePktsFwd"))
        self.assertEqual(0, value(expected, "lossPeriodsFwd"))

    # Sender 1, 2, 4 answered with reflector 1, 2, 4: the gap is on the way back.
    def test_reverse_gap(self):
        expected = finalised([reply(1, 1), reply(2, 2), rev_loss(3, 3), reply(4, 4)])
        self.assertEqual(0, value(expected, "lostPktsFwd"))
        self.assertEqual(1, value(expected, "lostPktsRev"))
        self.assertEqual(1, value(expected, "lossPeriodsRev"))
        self.assertEqual(100, value(expected, "lossPeriodRevMin"))

    # A second copy moves only the received and duplicate counts.
    def test_duplicate(self):
        expected = finalised([reply(0, 0), reply(0, 0, copy=2), reply(1, 1)])
        self.assertEqual(3, value(expected, "receivedPkts"))
        self.assertEqual(1, value(expected, "duplicatePktsRev"))
        self.assertEqual(0, value(expected, "duplicatePktsFwd"))
        self.assertEqual(0, value(expected, "lostPktsFwd"))

    # The last packets of the minute never answered are forward loss at the end of the list.
    def test_unanswered_at_the_end(self):
        expected = finalised([reply(0, 0), reply(1, 1), fwd_loss(2), fwd_loss(3)])
        self.assertEqual(2, value(expected, "lostPktsFwd"))
        self.assertEqual(1, value(expected, "lossPeriodsFwd"))
        self.assertEqual(200, value(expected, "lossPeriodFwdMax"))

    # A reflector number that goes back while ours jumped by more than 40
    # (4 s at 10 packets/s) is a restart: accounting stops for the minute.
    def test_restart_detected(self):
        events = [reply(seq, seq) for seq in range(10)]
        events += [fwd_loss(seq) for seq in range(10, 51)]
        events += [reply(seq, seq - 51) for seq in range(51, 60)]
        session = oracle.SessionReplay(START, events, RATE, 0)
        sent, state, _ = session.replay(MINUTE, True)
        self.assertTrue(state.restart_detected)
        expected = oracle.expect_finalised(sent, state, False, RATE)
        self.assertEqual(19, value(expected, "receivedPkts"))
        # The unanswered 41 are put on the highest sequence numbers of the minute.
        self.assertEqual(41, value(expected, "lostPktsFwd"))
        self.assertEqual(4100, value(expected, "lossPeriodFwdMax"))
        self.assertEqual(0, value(expected, "duplicatePktsRev"))

    # A restart seen in the first 4 s of the next minute, before this one is
    # finalised, voids this one. At 100 packets/s the limit of 400 packets
    # wraps to 144 in its 8 bits: a pause of 150 packets is a restart.
    def test_restart_early_in_the_next_minute_voids(self):
        events = [reply(seq, seq) for seq in range(10)]
        events += [reply(seq, seq, minute=MINUTE + 1) for seq in range(10, 60)]
        events += [fwd_loss(seq, minute=MINUTE + 1) for seq in range(60, 210)]
        events += [reply(seq, seq - 210, minute=MINUTE + 1) for seq in range(210, 220)]
        session = oracle.SessionReplay(START, events, 100, 0)
        sent, state, sequence_error = session.replay(MINUTE, True)
        expected = oracle.expect_finalised(sent, state, sequence_error, 100)
        self.assertTrue(expected.restart_void)
        self.assertEqual(oracle.NA, value(expected, "sentPkts"))

    # The same jump by exactly 40 is no restart: the new numbering is
    # followed, the pause counted as forward loss, no reply repeated.
    def test_jump_at_the_limit_is_no_restart(self):
        events = [reply(seq, seq) for seq in range(10)]
        events += [fwd_loss(seq) for seq in range(10, 50)]
        events += [reply(seq, seq - 50) for seq in range(50, 53)]
        expected = finalised(events)
        self.assertEqual(0, value(expected, "duplicatePktsRev"))
        self.assertEqual(40, value(expected, "lostPktsFwd"))
        self.assertEqual(0, value(expected, "lostPktsRev"))

    # A short pause of 10 requests, then numbers from 0: renumbered, not a restart.
    def test_short_restart_is_followed(self):
        events = [reply(seq, seq) for seq in range(20)]
        events += [fwd_loss(seq) for seq in range(20, 30)]
        events += [reply(seq, seq - 30) for seq in range(30, 40)]
        session = oracle.SessionReplay(START, events, RATE, 0)
        sent, state, sequence_error = session.replay(MINUTE, True)
        self.assertTrue(state.renumbered)
        self.assertFalse(state.restart_detected)
        expected = oracle.expect_finalised(sent, state, sequence_error, RATE)
        self.assertEqual(10, value(expected, "lostPktsFwd"))
        self.assertEqual(0, value(expected, "latePktsRev"))
        self.assertEqual(0, value(expected, "duplicatePktsRev"))

    # A reply whose reflector number went back but is listed missing is late, not renumbered.
    def test_missing_reflector_number_is_late(self):
        expected = finalised([reply(0, 0), reply(2, 2), reply(1, 1)])
        self.assertEqual(1, value(expected, "latePktsRev"))
        self.assertEqual(0, value(expected, "lostPktsRev"))

    # A stateless reflector: a forward loss reads as reverse loss, and is seen as such.
    def test_stateless_forward_loss_is_reverse(self):
        session = oracle.SessionReplay(START, [reply(0, 0), fwd_loss(1), reply(2, 2)], RATE, 0)
        sent, state, sequence_error = session.replay(MINUTE, True)
        self.assertTrue(state.stateless_seen)
        expected = oracle.expect_finalised(sent, state, sequence_error, RATE)
        self.assertEqual(1, value(expected, "lostPktsRev"))
        self.assertEqual(0, value(expected, "lostPktsFwd"))

    # Three sessions numbered by one reflector: each sees gaps of two on the
    # way back, more losses than packets; the minute is void.
    def test_counts_out_of_range_void_the_minute(self):
        events = [reply(seq, 3 * seq) for seq in range(10)]
        expected = finalised(events)
        self.assertTrue(expected.unaccountable)
        self.assertEqual(oracle.NA, value(expected, "receivedPkts"))


class IpdvSweepTest(unittest.TestCase):
    # The one-sweep ranges equal those of trying every number of uncertain
    # samples kept, on random minutes.
    def test_sweep_equals_every_set(self):
        generator = random.Random(5)
        for _ in range(200):
            count = generator.randint(1, 80)
            pairs = []
            for _ in range(count):
                lo = generator.randint(-300, 900)
                pairs.append((lo, lo + generator.randint(0, 400)))
            spans, _, _ = oracle.ipdv_stats(pairs, 600)
            reference = every_set_spans(pairs, 600)
            for name, span in spans.items():
                self.assertEqual((reference[name].lo, reference[name].hi), (span.lo, span.hi),
                                 "%s of %r" % (name, pairs))


def every_set_spans(pairs, capacity):
    """The ranges by brute force: every number of uncertain samples kept."""
    definite = [(lo, hi) for lo, hi in pairs if lo >= 0]
    ambiguous = sorted((hi for lo, hi in pairs if lo < 0 <= hi), reverse=True)
    outcomes = [oracle.state_values([lo for lo, _ in definite] + [0] * len(ambiguous), capacity)]
    for taken in range(0 if definite else 1, len(ambiguous) + 1):
        outcomes.append(oracle.state_values([hi for _, hi in definite] + ambiguous[:taken],
                                            capacity))
    return {name: oracle.Span(min(o[name] for o in outcomes), max(o[name] for o in outcomes))
            for name in outcomes[0]}


class ReplyFieldTest(unittest.TestCase):
    # A Sender TTL left at 0 gives no forward TTL; the reply TTL is still counted.
    def test_sender_ttl_zero_gives_no_value(self):
        events = [reply(0, 0), reply(1, 1)]
        for event in events:
            event["ttl"] = 0
        expected = finalised(events)
        self.assertEqual(oracle.NA, value(expected, "ttlFwdMax"))
        self.assertEqual(oracle.NA, value(expected, "ttlFwdMin"))
        self.assertEqual(64, value(expected, "ttlRevMax"))

    # Replies echoing another send time count nowhere: the packets are lost.
    def test_corrupted_echo_is_discarded(self):
        events = [reply(0, 0), reply(1, 1)]
        for event in events:
            event["t1OffsetUs"] = 5000
        session = oracle.SessionReplay(START, events, RATE, 0)
        sent, state, sequence_error = session.replay(MINUTE, True)
        self.assertEqual(2, state.echo_discarded)
        expected = oracle.expect_finalised(sent, state, sequence_error, RATE)
        self.assertEqual(0, value(expected, "receivedPkts"))
        self.assertEqual(2, value(expected, "lostPktsFwd"))
        self.assertEqual(oracle.NA, value(expected, "delayRtMax"))

    # Sessions of one daemon towards one reflector port are told apart by DSCP.
    def test_replies_split_by_dscp(self):
        other = reply(0, 0)
        other["tos"] = 34 << 2
        session = oracle.SessionReplay(START, [reply(0, 0), other, reply(1, 1)], RATE, 0, dscp=46)
        sent, state, _ = session.replay(MINUTE, True)
        self.assertEqual([0, 1], sent)
        self.assertEqual(2, state.received)

    # A lost request carries no TOS byte: its session cannot be told.
    def test_split_by_dscp_refuses_losses(self):
        with self.assertRaises(oracle.OracleError):
            oracle.SessionReplay(START, [reply(0, 0), fwd_loss(1)], RATE, 0, dscp=46)


class DelayTest(unittest.TestCase):
    # With no tolerance the holds are the delays: percentiles of 1..100 ms
    # follow the vector's rank rule (95th is the 6th largest of 100).
    def test_round_trip_percentiles(self):
        events = [reply(seq, seq, fwd=1000.0 * (seq + 1)) for seq in range(100)]
        expected = finalised(events)
        self.assertEqual((95000 - 2, 95000 + 2), value(expected, "delayRtP95"))
        self.assertEqual((99000 - 2, 99000 + 2), value(expected, "delayRtP99"))
        self.assertEqual((100000 - 2, 100000 + 2), value(expected, "delayRtMax"))

    # Rising forward delays give IPDV samples; a fall gives none.
    def test_ipdv_keeps_increases_only(self):
        expected = finalised([reply(0, 0, fwd=1000.0), reply(1, 1, fwd=5000.0),
                              reply(2, 2, fwd=2000.0)])
        self.assertEqual((4000 - 4, 4000 + 4), value(expected, "ipdvFwdMax"))
        self.assertEqual((4000 - 4, 4000 + 4), value(expected, "ipdvFwdMin"))

    # A reply held for reordering waited for the next one: its delay is the
    # wait it really had, known from the kernel's send time.
    def test_reordered_reply_waits_for_the_next(self):
        expected = finalised([reply(0, 0), reply(2, 2), reply(1, 1, reordered=True, rev=109500.0)],
                             tolerance_us=300)
        self.assertEqual((109500 - 2, 109500 + 300 + 2), value(expected, "delayRtMax"))
        self.assertEqual(1, value(expected, "latePktsRev"))

    # The holds really applied count, not the ones drawn: a reflector woken
    # 9 ms late held the request 12 ms instead of 3.
    def test_real_hold_counts_not_the_planned_one(self):
        expected = finalised([reply(0, 0, fwd=12000.0, planned_fwd=3000.0)], tolerance_us=300)
        self.assertEqual((12000 - 2, 12000 + 300 + 2), value(expected, "delayRtMax"))

    # The time a reflector spends between T2 and T3 is not delay.
    def test_residence_is_taken_out(self):
        expected = finalised([reply(0, 0, rev=40.0)], tolerance_us=300)
        self.assertEqual((40 - 2, 40 + 300 + 2), value(expected, "delayRtMin"))

    # Without the kernel's transmit time the truth cannot bound the delay.
    def test_missing_kernel_time_is_an_error(self):
        event = reply(0, 0)
        event["txKernelNs"] = None
        with self.assertRaises(oracle.OracleError):
            finalised([event])

    # T3 written later than the real send: negative round trips wrap, the
    # minute is invalidated.
    def test_skew_invalidates(self):
        expected = finalised([reply(seq, seq, skew=50000.0) for seq in range(5)], tolerance_us=1000)
        self.assertTrue(expected.invalidated)
        self.assertEqual(oracle.NA, value(expected, "sentPkts"))
        low, high = expected.log_maxima[0].lo, expected.log_maxima[0].hi
        self.assertLessEqual(low, (1 << 38) - 50000)
        self.assertGreaterEqual(high, (1 << 38) - 49000)


def ntp_hex(ns):
    seconds, rest = divmod(ns, 1000000000)
    return "%x" % (((seconds + oracle.NTP_UNIX_OFFSET) << 32) | -(-(rest << 32) // 1000000000))


def packet_line(seq, offset, t1_prime_ns, t4_ns):
    """A PACKET event as babeltrace2 prints the daemon's trace."""
    return ('[12:00:00.000000000] host com_quorin_tn_twamp:PACKET: { msg = "PACKET: '
            'SenderSequenceNo: %d, ResponderSequenceNo: %d, StartOffset: %d, T1: 1, '
            'T1Prime: %s, T2: 2, T3: 3, T4: %s" }\n' % (seq, seq, offset, ntp_hex(t1_prime_ns),
                                                      ntp_hex(t4_ns)))


class KernelTimesTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.events = os.path.join(self.directory.name, "events.txt")
        oracle._EVENTS_CACHE.clear()

    def tearDown(self):
        self.directory.cleanup()

    def kernel_times(self, lines, offset=3):
        with open(self.events, "w") as stream:
            stream.writelines(lines)
        return oracle.daemon_kernel_times(self.events, offset)

    def finalised_with(self, events, kernel_times, tolerance_us=500):
        session = oracle.SessionReplay(START, events, RATE, tolerance_us, None, kernel_times)
        sent, state, sequence_error = session.replay(MINUTE, True)
        return sent, state, oracle.expect_finalised(sent, state, sequence_error, RATE)

    # The trace's NTP times read back as the nanoseconds they were written from.
    def test_trace_times_are_read_per_session(self):
        event = reply(0, 0)
        times = self.kernel_times([packet_line(0, 3, event["rxKernelNs"] - 1500,
                                               event["txKernelNs"] + 700),
                                   packet_line(0, 4, 1, 2)])
        out, back = oracle.veth_times(event, event["rxKernelNs"], event["txKernelNs"], times)
        self.assertAlmostEqual(1.5, out, places=2)
        self.assertAlmostEqual(0.7, back, places=2)

    # A veth time within the tolerance leaves the tolerance's range.
    def test_ordinary_reply_keeps_the_tolerance(self):
        event = reply(0, 0)
        times = self.kernel_times([packet_line(0, 3, event["rxKernelNs"] - 3000,
                                               event["txKernelNs"] + 2000)])
        _, state, expected = self.finalised_with([event], times)
        self.assertEqual((0, 500 + 2), value(expected, "delayRtMax"))
        self.assertEqual([], state.outliers)

    # A host that stopped the virtual CPU inside the send for 800 us: the
    # daemon's own kernel times give the delays of that reply exactly.
    def test_stalled_send_uses_the_daemons_times(self):
        events = [reply(seq, seq) for seq in range(3)]
        lines = [packet_line(seq, 3, e["rxKernelNs"] - (800000 if seq == 1 else 1000),
                             e["txKernelNs"] + 20000 * (seq == 1))
                 for seq, e in enumerate(events)]
        sent, state, expected = self.finalised_with(events, self.kernel_times(lines))
        self.assertEqual((820 - 2, 820 + 2), value(expected, "delayRtMax"))
        self.assertEqual((0, 500 + 2), value(expected, "delayRtMin"))
        self.assertEqual([1], [seq for seq, _ in state.outliers])
        self.assertEqual(0, oracle.check_outliers("s", MINUTE, sent, state))

    # Many replies beyond the tolerance are not stalls: the daemon's times
    # and the truth disagree, and the check fails.
    def test_many_outliers_fail(self):
        events = [reply(seq, seq) for seq in range(10)]
        lines = [packet_line(seq, 3, e["rxKernelNs"] - 900000, e["txKernelNs"])
                 for seq, e in enumerate(events)]
        sent, state, _ = self.finalised_with(events, self.kernel_times(lines))
        self.assertEqual(10, len(state.outliers))
        self.assertEqual(1, oracle.check_outliers("s", MINUTE, sent, state))

    # A time of the daemon after the reflector's receive time is no veth
    # time: it is not used.
    def test_impossible_times_are_not_used(self):
        event = reply(0, 0)
        times = self.kernel_times([packet_line(0, 3, event["rxKernelNs"] + 900000,
                                               event["txKernelNs"] + 900000)])
        _, state, expected = self.finalised_with([event], times)
        self.assertEqual((0, 500 + 2), value(expected, "delayRtMax"))
        self.assertEqual([], state.outliers)



class DeclarationTest(unittest.TestCase):
    """A minute the daemon declared -2 for a missing transmit timestamp."""

    TEXT = "for dstIpAddress 198.18.0.2, dstUdpPort 18832,"

    def log_with(self, line):
        handle, path = tempfile.mkstemp()
        with os.fdopen(handle, "w") as stream:
            stream.write(line + "\n")
        self.addCleanup(os.remove, path)
        return path

    def record(self, minute, reason="transmit timestamp missing", port=18832):
        return ("2026-11-23T08:04:04 TWAMP TwampTestSession: minute %d cannot be accounted "
                "(%s) for dstIpAddress 198.18.0.2, dstUdpPort %d so all counters of period "
                "%d are reset to -2" % (minute, reason, port, minute % oracle.BINS))

    def test_declared_minute_is_found(self):
        path = self.log_with(self.record(MINUTE))
        self.assertTrue(oracle.timestamp_missing_declared(path, self.TEXT, MINUTE))

    def test_other_minute_reason_or_reflector_is_not(self):
        self.assertFalse(oracle.timestamp_missing_declared(
            self.log_with(self.record(MINUTE + 1)), self.TEXT, MINUTE))
        self.assertFalse(oracle.timestamp_missing_declared(
            self.log_with(self.record(MINUTE, "counts out of range")), self.TEXT, MINUTE))
        self.assertFalse(oracle.timestamp_missing_declared(
            self.log_with(self.record(MINUTE, port=18833)), self.TEXT, MINUTE))

if __name__ == "__main__":
    unittest.main()
