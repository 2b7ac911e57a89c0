#include "support/IppChecker.h"

#include "cups/CupsRequestHandler.h"
#include "support/Diagnostics.h"

#include <re2/re2.h>

#include <exception>

namespace Kestrel::Private {

namespace {

constexpr int IppPort = 631;
constexpr int IppsPort = 443;
const std::string VersionsAttribute = "ipp-versions-supported";

// RE2 in Latin-1 mode with "." spelled [^\n\r] gives the ECMAScript results
// in linear time; a recursive matcher would overflow on long URIs.
std::string replaceScheme(std::string uri, const char* scheme)
{
    static const RE2 schemePattern("[^\n\r]*://", RE2::Latin1);
    RE2::GlobalReplace(&uri, schemePattern, scheme);
    return uri;
}

// The whole match is "ipp://" followed by the address group, so the
// match bounds alone give the group without submatch tracking.
std::string findAddress(const std::string& ippUri)
{
    static const RE2 addressPattern("ipp://(?:[0-9]*[^\n\r]){4}", RE2::Latin1);
    static const size_t prefixLength = std::string_view("ipp://").size();
    re2::StringPiece match;
    if (!addressPattern.Match(ippUri, 0, ippUri.size(), RE2::UNANCHORED, &match, 1))
        return {};
    return std::string(match.substr(prefixLength));
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
