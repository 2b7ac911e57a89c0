#pragma once

#include "printing/JobController.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace Kestrel::Private {

// Follows submitted jobs until they end, asking the scheduler a few times a
// second while (and only while) one is active; its thread starts with the
// first job followed and ends with the last, so an idle daemon keeps none.
// Reports changes of a job and of the queues it waits on.
class JobWatcher {
public:
    using JobChanged = std::function<void(const std::string& connection, const Job& job)>;
    using PrinterChanged = std::function<void(const std::string& printer, const PrinterStatus& state)>;

    JobWatcher(std::shared_ptr<JobController> controller, JobChanged jobChanged, PrinterChanged printerChanged);
    ~JobWatcher();
    JobWatcher(const JobWatcher&) = delete;
    JobWatcher& operator=(const JobWatcher&) = delete;

    void follow(int id, const std::string& connection);

private:
    struct Followed {
        std::string connection;
        std::string state;
        std::vector<std::string> reasons;
        uint32_t pages = 0;
    };
    void run();
    // One look at every followed job; false for those that ended.
    std::map<int, Followed> poll(std::map<int, Followed> followed);

    std::shared_ptr<JobController> controller;
    JobChanged jobChanged;
    PrinterChanged printerChanged;
    std::mutex mutex;
    std::condition_variable wake;
    std::map<int, Followed> followed;
    // Printer user name to its queue's last state, while a job waits on it.
    std::map<std::string, PrinterStatus> printers;
    bool stopping = false;
    bool running = false;
    std::thread thread;
};

} // namespace Kestrel::Private
