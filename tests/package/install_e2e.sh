#!/usr/bin/env bash
# The operator's path, end to end: build the Debian packages from a clean
# clone with dpkg-buildpackage, install them with apt into a fresh Debian root
# (mmdebstrap from the host's Debian mirror), and run the installed programs
# there (chroot): the daemon started as its systemd unit would start it (user
# twamp, the unit's capabilities and command line, an instance settings file,
# software timestamps on loopback, no namespace of its own), a twamp-reflector
# on loopback, and twamp-ctl run by an operator in the group twamp, who
# creates a session and reads counters with sentPkts > 0 once its first
# minute is finalised. libfaketime places the daemon 8 s before a minute
# boundary, so the test waits about 70 s for that minute.
#
# The base root (minbase with the packages' dependencies) is cached as a
# tarball in $TWAMP_PACKAGE_CACHE (default /var/cache/twamp-package-e2e) and
# rebuilt when missing, older than a week, or when TWAMP_PACKAGE_FRESH=1.
# TWAMP_PACKAGE_DEBS=DIR installs the packages already built in DIR instead
# of building them (for work on this test). Needs root (chroot, mounts);
# exits 77 without it.
#
# usage: install_e2e.sh SOURCE_DIR
set -uo pipefail

SOURCE="$1"
HERE="$(cd "$(dirname "$0")" && pwd)"
CACHE="${TWAMP_PACKAGE_CACHE:-/var/cache/twamp-package-e2e}"
# What the packages need at run time, and what the test itself uses inside.
BASE_PACKAGES="systemd,passwd,libglib2.0-0,liblttng-ust1,libstdc++6,libmicrohttpd12,libfaketime,bash-completion,logrotate"

if [ "$(id -u)" -ne 0 ]; then
    echo "SKIP: needs root (chroot and mounts)"
    exit 77
fi

START=$(date +%s)
WORK="$(mktemp -d /tmp/twamp-package-e2e.XXXXXX)"
cleanup() {
    local status=$?
    rm -rf "$WORK"
    exit "$status"
}
trap cleanup EXIT

phase() {
    echo "[$(($(date +%s) - START)) s] $*"
}

# The host's Debian mirror and release: the root is what this host runs.
debian_mirror() {
    local url
    url="$(grep -h -o -E '^(URIs:|deb)[[:space:]]+[^[:space:]]+' /etc/apt/sources.list \
        /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources 2>/dev/null |
        awk '{ print $2 }' | grep -m1 -E '/debian/?$')"
    echo "${url:-http://deb.debian.org/debian}"
}
SUITE="$(. /etc/os-release && echo "$VERSION_CODENAME")"
MIRROR="$(debian_mirror)"

# --- 1. the packages, from a clean clone --------------------------------------
build_packages() {
    phase "building the packages from a clean clone of $SOURCE"
    if git -C "$SOURCE" rev-parse HEAD >/dev/null 2>&1; then
        git clone --quiet "$SOURCE" "$WORK/src" &&
            git -C "$WORK/src" checkout --quiet --detach "$(git -C "$SOURCE" rev-parse HEAD)" || exit 1
    else
        mkdir "$WORK/src" && tar -C "$SOURCE" --exclude='./build*' -cf - . | tar -C "$WORK/src" -xf - || exit 1
    fi
    if ! (cd "$WORK/src" && dpkg-buildpackage -us -uc -b -j"$(nproc)" >"$WORK/build.log" 2>&1); then
        tail -40 "$WORK/build.log"
        echo "FAIL: dpkg-buildpackage"
        exit 1
    fi
    mapfile -t DEBS < <(ls "$WORK"/twamp-*.deb | grep -v -- '-dbgsym_')
    phase "built: ${DEBS[*]##*/}"

    # lintian: no error; its warnings are printed for the record.
    phase "lintian"
    lint="$(lintian --fail-on error "$WORK"/twamp-light-sender_*.changes 2>&1)"
    lint_status=$?
    grep -v '^running with root' <<<"$lint"
    if [ "$lint_status" -ne 0 ]; then
        echo "FAIL: lintian reports errors"
        exit 1
    fi
}
if [ -n "${TWAMP_PACKAGE_DEBS:-}" ]; then
    phase "using the packages in $TWAMP_PACKAGE_DEBS"
    cp "$TWAMP_PACKAGE_DEBS"/twamp-*.deb "$WORK/" || exit 1
    mapfile -t DEBS < <(ls "$WORK"/twamp-*.deb | grep -v -- '-dbgsym_')
else
    build_packages
fi

# --- 2. a fresh Debian root -------------------------------------------------
BASE="$CACHE/$SUITE-minbase-$(echo "$BASE_PACKAGES $MIRROR" | md5sum | cut -c1-12).tar"
mkdir -p "$CACHE"
if [ "${TWAMP_PACKAGE_FRESH:-0}" = 1 ] || [ -z "$(find "$BASE" -mtime -7 2>/dev/null)" ]; then
    phase "creating the base root $BASE ($SUITE from $MIRROR)"
    # mmdebstrap picks its output format by the name's ending: the partial
    # file must end in .tar too, or it becomes a directory.
    rm -rf "$BASE" "$BASE.new.tar"
    if ! mmdebstrap --quiet --variant=minbase --include="$BASE_PACKAGES" "$SUITE" "$BASE.new.tar" \
        "$MIRROR" >"$WORK/mmdebstrap.log" 2>&1; then
        tail -20 "$WORK/mmdebstrap.log"
        echo "FAIL: mmdebstrap"
        exit 1
    fi
    mv -f "$BASE.new.tar" "$BASE"
else
    phase "using the cached base root $BASE"
fi
ROOT="$WORK/root"
mkdir "$ROOT" && tar -C "$ROOT" -xf "$BASE" || exit 1
mkdir -p "$ROOT/debs" && cp "${DEBS[@]}" "$ROOT/debs/" || exit 1
cp /etc/resolv.conf "$ROOT/etc/resolv.conf" 2>/dev/null
cp "$HERE/install_e2e_inside.sh" "$ROOT/install_e2e_inside.sh" || exit 1

# --- 3. install, then run, inside ---------------------------------------------
# Each in a mount namespace of its own (the mounts vanish with it). The run
# also gets a network namespace of its own, with only loopback: its ports
# and packets never meet those of other tests on the host.
inside() {
    local mode="$1"
    shift
    unshare --mount --propagation private "$@" bash -c '
        set -e
        root="$1"
        mode="$2"
        if [ "$mode" = run ]; then
            ip link set lo up
        fi
        mount --rbind /dev "$root/dev"
        mount -t proc proc "$root/proc"
        mount -t sysfs sysfs "$root/sys"
        chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
            bash /install_e2e_inside.sh "$mode"
    ' bash "$ROOT" "$mode"
}
phase "installing the packages inside the root"
inside install || exit 1
phase "running the installed programs inside the root"
inside run --net
status=$?
phase "done, status $status"
exit "$status"
