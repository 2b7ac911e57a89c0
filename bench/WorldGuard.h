#pragma once

namespace Kestrel::Bench {

// The benchmarks write the registry and add queues: they run only inside the
// test world (tests/world/run-in-world.sh), never against the machine's own.
class WorldGuard {
public:
    // Ends the process with a message when not inside the test world.
    static void require();
};

} // namespace Kestrel::Bench
