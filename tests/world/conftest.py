"""Fixtures for tests over the bus in the test world (run-in-world.sh). The bus starts the daemon on the first
call, as on a device, and its output lands in daemon.log; every test begins with no daemon, queue, registry or
printed document, and a fresh system-log service (python-dbusmock)."""
import os
import pickle
import signal
import subprocess
import threading
import time
from pathlib import Path

import dbus
import pytest
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

DBusGMainLoop(set_as_default=True)

BUS_NAME = "ru.zorv.print"
OBJECT_PATH = "/ru/zorv/print"
MANAGER = "ru.zorv.PrinterManager"
PRINTING = "ru.zorv.PrintingService"
JOBS = "ru.zorv.PrintJobs"
NOBODY = 65534
# Listed in lpadmin in the world's account database (setup-world.sh).
LPADMIN_MEMBER = 2
# nobody's group of the world that a device maker's rule may name.
STAFF_GROUP = "kestrel-staff"
MAKER_RULES = Path("/etc/polkit-1/rules.d/50-maker.rules")
WORLD = Path(os.environ.get("KESTREL_WORLD_DIR", "/nonexistent"))
SPOOL = Path(os.environ.get("KESTREL_PRINTER_SPOOL", "/nonexistent"))
PRINTER_URI = os.environ.get("KESTREL_PRINTER_URI", "")
DAEMON_LOG = WORLD / "daemon.log"
DAEMON_ENV = WORLD / "daemon.env"
REGISTRY = Path("/var/lib/print/printers.db")
# A sanitizer build (KESTREL_SANITIZE=ON or thread) runs several times slower.
SANITIZED = os.environ.get("KESTREL_SANITIZE", "OFF") not in ("", "OFF")
SANITIZER_MARKERS = ("runtime error:", "AddressSanitizer", "LeakSanitizer", "ThreadSanitizer")


class BusError(Exception):
    name = property(lambda self: self.args[0])
    message = property(lambda self: self.args[1])


def plain(value):
    if isinstance(value, dict):
        return {plain(k): plain(v) for k, v in value.items()}
    if isinstance(value, (list, tuple)):
        return (tuple if isinstance(value, tuple) else list)(plain(v) for v in value)
    for kind in (bool, str, int):
        if isinstance(value, kind):
            return (int if kind is int and not isinstance(value, dbus.Boolean) else kind)(value)
    return value


def private_bus():
    bus = dbus.bus.BusConnection(dbus.bus.BUS_SYSTEM)
    # libdbus would otherwise end the whole test process when it is closed.
    bus.set_exit_on_disconnect(False)
    return bus


def _call(bus, destination, path, interface, method, args, timeout):
    try:
        # The signatures come from introspection, so the call starts the
        # daemon first when it is not running.
        proxy = bus.get_object(destination, path)
        return plain(proxy.get_dbus_method(method, interface)(*args, timeout=timeout))
    except dbus.exceptions.DBusException as error:
        raise BusError(error.get_dbus_name(), error.get_dbus_message()) from None


def call(interface, method, *args, user=None, groups=(), timeout=60, destination=BUS_NAME, path=OBJECT_PATH,
         private=False):
    """A method call on the service (or another destination); as root, or in a
    child process as `user` (a uid) with the given supplementary groups.
    Raises BusError."""
    target = (destination, path, interface, method, args, timeout)
    if user is None:
        # A connection of its own lets threads call side by side.
        bus = private_bus() if private else dbus.SystemBus()
        try:
            return _call(bus, *target)
        finally:
            if private:
                bus.close()
    outcome = as_user(user, groups, lambda: _call(private_bus(), *target))
    if isinstance(outcome, BusError):
        raise outcome
    return outcome


def as_user(user, groups, work):
    """What work() returns (or the BusError it raises), run in a child process as `user` with the given groups."""
    read, write = os.pipe()
    if os.fork() == 0:
        try:
            os.setgroups(list(groups))
            os.setgid(user)
            os.setuid(user)
            try:
                outcome = work()
            except BusError as error:
                outcome = error
            os.write(write, pickle.dumps(outcome))
        finally:
            os._exit(0)
    os.close(write)
    with os.fdopen(read, "rb") as result:
        outcome = pickle.loads(result.read())
    os.wait()
    return outcome


def manager(method, *args, **kwargs):
    return call(MANAGER, method, *args, **kwargs)


def print_document(path, printer, options=None, interface=PRINTING, **kwargs):
    method = "submit" if interface == JOBS else "print"
    return call(interface, method, str(path), printer, dbus.Dictionary(options or {}, signature="ss"), **kwargs)


