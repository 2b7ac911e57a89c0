"""Who may manage printers and other users' jobs is polkit's to say, with polkitd on the world's bus: the shipped rule
keeps root and lpadmin, a device maker's rule grants a group, and without polkitd the daemon falls back to root and
lpadmin. A person slow to answer an agent holds up nobody else."""
import grp
import os
import subprocess
import time
from pathlib import Path

import pytest

from conftest import (JOBS, LPADMIN_MEMBER, MAKER_RULES, NOBODY, PRINTER_URI, call, daemon_log, error_of, grant,
                      manager, print_document, queues, shell, start_polkit, stop_polkit, wait_for, write_pdf)

LPADMIN = grp.getgrnam("lpadmin").gr_gid
MANAGE_PRINTERS = "ru.zorv.print.manage-printers"
MANAGE_JOBS = "ru.zorv.print.manage-jobs"
REFUSED = ("ru.zorv.PrinterManager.Error",
           "permission denied: managing printers needs the ru.zorv.print.manage-printers authorization")
ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"
SILENT_AGENT = Path(__file__).parent / "silent-agent"


def refusal(method, *args, **kwargs):
    error = error_of(manager, method, *args, **kwargs)
    return error.name, error.message


def manage(user=None, groups=()):
    """Adds, renames and removes a printer as `user`, which leaves the world as it found it."""
    manager("addPrinter", PRINTER_URI, "Lab", [], user=user, groups=groups)
    manager("renamePrinter", "Lab", "Lab 2", user=user, groups=groups)
    assert manager("getSavedPrinters") == ["Lab 2"] and len(queues()) == 1
    manager("removePrinter", "Lab 2", user=user, groups=groups)
    assert manager("getSavedPrinters") == [] and queues() == []


def test_a_user_outside_lpadmin_is_refused_until_a_rule_grants_its_group(system_log):
    # Root and lpadmin need no rule beyond the shipped one.
    manage()
    manage(LPADMIN_MEMBER, [LPADMIN])
    manager("addPrinter", PRINTER_URI, "Office", [])
    events = system_log.events()
    started = time.monotonic()
    assert refusal("addPrinter", PRINTER_URI, "Lab", [], user=NOBODY) == REFUSED
    assert time.monotonic() - started < 5
    assert refusal("renamePrinter", "Office", "Lab", user=NOBODY) == REFUSED
    assert refusal("removePrinter", "Office", user=NOBODY) == REFUSED
    # Nothing changed, nothing went to the system log, and a process group alone counts for nothing.
    assert refusal("addPrinter", PRINTER_URI, "Lab", [], user=NOBODY, groups=[LPADMIN]) == REFUSED
    assert manager("getSavedPrinters") == ["Office"] and len(queues()) == 1 and system_log.events() == events
    # What the bus refused before, it still refuses; what was never implemented needs no authorization.
    for method, args in [("scan", ()), ("setDefaultPrinter", ("Office",)), ("addUsers", ("Office", []))]:
        assert error_of(manager, method, *args, user=NOBODY).name == ACCESS_DENIED, method
    assert refusal("setDefaultPrinter", "Office", user=LPADMIN_MEMBER, groups=[LPADMIN]) == \
        ("ru.zorv.PrinterManager.Error", "method not implemented.")

    manager("removePrinter", "Office")
    grant(MANAGE_PRINTERS)
    manage(NOBODY)
    # The action named is the one granted: nobody still sees only its own jobs.
    assert call(JOBS, "getJobs", user=NOBODY) == []
    assert "polkit" not in daemon_log()


def test_a_user_granted_manage_jobs_sees_and_cancels_another_users_job(office, documents):
    queue = shell("lpstat -e").split()[0]
    shell(f"cupsdisable '{queue}'")
    job = print_document(write_pdf(documents / "minutes.pdf"), office, interface=JOBS)

    def hidden(method):
        error = error_of(call, JOBS, method, job, user=NOBODY)
        return error.name, error.message
    assert call(JOBS, "getJobs", user=NOBODY) == []
    assert hidden("getJob") == hidden("cancelJob") == ("ru.zorv.PrintJobs.Error", f"there is no job {job}")
    # Managing printers is another action.
    grant(MANAGE_PRINTERS)
    assert hidden("getJob") == ("ru.zorv.PrintJobs.Error", f"there is no job {job}")

    grant(MANAGE_JOBS)
    assert [j["id"] for j in call(JOBS, "getJobs", user=NOBODY)] == [job]
    assert call(JOBS, "getJob", job, user=NOBODY)["state"] in ("pending", "held")
    call(JOBS, "cancelJob", job, user=NOBODY)
    assert wait_for(lambda: call(JOBS, "getJob", job)["state"] == "canceled")


def test_without_polkitd_root_and_lpadmin_still_manage_printers_and_the_daemon_says_so_once(system_log):
    stop_polkit()
    manage()
    manage(LPADMIN_MEMBER, [LPADMIN])
    for _ in range(2):
        assert refusal("addPrinter", PRINTER_URI, "Lab", [], user=NOBODY) == REFUSED
    assert manager("getSavedPrinters") == [] and queues() == []
    said = [line for line in daemon_log().splitlines() if "polkit" in line]
    assert len(said) == 1 and said[0].startswith("WARNING: "), daemon_log()
    # Back again, polkitd decides: a rule granting nobody's group counts once more.
    grant(MANAGE_PRINTERS)
    manage(NOBODY)


def test_a_caller_waiting_on_an_unanswered_agent_delays_no_other_caller(office):
    # The maker's rule lets nobody's user authenticate itself at an agent, which here never answers.
    MAKER_RULES.write_text('polkit.addRule(function(action, subject) {\n'
                           f'    if (action.id == "{MANAGE_PRINTERS}" && subject.user == "nobody")\n'
                           '        return polkit.Result.AUTH_SELF;\n});\n')
    stop_polkit()
    start_polkit()
    # Without the interactive flag nobody is asked, and the answer is no, at once.
    assert refusal("addPrinter", PRINTER_URI, "Lab", [], user=NOBODY) == REFUSED

    agent = subprocess.Popen([str(SILENT_AGENT), PRINTER_URI, "Lab"], stdout=subprocess.PIPE, text=True,
                             user=NOBODY, group=NOBODY, extra_groups=[])
    try:
        assert agent.stdout.readline().split() == ["asked", MANAGE_PRINTERS]
        for user in (None, NOBODY):
            started = time.monotonic()
            assert manager("getSavedPrinters", user=user) == [office]
            assert time.monotonic() - started < 0.5
        # Changes by others and job calls, which ask polkit themselves, go on meanwhile.
        manager("renamePrinter", office, "Office 2", user=LPADMIN_MEMBER, groups=[LPADMIN])
        assert call(JOBS, "getJobs", user=NOBODY) == []
        assert agent.poll() is None and manager("getSavedPrinters") == ["Office 2"]
    finally:
        agent.kill()
        agent.wait()
