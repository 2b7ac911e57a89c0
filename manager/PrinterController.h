#pragma once

#include "cups/CupsInterface.h"
#include "cups/CupsRequestHandler.h"

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Kestrel::Private {

class CurlInterface;
class DatabaseManager;
class Uri;
class ServiceResolver;
class SystemInterface;
class SystemLogger;

// The logic behind ru.zorv.PrinterManager; owns the services it drives.
// The pointers are shared because the scan thread uses them too; each
// thread speaks to the scheduler through its own request handler.
class PrinterController {
public:
    PrinterController();
    PrinterController(std::shared_ptr<CupsInterface> cups,
                      std::shared_ptr<CurlInterface> curl,
                      std::shared_ptr<SystemInterface> system,
                      std::shared_ptr<SystemLogger> logger,
                      std::shared_ptr<DatabaseManager> database,
                      std::shared_ptr<ServiceResolver> resolver);

    void addPrinter(const std::string& uri, const std::string& name, const std::vector<std::string>& users);
    void removePrinter(const std::string& name);
    void renamePrinter(const std::string& oldName, const std::string& newName);
    AttributeMap getPrinterAttributes(const std::string& printerName);
    DeviceMap getAccessiblePrinters();
    std::vector<std::string> getSavedPrinters();

private:
    std::string ppdPath(const std::string& model);
    std::string queueDeviceUri(const std::string& uri, const Uri& parsed);
    void waitUntilSetUp(const std::string& cupsName);
    void waitUntilSettled(const std::string& cupsName);

    std::shared_ptr<CupsInterface> cups;
    std::shared_ptr<CurlInterface> curl;
    std::shared_ptr<SystemInterface> system;
    std::shared_ptr<SystemLogger> logger;
    std::shared_ptr<DatabaseManager> database;
    std::shared_ptr<ServiceResolver> resolver;
    // When each driverless queue added lately was seen set up.
    std::mutex setUpMutex;
    std::map<std::string, std::chrono::steady_clock::time_point> setUpTimes;
};

} // namespace Kestrel::Private
