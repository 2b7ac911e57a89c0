"""Apps follow what they print: job ids, states sent only to the submitting connection, privacy between users,
cancel, printer states (a paused queue, a silent network printer), a limit per caller and jobs kept across restarts."""
import grp
import os
import socket
import time
from concurrent.futures import ThreadPoolExecutor

import dbus
from gi.repository import GLib

from conftest import (BUS_NAME, JOBS, LPADMIN_MEMBER, NOBODY, OBJECT_PATH, as_user, call, error_of, print_document, printed_documents,
                      private_bus, plain, shell, stop_daemon, stop_printer, wait_for, write_pdf)

OTHER = 1
LPADMIN = grp.getgrnam("lpadmin").gr_gid
LIMIT = 50


def jobs(method, *args, **kwargs):
    return call(JOBS, method, *args, **kwargs)


def submit(path, printer, **kwargs):
    return print_document(path, printer, interface=JOBS, **kwargs)


def listen(bus, member, received):
    bus.add_signal_receiver(lambda *args: received.append([plain(a) for a in args]), dbus_interface=JOBS,
                            path=OBJECT_PATH, signal_name=member)


def follow(path, printer, user):
    """Submits as `user` on a connection of its own and collects its jobChanged signals until the job ends."""
    def submit_and_listen():
        bus, changes = private_bus(), []
        listen(bus, "jobChanged", changes)
        proxy = bus.get_object(BUS_NAME, OBJECT_PATH)
        job = int(proxy.submit(str(path), printer, dbus.Dictionary({}, signature="ss"), dbus_interface=JOBS))
        deadline = time.monotonic() + 120
        while time.monotonic() < deadline and not (changes and changes[-1][0]["state"] in ("completed", "aborted")):
            GLib.MainContext.default().iteration(True)
        return job, [change[0] for change in changes]

    return as_user(user, [], submit_and_listen)


def hidden(method, job, **kwargs):
    error = error_of(jobs, method, job, **kwargs)
    return error.name, error.message.replace(str(job), "ID")


def test_an_owner_follows_its_job_to_the_end_and_only_it_and_administrators_ever_see_it(office, documents):
    bystander = private_bus()
    overheard = []
    listen(bystander, "jobChanged", overheard)
    path = write_pdf(documents / "report.pdf", pages=2)
    os.chown(path, NOBODY, NOBODY)
    job, changes = follow(path, office, NOBODY)
    states = [change["state"] for change in changes]
    assert states[-1] == "completed" and "processing" in states, states
    assert {change["id"] for change in changes} == {job} and changes[-1]["document"] == "report.pdf"
    assert wait_for(lambda: len(printed_documents()) == 1, timeout=60)
    # Unicast: a connection that merely listens hears nothing.
    while GLib.MainContext.default().iteration(False):
        pass
    assert overheard == []
    bystander.close()

    (listed,) = jobs("getJobs", user=NOBODY)
    assert {k: listed[k] for k in ("id", "printer", "document", "state", "pages")} == \
        {"id": job, "printer": office, "document": "report.pdf", "state": "completed", "pages": listed["pages"]}
    assert abs(listed["created"] - time.time()) < 300 and jobs("getJob", job, user=NOBODY) == listed
    assert jobs("getJobs", user=OTHER) == []
    for method in ("getJob", "cancelJob"):
        assert hidden(method, job, user=OTHER) == hidden(method, job + 1000, user=OTHER) == \
            ("ru.zorv.PrintJobs.Error", "there is no job ID")
    assert [j["id"] for j in jobs("getJobs")] == [job] == [j["id"] for j in jobs("getJobs", user=LPADMIN_MEMBER,
                                                                                 groups=[LPADMIN])]
    assert error_of(jobs, "cancelJob", job, user=NOBODY).message == f"job {job} has already ended (completed)"
    # Who owns a job outlives the service.
    stop_daemon()
    assert jobs("getJobs", user=NOBODY) == [listed]


def test_a_paused_queue_holds_a_job_until_its_owner_cancels_it_and_says_so(office, documents):
    listener = private_bus()
    changed = []
    listen(listener, "printerStateChanged", changed)
    assert jobs("getPrinterState", office, user=NOBODY)["state"] in ("idle", "processing")
    queue = shell("lpstat -e").split()[0]
    shell(f"cupsdisable '{queue}'")
    state = jobs("getPrinterState", office, user=NOBODY)
    assert (state["state"], "paused" in state["reasons"], state["accepting"]) == ("stopped", True, True)

    def heard():
        GLib.MainContext.default().iteration(False)
        return changed
    assert wait_for(heard) and changed[0][0] == office and changed[0][1]["state"] == "stopped"
    listener.close()

    path = write_pdf(documents / "held.pdf")
    os.chown(path, NOBODY, NOBODY)
    job = submit(path, office, user=NOBODY)
    assert jobs("getJob", job, user=NOBODY)["state"] in ("pending", "held")
    jobs("cancelJob", job, user=NOBODY)
    assert wait_for(lambda: jobs("getJob", job, user=NOBODY)["state"] == "canceled")
    shell(f"cupsenable '{queue}'")
    assert wait_for(lambda: jobs("getPrinterState", office)["state"] == "idle")
    assert printed_documents() == []


def test_a_network_printer_that_does_not_answer_reads_offline_within_five_seconds(office):
    stop_printer()
    # Accepts connections and never answers, like a printer that hangs.
    with socket.create_server(("127.0.0.1", 631)):
        started = time.monotonic()
        state = jobs("getPrinterState", office, user=NOBODY)
        assert time.monotonic() - started < 5
    assert (state["state"], "offline-report" in state["reasons"]) == ("offline", True)
    assert error_of(jobs, "getPrinterState", "Nobody").message == "cups_name is empty"


def test_a_caller_is_stopped_at_its_limit_however_fast_it_prints_and_others_still_print(office, documents):
    shell(f"cupsdisable '{shell('lpstat -e').split()[0]}'")
    outcomes = []

    def send(index):
        path = write_pdf(documents / f"job-{index}.pdf")
        os.chown(path, NOBODY, NOBODY)
        method = submit if index % 2 else print_document
        try:
            outcomes.append(method(path, office, user=NOBODY))
        except Exception as error:  # noqa: BLE001 - the refusal is the finding
            outcomes.append(error.message)

    # Eight calls in flight: enough to race the limit, fewer than a print backlog holds, so no call is
    # refused as "busy" when a slow build (sanitizers) falls behind.
    with ThreadPoolExecutor(max_workers=8) as senders:
        list(senders.map(send, range(LIMIT + 6)))
    refusals = [o for o in outcomes if isinstance(o, str)]
    assert len(refusals) == 6 and set(refusals) == {
        f"too many active print jobs: a user may have at most {LIMIT} jobs waiting or printing; "
        "wait for some to end or cancel them"}
    listed = jobs("getJobs", user=NOBODY)
    assert len(listed) == LIMIT
    # One job canceled among waiting ones: each job reads its own state.
    jobs("cancelJob", listed[-1]["id"], user=NOBODY)
    assert [j["state"] for j in jobs("getJobs", user=NOBODY)] == ["pending"] * (LIMIT - 1) + ["canceled"]
    submit(write_pdf(documents / "other.pdf"), office)
