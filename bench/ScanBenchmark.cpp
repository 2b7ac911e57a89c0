// Scan time with the given numbers of silent network devices (stand-ins from
// bench/silent-devices.sh) against the scheduler's own device listing. The
// argument "announced" (in a world with KESTREL_NETWORK=1) first waits until
// the printer host's DNS-SD printer is listed, then measures with it present.
#include "bench/Measure.h"
#include "bench/ServiceClient.h"
#include "bench/WorldGuard.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>

using namespace Kestrel::Bench;

namespace {

bool listsAnnounced(const std::map<std::string, std::string>& devices)
{
    return std::any_of(devices.begin(), devices.end(),
                       [](const auto& device) { return device.first.find("._tcp.local/") != std::string::npos; });
}

// The device's avahi-daemon hears of a host that has just come up within seconds.
bool waitForAnnounced(ServiceClient& client)
{
    for (int attempt = 0; attempt < 20; ++attempt) {
        auto devices = client.scan(std::chrono::seconds(60));
        if (devices && listsAnnounced(*devices))
            return true;
    }
    return false;
}

} // namespace

int main(int argc, char* argv[])
{
    WorldGuard::require();
    ServiceClient client;
    const std::string countFile = std::string(std::getenv("KESTREL_WORLD_DIR")) + "/silent-devices";
    std::string suffix;
    for (int arg = 1; arg < argc; ++arg) {
        const bool announced = std::string(argv[arg]) == "announced";
        if (announced) {
            if (!waitForAnnounced(client)) {
                std::fprintf(stderr, "the announced printer was never listed\n");
                return 1;
            }
            suffix = ", announced printer";
        }
        const int count = announced ? 0 : std::atoi(argv[arg]);
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
        std::printf("scan with %d silent devices%s: %zu devices listed\n", count, suffix.c_str(), devices->size());
        Measure::report("scan, " + std::to_string(count) + " silent devices" + suffix, scan / 1000, "lpinfo -v",
                        listing / 1000, "s");
    }
    return 0;
}
