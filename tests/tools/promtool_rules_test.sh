#!/usr/bin/env bash
# promtool accepts the example alert rules.
# Usage: promtool_rules_test.sh RULES_FILE
set -euo pipefail
rules=$1
if ! command -v promtool >/dev/null; then
    echo "promtool not installed (Debian package prometheus): skipped"
    exit 77
fi
promtool check rules "$rules"
