"""kestrel-print as people and scripts use it: messages, exit statuses, JSON shapes and its checks before printing."""
import json
import os
import pty
import signal
import subprocess
import threading
from pathlib import Path

import pytest

from conftest import (JOBS, NOBODY, PRINTER_URI, call, manager, print_document, queues, shell, stop_scheduler,
                      wait_for, write_pdf)

CLIENT = os.environ.get("KESTREL_CLIENT", "kestrel-print")
ACTIVATION = Path("/usr/share/dbus-1/system-services/ru.zorv.print.service")
RELOAD_BUS = "busctl --system call org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus ReloadConfig"


def client(*args, user=None, **kwargs):
    return subprocess.run([CLIENT, *args], capture_output=True, text=True, timeout=120, user=user, group=user,
                          extra_groups=[] if user else None, **kwargs)


def failure(*args, **kwargs):
    """Runs a failing command as text and as --json, checks that both say the same; returns the JSON error."""
    text, as_json = client(*args, **kwargs), client("--json", *args, **kwargs)
    error = json.loads(as_json.stderr)["error"]
    assert (text.stdout, as_json.stdout, text.returncode, as_json.returncode) == ("", "", *[error["exit_status"]] * 2)
    # Wrong usage adds a second line pointing at the help; the bus names the sender, which differs per run.
    line, words = text.stderr.splitlines()[0], f"kestrel-print: {error['message']}"
    service = f" (service: {' '.join(error['service_message'].split())})" if error["service_message"] else ""
    assert line.startswith(f"{words} (bus: ") if service and not error["bus_error"].startswith("ru.zorv.") \
        else line == words + service
    return error


def test_service_refusals_name_the_cause_and_keep_the_service_text(office, documents):
    document, secret, missing = write_pdf(documents / "a.pdf"), write_pdf(documents / "secret.pdf"), documents / "b.pdf"
    secret.chmod(0o600)
    cases = [
        (["remove", "Nope"], None, "unknown_printer", 1, 'no saved printer is named "Nope"', "cups_name is empty"),
        (["rename", "Nope", "Other"], None, "unknown_printer", 1, '"Nope"', "no more rows available"),
        (["attributes", "Nope"], None, "unknown_printer", 1, '"Nope"', "cups_name is empty"),
        (["print", str(document), "--printer", "Nope"], None, "unknown_printer", 1, '"Nope"', "cups_name is empty"),
        (["add", PRINTER_URI, "Office"], None, "name_taken", 1, 'a printer named "Office" is already saved',
         "UNIQUE constraint failed: printers.user_name"),
        (["add", PRINTER_URI, "Lab", "--user", "nosuchuser"], None, "unknown_user", 1,
         'no user account named "nosuchuser"', "user nosuchuser doesn't exists"),
        (["print", str(missing), "--printer", "Office"], None, "document_refused", 1, f"refused to print {missing}",
         f"file {missing} doesn't exist."),
        (["print", str(secret), "--printer", "Office", "-o", "sides=one-sided"], NOBODY, "document_refused", 4,
         f"refused to print {secret}", f"permission denied: {secret}"),
        (["add", PRINTER_URI, "Lab"], NOBODY, "not_admin", 4,
         "to add printers you need the polkit authorization ru.zorv.print.manage-printers; an administrator grants it",
         "permission denied: managing printers needs the ru.zorv.print.manage-printers authorization"),
        (["scan"], NOBODY, "not_admin", 4, 'group "lpadmin" may scan', None),
    ]
    for args, user, kind, status, words, service in cases:
        error = failure(*args, user=user)
        assert (error["kind"], error["exit_status"]) == (kind, status) and words in error["message"], args
        assert error["service_message"] == service or (service, error["bus_error"]) == \
            (None, "org.freedesktop.DBus.Error.AccessDenied"), args
    assert document.exists() and secret.exists()


def test_on_a_terminal_the_client_lets_polkit_ask_for_the_authorization(system_log):
    monitor = subprocess.Popen(["busctl", "--system", "monitor", "--json=short", "org.freedesktop.PolicyKit1"],
                               stdout=subprocess.PIPE, text=True)
    seen = []
    threading.Thread(target=lambda: seen.extend(json.loads(line) for line in monitor.stdout), daemon=True).start()
    probe = ["busctl", "--system", "get-property", "org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority",
             "org.freedesktop.PolicyKit1.Authority", "BackendName"]
    assert wait_for(lambda: subprocess.run(probe, capture_output=True) and any(
        message.get("member") == "Get" for message in list(seen))), "busctl monitor did not start"

    def flags_asked(calls):
        """The flags of the service's next `calls` CheckAuthorization calls, as the monitor saw them."""
        checks = lambda: [m["payload"]["data"][3] for m in list(seen) if m.get("member") == "CheckAuthorization"]
        assert wait_for(lambda: len(checks()) >= calls)
        flags = checks()
        seen.clear()
        return flags
    try:
        assert failure("add", PRINTER_URI, "Lab", user=NOBODY)["kind"] == "not_admin"
        assert flags_asked(2) == [0, 0]
        terminal, errors = pty.openpty()
        try:
            result = subprocess.run([CLIENT, "add", PRINTER_URI, "Lab"], stdout=subprocess.PIPE, stderr=errors,
                                    timeout=120, user=NOBODY, group=NOBODY, extra_groups=[])
        finally:
            os.close(errors)
            os.close(terminal)
        assert result.returncode == 4 and flags_asked(1) == [1]
    finally:
        monitor.kill()
        monitor.wait()


