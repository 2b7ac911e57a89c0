"""Printer management over the bus: queues in the real scheduler, rows in the registry, signals and events."""
import re
import shlex
import shutil
import sqlite3
from pathlib import Path

from conftest import (PRINTER_URI, REGISTRY, daemon_log, error_of, manager, queues, shell, start_scheduler,
                      stop_scheduler, wait_for)

UUID = re.compile(r"[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}")


def queue_options(queue):
    """What CUPS says of a queue, read as an ordinary client would."""
    return dict(item.partition("=")[::2] for item in shlex.split(shell(f"lpoptions -p '{queue}'")))


def device_uri(queue):
    return shell(f"lpstat -v '{queue}'").split(": ", 1)[1].strip()


def rows():
    with sqlite3.connect(REGISTRY) as db:
        return db.execute("SELECT cups_name, user_name FROM printers ORDER BY id").fetchall()


def test_adding_makes_an_enabled_driverless_queue_under_a_fresh_uuid(signals, system_log):
    manager("addPrinter", PRINTER_URI, "Office", [])
    manager("addPrinter", PRINTER_URI, "Office copy", [])

    (queue, name), (other, _) = rows()
    assert name == "Office" and UUID.fullmatch(queue) and UUID.fullmatch(other) and queue != other
    assert sorted(queues()) == sorted([queue, other])
    options = queue_options(queue)
    assert device_uri(queue) == PRINTER_URI
    assert (options["printer-state"], options["printer-is-accepting-jobs"]) == ("3", "true")
    assert "IPP Everywhere" in options["printer-make-and-model"]
    assert "WARNING: : connection with CUPS server already established.\n" in daemon_log()
    assert signals.wait("savedPrintersChanged") == ["Office"]
    assert sorted(signals.wait("savedPrintersChanged")) == ["Office", "Office copy"]
    assert wait_for(lambda: len(system_log.events()) == 2)
    assert system_log.events()[0] == ("INFO_LEVEL", "printer-added", "Office")


def test_usb_printer_is_made_from_its_ppd_or_refused_without_one(system_log):
    uri, ppd = "usb://HP/Laser-Jet%201020?serial=7", Path("/usr/share/cups/model/LASERJET1020.ppd")
    ppd.unlink(missing_ok=True)
    assert error_of(manager, "addPrinter", uri, "Laser", []).message == "no PPD file for printer Laser-Jet1020"
    assert "ERROR: : no PPD file for printer Laser-Jet1020\n" in daemon_log()
    assert queues() == [] and rows() == []

    shutil.copy("/usr/share/ppd/cupsfilters/Generic-PDF_Printer-PDF.ppd", ppd)
    manager("addPrinter", uri, "Laser", [])
    (queue,) = queues()
    assert device_uri(queue) == uri
    assert "Generic PDF" in queue_options(queue)["printer-make-and-model"]


def test_users_registry_and_system_log_decide_what_an_add_leaves_behind(signals, system_log):
    error = error_of(manager, "addPrinter", PRINTER_URI, "Office", ["root", "no-such-user", "nobody"])
    assert (error.name, error.message) == ("ru.zorv.PrinterManager.Error", "user no-such-user doesn't exists")
    assert error_of(manager, "addPrinter", "lpd://127.0.0.1/queue", "Office", []).message == \
        "protocol is not supported"
    assert queues() == []
    # The world has no dnssd backend, so the scheduler refuses the queue with its own text.
    assert "Bad device-uri scheme" in error_of(manager, "addPrinter", "dnssd://10.0.0.15", "Gone", []).message

    manager("addPrinter", PRINTER_URI, "Office", ["root", "nobody"])
    # A taken name fails at the registry, after its queue was made and enabled.
    assert "UNIQUE" in error_of(manager, "addPrinter", PRINTER_URI, "Office", []).message
    assert len(queues()) == 2 and len(rows()) == 1

    system_log.stop()
    assert "[ru.zorv.SystemLogger.Error]" in error_of(manager, "addPrinter", PRINTER_URI, "Unlogged", []).message
    assert len(queues()) == 3 and rows()[-1][1] == "Unlogged"
    assert signals.wait("savedPrintersChanged") == ["Office"]
    assert signals.pending() == []


