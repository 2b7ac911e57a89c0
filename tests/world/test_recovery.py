"""The service comes back by itself: damaged registries, half-made first starts,
oversized options and queues the scheduler stopped."""
import os
import signal
import sqlite3
import subprocess
import time

import pytest

from conftest import (DAEMON_ENV, PRINTER_URI, PRINTING, REGISTRY, SPOOL, WORLD, daemon_log, daemon_pid, error_of, manager,
                      print_document, printed_documents, queues, shell, start_printer, start_scheduler, stop_scheduler,
                      wait_for, write_pdf)


def write_registry(version_row=True, printers=0, name_size=500):
    db = sqlite3.connect(REGISTRY)
    db.executescript("CREATE TABLE version (id INTEGER PRIMARY KEY, value TEXT NOT NULL);"
                     "CREATE TABLE printers (id INTEGER NOT NULL, cups_name TEXT NOT NULL UNIQUE, "
                     "user_name TEXT NOT NULL UNIQUE, PRIMARY KEY(\"id\" AUTOINCREMENT));")
    if version_row:
        db.execute("INSERT INTO version VALUES (1, '0.0.1')")
    db.executemany("INSERT INTO printers (cups_name, user_name) VALUES (?, ?)",
                   [(f"uuid-{i}", f"Printer {i} " + "x" * name_size) for i in range(printers)])
    db.commit()
    db.close()
    return REGISTRY.read_bytes()


def write_large_pdf(path):
    """One page whose contents carry 20 MB of incompressible comments, so the
    document is still on its way when the printer disappears."""
    text = b"BT /F1 24 Tf 72 720 Td (Kestrel) Tj ET\n" + b"".join(
        b"%" + os.urandom(512).hex().encode() + b"\n" for _ in range(20000))
    objects = [b"<< /Type /Catalog /Pages 2 0 R >>", b"<< /Type /Pages /Kids [4 0 R] /Count 1 >>",
               b"<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>",
               b"<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Resources << /Font << /F1 3 0 R >> >> "
               b"/Contents 5 0 R >>",
               b"<< /Length %d >>\nstream\n" % len(text) + text + b"\nendstream"]
    body, offsets = b"%PDF-1.4\n", []
    for number, obj in enumerate(objects, 1):
        offsets.append(len(body))
        body += b"%d 0 obj\n" % number + obj + b"\nendobj\n"
    xref = len(body)
    body += b"xref\n0 6\n0000000000 65535 f \n" + b"".join(b"%010d 00000 n \n" % offset for offset in offsets)
    path.write_bytes(body + b"trailer\n<< /Size 6 /Root 1 0 R >>\nstartxref\n%d\n%%%%EOF\n" % xref)
    return path


