#pragma once

#include <cups/cups.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Kestrel::Test {

// An IPP server on 127.0.0.1 that records every request it receives, byte
// for byte as libcups decodes it, and answers what the test chose.
class IppRecordingServer {
public:
    struct Attribute {
        ipp_tag_t group;
        ipp_tag_t valueTag;
        std::string name;
        std::vector<std::string> values;

        bool operator==(const Attribute& other) const;
    };

    struct Request {
        std::string resource;
        ipp_op_t operation;
        int requestId;
        std::vector<Attribute> attributes;
        std::string document;

        // The attribute of that name, or nullptr.
        const Attribute* find(const std::string& name) const;
    };

    struct Reply {
        ipp_status_t status = IPP_STATUS_OK;
        // Integer, enum and boolean values are given as text ("true").
        std::vector<Attribute> attributes;
    };

    IppRecordingServer();
    ~IppRecordingServer();
    IppRecordingServer(const IppRecordingServer&) = delete;
    IppRecordingServer& operator=(const IppRecordingServer&) = delete;

    int port() const { return listenPort; }
    // "127.0.0.1:PORT", the form CUPS_SERVER and cupsSetServer take.
    std::string address() const;

    // The reply to every request, unless one is set for its operation.
    void setReply(const Reply& reply);
    void setReply(ipp_op_t operation, const Reply& reply);

    std::vector<Request> requests() const;
    int acceptedConnections() const { return accepted; }
    int openConnections() const { return open; }
    // Bounded polling for connection state the server sees asynchronously.
    bool waitForOpenConnections(int count, std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;

private:
    void serve();
    bool handle(http_t* http);
    Reply replyFor(ipp_op_t operation) const;

    int listenFd = -1;
    int wakeFds[2] = {-1, -1};
    int listenPort = 0;
    std::atomic<int> accepted{0};
    std::atomic<int> open{0};
    mutable std::mutex mutex;
    Reply defaultReply;
    std::map<ipp_op_t, Reply> operationReplies;
    std::vector<Request> recorded;
    std::thread thread;
};

} // namespace Kestrel::Test
