"""Printing over the bus, as root: what reaches the simulated printer and what stays on disk."""
import os
import threading

import pytest

from conftest import (PRINTER_URI, daemon_pid, error_of, manager, pdf_pages, print_document, printed_documents, shell, wait_for,
                      write_pdf)

SUPPORTED = ("copies", "fit-to-page", "media", "orientation-requested", "outputorder", "page-ranges",
             "print-color-mode", "sides")


def test_printed_pdf_reaches_the_printer_with_its_pages_and_the_file_is_gone(office, documents):
    path = write_pdf(documents / "doc.pdf", pages=3)
    print_document(path, office, {"media": "iso_a4_210x297mm", "copies": "1"})
    assert not path.exists()
    assert wait_for(lambda: len(printed_documents()) == 1, timeout=60)
    assert wait_for(lambda: pdf_pages(printed_documents()[0]) == 3)


def test_non_ascii_paths_print_from_a_uuid_copy_and_the_original_stays(office, documents):
    named = write_pdf(documents / "отчёты" / "квартал.pdf")
    bare = write_pdf(documents / "отчёты" / "без-расширения")
    print_document(named, office)
    print_document(bare, office)
    assert sorted(p.name for p in named.parent.iterdir()) == sorted(["квартал.pdf", "без-расширения"])
    assert wait_for(lambda: len(printed_documents()) == 2, timeout=60)


def test_refused_jobs_explain_themselves_and_keep_the_callers_files(office, documents):
    path = write_pdf(documents / "doc.pdf")
    unknown = error_of(print_document, path, office, {"zoom": "2", "color": "x", "Copies": "1", "copies": "1"})
    assert (unknown.name, unknown.message) == (
        "ru.zorv.PrintingService.Error",
        "Unknown option 'Copies'. List of supported options:\n" + "".join(f"\t - {n}\n" for n in SUPPORTED))
    assert error_of(print_document, path, office, {"pdfAutoRotate": "false"}).message.startswith(
        "Unknown option 'pdfAutoRotate'.")
    for document, printer, message in [
        (path, "Nobody", "cups_name is empty"),
        (path, "", "invalid argument"),
        ("/nowhere/doc.pdf", office, "file /nowhere/doc.pdf doesn't exist."),
        # Arguments swapped: the printer name is taken for the file.
        (office, str(path), f"file {office} doesn't exist."),
    ]:
        assert error_of(print_document, document, printer).message == message
    assert path.exists()

    foreign = write_pdf(documents / "чужой" / "doc.pdf")
    assert error_of(print_document, foreign, "Nobody").message == "cups_name is empty"
    # The copy made before the printer was looked up stays beside the original.
    assert len(list(foreign.parent.iterdir())) == 2
    assert printed_documents() == []


def test_ten_clients_printing_at_once_all_get_through_and_leave_no_descriptor_open(office, documents):
    failures = []

    def submit(index):
        try:
            print_document(write_pdf(documents / f"job-{index}.pdf", 1 + index % 3), office, private=True)
        except Exception as error:  # noqa: BLE001 - any failure is the finding
            failures.append(repr(error))

    def burst(first):
        threads = [threading.Thread(target=submit, args=(i,)) for i in range(first, first + 10)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    def descriptors():
        return len(os.listdir(f"/proc/{daemon_pid()}/fd"))

    burst(0)
    assert wait_for(lambda: len(printed_documents()) >= 10, timeout=120), shell("lpstat -o -p; tail -n 30 /var/log/cups/error_log")
    assert sorted(pdf_pages(p) for p in printed_documents()) == sorted(1 + i % 3 for i in range(10))
    opened = descriptors()
    for first in (10, 20, 30):
        burst(first)
    # Idle workers end with their scheduler connections, so wait for that.
    assert failures == [] and wait_for(lambda: descriptors() <= opened, timeout=15)
