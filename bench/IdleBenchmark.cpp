// Wake-ups of the daemon while nothing happens: voluntary context switches
// of all its threads over 30 s, idle workers ending included, against the
// minimal sdbus-c++ service on the same bus over the same time. Once after
// the jobs it followed have ended, and once with a client watching the
// changes and its job waiting in a paused queue.
#include "bench/Measure.h"
#include "bench/ServiceClient.h"
#include "bench/WorldGuard.h"
#include "support/DatabaseManager.h"

#include <dirent.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>
#include <thread>

using namespace Kestrel::Bench;
using Kestrel::Private::DatabaseManager;

namespace {

constexpr auto Quiet = std::chrono::seconds(30);
constexpr int Jobs = 3;

// Per thread: /proc/PID/status counts only the main one.
std::map<std::string, double> voluntarySwitches(pid_t pid)
{
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    DIR* directory = opendir(tasks.c_str());
    if (!directory)
        throw std::runtime_error("cannot read " + tasks);
    std::map<std::string, double> counts;
    while (const dirent* entry = readdir(directory)) {
        std::ifstream status(tasks + "/" + entry->d_name + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0)
                counts[entry->d_name] = std::stod(line.substr(24));
        }
    }
    closedir(directory);
    return counts;
}

// Switches of all threads over the time, sampled often: idle workers end
// on their own, and an ended thread's count leaves /proc with it. A thread
// that starts meanwhile counts from zero.
double switchesDuring(pid_t pid, std::chrono::seconds time)
{
    const auto first = voluntarySwitches(pid);
    auto last = first;
    for (const auto end = std::chrono::steady_clock::now() + time; std::chrono::steady_clock::now() < end;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        for (const auto& [thread, count] : voluntarySwitches(pid))
            last[thread] = count;
    }
    double total = 0;
    for (const auto& [thread, count] : last)
        total += count - (first.count(thread) ? first.at(thread) : 0);
    return total;
}

// Both sampled side by side over the same time, once the replies above and
// the service's last look at the scheduler have settled.
void reportQuiet(ServiceClient& client, const std::string& figure)
{
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const pid_t daemon = client.ownerPid("ru.zorv.print");
    const pid_t anchor = client.ownerPid("ru.quentis.SystemLogs");
    double anchorSwitches = 0;
    std::thread anchorCount([&] { anchorSwitches = switchesDuring(anchor, Quiet); });
    const double daemonSwitches = switchesDuring(daemon, Quiet);
    anchorCount.join();
    Measure::report(figure, daemonSwitches, "system-log stand-in wake-ups in 30 s", anchorSwitches, "switches");
}

std::string writeDocument(const std::string& name)
{
    const std::string path = std::string(std::getenv("KESTREL_WORLD_DIR")) + "/" + name + ".pdf";
    std::ofstream(path) << "%PDF-1.4\n1 0 obj\n<< /Type /Catalog /Pages 2 0 R >>\nendobj\n"
                           "2 0 obj\n<< /Type /Pages /Kids [3 0 R] /Count 1 >>\nendobj\n"
                           "3 0 obj\n<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] >>\nendobj\n"
                           "trailer\n<< /Root 1 0 R >>\n%%EOF\n";
    return path;
}

void waitUntilEnded(ServiceClient& client, uint32_t job)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    for (auto state = client.jobState(job); state != "completed" && state != "canceled" && state != "aborted";
         state = client.jobState(job)) {
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("job " + std::to_string(job) + " did not end: " + state);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

} // namespace

int main()
{
    WorldGuard::require();
    const std::string uri = std::getenv("KESTREL_PRINTER_URI");
    {
        ServiceClient client;
        client.addPrinter(uri, "Idle");
        for (int index = 0; index < Jobs; ++index)
            waitUntilEnded(client, client.submit(writeDocument("idle-" + std::to_string(index)), "Idle"));
        client.removePrinter("Idle");
        reportQuiet(client, "idle daemon wake-ups in 30 s after its jobs ended");
    }

    // A settings page open on a printer whose queue an administrator paused,
    // with the page's own job waiting there.
    ServiceClient watcher(ServiceClient::Changes::Watched);
    watcher.addPrinter(uri, "Watched");
    const std::string queue = DatabaseManager().getCupsName("Watched");
    if (std::system(("cupsdisable '" + queue + "'").c_str()) != 0)
        throw std::runtime_error("cupsdisable failed");
    const uint32_t job = watcher.submit(writeDocument("waiting"), "Watched");
    reportQuiet(watcher, "idle daemon wake-ups in 30 s, a client watching, its job in a paused queue");
    if (watcher.jobState(job) != "pending")
        throw std::runtime_error("the waiting job left its paused queue");
    watcher.removePrinter("Watched");
    return 0;
}
