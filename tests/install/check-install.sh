#!/usr/bin/env bash
# Installs the build into a staging directory (DESTDIR) and checks what landed there.
# Usage: check-install.sh BUILD_DIR SOURCE_DIR PREFIX BINDIR SBINDIR DATADIR
set -euo pipefail

build=$1 source=$2 prefix=$3 bindir=$4 sbindir=$5 datadir=$6
work=$(mktemp -d)
trap 'if [ -s "$work/bus.pid" ]; then kill "$(cat "$work/bus.pid")" || true; fi; rm -rf "$work"' EXIT
failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

stage=$work/stage
DESTDIR=$stage cmake --install "$build" >"$work/install.log" || { cat "$work/install.log" >&2; exit 1; }
unit=$prefix/lib/systemd/system/kestrel-printd.service
activation=$datadir/dbus-1/system-services/ru.zorv.print.service
policy=$datadir/dbus-1/system.d/ru.zorv.print.conf
actions=$datadir/polkit-1/actions/ru.zorv.print.policy
rules=$datadir/polkit-1/rules.d/ru.zorv.print.rules
manual=$datadir/man/man1/kestrel-print.1
completion=$datadir/bash-completion/completions/kestrel-print

# The tree: both programs, and the bus files exactly as in the source.
[ -x "$stage$sbindir/kestrel-printd" ] || fail "$sbindir/kestrel-printd is not installed as an executable"
"$stage$bindir/kestrel-print" --help >/dev/null || fail "the installed client does not run"
cmp -s "$source/service/ru.zorv.print.conf" "$stage$policy" || fail "$policy differs from the source"
cmp -s "$source/service/ru.zorv.print.rules" "$stage$rules" || fail "$rules differs from the source"
# polkitd skips a policy file it cannot parse, and with it both actions.
/usr/bin/python3 -c 'import sys, xml.etree.ElementTree as tree
ids = sorted(action.get("id") for action in tree.parse(sys.argv[1]).getroot().iter("action"))
sys.exit(ids != ["ru.zorv.print.manage-jobs", "ru.zorv.print.manage-printers"])' "$stage$actions" 2>/dev/null \
    || fail "$actions is missing or does not declare both actions"
for iface in PrinterManager PrintingService PrintJobs; do
    cmp -s "$source/interfaces/ru.zorv.$iface.xml" "$stage$datadir/dbus-1/interfaces/ru.zorv.$iface.xml" \
        || fail "ru.zorv.$iface.xml is not installed as in the source"
done

grep -q '^\.TH KESTREL-PRINT "1"' "$stage$manual" 2>/dev/null && grep -q 'orientation\\-requested' "$stage$manual" \
    && grep -q 'Command status' "$stage$manual" \
    || fail "$manual is missing or does not describe every command"
# What bash offers for the last word of a command line, through the staged
# script (compopt works only inside a real completion).
completions() {
    bash -c 'source /usr/share/bash-completion/bash_completion && source "$1" && compopt() { :; } &&
        COMP_LINE=$2 COMP_POINT=${#2} && read -ra COMP_WORDS <<<"$2" && COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) &&
        _kestrel_print && echo "${COMPREPLY[*]}"' - "$stage$completion" "$1"
}
[ "$(completions "kestrel-print pr")" = print ] && [ "$(completions "kestrel-print st")" = status ] \
    || fail "$completion does not complete the commands"
[ "$(completions "kestrel-print print a.pdf -o si")" = sides= ] || fail "$completion does not complete print options"

# Lines the daemon needs at run time whose loss neither systemd-analyze nor the bus checks below notice.
while read -r file line; do
    grep -qxF "$line" "$stage$file" || fail "$file lacks the line '$line'"
done <<LINES
$activation Exec=/usr/bin/env GLIBC_TUNABLES=glibc.malloc.tcache_count=0:glibc.pthread.stack_cache_size=0 $sbindir/kestrel-printd
$activation User=root
$activation SystemdService=kestrel-printd.service
$unit BusName=ru.zorv.print
$unit ExecStart=$sbindir/kestrel-printd
$unit Environment=GLIBC_TUNABLES=glibc.malloc.tcache_count=0:glibc.pthread.stack_cache_size=0
$unit StateDirectory=print
$unit RestrictAddressFamilies=AF_UNIX AF_INET AF_INET6
$unit CapabilityBoundingSet=CAP_SETUID CAP_SETGID
LINES

# The unit against this system's own units, with the staged files in their
# installed places; verify reports problems as warnings, so any output fails.
if command -v systemd-analyze >/dev/null; then
    root=$work/root
    cp -a "$stage" "$root"
    mkdir -p "$root/usr/lib/systemd/system" "$root/etc/systemd/system"
    cp -a /lib/systemd/system/. "$root/usr/lib/systemd/system/"
    if ! report=$(systemd-analyze verify --root="$root" "$unit" 2>&1) || [ -n "$report" ]; then
        fail "systemd-analyze verify rejects the unit: $report"
    fi
    # Exposure no higher than today's 2.6, so any hardening lost shows, and no
    # overriding of file permissions or ownership (callers' rights decide); a
    # widened copy shows the check can fail.
    sandbox_problems() {
        report=$(systemd-analyze security --offline=yes --root="$root" --threshold=26 --json=short "$1" \
            2>"$work/security.log") || echo "exposure above 2.6 $(cat "$work/security.log")"
        /usr/bin/python3 -c 'import json, sys
rows = {row["json_field"]: row for row in json.loads(sys.argv[1])}
if not rows["CapabilityBoundingSet_CAP_DAC_FOWNER_IPC_OWNER"]["set"]: print("may override file permissions")' \
            "$report" 2>&1
    }
    problems=$(sandbox_problems "$unit")
    [ -z "$problems" ] || fail "systemd-analyze security: $problems"
    widened=/etc/systemd/system/kestrel-printd-widened.service
    sed 's/^CapabilityBoundingSet=.*/& CAP_DAC_OVERRIDE/' "$root$unit" >"$root$widened"
    [ -n "$(sandbox_problems "$widened")" ] || fail "systemd-analyze security accepted CAP_DAC_OVERRIDE"
else
    echo "systemd-analyze is not installed: skipping the unit checks"
fi

# A dbus-daemon of our own must load the staged policy and offer the staged activation file.
cat >"$work/bus.conf" <<CONFIG
<busconfig><type>system</type><listen>unix:path=$work/bus-socket</listen>
  <servicedir>$stage$datadir/dbus-1/system-services</servicedir><include>$stage$policy</include>
  <policy context="default"><allow send_destination="*"/><allow receive_sender="*"/></policy></busconfig>
CONFIG
if ! dbus-daemon --config-file="$work/bus.conf" --fork --print-pid=3 --print-address=4 \
    3>"$work/bus.pid" 4>"$work/bus.address" 2>"$work/bus.log"; then
    fail "dbus-daemon refuses the staged bus files: $(cat "$work/bus.log")"
else
    names=$(dbus-send --bus="$(head -n 1 "$work/bus.address")" --print-reply --dest=org.freedesktop.DBus \
        /org/freedesktop/DBus org.freedesktop.DBus.ListActivatableNames)
    grep -q '"ru.zorv.print"' <<<"$names" || fail "ru.zorv.print is not activatable: $names"
fi

[ "$failures" -eq 0 ] || { echo "$failures check(s) failed" >&2; exit 1; }
echo "installed tree, unit and bus files are in order"
