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

// The queue says whether jobs may go on; the printer itself what it lacks.
PrinterStatus merged(PrinterStatus queue, const PrinterStatus& device)
{
    if (device.state == "offline" || queue.state != "stopped")
        queue.state = device.state;
    for (const auto& reason : device.reasons) {
        if (std::find(queue.reasons.begin(), queue.reasons.end(), reason) == queue.reasons.end())
            queue.reasons.push_back(reason);
    }
    if (queue.message.empty())
        queue.message = device.message;
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
    auto state = cupsJobs->queueStatus(queue);
    if (isNetworkPrinter(state.deviceUri))
        state = merged(std::move(state), cupsJobs->deviceStatus(state.deviceUri));
    std::lock_guard<std::mutex> lock(knownMutex);
    const auto before = known.find(printer);
    const bool changed = before != known.end() && before->second != state;
    known[printer] = state;
    return {state, changed};
}

Job JobController::job(int id)
{
    auto record = store->find(id);
    if (!record)
        throw noSuchJob(id);
    auto status = statusOf(*record);
    return {std::move(*record), std::move(status)};
}

PrinterStatus JobController::queueState(const std::string& queue)
{
    return cupsJobs->queueStatus(queue);
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
