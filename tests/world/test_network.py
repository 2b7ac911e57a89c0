"""Printers a network announces by DNS-SD: the world's printer host (KESTREL_NETWORK=1, printer-host)."""
import os
import re
import signal
from pathlib import Path

from conftest import WORLD, _alive, error_of, manager, print_document, shell, wait_for, write_pdf
from test_printers import rows

REMOTE_SPOOL = Path(os.environ.get("KESTREL_REMOTE_SPOOL", "/nonexistent"))


def scan(signals):
    # The device's avahi-daemon hears of a host that has just come up within seconds.
    for _ in range(10):
        manager("scan")
        devices = signals.wait("accessiblePrintersChanged", timeout=60)
        if any("RemotePrinter" in uri for uri in devices):
            return devices


def print_and_wait(documents):
    # A restarted printer numbers jobs from 1 again, so its new document could take the old one's name.
    shell(f"rm -f {REMOTE_SPOOL}/*")
    print_document(write_pdf(documents / "doc.pdf"), "Remote")
    assert wait_for(lambda: list(REMOTE_SPOOL.glob("*.pdf")), timeout=60), shell("tail -5 /var/log/cups/error_log")
    # The scheduler holds the queue until the printer reports the job done.
    assert wait_for(lambda: shell("lpstat -o") == "", timeout=60)


def test_an_announced_printer_is_listed_once_prints_with_its_own_media_and_follows_it_to_a_new_address(
        signals, documents):
    devices = scan(signals)
    (uri,) = [uri for uri in devices if "RemotePrinter" in uri]
    assert re.fullmatch(r"ipp://RemotePrinter\._ipps?\._tcp\.local/", uri) and devices[uri] == "Maker Remote"
    assert devices["usb://Maker/Model?serial=1"] == "Maker Model" and "ipp://127.0.0.1" in devices
    assert error_of(manager, "addPrinter", "ipp://printer.local/ipp/print", "A", []).message == "invalid uri scheme"

    manager("addPrinter", uri, "Remote", [])
    assert shell("lpstat -v").split(": ", 1)[1].strip() == uri
    answer = shell("ipptool -tv ipp://printerhost.local:8631/ipp/print get-printer-attributes.test")
    own_media = set(re.search(r"media-supported \([^)]*\) = (.*)", answer).group(1).split(","))
    media = set(manager("getPrinterAttributes", "Remote")["media-supported"])
    assert "iso_a4_210x297mm" in media and media <= own_media
    print_and_wait(documents)

    saved, host = rows(), int((WORLD / "printer-host.pid").read_text())
    os.kill(host, signal.SIGKILL)
    assert wait_for(lambda: not _alive(host))
    shell(f"{Path(__file__).with_name('printer-host')} 10.78.0.3")
    assert wait_for(lambda: "10.78.0.3" in shell("getent hosts printerhost.local || true"), timeout=30)
    print_and_wait(documents)
    assert rows() == saved
