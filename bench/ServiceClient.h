#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Kestrel::Bench {

// The running print service as a bus client sees it.
class ServiceClient {
public:
    // Watched: the connection also subscribes to the printer, job and saved
    // printer changes, as a settings page does (what they say is not kept).
    enum class Changes { Ignored, Watched };

    explicit ServiceClient(Changes changes = Changes::Ignored);
    ~ServiceClient();

    void ping();
    std::vector<std::string> savedPrinters();
    void addPrinter(const std::string& uri, const std::string& name);
    void removePrinter(const std::string& name);
    std::map<std::string, std::vector<std::string>> printerAttributes(const std::string& name);
    void print(const std::string& path, const std::string& printer);
    uint32_t submit(const std::string& path, const std::string& printer);
    std::string jobState(uint32_t job);
    // Starts a scan and waits for its signal; nullopt when none came in time.
    std::optional<std::map<std::string, std::string>> scan(std::chrono::seconds timeout);
    // A call the bus daemon answers itself.
    void busRoundTrip();
    // Process id of a name's owner on the bus.
    pid_t ownerPid(const std::string& busName);

private:
    std::unique_ptr<sdbus::IConnection> connection;
    std::unique_ptr<sdbus::IProxy> service;
    std::unique_ptr<sdbus::IProxy> busDriver;
};

} // namespace Kestrel::Bench
