#pragma once

#include "support/CallerCredentials.h"
#include "support/Document.h"

#include <map>
#include <memory>
#include <optional>
#include <string>

namespace Kestrel::Private {

class CupsInterface;
class DatabaseManager;
class SystemInterface;

// The logic behind ru.zorv.PrintingService: one PDF document becomes one
// CUPS job on the queue the registry names. The document is read, copied
// and removed only with the rights of the caller who asked. Jobs are sent
// side by side, each over its own thread's scheduler connection, so the
// two requests of one job never interleave with another's.
class PrintController {
public:
    PrintController();
    PrintController(std::shared_ptr<CupsInterface> cups,
                    std::shared_ptr<SystemInterface> system,
                    std::shared_ptr<DatabaseManager> database);

    void print(const CallerCredentials& caller, const std::string& path, const std::string& printer,
               const std::map<std::string, std::string>& parameters);

private:
    std::optional<Document> copyIfNotAscii(const CallerCredentials& caller, const std::string& path);
    int createJob(const Document& document, const std::string& cupsName,
                  const std::map<std::string, std::string>& options);
    void restartStoppedQueue(const std::string& cupsName);
    void sendDocument(const CallerCredentials& caller, const Document& document, const std::string& cupsName,
                      int jobId);

    std::shared_ptr<CupsInterface> cups;
    std::shared_ptr<SystemInterface> system;
    std::shared_ptr<DatabaseManager> database;
};

} // namespace Kestrel::Private
