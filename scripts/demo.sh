#!/usr/bin/env bash
# The Kestrel print service in action, on a fresh Debian 12 machine as root:
# installs the packages, builds into build-demo/, and runs one session with
# the kestrel-print client inside the throw-away test world (private system
# bus, real cupsd, a simulated IPP printer, and a printer host on a network
# of its own announcing an IPP printer by DNS-SD). Exits non-zero on any failed
# step, and checks at the end that nothing the demo started is still alive.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
repo=$(pwd)
build=$repo/build-demo

fail() {
    echo "demo: FAILED: $*" >&2
    exit 1
}

[ "$(id -u)" -eq 0 ] || fail "needs root to build the test world (namespaces, private bus); run it as root"

bash scripts/install-deps.sh || fail "could not install the packages"

echo "=== building into $build"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null || fail "cmake configure failed"
cmake --build "$build" -j"${KESTREL_JOBS:-2}" --target kestrel-printd kestrel-print \
    || fail "build failed"

# Marks every process of the world (they inherit the environment), so the
# check below finds leftovers of this demo and not of other test worlds that
# may be running on the same machine. Not exported: the checks themselves
# must not carry it.
run_mark="demo-$$-$(date +%s%N)"
pidns_file=$build/demo-world.pidns
rm -f "$pidns_file"

echo "=== starting the test world"
status=0
KESTREL_DEMO_RUN=$run_mark KESTREL_NETWORK=1 bash tests/world/run-in-world.sh bash scripts/demo-session.sh "$build" "$pidns_file" || status=$?

# Processes of the world: those in its pid namespace, and anything else
# that carries this run's mark.
leftovers() {
    local ns="" proc pid
    [ -s "$pidns_file" ] && ns=$(cat "$pidns_file")
    for proc in /proc/[0-9]*; do
        pid=${proc#/proc/}
        [ "$pid" = "$$" ] && continue
        if [ -n "$ns" ] && [ "$(readlink "$proc/ns/pid" 2>/dev/null)" = "$ns" ]; then
            echo "$pid"
        elif grep -qzxF "KESTREL_DEMO_RUN=$run_mark" "$proc/environ" 2>/dev/null; then
            echo "$pid"
        fi
    done
    # The daemon and the log stand-in of this build, by their paths.
    pgrep -f "^$build/kestrel-printd" || true
}

echo
echo "=== checking that the world left nothing behind"
# The kernel ends the namespace's processes before its first one is
# reaped, so nothing should be left even now; allow two seconds anyway.
left=""
for _ in $(seq 20); do
    left=$(leftovers | sort -u | tr '\n' ' ')
    [ -z "${left// /}" ] && break
    sleep 0.1
done
rm -f "$pidns_file"
if [ -n "${left// /}" ]; then
    for pid in $left; do
        echo "  left behind: $pid $(tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null)" >&2
    done
    fail "processes of the demo are still running"
fi
echo "no kestrel-printd, system-log stand-in, cupsd or ippeveprinter of the demo is left"

[ "$status" -eq 0 ] || fail "the session in the test world failed (exit status $status)"
echo
echo "demo finished: all steps passed"
