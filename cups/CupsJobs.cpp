#include "cups/CupsJobs.h"

#include "cups/CupsRequestHandler.h"

#include <cstdlib>
#include <stdexcept>

namespace Kestrel::Private {

namespace {

// A settings page waits for this at most, so it stays well below the 5 s
// a person would still accept.
constexpr int DeviceBoundMs = 2000;
constexpr size_t UriPartSize = 1024;

const std::unordered_set<std::string> PrinterAttributes = {
    "printer-state", "printer-state-reasons", "printer-state-message", "printer-is-accepting-jobs", "device-uri"};
// An empty message cannot be read as a list; it is read as one text.
const std::unordered_set<std::string> PrinterLists = {"printer-state", "printer-state-reasons",
                                                      "printer-is-accepting-jobs", "device-uri"};

std::string first(const AttributeMap& attributes, const std::string& name)
{
    const auto found = attributes.find(name);
    return found == attributes.end() || found->second.empty() ? "" : found->second.front();
}

// "none" is IPP's way of saying there is no reason.
std::vector<std::string> reasons(const AttributeMap& attributes, const std::string& name)
{
    const auto found = attributes.find(name);
    if (found == attributes.end() || found->second == std::vector<std::string>{"none"})
        return {};
    return found->second;
}

PrinterStatus printerStatus(CupsRequestHandler& handler)
{
    const auto attributes = handler.getAttributes(PrinterLists);
    PrinterStatus status;
    status.state = first(attributes, "printer-state");
    status.reasons = reasons(attributes, "printer-state-reasons");
    status.message = handler.getText("printer-state-message");
    status.accepting = first(attributes, "printer-is-accepting-jobs") == "true";
    status.deviceUri = first(attributes, "device-uri");
    return status;
}

PrinterStatus offline()
{
    PrinterStatus status;
    status.state = "offline";
    status.reasons = {"offline-report"};
    return status;
}

} // namespace

bool PrinterStatus::operator==(const PrinterStatus& other) const
{
    return state == other.state && reasons == other.reasons && message == other.message &&
           accepting == other.accepting;
}

std::set<int> CupsJobs::activeJobIds()
{
    auto& handler = CupsRequestHandler::ofThisThread();
    handler.newRequest(IPP_OP_GET_JOBS);
    handler.addString(IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", "ipp://localhost/");
    handler.addString(IPP_TAG_OPERATION, IPP_TAG_NAME, "requesting-user-name", "defaultuser");
    handler.addString(IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "which-jobs", "not-completed");
    handler.addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", {"job-id"});
    handler.executePrintRequest();
    const auto ids = handler.getIntegers("job-id");
    return {ids.begin(), ids.end()};
}

JobStatus CupsJobs::jobStatus(const std::string& queue, int id)
{
    CupsRequestHandler handler;
    handler.prepareRequest(queue, IPP_OP_GET_JOB_ATTRIBUTES);
    handler.addInteger(IPP_TAG_OPERATION, IPP_TAG_INTEGER, "job-id", id);
    handler.addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes",
                       {"job-state", "job-state-reasons", "job-impressions-completed"});
    handler.executePrintRequest();
    const auto attributes =
        handler.getAttributes({"job-state", "job-state-reasons", "job-impressions-completed"});
    const auto pages = first(attributes, "job-impressions-completed");
    return {first(attributes, "job-state"), reasons(attributes, "job-state-reasons"),
            static_cast<uint32_t>(std::strtoul(pages.c_str(), nullptr, 10))};
}

void CupsJobs::cancel(const std::string& queue, int id)
{
    auto& handler = CupsRequestHandler::ofThisThread();
    handler.prepareRequest(queue, IPP_OP_CANCEL_JOB);
    handler.addInteger(IPP_TAG_OPERATION, IPP_TAG_INTEGER, "job-id", id);
    handler.executePrintRequest();
}

PrinterStatus CupsJobs::queueStatus(const std::string& queue)
{
    CupsRequestHandler handler;
    handler.prepareRequest(queue, IPP_OP_GET_PRINTER_ATTRIBUTES);
    handler.addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", PrinterAttributes);
    handler.executeAdminRequest();
    return printerStatus(handler);
}

PrinterStatus CupsJobs::deviceStatus(const std::string& uri)
{
    char scheme[UriPartSize], user[UriPartSize], host[UriPartSize], resource[UriPartSize];
    int port = 0;
    if (httpSeparateURI(HTTP_URI_CODING_ALL, uri.c_str(), scheme, sizeof(scheme), user, sizeof(user), host,
                        sizeof(host), &port, resource, sizeof(resource)) < HTTP_URI_STATUS_OK)
        return offline();
    CupsRequestHandler handler;
    try {
        handler.connectPrinter(host, port, std::string(scheme) == "ipps", DeviceBoundMs);
        handler.newRequest(IPP_OP_GET_PRINTER_ATTRIBUTES);
        handler.addString(IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", uri);
        handler.addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", PrinterAttributes);
        handler.executeRequestAt(resource);
        return printerStatus(handler);
    } catch (const std::exception&) {
        return offline();
    }
}

} // namespace Kestrel::Private
