#!/usr/bin/env bash
# Builds the service and shows it answering on a private system bus inside
# the test world. Everything it starts ends with the world's pid namespace.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

if [ "${1:-}" != "--in-world" ]; then
    if [ "$(id -u)" -ne 0 ]; then
        echo "demo: needs root to build the test world (namespaces, private bus)" >&2
        exit 1
    fi
    bash scripts/install-deps.sh
    cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
    cmake --build build -j"${KESTREL_JOBS:-2}" --target kestrel-printd
    exec bash tests/world/run-in-world.sh bash scripts/demo.sh --in-world build/kestrel-printd
fi

daemon=$2
service=(ru.zorv.print /ru/zorv/print)

show() {
    echo
    echo "\$ $*"
    "$@"
}

"$daemon" >"$KESTREL_WORLD_DIR/demo-daemon.log" 2>&1 &
for _ in $(seq 1000); do
    busctl --system introspect "${service[@]}" ru.zorv.PrinterManager >/dev/null 2>&1 && break
    sleep 0.01
done

show busctl --system introspect "${service[@]}"
show busctl --system call "${service[@]}" ru.zorv.PrinterManager getSavedPrinters
echo
echo "# not implemented on purpose; answers ru.zorv.PrinterManager.Error:"
show busctl --system call "${service[@]}" ru.zorv.PrinterManager setDefaultPrinter s Office || true
echo
echo "demo: done; the daemon ends with the world"
