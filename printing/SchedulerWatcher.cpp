#include "printing/SchedulerWatcher.h"

#include "support/Diagnostics.h"
#include "support/JobStore.h"
#include "support/WorkerPool.h"

#include <system_error>

namespace Kestrel::Private {

namespace {

// A flood of messages costs at most this many reads a second, and a real
// change still reaches its app well within a second.
constexpr auto ReadInterval = std::chrono::milliseconds(200);
// More distinct queue names than this between two reads is a flood: every
// followed job is read instead of remembering the names.
constexpr size_t TouchedQueuesBound = 64;
// With no job to follow and nothing said for this long, the thread ends: an
// idle daemon keeps neither its stack nor its scheduler connection.
constexpr auto IdleLimit = WorkerPool::DefaultIdleLimit;

} // namespace

SchedulerWatcher::SchedulerWatcher(std::shared_ptr<JobController> controller, JobChanged jobChanged,
                                   PrinterChanged printerChanged)
    : controller(std::move(controller))
    , jobChanged(std::move(jobChanged))
    , printerChanged(std::move(printerChanged))
{
    // The first read is what later changes are told against.
    touched.everything = true;
    std::lock_guard<std::mutex> lock(mutex);
    thread = std::thread([this] { run(); });
}

SchedulerWatcher::~SchedulerWatcher()
{
    std::thread last;
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
        last = std::move(thread);
    }
    wake.notify_all();
    if (last.joinable())
        last.join();
}

void SchedulerWatcher::queueTouched(const std::string& queue)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (touched.queues.size() < TouchedQueuesBound)
        touched.queues.insert(queue);
    else
        touched.everything = true;
    wakeUp();
}

void SchedulerWatcher::follow(int id, const std::string& connection)
{
    std::lock_guard<std::mutex> lock(mutex);
    followed[id].connection = connection;
    touched.jobs.insert(id);
    wakeUp();
}

void SchedulerWatcher::jobTouched(int id)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (!followed.count(id))
        return;
    touched.jobs.insert(id);
    wakeUp();
}

void SchedulerWatcher::savedPrintersChanged()
{
    std::lock_guard<std::mutex> lock(mutex);
    touched.printers = true;
    wakeUp();
}

void SchedulerWatcher::wakeUp()
{
    wake.notify_all();
    // A thread that ended while idle has let itself go.
    if (thread.joinable() || stopping)
        return;
    try {
        thread = std::thread([this] { run(); });
    } catch (const std::system_error& error) {
        // What was said stays noted for the next attempt.
        logError(std::string("cannot start following the scheduler: ") + error.what());
    }
}

void SchedulerWatcher::run()
{
    // Its scheduler connection and buffers go back to the system with it.
    WorkerPool::trimWhenThisThreadEnds();
    std::unique_lock<std::mutex> lock(mutex);
    auto lastRead = std::chrono::steady_clock::time_point{};
    while (true) {
        const auto news = [this] { return stopping || touched.any(); };
        if (!followed.empty()) {
            wake.wait(lock, news);
        } else if (!wake.wait_for(lock, IdleLimit, news)) {
            // Nobody waits for an idle daemon's thread to end; once the lock
            // is let go, nothing of this object is touched again.
            thread.detach();
            return;
        }
        if (stopping)
            return;
        // Only what anyone on the bus may say is held back; the service's
        // own callers are bounded by its workers, and a job may end within
        // the interval.
        const bool said = touched.everything || touched.printers || !touched.queues.empty();
        const bool due = !said || std::chrono::steady_clock::now() >= lastRead + ReadInterval;
        if (!due && touched.jobs.empty()) {
            wake.wait_until(lock, lastRead + ReadInterval, [this] { return stopping || !touched.jobs.empty(); });
            continue;
        }
        Touched now;
        if (due) {
            now = std::exchange(touched, Touched{});
            lastRead = std::chrono::steady_clock::now();
        } else {
            now.jobs = std::exchange(touched.jobs, {});
        }
        const auto snapshot = followed;
        lock.unlock();
        if (due && said)
            lookAtPrinters();
        const auto looked = lookAtJobs(snapshot, now);
        lock.lock();
        // Jobs added meanwhile stay; those looked at take their new state or go.
        for (const auto& [id, before] : snapshot) {
            const auto seen = looked.find(id);
            if (seen == looked.end())
                followed.erase(id);
            else
                followed[id] = seen->second;
        }
        // Nothing left to follow, so the store is not read again until a job comes.
        if (followed.empty())
            JobStore::closeThreadConnection();
    }
}

void SchedulerWatcher::lookAtPrinters()
{
    try {
        for (const auto& [printer, state] : controller->changedPrinters())
            printerChanged(printer, state);
    } catch (const std::exception&) {
        // The scheduler is away; its return brings messages of its own.
    }
}

std::map<int, SchedulerWatcher::Followed> SchedulerWatcher::lookAtJobs(std::map<int, Followed> jobs,
                                                                       const Touched& touched)
{
    for (auto it = jobs.begin(); it != jobs.end();) {
        auto& [id, seen] = *it;
        if (!touched.everything && seen.read && !touched.jobs.count(id) && !touched.queues.count(seen.queue)) {
            ++it;
            continue;
        }
        try {
            const auto job = controller->job(id);
            seen.queue = job.record.queue;
            if (job.status.state != seen.state || job.status.reasons != seen.reasons ||
                job.status.pages != seen.pages) {
                seen.state = job.status.state;
                seen.reasons = job.status.reasons;
                seen.pages = job.status.pages;
                jobChanged(seen.connection, job);
            }
            seen.read = true;
            it = job.ended() ? jobs.erase(it) : std::next(it);
        } catch (const std::exception& error) {
            logError("stopped following job " + std::to_string(id) + ": " + error.what());
            it = jobs.erase(it);
        }
    }
    return jobs;
}

} // namespace Kestrel::Private
