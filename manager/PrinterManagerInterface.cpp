#include "manager/PrinterManagerInterface.h"

#include "support/Diagnostics.h"

#include <stdexcept>
#include <thread>

namespace Kestrel::Private {

namespace {

const char* const errorName = "ru.zorv.PrinterManager.Error";

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

PrinterManagerInterface::PrinterManagerInterface(sdbus::IConnection& connection, std::string path)
    : AdaptorInterfaces(connection, std::move(path))
{
    registerAdaptor();
}

PrinterManagerInterface::~PrinterManagerInterface()
{
    unregisterAdaptor();
}

void PrinterManagerInterface::addPrinter(const std::string& uri, const std::string& name,
                                         const std::vector<std::string>& users)
{
    translated([&] { controller.addPrinter(uri, name, users); });
    emitSavedPrintersChanged(controller.getSavedPrinters());
}

void PrinterManagerInterface::removePrinter(const std::string& name)
{
    translated([&] { controller.removePrinter(name); });
    emitSavedPrintersChanged(controller.getSavedPrinters());
}

void PrinterManagerInterface::renamePrinter(const std::string& oldName, const std::string& newName)
{
    translated([&] { controller.renamePrinter(oldName, newName); });
    emitSavedPrintersChanged(controller.getSavedPrinters());
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
    return translated([&] { return controller.getSavedPrinters(); });
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
    try {
        emitAccessiblePrintersChanged(controller.getAccessiblePrinters());
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

std::map<std::string, std::vector<std::string>> PrinterManagerInterface::getPrinterAttributes(
    const std::string& printerName)
{
    return translated([&] { return controller.getPrinterAttributes(printerName); });
}

} // namespace Kestrel::Private

