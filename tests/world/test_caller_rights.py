"""Every caller acts with its own rights: an unprivileged caller (nobody, not in
lpadmin) prints only what it could read and remove itself, and the bus keeps
printer changes from it."""
import grp
import os
import re
import stat
import time

from conftest import (NOBODY, PRINTER_URI, REGISTRY, error_of, manager, print_document, printed_documents, shell,
                      wait_for, write_pdf)

ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"
LP = grp.getgrnam("lp").gr_gid


def jobs():
    """Every job CUPS knows of, completed ones included (earlier tests' too)."""
    return shell("lpstat -W all -o").splitlines()


def directory(path, mode, owner=0, group=0):
    path.mkdir()
    os.chown(path, owner, group)
    path.chmod(mode)
    return path


def document(path, mode=0o644, owner=0, group=0, content=None):
    if content is None:
        write_pdf(path)
    else:
        path.write_bytes(content)
    os.chown(path, owner, group)
    path.chmod(mode)
    return path


def test_callers_own_pdfs_print_and_a_non_ascii_one_from_a_private_copy_it_owns(office, documents):
    mine = directory(documents / "mine", 0o755, NOBODY, NOBODY)
    plain = document(mine / "doc.pdf", 0o600, NOBODY, NOBODY)
    named = document(mine / "отчёт.pdf", 0o600, NOBODY, NOBODY)
    print_document(plain, office, user=NOBODY)
    print_document(named, office, user=NOBODY)
    assert [p.name for p in mine.iterdir()] == ["отчёт.pdf"]
    assert wait_for(lambda: len(printed_documents()) == 2, timeout=60)

    # An unknown printer leaves the copy behind, so it can be looked at.
    assert error_of(print_document, named, "Nobody", user=NOBODY).message == "cups_name is empty"
    (copy,) = [p for p in mine.iterdir() if p != named]
    assert (copy.stat().st_uid, stat.S_IMODE(copy.stat().st_mode)) == (NOBODY, 0o600)


def test_documents_the_caller_may_not_read_or_remove_or_that_are_no_pdf_are_refused_at_once(office, documents):
    secret = document(directory(documents / "root-only", 0o700) / "secret.pdf", 0o600)
    mine = directory(documents / "mine", 0o755, NOBODY, NOBODY)
    link = mine / "link.pdf"
    link.symlink_to(secret)
    os.chown(link, NOBODY, NOBODY, follow_symlinks=False)
    fifo = mine / "fifo"
    os.mkfifo(fifo)
    os.chown(fifo, NOBODY, NOBODY)
    read_only = directory(documents / "read-only", 0o755)
    jobs_before = jobs()
    registry_readable = REGISTRY.stat().st_mode & stat.S_IROTH
    unremovable = "file {path} cannot be removed by the caller after printing"
    cases = [
        (secret, "permission denied: {path}"),
        (document(documents / "others.pdf", 0o666, owner=1), unremovable),
        (link, "permission denied: {path}"),
        (REGISTRY, "file {path} is not a PDF document" if registry_readable else "permission denied: {path}"),
        (document(read_only / "doc.pdf"), unremovable),
        (document(read_only / "отчёт.pdf"), "cannot copy {path} to {path.parent}/UUID.pdf: Permission denied"),
        (fifo, "file {path} is not a regular file"),
        (mine, "file {path} is not a regular file"),
        (document(mine / "empty.pdf", owner=NOBODY, content=b""), "file {path} is empty"),
        (document(mine / "notes.txt", owner=NOBODY, content=b"Just notes\n"), "file {path} is not a PDF document"),
    ]
    for path, expected in cases:
        started = time.monotonic()
        error = error_of(print_document, path, office, user=NOBODY, timeout=5)
        assert time.monotonic() - started < 1.0, path
        assert error.name == "ru.zorv.PrintingService.Error"
        assert re.sub("[0-9a-f-]{36}", "UUID", error.message) == expected.format(path=path)
        assert os.path.lexists(path)

    started = time.monotonic()
    assert manager("getSavedPrinters") == [office]
    assert time.monotonic() - started < 1.0
    assert sorted(p.name for p in read_only.iterdir()) == ["doc.pdf", "отчёт.pdf"]
    assert jobs() == jobs_before
    assert printed_documents() == []

    # Root keeps its rights: the root-only file prints and goes.
    print_document(secret, office)
    assert not secret.exists()
    assert wait_for(lambda: len(printed_documents()) == 1, timeout=60)


def test_group_rights_come_from_the_callers_supplementary_groups(office, documents):
    shared = directory(documents / "lp-shared", 0o770, group=LP)
    path = document(shared / "doc.pdf", 0o640, group=LP)
    assert error_of(print_document, path, office, user=NOBODY).message == f"permission denied: {path}"
    print_document(path, office, user=NOBODY, groups=[LP])
    assert not path.exists()


def test_any_user_may_list_and_inspect_printers_but_only_administrators_change_them(office):
    assert manager("getSavedPrinters", user=NOBODY) == [office]
    assert manager("getPrinterAttributes", office, user=NOBODY) == manager("getPrinterAttributes", office)
    for method, args in [("addPrinter", (PRINTER_URI, "Lab", [])), ("removePrinter", (office,)),
                         ("renamePrinter", (office, "Lab")), ("scan", ())]:
        assert error_of(manager, method, *args, user=NOBODY).name == ACCESS_DENIED, method
    assert manager("getSavedPrinters") == [office]
