"""The daemon on the bus: its published contract, who may call what, and how it starts."""
import grp
import os
import subprocess
import xml.etree.ElementTree as ElementTree

import dbus
import pytest

from conftest import (BUS_NAME, MANAGER, NOBODY, PRINTING, REGISTRY, call, daemon_log, daemon_pid,
                      error_of, manager, print_document)

LPADMIN = grp.getgrnam("lpadmin").gr_gid


def test_introspection_shows_both_interfaces_with_their_published_argument_names(system_log):
    xml = call("org.freedesktop.DBus.Introspectable", "Introspect")
    node = ElementTree.fromstring(xml)
    assert [a.get("name") for a in node.findall(f"interface[@name='{PRINTING}']/method[@name='print']/arg")] == \
        ["path", "printer", "parameters"]
    out = node.find(f"interface[@name='{MANAGER}']/method[@name='getPrinterAttributes']/arg[@direction='out']")
    assert (out.get("name"), out.get("type")) == ("pritnerAttributes", "a{sas}")


@pytest.mark.parametrize("method, args, message", [
    ("setDefaultPrinter", [""], "method not implemented."),
    ("getPrinterStatus", ["Office"], "method not implemented."),
    ("getPrinterStatuses", [], "method not implemented."),
    ("setDefaultSettings", ["Office", dbus.Array([("media", "iso_a4_210x297mm")], signature="(ss)")],
     "method not implemented."),
    ("addUsers", ["Office", ["root"]], "method not implemented"),
    ("removeUsers", ["Office", ["root"]], "method not implemented"),
])
def test_unimplemented_methods_answer_with_their_fixed_texts(system_log, method, args, message):
    error = error_of(manager, method, *args)
    assert (error.name, error.message) == ("ru.zorv.PrinterManager.Error", message)


def test_first_call_starts_the_daemon_with_a_fresh_empty_registry(system_log):
    assert daemon_pid() == 0
    assert manager("getSavedPrinters") == []
    assert REGISTRY.is_file()


def test_second_instance_fails_while_the_first_keeps_serving(system_log):
    manager("getSavedPrinters")
    first = daemon_pid()
    second = subprocess.run([os.environ["KESTREL_DAEMON"]], capture_output=True, timeout=30)
    assert second.returncode != 0
    assert daemon_pid() == first
    assert manager("getSavedPrinters") == []


def test_registry_without_tables_fails_one_start_and_the_next_starts_afresh(system_log):
    REGISTRY.write_bytes(b"")
    error_of(manager, "getSavedPrinters")
    assert "failed to remove the invalid database/var/lib/print/printers.db" in daemon_log()
    assert not REGISTRY.exists()
    assert manager("getSavedPrinters") == []


ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"


def test_printing_and_introspection_are_for_everyone(system_log):
    assert error_of(print_document, "/nonexistent/a.pdf", "Nobody", user=NOBODY).name == "ru.zorv.PrintingService.Error"
    assert call("org.freedesktop.DBus.Introspectable", "Introspect", user=NOBODY).startswith("<!DOCTYPE")


def test_only_root_may_own_the_service_name(system_log):
    error = error_of(call, "org.freedesktop.DBus", "RequestName", BUS_NAME, dbus.UInt32(0), user=NOBODY,
                     groups=[LPADMIN], destination="org.freedesktop.DBus", path="/org/freedesktop/DBus")
    assert error.name == ACCESS_DENIED
