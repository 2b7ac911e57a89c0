#pragma once

#include "manager/PrinterController.h"

#include <ru/zorv/PrinterManager_adaptor.h>

#include <atomic>
#include <sdbus-c++/sdbus-c++.h>

namespace Kestrel::Private {

// ru.zorv.PrinterManager on the bus: forwards to the controller, turns
// failures into the interface's error and emits the change signals.
class PrinterManagerInterface : public sdbus::AdaptorInterfaces<ru::zorv::PrinterManager_adaptor> {
public:
    PrinterManagerInterface(sdbus::IConnection& connection, std::string path);
    ~PrinterManagerInterface();

private:
    void addPrinter(const std::string& uri, const std::string& name, const std::vector<std::string>& users) override;
    void removePrinter(const std::string& name) override;
    void renamePrinter(const std::string& oldName, const std::string& newName) override;
    void setDefaultPrinter(const std::string& name) override;
    int32_t getPrinterStatus(const std::string& name) override;
    std::map<std::string, int32_t> getPrinterStatuses() override;
    std::vector<std::string> getSavedPrinters() override;
    void scan() override;
    void setDefaultSettings(const std::string& printerName,
                            const std::vector<sdbus::Struct<std::string, std::string>>& settings) override;
    void addUsers(const std::string& printerName, const std::vector<std::string>& users) override;
    void removeUsers(const std::string& printerName, const std::vector<std::string>& users) override;
    std::map<std::string, std::vector<std::string>> getPrinterAttributes(const std::string& printerName) override;

    void runScan();

    PrinterController controller;
    // Atomic so the scan thread and the bus thread never race on it.
    std::atomic<bool> scanIdle{true};
};

} // namespace Kestrel::Private
