#!/usr/bin/env bash
# Every program prints "NAME VERSION" for --version and exits 0, and the
# version is the one debian/changelog carries: the packages and the programs
# must never disagree about which release they are.
#
# usage: version_test.sh VERSION CHANGELOG DAEMON CTL REFLECTOR
set -euo pipefail

VERSION="$1"
CHANGELOG="$2"
shift 2

failures=0

check_program() {
    local program="$1" name output status
    name="$(basename "$program")"
    status=0
    output="$("$program" --version 2>&1)" || status=$?
    if [ "$status" -ne 0 ]; then
        echo "FAIL: $name --version exits $status"
        failures=$((failures + 1))
    elif [ "$output" != "$name $VERSION" ]; then
        echo "FAIL: $name --version prints '$output', expected '$name $VERSION'"
        failures=$((failures + 1))
    else
        echo "ok: $output"
    fi
}

for program in "$@"; do
    check_program "$program"
done

# First line of the changelog: "twamp-light-sender (0.1.0) unstable; urgency=medium".
changelog_version="$(sed -n '1s/^[^ ]* (\([^)]*\)).*/\1/p' "$CHANGELOG")"
if [ "$changelog_version" != "$VERSION" ]; then
    echo "FAIL: debian/changelog is at '$changelog_version', the build at '$VERSION'"
    failures=$((failures + 1))
else
    echo "ok: debian/changelog at $changelog_version"
fi

[ "$failures" -eq 0 ]
