#include "printing/PrintController.h"

#include "cups/CupsInterface.h"
#include "cups/CupsJobs.h"
#include "cups/CupsRequestHandler.h"
#include "printing/PrintOptions.h"
#include "support/DatabaseManager.h"
#include "support/Diagnostics.h"
#include "support/JobStore.h"
#include "support/SystemInterface.h"
#include "support/UuidGenerator.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <functional>
#include <set>
#include <stdexcept>

namespace Kestrel::Private {

namespace {

bool isAscii(const std::string& text)
{
    return std::none_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) & 0x80; });
}

struct Finally {
    std::function<void()> run;
    ~Finally() { run(); }
};

} // namespace

PrintController::PrintController()
    : PrintController(std::make_shared<CupsInterface>(),
                      std::make_shared<SystemInterface>(),
                      std::make_shared<DatabaseManager>())
{
}

PrintController::PrintController(std::shared_ptr<CupsInterface> cups,
                                 std::shared_ptr<SystemInterface> system,
                                 std::shared_ptr<DatabaseManager> database)
    : cups(std::move(cups))
    , system(std::move(system))
    , database(std::move(database))
    , jobs(std::make_shared<CupsJobs>())
    , store(std::make_shared<JobStore>())
{
}

int PrintController::print(const CallerCredentials& caller, const std::string& path, const std::string& printer,
                           const std::map<std::string, std::string>& parameters)
{
    auto copy = copyIfNotAscii(caller, path);
    const auto cupsName = database->getCupsName(printer);

    // Every check on the document is made here, before anything reaches CUPS.
    const auto document = copy ? std::move(*copy) : logFailures([&] { return system->openDocument(caller, path); });
    reserveSlot(caller.uid);
    int jobId = 0;
    try {
        jobId = createJob(document, cupsName, parameters);
    } catch (...) {
        releaseSlot(caller.uid);
        throw;
    }
    try {
        const auto name = std::filesystem::path(path).filename().string();
        recordJob({jobId, caller.uid, cupsName, printer, name, std::time(nullptr)});
        sendDocument(caller, document, cupsName, jobId);
    } catch (...) {
        // A job without its document would wait in the scheduler for ever.
        cancelQuietly(cupsName, jobId);
        throw;
    }
    // A submitted document does not outlive the call, whether the caller's or our copy.
    system->removeDocument(caller, document);
    return jobId;
}

// Counted from the scheduler's own list, so jobs of earlier runs count too.
// Taken under a lock and held until the job is in the store: however fast
// the calls come, none slips past the limit, and none is counted twice.
void PrintController::reserveSlot(uid_t owner)
{
    std::lock_guard<std::mutex> lock(slotMutex);
    if (starting[owner] + possiblyActive(owner) >= ActiveJobsPerCaller)
        recount(owner);
    if (starting[owner] + possiblyActive(owner) >= ActiveJobsPerCaller)
        throw std::runtime_error("too many active print jobs: a user may have at most " +
                                 std::to_string(ActiveJobsPerCaller) +
                                 " jobs waiting or printing; wait for some to end or cancel them");
    ++starting[owner];
}

size_t PrintController::possiblyActive(uid_t owner) const
{
    const auto known = unfinished.find(owner);
    return known != unfinished.end() ? known->second.size() : store->count(owner);
}

void PrintController::recount(uid_t owner)
{
    std::set<int> active;
    try {
        active = jobs->activeJobIds();
    } catch (const std::exception&) {
        // A scheduler that cannot be asked refuses the job itself, with its own message.
    }
    auto& counted = unfinished[owner];
    counted.clear();
    for (const auto& job : store->list(owner)) {
        if (active.count(job.id))
            counted.insert(job.id);
    }
}

void PrintController::releaseSlot(uid_t owner)
{
    std::lock_guard<std::mutex> lock(slotMutex);
    freeSlot(owner);
}

// The slot becomes the stored job in one step, so no reservation sees both.
void PrintController::recordJob(const JobRecord& job)
{
    std::lock_guard<std::mutex> lock(slotMutex);
    const Finally release{[&] { freeSlot(job.owner); }};
    store->add(job);
    if (const auto known = unfinished.find(job.owner); known != unfinished.end())
        known->second.insert(job.id);
}

void PrintController::freeSlot(uid_t owner)
{
    if (--starting[owner] == 0)
        starting.erase(owner);
}

void PrintController::cancelQuietly(const std::string& cupsName, int jobId)
{
    try {
        jobs->cancel(cupsName, jobId);
    } catch (const std::exception& error) {
        logError("failed to cancel job " + std::to_string(jobId) + ": " + error.what());
    }
}

std::optional<Document> PrintController::copyIfNotAscii(const CallerCredentials& caller, const std::string& path)
{
    if (isAscii(path))
        return std::nullopt;
    // Non-ASCII names are printed from an ASCII-named copy beside the original.
    const auto name = UuidGenerator::generate() + std::filesystem::path(path).extension().string();
    return system->copyDocument(caller, path, name);
}

int PrintController::createJob(const Document& document, const std::string& cupsName,
                               const std::map<std::string, std::string>& options)
{
    return logFailures([&] {
        const auto queue = cups->queueCondition(cupsName);
        if (!queue.exists)
            throw std::runtime_error("printer " + cupsName + " doesn't exist.");
        PrintOptions::check(options);
        if (queue.stoppedByScheduler)
            restart(cupsName);
        auto& requestHandler = CupsRequestHandler::ofThisThread();
        requestHandler.prepareRequest(cupsName, IPP_OP_CREATE_JOB);
        PrintOptions::addTo(requestHandler, options);
        requestHandler.executePrintFileRequest(document.file());
        return requestHandler.getInteger("job-id");
    });
}

// The scheduler stops a queue when its printer vanishes in the middle of a
// document (the backend asks for it, whatever the error policy) and nothing
// else restarts it. Resuming here also heals queues made before; a queue an
// administrator paused stays paused (queueCondition).
void PrintController::restart(const std::string& cupsName)
{
    try {
        cups->resume(cupsName);
    } catch (const std::exception& error) {
        throw std::runtime_error("printer " + cupsName + " is stopped and could not be restarted: " + error.what());
    }
}

void PrintController::sendDocument(const CallerCredentials& caller, const Document& document,
                                   const std::string& cupsName, int jobId)
{
    logFailures([&] {
        if (!system->documentExists(caller, document))
            throw std::runtime_error("file " + document.path() + "doesn't exist.");
        auto& requestHandler = CupsRequestHandler::ofThisThread();
        requestHandler.prepareRequest(cupsName, IPP_OP_SEND_DOCUMENT);
        requestHandler.addInteger(IPP_TAG_OPERATION, IPP_TAG_INTEGER, "job-id", jobId);
        requestHandler.addString(IPP_TAG_OPERATION, IPP_TAG_MIMETYPE, "document-format", "application/pdf");
        requestHandler.addBoolean(IPP_TAG_OPERATION, "last-document", true);
        try {
            // The descriptor opened with the caller's rights, never the path again.
            requestHandler.executePrintFileRequest(document.file());
        } catch (const std::exception&) {
            // The queue was just there for Create-Job, so it is asked about
            // only when the scheduler refuses: a queue gone meanwhile is
            // named as such, any other refusal keeps the scheduler's words.
            if (!cups->destinationExists(cupsName))
                throw std::runtime_error("printer " + cupsName + " doesn't exist.");
            throw;
        }
    });
}

} // namespace Kestrel::Private
