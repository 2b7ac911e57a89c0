// Wake-ups of the daemon while nothing happens, once the jobs it followed
// have ended: voluntary context switches of all its threads over 30 s,
// against the minimal sdbus-c++ service on the same bus over the same time.
#include "bench/Measure.h"
#include "bench/ServiceClient.h"
#include "bench/WorldGuard.h"

#include <dirent.h>

#include <fstream>
#include <stdexcept>
#include <thread>

using namespace Kestrel::Bench;

namespace {

constexpr auto Quiet = std::chrono::seconds(30);
constexpr int Jobs = 3;

// Summed over the threads: /proc/PID/status counts only the main one.
double voluntarySwitches(pid_t pid)
{
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    DIR* directory = opendir(tasks.c_str());
    if (!directory)
        throw std::runtime_error("cannot read " + tasks);
    double total = 0;
    while (const dirent* entry = readdir(directory)) {
        std::ifstream status(tasks + "/" + entry->d_name + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0)
                total += std::stod(line.substr(24));
        }
    }
    closedir(directory);
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
    const double daemonBefore = voluntarySwitches(daemon), anchorBefore = voluntarySwitches(anchor);
    std::this_thread::sleep_for(Quiet);
    Measure::report("idle daemon wake-ups in 30 s after its jobs ended", voluntarySwitches(daemon) - daemonBefore,
                    "system-log stand-in wake-ups in 30 s", voluntarySwitches(anchor) - anchorBefore, "switches");
    return 0;
}
