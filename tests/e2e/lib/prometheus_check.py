#!/usr/bin/env python3
"""The checks of prometheus_e2e.sh in one process (a busy host starts
processes slowly): what Prometheus stored against the daemon's counters.

usage: prometheus_check.py --url URL --bin BIN --rate RATE --loss LOW HIGH
                           --session NAME COUNTERS_JSON ...

For each session: the daemon's counters of BIN (its JSON from twamp-ctl
counters --json) give the expected totals, which Prometheus must hold exactly
(polled for up to 30 s while the next scrapes come in). The session named
"lossy" must show a loss ratio in [LOW, HIGH], "clean" none; the clean one's
delay gauges must be present. Prints ok/FAIL per check; the exit status is
the number of failures.
"""
import argparse
import json
import sys
import time
import urllib.parse
import urllib.request

TOTALS = [
    ("sent", "twamp_session_sent_packets_total{{id=\"{id}\"}}", "sentPkts"),
    ("received", "twamp_session_received_packets_total{{id=\"{id}\"}}", "receivedPkts"),
    ("forward loss",
     "twamp_session_lost_packets_total{{id=\"{id}\",direction=\"forward\"}}", "lostPktsFwd"),
    ("reverse loss",
     "twamp_session_lost_packets_total{{id=\"{id}\",direction=\"reverse\"}}", "lostPktsRev"),
]


def query(url, expression):
    address = url + "/api/v1/query?" + urllib.parse.urlencode({"query": expression})
    with urllib.request.urlopen(address, timeout=10) as answer:
        result = json.load(answer)["data"]["result"]
    return float(result[0]["value"][1]) if result else None


def report(ok, what):
    print(("ok: " if ok else "FAIL: ") + what, flush=True)
    return 0 if ok else 1


def wait_equal(url, expression, expected, deadline):
    value = None
    while True:
        value = query(url, expression)
        if value == expected or time.monotonic() > deadline:
            return value
        time.sleep(0.5)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--url", required=True)
    parser.add_argument("--bin", type=int, required=True)
    parser.add_argument("--rate", type=int, required=True)
    parser.add_argument("--loss", type=float, nargs=2, required=True)
    parser.add_argument("--session", nargs=2, action="append", required=True)
    arguments = parser.parse_args()
    failures = 0
    deadline = time.monotonic() + 30
    ids = {}
    for name, path in arguments.session:
        counters = json.load(open(path))
        ids[name] = counters["sessionId"]
        values = {key: row[arguments.bin] for key, row in counters["counters"].items()}
        print(f"{name}: daemon's minute: sent {values['sentPkts']}, received "
              f"{values['receivedPkts']}, lost {values['lostPktsFwd']} + {values['lostPktsRev']}")
        failures += report(values["sentPkts"] == arguments.rate * 60,
                           f"{name}: sent {arguments.rate * 60} in the minute")
        for what, template, counter in TOTALS:
            expression = template.format(id=ids[name])
            value = wait_equal(arguments.url, expression, values[counter], deadline)
            failures += report(value == values[counter],
                               f"{name}: {what} total {value} equals the daemon's "
                               f"{values[counter]}")
    ratio = "sum(twamp_session_lost_packets_total{{id=\"{id}\"}}) / " \
            "sum(twamp_session_sent_packets_total{{id=\"{id}\"}})"
    clean = query(arguments.url, ratio.format(id=ids["clean"]))
    failures += report(clean == 0, f"clean: loss ratio {clean} is 0")
    lossy = query(arguments.url, ratio.format(id=ids["lossy"]))
    low, high = arguments.loss
    failures += report(lossy is not None and low <= lossy <= high,
                       f"lossy: loss ratio {lossy} in [{low}, {high}]")
    average = query(arguments.url,
                    f"twamp_session_round_trip_avg_seconds{{id=\"{ids['clean']}\"}}")
    failures += report(average is not None and 0 < average < 0.5,
                       f"clean: round-trip average gauge {average} s")
    spread = query(arguments.url,
                   f"twamp_session_round_trip_p99_seconds{{id=\"{ids['clean']}\"}} - "
                   f"twamp_session_round_trip_avg_seconds{{id=\"{ids['clean']}\"}}")
    failures += report(spread is not None and spread >= 0,
                       f"clean: round-trip p99 gauge at least the average ({spread})")
    info = query(arguments.url,
                 f"twamp_session_info{{id=\"{ids['clean']}\",state=\"sending\",dscp=\"46\"}}")
    failures += report(info == 1, "info series of the sending session")
    failures += report(query(arguments.url, "twamp_exporter_daemon_up") == 1, "daemon up")
    with urllib.request.urlopen(arguments.url + "/api/v1/rules", timeout=10) as answer:
        rules = answer.read().decode()
    failures += report("TwampSessionLoss" in rules and "TwampSessionHighP99Delay" in rules,
                       "alert rules loaded")
    return failures


if __name__ == "__main__":
    sys.exit(main())