def test_a_lost_queue_and_a_stopped_scheduler_are_named_as_the_cause(office):
    queue = queues()[0]
    # The scheduler may crash when a driverless queue goes before it is set up.
    assert wait_for(lambda: Path(f"/etc/cups/ppd/{queue}.ppd").exists())
    shell(f"lpadmin -x '{queue}'")
    assert failure("attributes", "Office")["message"] == 'the print scheduler has no queue for the saved printer ' \
        '"Office": CUPS is not running, or the queue was deleted outside the print service'
    stop_scheduler()
    error = failure("add", PRINTER_URI, "Lab")
    assert (error["kind"], error["exit_status"], error["service_message"][:27]) == \
        ("scheduler_unreachable", 1, "failed to execute request: ")


@pytest.mark.parametrize("activation, environment, kind, bus_error", [
    ("", {}, "service_not_running", "org.freedesktop.DBus.Error.ServiceUnknown"),
    ("[D-BUS Service]\nName=ru.zorv.print\nExec=/bin/false\nUser=root\n", {}, "activation_failed",
     "org.freedesktop.DBus.Error.Spawn.ChildExited"),
    (None, {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nonexistent"}, "no_system_bus", None),
])
def test_an_unreachable_service_exits_with_three_and_says_why(system_log, activation, environment, kind, bus_error):
    original = ACTIVATION.read_text()
    try:
        if activation is not None:
            ACTIVATION.write_text(activation) if activation else ACTIVATION.unlink()
            shell(RELOAD_BUS)
        error = failure("list", env={**os.environ, **environment})
    finally:
        ACTIVATION.write_text(original)
        shell(RELOAD_BUS)
    assert (error["kind"], error["exit_status"], bus_error and error["bus_error"]) == (kind, 3, bus_error)


def test_print_options_are_checked_against_the_printer_unless_forced(office, documents):
    document = write_pdf(documents / "report.pdf")
    jobs = shell("lpstat -W all -o")
    for option, supported in [("sides=two-sided-long-edge", "one-sided"),
                              ("media=iso_a3_297x420mm", "iso_a4_210x297mm"), ("print-color-mode=color", "monochrome")]:
        error = failure("print", str(document), "--printer", "Office", "-o", option)
        assert (error["kind"], error["exit_status"]) == ("option_unsupported", 1)
        assert f'printer "Office" does not support {option}; it supports {supported}' in error["message"]
    for option in ["copies=0", "page-ranges=3-1", "frob=1", "orientation-requested=sideways"]:
        assert failure("print", str(document), "--printer", "Office", "-o", option)["exit_status"] == 2
    assert document.exists() and shell("lpstat -W all -o") == jobs
    forced = client("--json", "print", str(document), "-p", "Office", "-o", "sides=two-sided-long-edge", "--force")
    assert (forced.returncode, json.loads(forced.stdout)["options"]) == (0, {"sides": "two-sided-long-edge"})
    assert not document.exists() and shell("lpstat -W all -o") != jobs


def test_every_command_writes_one_json_object(office, documents):
    write_pdf(documents / "letter.pdf")
    run = lambda *args, **kwargs: json.loads(client("--json", *args, **kwargs).stdout)  # noqa: E731
    assert run("add", PRINTER_URI, "Lab", "--user", "root") == {"printer": "Lab", "uri": PRINTER_URI, "users": ["root"]}
    assert sorted(run("list")["printers"], key=str) == [{"name": "Lab"}, {"name": "Office"}]
    assert run("rename", "Lab", "Back") == {"printer": "Back", "old_name": "Lab"}
    attributes = run("attributes", "Office")
    assert (attributes["printer"], attributes["attributes"]["sides-supported"]) == ("Office", ["one-sided"])
    assert run("print", "letter.pdf", "--printer", "Office", "-o", "orientation-requested=landscape",
               cwd=documents) == {"printer": "Office", "file": str(documents / "letter.pdf"),
                                  "options": {"orientation-requested": "4"}, "forced": False}
    assert run("remove", "Back") == {"printer": "Back"}
    devices = run("scan", "--timeout", "30")["devices"]
    assert {"uri": "usb://Maker/Model?serial=1", "make_and_model": "Maker Model"} in devices
    assert all(set(device) == {"uri", "make_and_model"} for device in devices)


def test_scan_lists_each_device_in_two_columns_two_spaces_past_the_longest_uri(system_log):
    table = client("scan", "--timeout", "30").stdout.splitlines()
    devices = {device["uri"]: device["make_and_model"]
               for device in json.loads(client("--json", "scan", "--timeout", "30").stdout)["devices"]}
    column = max(map(len, devices)) + 2
    assert table[0] == "URI".ljust(column) + "MAKE AND MODEL"
    assert table[1:] == [uri.ljust(column) + model for uri, model in sorted(devices.items())]


def test_watch_prints_one_line_per_signal_until_interrupted(office):
    watchers = [subprocess.Popen([CLIENT, *mode, "watch"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
                for mode in [(), ("--json",)]]
    assert all(watcher.stderr.readline().startswith("Watching the print service") for watcher in watchers)
    manager("removePrinter", "Office")
    assert client("scan", "--timeout", "30").returncode == 0
    # Both signals have reached a watcher once it has written two lines.
    seen = [watcher.stdout.readline() + watcher.stdout.readline() for watcher in watchers]
    watchers[0].send_signal(signal.SIGINT)
    watchers[1].send_signal(signal.SIGTERM)
    text, lines = (head + watcher.communicate(timeout=30)[0] for head, watcher in zip(seen, watchers))
    assert [watcher.returncode for watcher in watchers] == [0, 0]
    assert text.startswith("Saved printers changed: (none)\nAccessible printers changed: ")
    saved, found = map(json.loads, lines.splitlines())
    assert saved == {"signal": "savedPrintersChanged", "printers": []}
    assert found["signal"] == "accessiblePrintersChanged" and isinstance(found["devices"], list)


class Watch:
    """kestrel-print watch run by `user`, its lines gathered as they come."""

    def __init__(self, *mode, user):
        self.process = subprocess.Popen([CLIENT, *mode, "watch"], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        text=True, user=user, group=user, extra_groups=[])
        assert self.process.stderr.readline().startswith("Watching the print service")
        self.lines = []
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.process.stdout:
            self.lines.append(line.rstrip("\n"))

    def shows(self, predicate, timeout=60):
        return wait_for(lambda: any(predicate(line) for line in self.lines), timeout=timeout, interval=0.05)

    def stop(self):
        self.process.send_signal(signal.SIGINT)
        assert self.process.wait(timeout=30) == 0
        self.reader.join(timeout=30)
        return self.lines


def test_watch_shows_a_saved_printer_changing_and_the_callers_own_job_but_never_another_users(office, documents):
    queue = queues()[0]
    shell(f"cupsdisable '{queue}'")
    theirs = print_document(write_pdf(documents / "theirs.pdf"), office, interface=JOBS)
    path = write_pdf(documents / "mine.pdf")
    os.chown(path, NOBODY, NOBODY)
    mine = print_document(path, office, interface=JOBS, user=NOBODY)
    # As a settings page opens: the printer's state first, then its changes.
    assert call(JOBS, "getPrinterState", office, user=NOBODY)["state"] == "stopped"
    text, as_json = Watch(user=NOBODY), Watch("--json", user=NOBODY)
    # Both jobs print once the queue runs again; the owner sees its own move on.
    shell(f"cupsenable '{queue}'")
    assert wait_for(lambda: {job["state"] for job in call(JOBS, "getJobs")} == {"completed"}, timeout=120)
    shell(f"cupsdisable '{queue}'")
    assert text.shows(lambda line: line.startswith(f'Job {mine} on printer "Office": completed')), text.lines
    assert as_json.shows(lambda line: json.loads(line).get("job", {}).get("state") == "completed"), as_json.lines
    assert text.shows(lambda line: line.startswith('Printer "Office": stopped: paused')), text.lines
    assert as_json.shows(lambda line: json.loads(line)["signal"] == "printerStateChanged"
                         and json.loads(line)["state"] == "stopped"), as_json.lines
    lines, objects = text.stop(), [json.loads(line) for line in as_json.stop()]
    assert any(line.startswith('Printer "Office": printing') for line in lines), lines
    assert all(line.startswith(('Printer "Office": ', f'Job {mine} on printer "Office": ')) for line in lines), lines
    assert {o["signal"] for o in objects} == {"printerStateChanged", "jobChanged"}
    told = [o for o in objects if o["signal"] == "printerStateChanged"]
    assert all(o["printer"] == office and {"supplies", "trays", "reasons", "accepting"} <= set(o) for o in told)
    jobs = [o["job"] for o in objects if o["signal"] == "jobChanged"]
    assert {job["id"] for job in jobs} == {mine} and jobs[-1]["document"] == "mine.pdf", objects
    assert all(f"Job {theirs} " not in line for line in lines)


def test_scan_shows_its_wait_on_a_terminal_gives_up_after_its_timeout_and_exits_130_when_interrupted(system_log):
    slow = Path("/usr/lib/cups/backend/kestrel-slow")
    slow.write_text("#!/bin/sh\n[ $# -eq 0 ] || exit 1\nsleep 3\n")
    slow.chmod(0o755)
    # Interrupted while the discovery runs: the shell's status for SIGINT.
    interrupted = subprocess.Popen([CLIENT, "scan"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    assert wait_for(lambda: "kestrel-slow" in shell("ps -eo args"))
    interrupted.send_signal(signal.SIGINT)
    assert interrupted.wait(timeout=30) == 130
    terminal, errors = pty.openpty()
    shown = b""
    try:
        result = subprocess.run([CLIENT, "scan", "--timeout", "1"], stdout=subprocess.PIPE, stderr=errors, timeout=30)
        os.close(errors)
        # The terminal answers EIO once everything written to it has been read.
        while chunk := os.read(terminal, 4096):
            shown += chunk
    except OSError:
        pass
    finally:
        os.close(terminal)
        slow.unlink()
    assert (result.returncode, result.stdout) == (1, b"")
    assert "\rScanning for printers: 0 s (at most 1 s)" in shown.decode()
    assert "gave up waiting for the scan after 1 s" in shown.decode()
    # Later scans must not meet the discovery this one left behind.
    assert wait_for(lambda: "kestrel-slow" not in shell("ps -eo args"), timeout=10)


def test_wrong_usage_exits_with_two_and_help_documents_the_statuses():
    for args in [[], ["frob"], ["list", "extra"], ["add", PRINTER_URI], ["add", PRINTER_URI, ""], ["print", "a.pdf"],
                 ["print", "a.pdf", "-p", "A", "-p", "B"], ["print", "a.pdf", "-p", "A", "-o", "x"],
                 ["print", "a.pdf", "-p", "A", "-o", "sides=one-sided", "-o", "sides=one-sided"],
                 ["scan", "--timeout", "soon"], ["scan", "--timeout", "0"]]:
        text = client(*args)
        assert (text.returncode, text.stdout, text.stderr[:15], "--help' for more" in text.stderr) == \
            (2, "", "kestrel-print: ", True), args
        assert json.loads(client(*args, "--json").stderr)["error"]["exit_status"] == 2, args
    tool, printing = client("--help").stdout, client("print", "--help").stdout
    assert all(status in tool for status in ["0  success", "1  the service refused", "2  wrong usage",
                                             "3  the service cannot be reached", "4  permission denied"])
    options = "copies fit-to-page media orientation-requested outputorder page-ranges print-color-mode sides"
    assert all(f"\n  {option}=" in printing for option in options.split())
    assert "DELETES FILE" in printing and client("--version").stdout.startswith("kestrel-print ")


def test_print_wait_follows_the_job_and_jobs_status_and_cancel_speak_of_it(office, documents):
    done = client("--json", "print", str(write_pdf(documents / "report.pdf")), "--printer", office, "--wait")
    job = json.loads(done.stdout)["job"]
    assert (done.returncode, job["state"], job["document"]) == (0, "completed", "report.pdf")
    assert json.loads(client("--json", "jobs", "--all").stdout)["jobs"] == [job]
    assert (client("jobs").stderr, client("status", office).stdout.splitlines()[0]) == ("No print jobs.\n",
                                                                                      "Office: ready")
    shell(f"cupsdisable '{queues()[0]}'")
    assert client("status", office).stdout.startswith("Office: stopped: paused")
    held = write_pdf(documents / "held.pdf")
    waiting = subprocess.Popen([CLIENT, "print", str(held), "-p", office, "--wait"], stderr=subprocess.PIPE, text=True)
    assert wait_for(lambda: not held.exists())
    (pending,) = json.loads(client("--json", "jobs").stdout)["jobs"]
    assert client("cancel", str(pending["id"])).returncode == 0
    assert waiting.wait(timeout=30) == 1 and f"job {pending['id']} on printer \"Office\" ended canceled" in \
        waiting.communicate()[1]
    assert failure("cancel", str(pending["id"]))["kind"] == "job_ended"
    assert failure("cancel", "9999", user=NOBODY)["kind"] == "unknown_job"