@pytest.mark.parametrize("damage", ["garbage", "truncated", "text"])
def test_unreadable_registry_is_kept_aside_and_the_same_start_answers(system_log, damage):
    content = {"garbage": lambda: os.urandom(8192),
               "truncated": lambda: (lambda whole: whole[:len(whole) // 2])(write_registry(printers=50)),
               "text": lambda: b"Office = ipp://printer.local/\n"}[damage]()
    REGISTRY.write_bytes(content)
    assert manager("getSavedPrinters") == []
    kept = [path for path in REGISTRY.parent.iterdir() if path.name.startswith("printers.db.damaged-")]
    assert len(kept) == 1 and kept[0].read_bytes() == content
    errors = [line for line in daemon_log().splitlines() if line.startswith("ERROR: : ")]
    assert len(errors) == 1 and str(REGISTRY) in errors[0] and str(kept[0]) in errors[0]


def test_registry_with_tables_but_no_version_row_answers_again_within_two_starts(system_log):
    write_registry(version_row=False)
    error_of(manager, "getSavedPrinters")
    assert f"failed to remove the invalid database{REGISTRY}" in daemon_log()
    assert manager("getSavedPrinters") == []


def test_a_first_start_killed_before_its_registry_is_committed_leaves_a_next_start_that_answers(system_log):
    # Killed at its first touch of a registry journal: the file exists, its schema is not committed.
    journals = " ".join(f"-P {REGISTRY}{suffix}-journal" for suffix in ("", ".new"))
    kill = f"strace -f -o /dev/null {journals} -e trace=openat -e inject=openat:signal=KILL"
    DAEMON_ENV.write_text(f"KESTREL_DAEMON_WRAPPER='{kill}'\n")
    error_of(manager, "getSavedPrinters")
    DAEMON_ENV.unlink()
    assert manager("getSavedPrinters") == []


def test_option_value_longer_than_ipp_carries_is_refused_at_once_while_others_are_served(office, documents):
    document = write_pdf(documents / "big-option.pdf")
    started = time.monotonic()
    printing = subprocess.Popen(["busctl", "--system", "call", "ru.zorv.print", "/ru/zorv/print", PRINTING, "print",
                                 "ssa{ss}", str(document), office, "1", "media", "a" * 40000],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert manager("getSavedPrinters") == [office]
    other = time.monotonic() - started
    _, error = printing.communicate(timeout=60)
    refused = time.monotonic() - started
    assert "value of option 'media' is 40000 bytes long, more than the 32767 bytes IPP can carry" in error
    assert refused < 1 and other < 1
    # An unknown name is still reported first, with its own message.
    assert error_of(print_document, document, office, {"copies": "a" * 40000, "zoom": "1"}).message.startswith(
        "Unknown option 'zoom'.")
    assert document.exists() and not shell("lpstat -o")


def test_queue_stopped_when_the_printer_went_away_prints_again_once_it_is_back(office, documents):
    queue = queues()[0]
    big = write_large_pdf(documents / "big.pdf")
    print_document(big, office)
    printer = int((WORLD / "ippeveprinter.pid").read_text())
    assert wait_for(lambda: any(path.stat().st_size for path in SPOOL.iterdir()), timeout=30, interval=0.005)
    os.kill(printer, signal.SIGKILL)
    assert wait_for(lambda: "disabled" in shell(f"lpstat -p {queue}"), timeout=30)
    for path in SPOOL.iterdir():
        path.unlink()

    start_printer()
    print_document(write_pdf(documents / "after.pdf"), office)
    assert wait_for(lambda: len(printed_documents()) == 2, timeout=60)
    assert "enabled" in shell(f"lpstat -p {queue}")


def test_a_stopped_scheduler_fails_calls_with_its_own_texts_and_once_back_serves_the_same_daemon(office, documents):
    # A failed request on each worker leaves its text behind in the library.
    manager("addPrinter", PRINTER_URI, "Lost", [])
    lost = [queue for queue in queues() if queue not in rows_of("Office")]
    shell(f"lpadmin -x {lost[0]}")
    assert "doesn't exist" in error_of(manager, "removePrinter", "Lost").message
    assert "doesn't exist" in error_of(manager, "getPrinterAttributes", "Lost").message
    daemon = daemon_pid()
    (office_queue,) = rows_of("Office")
    missing = f"printer with user_name 'Office' and cups_name '{office_queue}' doesn't exist."

    stop_scheduler()
    assert error_of(manager, "addPrinter", PRINTER_URI, "Other", []).message in (
        "failed to execute request: Service Unavailable", "failed to establish connection with CUPS server.")
    assert error_of(manager, "getPrinterAttributes", "Office").message == missing
    assert error_of(manager, "removePrinter", "Office").message == missing
    assert error_of(print_document, write_pdf(documents / "a.pdf"), "Office").message == (
        f"printer {office_queue} doesn't exist.")

    start_scheduler()
    manager("addPrinter", PRINTER_URI, "Other", [])
    assert manager("getPrinterAttributes", "Office")["media-supported"]
    print_document(write_pdf(documents / "b.pdf"), "Office")
    manager("removePrinter", "Office")
    assert daemon_pid() == daemon


def rows_of(name):
    with sqlite3.connect(REGISTRY) as db:
        return [row[0] for row in db.execute("SELECT cups_name FROM printers WHERE user_name = ?", (name,))]
