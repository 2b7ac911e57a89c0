#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Kestrel::Private {

// A job as the scheduler sees it now.
struct JobStatus {
    std::string state;
    std::vector<std::string> reasons;
    uint32_t pages = 0;
};

// Toner, ink or a waste box; level in percent, -1 when unknown.
struct Supply {
    std::string name;
    std::string kind;
    std::string color;
    int level = -1;

    bool operator==(const Supply& other) const;
};

// A paper tray; level in percent, -1 when unknown; state "ok", "low" or "empty".
struct Tray {
    std::string name;
    std::string media;
    int level = -1;
    std::string state;

    bool operator==(const Tray& other) const;
};

// A queue, or the printer behind it, as it reports itself now.
struct PrinterStatus {
    std::string state;
    std::vector<std::string> reasons;
    std::string message;
    bool accepting = false;
    std::string deviceUri;
    std::vector<Supply> supplies;
    std::vector<Tray> trays;

    // What a person would notice; the message alone changes with every
    // step of a job.
    bool sameState(const PrinterStatus& other) const;
};

// Jobs and printer states through IPP; any thread may call it. What a print
// asks goes over the calling thread's scheduler connection; what the job
// watcher asks, over a connection of its own for each call, so that none
// stays open between jobs.
class CupsJobs {
public:
    virtual ~CupsJobs() = default;

    // The ids of every job the scheduler has not ended.
    virtual std::set<int> activeJobIds();
    // Throws when the scheduler no longer knows the job.
    virtual JobStatus jobStatus(const std::string& queue, int id);
    virtual void cancel(const std::string& queue, int id);
    virtual PrinterStatus queueStatus(const std::string& queue);
    // Every queue of the scheduler, by name, in one request.
    virtual std::map<std::string, PrinterStatus> queueStatuses();
    // Asks an IPP printer itself, within a few seconds; a printer that
    // does not answer in time reads "offline".
    virtual PrinterStatus deviceStatus(const std::string& uri);
};

} // namespace Kestrel::Private
