#!/usr/bin/env python3
"""Tests of the range rules that every bin of a counters reply must obey."""

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import range_rule  # noqa: E402

NAMES = [
    "delayRtAvg", "delayRtMax", "delayRtMin", "delayRtP95", "delayRtP98", "delayRtP99",
    "dscpRevMax", "dscpRevMin", "duplicatePktsFwd", "duplicatePktsRev", "ipdvFwdAvg",
    "ipdvFwdMax", "ipdvFwdMin", "ipdvFwdP95", "ipdvFwdP98", "ipdvFwdP99", "ipdvRevAvg",
    "ipdvRevMax", "ipdvRevMin", "ipdvRevP95", "ipdvRevP98", "ipdvRevP99", "lossPeriodFwdMax",
    "lossPeriodRevMax", "lossPeriodFwdMin", "lossPeriodRevMin", "lossPeriodsFwd",
    "lossPeriodsRev", "lostPktsFwd", "lostPktsRev", "latePktsFwd", "latePktsRev",
    "receivedPkts", "ttlFwdMax", "ttlRevMax", "ttlFwdMin", "ttlRevMin", "sentPkts",
]

# A clean minute at 10 packets/s: 600 sent, 598 answered, one run of two lost.
MEASURED = {
    "delayRtAvg": 90, "delayRtMax": 300, "delayRtMin": 40, "delayRtP95": 150,
    "delayRtP98": 200, "delayRtP99": 250, "dscpRevMax": 46, "dscpRevMin": 46,
    "duplicatePktsFwd": 0, "duplicatePktsRev": 0, "ipdvFwdAvg": 5, "ipdvFwdMax": 50,
    "ipdvFwdMin": 0, "ipdvFwdP95": 20, "ipdvFwdP98": 30, "ipdvFwdP99": 40, "ipdvRevAvg": 5,
    "ipdvRevMax": 50, "ipdvRevMin": 0, "ipdvRevP95": 20, "ipdvRevP98": 30, "ipdvRevP99": 40,
    "lossPeriodFwdMax": 200, "lossPeriodRevMax": 0, "lossPeriodFwdMin": 200,
    "lossPeriodRevMin": 0, "lossPeriodsFwd": 1, "lossPeriodsRev": 0, "lostPktsFwd": 2,
    "lostPktsRev": 0, "latePktsFwd": 0, "latePktsRev": 0, "receivedPkts": 598,
    "ttlFwdMax": 64, "ttlRevMax": 255, "ttlFwdMin": 64, "ttlRevMin": 255, "sentPkts": 600,
}


def grid(**changes):
    """All 15 bins -2 except bin 3, the measured minute with the changes given."""
    counters = {name: [-2] * 15 for name in NAMES}
    for name, value in dict(MEASURED, **changes).items():
        counters[name][3] = value
    return counters


def failures(counters):
    return range_rule.BinCheck(counters, 3, 10).run()


class RangeRuleTest(unittest.TestCase):
    # A clean measured minute breaks no rule.
    def test_measured_minute_passes(self):
        self.assertEqual([], failures(grid()))

    # A void minute (all -2) breaks no rule.
    def test_void_minute_passes(self):
        self.assertEqual([], range_rule.BinCheck(grid(), 0, 10).run())

    # More lost than sent breaks the count rule.
    def test_lost_above_sent_fails(self):
        self.assertEqual(["lostPktsRev = 601 outside 0..600",
                          "receivedPkts + lostPktsFwd + lostPktsRev = 1201 above sentPkts + "
                          "duplicates = 600"], failures(grid(lostPktsRev=601)))

    # Received plus lost above sent plus duplicates breaks the balance.
    def test_unbalanced_counts_fail(self):
        self.assertEqual(["receivedPkts + lostPktsFwd + lostPktsRev = 601 above sentPkts + "
                          "duplicates = 600"], failures(grid(receivedPkts=599)))

    # -2 alone in lostPktsFwd is allowed.
    def test_lost_forward_not_available_passes(self):
        self.assertEqual([], failures(grid(lostPktsFwd=-2)))

    # A delay above 4 s fails.
    def test_delay_above_four_seconds_fails(self):
        self.assertEqual(["delayRtMax = 4000001 outside 0..4000000"],
                         failures(grid(delayRtMax=4000001)))

    # A negative IPDV fails.
    def test_negative_ipdv_fails(self):
        self.assertEqual(["ipdvFwdMin = -1 outside 0..4000000"], failures(grid(ipdvFwdMin=-1)))

    # A percentile above the maximum fails.
    def test_percentile_above_maximum_fails(self):
        self.assertEqual(["delayRtP99 = 301 above delayRtMax = 300"],
                         failures(grid(delayRtP99=301)))

    # DSCP 64 and TTL 0 are out of range.
    def test_dscp_and_ttl_ranges(self):
        self.assertEqual(["dscpRevMax = 64 outside 0..63", "ttlFwdMin = 0 outside 1..255"],
                         failures(grid(dscpRevMax=64, ttlFwdMin=0)))

    # A value beside an unavailable sentPkts fails.
    def test_values_without_sent_fail(self):
        self.assertEqual(["sentPkts = -2 while other counters hold values"],
                         failures(grid(sentPkts=-2)))

    # A loss period longer than the minute fails.
    def test_loss_period_above_minute_fails(self):
        self.assertEqual(["lossPeriodFwdMax = 60100 outside 0..60000"],
                         failures(grid(lossPeriodFwdMax=60100)))


if __name__ == "__main__":
    unittest.main()
