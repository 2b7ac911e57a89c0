#include "cups/CupsInterface.h"

#include "cups/CupsRequestHandler.h"
#include "cups/DeviceProber.h"
#include "support/CurlInterface.h"
#include "support/Uri.h"

#include <cups/adminutil.h>
#include <cups/cups.h>

#include <map>
#include <memory>
#include <stdexcept>
#include <vector>

namespace Kestrel::Private {

namespace {

// One device as discovery reported it; network devices are listed under the
// IPP URI their probe finds, announced printers under their service name, the
// others under their own URI.
struct ReportedDevice {
    std::string uri;
    std::string makeAndModel;
    bool needsProbe;
    // For announced printers: the instance name and whether it was an
    // "_ipps" report.
    std::string serviceName;
    bool secureService;
};

// What discovery has reported so far, the network devices among it already
// being probed.
struct Discovery {
    std::vector<ReportedDevice> reports;
    DeviceProber prober;
};

void addReport(Discovery& discovery, const std::string& uri, const std::string& makeAndModel)
{
    if (makeAndModel == "Unknown" || !Uri::hasSupportedPrefix(uri))
        return;
    Uri parsed(uri, std::make_shared<CurlInterface>());
    const int32_t protocol = parsed.protocol();
    const bool direct = protocol == ProtocolUsb || protocol == ProtocolIpp || protocol == ProtocolIpps;
    const bool announced = !parsed.serviceName().empty();
    const bool needsProbe = !direct && !announced;
    discovery.reports.push_back({uri, makeAndModel, needsProbe, parsed.serviceName(), parsed.isSecureService()});
    // Probed at once, while discovery goes on (a DNS-SD browse takes
    // seconds): a scan then waits for the longer of the two, not both.
    if (needsProbe)
        discovery.prober.probe(discovery.reports.size() - 1, uri);
}

// Announced printers under an "ipp" URI, so that adding one gives a driverless
// queue. The scheduler resolves the name at print time, so the queue follows
// the printer to a new address. A printer heard of only under "_ipps" keeps
// that service: it may not offer the plain one.
void nameAnnouncedPrinters(const std::vector<ReportedDevice>& reports, std::vector<std::string>& keys)
{
    std::map<std::string, bool> onlySecure;
    for (const auto& report : reports) {
        if (!report.serviceName.empty())
            onlySecure.emplace(report.serviceName, true).first->second &= report.secureService;
    }
    for (size_t i = 0; i < reports.size(); ++i) {
        const std::string& name = reports[i].serviceName;
        if (!name.empty())
            keys[i] = "ipp://" + name + (onlySecure[name] ? "._ipps" : "._ipp") + "._tcp.local/";
    }
}

void visitDevice(const char* /*deviceClass*/, const char* /*deviceId*/, const char* /*deviceInfo*/,
                 const char* makeAndModel, const char* uri, const char* /*location*/, void* context)
{
    if (!makeAndModel || !uri)
        return;
    // Nothing may unwind through the library's frames: a device that fails
    // to parse is simply left out.
    try {
        addReport(*static_cast<Discovery*>(context), uri, makeAndModel);
    } catch (...) {
    }
}

} // namespace

bool CupsInterface::destinationExists(std::string_view cupsName)
{
    return queueCondition(cupsName).exists;
}

CupsInterface::QueueCondition CupsInterface::queueCondition(std::string_view cupsName)
{
    if (cupsName.empty())
        throw std::runtime_error("cups_name is empty");
    // One question to the scheduler about its own queue: enumerating
    // destinations would also browse the network for printers. Asked over
    // the thread's connection, which the call's other requests use too.
    auto& handler = CupsRequestHandler::ofThisThread();
    try {
        handler.prepareRequest(std::string(cupsName), IPP_OP_GET_PRINTER_ATTRIBUTES);
        handler.addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes",
                           {"printer-name", "printer-state", "printer-state-message"});
        handler.executeAdminRequest();
        auto attributes = handler.getAttributes({"printer-name", "printer-state"});
        // The scheduler's own lookup ignores letter case.
        const bool exists = attributes["printer-name"] == std::vector<std::string>{std::string(cupsName)};
        // The scheduler's own text for a pause asked for without a reason
        // (cupsdisable); a backend that stops the queue leaves its own message.
        const bool stopped = attributes["printer-state"] == std::vector<std::string>{"stopped"} &&
                             handler.getText("printer-state-message") != "Paused";
        return {exists, exists && stopped};
    } catch (const std::exception&) {
        return {};
    }
}

DeviceMap CupsInterface::getDevices()
{
    Discovery discovery;
    // Deprecated in libcups but still the scheduler's device listing.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    ipp_status_t status = cupsGetDevices(CUPS_HTTP_DEFAULT, 10000, nullptr, nullptr, visitDevice, &discovery);
#pragma GCC diagnostic pop
    if (status != IPP_STATUS_OK)
        throw std::runtime_error(cupsErrorText());

    const auto& reports = discovery.reports;
    auto answers = discovery.prober.answers();
    std::vector<std::string> keys(reports.size());
    for (size_t i = 0; i < reports.size(); ++i)
        keys[i] = reports[i].needsProbe ? std::move(answers[i]) : reports[i].uri;
    nameAnnouncedPrinters(reports, keys);
    // Filled in report order, so the first report of a URI wins whatever
    // order the probes ended in.
    DeviceMap devices;
    for (size_t i = 0; i < reports.size(); ++i) {
        if (!keys[i].empty())
            devices.emplace(keys[i], reports[i].makeAndModel);
    }
    return devices;
}

void CupsInterface::resume(std::string_view cupsName)
{
    auto& handler = CupsRequestHandler::ofThisThread();
    handler.prepareRequest(std::string(cupsName), IPP_OP_RESUME_PRINTER);
    handler.executeAdminRequest();
}

} // namespace Kestrel::Private
