#!/usr/bin/env bash
# twamp-ctl plot draws a PNG of the given size from a counters CSV (no daemon
# needed) and the image is not blank; a minute of -2 is left out of the data.
# Usage: plot_test.sh TWAMP_CTL PNG_CHECK
set -euo pipefail
ctl=$1
check=$2
if ! command -v gnuplot >/dev/null; then
    echo "gnuplot not installed (Debian package gnuplot-nox): skipped"
    exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A 15-minute interval: minutes 0 to 12 measured with growing delays and some
# loss, minute 6 invalidated (-2 throughout), minutes 13 and 14 not yet final.
python3 - "$work/counters.csv" <<'PY'
import sys
names = ["delayRtAvg", "delayRtMax", "delayRtMin", "delayRtP95", "delayRtP98", "delayRtP99",
         "dscpRevMax", "dscpRevMin", "duplicatePktsFwd", "duplicatePktsRev", "ipdvFwdAvg",
         "ipdvFwdMax", "ipdvFwdMin", "ipdvFwdP95", "ipdvFwdP98", "ipdvFwdP99", "ipdvRevAvg",
         "ipdvRevMax", "ipdvRevMin", "ipdvRevP95", "ipdvRevP98", "ipdvRevP99",
         "lossPeriodFwdMax", "lossPeriodRevMax", "lossPeriodFwdMin", "lossPeriodRevMin",
         "lossPeriodsFwd", "lossPeriodsRev", "lostPktsFwd", "lostPktsRev", "latePktsFwd",
         "latePktsRev", "receivedPkts", "ttlFwdMax", "ttlRevMax", "ttlFwdMin", "ttlRevMin",
         "sentPkts"]
base = {"delayRtMin": 800, "delayRtAvg": 1000, "delayRtP95": 1400, "delayRtP98": 1500,
        "delayRtP99": 1600, "delayRtMax": 2500, "ipdvFwdAvg": 50, "ipdvFwdP99": 200,
        "ipdvRevAvg": 40, "ipdvRevP99": 150, "sentPkts": 600, "lostPktsFwd": 6,
        "lostPktsRev": 3, "receivedPkts": 591}
with open(sys.argv[1], "w") as out:
    out.write("counter,unit," + ",".join(f"12:{m:02d}" for m in range(15)) + "\n")
    for name in names:
        values = []
        for minute in range(15):
            if minute == 6 or minute >= 13:
                values.append(-2)
            else:
                values.append(base.get(name, 0) * (1 + minute % 4))
        out.write(f"{name},unit," + ",".join(str(v) for v in values) + "\n")
PY

"$ctl" plot --from-csv "$work/counters.csv" --id demo --out "$work/plot.png" > "$work/stdout"
grep -qx "$work/plot.png" "$work/stdout" || {
    echo "twamp-ctl plot did not print the file name"
    cat "$work/stdout"
    exit 1
}
python3 "$check" "$work/plot.png" 1000 900 8 0.02

# The SVG terminal as well, with the invalidated minute present as a gap.
"$ctl" plot --from-csv "$work/counters.csv" --out "$work/plot.svg" > /dev/null
grep -q '<svg' "$work/plot.svg"
echo "plot: ok"
