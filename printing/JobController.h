#pragma once

#include "cups/CupsJobs.h"
#include "support/CallerCredentials.h"
#include "support/JobStore.h"

#include <map>
#include <memory>
#include <mutex>
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
    // The state, and whether it differs from the one last read of that printer.
    std::pair<PrinterStatus, bool> printerState(const std::string& printer);

    // For following a job, whoever sent it.
    Job job(int id);
    PrinterStatus queueState(const std::string& queue);

private:
    JobStatus statusOf(const JobRecord& record);

    std::shared_ptr<PrintController> printing;
    std::shared_ptr<CupsJobs> cupsJobs;
    std::shared_ptr<JobStore> store;
    std::shared_ptr<DatabaseManager> database;
    std::mutex knownMutex;
    std::map<std::string, PrinterStatus> known;
};

} // namespace Kestrel::Private
