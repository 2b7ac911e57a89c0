#pragma once

#include "support/CallerCredentials.h"
#include "support/Document.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace Kestrel::Private {

class CupsInterface;
class CupsJobs;
class JobStore;
struct JobRecord;
class DatabaseManager;
class SystemInterface;

// The logic behind ru.zorv.PrintingService: one PDF document becomes one
// CUPS job on the queue the registry names. The document is read, copied
// and removed only with the rights of the caller who asked. Shared by every
// interface that prints, so that they keep one limit and one record of owners.
// Jobs are sent side by side, each over its own thread's scheduler
// connection, so the two requests of one job never interleave with another's.
class PrintController {
public:
    // Enough for any person; far below the scheduler's own 500 for everyone.
    static constexpr size_t ActiveJobsPerCaller = 50;

    PrintController();
    PrintController(std::shared_ptr<CupsInterface> cups,
                    std::shared_ptr<SystemInterface> system,
                    std::shared_ptr<DatabaseManager> database);

    // The scheduler's id of the new job.
    int print(const CallerCredentials& caller, const std::string& path, const std::string& printer,
              const std::map<std::string, std::string>& parameters);

private:
    std::optional<Document> copyIfNotAscii(const CallerCredentials& caller, const std::string& path);
    int createJob(const Document& document, const std::string& cupsName,
                  const std::map<std::string, std::string>& options);
    void restart(const std::string& cupsName);
    void reserveSlot(uid_t owner);
    size_t possiblyActive(uid_t owner) const;
    void recount(uid_t owner);
    void releaseSlot(uid_t owner);
    void recordJob(const JobRecord& job);
    void freeSlot(uid_t owner);
    void cancelQuietly(const std::string& cupsName, int jobId);
    void sendDocument(const CallerCredentials& caller, const Document& document, const std::string& cupsName,
                      int jobId);

    std::shared_ptr<CupsInterface> cups;
    std::shared_ptr<SystemInterface> system;
    std::shared_ptr<DatabaseManager> database;
    std::shared_ptr<CupsJobs> jobs;
    std::shared_ptr<JobStore> store;
    std::mutex slotMutex;
    // Jobs between the limit check and their record in the store.
    std::map<uid_t, size_t> starting;
    // Per owner who reached the limit once: the jobs active at the
    // scheduler's last count, and those recorded since. An ended job never
    // becomes active again, so the scheduler is asked again only when these
    // reach the limit, not at every later job.
    std::map<uid_t, std::set<int>> unfinished;
};

} // namespace Kestrel::Private
