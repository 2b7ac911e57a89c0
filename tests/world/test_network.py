"""Printers a network announces by DNS-SD: the world's printer host (KESTREL_NETWORK=1, printer-host)."""
import os
import re
import signal
import subprocess
from pathlib import Path

from conftest import WORLD, _alive, error_of, manager, print_document, shell, wait_for, write_pdf
from test_printers import rows

REMOTE_SPOOL = Path(os.environ.get("KESTREL_REMOTE_SPOOL", "/nonexistent"))
ANNOUNCED = re.compile(r"ipp://RemotePrinter\._ipps?\._tcp\.local/")


def scan(signals):
    # The device's avahi-daemon needs a moment to hear of a host that has just come up.
    for _ in range(10):
        manager("scan")
        devices = signals.wait("accessiblePrintersChanged", timeout=60)
        announced = [uri for uri in devices if "RemotePrinter" in uri]
        if announced:
            return devices, announced
    return devices, announced


def remote_media():
    answer = shell("ipptool -tv ipp://printerhost.local:8631/ipp/print get-printer-attributes.test")
    return set(re.search(r"media-supported \([^)]*\) = (.*)", answer).group(1).split(","))


def received():
    return {path: path.stat().st_mtime_ns for path in REMOTE_SPOOL.glob("*.pdf")}


def print_and_wait(documents, printer):
    # A restarted printer numbers jobs from 1 again, so a new document may take an old name.
    before = received()
    print_document(write_pdf(documents / "doc.pdf"), printer)
    assert wait_for(lambda: received().items() - before.items(), timeout=60), shell("tail -5 /var/log/cups/error_log")
    # The scheduler holds the queue until the printer reports the job done.
    assert wait_for(lambda: shell("lpstat -o") == "", timeout=60)


def test_scan_lists_the_announced_printer_once_beside_the_usb_printer_and_probed_socket_device(signals):
    devices, announced = scan(signals)
    assert len(announced) == 1 and ANNOUNCED.fullmatch(announced[0]), devices
    assert devices[announced[0]] == "Maker Remote"
    assert devices["usb://Maker/Model?serial=1"] == "Maker Model"
    assert devices["ipp://127.0.0.1"] == "Loopback Printer"
    assert not any(uri.startswith(("dnssd:", "ipps:", "socket:")) for uri in devices)
    assert error_of(manager, "addPrinter", "ipp://printer.local/ipp/print", "Office", []).message == \
        "invalid uri scheme"


def test_an_added_announced_printer_prints_with_its_own_media_and_follows_it_to_a_new_address(signals, documents):
    _, (uri,) = scan(signals)
    manager("addPrinter", uri, "Remote", [])
    assert shell("lpstat -v").split(": ", 1)[1].strip() == uri
    media = set(manager("getPrinterAttributes", "Remote")["media-supported"])
    assert "iso_a4_210x297mm" in media and media <= remote_media()
    print_and_wait(documents, "Remote")
    saved = rows()

    host = int((WORLD / "printer-host.pid").read_text())
    os.kill(host, signal.SIGKILL)
    assert wait_for(lambda: not _alive(host))
    subprocess.run([Path(__file__).with_name("printer-host"), "10.78.0.3"], check=True)
    assert wait_for(lambda: "10.78.0.3" in shell("getent hosts printerhost.local || true"), timeout=30)
    print_and_wait(documents, "Remote")
    assert rows() == saved
