#include "support/CallerCredentials.h"

#include <sdbus-c++/sdbus-c++.h>

#include <map>
#include <stdexcept>

namespace Kestrel::Private {

namespace {

// The kernel's stand-in for a group it cannot name ("nogroup").
const gid_t OverflowGid = 65534;

} // namespace

CallerCredentials CallerCredentials::ofSender(sdbus::IConnection& connection, const std::string& sender)
{
    // Asked of the bus daemon, which took them from the kernel when the
    // sender connected: its groups list the primary gid first, then the
    // supplementary ones. /proc/PID would trust a pid that may be reused.
    auto bus = sdbus::createProxy(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    std::map<std::string, sdbus::Variant> credentials;
    bus->callMethod("GetConnectionCredentials")
        .onInterface("org.freedesktop.DBus")
        .withArguments(sender)
        .storeResultsTo(credentials);

    const auto uid = credentials.find("UnixUserID");
    if (uid == credentials.end())
        throw std::runtime_error("the bus does not vouch for the uid of " + sender);
    CallerCredentials caller;
    caller.uid = uid->second.get<uint32_t>();
    const auto groups = credentials.find("UnixGroupIDs");
    if (groups != credentials.end()) {
        for (uint32_t group : groups->second.get<std::vector<uint32_t>>())
            caller.groups.push_back(group);
    }
    caller.gid = caller.groups.empty() ? OverflowGid : caller.groups.front();
    return caller;
}

} // namespace Kestrel::Private
