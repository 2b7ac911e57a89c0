// Resident and proportional memory of the idle daemon against a minimal
// sdbus-c++ service on the same bus (the system-log stand-in). The only
// argument names the moment (e.g. "fresh").
#include "bench/Measure.h"
#include "bench/ServiceClient.h"
#include "bench/WorldGuard.h"

#include <fstream>
#include <sstream>

using namespace Kestrel::Bench;

namespace {

// The named field of /proc/PID/smaps_rollup, in kB.
double rollup(pid_t pid, const std::string& field)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(field + ":", 0) == 0)
            return std::stod(line.substr(field.size() + 1));
    }
    return 0;
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
    for (const char* field : {"Rss", "Pss"})
        Measure::report(std::string("idle daemon ") + field + moment, rollup(daemon, field),
                        std::string("system-log stand-in ") + field, rollup(anchor, field), "kB");
    return 0;
}
