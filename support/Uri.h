#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Kestrel::Private {

class CurlInterface;

// Scheme numbers shared by every layer; the values are fixed, not alphabetical.
enum Protocol : int32_t {
    ProtocolDnssd = 0,
    ProtocolIpp = 1,
    ProtocolIpps = 2,
    ProtocolUsb = 3,
    ProtocolSocket = 4,
};

// A device URI split into its protocol and either the model (usb), the
// IPv4 address (network devices) or the DNS-SD service host of a printer
// announced on the network (e.g. "ipp://My%20Printer._ipp._tcp.local/").
class Uri {
public:
    Uri(const std::string& text, std::shared_ptr<CurlInterface> curl);
    virtual ~Uri() = default;

    const std::string& text() const { return uriText; }
    const std::string& modelOrAddress() const { return modelOrAddressText; }
    int32_t protocol() const { return protocolNumber; }
    // The service instance name as escaped in the URI; empty unless the URI
    // names a DNS-SD service.
    const std::string& serviceName() const { return serviceNameText; }
    // True for an "_ipps" service, which only takes encrypted connections.
    bool isSecureService() const { return secureService; }

    static const std::unordered_map<std::string, int32_t>& protocols();
    // True when the text begins with one of the supported scheme names.
    static bool hasSupportedPrefix(std::string_view uri);

private:
    void setService(const std::string& text);

    std::string uriText;
    std::string modelOrAddressText;
    int32_t protocolNumber = -1;
    std::string serviceNameText;
    bool secureService = false;
};

} // namespace Kestrel::Private
