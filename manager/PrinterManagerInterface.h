#pragma once

#include "manager/PrinterController.h"
#include "support/Authorizer.h"
#include "support/WorkerPool.h"

#include <ru/zorv/PrinterManager_adaptor.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <sdbus-c++/sdbus-c++.h>

namespace Kestrel::Private {

// ru.zorv.PrinterManager on the bus: forwards to the controller, turns
// failures into the interface's error and emits the change signals. Calls
// that wait on a peer run on workers: changes one at a time in arrival
// order, attribute queries beside them. Changes are for callers polkit
// allows to manage printers.
class PrinterManagerInterface : public sdbus::AdaptorInterfaces<ru::zorv::PrinterManager_adaptor> {
public:
    PrinterManagerInterface(sdbus::IConnection& connection, std::string path,
                            std::shared_ptr<Authorizer> authorizer);
    ~PrinterManagerInterface();

    // Takes no more calls that wait on a peer and refuses the waiting ones.
    void refuseCalls();
    // Waits for the running ones until the deadline; true when none is left
    // and no scan runs.
    bool finishCalls(std::chrono::steady_clock::time_point deadline);
    // Called on a worker after each change of the saved printers; set
    // before the event loop runs.
    void whenSavedPrintersChange(std::function<void()> hook);

private:
    void addPrinter(sdbus::Result<>&& result, std::string uri, std::string name,
                    std::vector<std::string> users) override;
    void removePrinter(sdbus::Result<>&& result, std::string name) override;
    void renamePrinter(sdbus::Result<>&& result, std::string oldName, std::string newName) override;
    void setDefaultPrinter(const std::string& name) override;
    int32_t getPrinterStatus(const std::string& name) override;
    std::map<std::string, int32_t> getPrinterStatuses() override;
    std::vector<std::string> getSavedPrinters() override;
    void scan() override;
    void setDefaultSettings(const std::string& printerName,
                            const std::vector<sdbus::Struct<std::string, std::string>>& settings) override;
    void addUsers(const std::string& printerName, const std::vector<std::string>& users) override;
    void removeUsers(const std::string& printerName, const std::vector<std::string>& users) override;
    void getPrinterAttributes(sdbus::Result<std::map<std::string, std::vector<std::string>>>&& result,
                              std::string printerName) override;

    template <typename Work>
    void change(sdbus::Result<>&& result, Work work);
    void runScan();
    void emitSavedPrinters();

    PrinterController controller;
    std::shared_ptr<Authorizer> authorizer;
    std::function<void()> savedPrintersChanged;
    // Atomic so the scan thread and the bus thread never race on it.
    std::atomic<bool> scanIdle{true};
    // Declared last, so their threads end before what their work uses.
    WorkerPool changes{1, 32};
    WorkerPool reads{2, 32};
};

} // namespace Kestrel::Private
