"""What the daemon puts on the wire: every IPP request, with its groups, tags, order and document,
recorded by a small IPP server on port 631 that plays both the scheduler and a network printer."""
import socket
import struct
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

import pytest

from conftest import DAEMON_ENV, error_of, manager, print_document, stop_printer, wait_for, write_pdf

OPERATION, JOB, PRINTER = 1, 2, 4
INTEGER, BOOLEAN, ENUM, TEXT, NAME, KEYWORD, URI, CHARSET, LANGUAGE, MIME = \
    0x21, 0x22, 0x23, 0x41, 0x42, 0x44, 0x45, 0x47, 0x48, 0x49
GET_PRINTER_ATTRIBUTES, CREATE_JOB, SEND_DOCUMENT, CANCEL_JOB, ADD_MODIFY, DELETE, GET_DEVICES = \
    0xB, 5, 6, 8, 0x4003, 0x4004, 0x400B
CAPABILITIES = {"media-supported": ["iso_a4_210x297mm", "", "na_letter_8.5x11in"],
                "sides-supported": ["one-sided", ""], "print-color-mode-supported": ["monochrome"],
                "orientation-requested-supported": ["portrait"]}
DEVICES = [("usb://Maker/Model?serial=1", "Maker Model"), ("socket://127.0.0.1", "Wire Printer"),
           ("usb://Maker/Model?serial=1", "Second Report"), ("ipps://10.0.0.9/ipp/print", "Secure Printer")]
# Queue changes and queries go to the scheduler's administrative resource, jobs and printer probes to the print one.
RESOURCES = {ADD_MODIFY: "/admin/", DELETE: "/admin/", GET_PRINTER_ATTRIBUTES: "/admin/", CREATE_JOB: "/ipp/print",
             SEND_DOCUMENT: "/ipp/print", "probe": "/ipp/print"}


def decode(body):
    operation, request_id = struct.unpack(">xxHI", body[:8])
    attributes, group, i = [], None, 8

    def field():
        nonlocal i
        length = struct.unpack(">H", body[i:i + 2])[0]
        i += 2 + length
        return body[i - length:i]

    while body[i] != 3:
        tag, i = body[i], i + 1
        if tag < 0x10:
            group = tag
            continue
        name, raw = field().decode(), field()
        value = struct.unpack(">i", raw)[0] if tag in (INTEGER, ENUM) else bool(raw[0]) if tag == BOOLEAN \
            else raw.decode()
        if name in ("attributes-charset", "attributes-natural-language"):
            continue
        if name:
            attributes.append((group, tag, name, [value]))
        else:
            attributes[-1][3].append(value)
    return operation, request_id, attributes, body[i + 1:]


def encode(request_id, groups, status=0):
    out = struct.pack(">HHI", 0x0200, status, request_id)
    for group, attributes in [(OPERATION, [(CHARSET, "attributes-charset", ["utf-8"]),
                                           (LANGUAGE, "attributes-natural-language", ["en"])])] + groups:
        out += bytes([group])
        for tag, name, values in attributes:
            for index, value in enumerate(values):
                raw = struct.pack(">i", value) if tag in (INTEGER, ENUM) else value.encode()
                label = b"" if index else name.encode()
                out += bytes([tag]) + struct.pack(">H", len(label)) + label + struct.pack(">H", len(raw)) + raw
    return out + b"\x03"


