#!/usr/bin/env bash
# Installs what building, testing and the demo need on Debian 12. Safe to
# run again: when everything is present it changes nothing.
set -euo pipefail

packages=(
    # build
    build-essential cmake pkgconf
    libsdbus-c++-dev libsdbus-c++-bin libsystemd-dev
    libcups2-dev libsqlitecpp-dev libsqlite3-dev libcurl4-openssl-dev libcap-ng-dev
    nlohmann-json3-dev libcli11-dev help2man libgtest-dev libgmock-dev libbenchmark-dev
    # test world and demo
    cups cups-client cups-daemon cups-filters cups-ipp-utils qpdf
    dbus-daemon dbus-bin systemd iproute2 util-linux bash-completion
    # printers announced by DNS-SD: discovery and .local names (also at run time)
    avahi-daemon libnss-mdns
    # who may manage printers and other users' jobs (also at run time)
    polkitd
    python3-pytest python3-dbus python3-gi python3-dbusmock strace
    # benchmarks (scripts/bench.sh: column)
    bsdextrautils
)

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
    [ "$status" = "install ok installed" ] || missing+=("$package")
done

if [ ${#missing[@]} -eq 0 ]; then
    echo "install-deps: all packages present"
    exit 0
fi

sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
echo "install-deps: installing ${missing[*]}"
"${sudo[@]}" apt-get update
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y --no-install-recommends "${missing[@]}"
