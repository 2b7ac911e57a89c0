#pragma once

#include <cups/cups.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace Kestrel::Private {

// IPP attribute name to the texts of its values.
using AttributeMap = std::map<std::string, std::vector<std::string>>;

struct HttpCloser {
    void operator()(http_t* http) const { httpClose(http); }
};
struct IppDeleter {
    void operator()(ipp_t* ipp) const { ippDelete(ipp); }
};
using HttpPtr = std::unique_ptr<http_t, HttpCloser>;
using IppPtr = std::unique_ptr<ipp_t, IppDeleter>;

// The library's last error text; empty rather than null before any error.
std::string cupsErrorText();

// One connection, one pending request and the last response: the only way
// the service speaks IPP to a scheduler or a printer.
class CupsRequestHandler {
public:
    CupsRequestHandler() = default;
    CupsRequestHandler(const CupsRequestHandler&) = delete;
    CupsRequestHandler& operator=(const CupsRequestHandler&) = delete;
    virtual ~CupsRequestHandler();

    // The calling thread's own handler: libcups keeps its connection state
    // and last error per thread, so no handler is shared between threads.
    static CupsRequestHandler& ofThisThread();

    virtual void connect();
    virtual void connectRemote(std::string_view host, int port);
    // A printer that must answer within the bound, connection and every wait alike.
    void connectPrinter(const std::string& host, int port, bool encrypted, int boundMs);
    virtual void prepareRequest(std::string printerName, ipp_op_t operation);
    virtual void newRequest(ipp_op_t operation);

    virtual void addString(ipp_tag_t group, ipp_tag_t valueTag, std::string_view name, std::string_view value);
    virtual void addInteger(ipp_tag_t group, ipp_tag_t valueTag, std::string_view name, int value);
    virtual void addBoolean(ipp_tag_t group, std::string_view name, bool value);
    virtual void addStrings(ipp_tag_t group, ipp_tag_t valueTag, std::string_view name,
                            const std::unordered_set<std::string>& values);

    virtual void executeAdminRequest();
    // The same for a listing: false when the scheduler has nothing to list
    // ("not found"), which is no failure and so throws nothing.
    bool executeListing();
    virtual void executePrintRequest();
    void executeRequestAt(const std::string& resource);
    // Sends the request followed by the contents of the open document.
    virtual void executePrintFileRequest(int document);

    virtual void releaseResponse();
    virtual int getInteger(std::string_view name);
    // Every value of the attribute in the response, across its groups.
    virtual std::vector<int> getIntegers(std::string_view name);
    // The first value of a text attribute; empty when there is none.
    std::string getText(std::string_view name);
    virtual AttributeMap getAttributes(const std::unordered_set<std::string>& names);
    // The named attributes of each group of that tag (one per printer or
    // job), every value its own text, so a comma inside a value stays.
    std::vector<AttributeMap> getGroups(ipp_tag_t group, const std::unordered_set<std::string>& names);
    // Of each value of a collection attribute, the named members' first values.
    std::vector<std::map<std::string, std::string>> getCollections(std::string_view name,
                                                                   const std::unordered_set<std::string>& members);

private:
    static constexpr int NoDocument = -1;
    void execute(const char* resource, int document);
    // Sends the request; throws only when the scheduler cannot be reached.
    ipp_status_t exchange(const char* resource, int document);
    void checkResponse() const;

    HttpPtr connection;
    IppPtr request;
    IppPtr response;
    std::string remoteHost;
    int32_t remotePort = 0;
};

} // namespace Kestrel::Private
