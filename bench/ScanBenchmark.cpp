// Scan time with the given numbers of silent network devices (stand-ins from
// bench/silent-devices.sh) against the scheduler's own device listing.
#include "bench/Measure.h"
#include "bench/ServiceClient.h"
#include "bench/WorldGuard.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

using namespace Kestrel::Bench;

int main(int argc, char* argv[])
{
    WorldGuard::require();
    ServiceClient client;
    const std::string countFile = std::string(std::getenv("KESTREL_WORLD_DIR")) + "/silent-devices";
    for (int arg = 1; arg < argc; ++arg) {
        const int count = std::atoi(argv[arg]);
        std::ofstream(countFile) << count << '\n';
        const double listing = Measure::milliseconds([] {
            if (std::system("lpinfo -v >/dev/null") != 0)
                std::fprintf(stderr, "lpinfo -v failed\n");
        });
        std::optional<std::map<std::string, std::string>> devices;
        const double scan = Measure::milliseconds([&] { devices = client.scan(std::chrono::hours(1)); });
        if (!devices) {
            std::fprintf(stderr, "no scan signal within an hour\n");
            return 1;
        }
        std::printf("scan with %d silent devices: %zu devices listed\n", count, devices->size());
        Measure::report("scan, " + std::to_string(count) + " silent devices", scan / 1000, "lpinfo -v",
                        listing / 1000, "s");
    }
    return 0;
}
