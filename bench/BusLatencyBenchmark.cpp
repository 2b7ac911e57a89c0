// Per-call latency of getSavedPrinters against a bare Peer.Ping on the same
// object, at 0, 100, 1,000 and 10,000 saved printers.
#include "bench/Measure.h"
#include "bench/ServiceClient.h"
#include "bench/WorldGuard.h"
#include "support/DatabaseManager.h"
#include "support/UuidGenerator.h"

#include <cstdio>

using namespace Kestrel::Bench;
using Kestrel::Private::DatabaseManager;
using Kestrel::Private::UuidGenerator;

int main()
{
    WorldGuard::require();
    ServiceClient client;
    DatabaseManager registry;
    registry.clear();
    size_t saved = 0;
    for (size_t count : {0u, 100u, 1000u, 10000u}) {
        for (; saved < count; ++saved)
            registry.insert(UuidGenerator::generate(), "Printer " + std::to_string(saved));
        if (client.savedPrinters().size() != count) {
            std::fprintf(stderr, "the service does not list %zu printers\n", count);
            return 1;
        }
        const int rounds = count < 10000 ? 200 : 50;
        const double list = Measure::medianMilliseconds(rounds, [&] { client.savedPrinters(); });
        const double ping = Measure::medianMilliseconds(rounds, [&] { client.ping(); });
        Measure::report("getSavedPrinters, " + std::to_string(count) + " saved", list, "Peer.Ping", ping);
    }
    registry.clear();
    return 0;
}
