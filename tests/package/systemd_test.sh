#!/usr/bin/env bash
# The systemd side of the package: systemd-analyze verify passes for the
# daemon's and the exporter's template units (as instances) and the
# reflector's unit, and the
# sysusers.d and tmpfiles.d files create the user and the directories and
# files with the owners and modes the daemon needs, in a scratch root.
#
# The units name the installed programs and man pages; for the check they
# point at the built ones (the only change made to the copies).
#
# usage: systemd_test.sh PACKAGING_DIR MAN_DIR DAEMON REFLECTOR EXPORTER
set -uo pipefail

PACKAGING="$1"
MAN_DIR="$2"
DAEMON="$3"
REFLECTOR="$4"
EXPORTER="$5"
failures=0

fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

WORK="$(mktemp -d)"
trap 'rm -rf "$WORK"' EXIT

# --- systemd-analyze verify ---------------------------------------------------
mkdir -p "$WORK/units" "$WORK/man/man1" "$WORK/man/man8"
sed "s|/usr/sbin/twampTestSession|$DAEMON|" "$PACKAGING/systemd/twamp-sender@.service" \
    >"$WORK/units/twamp-sender@core.service"
sed "s|/usr/bin/twamp-reflector|$REFLECTOR|" "$PACKAGING/systemd/twamp-reflector.service" \
    >"$WORK/units/twamp-reflector.service"
sed "s|/usr/bin/twamp-exporter|$EXPORTER|" "$PACKAGING/systemd/twamp-exporter@.service" \
    >"$WORK/units/twamp-exporter@core.service"
ln -s "$MAN_DIR/twampTestSession.8" "$WORK/man/man8/"
ln -s "$MAN_DIR/twamp-reflector.1" "$MAN_DIR/twamp-exporter.1" "$WORK/man/man1/"
UNITS="twamp-sender@core.service twamp-reflector.service twamp-exporter@core.service"
# shellcheck disable=SC2086
if output="$(cd "$WORK/units" && MANPATH="$WORK/man" systemd-analyze verify $UNITS 2>&1)" &&
    [ -z "$output" ]; then
    echo "ok: systemd-analyze verify $UNITS"
else
    fail "systemd-analyze verify: $output"
fi

# --- sysusers.d and tmpfiles.d in a scratch root ----------------------------
# Owners can only be set by root.
if [ "$(id -u)" -ne 0 ]; then
    echo "SKIP: sysusers.d and tmpfiles.d need root"
    [ "$failures" -eq 0 ] && exit 77
    exit 1
fi
ROOT="$WORK/root"
mkdir -p "$ROOT/etc" "$ROOT/run" "$ROOT/var/log"
if ! systemd-sysusers --root="$ROOT" "$PACKAGING/systemd/twamp-sender.sysusers" 2>&1; then
    fail "systemd-sysusers refused twamp-sender.sysusers"
fi
if grep -q '^twamp:x:[0-9]*:[0-9]*:TWAMP light Session-Sender:/nonexistent:' "$ROOT/etc/passwd" &&
    grep -q '^twamp:x:' "$ROOT/etc/group"; then
    echo "ok: sysusers creates the system user and group twamp"
else
    fail "sysusers did not create the user and group twamp: $(cat "$ROOT/etc/passwd" 2>&1)"
fi
if ! systemd-tmpfiles --root="$ROOT" --create "$PACKAGING/systemd/twamp-sender.tmpfiles" 2>&1; then
    fail "systemd-tmpfiles --create failed"
fi
uid="$(awk -F: '$1 == "twamp" { print $3 }' "$ROOT/etc/passwd")"
gid="$(awk -F: '$1 == "twamp" { print $3 }' "$ROOT/etc/group")"

# expect_entry PATH TYPE MODE UID GID
expect_entry() {
    local path="$1" type="$2" mode="$3" owner="$4" group="$5" got
    got="$(stat -c '%F %a %u %g' "$ROOT$path" 2>&1)"
    if [ "$got" = "$type $mode $owner $group" ]; then
        echo "ok: $path is $got"
    else
        fail "$path is '$got', expected '$type $mode $owner $group'"
    fi
}
expect_entry /run/itc directory 2770 0 "$gid"
expect_entry /var/log/saflog directory 750 0 "$gid"
expect_entry /var/log/saflog/TnApplicationLog.log "regular empty file" 640 "$uid" "$gid"
expect_entry /var/log/saflog/TnNetworkLog.log "regular empty file" 640 "$uid" "$gid"
expect_entry /var/log/qrn_ng directory 750 "$uid" "$gid"

[ "$failures" -eq 0 ]