def error_of(function, *args, **kwargs):
    try:
        function(*args, **kwargs)
    except BusError as error:
        return error
    pytest.fail(f"{getattr(function, '__name__', function)}{args} succeeded")


def wait_for(predicate, timeout=10.0, interval=0.02):
    deadline = time.monotonic() + timeout
    while True:
        result = predicate()
        if result or time.monotonic() >= deadline:
            return result
        time.sleep(interval)


def shell(command):
    return subprocess.run(command, shell=True, check=True, capture_output=True, text=True).stdout


def queues():
    # The scheduler's own queues: "lpstat -e" would add printers announced on the network.
    listing = subprocess.run(["lpstat", "-v"], capture_output=True, text=True).stdout
    return [line.removeprefix("device for ").split(": ", 1)[0] for line in listing.splitlines()]


def printed_documents():
    # A document still arriving is a .prn file.
    return sorted(p for p in SPOOL.iterdir() if p.suffix == ".pdf")


def pdf_pages(path):
    return int(shell(f"qpdf --show-npages '{path}'"))


def write_pdf(path, pages=1):
    """A valid PDF of blank pages: qpdf rebuilds the page below into a whole file."""
    Path(path).parent.mkdir(parents=True, exist_ok=True)
    page = WORLD / f"page-{threading.get_ident()}.pdf"
    page.write_bytes(b"%PDF-1.4\n1 0 obj<</Type/Catalog/Pages 2 0 R>>endobj\n2 0 obj<</Type/Pages/Kids[3 0 R]/Count 1>>"
                     b"endobj\n3 0 obj<</Type/Page/Parent 2 0 R/MediaBox[0 0 612 792]>>endobj\ntrailer<</Root 1 0 R>>\n")
    subprocess.run(["qpdf", "--no-warn", "--warning-exit-0", "--empty", "--pages", *[str(page)] * pages, "--",
                    str(path)], check=True)
    return Path(path)


def _alive(pid):
    # A stopped child of the world's pid 1 lingers as a zombie until reaped.
    try:
        return Path(f"/proc/{pid}/stat").read_text().rsplit(") ", 1)[1][0] != "Z"
    except OSError:
        return False


def _stop(pid):
    if pid and _alive(pid):
        os.kill(pid, signal.SIGTERM)
        assert wait_for(lambda: not _alive(pid)), f"process {pid} did not stop"


def _start_detached(command, wait):
    # Through the shell, so the process belongs to the world's pid 1, not the test.
    subprocess.run(f"({command}) >/dev/null 2>&1 &", shell=True, check=True)
    assert wait_for(wait), f"{command} did not come up"


def scheduler_running():
    return subprocess.run("lpstat -r", shell=True, capture_output=True, text=True).stdout.strip() == "scheduler is running"


def stop_scheduler():
    _stop(int((WORLD / "cupsd.pid").read_text()))


def start_scheduler():
    _start_detached(f"exec {os.environ['KESTREL_SCHEDULER']} >>{WORLD}/cupsd.log 2>&1 & echo $! >{WORLD}/cupsd.pid", scheduler_running)


def printer_running():
    return subprocess.run("bash -c ': </dev/tcp/127.0.0.1/631'", shell=True, capture_output=True).returncode == 0


def stop_printer():
    _stop(int((WORLD / "ippeveprinter.pid").read_text()))


def start_printer():
    _start_detached(os.environ["KESTREL_PRINTER_START"], printer_running)


def polkit_running():
    return dbus.SystemBus().name_has_owner("org.freedesktop.PolicyKit1")


def stop_polkit():
    _stop(int((WORLD / "polkitd.pid").read_text()))
    assert wait_for(lambda: not polkit_running())


def start_polkit():
    _start_detached(f"exec {os.environ['KESTREL_POLKIT']} >>{WORLD}/polkitd.log 2>&1 & echo $! >{WORLD}/polkitd.pid",
                    polkit_running)


def grant(action, group=STAFF_GROUP):
    """A device maker's rule that gives the members of `group` the action; polkitd reads it when it starts."""
    MAKER_RULES.write_text(f'polkit.addRule(function(action, subject) {{\n'
                           f'    if (action.id == "{action}" && subject.isInGroup("{group}"))\n'
                           f'        return polkit.Result.YES;\n}});\n')
    stop_polkit()
    start_polkit()


