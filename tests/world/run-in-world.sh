#!/usr/bin/env bash
# Runs a command inside the test world: private system bus, cupsd, a
# simulated IPP printer, all in fresh mount, network and pid namespaces.
# Without root there are no namespaces; the command then runs as it is and
# world tests skip (or fail when CI=true).
set -euo pipefail

if [ $# -eq 0 ]; then
    echo "usage: $0 COMMAND [ARGS...]" >&2
    exit 2
fi

if [ "$(id -u)" -ne 0 ]; then
    echo "run-in-world: not root, running without the test world" >&2
    exec "$@"
fi

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# --kill-child: if we are killed (a ctest time-out), the namespace goes too.
exec unshare --mount --net --pid --fork --mount-proc --kill-child \
    bash "$here/setup-world.sh" "$@"
