#pragma once

#include <string>

namespace Kestrel::Private {

// Finds where a printer announced by DNS-SD listens, through the avahi
// daemon on the system bus.
class ServiceResolver {
public:
    virtual ~ServiceResolver() = default;

    // The printer's address by its mDNS host name, port and resource, e.g.
    // "ipp://printerhost.local:8631/ipp/print" for the "_ipp" instance
    // "RemotePrinter" ("ipps://..." for an "_ipps" one). The host name is
    // looked up again at each connection, so the address follows the
    // printer when its IP address changes.
    virtual std::string locate(const std::string& instanceName, bool secure);
};

} // namespace Kestrel::Private
