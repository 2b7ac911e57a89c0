#include "printing/JobWatcher.h"

#include "support/Diagnostics.h"
#include "support/WorkerPool.h"

#include <chrono>

namespace Kestrel::Private {

namespace {

// Well within the second a change may take to reach its app.
constexpr auto PollInterval = std::chrono::milliseconds(300);

} // namespace

JobWatcher::JobWatcher(std::shared_ptr<JobController> controller, JobChanged jobChanged,
                       PrinterChanged printerChanged)
    : controller(std::move(controller))
    , jobChanged(std::move(jobChanged))
    , printerChanged(std::move(printerChanged))
{
}

JobWatcher::~JobWatcher()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    wake.notify_all();
    if (thread.joinable())
        thread.join();
}

void JobWatcher::follow(int id, const std::string& connection)
{
    std::lock_guard<std::mutex> lock(mutex);
    followed[id].connection = connection;
    if (running || stopping)
        return;
    // A thread that ended unlocks the mutex last, so it is gone or about to be.
    if (thread.joinable())
        thread.join();
    running = true;
    thread = std::thread([this] { run(); });
}

void JobWatcher::run()
{
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopping && !followed.empty()) {
        const auto snapshot = followed;
        lock.unlock();
        const auto looked = poll(snapshot);
        lock.lock();
        // Jobs added meanwhile stay; those looked at take their new state or go.
        for (const auto& [id, before] : snapshot) {
            const auto seen = looked.find(id);
            if (seen == looked.end())
                followed.erase(id);
            else
                followed[id] = seen->second;
        }
        wake.wait_for(lock, PollInterval, [this] { return stopping; });
    }
    printers.clear();
    running = false;
    WorkerPool::trimWhenThisThreadEnds();
}

std::map<int, JobWatcher::Followed> JobWatcher::poll(std::map<int, Followed> jobs)
{
    std::map<std::string, std::string> queues;
    for (auto it = jobs.begin(); it != jobs.end();) {
        auto& [id, seen] = *it;
        try {
            const auto job = controller->job(id);
            queues[job.record.printer] = job.record.queue;
            if (job.status.state != seen.state || job.status.reasons != seen.reasons ||
                job.status.pages != seen.pages) {
                seen.state = job.status.state;
                seen.reasons = job.status.reasons;
                seen.pages = job.status.pages;
                jobChanged(seen.connection, job);
            }
            it = job.ended() ? jobs.erase(it) : std::next(it);
        } catch (const std::exception& error) {
            logError("stopped following job " + std::to_string(id) + ": " + error.what());
            it = jobs.erase(it);
        }
    }
    for (const auto& [printer, queue] : queues) {
        try {
            const auto state = controller->queueState(queue);
            const auto before = printers.find(printer);
            if (before != printers.end() && before->second != state)
                printerChanged(printer, state);
            printers[printer] = state;
        } catch (const std::exception&) {
            // The next look tries again; a missing queue ends its jobs soon.
        }
    }
    return jobs;
}

} // namespace Kestrel::Private
