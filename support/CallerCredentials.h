#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace sdbus {
class IConnection;
}

namespace Kestrel::Private {

// Who sent a bus call, as far as the bus daemon vouches for it: the
// effective uid and the supplementary groups the sender had when it
// connected.
struct CallerCredentials {
    uid_t uid = 0;
    // The file-system gid to act with; always one of the groups (or the
    // overflow group when there are none), so it grants nothing extra.
    gid_t gid = 0;
    std::vector<gid_t> groups;

    static CallerCredentials ofSender(sdbus::IConnection& connection, const std::string& sender);

private:
    static CallerCredentials askBus(sdbus::IConnection& connection, const std::string& sender);
};

} // namespace Kestrel::Private