def test_rename_keeps_the_queue_and_refuses_empty_or_taken_names(signals):
    manager("addPrinter", PRINTER_URI, "Office", [])
    manager("addPrinter", PRINTER_URI, "Home", [])
    queue = rows()[0][0]

    manager("renamePrinter", "Office", "Lab")
    assert rows()[0] == (queue, "Lab")
    assert manager("getPrinterAttributes", "Lab")["sides-supported"] == ["one-sided"]
    for _ in range(3):
        last = signals.wait("savedPrintersChanged")
    assert sorted(last) == ["Home", "Lab"]

    manager("renamePrinter", "Lab", "Lab")
    assert wait_for(lambda: "WARNING: : new name and old name match. Nothing to be done.\n" in daemon_log())
    for old, new in [("Lab", ""), ("", "Lab"), ("", "")]:
        assert error_of(manager, "renamePrinter", old, new).message == "no old name or new name provided"
    assert "UNIQUE" in error_of(manager, "renamePrinter", "Lab", "Home").message
    assert error_of(manager, "renamePrinter", "Nope", "Other").name == "ru.zorv.PrinterManager.Error"
    assert sorted(manager("getSavedPrinters")) == ["Home", "Lab"]


def test_attributes_report_the_printers_capabilities_or_why_not(system_log):
    manager("addPrinter", PRINTER_URI, "Office", [])
    attributes = manager("getPrinterAttributes", "Office")
    assert set(attributes) == {"media-supported", "sides-supported", "print-color-mode-supported",
                               "orientation-requested-supported"}
    assert "iso_a4_210x297mm" in attributes["media-supported"]
    assert attributes["print-color-mode-supported"] == ["monochrome"]

    assert error_of(manager, "getPrinterAttributes", "Nobody").message == "cups_name is empty"
    queue = rows()[0][0]
    shell(f"lpadmin -x {queue}")
    assert error_of(manager, "getPrinterAttributes", "Office").message == \
        f"printer with user_name 'Office' and cups_name '{queue}' doesn't exist."
    # Queue names are matched exactly, though the scheduler's own lookup ignores case.
    shell(f"lpadmin -p {queue.upper()} -v {PRINTER_URI} -P /usr/share/ppd/cupsfilters/Generic-PDF_Printer-PDF.ppd -E")
    assert "doesn't exist." in error_of(manager, "getPrinterAttributes", "Office").message


def test_removing_the_last_printer_deletes_queue_and_row_and_signals_an_empty_list(signals, system_log):
    manager("addPrinter", PRINTER_URI, "Office", [])
    manager("removePrinter", "Office")
    assert queues() == [] and rows() == []
    signals.wait("savedPrintersChanged")
    assert signals.wait("savedPrintersChanged") == []
    assert wait_for(lambda: len(system_log.events()) == 2)
    assert system_log.events()[1] == ("INFO_LEVEL", "printer-removed", "Office")

    assert error_of(manager, "removePrinter", "Office").message == "cups_name is empty"
    assert signals.pending() == []


def test_scan_reports_usable_devices_once_even_when_asked_twice(signals):
    manager("scan")
    manager("scan")
    devices = signals.wait("accessiblePrintersChanged", timeout=120)
    assert devices["usb://Maker/Model?serial=1"] == "Maker Model"
    # The socket device at 127.0.0.1 answered the probe through the simulated printer.
    assert devices["ipp://127.0.0.1"] == "Loopback Printer"
    assert not any(uri.startswith(("lpd:", "socket:")) for uri in devices)
    assert not {"Unknown", "Loopback Printer 9100", "Named Printer"} & set(devices.values())
    # The second call came while the first scan ran; a later scan's answer
    # proves no other one was on its way.
    manager("scan")
    assert signals.wait("accessiblePrintersChanged", timeout=120) == devices
    assert signals.pending() == []


def test_scan_without_the_scheduler_still_signals_an_empty_map(signals):
    manager("getSavedPrinters")
    stop_scheduler()
    try:
        manager("scan")
        assert signals.wait("accessiblePrintersChanged", timeout=120) == {}
        assert "ERROR: : " in daemon_log()
    finally:
        start_scheduler()
