#include "bench/WorldGuard.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace Kestrel::Bench {

void WorldGuard::require()
{
    const char* world = std::getenv("KESTREL_WORLD");
    if (world && std::string(world) == "1")
        return;
    std::fprintf(stderr, "benchmarks run only inside the test world: use scripts/bench.sh\n");
    std::exit(2);
}

} // namespace Kestrel::Bench
