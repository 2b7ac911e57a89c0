#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace Kestrel::Private {

class CupsInterface;
class CupsRequestHandler;
class DatabaseManager;
class SystemInterface;

// The logic behind ru.zorv.PrintingService: one PDF document becomes one
// CUPS job on the queue the registry names.
class PrintController {
public:
    PrintController();
    PrintController(std::shared_ptr<CupsRequestHandler> requestHandler,
                    std::shared_ptr<CupsInterface> cups,
                    std::shared_ptr<SystemInterface> system,
                    std::shared_ptr<DatabaseManager> database);

    void print(const std::string& path, const std::string& printer, const std::map<std::string, std::string>& parameters);

private:
    std::string preparePath(const std::string& path);
    int createJob(const std::string& path, const std::string& cupsName, const std::map<std::string, std::string>& options);
    void restartStoppedQueue(const std::string& cupsName);
    void sendDocument(const std::string& path, const std::string& cupsName, int jobId);

    std::shared_ptr<CupsRequestHandler> requestHandler;
    std::shared_ptr<CupsInterface> cups;
    std::shared_ptr<SystemInterface> system;
    std::shared_ptr<DatabaseManager> database;
    std::mutex jobMutex;
};

} // namespace Kestrel::Private