class Recorder(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    requests, statuses, connections, misdirected = [], {}, [], []
    on_create = staticmethod(lambda: None)
    # Cleared, it holds the device listing (a slow backend) until set.
    devices_released = threading.Event()

    def log_message(self, *args):
        pass

    def setup(self):
        super().setup()
        Recorder.connections.append(self.connection)

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        operation, request_id, attributes, document = decode(body)
        Recorder.requests.append((operation, attributes, document))
        uri = next((values[0] for _, _, name, values in attributes if name == "printer-uri"), "")
        probe = operation == GET_PRINTER_ATTRIBUTES and not uri.startswith("ipp://localhost/printers/")
        if self.path != RESOURCES.get("probe" if probe else operation, self.path):
            Recorder.misdirected.append((operation, self.path))
        groups = []
        if operation == GET_PRINTER_ATTRIBUTES:
            printer = [(NAME, "printer-name", [uri.rsplit("/", 1)[-1]]),
                       (TEXT, "printer-make-and-model", ["Wire Printer"])]
            printer += [(KEYWORD, name, values) for name, values in CAPABILITIES.items()]
            groups = [(PRINTER, printer + [(KEYWORD, "ipp-versions-supported", ["1.1", "2.0"])])]
        elif operation == CREATE_JOB:
            Recorder.on_create()
            groups = [(JOB, [(INTEGER, "job-id", [7])])]
        elif operation == GET_DEVICES:
            Recorder.devices_released.wait(timeout=60)
            groups = [(PRINTER, [(KEYWORD, "device-class", ["network"]), (TEXT, "device-info", [info]),
                                 (TEXT, "device-make-and-model", [info]), (URI, "device-uri", [device]),
                                 (TEXT, "device-id", [""]), (TEXT, "device-location", [""])])
                      for device, info in DEVICES]
        reply = encode(request_id, groups, Recorder.statuses.get(operation, 0))
        self.send_response(200)
        self.send_header("Content-Type", "application/ipp")
        self.send_header("Content-Length", str(len(reply)))
        self.end_headers()
        self.wfile.write(reply)


@pytest.fixture
def recorder(system_log):
    stop_printer()
    server = ThreadingHTTPServer(("127.0.0.1", 631), Recorder)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    DAEMON_ENV.write_text("export CUPS_SERVER=127.0.0.1:631\n")
    Recorder.requests, Recorder.statuses, Recorder.connections, Recorder.misdirected = [], {}, [], []
    Recorder.on_create = lambda: None
    Recorder.devices_released.set()
    yield Recorder.requests
    Recorder.devices_released.set()
    server.shutdown()
    server.server_close()
    assert Recorder.misdirected == []


def sent(requests, operation):
    return [(attributes, document) for op, attributes, document in requests if op == operation]


def queue_uri(attributes):
    return next(values[0] for _, _, name, values in attributes if name == "printer-uri")


def addressed(queue):
    return [(OPERATION, URI, "printer-uri", [f"ipp://localhost/printers/{queue}"]),
            (OPERATION, NAME, "requesting-user-name", ["defaultuser"])]


def test_adding_and_removing_send_the_queue_definition_enabling_and_deletion(recorder):
    manager("addPrinter", "ipp://10.0.0.7/ipp/print", "Office", [])
    (define, _), (enable, _) = sent(recorder, ADD_MODIFY)
    queue = queue_uri(define).rsplit("/", 1)[-1]
    assert define == addressed(queue) + [(OPERATION, URI, "device-uri", ["ipp://10.0.0.7/ipp/print"]),
                                         (OPERATION, NAME, "printer-name", [queue]),
                                         (OPERATION, NAME, "ppd-name", ["everywhere"])]
    assert enable == addressed(queue) + [(PRINTER, BOOLEAN, "printer-is-accepting-jobs", [True]),
                                         (PRINTER, ENUM, "printer-state", [3])]
    manager("addPrinter", "socket://10.0.0.8:9100", "Raw", [])
    assert [name for _, _, name, _ in sent(recorder, ADD_MODIFY)[2][0]][-2:] == ["device-uri", "printer-name"]

    # A connection the scheduler closed between calls is opened afresh, never reused dead.
    for connection in Recorder.connections:
        try:
            connection.shutdown(socket.SHUT_WR)
        except OSError:
            pass
    manager("removePrinter", "Office")
    assert sent(recorder, DELETE) == [(addressed(queue), b"")]
    # A removal the scheduler refuses keeps the saved printer.
    Recorder.statuses[DELETE] = 0x0400
    assert error_of(manager, "removePrinter", "Raw").message.startswith("failed to execute request: ")
    assert manager("getSavedPrinters") == ["Raw"]


def test_attributes_ask_for_the_four_capabilities_and_split_their_values(recorder):
    manager("addPrinter", "ipp://10.0.0.7/ipp/print", "Office", [])
    del recorder[:]
    # Values travel as one text split at commas: an empty piece stays, a trailing one goes.
    assert manager("getPrinterAttributes", "Office") == dict(CAPABILITIES, **{"sides-supported": ["one-sided"]})
    queries = [attributes[-1] for attributes, _ in sent(recorder, GET_PRINTER_ATTRIBUTES)]
    (group, tag, name, values), = [query for query in queries if len(query[3]) == 4]
    assert (group, tag, name, sorted(values)) == (OPERATION, KEYWORD, "requested-attributes", sorted(CAPABILITIES))


def test_a_job_carries_the_options_as_keywords_then_the_document(recorder, documents):
    manager("addPrinter", "ipp://10.0.0.7/ipp/print", "Office", [])
    path = write_pdf(documents / "doc.pdf")
    content = path.read_bytes()
    # successful-ok-conflicting-attributes: the scheduler took the job, changing some option.
    Recorder.statuses[CREATE_JOB] = 0x0002
    print_document(path, "Office", {"sides": "two-sided-long-edge", "copies": "2"})
    (create, create_document), = sent(recorder, CREATE_JOB)
    queue = queue_uri(create).rsplit("/", 1)[-1]
    assert create == addressed(queue) + [(JOB, KEYWORD, "copies", ["2"]),
                                         (JOB, KEYWORD, "sides", ["two-sided-long-edge"]),
                                         (JOB, KEYWORD, "pdfAutoRotate", ["false"]),
                                         (JOB, KEYWORD, "pdftopdfAutoRotate", ["false"])]
    assert sent(recorder, SEND_DOCUMENT) == [(addressed(queue) + [
        (OPERATION, INTEGER, "job-id", [7]), (OPERATION, MIME, "document-format", ["application/pdf"]),
        (OPERATION, BOOLEAN, "last-document", [True])], content)]
    assert create_document == content and not path.exists()
    assert error_of(print_document, write_pdf(documents / "b.pdf"), "Office", {"zoom": "1"}).message.startswith(
        "Unknown option 'zoom'.")
    assert len(sent(recorder, CREATE_JOB)) == 1
    # A document gone between the two requests leaves no job behind.
    gone = write_pdf(documents / "gone.pdf")
    Recorder.on_create = gone.unlink
    assert error_of(print_document, gone, "Office").message == f"file {gone}doesn't exist."
    assert sent(recorder, CANCEL_JOB) == [(addressed(queue) + [(OPERATION, INTEGER, "job-id", [7])], b"")]


def test_scan_runs_one_discovery_probes_socket_devices_and_keeps_the_first_report_of_a_uri(recorder, signals):
    # The first discovery is held until the second call has been answered, so that call cannot come after it.
    Recorder.devices_released.clear()
    manager("scan")
    manager("scan")
    Recorder.devices_released.set()
    # The ipps device is listed as reported: a probe of its unreachable address would drop it.
    assert signals.wait("accessiblePrintersChanged", timeout=120) == {
        "usb://Maker/Model?serial=1": "Maker Model", "ipp://127.0.0.1": "Wire Printer",
        "ipps://10.0.0.9/ipp/print": "Secure Printer"}
    # The second call came while the first discovery ran, so the scheduler was asked once.
    assert not wait_for(lambda: len(sent(recorder, GET_DEVICES)) > 1, timeout=1)
    assert [attributes for attributes, _ in sent(recorder, GET_PRINTER_ATTRIBUTES)] == [
        [(OPERATION, URI, "printer-uri", ["ipp://127.0.0.1"]),
         (OPERATION, KEYWORD, "requested-attributes", ["ipp-versions-supported"])]]
