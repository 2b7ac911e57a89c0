// Wake-ups of the daemon while nothing happens, once the jobs it followed
// have ended: voluntary context switches of all its threads over 30 s,
// idle workers ending included,
// against the minimal sdbus-c++ service on the same bus over the same time.
#include "bench/Measure.h"
#include "bench/ServiceClient.h"
#include "bench/WorldGuard.h"

#include <dirent.h>

#include <fstream>
#include <map>
#include <stdexcept>
#include <thread>

using namespace Kestrel::Bench;

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
    ServiceClient client;
    client.addPrinter(std::getenv("KESTREL_PRINTER_URI"), "Idle");
    for (int index = 0; index < Jobs; ++index) {
        const std::string path = std::string(std::getenv("KESTREL_WORLD_DIR")) + "/idle-" + std::to_string(index) +
                                 ".pdf";
        std::ofstream(path) << "%PDF-1.4\n1 0 obj\n<< /Type /Catalog /Pages 2 0 R >>\nendobj\n"
                               "2 0 obj\n<< /Type /Pages /Kids [3 0 R] /Count 1 >>\nendobj\n"
                               "3 0 obj\n<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] >>\nendobj\n"
                               "trailer\n<< /Root 1 0 R >>\n%%EOF\n";
        waitUntilEnded(client, client.submit(path, "Idle"));
    }
    client.removePrinter("Idle");
    const pid_t daemon = client.ownerPid("ru.zorv.print");
    const pid_t anchor = client.ownerPid("ru.quentis.SystemLogs");
    // The watcher's last look and the replies above settle first.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    // Both sampled side by side over the same time.
    double anchorSwitches = 0;
    std::thread anchorCount([&] { anchorSwitches = switchesDuring(anchor, Quiet); });
    const double daemonSwitches = switchesDuring(daemon, Quiet);
    anchorCount.join();
    Measure::report("idle daemon wake-ups in 30 s after its jobs ended", daemonSwitches,
                    "system-log stand-in wake-ups in 30 s", anchorSwitches, "switches");
    return 0;
}
