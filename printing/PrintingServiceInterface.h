#pragma once

#include "printing/PrintController.h"
#include "support/WorkerPool.h"

#include <ru/zorv/PrintingService_adaptor.h>

#include <chrono>
#include <memory>
#include <sdbus-c++/sdbus-c++.h>

namespace Kestrel::Private {

// ru.zorv.PrintingService on the bus. Prints run on workers side by side,
// each with its own scheduler connection.
class PrintingServiceInterface : public sdbus::AdaptorInterfaces<ru::zorv::PrintingService_adaptor> {
public:
    PrintingServiceInterface(sdbus::IConnection& connection, std::string path,
                             std::shared_ptr<PrintController> controller);
    ~PrintingServiceInterface();

    // Takes no more prints and refuses the waiting ones.
    void refuseCalls();
    // Waits for the running ones until the deadline; true when none is left.
    bool finishCalls(std::chrono::steady_clock::time_point deadline);

private:
    void print(sdbus::Result<>&& result, std::string path, std::string printer,
               std::map<std::string, std::string> parameters) override;

    std::shared_ptr<PrintController> controller;
    // Declared last, so its threads end before the controller goes. The
    // backlog matches `submit`'s, so a batch fits whichever method sends it.
    WorkerPool prints{3, 64};
};

} // namespace Kestrel::Private
