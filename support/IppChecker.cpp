#include "support/IppChecker.h"

#include "cups/CupsRequestHandler.h"
#include "support/Diagnostics.h"

#include <algorithm>
#include <exception>
#include <string_view>

namespace Kestrel::Private {

namespace {

constexpr int IppPort = 631;
constexpr int IppsPort = 443;
const std::string VersionsAttribute = "ipp-versions-supported";

// Where the line that holds `from` ends: "." in the patterns stops there.
size_t lineEnd(const std::string& text, size_t from)
{
    return std::min(text.find_first_of("\n\r", from), text.size());
}

// The ECMAScript global replace of "(.*)://": on each line, everything up
// to its last "://" becomes the new scheme ("." stops at line breaks).
// Written out because a backtracking matcher overflows on long URIs.
std::string replaceScheme(const std::string& uri, const char* scheme)
{
    std::string result;
    size_t lineStart = 0;
    while (lineStart <= uri.size()) {
        const size_t end = lineEnd(uri, lineStart);
        const std::string_view line(uri.data() + lineStart, end - lineStart);
        const size_t separator = line.rfind("://");
        if (separator == std::string_view::npos)
            result += line;
        else
            result.append(scheme).append(line.substr(separator + 3));
        if (end == uri.size())
            break;
        result += uri[end];
        lineStart = end + 1;
    }
    return result;
}

// The first ECMAScript match of "ipp://(([0-9]*.){4})", group 1. Each of
// the four runs takes its digits and the character after them, giving back
// just enough for the runs still to come: all of them must fit on the line.
std::string findAddress(const std::string& ippUri)
{
    constexpr std::string_view prefix = "ipp://";
    constexpr size_t runs = 4;
    for (size_t at = ippUri.find(prefix); at != std::string::npos; at = ippUri.find(prefix, at + 1)) {
        const size_t start = at + prefix.size();
        const size_t end = lineEnd(ippUri, start);
        if (end - start < runs)
            continue;
        size_t position = start;
        for (size_t left = runs; left > 0; --left) {
            size_t digitsEnd = position;
            while (digitsEnd < end && ippUri[digitsEnd] >= '0' && ippUri[digitsEnd] <= '9')
                ++digitsEnd;
            const size_t greedyEnd = digitsEnd < end ? digitsEnd + 1 : digitsEnd;
            position = std::min(greedyEnd, end - (left - 1));
        }
        return ippUri.substr(start, position - start);
    }
    return {};
}

} // namespace

IppChecker::IppChecker(const std::string& deviceUri, std::shared_ptr<CupsRequestHandler> handler)
    : handler(std::move(handler))
    , ippUri(replaceScheme(deviceUri, "ipp://"))
    , address(findAddress(ippUri))
{
}

bool IppChecker::isIppSupported()
{
    return probe(IppPort);
}

bool IppChecker::isIppsSupported()
{
    if (!probe(IppsPort))
        return false;
    ippUri = replaceScheme(ippUri, "ipps://");
    return true;
}

std::string IppChecker::getIppUri()
{
    return ippUri;
}

bool IppChecker::probe(int port)
{
    if (address.empty()) {
        logWarning("no address.");
        return false;
    }
    try {
        handler->connectRemote(address, port);
        handler->newRequest(IPP_OP_GET_PRINTER_ATTRIBUTES);
        handler->addString(IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", ippUri);
        handler->addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", {VersionsAttribute});
        handler->executePrintRequest();
        AttributeMap attributes = handler->getAttributes({VersionsAttribute});
        auto versions = attributes.find(VersionsAttribute);
        return versions != attributes.end() && !versions->second.empty();
    } catch (const std::exception& error) {
        logWarning(error.what());
        return false;
    }
}

} // namespace Kestrel::Private
