// Resident, proportional and private dirty memory of the idle daemon. When
// fresh, against the dependency floor measured just before the daemon
// starts (so neither shares the other's pages); at any later moment, named by
// the only argument, against the fresh figures this run recorded.
#include "bench/Measure.h"
#include "bench/ServiceClient.h"
#include "bench/WorldGuard.h"
#include "support/WorkerPool.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace Kestrel::Bench;

namespace {

const std::array<const char*, 3> Fields = {"Rss", "Pss", "Private_Dirty"};
// The world's own /run: what the fresh moment saw, for the later ones.
const char* const FreshFigures = "/run/kestrel-memory-fresh";

// The named field of a /proc/PID file such as smaps_rollup (its "kB" are KiB).
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

std::array<double, 3> rollup(pid_t pid)
{
    std::array<double, 3> figures{};
    for (size_t i = 0; i < Fields.size(); ++i)
        figures[i] = procField(pid, "smaps_rollup", Fields[i]);
    return figures;
}

// The dependency floor's figures once it is ready; it is ended afterwards.
std::array<double, 3> floorFigures()
{
    const auto program = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "dependency-floor";
    char scratch[] = "/tmp/kestrel-floor-XXXXXX";
    if (!mkdtemp(scratch))
        throw std::runtime_error("cannot make a scratch directory for the dependency floor");
    int ready[2];
    if (pipe(ready) != 0)
        throw std::runtime_error("cannot make a pipe for the dependency floor");
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(ready[1], STDOUT_FILENO);
        execl(program.c_str(), program.c_str(), scratch, nullptr);
        _exit(127);
    }
    close(ready[1]);
    char line[16] = {};
    const bool started = pid > 0 && read(ready[0], line, sizeof(line) - 1) > 0;
    close(ready[0]);
    // Its workers have ended by now, as the daemon's have when it is measured.
    const auto figures = started ? rollup(pid) : std::array<double, 3>{};
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    std::filesystem::remove_all(scratch);
    if (!started)
        throw std::runtime_error("the dependency floor did not start: " + program.string());
    return figures;
}

} // namespace

int main(int argc, char* argv[])
{
    WorldGuard::require();
    const std::string name = argc > 1 ? argv[1] : "fresh";
    const bool fresh = name == "fresh";
    const auto anchor = fresh ? floorFigures() : std::array<double, 3>{};
    ServiceClient client;
    // The first call starts the daemon when the bus activates it.
    client.savedPrinters();
    const pid_t daemon = client.ownerPid("ru.zorv.print");
    waitUntilIdle(daemon);
    const auto figures = rollup(daemon);
    std::array<double, 3> before{};
    if (fresh) {
        std::ofstream(FreshFigures) << figures[0] << ' ' << figures[1] << ' ' << figures[2] << '\n';
    } else if (!(std::ifstream(FreshFigures) >> before[0] >> before[1] >> before[2])) {
        std::fprintf(stderr, "memory-benchmark: no fresh figures in %s; run it with \"fresh\" first\n", FreshFigures);
        return 1;
    }
    for (size_t i = 0; i < Fields.size(); ++i) {
        const std::string field = Fields[i];
        if (fresh)
            Measure::report("idle daemon " + field + " (fresh)", figures[i], "dependency floor " + field, anchor[i],
                            "KiB");
        else
            Measure::report("idle daemon " + field + " (" + name + ")", figures[i], "idle daemon " + field + " (fresh)",
                            before[i], "KiB");
    }
    printLargestMappings(daemon, " (" + name + ")");
    return 0;
}
