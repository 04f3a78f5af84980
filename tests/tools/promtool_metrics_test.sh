#!/usr/bin/env bash
# promtool accepts the exporter's page (names, types, help texts, units).
# Usage: promtool_metrics_test.sh EXPORTER_SAMPLE
set -euo pipefail
sample=$1
if ! command -v promtool >/dev/null; then
    echo "promtool not installed (Debian package prometheus): skipped"
    exit 77
fi
page=$("$sample")
echo "$page" | grep -q '^twamp_session_sent_packets_total{' || {
    echo "no sent total in the page"
    exit 1
}
# promtool prints its complaints and exits non-zero for any of them.
output=$(echo "$page" | promtool check metrics 2>&1) || {
    echo "promtool check metrics failed:"
    echo "$output"
    exit 1
}
if [ -n "$output" ]; then
    echo "promtool check metrics complained:"
    echo "$output"
    exit 1
fi
echo "promtool check metrics: ok"
