#include "support/ServiceResolver.h"

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <tuple>
#include <vector>

namespace Kestrel::Private {

namespace {

constexpr int32_t AnyInterface = -1;
constexpr int32_t AnyProtocol = -1;
// The .local host names the scheduler looks up go through nss-mdns's IPv4 module.
constexpr int32_t Ipv4 = 0;
// A printer that has just left the network is not waited for long.
constexpr auto ResolveTimeout = std::chrono::seconds(5);

// The "rp" key of the TXT record: the resource path, without its leading "/".
std::string resourcePath(const std::vector<std::vector<uint8_t>>& txt)
{
    static const std::string key = "rp=";
    for (const auto& record : txt) {
        const std::string entry(record.begin(), record.end());
        if (entry.compare(0, key.size(), key) == 0)
            return entry.substr(key.size());
    }
    return {};
}

} // namespace

std::string ServiceResolver::locate(const std::string& instanceName, bool secure)
{
    std::string host;
    uint16_t port = 0;
    std::vector<std::vector<uint8_t>> txt;
    try {
        // A fresh connection per lookup: adding printers is rare.
        auto avahi = sdbus::createProxy("org.freedesktop.Avahi", "/");
        int32_t interface = 0, protocol = 0, addressProtocol = 0;
        std::string name, type, domain, address;
        uint32_t flags = 0;
        avahi->callMethod("ResolveService")
            .onInterface("org.freedesktop.Avahi.Server")
            .withTimeout(ResolveTimeout)
            .withArguments(AnyInterface, AnyProtocol, instanceName, std::string(secure ? "_ipps._tcp" : "_ipp._tcp"),
                           std::string("local"), Ipv4, uint32_t{0})
            .storeResultsTo(interface, protocol, name, type, domain, host, addressProtocol, address, port, txt,
                            flags);
    } catch (const sdbus::Error& error) {
        throw std::runtime_error("failed to find printer " + instanceName + " on the network: " +
                                 error.getMessage());
    }
    return std::string(secure ? "ipps" : "ipp") + "://" + host + ":" + std::to_string(port) + "/" +
           resourcePath(txt);
}

} // namespace Kestrel::Private
