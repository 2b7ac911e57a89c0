#include "cups/CupsRequestHandler.h"

#include "support/Diagnostics.h"

#include <stdexcept>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Kestrel::Private {

namespace {

constexpr int RemoteTimeoutMs = 30000;
// Probes of network devices: a printer answers IPP in milliseconds, and a scan
// must not wait long on a device that accepts a connection and stays silent.
constexpr int ProbeConnectTimeoutMs = 2000;
// Bounds on each wait for the peer to take or send data: a scheduler or a
// printer that accepts a connection and never answers would otherwise hold
// the caller for about a minute per request, the bus thread included.
constexpr double SchedulerWaitSeconds = 10;
constexpr double PrinterWaitSeconds = 2;
constexpr int SchedulerConnectTimeoutMs = 10000;
constexpr size_t UriBufferSize = 1024;

// Without this callback the library would keep waiting on writes.
int giveUp(http_t*, void*)
{
    return 0;
}

http_t* bounded(http_t* http, double seconds)
{
    if (http)
        httpSetTimeout(http, seconds, giveUp, nullptr);
    return http;
}

// Between requests nothing may arrive on the socket, so readable means the
// peer has hung up.
bool closedByPeer(http_t* http)
{
    pollfd watched{httpGetFd(http), POLLIN, 0};
    if (poll(&watched, 1, 0) <= 0)
        return false;
    char byte;
    return recv(watched.fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) <= 0;
}

std::string valueText(ipp_attribute_t* attribute, int index)
{
    switch (ippGetValueTag(attribute)) {
    case IPP_TAG_INTEGER:
        return std::to_string(ippGetInteger(attribute, index));
    case IPP_TAG_ENUM:
        return ippEnumString(ippGetName(attribute), ippGetInteger(attribute, index));
    case IPP_TAG_BOOLEAN:
        return ippGetBoolean(attribute, index) ? "true" : "false";
    case IPP_TAG_STRING: {
        int length = 0;
        const auto* data = static_cast<const char*>(ippGetOctetString(attribute, index, &length));
        return data ? std::string(data, static_cast<size_t>(length)) : "";
    }
    default: {
        const char* text = ippGetString(attribute, index, nullptr);
        return text ? text : "";
    }
    }
}

std::vector<std::string> valueTexts(ipp_attribute_t* attribute)
{
    std::vector<std::string> texts;
    for (int index = 0; index < ippGetCount(attribute); ++index)
        texts.push_back(valueText(attribute, index));
    return texts;
}

void warnAlreadyConnected()
{
    logWarning("connection with CUPS server already established.");
}

ipp_t* pendingRequest(const IppPtr& request)
{
    if (!request)
        throw std::invalid_argument("no pending requests prepared.");
    return request.get();
}

ipp_t* storedResponse(const IppPtr& response)
{
    if (!response)
        throw std::invalid_argument("no response provided.");
    return response.get();
}

void checkAdded(const ipp_attribute_t* attribute, std::string_view name)
{
    if (attribute)
        return;
    throw std::runtime_error("failed to adjust CUPS attribute '" + std::string(name) + "': " + cupsErrorText());
}

// Splits like reading comma-terminated fields: inner empty pieces stay,
// a trailing comma adds nothing.
std::vector<std::string> splitAtCommas(const std::string& text)
{
    std::vector<std::string> pieces;
    size_t start = 0;
    while (start < text.size()) {
        size_t comma = text.find(',', start);
        if (comma == std::string::npos)
            comma = text.size();
        pieces.emplace_back(text, start, comma - start);
        start = comma + 1;
    }
    return pieces;
}

// A connection to the local scheduler as the process is configured for it,
// every wait on it bounded; null when it cannot be opened.
HttpPtr connectToScheduler()
{
    return HttpPtr(bounded(httpConnect2(cupsServer(), ippPort(), nullptr, AF_UNSPEC, cupsEncryption(), 1,
                                        SchedulerConnectTimeoutMs, nullptr),
                           SchedulerWaitSeconds));
}

// ipp://localhost/printers/NAME.
std::string queueUri(const std::string& name)
{
    char uri[UriBufferSize];
    http_uri_status_t status =
        httpAssembleURIf(HTTP_URI_CODING_ALL, uri, sizeof(uri), "ipp", nullptr, "localhost", 0, "/printers/%s",
                         name.c_str());
    if (status != HTTP_URI_STATUS_OK)
        throw std::runtime_error(std::string("error assembling printer uri: ") + httpURIStatusString(status));
    return uri;
}

// What the library reports for a scheduler it cannot reach.
std::string unreachableText()
{
    return httpStatus(HTTP_STATUS_SERVICE_UNAVAILABLE);
}

} // namespace

std::string cupsErrorText()
{
    const char* text = cupsLastErrorString();
    return text ? text : "";
}

