#include "manager/PrinterManagerInterface.h"

#include "service/BusMessageLimit.h"
#include "service/PooledCall.h"
#include "support/Diagnostics.h"

#include <stdexcept>
#include <thread>

namespace Kestrel::Private {

namespace {

const char* const errorName = "ru.zorv.PrinterManager.Error";
const char* const tooLongList = "the list of saved printers is too long for the bus";
const char* const ManagePrinters = "ru.zorv.print.manage-printers";

template <typename Body>
auto translated(Body&& body)
{
    try {
        return body();
    } catch (const std::exception& error) {
        throw sdbus::Error(errorName, error.what());
    }
}

} // namespace

PrinterManagerInterface::PrinterManagerInterface(sdbus::IConnection& connection, std::string path,
                                                 std::shared_ptr<Authorizer> authorizer)
    : AdaptorInterfaces(connection, std::move(path))
    , authorizer(std::move(authorizer))
{
    registerAdaptor();
}

PrinterManagerInterface::~PrinterManagerInterface()
{
    refuseCalls();
    finishCalls(std::chrono::steady_clock::time_point::max());
    unregisterAdaptor();
}

void PrinterManagerInterface::refuseCalls()
{
    const auto now = std::chrono::steady_clock::now();
    changes.stop(now);
    reads.stop(now);
}

bool PrinterManagerInterface::finishCalls(std::chrono::steady_clock::time_point deadline)
{
    const bool changesEnded = changes.stop(deadline);
    // A scan is not waited for: it may take minutes.
    return reads.stop(deadline) && changesEnded && scanIdle;
}

void PrinterManagerInterface::whenSavedPrintersChange(std::function<void()> hook)
{
    savedPrintersChanged = std::move(hook);
}

// On the changes worker right after the change: the list as it stood then.
void PrinterManagerInterface::emitSavedPrinters()
{
    const auto names = controller.getSavedPrinters();
    if (savedPrintersChanged)
        savedPrintersChanged();
    if (!fitsOnBus(wireSize(names)))
        return logWarning("savedPrintersChanged not sent: " + std::string(tooLongList));
    emitSavedPrintersChanged(names);
}

// On the bus thread: who asks is read while the call is the one processed.
template <typename Work>
void PrinterManagerInterface::change(sdbus::Result<>&& result, Work work)
{
    Caller caller;
    try {
        caller = Caller::ofCurrentCall(getObject());
    } catch (const std::exception& error) {
        return result.returnError(sdbus::Error(errorName, error.what()));
    }
    PooledCall(changes, errorName)
        .runAuthorized(std::move(result), *authorizer, caller, ManagePrinters,
                       std::string("permission denied: managing printers needs the ") + ManagePrinters +
                           " authorization",
                       [this, work] {
                           work();
                           emitSavedPrinters();
                       });
}

void PrinterManagerInterface::addPrinter(sdbus::Result<>&& result, std::string uri, std::string name,
                                         std::vector<std::string> users)
{
    change(std::move(result), [this, uri, name, users] { controller.addPrinter(uri, name, users); });
}

void PrinterManagerInterface::removePrinter(sdbus::Result<>&& result, std::string name)
{
    change(std::move(result), [this, name] { controller.removePrinter(name); });
}

void PrinterManagerInterface::renamePrinter(sdbus::Result<>&& result, std::string oldName, std::string newName)
{
    change(std::move(result), [this, oldName, newName] { controller.renamePrinter(oldName, newName); });
}

void PrinterManagerInterface::setDefaultPrinter(const std::string&)
{
    translated([] { throw std::logic_error("method not implemented."); });
}

int32_t PrinterManagerInterface::getPrinterStatus(const std::string&)
{
    return translated([]() -> int32_t { throw std::logic_error("method not implemented."); });
}

std::map<std::string, int32_t> PrinterManagerInterface::getPrinterStatuses()
{
    return translated([]() -> std::map<std::string, int32_t> { throw std::logic_error("method not implemented."); });
}

std::vector<std::string> PrinterManagerInterface::getSavedPrinters()
{
    return translated([&] {
        auto names = controller.getSavedPrinters();
        if (!fitsOnBus(wireSize(names)))
            throw std::length_error(tooLongList);
        return names;
    });
}

void PrinterManagerInterface::scan()
{
    // Claiming the flag here, not on the thread, keeps two quick calls from both starting a scan.
    bool idle = true;
    if (!scanIdle.compare_exchange_strong(idle, false))
        return;
    std::thread([this] { runScan(); }).detach();
}

void PrinterManagerInterface::runScan()
{
    WorkerPool::trimWhenThisThreadEnds();
    try {
        emitAccessiblePrintersChanged(controller.getAccessiblePrinters());
        BusEventLoop::messageSent();
    } catch (const std::exception& error) {
        // A lost signal must not take the daemon down with it.
        logError(error.what());
    }
    scanIdle = true;
}

void PrinterManagerInterface::setDefaultSettings(const std::string&,
                                                 const std::vector<sdbus::Struct<std::string, std::string>>&)
{
    translated([] { throw std::logic_error("method not implemented."); });
}

void PrinterManagerInterface::addUsers(const std::string&, const std::vector<std::string>&)
{
    translated([] { throw std::logic_error("method not implemented"); });
}

void PrinterManagerInterface::removeUsers(const std::string&, const std::vector<std::string>&)
{
    translated([] { throw std::logic_error("method not implemented"); });
}

void PrinterManagerInterface::getPrinterAttributes(
    sdbus::Result<std::map<std::string, std::vector<std::string>>>&& result, std::string printerName)
{
    PooledCall(reads, errorName).run(std::move(result),
                                     [this, printerName] { return controller.getPrinterAttributes(printerName); });
}

} // namespace Kestrel::Private

