#!/usr/bin/env python3
"""Checks that every bin of a counters reply is -2 or obeys the range rules.

A finalised minute is either void (all 38 counters -2) or holds counters
that are each -2 or within their range:

  * lostPktsFwd, lostPktsRev, latePktsFwd, latePktsRev, lossPeriodsFwd and
    lossPeriodsRev between 0 and sentPkts; duplicates and receivedPkts at
    least 0;
  * receivedPkts + lostPktsFwd + lostPktsRev at most
    sentPkts + duplicatePktsFwd + duplicatePktsRev;
  * delays and IPDV between 0 and 4 s, minimum <= average <= maximum and
    every percentile between minimum and maximum;
  * loss periods between 0 and sentPkts packet intervals;
  * DSCP 0 to 63, TTL 1 to 255, minimum <= maximum.

usage: range_rule.py --counters FILE [--counters FILE...] [--rate PPS]
                     [--na-bins LIST] [--measured-bins LIST] [--label TEXT]
  --na-bins LIST        bins that must be -2 in every counter (e.g. 0-4,6)
  --measured-bins LIST  bins that must hold a finalised minute: sentPkts above 0
Exit status 0 when every rule holds, 1 otherwise, 2 on bad input.
"""

import argparse
import json
import sys

NOT_AVAILABLE = -2
BINS = 15
FOUR_SECONDS_US = 4000000
PACKET_COUNTS = ("lostPktsFwd", "lostPktsRev", "latePktsFwd", "latePktsRev",
                 "lossPeriodsFwd", "lossPeriodsRev")
AT_LEAST_ZERO = ("duplicatePktsFwd", "duplicatePktsRev", "receivedPkts")
DELAY_STATES = ("delayRt", "ipdvFwd", "ipdvRev")
LOSS_PERIODS = ("lossPeriodFwdMax", "lossPeriodFwdMin", "lossPeriodRevMax", "lossPeriodRevMin")
RANGES = {"dscpRev": (0, 63), "ttlFwd": (1, 255), "ttlRev": (1, 255)}


def parse_bins(text):
    bins = set()
    for part in text.split(","):
        if "-" in part:
            first, last = part.split("-")
            bins.update(range(int(first), int(last) + 1))
        elif part:
            bins.add(int(part))
    return bins


def known(value):
    return value != NOT_AVAILABLE


class BinCheck:
    """The rules of one bin; failures collected as text."""

    def __init__(self, counters, index, rate):
        self.value = {name: row[index] for name, row in counters.items()}
        self.rate = rate
        self.failures = []

    def fail(self, text):
        self.failures.append(text)

    def within(self, name, low, high):
        value = self.value[name]
        if known(value) and not low <= value <= high:
            self.fail("%s = %d outside %d..%d" % (name, value, low, high))

    def ordered(self, lower, higher):
        low, high = self.value[lower], self.value[higher]
        if known(low) and known(high) and low > high:
            self.fail("%s = %d above %s = %d" % (lower, low, higher, high))

    def run(self):
        values = self.value.values()
        if all(value == NOT_AVAILABLE for value in values):
            return self.failures
        sent = self.value["sentPkts"]
        if not known(sent) or sent < 0:
            self.fail("sentPkts = %d while other counters hold values" % sent)
            return self.failures
        self.counts(sent)
        self.delays()
        self.loss_periods(sent)
        for prefix, (low, high) in RANGES.items():
            self.within(prefix + "Max", low, high)
            self.within(prefix + "Min", low, high)
            self.ordered(prefix + "Min", prefix + "Max")
        return self.failures

    def counts(self, sent):
        for name in PACKET_COUNTS:
            self.within(name, 0, sent)
        for name in AT_LEAST_ZERO:
            self.within(name, 0, 2 ** 62)
        answered = [self.value[name] for name in ("receivedPkts", "lostPktsFwd", "lostPktsRev")]
        allowed = [self.value[name] for name in ("duplicatePktsFwd", "duplicatePktsRev")]
        if all(known(value) for value in answered + allowed) and \
                sum(answered) > sent + sum(allowed):
            self.fail("receivedPkts + lostPktsFwd + lostPktsRev = %d above sentPkts + "
                      "duplicates = %d" % (sum(answered), sent + sum(allowed)))

    def delays(self):
        for state in DELAY_STATES:
            names = [state + suffix for suffix in ("Min", "Avg", "Max", "P95", "P98", "P99")]
            for name in names:
                self.within(name, 0, FOUR_SECONDS_US)
            self.ordered(state + "Min", state + "Avg")
            self.ordered(state + "Avg", state + "Max")
            for percentile in ("P95", "P98", "P99"):
                self.ordered(state + "Min", state + percentile)
                self.ordered(state + percentile, state + "Max")

    def loss_periods(self, sent):
        interval_ms = 1000 // self.rate if self.rate > 0 else 0
        for name in LOSS_PERIODS:
            self.within(name, 0, sent * interval_ms)
        self.ordered("lossPeriodFwdMin", "lossPeriodFwdMax")
        self.ordered("lossPeriodRevMin", "lossPeriodRevMax")


def check_file(path, options, na_bins, measured_bins):
    with open(path) as stream:
        counters = json.load(stream)["counters"]
    failures = 0
    for index in range(BINS):
        problems = BinCheck(counters, index, options.rate).run()
        if index in na_bins and any(known(row[index]) for row in counters.values()):
            problems.append("must be -2 throughout")
        if index in measured_bins and counters["sentPkts"][index] in (NOT_AVAILABLE, 0):
            problems.append("must hold a measured minute (sentPkts %d)" %
                            counters["sentPkts"][index])
        for problem in problems:
            print("%s: %s bin %d: %s" % (options.label, path, index, problem))
        failures += len(problems)
    return failures


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--counters", action="append", required=True)
    parser.add_argument("--rate", type=int, default=10)
    parser.add_argument("--na-bins", default="")
    parser.add_argument("--measured-bins", default="")
    parser.add_argument("--label", default="session")
    options = parser.parse_args(argv)
    try:
        na_bins = parse_bins(options.na_bins)
        measured_bins = parse_bins(options.measured_bins)
        failures = sum(check_file(path, options, na_bins, measured_bins)
                       for path in options.counters)
    except (OSError, ValueError, KeyError) as error:
        print("%s: range_rule: %s" % (options.label, error))
        return 2
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
