#!/usr/bin/env bash
# Installs, with apt-get, everything that building, testing and the lab demo need.
# Does nothing more when everything is already installed.
set -euo pipefail

PACKAGES=(
    build-essential cmake pkg-config
    clang clang-format libclang-rt-14-dev
    libglib2.0-dev
    liblttng-ust-dev lttng-tools babeltrace2
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    faketime iproute2 util-linux mount diffutils procps psmisc python3
    # the operator's package: man pages, completion, units, Debian packages
    scdoc man-db groff-base bash-completion systemd
    debhelper dpkg-dev fakeroot lintian mmdebstrap logrotate
    libmicrohttpd-dev prometheus gnuplot-nox curl
)

missing=()
for pkg in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$pkg")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    SUDO="sudo"
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update
$SUDO apt-get install -y --no-install-recommends "${missing[@]}"
