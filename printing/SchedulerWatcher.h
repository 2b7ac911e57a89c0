#pragma once

#include "printing/JobController.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace Kestrel::Private {

// Learns of changes of the saved printers and of submitted jobs when told
// that the scheduler changed something, and then reads what changed from
// the scheduler itself: anyone on the bus can send a message that looks
// like the scheduler's. Its thread waits without a time-out while it follows
// a job, ends a while after the last one when nothing is said, starts again
// when something is, and reads at most once per interval however much is said.
class SchedulerWatcher {
public:
    using JobChanged = std::function<void(const std::string& connection, const Job& job)>;
    using PrinterChanged = std::function<void(const std::string& printer, const PrinterStatus& state)>;

    SchedulerWatcher(std::shared_ptr<JobController> controller, JobChanged jobChanged, PrinterChanged printerChanged);
    ~SchedulerWatcher();
    SchedulerWatcher(const SchedulerWatcher&) = delete;
    SchedulerWatcher& operator=(const SchedulerWatcher&) = delete;

    // The scheduler may have changed this queue or its jobs.
    void queueTouched(const std::string& queue);
    void follow(int id, const std::string& connection);
    // A followed job was changed through the service itself.
    void jobTouched(int id);
    void savedPrintersChanged();

private:
    struct Followed {
        std::string connection;
        std::string queue;
        std::string state;
        std::vector<std::string> reasons;
        uint32_t pages = 0;
        bool read = false;
    };
    struct Touched {
        std::set<std::string> queues;
        std::set<int> jobs;
        bool printers = false;
        bool everything = false;

        bool any() const { return everything || printers || !queues.empty() || !jobs.empty(); }
    };
    void run();
    // With the mutex held: wakes the thread, or starts one when the last has ended.
    void wakeUp();
    void lookAtPrinters();
    // Reads the followed jobs that may have changed; drops those that ended.
    std::map<int, Followed> lookAtJobs(std::map<int, Followed> jobs, const Touched& touched);

    std::shared_ptr<JobController> controller;
    JobChanged jobChanged;
    PrinterChanged printerChanged;
    std::mutex mutex;
    std::condition_variable wake;
    Touched touched;
    std::map<int, Followed> followed;
    bool stopping = false;
    // Joinable while the thread runs its loop; one that ends while idle detaches itself.
    std::thread thread;
};

} // namespace Kestrel::Private