CupsRequestHandler& CupsRequestHandler::ofThisThread()
{
    thread_local CupsRequestHandler handler;
    return handler;
}

CupsRequestHandler::~CupsRequestHandler()
{
    remoteHost.clear();
    response.reset();
    request.reset();
    connection.reset();
}

void CupsRequestHandler::connect()
{
    if (connection) {
        warnAlreadyConnected();
        return;
    }
    HttpPtr http = connectToScheduler();
    if (!http)
        throw std::runtime_error("failed to establish connection with CUPS server.");
    connection = std::move(http);
}

void CupsRequestHandler::connectRemote(std::string_view host, int port)
{
    if (connection && remoteHost == host && remotePort == port) {
        warnAlreadyConnected();
        return;
    }
    std::string hostText(host);
    // Created unconnected, so that the bound also covers the TLS handshake
    // the library starts itself on port 443.
    HttpPtr http(bounded(httpConnect2(hostText.c_str(), port, nullptr, AF_UNSPEC, HTTP_ENCRYPTION_IF_REQUESTED, 1, 0,
                                      nullptr),
                         PrinterWaitSeconds));
    if (!http || httpReconnect2(http.get(), ProbeConnectTimeoutMs, nullptr) != 0)
        throw std::runtime_error("failed to establish connection with remote server.");
    remoteHost = std::move(hostText);
    remotePort = port;
    connection = std::move(http);
}

void CupsRequestHandler::connectPrinter(const std::string& host, int port, bool encrypted, int boundMs)
{
    const auto encryption = encrypted ? HTTP_ENCRYPTION_ALWAYS : HTTP_ENCRYPTION_IF_REQUESTED;
    http_t* http = bounded(httpConnect2(host.c_str(), port, nullptr, AF_UNSPEC, encryption, 1, boundMs, nullptr),
                           boundMs / 1000.0);
    if (!http)
        throw std::runtime_error("failed to establish connection with remote server.");
    remoteHost = host;
    remotePort = port;
    connection.reset(http);
}

