#include "support/Uri.h"

#include "support/CurlInterface.h"
#include "support/Diagnostics.h"

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>

namespace Kestrel::Private {

namespace {

// A linear scanner giving exactly the leftmost-first result of the ECMAScript
// search "([a-z]+)://(?:(.*)/(.*)\?serial=[0-9]*|((?:[0-9]+.){4}))".
// Backtracking matchers recurse per character and overflow the stack on long
// URIs, which bus callers control. The text holds no line breaks here
// (white space is gone), so "." is any character.
struct DeviceMatch {
    std::string scheme;
    std::optional<std::string> model;
    std::optional<std::string> address;
};

constexpr std::string_view SchemeSeparator = "://";
constexpr std::string_view SerialQuery = "?serial=";
constexpr int AddressLevels = 4;

bool isLower(char c)
{
    return c >= 'a' && c <= 'z';
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// Digit runs chained by one separator each, as "(?:[0-9]+.){4}" consumes
// them starting at a given position.
class AddressScanner {
public:
    AddressScanner(std::string_view text, size_t start)
        : text(text)
    {
        size_t position = start;
        for (int i = 0; i < AddressLevels && position <= text.size(); ++i) {
            size_t end = position;
            while (end < text.size() && isDigit(text[end]))
                ++end;
            runs[i] = {position, end};
            ++runCount;
            if (end == position || end == text.size())
                break;
            position = end + 1;
        }
    }

    // End of the match when it exists.
    std::optional<size_t> matchEnd() const { return levelAt(1, 0); }

private:
    // Level "level" starts at the beginning of run "run". Greedy digits with
    // backtracking reduce to: t levels share the run (each taking at least
    // one digit and one more character), the last of them either takes the
    // separator after the run or, when it is the final level, ends on the
    // run's last digit.
    std::optional<size_t> levelAt(int level, int run) const
    {
        if (run >= runCount)
            return std::nullopt;
        const size_t digits = runs[run].second - runs[run].first;
        const bool separatorFollows = runs[run].second < text.size();
        const int remaining = AddressLevels - level + 1;
        for (int shared = 1; shared <= remaining; ++shared) {
            if (separatorFollows && digits >= size_t(2 * shared - 1)) {
                if (shared == remaining)
                    return runs[run].second + 1;
                if (auto end = levelAt(level + shared, run + 1))
                    return end;
            }
            if (shared == remaining && digits >= size_t(2 * shared))
                return runs[run].second;
        }
        return std::nullopt;
    }

    std::string_view text;
    std::array<std::pair<size_t, size_t>, AddressLevels> runs{};
    int runCount = 0;
};

std::optional<DeviceMatch> matchDeviceUri(std::string_view text)
{
    // The model branch: greedy groups put the model between the last "/"
    // before the last "?serial=" and that query.
    size_t serial = text.rfind(SerialQuery);
    size_t slash = (serial == std::string_view::npos || serial == 0) ? std::string_view::npos
                                                                     : text.rfind('/', serial - 1);

    for (size_t separator = text.find(SchemeSeparator); separator != std::string_view::npos;
         separator = text.find(SchemeSeparator, separator + 1)) {
        size_t schemeStart = separator;
        while (schemeStart > 0 && isLower(text[schemeStart - 1]))
            --schemeStart;
        if (schemeStart == separator)
            continue;
        const size_t rest = separator + SchemeSeparator.size();
        DeviceMatch match;
        match.scheme = std::string(text.substr(schemeStart, separator - schemeStart));
        if (slash != std::string_view::npos && slash >= rest) {
            match.model = std::string(text.substr(slash + 1, serial - slash - 1));
            return match;
        }
        if (auto end = AddressScanner(text, rest).matchEnd()) {
            match.address = std::string(text.substr(rest, *end - rest));
            return match;
        }
    }
    return std::nullopt;
}

// A DNS-SD service-instance URI as the scheduler's discovery reports it:
// "SCHEME://NAME._ipp._tcp.local" or "._ipps._tcp.local", then nothing or a
// path. NAME is escaped, so it holds no raw space, "/", "?", "#", "@" or ":".
struct ServiceMatch {
    std::string_view scheme;
    std::string_view host;
    std::string_view name;
    bool secure;
};

constexpr std::array<std::string_view, 3> ServiceSchemes{"ipp", "ipps", "dnssd"};
constexpr std::string_view IppService = "._ipp._tcp.local";
constexpr std::string_view IppsService = "._ipps._tcp.local";

bool isHex(char c)
{
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool isEscapedName(std::string_view name)
{
    if (name.empty())
        return false;
    for (size_t i = 0; i < name.size(); ++i) {
        const char c = name[i];
        if (c <= ' ' || c >= 0x7f || std::string_view("/?#@:").find(c) != std::string_view::npos)
            return false;
        if (c == '%' && (i + 2 >= name.size() || !isHex(name[i + 1]) || !isHex(name[i + 2])))
            return false;
    }
    return true;
}

std::optional<ServiceMatch> matchServiceUri(std::string_view text)
{
    const size_t separator = text.find(SchemeSeparator);
    if (separator == std::string_view::npos)
        return std::nullopt;
    const std::string_view scheme = text.substr(0, separator);
    if (std::find(ServiceSchemes.begin(), ServiceSchemes.end(), scheme) == ServiceSchemes.end())
        return std::nullopt;
    const std::string_view rest = text.substr(separator + SchemeSeparator.size());
    const std::string_view host = rest.substr(0, rest.find('/'));
    for (const std::string_view service : {IppService, IppsService}) {
        if (host.size() <= service.size() || host.substr(host.size() - service.size()) != service)
            continue;
        const std::string_view name = host.substr(0, host.size() - service.size());
        if (!isEscapedName(name))
            return std::nullopt;
        return ServiceMatch{scheme, host, name, service == IppsService};
    }
    return std::nullopt;
}

} // namespace

const std::unordered_map<std::string, int32_t>& Uri::protocols()
{
    static const std::unordered_map<std::string, int32_t> table{
        {"dnssd", ProtocolDnssd}, {"ipp", ProtocolIpp},       {"ipps", ProtocolIpps},
        {"usb", ProtocolUsb},     {"socket", ProtocolSocket},
    };
    return table;
}

bool Uri::hasSupportedPrefix(std::string_view uri)
{
    for (const auto& entry : protocols()) {
        if (uri.compare(0, entry.first.size(), entry.first) == 0)
            return true;
    }
    return false;
}

Uri::Uri(const std::string& text, std::shared_ptr<CurlInterface> curl)
{
    if (!curl->init())
        throw std::runtime_error("failed to init curl for uri parsing");
    std::string unescaped = curl->unescape(text.c_str(), text.size());
    if (unescaped.empty())
        throw std::runtime_error("failed to extract uri.");
    uriText = removeWhitespace(unescaped);

    std::optional<DeviceMatch> match = matchDeviceUri(uriText);
    if (!match) {
        setService(text);
        return;
    }
    auto protocol = protocols().find(match->scheme);
    if (protocol == protocols().end())
        throw std::invalid_argument("protocol is not supported");
    protocolNumber = protocol->second;

    if (match->model)
        modelOrAddressText = std::move(*match->model);
    else if (match->address)
        modelOrAddressText = std::move(*match->address);
    else
        throw std::invalid_argument("failed to extract model or ip");
}

// The scheduler takes the URI as discovery reported it, escapes included.
void Uri::setService(const std::string& text)
{
    const std::optional<ServiceMatch> match = matchServiceUri(text);
    if (!match)
        throw std::invalid_argument("invalid uri scheme");
    uriText = text;
    protocolNumber = protocols().at(std::string(match->scheme));
    serviceNameText = std::string(match->name);
    modelOrAddressText = std::string(match->host);
    secureService = match->secure;
}

} // namespace Kestrel::Private
