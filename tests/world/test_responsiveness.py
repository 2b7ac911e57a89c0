"""Queues ready when added, a scan in report order, and bounds that keep the service answering."""
import sqlite3
import threading
import time
from pathlib import Path

from conftest import PRINTER_URI, REGISTRY, SystemLog, error_of, manager, scheduler_running, shell, wait_for

# How long the service waits for the system-log service, and a margin for a loaded machine.
LOG_BOUND = 3.0
MARGIN = 2.0


def printers_own_media():
    answer = shell(f"ipptool -tv {PRINTER_URI} /usr/share/cups/ipptool/get-printer-attributes.test")
    line = next(line for line in answer.splitlines() if line.strip().startswith("media-supported "))
    return set(line.split(" = ", 1)[1].strip().split(","))


def test_added_queues_are_set_up_at_once_and_removing_them_at_once_leaves_the_scheduler_running(system_log):
    manager("addPrinter", PRINTER_URI, "Office", [])
    assert set(manager("getPrinterAttributes", "Office")["media-supported"]) == printers_own_media()
    manager("removePrinter", "Office")
    for _ in range(200):
        manager("addPrinter", PRINTER_URI, "Office", [])
        manager("removePrinter", "Office")
    assert scheduler_running()


def test_a_silent_system_log_holds_other_callers_no_longer_than_its_bound(system_log):
    assert manager("getSavedPrinters") == []
    system_log.stop()
    silent = SystemLog(code="__import__('time').sleep(60)")
    try:
        outcome = {}

        def add():
            started = time.monotonic()
            outcome["error"] = error_of(manager, "addPrinter", PRINTER_URI, "Office", [], private=True)
            outcome["seconds"] = time.monotonic() - started

        adding = threading.Thread(target=add)
        adding.start()
        # The row is saved just before the event is sent.
        assert wait_for(lambda: sqlite3.connect(REGISTRY).execute("SELECT count(*) FROM printers").fetchone()[0])
        started = time.monotonic()
        assert manager("getSavedPrinters", private=True) == ["Office"]
        assert time.monotonic() - started < LOG_BOUND + MARGIN
        adding.join()
        assert "[ru.zorv.SystemLogger.Error]" in outcome["error"].message
        assert LOG_BOUND - 0.5 < outcome["seconds"] < LOG_BOUND + MARGIN
    finally:
        silent.stop()


def test_scan_keeps_the_first_report_of_a_uri_though_its_probe_ends_last(signals):
    # The socket device is probed and found under the same IPP URI that the
    # next report names directly.
    backend = Path("/usr/lib/cups/backend/kestrel-order")
    backend.write_text('#!/bin/sh\n[ $# -eq 0 ] || exit 1\n'
                       'echo \'network socket://127.0.0.2 "Probed Loopback" "Probed" "" ""\'\n'
                       'echo \'network ipp://127.0.0.2 "Direct Loopback" "Direct" "" ""\'\n')
    backend.chmod(0o755)
    try:
        manager("scan")
        devices = signals.wait("accessiblePrintersChanged", timeout=120)
    finally:
        backend.unlink()
    assert devices["ipp://127.0.0.2"] == "Probed Loopback"
    assert devices["ipp://127.0.0.1"] == "Loopback Printer"
