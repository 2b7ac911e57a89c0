#!/usr/bin/env bash
# Builds the test world and runs the given command in it. Meant to be pid 1
# of a fresh pid namespace (see run-in-world.sh): when it exits, the kernel
# ends every service started here.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
repo=$(cd "$here/../.." && pwd)

export KESTREL_WORLD=1
export KESTREL_WORLD_DIR=/run/kestrel-world
export KESTREL_PRINTER_SPOOL=$KESTREL_WORLD_DIR/printer-spool
export KESTREL_PRINTER_URI=ipp://127.0.0.1:631/ipp/print
unset CUPS_SERVER DBUS_SYSTEM_BUS_ADDRESS

fail() {
    echo "test world: $*" >&2
    tail -n 20 /var/log/cups/error_log "$KESTREL_WORLD_DIR"/*.log >&2 2>/dev/null
    exit 1
}

# Polls COMMAND until it succeeds, for at most 10 seconds.
wait_until() {
    local what=$1 attempt
    shift
    for attempt in $(seq 1000); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.01
    done
    fail "$what did not come up"
}

own() {
    mkdir -p "$1"
    mount -t tmpfs -o mode=0755 kestrel-world "$1"
}

ip link set lo up
mount --make-rprivate /

own /run
original=$KESTREL_WORLD_DIR/original
mkdir -p "$original" "$KESTREL_PRINTER_SPOOL" /run/dbus
cp -a /etc/cups "$original/cups"
cp -a /usr/lib/cups/backend "$original/backend"

cp -a /usr/share/dbus-1/system.d "$original/system.d"
cp -a /usr/share/polkit-1/actions "$original/polkit-actions"
cp -a /usr/share/polkit-1/rules.d "$original/polkit-rules"

# The bus reads policies and activation files only from directories the
# world owns, so nothing installed on the host leaks in.
for dir in /etc/cups /var/spool/cups /var/cache/cups /var/log/cups \
           /usr/lib/cups/backend /usr/share/cups/model /etc/dbus-1/system.d \
           /usr/share/dbus-1/system.d /usr/share/dbus-1/system-services \
           /usr/share/polkit-1/actions /usr/share/polkit-1/rules.d /etc/polkit-1/rules.d \
           /var/lib/print; do
    own "$dir"
done

# CUPS: the stock configuration minus any queues, our scheduler settings.
cp -a "$original/cups/." /etc/cups/
rm -rf /etc/cups/printers.conf* /etc/cups/classes.conf* /etc/cups/subscriptions.conf* /etc/cups/ppd
mkdir -p /etc/cups/ppd
install -m 0644 "$here/cupsd.conf" /etc/cups/cupsd.conf
# Clients use the socket only: without this, a stopped scheduler makes
# libcups fall back to localhost:631 and reach the simulated printer.
echo "ServerName /run/cups/cups.sock" >/etc/cups/client.conf

# Backends for queues stay; the ones that search the network go, so a
# discovery is offline and quick. kestrel-devices reports the fake devices.
cp -a "$original/backend/." /usr/lib/cups/backend/
rm -f /usr/lib/cups/backend/{snmp,mdns,driverless-fax}
# With KESTREL_NETWORK=1 the world has a printer host on a network of its own
# (printer-host), found through the stock DNS-SD backends.
[ "${KESTREL_NETWORK:-}" = 1 ] || rm -f /usr/lib/cups/backend/{dnssd,driverless}
install -m 0755 "$here/kestrel-devices" /usr/lib/cups/backend/kestrel-devices

# The service sends absolute PPD paths; cups-driverd resolves them below
# its model directory.
ln -s /usr /usr/share/cups/model/usr

install -m 0644 "$repo/service/ru.zorv.print.conf" "$here/ru.quentis.SystemLogs.conf" \
    /etc/dbus-1/system.d/
cp -a "$original/system.d/avahi-dbus.conf" /usr/share/dbus-1/system.d/ 2>/dev/null || true

# polkit as the device has it: the stock actions and rules, and ours.
# /etc/polkit-1/rules.d starts empty; tests put a device maker's rules there.
cp -a "$original/polkit-actions/." /usr/share/polkit-1/actions/
cp -a "$original/polkit-rules/." /usr/share/polkit-1/rules.d/
install -m 0644 "$repo/service/ru.zorv.print.policy" /usr/share/polkit-1/actions/
install -m 0644 "$repo/service/ru.zorv.print.rules" /usr/share/polkit-1/rules.d/
cp -a "$original/system.d/org.freedesktop.PolicyKit1.conf" /usr/share/dbus-1/system.d/
# Accounts of the world, as polkit reads groups from the account database:
# "bin" administers printing, "nobody" is on a staff a rule may name.
awk -F: -v OFS=: '$1 == "lpadmin" { $4 = ($4 == "" ? "bin" : $4 ",bin") } { print }' /etc/group \
    >"$KESTREL_WORLD_DIR/group"
echo "kestrel-staff:x:4242:nobody" >>"$KESTREL_WORLD_DIR/group"
mount --bind "$KESTREL_WORLD_DIR/group" /etc/group

# With KESTREL_DAEMON naming a built daemon, the bus starts it on the first
# call, as on a device; its output goes to daemon.log.
if [ -n "${KESTREL_DAEMON:-}" ]; then
    launcher=$KESTREL_WORLD_DIR/kestrel-printd
    # ThreadSanitizer cannot map its shadow memory under the widest address
    # randomisation some kernels use.
    wrapper=
    [ "${KESTREL_SANITIZE:-}" = thread ] && wrapper="setarch $(uname -m) -R"
    # The environment the build's activation file gives the daemon on a device.
    tunables=$(sed -n 's/^Exec=.* GLIBC_TUNABLES=\([^ ]*\) .*/\1/p' \
        "$(dirname "$KESTREL_DAEMON")/service/ru.zorv.print.service" 2>/dev/null || true)
    cat >"$launcher" <<LAUNCHER
#!/bin/sh
export ASAN_OPTIONS='${ASAN_OPTIONS:-}' UBSAN_OPTIONS='${UBSAN_OPTIONS:-}' TSAN_OPTIONS='${TSAN_OPTIONS:-}'
export GLIBC_TUNABLES='$tunables'
# A test may point the next daemon elsewhere, e.g. CUPS_SERVER at a recorder,
# or start it through a wrapper (KESTREL_DAEMON_WRAPPER).
[ -f '$KESTREL_WORLD_DIR/daemon.env' ] && . '$KESTREL_WORLD_DIR/daemon.env'
exec \${KESTREL_DAEMON_WRAPPER:-} $wrapper '$KESTREL_DAEMON' >>'$KESTREL_WORLD_DIR/daemon.log' 2>&1
LAUNCHER
    chmod 0755 "$launcher"
    printf '[D-BUS Service]\nName=ru.zorv.print\nExec=%s\nUser=root\n' "$launcher" \
        >/usr/share/dbus-1/system-services/ru.zorv.print.service
fi

dbus-daemon --config-file="$here/system-bus.conf" --fork || fail "dbus-daemon failed to start"
if [ "${KESTREL_NETWORK:-}" = 1 ]; then
    export KESTREL_REMOTE_SPOOL=$KESTREL_WORLD_DIR/remote-spool
    # DNS-SD names are resolved through avahi on the bus, .local host names
    # through nsswitch; the machine's own nsswitch.conf stays as it is.
    sed 's/^hosts:.*/hosts: files mdns4_minimal [NOTFOUND=return] dns/' /etc/nsswitch.conf >"$KESTREL_WORLD_DIR/nsswitch.conf"
    mount --bind "$KESTREL_WORLD_DIR/nsswitch.conf" /etc/nsswitch.conf
    mkdir -p /run/avahi-daemon
    avahi-daemon --no-drop-root --no-chroot --no-rlimits -D || fail "avahi-daemon failed to start"
    "$here/printer-host" 10.78.0.2
fi
# Started from subshells, not as our jobs, as tests stop and restart them.
export KESTREL_POLKIT="/usr/lib/polkit-1/polkitd --no-debug"
($KESTREL_POLKIT >>"$KESTREL_WORLD_DIR/polkitd.log" 2>&1 & echo $! >"$KESTREL_WORLD_DIR/polkitd.pid")
# cupsd is on the system bus, as on a device: it announces its changes there.
export KESTREL_SCHEDULER="cupsd -f"
($KESTREL_SCHEDULER >>"$KESTREL_WORLD_DIR/cupsd.log" 2>&1 & echo $! >"$KESTREL_WORLD_DIR/cupsd.pid")
export KESTREL_PRINTER_START="$here/simulated-printer"
("$KESTREL_PRINTER_START" &)

wait_until "the system bus" busctl --system call org.freedesktop.DBus /org/freedesktop/DBus \
    org.freedesktop.DBus GetId
wait_until "polkitd" busctl --system call org.freedesktop.DBus /org/freedesktop/DBus \
    org.freedesktop.DBus GetNameOwner s org.freedesktop.PolicyKit1
wait_until "cupsd" sh -c 'lpstat -r | grep -qx "scheduler is running"'
wait_until "ippeveprinter" bash -c ': </dev/tcp/127.0.0.1/631'

set +e
"$@"
exit $?