def daemon_pid():
    bus = dbus.SystemBus()
    driver = bus.get_object("org.freedesktop.DBus", "/org/freedesktop/DBus")
    try:
        return int(driver.GetConnectionUnixProcessID(BUS_NAME, dbus_interface="org.freedesktop.DBus"))
    except dbus.exceptions.DBusException:
        return 0


def stop_daemon():
    _stop(daemon_pid())
    assert wait_for(lambda: daemon_pid() == 0)


def daemon_log():
    return DAEMON_LOG.read_text(errors="replace") if DAEMON_LOG.exists() else ""


class Signals:
    """Collects the service's signals; wait() runs the main loop until one arrives."""

    def __init__(self):
        self.received = []
        # A connection of its own: nothing queued for an earlier test reaches this one.
        self.bus = private_bus()
        self.bus.add_signal_receiver(
            lambda *args, member=None: self.received.append((member, [plain(a) for a in args])),
            dbus_interface=MANAGER, path=OBJECT_PATH, member_keyword="member")

    def wait(self, name, timeout=10.0):
        assert wait_for(lambda: name in self.pending(), timeout), f"no {name} signal within {timeout} s"
        return self.received.pop(self.pending().index(name))[1][0]

    def pending(self):
        while GLib.MainContext.default().iteration(False):
            pass
        return [member for member, _ in self.received]

    def close(self):
        self.bus.close()


class SystemLog:
    """The platform's system-log service, as a python-dbusmock on the bus."""

    NAME, PATH = "ru.quentis.SystemLogs", "/ru/quentis/SystemLogs"

    def __init__(self, code=""):
        self.process = subprocess.Popen(
            ["/usr/bin/python3", "-m", "dbusmock", "--system", self.NAME, self.PATH, self.NAME],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        bus = dbus.SystemBus()
        assert wait_for(lambda: bus.name_has_owner(self.NAME)), "system-log mock did not start"
        self.mock = bus.get_object(self.NAME, self.PATH)
        self.mock.AddMethod(self.NAME, "sendEventStringAlt", "sss", "", code,
                            dbus_interface="org.freedesktop.DBus.Mock")

    def events(self):
        calls = self.mock.GetMethodCalls("sendEventStringAlt", dbus_interface="org.freedesktop.DBus.Mock")
        return [tuple(plain(args)) for _, args in calls]

    def stop(self):
        self.process.kill()
        self.process.wait()
        assert wait_for(lambda: not dbus.SystemBus().name_has_owner(self.NAME))


def _require_world():
    if os.environ.get("KESTREL_WORLD") == "1" and os.geteuid() == 0:
        return
    if os.environ.get("CI") == "true":
        pytest.fail("CI=true requires the test world (root, run-in-world.sh)")
    pytest.skip("test world unavailable: run as root through tests/world/run-in-world.sh")


def reset_world():
    stop_daemon()
    DAEMON_ENV.unlink(missing_ok=True)
    if not scheduler_running():
        start_scheduler()
    if not printer_running():
        start_printer()
    if MAKER_RULES.exists() or not polkit_running():
        MAKER_RULES.unlink(missing_ok=True)
        if polkit_running():
            stop_polkit()
        start_polkit()
    for queue in queues():
        shell(f"lpadmin -x '{queue}'")
    for path in list(Path("/var/lib/print").iterdir()) + list(SPOOL.iterdir()):
        path.unlink()
    DAEMON_LOG.write_text("")


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """A failed test shows the ends of the daemon's and the scheduler's logs,
    which the world takes with it when it ends."""
    report = (yield).get_result()
    if report.when != "call" or not report.failed:
        return
    report.sections.append(("scheduler running", str(scheduler_running())))
    for log in [DAEMON_LOG, WORLD / "cupsd.log", Path("/var/log/cups/error_log")]:
        if log.exists():
            report.sections.append((str(log), "\n".join(log.read_text(errors="replace").splitlines()[-30:])))


@pytest.fixture
def system_log():
    _require_world()
    reset_world()
    log = SystemLog()
    yield log
    log.stop()
    stop_daemon()
    assert not any(marker in daemon_log() for marker in SANITIZER_MARKERS), daemon_log()


@pytest.fixture
def signals(system_log):
    collector = Signals()
    yield collector
    collector.close()


@pytest.fixture
def office(system_log):
    manager("addPrinter", PRINTER_URI, "Office", dbus.Array([], signature="s"))
    return "Office"


@pytest.fixture
def documents():
    """A directory for test documents that callers other than root may use."""
    path = WORLD / "documents"
    shell(f"rm -rf '{path}'")
    path.mkdir(mode=0o1777)
    path.chmod(0o1777)
    return path
