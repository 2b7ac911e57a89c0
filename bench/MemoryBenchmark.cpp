// Resident, proportional and private dirty memory of the idle daemon against
// a minimal sdbus-c++ service on the same bus (the system-log stand-in). The
// only argument names the moment (e.g. "fresh").
#include "bench/Measure.h"
#include "bench/ServiceClient.h"
#include "bench/WorldGuard.h"
#include "support/WorkerPool.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

using namespace Kestrel::Bench;

namespace {

// The named field of a /proc/PID file such as smaps_rollup (in kB there).
double procField(pid_t pid, const std::string& name, const std::string& field)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/" + name);
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(field + ":", 0) == 0)
            return std::stod(line.substr(field.size() + 1));
    }
    return 0;
}

// Pss and Private_Dirty per mapped file (or [heap], [stack], anon), in kB.
std::map<std::string, std::pair<double, double>> mappingSizes(pid_t pid)
{
    std::map<std::string, std::pair<double, double>> sizes;
    std::ifstream file("/proc/" + std::to_string(pid) + "/smaps");
    std::string mapping;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string first;
        words >> first;
        if (first.back() != ':') {
            // A mapping's header: address, perms, offset, device, inode, then the name if any.
            std::string skip, name;
            words >> skip >> skip >> skip >> skip;
            std::getline(words >> std::ws, name);
            mapping = name.empty() ? "anon" : name.substr(name.find_last_of('/') + 1);
            continue;
        }
        double kB = 0;
        words >> kB;
        if (first == "Pss:")
            sizes[mapping].first += kB;
        else if (first == "Private_Dirty:")
            sizes[mapping].second += kB;
    }
    return sizes;
}

// The ten largest mappings by each figure, for seeing where memory went.
void printLargestMappings(pid_t pid, const std::string& moment)
{
    const auto sizes = mappingSizes(pid);
    for (const bool dirty : {false, true}) {
        std::vector<std::pair<double, std::string>> order;
        for (const auto& [name, size] : sizes)
            order.emplace_back(dirty ? size.second : size.first, name);
        std::sort(order.rbegin(), order.rend());
        order.resize(std::min<size_t>(order.size(), 10));
        std::printf("largest by %s%s:", dirty ? "Private_Dirty" : "Pss", moment.c_str());
        for (const auto& [kB, name] : order)
            std::printf(" %s %.0f;", name.c_str(), kB);
        std::printf("\n");
    }
    std::fflush(stdout);
}

int threadCount(pid_t pid)
{
    return static_cast<int>(procField(pid, "status", "Threads"));
}

// Workers end a while after their last call; idle means none is left, so
// wait until the thread count has held still for longer than that.
void waitUntilIdle(pid_t pid)
{
    using Clock = std::chrono::steady_clock;
    const auto still = Kestrel::Private::WorkerPool::DefaultIdleLimit + std::chrono::seconds(1);
    int count = threadCount(pid);
    for (auto since = Clock::now(); Clock::now() - since < still;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const int now = threadCount(pid);
        if (now != count) {
            count = now;
            since = Clock::now();
        }
    }
}

} // namespace

int main(int argc, char* argv[])
{
    WorldGuard::require();
    const std::string moment = argc > 1 ? std::string(" (") + argv[1] + ")" : "";
    ServiceClient client;
    // The first call starts the daemon when the bus activates it.
    client.savedPrinters();
    const pid_t daemon = client.ownerPid("ru.zorv.print");
    const pid_t anchor = client.ownerPid("ru.quentis.SystemLogs");
    waitUntilIdle(daemon);
    for (const char* field : {"Rss", "Pss", "Private_Dirty"})
        Measure::report(std::string("idle daemon ") + field + moment, procField(daemon, "smaps_rollup", field),
                        std::string("system-log stand-in ") + field, procField(anchor, "smaps_rollup", field), "kB");
    printLargestMappings(daemon, moment);
    return 0;
}
