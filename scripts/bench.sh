#!/usr/bin/env bash
# Runs every benchmark in the test world and prints one table: each figure
# beside its anchor and their ratio. Needs root (the world's namespaces).
#   KESTREL_BUILD_DIR     build directory with the benchmarks (default build)
#   KESTREL_BENCH_DAEMON  daemon to measure (default: the one in that build)
#   KESTREL_BENCH_SCAN    silent-device counts for the scan (default "0 1 4 16")
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=$(cd "${KESTREL_BUILD_DIR:-build}" && pwd)
export KESTREL_BUILD_DIR=$build

start_system_log() {
    "$build/bench/system-log-stand-in" &
    for attempt in $(seq 500); do
        busctl --system status ru.quentis.SystemLogs >/dev/null 2>&1 && break
        sleep 0.01
    done
}

# A world with the printer host (KESTREL_NETWORK=1): scans with a printer
# announced by DNS-SD, alone and beside silent devices.
if [ "${1:-}" = --in-network-world ]; then
    start_system_log
    bash bench/silent-devices.sh 4
    "$build/bench/scan-benchmark" announced 1 4
    exit 0
fi

# Inside the world: the system-log stand-in, then every benchmark.
if [ "${1:-}" = --in-world ]; then
    # First: it starts and stops both services itself.
    "$build/bench/startup-benchmark"
    start_system_log
    "$build/bench/memory-benchmark" fresh
    "$build/bench/idle-benchmark"
    "$build/bench/bus-latency-benchmark"
    bash bench/silent-devices.sh 16
    # Word splitting of the count list is wanted.
    # shellcheck disable=SC2086
    "$build/bench/scan-benchmark" ${KESTREL_BENCH_SCAN:-0 1 4 16}
    "$build/bench/cups-call-benchmark" "without avahi-daemon"
    # Started here rather than in a second world, so both runs share the
    # same moment's machine load.
    mkdir -p /run/avahi-daemon
    avahi-daemon --no-drop-root --no-chroot -D >/dev/null 2>&1
    for attempt in $(seq 500); do
        busctl --system status org.freedesktop.Avahi >/dev/null 2>&1 && break
        sleep 0.01
    done
    "$build/bench/cups-call-benchmark" "with avahi-daemon"
    "$build/bench/memory-benchmark" "after the benchmarks"
    exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
    echo "bench.sh: the test world needs root" >&2
    exit 1
fi
cmake --build "$build" -j2 --target kestrel-printd system-log-stand-in bus-latency-benchmark cups-call-benchmark \
    scan-benchmark memory-benchmark dependency-floor idle-benchmark startup-benchmark >/dev/null
# Pages the linker has just written stay dirty until written back, and smaps
# would count them as the daemon's own private dirty memory.
sync
export KESTREL_DAEMON=${KESTREL_BENCH_DAEMON:-$build/kestrel-printd}
output=$(mktemp)
trap 'rm -f "$output"' EXIT
bash tests/world/run-in-world.sh bash scripts/bench.sh --in-world | tee "$output"
KESTREL_NETWORK=1 bash tests/world/run-in-world.sh bash scripts/bench.sh --in-network-world | tee -a "$output"

echo
{
    printf 'Figure\tValue\tAnchor\tAnchor value\tRatio\n'
    grep '^ROW' "$output" | cut -f2-
} | column -t -s $'\t'
