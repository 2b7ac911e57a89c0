#include "support/CallerCredentials.h"

#include <sdbus-c++/sdbus-c++.h>

#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>

namespace Kestrel::Private {

namespace {

// The kernel's stand-in for a group it cannot name ("nogroup").
const gid_t OverflowGid = 65534;
// Enough for the few apps that print in a row.
const size_t RememberedSenders = 8;

// The bus never gives a unique name to a second connection, and what it
// vouches for a connection is fixed when it connects: a sender's answer
// stays true, so the latest few are kept rather than asked for each call.
std::mutex recentLock;
std::deque<std::pair<std::string, CallerCredentials>> recent;

} // namespace

CallerCredentials CallerCredentials::ofSender(sdbus::IConnection& connection, const std::string& sender)
{
    {
        std::lock_guard<std::mutex> lock(recentLock);
        for (const auto& [name, caller] : recent) {
            if (name == sender)
                return caller;
        }
    }
    const auto caller = askBus(connection, sender);
    std::lock_guard<std::mutex> lock(recentLock);
    recent.emplace_front(sender, caller);
    if (recent.size() > RememberedSenders)
        recent.pop_back();
    return caller;
}

CallerCredentials CallerCredentials::askBus(sdbus::IConnection& connection, const std::string& sender)
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
