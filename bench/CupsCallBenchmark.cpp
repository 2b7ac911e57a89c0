// getPrinterAttributes, print, addPrinter and removePrinter over the bus
// against the same IPP requests sent in-process with libcups. The only
// argument names the conditions (e.g. whether avahi-daemon runs).
#include "bench/Measure.h"
#include "bench/ServiceClient.h"
#include "bench/WorldGuard.h"
#include "cups/CupsRequestHandler.h"
#include "support/DatabaseManager.h"

#include <chrono>
#include <fcntl.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <unordered_set>

using namespace Kestrel::Bench;
using Kestrel::Private::CupsRequestHandler;
using Kestrel::Private::DatabaseManager;

namespace {

const std::unordered_set<std::string> capabilities = {
    "orientation-requested-supported", "media-supported", "print-color-mode-supported", "sides-supported"};

const char* const onePagePdf =
    "%PDF-1.4\n1 0 obj\n<< /Type /Catalog /Pages 2 0 R >>\nendobj\n"
    "2 0 obj\n<< /Type /Pages /Kids [3 0 R] /Count 1 >>\nendobj\n"
    "3 0 obj\n<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] >>\nendobj\n"
    "trailer\n<< /Root 1 0 R >>\n%%EOF\n";

std::string writeDocument(int index)
{
    const std::string path = std::string(std::getenv("KESTREL_WORLD_DIR")) + "/bench-" + std::to_string(index) + ".pdf";
    std::ofstream(path) << onePagePdf;
    return path;
}

// Not timed: the scheduler sets a driverless queue up in the background, and
// deleting it meanwhile can crash the scheduler.
void waitUntilReady(CupsRequestHandler& handler, const std::string& queue)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
        handler.prepareRequest(queue, IPP_OP_GET_PRINTER_ATTRIBUTES);
        handler.addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", {"printer-make-and-model"});
        handler.executeAdminRequest();
        const auto model = handler.getAttributes({"printer-make-and-model"})["printer-make-and-model"];
        if (model != std::vector<std::string>{"Local Raw Printer"})
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

// Jobs still being converted and sent would slow whatever is measured next.
void waitUntilNoJobs()
{
    if (std::system("for i in $(seq 600); do [ -z \"$(lpstat -o)\" ] && exit 0; sleep 0.1; done; exit 1") != 0)
        std::fprintf(stderr, "jobs still pending after a minute\n");
}

void addQueue(CupsRequestHandler& handler, const std::string& queue, const std::string& uri)
{
    handler.prepareRequest(queue, IPP_OP_CUPS_ADD_MODIFY_PRINTER);
    handler.addString(IPP_TAG_OPERATION, IPP_TAG_URI, "device-uri", uri);
    handler.addString(IPP_TAG_OPERATION, IPP_TAG_NAME, "printer-name", queue);
    handler.addString(IPP_TAG_OPERATION, IPP_TAG_NAME, "ppd-name", "everywhere");
    handler.executeAdminRequest();
    handler.prepareRequest(queue, IPP_OP_CUPS_ADD_MODIFY_PRINTER);
    handler.addBoolean(IPP_TAG_PRINTER, "printer-is-accepting-jobs", true);
    handler.addInteger(IPP_TAG_PRINTER, IPP_TAG_ENUM, "printer-state", IPP_PSTATE_IDLE);
    handler.executeAdminRequest();
}

// Create-Job and Send-Document as the printing service sends them.
void printDirectly(CupsRequestHandler& handler, const std::string& queue, const std::string& path)
{
    const int document = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    handler.prepareRequest(queue, IPP_OP_CREATE_JOB);
    handler.executePrintFileRequest(document);
    const int job = handler.getInteger("job-id");
    handler.prepareRequest(queue, IPP_OP_SEND_DOCUMENT);
    handler.addInteger(IPP_TAG_OPERATION, IPP_TAG_INTEGER, "job-id", job);
    handler.addString(IPP_TAG_OPERATION, IPP_TAG_MIMETYPE, "document-format", "application/pdf");
    handler.addBoolean(IPP_TAG_OPERATION, "last-document", true);
    handler.executePrintFileRequest(document);
    ::close(document);
}

} // namespace

int main(int argc, char* argv[])
{
    WorldGuard::require();
    const std::string conditions = argc > 1 ? std::string(" (") + argv[1] + ")" : "";
    const std::string uri = std::getenv("KESTREL_PRINTER_URI");
    ServiceClient client;
    DatabaseManager registry;
    CupsRequestHandler admin;
    admin.connect();

    client.addPrinter(uri, "Bench");
    const std::string queue = registry.getCupsName("Bench");
    waitUntilReady(admin, queue);

    const double attributes = Measure::medianMilliseconds(200, [&] { client.printerAttributes("Bench"); });
    const double attributesDirect = Measure::medianMilliseconds(200, [&] {
        admin.prepareRequest(queue, IPP_OP_GET_PRINTER_ATTRIBUTES);
        admin.addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", capabilities);
        admin.executeAdminRequest();
        admin.getAttributes(capabilities);
    });
    Measure::report("getPrinterAttributes" + conditions, attributes, "Get-Printer-Attributes in-process",
                    attributesDirect);

    CupsRequestHandler jobs;
    std::vector<double> print, printDirect;
    waitUntilNoJobs();
    for (int round = 0; round < 50; ++round) {
        // The service removes each document it has printed.
        const std::string path = writeDocument(round);
        print.push_back(Measure::milliseconds([&] { client.print(path, "Bench"); }));
        writeDocument(round);
        printDirect.push_back(Measure::milliseconds([&] { printDirectly(jobs, queue, path); }));
    }
    waitUntilNoJobs();
    Measure::report("print" + conditions, Measure::median(print), "Create-Job + Send-Document in-process",
                    Measure::median(printDirect));

    std::vector<double> add, remove, addDirect, addReadyDirect, removeDirect;
    for (int round = 0; round < 10; ++round) {
        const std::string name = "Bench " + std::to_string(round);
        add.push_back(Measure::milliseconds([&] { client.addPrinter(uri, name); }));
        waitUntilReady(admin, registry.getCupsName(name));
        remove.push_back(Measure::milliseconds([&] { client.removePrinter(name); }));

        const std::string direct = "bench-direct-" + std::to_string(round);
        addDirect.push_back(Measure::milliseconds([&] { addQueue(admin, direct, uri); }));
        addReadyDirect.push_back(addDirect.back() + Measure::milliseconds([&] { waitUntilReady(admin, direct); }));
        removeDirect.push_back(Measure::milliseconds([&] {
            admin.prepareRequest(direct, IPP_OP_CUPS_DELETE_PRINTER);
            admin.executeAdminRequest();
        }));
    }
    Measure::report("addPrinter" + conditions, Measure::median(add), "2 x CUPS-Add-Modify-Printer in-process",
                    Measure::median(addDirect));
    Measure::report("addPrinter" + conditions, Measure::median(add), "the same, then polled until ready",
                    Measure::median(addReadyDirect));
    Measure::report("removePrinter" + conditions, Measure::median(remove), "CUPS-Delete-Printer in-process",
                    Measure::median(removeDirect));
    client.removePrinter("Bench");
    return 0;
}
