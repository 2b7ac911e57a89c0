#!/usr/bin/env bash
# One session with the kestrel-print client, run by scripts/demo.sh inside
# the test world: starts the system-log stand-in and the daemon, then finds,
# adds, inspects, prints to, watches, renames and removes a printer, shows a user
# outside lpadmin refused and then granted by a polkit rule, then finds and
# prints to a printer announced on the network by DNS-SD. Every command is
# shown as typed, followed by its output. Any failed step ends the session
# with a non-zero status and the service logs.
set -euo pipefail

if [ $# -ne 2 ] || [ -z "${KESTREL_WORLD_DIR:-}" ]; then
    echo "usage: tests/world/run-in-world.sh $0 BUILD-DIR PIDNS-FILE" >&2
    exit 2
fi
build=$1
pidns_file=$2

# The caller checks afterwards that nothing of this pid namespace survived.
readlink /proc/self/ns/pid >"$pidns_file"

export PATH=$build/client:$PATH
daemon_log=$KESTREL_WORLD_DIR/kestrel-printd.log
events=$KESTREL_WORLD_DIR/system-log.events
documents=$KESTREL_WORLD_DIR/documents
output=$KESTREL_WORLD_DIR/last-output

fail() {
    echo >&2
    echo "demo: FAILED: $*" >&2
    local log
    for log in "$daemon_log" "$KESTREL_WORLD_DIR/system-log.log" /var/log/cups/error_log; do
        [ -s "$log" ] || continue
        echo "--- $log (last lines)" >&2
        tail -n 20 "$log" >&2
    done
    exit 1
}

# Polls COMMAND every 50 ms until it succeeds, for at most SECONDS.
wait_for() {
    local what=$1 seconds=$2 attempt
    shift 2
    for attempt in $(seq $((seconds * 20))); do
        "$@" >/dev/null && return 0
        sleep 0.05
    done
    fail "$what (waited ${seconds}s)"
}

# The command line as one would type it.
typed() {
    local word line=""
    for word in "$@"; do
        [[ $word =~ ^[A-Za-z0-9_./:=?@%+-]+$ ]] || word="\"$word\""
        line+=" $word"
    done
    echo "\$${line}"
}

# Shows a command, runs it, shows its output (also kept in $output); a
# failure ends the demo.
show() {
    echo
    typed "$@"
    local status=0
    "$@" >"$output" 2>&1 || status=$?
    cat "$output"
    [ "$status" -eq 0 ] || fail "'$*' exited with status $status"
}

# Shows a command that must be refused with STATUS, and its message.
show_refusal() {
    local expected=$1 status=0
    shift
    echo
    typed "$@"
    "$@" >"$output" 2>&1 || status=$?
    cat "$output"
    echo "(exit status $status)"
    [ "$status" -eq "$expected" ] || fail "'$*' exited with status $status instead of $expected"
}

note() {
    echo
    echo "# $*"
}

name_owned() {
    busctl --system call org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus \
        NameHasOwner s "$1" 2>/dev/null | grep -qx 'b true'
}

# Writes a small valid PDF of PAGES A4 pages, each saying which page it is.
write_pdf() {
    local file=$1 pages=$2
    local LC_ALL=C
    local -a offsets
    local body="%PDF-1.4"$'\n' kids="" i page content font=$((3 + 2 * pages))
    for ((i = 0; i < pages; i++)); do
        kids+="$((3 + 2 * i)) 0 R "
    done
    add_object() {
        offsets+=("${#body}")
        body+="$1 0 obj"$'\n'"$2"$'\n'"endobj"$'\n'
    }
    add_object 1 "<< /Type /Catalog /Pages 2 0 R >>"
    add_object 2 "<< /Type /Pages /Kids [ ${kids}] /Count $pages >>"
    for ((i = 1; i <= pages; i++)); do
        page=$((1 + 2 * i))
        content=$((page + 1))
        local text="BT /F1 28 Tf 72 760 Td (Kestrel demo: page $i of $pages) Tj ET"
        add_object "$page" "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 595 842] /Contents $content 0 R /Resources << /Font << /F1 $font 0 R >> >> >>"
        add_object "$content" "<< /Length ${#text} >>"$'\n'"stream"$'\n'"$text"$'\n'"endstream"
    done
    add_object "$font" "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>"
    local xref=${#body} count=$((font + 1))
    body+="xref"$'\n'"0 $count"$'\n'"0000000000 65535 f "$'\n'
    for i in "${offsets[@]}"; do
        body+=$(printf '%010d 00000 n ' "$i")$'\n'
    done
    body+="trailer"$'\n'"<< /Size $count /Root 1 0 R >>"$'\n'"startxref"$'\n'"$xref"$'\n'"%%EOF"$'\n'
    printf '%s' "$body" >"$file"
}

# Complete documents the simulated printer has received.
printed_documents() {
    local file
    for file in "$KESTREL_PRINTER_SPOOL"/*.pdf; do
        [ -f "$file" ] && qpdf --check "$file" >/dev/null 2>&1 && echo "$file"
    done
    return 0
}

has_printed() {
    [ -n "$(printed_documents)" ]
}

echo "=== services"
# python-dbusmock plays the platform's system-log service and logs each call.
/usr/bin/python3 -m dbusmock --system -l "$events" ru.quentis.SystemLogs /ru/quentis/SystemLogs ru.quentis.SystemLogs \
    >"$KESTREL_WORLD_DIR/system-log.log" 2>&1 &
wait_for "the system-log stand-in did not take ru.quentis.SystemLogs" 10 name_owned ru.quentis.SystemLogs
busctl --system call ru.quentis.SystemLogs /ru/quentis/SystemLogs org.freedesktop.DBus.Mock AddMethod \
    sssss ru.quentis.SystemLogs sendEventStringAlt sss "" "" >/dev/null
echo "system-log stand-in owns ru.quentis.SystemLogs (events go to $events)"

"$build/kestrel-printd" >"$daemon_log" 2>&1 &
daemon=$!
daemon_up() {
    kill -0 "$daemon" 2>/dev/null || fail "kestrel-printd exited at start"
    name_owned ru.zorv.print
}
wait_for "kestrel-printd did not take ru.zorv.print" 10 daemon_up
echo "kestrel-printd (pid $daemon in the world) owns ru.zorv.print on the system bus"

# The world's own discovery reports the simulated printer only as a raw
# socket device, whose derived address ipp://127.0.0.1 carries no queue
# path, while the printer serves /ipp/print alone. A network discovery
# backend reports such a printer under its full URI, as this one does. It
# goes into the world's own backend directory, never the machine's.
backends=/usr/lib/cups/backend
[ "$(findmnt -n -o FSTYPE --target "$backends")" = tmpfs ] \
    || fail "$backends is not the test world's own directory"
{
    echo '#!/bin/sh'
    echo '# Discovery only: the simulated IPP Everywhere printer of the demo.'
    echo '[ $# -eq 0 ] || exit 1'
    echo "echo 'network $KESTREL_PRINTER_URI \"Kestrel Test Printer\" \"Kestrel Test Printer (IPP Everywhere)\" \"MFG:Maker;MDL:Model;CMD:PDF;\" \"\"'"
} >"$backends/kestrel-demo-network"
chmod 0755 "$backends/kestrel-demo-network"
echo "discovery also reports the simulated printer as $KESTREL_PRINTER_URI"

echo
echo "=== a session with kestrel-print"
note "Which printers can be added?"
show kestrel-print scan
show kestrel-print --json scan
uri=$(grep -o '"make_and_model":"Kestrel Test Printer","uri":"ipp://[^"]*"' "$output" | head -n 1 | cut -d '"' -f 8)
[ -n "$uri" ] || fail "the scan did not find the Kestrel Test Printer under an ipp:// URI"
note "The Kestrel Test Printer is a driverless IPP printer at $uri; save it as Office."
show kestrel-print add "$uri" Office
show kestrel-print list
grep -qx Office "$output" || fail "Office is not in the list"
note "CUPS knows the queue only by its UUID name:"
show lpstat -v
queue=$(sed -n 's/^device for \([0-9a-f-]*\): .*/\1/p' "$output")
[[ $queue =~ ^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$ ]] \
    || fail "the CUPS queue is not named by a UUID: '$queue'"
note "What Office can do, as its driverless queue reports it:"
show kestrel-print attributes Office
grep -q '^media-supported' "$output" || fail "no media-supported among the attributes of Office"

note "A two-page PDF to print:"
mkdir -p "$documents"
cd "$documents"
write_pdf report.pdf 2
qpdf --check report.pdf >/dev/null || fail "the demo's own PDF is not valid"
show qpdf --show-npages report.pdf
note "Office prints on one side only, so the client refuses a two-sided job before sending it:"
show_refusal 1 kestrel-print print report.pdf --printer Office -o sides=two-sided-long-edge
grep -q 'it supports one-sided' "$output" || fail "the refusal does not name the supported sides"
[ -e report.pdf ] || fail "a refused job cost the document"
show kestrel-print print report.pdf --printer Office -o media=iso_a4_210x297mm
[ ! -e report.pdf ] || fail "the service kept report.pdf after printing it"
note "The service deleted report.pdf once the job was handed over. At the printer:"
wait_for "no complete PDF reached the simulated printer" 60 has_printed
[ "$(printed_documents | wc -l)" -eq 1 ] || fail "the printer received more than one document"
received=$(printed_documents)
pages=$(qpdf --show-npages "$received")
echo "received: $(basename "$received"), $pages pages"
[ "$pages" -eq 2 ] || fail "the printer received $pages pages instead of 2"

note "Mistakes are explained, with the service's own words after them:"
show_refusal 1 kestrel-print remove Nope
show_refusal 1 kestrel-print --json attributes Nope

note "Following a job: print --wait shows it until it ends (a live line on a terminal)."
write_pdf letter.pdf 1
show kestrel-print print letter.pdf --printer Office --wait
grep -q 'completed' "$output" || fail "the followed job did not complete"
show kestrel-print jobs --all
note "Office is a network printer, so status also asks it for its paper trays and supplies:"
show kestrel-print status Office
grep -q '^Office: ready' "$output" || fail "Office is not ready"
grep -q '^  Tray main: ' "$output" || fail "the status of Office shows no tray"
grep -qx '  Black toner 75 %' "$output" || fail "the status of Office shows no black toner at 75 %"
note "kestrel-print watch shows every change as it happens; it runs in the background here, into a file:"
echo
echo "\$ kestrel-print watch >watch.out 2>&1 &"
kestrel-print watch >watch.out 2>&1 &
watcher=$!
wait_for "kestrel-print watch did not start" 10 grep -q '^Watching the print service' watch.out
note "An administrator pauses the queue; a job waits there until its owner cancels it:"
show cupsdisable "$queue"
show kestrel-print status Office
grep -q '^Office: stopped: paused' "$output" || fail "Office is not shown as paused"
write_pdf memo.pdf 1
show kestrel-print print memo.pdf --printer Office
show kestrel-print jobs
job=$(kestrel-print --json jobs | grep -o '"id":[0-9]*' | head -n 1 | cut -d : -f 2)
[ -n "$job" ] || fail "the waiting job is not listed"
show kestrel-print cancel "$job"
show kestrel-print --json jobs --all
grep -q '"state":"canceled"' "$output" || fail "the job was not canceled"
show cupsenable "$queue"
note "What watch saw meanwhile: the pause and the resume as they happened, and the job with the next change:"
wait_for "watch did not show the job canceled" 10 grep -qF "Job $job on printer \"Office\": canceled" watch.out
kill -TERM "$watcher"
wait "$watcher" || fail "kestrel-print watch did not end with status 0 on SIGTERM"
show cat watch.out
grep -q '^Printer "Office": stopped: paused' "$output" || fail "watch did not show the pause"
grep -q '^Printer "Office": ready' "$output" || fail "watch did not show the resume"

note "Rename and remove:"
show kestrel-print rename Office "Front Desk"
show kestrel-print list
grep -qx "Front Desk" "$output" || fail "Front Desk is not in the list"
show kestrel-print remove "Front Desk"
show kestrel-print list
[ "$(kestrel-print --json list)" = '{"printers":[]}' ] || fail "the list is not empty after the removal"
echo
typed lpstat -v
lpstat -v 2>&1 | tee "$output" || true
! grep -qF "$queue" "$output" || fail "the CUPS queue $queue is still there"

echo
echo "=== who may manage printers: polkit decides"
nobody=(setpriv --reuid=nobody --regid=nogroup --clear-groups)
note "nobody is not in lpadmin and holds no authorization, so adding a printer is refused and changes nothing:"
show id nobody
show_refusal 4 "${nobody[@]}" kestrel-print add "$KESTREL_PRINTER_URI" Lab
grep -q 'ru.zorv.print.manage-printers' "$output" || fail "the refusal does not name the authorization"
rules=/etc/polkit-1/rules.d
[ "$(findmnt -n -o FSTYPE --target "$rules")" = tmpfs ] || fail "$rules is not the test world's own directory"
note "The device maker grants printer management to the group kestrel-staff, which nobody is in:"
cat >"$rules/50-printing.rules" <<'RULE'
polkit.addRule(function(action, subject) {
    if (action.id == "ru.zorv.print.manage-printers" &&
        subject.isInGroup("kestrel-staff")) {
        return polkit.Result.YES;
    }
});
RULE
show cat "$rules/50-printing.rules"
show getent group kestrel-staff
granted() {
    "${nobody[@]}" sh -c 'pkcheck --action-id ru.zorv.print.manage-printers --process $$'
}
wait_for "polkitd did not take up the rule" 10 granted
show "${nobody[@]}" kestrel-print add "$KESTREL_PRINTER_URI" Lab
show "${nobody[@]}" kestrel-print rename Lab "Lab 2"
show "${nobody[@]}" kestrel-print remove "Lab 2"
show kestrel-print list
rm "$rules/50-printing.rules"
echo
echo "=== a printer announced on the network"
note "A printer host on a link of its own announces RemotePrinter by DNS-SD; the scan lists it by its service name:"
remote_uri() {
    kestrel-print --json scan | grep -o '"uri":"ipp://RemotePrinter[^"]*"' | cut -d '"' -f 4
}
# The device's avahi-daemon hears of the printer within a few seconds.
wait_for "the scan did not list RemotePrinter" 60 bash -c "$(declare -f remote_uri); [ -n \"\$(remote_uri)\" ]"
show kestrel-print scan
uri=$(grep -o 'ipp://RemotePrinter[^ ]*' "$output" | head -n 1)
[ -n "$uri" ] || fail "the scan did not show RemotePrinter"
show kestrel-print add "$uri" Lobby
show kestrel-print attributes Lobby
write_pdf notice.pdf 1
show kestrel-print print notice.pdf --printer Lobby
remote_printed() {
    [ -n "$(ls "$KESTREL_REMOTE_SPOOL"/*.pdf 2>/dev/null)" ]
}
wait_for "no document reached the printer host" 60 remote_printed
note "At the printer host:"
show ls "$KESTREL_REMOTE_SPOOL"
note "The queue reaches the printer by its mDNS host name, so it follows the printer to a new address:"
show lpstat -v
scheduler=$(cat "$KESTREL_WORLD_DIR/cupsd.pid")
show kestrel-print remove Lobby
show kestrel-print list
lpstat -v 2>/dev/null | grep -q . && fail "a CUPS queue is left after removing Lobby"
kill -0 "$scheduler" 2>/dev/null && [ "$(cat "$KESTREL_WORLD_DIR/cupsd.pid")" = "$scheduler" ] ||
    fail "the scheduler did not survive the removal of the DNS-SD printer"
note "The scheduler kept its process id ($scheduler) through the removal."

note "What the service told the system log:"
show cat "$events"
grep -q 'printer-added' "$events" || fail "no printer-added event was logged"
grep -q 'printer-removed' "$events" || fail "no printer-removed event was logged"

kill -0 "$daemon" 2>/dev/null || fail "kestrel-printd is no longer running"
echo
echo "=== session complete; the world and its services end now"
