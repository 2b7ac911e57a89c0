// getPrinterAttributes, print, addPrinter and removePrinter over the bus
// against the same IPP requests sent in-process with libcups. Prints go to
// a paused queue, so neither the printer nor the filters are timed, and the
// queue's jobs are purged after each round. The only argument names the
// conditions (e.g. whether avahi-daemon runs).
#include "bench/Measure.h"
#include "bench/ServiceClient.h"
#include "bench/WorldGuard.h"
#include "cups/CupsRequestHandler.h"
#include "support/DatabaseManager.h"

#include <chrono>
#include <fcntl.h>
#include <sys/types.h>
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

// A small document, or one padded to `size` bytes (sparse, so writing it costs little).
std::string writeDocument(const std::string& name, off_t size = 0)
{
    const std::string path = std::string(std::getenv("KESTREL_WORLD_DIR")) + "/" + name + ".pdf";
    std::ofstream(path) << onePagePdf;
    if (size > 0 && ::truncate(path.c_str(), size) != 0)
        std::perror(path.c_str());
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

// Every job of the queue and its history, so each round meets the same
// scheduler: jobs left from earlier rounds would make each one slower.
void purgeJobs(CupsRequestHandler& handler, const std::string& queue)
{
    handler.prepareRequest(queue, IPP_OP_PURGE_JOBS);
    handler.executeAdminRequest();
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

// Print rounds of one document size to the paused queue: the service's print
// and the same two requests in-process, alternately, the jobs purged after
// each round.
void reportPrint(ServiceClient& client, CupsRequestHandler& admin, const std::string& queue,
                 const std::string& figure, off_t size, int rounds)
{
    CupsRequestHandler jobs;
    std::vector<double> print, printDirect;
    for (int round = 0; round < rounds; ++round) {
        // The service removes each document it has printed.
        const std::string path = writeDocument("bench-print", size);
        print.push_back(Measure::milliseconds([&] { client.print(path, "Bench"); }));
        writeDocument("bench-print", size);
        printDirect.push_back(Measure::milliseconds([&] { printDirectly(jobs, queue, path); }));
        ::unlink(path.c_str());
        purgeJobs(admin, queue);
    }
    Measure::report(figure, Measure::median(print), "Create-Job + Send-Document in-process",
                    Measure::median(printDirect));
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

    // Paused, so neither the printer nor the filters take part in what is timed.
    admin.prepareRequest(queue, IPP_OP_PAUSE_PRINTER);
    admin.executeAdminRequest();
    reportPrint(client, admin, queue, "print, small PDF, paused queue" + conditions, 0, 50);
    reportPrint(client, admin, queue, "print, 20 MB PDF, paused queue" + conditions, 20 << 20, 15);

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
