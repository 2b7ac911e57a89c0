#include "tests/cups/IppRecordingServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>

namespace Kestrel::Test {

namespace {

std::string valueText(ipp_attribute_t* attribute, int index)
{
    switch (ippGetValueTag(attribute)) {
    case IPP_TAG_INTEGER:
    case IPP_TAG_ENUM:
        return std::to_string(ippGetInteger(attribute, index));
    case IPP_TAG_BOOLEAN:
        return ippGetBoolean(attribute, index) ? "true" : "false";
    default: {
        const char* text = ippGetString(attribute, index, nullptr);
        return text ? text : "";
    }
    }
}

std::vector<IppRecordingServer::Attribute> recordAttributes(ipp_t* ipp)
{
    std::vector<IppRecordingServer::Attribute> attributes;
    for (ipp_attribute_t* attribute = ippFirstAttribute(ipp); attribute; attribute = ippNextAttribute(ipp)) {
        const char* name = ippGetName(attribute);
        if (!name)
            continue;
        IppRecordingServer::Attribute recorded{ippGetGroupTag(attribute), ippGetValueTag(attribute), name, {}};
        for (int i = 0; i < ippGetCount(attribute); ++i)
            recorded.values.push_back(valueText(attribute, i));
        attributes.push_back(std::move(recorded));
    }
    return attributes;
}

void addReplyAttribute(ipp_t* response, const IppRecordingServer::Attribute& attribute)
{
    const char* name = attribute.name.c_str();
    const int count = static_cast<int>(attribute.values.size());
    if (count == 0) {
        ippAddOutOfBand(response, attribute.group, attribute.valueTag, name);
        return;
    }
    switch (attribute.valueTag) {
    case IPP_TAG_INTEGER:
    case IPP_TAG_ENUM: {
        std::vector<int> values;
        for (const std::string& value : attribute.values)
            values.push_back(std::stoi(value));
        ippAddIntegers(response, attribute.group, attribute.valueTag, name, count, values.data());
        return;
    }
    case IPP_TAG_BOOLEAN: {
        std::vector<char> values;
        for (const std::string& value : attribute.values)
            values.push_back(value == "true");
        ippAddBooleans(response, attribute.group, name, count, values.data());
        return;
    }
    default: {
        std::vector<const char*> values;
        for (const std::string& value : attribute.values)
            values.push_back(value.c_str());
        ippAddStrings(response, attribute.group, attribute.valueTag, name, count, nullptr, values.data());
    }
    }
}

[[noreturn]] void throwErrno(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

bool IppRecordingServer::Attribute::operator==(const Attribute& other) const
{
    return group == other.group && valueTag == other.valueTag && name == other.name && values == other.values;
}

const IppRecordingServer::Attribute* IppRecordingServer::Request::find(const std::string& name) const
{
    auto found = std::find_if(attributes.begin(), attributes.end(),
                              [&](const Attribute& attribute) { return attribute.name == name; });
    return found == attributes.end() ? nullptr : &*found;
}

IppRecordingServer::IppRecordingServer()
{
    listenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listenFd < 0)
        throwErrno("socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (bind(listenFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) < 0 || listen(listenFd, 16) < 0 ||
        getsockname(listenFd, reinterpret_cast<sockaddr*>(&address), &length) < 0)
        throwErrno("listen");
    listenPort = ntohs(address.sin_port);
    if (pipe2(wakeFds, O_CLOEXEC) < 0)
        throwErrno("pipe");
    thread = std::thread([this] { serve(); });
}

IppRecordingServer::~IppRecordingServer()
{
    (void)!write(wakeFds[1], "x", 1);
    thread.join();
    close(wakeFds[0]);
    close(wakeFds[1]);
    close(listenFd);
}

std::string IppRecordingServer::address() const
{
    return "127.0.0.1:" + std::to_string(listenPort);
}

void IppRecordingServer::setReply(const Reply& reply)
{
    std::lock_guard<std::mutex> lock(mutex);
    defaultReply = reply;
}

void IppRecordingServer::setReply(ipp_op_t operation, const Reply& reply)
{
    std::lock_guard<std::mutex> lock(mutex);
    operationReplies[operation] = reply;
}

std::vector<IppRecordingServer::Request> IppRecordingServer::requests() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return recorded;
}

bool IppRecordingServer::waitForOpenConnections(int count, std::chrono::milliseconds timeout) const
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (open != count) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

IppRecordingServer::Reply IppRecordingServer::replyFor(ipp_op_t operation) const
{
    std::lock_guard<std::mutex> lock(mutex);
    auto found = operationReplies.find(operation);
    return found == operationReplies.end() ? defaultReply : found->second;
}

void IppRecordingServer::serve()
{
    std::vector<http_t*> clients;
    for (;;) {
        std::vector<pollfd> fds{{wakeFds[0], POLLIN, 0}, {listenFd, POLLIN, 0}};
        for (http_t* client : clients)
            fds.push_back({httpGetFd(client), POLLIN, 0});
        if (poll(fds.data(), fds.size(), -1) < 0)
            continue;
        if (fds[0].revents)
            break;
        // New connections first: a connection made before a request was
        // sent is counted before that request is answered.
        if (fds[1].revents & POLLIN) {
            if (http_t* client = httpAcceptConnection(listenFd, 1)) {
                clients.push_back(client);
                ++accepted;
                ++open;
            }
        }
        for (size_t i = 2; i < fds.size(); ++i) {
            if (!fds[i].revents)
                continue;
            http_t*& client = clients[i - 2];
            bool keep = handle(client);
            while (keep && httpGetReady(client))
                keep = handle(client);
            if (!keep) {
                httpClose(client);
                client = nullptr;
                --open;
            }
        }
        clients.erase(std::remove(clients.begin(), clients.end(), nullptr), clients.end());
    }
    for (http_t* client : clients)
        httpClose(client);
}

bool IppRecordingServer::handle(http_t* http)
{
    char uri[1024];
    if (httpReadRequest(http, uri, sizeof(uri)) != HTTP_STATE_POST)
        return false;
    http_status_t status;
    while ((status = httpUpdate(http)) == HTTP_STATUS_CONTINUE) {
    }
    if (status != HTTP_STATUS_OK)
        return false;
    // libcups waits a second for this before sending the rest.
    if (httpGetExpect(http) == HTTP_STATUS_CONTINUE && httpWriteResponse(http, HTTP_STATUS_CONTINUE) < 0)
        return false;

    ipp_t* request = ippNew();
    ipp_state_t state;
    while ((state = ippRead(http, request)) != IPP_STATE_DATA) {
        if (state == IPP_STATE_ERROR) {
            ippDelete(request);
            return false;
        }
    }
    Request record{uri, ippGetOperation(request), ippGetRequestId(request), recordAttributes(request), {}};
    char buffer[8192];
    ssize_t bytes;
    while ((bytes = httpRead2(http, buffer, sizeof(buffer))) > 0)
        record.document.append(buffer, static_cast<size_t>(bytes));

    const Reply reply = replyFor(record.operation);
    {
        std::lock_guard<std::mutex> lock(mutex);
        recorded.push_back(std::move(record));
    }
    ipp_t* response = ippNewResponse(request);
    ippDelete(request);
    ippSetStatusCode(response, reply.status);
    for (const Attribute& attribute : reply.attributes)
        addReplyAttribute(response, attribute);

    httpClearFields(http);
    httpSetField(http, HTTP_FIELD_CONTENT_TYPE, "application/ipp");
    httpSetLength(http, ippLength(response));
    bool written = httpWriteResponse(http, HTTP_STATUS_OK) >= 0;
    ippSetState(response, IPP_STATE_IDLE);
    while (written && (state = ippWrite(http, response)) != IPP_STATE_DATA)
        written = state != IPP_STATE_ERROR;
    ippDelete(response);
    return written && httpFlushWrite(http) >= 0;
}

} // namespace Kestrel::Test
