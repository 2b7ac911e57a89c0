#pragma once

#include "cups/CupsJobs.h"
#include "support/CallerCredentials.h"
#include "support/JobStore.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Kestrel::Private {

class DatabaseManager;
class PrintController;

// A job: whose and what, and where the scheduler has got with it.
struct Job {
    JobRecord record;
    JobStatus status;

    bool ended() const;
};

// The logic behind ru.zorv.PrintJobs. A caller sees only the jobs it sent
// itself, unless it may manage every user's jobs; any other job answers
// exactly like one that does not exist.
class JobController {
public:
    explicit JobController(std::shared_ptr<PrintController> printing);
    JobController(std::shared_ptr<PrintController> printing, std::shared_ptr<CupsJobs> jobs,
                  std::shared_ptr<JobStore> store, std::shared_ptr<DatabaseManager> database);

    int submit(const CallerCredentials& caller, const std::string& path, const std::string& printer,
               const std::map<std::string, std::string>& parameters);
    // `everyJob`: the caller may see and cancel other users' jobs.
    std::vector<Job> jobs(const CallerCredentials& caller, bool everyJob);
    Job job(const CallerCredentials& caller, int id, bool everyJob);
    void cancel(const CallerCredentials& caller, int id, bool everyJob);
    // The state, and whether it differs from the one last told of that printer.
    std::pair<PrinterStatus, bool> printerState(const std::string& printer);
    // Reads every queue of the scheduler; the saved printers whose state
    // differs from the one last told, by user name.
    std::map<std::string, PrinterStatus> changedPrinters();

    // For following a job, whoever sent it.
    Job job(int id);

private:
    // What was last told of a queue, from the scheduler and from the printer
    // itself; each part from the latest read that was started.
    struct Told {
        uint64_t queueRead = 0;
        PrinterStatus queue;
        uint64_t deviceRead = 0;
        std::optional<PrinterStatus> device;
        bool told = false;
        // Told while saved: a queue being set up changes before it is saved.
        bool saved = false;
        PrinterStatus state;
    };

    JobStatus statusOf(const JobRecord& record);
    // Reads started later get higher numbers.
    uint64_t startRead();
    // Takes in a read; the state to tell and whether it changed.
    std::pair<PrinterStatus, bool> tell(const std::string& queue, uint64_t read, const PrinterStatus& state,
                                        const std::optional<PrinterStatus>& device, bool saved);

    std::shared_ptr<PrintController> printing;
    std::shared_ptr<CupsJobs> cupsJobs;
    std::shared_ptr<JobStore> store;
    std::shared_ptr<DatabaseManager> database;
    std::mutex toldMutex;
    uint64_t reads = 0;
    // By queue, so a rename changes nothing.
    std::map<std::string, Told> told;
};

} // namespace Kestrel::Private
