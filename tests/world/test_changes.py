"""Changes reach apps as the scheduler makes them: every saved printer's state once per real change, a forged
scheduler message never, and a network printer's trays and supplies read from the printer itself."""
import os
import subprocess
import time
import urllib.request

import dbus
from gi.repository import GLib

from conftest import (JOBS, NOBODY, OBJECT_PATH, SANITIZED, as_user, call, daemon_pid, plain, private_bus, shell,
                      stop_printer, wait_for)

SPOOLER, SPOOLER_PATH = "com.redhat.PrinterSpooler", "/com/redhat/PrinterSpooler"
# The bound apps are promised; a sanitizer build runs several times slower.
WITHIN = 3.0 if SANITIZED else 1.0


class PrinterSignals:
    """printerStateChanged as a settings page hears it, on a connection of its own."""

    def __init__(self):
        self.received = []
        self.bus = private_bus()
        self.bus.add_signal_receiver(lambda *args: self.received.append((time.monotonic(), plain(args))),
                                     dbus_interface=JOBS, path=OBJECT_PATH, signal_name="printerStateChanged")

    def drain(self, seconds):
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            GLib.MainContext.default().iteration(False)
            time.sleep(0.01)
        received, self.received = self.received, []
        return received

    def close(self):
        self.bus.close()


def state(printer):
    return call(JOBS, "getPrinterState", printer, user=NOBODY)


def the_queue():
    return shell("lpstat -v").split()[2].rstrip(":")


def forge(queue, count):
    """Sends scheduler-like messages as an ordinary user."""
    def send():
        bus = private_bus()
        for index in range(count):
            message = dbus.lowlevel.SignalMessage(SPOOLER_PATH, SPOOLER, "QueueChanged")
            message.append(queue if index % 2 else "stopped", signature="s")
            bus.send_message(message)
        bus.flush()
        return count
    return as_user(NOBODY, [], send)


def test_pausing_resuming_and_rejecting_a_saved_printer_each_bring_exactly_one_signal_within_a_second(office):
    listener = PrinterSignals()
    listener.drain(1.5)
    queue = the_queue()
    for command, expected in [("cupsdisable", ("stopped", ["paused"], True)), ("cupsenable", ("idle", [], True)),
                              ("cupsreject", ("idle", [], False))]:
        shell(f"{command} '{queue}'")
        done = time.monotonic()
        received = listener.drain(WITHIN + 1)
        assert len(received) == 1, (command, received)
        (arrived, (printer, told)), = received
        assert arrived - done < WITHIN, command
        assert (printer, told["state"], told["reasons"], told["accepting"]) == (office, *expected), command
    listener.close()


def threads(pid):
    with open(f"/proc/{pid}/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("Threads:"))


def test_a_change_after_the_daemon_went_idle_still_brings_its_signal(office):
    listener = PrinterSignals()
    pid = daemon_pid()
    # Workers and the scheduler watcher end a while after their last work;
    # ThreadSanitizer may keep a thread of its own.
    idle = 2 if os.environ.get("KESTREL_SANITIZE") == "thread" else 1
    assert wait_for(lambda: threads(pid) <= idle, timeout=20)
    listener.drain(0.5)
    shell(f"cupsdisable '{the_queue()}'")
    assert [told["state"] for _, (_, told) in listener.drain(WITHIN + 1)] == ["stopped"]
    listener.close()


def test_a_flood_of_forged_scheduler_messages_changes_nothing_a_client_sees(office):
    listener = PrinterSignals()
    listener.drain(1.5)
    before = state(office)
    assert forge(the_queue(), 500) == 500
    assert listener.drain(2) == []
    assert state(office) == before and before["state"] == "idle"
    # The service still hears the scheduler itself right after the flood.
    shell(f"cupsdisable '{the_queue()}'")
    assert [told["state"] for _, (_, told) in listener.drain(WITHIN + 1)] == ["stopped"]
    listener.close()


def test_an_empty_tray_and_the_supplies_are_read_from_the_printer_itself_and_told_as_a_change(office):
    listener = PrinterSignals()
    first = state(office)
    assert [(s["kind"], s["color"], s["level"]) for s in first["supplies"]] == [("wasteToner", "", 25),
                                                                                ("toner", "black", 75)]
    main = {t["name"]: t for t in first["trays"]}["main"]
    assert main["state"] != "empty" and 0 < main["level"] <= 100
    assert "media-empty" not in first["reasons"]
    listener.drain(1)
    try:
        urllib.request.urlopen("http://127.0.0.1:631/media?size1=iso_a4_210x297mm&type1=stationery&level1=0",
                               timeout=10).read()

        def tray_empty():
            now = state(office)
            main = {t["name"]: t for t in now["trays"]}["main"]
            return now if main["state"] == "empty" and "media-empty" in now["reasons"] else None
        empty = wait_for(tray_empty, timeout=5, interval=0.2)
        assert empty, state(office)
        assert {t["name"]: (t["media"], t["level"]) for t in empty["trays"]}["main"] == ("iso_a4_210x297mm", 0)
        told = [t for _, (_, t) in listener.drain(1)]
        assert len(told) == 1 and "media-empty" in told[0]["reasons"]
        status = subprocess.run([os.environ["KESTREL_CLIENT"], "status", office], capture_output=True, text=True,
                                timeout=60).stdout.splitlines()
        assert "out of paper" in status[0] and "  Tray main: out of paper (iso_a4_210x297mm)" in status
        assert {"  Black toner 75 %", "  Waste toner box 25 % full"} <= set(status), status
    finally:
        # The printer keeps its trays until it starts again.
        stop_printer()
    listener.close()
