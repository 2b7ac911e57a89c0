#include "tests/world/SystemBus.h"

#include <sdbus-c++/sdbus-c++.h>

namespace Kestrel::Test {

std::optional<pid_t> SystemBus::ownerPid(const std::string& name)
{
    auto connection = sdbus::createSystemBusConnection();
    auto bus = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    bool owned = false;
    bus->callMethod("NameHasOwner").onInterface("org.freedesktop.DBus").withArguments(name).storeResultsTo(owned);
    if (!owned)
        return std::nullopt;
    uint32_t pid = 0;
    try {
        bus->callMethod("GetConnectionUnixProcessID")
            .onInterface("org.freedesktop.DBus")
            .withArguments(name)
            .storeResultsTo(pid);
    } catch (const sdbus::Error&) {
        return std::nullopt; // released between the two calls
    }
    return static_cast<pid_t>(pid);
}

std::string SystemBus::introspect(const std::string& destination, const std::string& path)
{
    auto connection = sdbus::createSystemBusConnection();
    auto object = sdbus::createProxy(*connection, destination, path);
    std::string xml;
    try {
        object->callMethod("Introspect").onInterface("org.freedesktop.DBus.Introspectable").storeResultsTo(xml);
    } catch (const sdbus::Error&) {
        return {};
    }
    return xml;
}

} // namespace Kestrel::Test
