"""Printers a network announces by DNS-SD: the world's printer host (KESTREL_NETWORK=1, printer-host), with
avahi-daemon and cupsd on the world's system bus, as on a device."""
import os
import re
import signal
from pathlib import Path

import pytest

from conftest import WORLD, _alive, error_of, manager, print_document, queues, shell, wait_for, write_pdf
from test_printers import device_uri, rows

REMOTE_SPOOL = Path(os.environ.get("KESTREL_REMOTE_SPOOL", "/nonexistent"))
SERVICE_URI = re.compile(r"ipp://RemotePrinter\._ipp(s?)\._tcp\.local/")


def scan(signals):
    # The device's avahi-daemon hears of a host that has just come up within seconds.
    for _ in range(10):
        manager("scan")
        devices = signals.wait("accessiblePrintersChanged", timeout=60)
        if any("RemotePrinter" in uri for uri in devices):
            return devices
    pytest.fail("the announced printer was never listed")


def announced(signals):
    devices = scan(signals)
    (uri,) = [uri for uri in devices if "RemotePrinter" in uri]
    # The first report wins: the driverless backend's, or the dnssd backend's, which repeats the maker.
    assert SERVICE_URI.fullmatch(uri) and devices[uri] in ("Maker Remote", "Maker Maker Remote")
    return uri


def scheduler_pid():
    return int((WORLD / "cupsd.pid").read_text())


def print_and_wait(documents):
    # A restarted printer numbers jobs from 1 again, so its new document could take the old one's name.
    shell(f"rm -f {REMOTE_SPOOL}/*")
    print_document(write_pdf(documents / "doc.pdf"), "Remote")
    assert wait_for(lambda: list(REMOTE_SPOOL.glob("*.pdf")), timeout=60), shell("tail -5 /var/log/cups/error_log")
    # The scheduler holds the queue until the printer reports the job done.
    assert wait_for(lambda: shell("lpstat -o") == "", timeout=60)


def test_an_announced_printer_is_added_printed_to_and_removed_while_the_scheduler_lives(
        signals, system_log, documents):
    scheduler = scheduler_pid()
    uri = announced(signals)
    assert error_of(manager, "addPrinter", "ipp://printer.local/ipp/print", "A", []).message == "invalid uri scheme"

    manager("addPrinter", uri, "Remote", [])
    ((queue, _),) = rows()
    # The queue reaches the printer by its mDNS host name, never by the service instance.
    scheme = "ipps" if SERVICE_URI.fullmatch(uri).group(1) else "ipp"
    assert device_uri(queue) == f"{scheme}://printerhost.local:8631/ipp/print"
    answer = shell("ipptool -tv ipp://printerhost.local:8631/ipp/print get-printer-attributes.test")
    own_media = set(re.search(r"media-supported \([^)]*\) = (.*)", answer).group(1).split(","))
    media = set(manager("getPrinterAttributes", "Remote")["media-supported"])
    assert "iso_a4_210x297mm" in media and media <= own_media
    print_and_wait(documents)

    manager("removePrinter", "Remote")
    assert queues() == [] and rows() == []
    assert ("INFO_LEVEL", "printer-removed", "Remote") in system_log.events()
    # Once more, the remove sent the moment the add answers.
    manager("addPrinter", uri, "Remote", [])
    manager("removePrinter", "Remote")
    assert queues() == [] and rows() == []
    assert scheduler_pid() == scheduler and _alive(scheduler)

    for cycle in range(10):
        manager("addPrinter", uri, f"Remote {cycle}", [])
        manager("removePrinter", f"Remote {cycle}")
    assert queues() == [] and rows() == []
    assert scheduler_pid() == scheduler and _alive(scheduler)


def test_a_saved_announced_printer_follows_its_printer_to_a_new_address(signals, documents):
    manager("addPrinter", announced(signals), "Remote", [])
    print_and_wait(documents)

    saved, host = rows(), int((WORLD / "printer-host.pid").read_text())
    os.kill(host, signal.SIGKILL)
    assert wait_for(lambda: not _alive(host))
    shell(f"{Path(__file__).with_name('printer-host')} 10.78.0.3")
    assert wait_for(lambda: "10.78.0.3" in shell("getent hosts printerhost.local || true"), timeout=30)
    print_and_wait(documents)
    assert rows() == saved
