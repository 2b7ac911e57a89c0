#include "printing/JobController.h"

#include "printing/PrintController.h"
#include "support/CurlInterface.h"
#include "support/DatabaseManager.h"
#include "support/Uri.h"

#include <algorithm>
#include <stdexcept>

namespace Kestrel::Private {

namespace {

std::runtime_error noSuchJob(int id)
{
    return std::runtime_error("there is no job " + std::to_string(id));
}

// A printer the service can ask itself, by its address. One announced by
// DNS-SD is named by a service that only the scheduler's backends resolve,
// so its queue speaks for it.
bool isNetworkPrinter(const std::string& uri)
{
    if (uri.rfind("ipp://", 0) != 0 && uri.rfind("ipps://", 0) != 0)
        return false;
    try {
        return Uri(uri, std::make_shared<CurlInterface>()).serviceName().empty();
    } catch (const std::exception&) {
        return true;
    }
}

// The queue says whether jobs may go on, the printer itself what it lacks.
// What the printer said at an earlier read still tells its supplies, trays
// and needs, but not whether it is there or stopped now.
PrinterStatus merged(PrinterStatus queue, const PrinterStatus& device, bool fresh)
{
    if (fresh && (device.state == "offline" || device.state == "stopped"))
        queue.state = device.state;
    for (const auto& reason : device.reasons) {
        if ((fresh || reason != "offline-report") &&
            std::find(queue.reasons.begin(), queue.reasons.end(), reason) == queue.reasons.end())
            queue.reasons.push_back(reason);
    }
    if (fresh && queue.message.empty())
        queue.message = device.message;
    if (!device.supplies.empty())
        queue.supplies = device.supplies;
    queue.trays = device.trays;
    return queue;
}

} // namespace

bool Job::ended() const
{
    return status.state == "completed" || status.state == "canceled" || status.state == "aborted";
}

JobController::JobController(std::shared_ptr<PrintController> printing)
    : JobController(std::move(printing), std::make_shared<CupsJobs>(), std::make_shared<JobStore>(),
                    std::make_shared<DatabaseManager>())
{
}

JobController::JobController(std::shared_ptr<PrintController> printing, std::shared_ptr<CupsJobs> jobs,
                             std::shared_ptr<JobStore> store, std::shared_ptr<DatabaseManager> database)
    : printing(std::move(printing))
    , cupsJobs(std::move(jobs))
    , store(std::move(store))
    , database(std::move(database))
{
}

int JobController::submit(const CallerCredentials& caller, const std::string& path, const std::string& printer,
                          const std::map<std::string, std::string>& parameters)
{
    return printing->print(caller, path, printer, parameters);
}

std::vector<Job> JobController::jobs(const CallerCredentials& caller, bool everyJob)
{
    std::vector<Job> jobs;
    const auto owner = everyJob ? std::nullopt : std::optional<uid_t>(caller.uid);
    for (auto& record : store->list(owner)) {
        auto status = statusOf(record);
        jobs.push_back({std::move(record), std::move(status)});
    }
    return jobs;
}

Job JobController::job(const CallerCredentials& caller, int id, bool everyJob)
{
    auto record = store->find(id);
    // Decided before the scheduler is asked, so not even the time taken tells.
    if (!record || (record->owner != caller.uid && !everyJob))
        throw noSuchJob(id);
    auto status = statusOf(*record);
    return {std::move(*record), std::move(status)};
}

void JobController::cancel(const CallerCredentials& caller, int id, bool everyJob)
{
    const auto found = job(caller, id, everyJob);
    if (found.ended())
        throw std::runtime_error("job " + std::to_string(id) + " has already ended (" + found.status.state + ")");
    cupsJobs->cancel(found.record.queue, id);
}

std::pair<PrinterStatus, bool> JobController::printerState(const std::string& printer)
{
    const auto queue = database->getCupsName(printer);
    if (queue.empty())
        throw std::runtime_error("cups_name is empty");
    const auto read = startRead();
    const auto state = cupsJobs->queueStatus(queue);
    std::optional<PrinterStatus> device;
    if (isNetworkPrinter(state.deviceUri))
        device = cupsJobs->deviceStatus(state.deviceUri);
    return tell(queue, read, state, device, true);
}

std::map<std::string, PrinterStatus> JobController::changedPrinters()
{
    const auto read = startRead();
    const auto queues = cupsJobs->queueStatuses();
    const auto saved = database->getSavedQueues();
    std::map<std::string, PrinterStatus> changed;
    for (const auto& [queue, state] : queues) {
        // Unsaved queues too: a queue being added changes before it is saved.
        const auto name = saved.find(queue);
        const auto [now, differs] = tell(queue, read, state, std::nullopt, name != saved.end());
        if (differs)
            changed[name->second] = now;
    }
    std::lock_guard<std::mutex> lock(toldMutex);
    for (auto it = told.begin(); it != told.end();)
        it = queues.count(it->first) ? std::next(it) : told.erase(it);
    return changed;
}

uint64_t JobController::startRead()
{
    std::lock_guard<std::mutex> lock(toldMutex);
    return ++reads;
}

std::pair<PrinterStatus, bool> JobController::tell(const std::string& queue, uint64_t read, const PrinterStatus& state,
                                                   const std::optional<PrinterStatus>& device, bool saved)
{
    std::lock_guard<std::mutex> lock(toldMutex);
    auto& known = told[queue];
    // A read that overtook this one knows better.
    if (read > known.queueRead) {
        known.queueRead = read;
        known.queue = state;
    }
    // The printer's first word on its supplies and trays is news, not a change.
    const bool firstFromDevice = device && !known.device;
    if (device && read > known.deviceRead) {
        known.deviceRead = read;
        known.device = device;
    }
    auto now = known.device ? merged(known.queue, *known.device, device && known.deviceRead == read) : known.queue;
    const bool changed =
        known.told && known.saved && saved && !known.state.sameState(firstFromDevice ? known.queue : now);
    known.told = true;
    known.saved = saved;
    known.state = now;
    return {std::move(now), changed};
}

Job JobController::job(int id)
{
    auto record = store->find(id);
    if (!record)
        throw noSuchJob(id);
    auto status = statusOf(*record);
    return {std::move(*record), std::move(status)};
}

// The scheduler forgets ended jobs after a while; what it forgot had ended.
JobStatus JobController::statusOf(const JobRecord& record)
{
    try {
        return cupsJobs->jobStatus(record.queue, record.id);
    } catch (const std::exception&) {
        return {"completed", {"job-purged"}, 0};
    }
}

} // namespace Kestrel::Private
