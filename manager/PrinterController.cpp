#include "manager/PrinterController.h"

#include "support/CurlInterface.h"
#include "support/DatabaseManager.h"
#include "support/Diagnostics.h"
#include "support/ServiceResolver.h"
#include "support/SystemInterface.h"
#include "support/SystemLogger.h"
#include "support/Uri.h"
#include "support/UuidGenerator.h"

#include <algorithm>
#include <chrono>
#include <cctype>
#include <stdexcept>
#include <thread>
#include <unordered_set>

namespace Kestrel::Private {

namespace {

const char* const ppdDirectory = "/usr/share/cups/model/";

const std::unordered_set<std::string> capabilityAttributes = {
    "orientation-requested-supported",
    "media-supported",
    "print-color-mode-supported",
    "sides-supported",
};

const std::string makeAndModel = "printer-make-and-model";
const std::vector<std::string> rawPlaceholder = {"Local Raw Printer"};
constexpr auto setUpTimeout = std::chrono::seconds(30);
constexpr auto maxPause = std::chrono::milliseconds(200);
// How long the scheduler's set-up thread may still be at work on a queue
// after it looks set up.
constexpr auto settleTime = std::chrono::milliseconds(300);

std::string notFoundMessage(const std::string& name, const std::string& cupsName)
{
    return "printer with user_name '" + name + "' and cups_name '" + cupsName + "' doesn't exist.";
}

} // namespace

PrinterController::PrinterController()
    : PrinterController(std::make_shared<CupsInterface>(),
                        std::make_shared<CurlInterface>(),
                        std::make_shared<SystemInterface>(),
                        std::make_shared<SystemLogger>(),
                        std::make_shared<DatabaseManager>(),
                        std::make_shared<ServiceResolver>())
{
}

PrinterController::PrinterController(std::shared_ptr<CupsInterface> cups,
                                     std::shared_ptr<CurlInterface> curl,
                                     std::shared_ptr<SystemInterface> system,
                                     std::shared_ptr<SystemLogger> logger,
                                     std::shared_ptr<DatabaseManager> database,
                                     std::shared_ptr<ServiceResolver> resolver)
    : cups(std::move(cups))
    , curl(std::move(curl))
    , system(std::move(system))
    , logger(std::move(logger))
    , database(std::move(database))
    , resolver(std::move(resolver))
{
}

void PrinterController::addPrinter(const std::string& uri, const std::string& name,
                                   const std::vector<std::string>& users)
{
    auto& requestHandler = CupsRequestHandler::ofThisThread();
    logFailures([&] {
        const auto cupsName = UuidGenerator::generate();
        const Uri parsed(uri, curl);
        for (const auto& user : users) {
            if (!system->userExists(user))
                throw std::runtime_error("user " + user + " doesn't exists");
        }

        const auto deviceUri = queueDeviceUri(uri, parsed);

        requestHandler.connect();
        requestHandler.prepareRequest(cupsName, IPP_OP_CUPS_ADD_MODIFY_PRINTER);
        requestHandler.addString(IPP_TAG_OPERATION, IPP_TAG_URI, "device-uri", deviceUri);
        requestHandler.addString(IPP_TAG_OPERATION, IPP_TAG_NAME, "printer-name", cupsName);
        // Only plain ipp gets a driverless queue; ipps, dnssd and socket get no driver at all.
        if (parsed.protocol() == ProtocolIpp)
            requestHandler.addString(IPP_TAG_OPERATION, IPP_TAG_NAME, "ppd-name", "everywhere");
        else if (parsed.protocol() == ProtocolUsb)
            requestHandler.addString(IPP_TAG_OPERATION, IPP_TAG_NAME, "ppd-name", ppdPath(parsed.modelOrAddress()));
        requestHandler.executeAdminRequest();

        requestHandler.prepareRequest(cupsName, IPP_OP_CUPS_ADD_MODIFY_PRINTER);
        requestHandler.addBoolean(IPP_TAG_PRINTER, "printer-is-accepting-jobs", true);
        requestHandler.addInteger(IPP_TAG_PRINTER, IPP_TAG_ENUM, "printer-state", IPP_PSTATE_IDLE);
        requestHandler.executeAdminRequest();
        if (parsed.protocol() == ProtocolIpp)
            waitUntilSetUp(cupsName);

        database->insert(cupsName, name);
        logger->sendEvent("INFO_LEVEL", "printer-added", name);
    });
}

std::string PrinterController::ppdPath(const std::string& model)
{
    std::string file;
    for (char c : model) {
        if (c != '-')
            file += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    auto path = ppdDirectory + file + ".ppd";
    if (system->fileExists(path))
        return path;
    // The lookup reports its own failure; the add then reports it again.
    logError("no PPD file for printer " + model);
    throw std::runtime_error("no PPD file for printer " + model);
}

// A driverless queue for a DNS-SD service instance gets the instance's mDNS
// host name, port and resource instead: the scheduler would resolve the
// instance itself when it sets the queue up, keep the result in memory it
// does not own, and abort when the queue is deleted (cupsd 2.4.2). The host
// name still follows the printer to a new address.
std::string PrinterController::queueDeviceUri(const std::string& uri, const Uri& parsed)
{
    if (parsed.protocol() != ProtocolIpp || parsed.serviceName().empty())
        return uri;
    const auto& escaped = parsed.serviceName();
    return resolver->locate(curl->unescape(escaped.c_str(), escaped.size()), parsed.isSecureService());
}

// The scheduler sets a driverless queue up in the background: until then it
// is a raw placeholder without the printer's capabilities, and deleting it
// meanwhile can crash the scheduler. A printer that never answers keeps it
// raw for good, so the wait is bounded; a failed look also ends it.
void PrinterController::waitUntilSetUp(const std::string& cupsName)
{
    auto& requestHandler = CupsRequestHandler::ofThisThread();
    const auto deadline = std::chrono::steady_clock::now() + setUpTimeout;
    auto pause = std::chrono::milliseconds(5);
    try {
        for (;;) {
            requestHandler.prepareRequest(cupsName, IPP_OP_GET_PRINTER_ATTRIBUTES);
            requestHandler.addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", {makeAndModel});
            requestHandler.executeAdminRequest();
            if (requestHandler.getAttributes({makeAndModel})[makeAndModel] != rawPlaceholder) {
                const std::lock_guard lock(setUpMutex);
                const auto now = std::chrono::steady_clock::now();
                // Only recent ones matter.
                for (auto it = setUpTimes.begin(); it != setUpTimes.end();)
                    it = now - it->second > settleTime ? setUpTimes.erase(it) : std::next(it);
                setUpTimes[cupsName] = now;
                return;
            }
            if (std::chrono::steady_clock::now() + pause > deadline)
                return;
            std::this_thread::sleep_for(pause);
            pause = std::min(pause * 2, maxPause);
        }
    } catch (const std::exception&) {
    }
}

// The set-up thread announces the finished queue on the system bus just
// after the queue shows its driver. Deleting the queue meanwhile makes the
// scheduler announce a freed queue, and its bus library aborts the
// scheduler (cupsd 2.4.2 on the system bus); so a queue set up moments ago
// is given that moment first.
void PrinterController::waitUntilSettled(const std::string& cupsName)
{
    std::chrono::steady_clock::time_point settled;
    {
        const std::lock_guard lock(setUpMutex);
        const auto found = setUpTimes.find(cupsName);
        if (found == setUpTimes.end())
            return;
        settled = found->second + settleTime;
        setUpTimes.erase(found);
    }
    std::this_thread::sleep_until(settled);
}

void PrinterController::removePrinter(const std::string& name)
{
    auto& requestHandler = CupsRequestHandler::ofThisThread();
    logFailures([&] {
        const auto cupsName = database->getCupsName(name);
        if (!cups->destinationExists(cupsName))
            throw std::invalid_argument(notFoundMessage(name, cupsName));
        waitUntilSettled(cupsName);
        requestHandler.connect();
        requestHandler.prepareRequest(cupsName, IPP_OP_CUPS_DELETE_PRINTER);
        requestHandler.executeAdminRequest();
        database->remove(name);
        logger->sendEvent("INFO_LEVEL", "printer-removed", name);
    });
}

void PrinterController::renamePrinter(const std::string& oldName, const std::string& newName)
{
    if (oldName.empty() || newName.empty())
        throw std::invalid_argument("no old name or new name provided");
    logFailures([&] {
        if (oldName == newName) {
            logWarning("new name and old name match. Nothing to be done.");
            return;
        }
        database->rename(oldName, newName);
    });
}

AttributeMap PrinterController::getPrinterAttributes(const std::string& printerName)
{
    auto& requestHandler = CupsRequestHandler::ofThisThread();
    return logFailures([&] {
        const auto cupsName = database->getCupsName(printerName);
        if (!cups->destinationExists(cupsName))
            throw std::runtime_error(notFoundMessage(printerName, cupsName));
        requestHandler.connect();
        requestHandler.prepareRequest(cupsName, IPP_OP_GET_PRINTER_ATTRIBUTES);
        requestHandler.addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", capabilityAttributes);
        requestHandler.executeAdminRequest();
        return requestHandler.getAttributes(capabilityAttributes);
    });
}

DeviceMap PrinterController::getAccessiblePrinters()
{
    DeviceMap devices;
    try {
        devices = cups->getDevices();
    } catch (const std::exception& error) {
        logError(error.what());
        return {};
    }
    // A guard on what reaches clients, even though discovery filters already.
    for (auto it = devices.begin(); it != devices.end();) {
        if (Uri::hasSupportedPrefix(it->first))
            ++it;
        else
            it = devices.erase(it);
    }
    return devices;
}

std::vector<std::string> PrinterController::getSavedPrinters()
{
    return database->getUserNames();
}

} // namespace Kestrel::Private
