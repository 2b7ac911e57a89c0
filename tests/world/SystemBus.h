#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace Kestrel::Test {

// Questions to the world's system bus, each on a short-lived connection so
// that callers may poll from any thread.
class SystemBus {
public:
    // Process id of the connection that owns the name, nullopt when unowned.
    static std::optional<pid_t> ownerPid(const std::string& name);
    // The introspection XML of the object, empty when it cannot be read.
    static std::string introspect(const std::string& destination, const std::string& path);
};

} // namespace Kestrel::Test
