#include "printing/PrintJobsInterface.h"

#include "service/PooledCall.h"

namespace Kestrel::Private {

namespace {

const char* const Interface = "ru.zorv.PrintJobs";
const char* const ErrorName = "ru.zorv.PrintJobs.Error";
const char* const ManageJobs = "ru.zorv.print.manage-jobs";
constexpr size_t JobThreads = 2;
constexpr size_t JobBacklog = 64;
constexpr size_t PrinterThreads = 2;
constexpr size_t PrinterBacklog = 16;

std::map<std::string, sdbus::Variant> dictionary(const Job& job)
{
    return {{"id", sdbus::Variant(static_cast<uint32_t>(job.record.id))},
            {"printer", sdbus::Variant(job.record.printer)},
            {"document", sdbus::Variant(job.record.document)},
            {"state", sdbus::Variant(job.status.state)},
            {"reasons", sdbus::Variant(job.status.reasons)},
            {"pages", sdbus::Variant(job.status.pages)},
            {"created", sdbus::Variant(job.record.created)}};
}

// What the scheduler says on the bus of itself, whoever else may say it too.
const char* const SchedulerMessages =
    "type='signal',interface='com.redhat.PrinterSpooler',path='/com/redhat/PrinterSpooler'";

std::map<std::string, sdbus::Variant> dictionary(const PrinterStatus& state)
{
    std::vector<std::map<std::string, sdbus::Variant>> supplies;
    for (const auto& supply : state.supplies)
        supplies.push_back({{"name", sdbus::Variant(supply.name)},
                            {"kind", sdbus::Variant(supply.kind)},
                            {"color", sdbus::Variant(supply.color)},
                            {"level", sdbus::Variant(static_cast<int32_t>(supply.level))}});
    std::vector<std::map<std::string, sdbus::Variant>> trays;
    for (const auto& tray : state.trays)
        trays.push_back({{"name", sdbus::Variant(tray.name)},
                         {"media", sdbus::Variant(tray.media)},
                         {"level", sdbus::Variant(static_cast<int32_t>(tray.level))},
                         {"state", sdbus::Variant(tray.state)}});
    return {{"state", sdbus::Variant(state.state)},
            {"reasons", sdbus::Variant(state.reasons)},
            {"message", sdbus::Variant(state.message)},
            {"accepting", sdbus::Variant(state.accepting)},
            {"supplies", sdbus::Variant(supplies)},
            {"trays", sdbus::Variant(trays)}};
}

} // namespace

PrintJobsInterface::PrintJobsInterface(sdbus::IConnection& connection, std::string path,
                                       std::shared_ptr<PrintController> printing, std::shared_ptr<Authorizer> authorizer)
    : AdaptorInterfaces(connection, std::move(path))
    , controller(std::make_shared<JobController>(std::move(printing)))
    , authorizer(std::move(authorizer))
    , watcher(controller,
              [this](const std::string& connection, const Job& job) { emitJobChanged(connection, job); },
              [this](const std::string& printer, const PrinterStatus& state) { emitPrinterChanged(printer, state); })
    , schedulerMessages(getObject().getConnection().addMatch(SchedulerMessages,
                                                             [this](sdbus::Message& message) {
                                                                 // Every one of them names the queue first.
                                                                 std::string queue;
                                                                 try {
                                                                     message >> queue;
                                                                 } catch (const sdbus::Error&) {
                                                                     return;
                                                                 }
                                                                 watcher.queueTouched(queue);
                                                             }))
    , jobWorkers(JobThreads, JobBacklog)
    , printerWorkers(PrinterThreads, PrinterBacklog)
{
    registerAdaptor();
}

PrintJobsInterface::~PrintJobsInterface()
{
    refuseCalls();
    finishCalls(std::chrono::steady_clock::time_point::max());
    unregisterAdaptor();
}

void PrintJobsInterface::refuseCalls()
{
    const auto now = std::chrono::steady_clock::now();
    jobWorkers.stop(now);
    printerWorkers.stop(now);
}

bool PrintJobsInterface::finishCalls(std::chrono::steady_clock::time_point deadline)
{
    const bool jobsEnded = jobWorkers.stop(deadline);
    return printerWorkers.stop(deadline) && jobsEnded;
}

void PrintJobsInterface::savedPrintersChanged()
{
    watcher.savedPrintersChanged();
}

// Read on the bus thread, while the call is the one being processed; the
// bus library answers only its own error type for a handler that throws.
Caller PrintJobsInterface::caller()
{
    try {
        return Caller::ofCurrentCall(getObject());
    } catch (const std::exception& error) {
        throw sdbus::Error(ErrorName, error.what());
    }
}

void PrintJobsInterface::submit(sdbus::Result<uint32_t>&& result, std::string path, std::string printer,
                                std::map<std::string, std::string> parameters)
{
    PooledCall(jobWorkers, ErrorName).run(std::move(result), [this, who = caller(), path, printer, parameters] {
        const int id = controller->submit(who.credentials, path, printer, parameters);
        watcher.follow(id, who.sender);
        return static_cast<uint32_t>(id);
    });
}

// Asked for every caller but root, whoever's job it turns out to be, so an
// answer about another user's job takes no longer than one about none.
void PrintJobsInterface::getJobs(sdbus::Result<std::vector<Dictionary>>&& result)
{
    const auto who = caller();
    PooledCall(jobWorkers, ErrorName).runKnowing(std::move(result), *authorizer, who, ManageJobs,
                                                 [this, who](bool everyJob) {
        std::vector<Dictionary> jobs;
        for (const auto& job : controller->jobs(who.credentials, everyJob))
            jobs.push_back(dictionary(job));
        return jobs;
    });
}

void PrintJobsInterface::getJob(sdbus::Result<Dictionary>&& result, uint32_t job)
{
    const auto who = caller();
    PooledCall(jobWorkers, ErrorName).runKnowing(std::move(result), *authorizer, who, ManageJobs,
                                                 [this, who, job](bool everyJob) {
        return dictionary(controller->job(who.credentials, static_cast<int>(job), everyJob));
    });
}

void PrintJobsInterface::cancelJob(sdbus::Result<>&& result, uint32_t job)
{
    const auto who = caller();
    PooledCall(jobWorkers, ErrorName).runKnowing(std::move(result), *authorizer, who, ManageJobs,
                                                 [this, who, job](bool everyJob) {
        controller->cancel(who.credentials, static_cast<int>(job), everyJob);
        // The scheduler says nothing of a waiting job that ends.
        watcher.jobTouched(static_cast<int>(job));
    });
}

void PrintJobsInterface::getPrinterState(sdbus::Result<Dictionary>&& result, std::string printer)
{
    PooledCall(printerWorkers, ErrorName).run(std::move(result), [this, printer] {
        const auto [state, changed] = controller->printerState(printer);
        if (changed)
            emitPrinterChanged(printer, state);
        return dictionary(state);
    });
}

// Only the connection that submitted the job hears of it.
void PrintJobsInterface::emitJobChanged(const std::string& connection, const Job& job)
{
    auto& object = getObject();
    auto signal = object.createSignal(Interface, "jobChanged");
    signal << dictionary(job);
    signal.setDestination(connection);
    object.emitSignal(signal);
    BusEventLoop::messageSent();
}

void PrintJobsInterface::emitPrinterChanged(const std::string& printer, const PrinterStatus& state)
{
    emitPrinterStateChanged(printer, dictionary(state));
    BusEventLoop::messageSent();
}

} // namespace Kestrel::Private