void CupsRequestHandler::prepareRequest(std::string printerName, ipp_op_t operation)
{
    request.reset(ippNewRequest(operation));
    printerName = removeWhitespace(printerName);
    const std::string uri = queueUri(printerName);

    // Through the virtual slot, so that a replaced addString sees these too.
    addString(IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", uri);
    addString(IPP_TAG_OPERATION, IPP_TAG_NAME, "requesting-user-name", "defaultuser");
}

void CupsRequestHandler::newRequest(ipp_op_t operation)
{
    request.reset(ippNewRequest(operation));
}

void CupsRequestHandler::addString(ipp_tag_t group, ipp_tag_t valueTag, std::string_view name,
                                   std::string_view value)
{
    ipp_t* ipp = pendingRequest(request);
    checkAdded(ippAddString(ipp, group, valueTag, std::string(name).c_str(), nullptr, std::string(value).c_str()),
               name);
}

void CupsRequestHandler::addInteger(ipp_tag_t group, ipp_tag_t valueTag, std::string_view name, int value)
{
    ipp_t* ipp = pendingRequest(request);
    checkAdded(ippAddInteger(ipp, group, valueTag, std::string(name).c_str(), value), name);
}

void CupsRequestHandler::addBoolean(ipp_tag_t group, std::string_view name, bool value)
{
    ipp_t* ipp = pendingRequest(request);
    checkAdded(ippAddBoolean(ipp, group, std::string(name).c_str(), value ? 1 : 0), name);
}

void CupsRequestHandler::addStrings(ipp_tag_t group, ipp_tag_t valueTag, std::string_view name,
                                    const std::unordered_set<std::string>& values)
{
    ipp_t* ipp = pendingRequest(request);
    std::vector<const char*> texts;
    texts.reserve(values.size());
    for (const std::string& value : values)
        texts.push_back(value.c_str());
    checkAdded(ippAddStrings(ipp, group, valueTag, std::string(name).c_str(), static_cast<int>(texts.size()),
                             nullptr, texts.data()),
               name);
}

void CupsRequestHandler::executeAdminRequest()
{
    execute("/admin/", NoDocument);
}

void CupsRequestHandler::executePrintRequest()
{
    execute("/ipp/print", NoDocument);
}

void CupsRequestHandler::executeRequestAt(const std::string& resource)
{
    execute(resource.c_str(), NoDocument);
}

void CupsRequestHandler::executePrintFileRequest(int document)
{
    execute("/ipp/print", document);
}

bool CupsRequestHandler::executeListing()
{
    if (exchange("/admin/", NoDocument) == IPP_STATUS_ERROR_NOT_FOUND)
        return false;
    checkResponse();
    return true;
}

void CupsRequestHandler::execute(const char* resource, int document)
{
    exchange(resource, document);
    checkResponse();
}

void CupsRequestHandler::checkResponse() const
{
    if (!response || cupsLastError() > IPP_STATUS_OK_CONFLICTING)
        throw std::runtime_error("failed to execute request: " + cupsErrorText());
}

ipp_status_t CupsRequestHandler::exchange(const char* resource, int document)
{
    pendingRequest(request);
    // The library frees the request whatever the outcome.
    IppPtr sent = std::move(request);
    if (!connection)
        connection = connectToScheduler();
    // The scheduler drops kept-alive connections it considers idle, or has
    // stopped or restarted, and libcups only notices once the request has
    // been lost on the dead socket: the connection is reopened first. Not
    // the library's own default connection, which would wait on a silent
    // scheduler without our bound; and not its last error, which may be left
    // from an earlier request: the text the library gives this failure.
    if (!connection ||
        (closedByPeer(connection.get()) && httpReconnect2(connection.get(), RemoteTimeoutMs, nullptr) != 0))
        throw std::runtime_error("failed to execute request: " + unreachableText());
    // The whole document each time (a job sends it twice); a descriptor that
    // cannot seek fails in the library, which reports it.
    if (document != NoDocument)
        ::lseek(document, 0, SEEK_SET);
    response.reset(cupsDoIORequest(connection.get(), sent.release(), resource, document, NoDocument));
    return cupsLastError();
}

void CupsRequestHandler::releaseResponse()
{
    response.reset();
}

int CupsRequestHandler::getInteger(std::string_view name)
{
    ipp_t* ipp = storedResponse(response);
    return ippGetInteger(ippFindAttribute(ipp, std::string(name).c_str(), IPP_TAG_INTEGER), 0);
}

std::vector<int> CupsRequestHandler::getIntegers(std::string_view name)
{
    ipp_t* ipp = storedResponse(response);
    const std::string wanted(name);
    std::vector<int> values;
    for (ipp_attribute_t* attribute = ippFindAttribute(ipp, wanted.c_str(), IPP_TAG_INTEGER); attribute;
         attribute = ippFindNextAttribute(ipp, wanted.c_str(), IPP_TAG_INTEGER))
        values.push_back(ippGetInteger(attribute, 0));
    return values;
}

std::string CupsRequestHandler::getText(std::string_view name)
{
    const char* text = ippGetString(ippFindAttribute(storedResponse(response), std::string(name).c_str(), IPP_TAG_TEXT),
                                    0, nullptr);
    return text ? text : "";
}

AttributeMap CupsRequestHandler::getAttributes(const std::unordered_set<std::string>& names)
{
    ipp_t* ipp = storedResponse(response);
    AttributeMap attributes;
    for (ipp_attribute_t* attribute = ippFirstAttribute(ipp); attribute; attribute = ippNextAttribute(ipp)) {
        const char* name = ippGetName(attribute);
        // Group separators carry no name.
        if (!name || !names.count(name))
            continue;
        size_t length = ippAttributeString(attribute, nullptr, 0);
        std::string text(length + 1, '\0');
        if (ippAttributeString(attribute, text.data(), text.size()) == 0)
            throw std::runtime_error(std::string("failed to extract value from attribute ") + name);
        text.resize(length);
        attributes[name] = splitAtCommas(text);
    }
    return attributes;
}

std::vector<AttributeMap> CupsRequestHandler::getGroups(ipp_tag_t group, const std::unordered_set<std::string>& names)
{
    ipp_t* ipp = storedResponse(response);
    std::vector<AttributeMap> groups;
    bool inGroup = false;
    for (ipp_attribute_t* attribute = ippFirstAttribute(ipp); attribute; attribute = ippNextAttribute(ipp)) {
        const char* name = ippGetName(attribute);
        // Separators between two groups of the same tag carry no name.
        if (!name || ippGetGroupTag(attribute) != group) {
            inGroup = false;
            continue;
        }
        if (!inGroup)
            groups.emplace_back();
        inGroup = true;
        if (names.count(name))
            groups.back()[name] = valueTexts(attribute);
    }
    return groups;
}

std::vector<std::map<std::string, std::string>> CupsRequestHandler::getCollections(
    std::string_view name, const std::unordered_set<std::string>& members)
{
    std::vector<std::map<std::string, std::string>> collections;
    ipp_attribute_t* attribute =
        ippFindAttribute(storedResponse(response), std::string(name).c_str(), IPP_TAG_BEGIN_COLLECTION);
    for (int index = 0; attribute && index < ippGetCount(attribute); ++index) {
        ipp_t* collection = ippGetCollection(attribute, index);
        auto& found = collections.emplace_back();
        for (ipp_attribute_t* member = ippFirstAttribute(collection); member; member = ippNextAttribute(collection)) {
            const char* memberName = ippGetName(member);
            if (memberName && members.count(memberName) && ippGetCount(member) > 0)
                found[memberName] = valueText(member, 0);
        }
    }
    return collections;
}

} // namespace Kestrel::Private
