#include "bench/ServiceClient.h"

#include <condition_variable>
#include <mutex>

namespace Kestrel::Bench {

namespace {

const char* const manager = "ru.zorv.PrinterManager";
const char* const jobs = "ru.zorv.PrintJobs";
// Long enough for the slowest add the service may take.
constexpr auto callTimeout = std::chrono::seconds(120);

std::mutex scanMutex;
std::condition_variable scanDone;
std::optional<std::map<std::string, std::string>> lastScan;

} // namespace

ServiceClient::ServiceClient(Changes watched)
    : connection(sdbus::createSystemBusConnection())
    , service(sdbus::createProxy(*connection, "ru.zorv.print", "/ru/zorv/print"))
    , busDriver(sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus"))
{
    service->uponSignal("accessiblePrintersChanged")
        .onInterface(manager)
        .call([](const std::map<std::string, std::string>& printers) {
            std::lock_guard<std::mutex> lock(scanMutex);
            lastScan = printers;
            scanDone.notify_all();
        });
    if (watched == Changes::Watched) {
        service->uponSignal("printerStateChanged")
            .onInterface(jobs)
            .call([](const std::string&, const std::map<std::string, sdbus::Variant>&) {});
        service->uponSignal("jobChanged")
            .onInterface(jobs)
            .call([](const std::map<std::string, sdbus::Variant>&) {});
        service->uponSignal("savedPrintersChanged")
            .onInterface(manager)
            .call([](const std::vector<std::string>&) {});
    }
    service->finishRegistration();
    connection->enterEventLoopAsync();
}

ServiceClient::~ServiceClient()
{
    connection->leaveEventLoop();
}

void ServiceClient::ping()
{
    service->callMethod("Ping").onInterface("org.freedesktop.DBus.Peer");
}

std::vector<std::string> ServiceClient::savedPrinters()
{
    std::vector<std::string> names;
    service->callMethod("getSavedPrinters").onInterface(manager).storeResultsTo(names);
    return names;
}

void ServiceClient::addPrinter(const std::string& uri, const std::string& name)
{
    service->callMethod("addPrinter")
        .onInterface(manager)
        .withTimeout(callTimeout)
        .withArguments(uri, name, std::vector<std::string>{});
}

void ServiceClient::removePrinter(const std::string& name)
{
    service->callMethod("removePrinter").onInterface(manager).withTimeout(callTimeout).withArguments(name);
}

std::map<std::string, std::vector<std::string>> ServiceClient::printerAttributes(const std::string& name)
{
    std::map<std::string, std::vector<std::string>> attributes;
    service->callMethod("getPrinterAttributes").onInterface(manager).withArguments(name).storeResultsTo(attributes);
    return attributes;
}

void ServiceClient::print(const std::string& path, const std::string& printer)
{
    service->callMethod("print")
        .onInterface("ru.zorv.PrintingService")
        .withTimeout(callTimeout)
        .withArguments(path, printer, std::map<std::string, std::string>{});
}

uint32_t ServiceClient::submit(const std::string& path, const std::string& printer)
{
    uint32_t job = 0;
    service->callMethod("submit")
        .onInterface(jobs)
        .withTimeout(callTimeout)
        .withArguments(path, printer, std::map<std::string, std::string>{})
        .storeResultsTo(job);
    return job;
}

std::string ServiceClient::jobState(uint32_t job)
{
    std::map<std::string, sdbus::Variant> state;
    service->callMethod("getJob").onInterface(jobs).withArguments(job).storeResultsTo(state);
    return state.at("state").get<std::string>();
}

std::optional<std::map<std::string, std::string>> ServiceClient::scan(std::chrono::seconds timeout)
{
    std::unique_lock<std::mutex> lock(scanMutex);
    lastScan.reset();
    lock.unlock();
    service->callMethod("scan").onInterface(manager);
    lock.lock();
    scanDone.wait_for(lock, timeout, [] { return lastScan.has_value(); });
    return lastScan;
}

void ServiceClient::busRoundTrip()
{
    std::string id;
    busDriver->callMethod("GetId").onInterface("org.freedesktop.DBus").storeResultsTo(id);
}

pid_t ServiceClient::ownerPid(const std::string& busName)
{
    uint32_t pid = 0;
    busDriver->callMethod("GetConnectionUnixProcessID")
        .onInterface("org.freedesktop.DBus")
        .withArguments(busName)
        .storeResultsTo(pid);
    return static_cast<pid_t>(pid);
}

} // namespace Kestrel::Bench
