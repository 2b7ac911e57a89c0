#pragma once

#include "printing/JobController.h"
#include "printing/SchedulerWatcher.h"
#include "support/Authorizer.h"
#include "support/WorkerPool.h"

#include <ru/zorv/PrintJobs_adaptor.h>

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <memory>

namespace Kestrel::Private {

class PrintController;

// ru.zorv.PrintJobs on the bus. Every call that waits on the scheduler or a
// printer is answered from a worker, so the bus thread never waits on one.
// Other users' jobs are for callers polkit allows to manage jobs.
class PrintJobsInterface : public sdbus::AdaptorInterfaces<ru::zorv::PrintJobs_adaptor> {
public:
    PrintJobsInterface(sdbus::IConnection& connection, std::string path, std::shared_ptr<PrintController> printing,
                       std::shared_ptr<Authorizer> authorizer);
    ~PrintJobsInterface();

    // Takes no more calls and refuses the waiting ones.
    void refuseCalls();
    // Waits for the running ones until the deadline; true when none is left.
    bool finishCalls(std::chrono::steady_clock::time_point deadline);
    void savedPrintersChanged();

private:
    using Dictionary = std::map<std::string, sdbus::Variant>;

    void submit(sdbus::Result<uint32_t>&& result, std::string path, std::string printer,
                std::map<std::string, std::string> parameters) override;
    void getJobs(sdbus::Result<std::vector<Dictionary>>&& result) override;
    void getJob(sdbus::Result<Dictionary>&& result, uint32_t job) override;
    void cancelJob(sdbus::Result<>&& result, uint32_t job) override;
    void getPrinterState(sdbus::Result<Dictionary>&& result, std::string printer) override;

    Caller caller();
    void emitJobChanged(const std::string& connection, const Job& job);
    void emitPrinterChanged(const std::string& printer, const PrinterStatus& state);

    std::shared_ptr<JobController> controller;
    std::shared_ptr<Authorizer> authorizer;
    SchedulerWatcher watcher;
    // The scheduler's own messages on the bus; gone before the watcher.
    sdbus::Slot schedulerMessages;
    // Asking a silent printer takes seconds; it must not hold up jobs.
    WorkerPool jobWorkers;
    WorkerPool printerWorkers;
};

} // namespace Kestrel::Private
