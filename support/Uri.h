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

// A device URI split into its protocol and either the model (usb) or the
// IPv4 address (network devices).
class Uri {
public:
    Uri(const std::string& text, std::shared_ptr<CurlInterface> curl);
    virtual ~Uri() = default;

    const std::string& text() const { return uriText; }
    const std::string& modelOrAddress() const { return modelOrAddressText; }
    int32_t protocol() const { return protocolNumber; }

    static const std::unordered_map<std::string, int32_t>& protocols();
    // True when the text begins with one of the supported scheme names.
    static bool hasSupportedPrefix(std::string_view uri);

private:
    std::string uriText;
    std::string modelOrAddressText;
    int32_t protocolNumber = -1;
};

} // namespace Kestrel::Private
