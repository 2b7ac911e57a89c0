"""Every caller acts with its own rights: nobody (not in lpadmin) prints only what it could read and remove itself,
and the bus keeps printer changes from it."""
import grp
import os
import re
import stat
import subprocess
import time
from pathlib import Path

import pytest

from conftest import (DAEMON_ENV, JOBS, NOBODY, PRINTER_URI, REGISTRY, daemon_pid, error_of, manager, print_document,
                      printed_documents, shell, wait_for, write_pdf)

LP = grp.getgrnam("lp").gr_gid


def made(path, mode=0o644, owner=0, group=0, content=None):
    """A directory (content "dir"), a file of the given bytes, or else a valid PDF."""
    path.mkdir() if content == "dir" else write_pdf(path) if content is None else path.write_bytes(content)
    os.chown(path, owner, group)
    path.chmod(mode)
    return path


def test_callers_own_pdfs_print_and_a_non_ascii_one_from_a_private_copy_it_owns(office, documents):
    mine = made(documents / "mine", 0o755, NOBODY, NOBODY, "dir")
    named = made(mine / "отчёт.pdf", 0o600, NOBODY, NOBODY)
    for path in (made(mine / "doc.pdf", 0o600, NOBODY, NOBODY), named):
        print_document(path, office, user=NOBODY)
    assert [p.name for p in mine.iterdir()] == ["отчёт.pdf"]
    assert wait_for(lambda: len(printed_documents()) == 2, timeout=60)
    # An unknown printer leaves the copy behind, so it can be looked at.
    assert error_of(print_document, named, "Nobody", user=NOBODY).message == "cups_name is empty"
    (copy,) = [p for p in mine.iterdir() if p != named]
    assert (copy.stat().st_uid, stat.S_IMODE(copy.stat().st_mode)) == (NOBODY, 0o600)


def test_documents_the_caller_may_not_read_or_remove_or_that_are_no_pdf_are_refused_at_once(office, documents):
    secret = made(made(documents / "root-group", 0o750, content="dir") / "secret.pdf", 0o640)
    shared = made(made(documents / "lp-shared", 0o770, group=LP, content="dir") / "doc.pdf", 0o640, group=LP)
    mine = made(documents / "mine", 0o755, NOBODY, NOBODY, "dir")
    read_only = made(documents / "read-only", 0o755, content="dir")
    (mine / "link.pdf").symlink_to(secret)
    os.mkfifo(mine / "fifo")
    jobs = shell("lpstat -W all -o")
    unremovable, denied = "file {path} cannot be removed by the caller after printing", "permission denied: {path}"
    cases = [
        (secret, denied), (mine / "link.pdf", denied), (shared, denied),
        (made(documents / "others.pdf", 0o666, owner=1), unremovable), (made(read_only / "doc.pdf"), unremovable),
        (REGISTRY, "file {path} is not a PDF document" if REGISTRY.stat().st_mode & stat.S_IROTH else denied),
        (made(read_only / "отчёт.pdf"), "cannot copy {path} to {path.parent}/UUID.pdf: Permission denied"),
        (mine / "fifo", "file {path} is not a regular file"), (mine, "file {path} is not a regular file"),
        (made(mine / "empty.pdf", owner=NOBODY, content=b""), "file {path} is empty"),
        (made(mine / "notes.txt", owner=NOBODY, content=b"Just notes\n"), "file {path} is not a PDF document"),
    ]
    for path, expected in cases:
        started = time.monotonic()
        error = error_of(print_document, path, office, user=NOBODY, timeout=5)
        assert time.monotonic() - started < 1.0, path
        assert (error.name, re.sub("[0-9a-f-]{36}", "UUID", error.message)) == \
            ("ru.zorv.PrintingService.Error", expected.format(path=path))
        # The same refusals, under the other interface's name.
        refused = error_of(print_document, path, office, user=NOBODY, interface=JOBS)
        assert (refused.name, re.sub("[0-9a-f-]{36}", "UUID", refused.message)) == \
            (JOBS + ".Error", expected.format(path=path))
        assert os.path.lexists(path)
    started = time.monotonic()
    assert manager("getSavedPrinters") == [office] and time.monotonic() - started < 1.0
    assert sorted(p.name for p in read_only.iterdir()) == ["doc.pdf", "отчёт.pdf"]
    assert set(shell("lpstat -W all -o").splitlines()) <= set(jobs.splitlines()) and printed_documents() == []
    # Supplementary groups count, and root keeps its rights.
    print_document(shared, office, user=NOBODY, groups=[LP])
    print_document(secret, office)
    assert not shared.exists() and not secret.exists()
    assert wait_for(lambda: len(printed_documents()) == 2, timeout=60)


def test_any_user_may_list_and_inspect_printers_but_only_administrators_change_them(office):
    assert manager("getSavedPrinters", user=NOBODY) == [office]
    assert manager("getPrinterAttributes", office, user=NOBODY) == manager("getPrinterAttributes", office)
    for method, args in [("addPrinter", (PRINTER_URI, "Lab", [])), ("removePrinter", (office,)),
                         ("renamePrinter", (office, "Lab"))]:
        assert error_of(manager, method, *args, user=NOBODY).name == "ru.zorv.PrinterManager.Error", method
    assert error_of(manager, "scan", user=NOBODY).name == "org.freedesktop.DBus.Error.AccessDenied"
    assert manager("getSavedPrinters") == [office]


# Root with nothing but the bounding set the unit grants, as systemd starts it.
UNIT_START = "setpriv --inh-caps=-all --bounding-set=-all,+setuid,+setgid"


@pytest.mark.parametrize("start", ["", UNIT_START], ids=["as plain root", "under the unit's bounding set"])
def test_the_daemon_keeps_only_the_identity_switch_and_follows_no_proc_link_for_a_caller(system_log, documents, start):
    DAEMON_ENV.write_text(f"KESTREL_DAEMON_WRAPPER='{start}'\n")
    manager("addPrinter", PRINTER_URI, "Office", [])
    status = Path(f"/proc/{daemon_pid()}/status").read_text().splitlines()
    switch = 1 << 6 | 1 << 7  # CAP_SETGID, CAP_SETUID
    assert {line[:6]: int(line.split()[1], 16) for line in status if line.startswith("Cap")} == \
        {"CapInh": 0, "CapPrm": switch, "CapEff": switch, "CapBnd": switch, "CapAmb": 0}
    # Another user's file that only a root process's working directory leads to.
    inner = made(made(documents / "root-only", 0o700, content="dir") / "inner", 0o777, content="dir")
    target = made(inner / "x.pdf", 0o644, owner=1)
    mine = made(documents / "mine", 0o755, NOBODY, NOBODY, "dir")
    (mine / "fd.pdf").symlink_to("/proc/self/fd/3")
    with subprocess.Popen(["sleep", "60"], cwd=inner) as holder:
        try:
            # The kernel refuses another process's links to a caller without CAP_SYS_PTRACE, and the
            # daemon's own (/proc/self) to everyone.
            for path, expected in [(f"/proc/{holder.pid}/cwd/x.pdf", "permission denied: {}"),
                                   (f"/proc/{holder.pid}/root{target}", "permission denied: {}"),
                                   (mine / "fd.pdf", "file {} is reached through a /proc link or a symlink loop")]:
                assert error_of(print_document, path, "Office", user=NOBODY, timeout=5).message == \
                    expected.format(path)
        finally:
            holder.kill()
    assert target.exists() and os.path.lexists(mine / "fd.pdf") and printed_documents() == []
