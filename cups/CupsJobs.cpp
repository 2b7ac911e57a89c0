#include "cups/CupsJobs.h"

#include "cups/CupsRequestHandler.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <stdexcept>

namespace Kestrel::Private {

namespace {

// A settings page waits for this at most, so it stays well below the 5 s
// a person would still accept.
constexpr int DeviceBoundMs = 2000;
constexpr size_t UriPartSize = 1024;

// What the scheduler keeps of a queue, supply levels from its last job included.
const std::unordered_set<std::string> QueueAttributes = {
    "printer-name", "printer-state", "printer-state-reasons", "printer-state-message", "printer-is-accepting-jobs",
    "device-uri", "marker-names", "marker-types", "marker-colors", "marker-levels"};
// What a printer says of itself, its trays and supplies included.
const std::unordered_set<std::string> DeviceAttributes = {
    "printer-state", "printer-state-reasons", "printer-state-message", "printer-is-accepting-jobs",
    "printer-supply", "printer-supply-description", "printer-input-tray", "media-col-ready",
    "marker-names", "marker-types", "marker-colors", "marker-levels"};
// Below this a supply or a tray reads low.
constexpr int LowPercent = 10;

std::string first(const AttributeMap& attributes, const std::string& name)
{
    const auto found = attributes.find(name);
    return found == attributes.end() || found->second.empty() ? "" : found->second.front();
}

std::vector<std::string> values(const AttributeMap& attributes, const std::string& name)
{
    const auto found = attributes.find(name);
    return found == attributes.end() ? std::vector<std::string>{} : found->second;
}

// "none" is IPP's way of saying there is no reason.
std::vector<std::string> reasons(const AttributeMap& attributes, const std::string& name)
{
    const auto found = attributes.find(name);
    if (found == attributes.end() || found->second == std::vector<std::string>{"none"})
        return {};
    return found->second;
}

int number(const std::string& text, int fallback)
{
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    return text.empty() || *end ? fallback : static_cast<int>(value);
}

// Negative levels are IPP's "unknown" and "some left".
int percent(int level, int capacity)
{
    if (level < 0 || capacity <= 0)
        return -1;
    return std::min(100, level * 100 / capacity);
}

// "type=toner;level=75;colorantname=black;" as keys and values.
std::map<std::string, std::string> fields(const std::string& text)
{
    std::map<std::string, std::string> found;
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = std::min(text.find(';', start), text.size());
        const auto field = text.substr(start, end - start);
        const size_t equals = field.find('=');
        if (equals != std::string::npos)
            found[field.substr(0, equals)] = field.substr(equals + 1);
        start = end + 1;
    }
    return found;
}

// The scheduler names kinds as keywords ("waste-toner"), printers in
// printer-supply as PWG words ("wasteToner"); callers get the latter.
std::string pwgWord(const std::string& keyword)
{
    std::string word;
    bool upper = false;
    for (const char c : keyword) {
        if (c == '-') {
            upper = true;
            continue;
        }
        word += upper ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : c;
        upper = false;
    }
    return word;
}

std::vector<Supply> markerSupplies(const AttributeMap& attributes)
{
    const auto names = values(attributes, "marker-names");
    const auto types = values(attributes, "marker-types");
    const auto colors = values(attributes, "marker-colors");
    const auto levels = values(attributes, "marker-levels");
    std::vector<Supply> supplies;
    for (size_t index = 0; index < names.size(); ++index) {
        Supply supply;
        supply.name = names[index];
        supply.kind = index < types.size() ? pwgWord(types[index]) : "";
        supply.color = index < colors.size() && colors[index] != "none" ? colors[index] : "";
        supply.level = index < levels.size() ? percent(number(levels[index], -1), 100) : -1;
        supplies.push_back(std::move(supply));
    }
    return supplies;
}

std::vector<Supply> printerSupplies(const AttributeMap& attributes)
{
    const auto descriptions = values(attributes, "printer-supply-description");
    std::vector<Supply> supplies;
    const auto reported = values(attributes, "printer-supply");
    for (size_t index = 0; index < reported.size(); ++index) {
        auto supply = fields(reported[index]);
        const int capacity = supply["unit"] == "percent" ? 100 : number(supply["maxcapacity"], -1);
        const auto color = supply["colorantname"];
        supplies.push_back({index < descriptions.size() ? descriptions[index] : supply["type"], supply["type"],
                            color == "unknown" || color == "none" ? "" : color,
                            percent(number(supply["level"], -1), capacity)});
    }
    return supplies;
}

std::vector<Tray> printerTrays(const AttributeMap& attributes, CupsRequestHandler& handler)
{
    std::map<std::string, std::string> mediaBySource;
    for (auto& ready : handler.getCollections("media-col-ready", {"media-source", "media-size-name"}))
        mediaBySource.emplace(ready["media-source"], ready["media-size-name"]);
    std::vector<Tray> trays;
    for (const auto& reported : values(attributes, "printer-input-tray")) {
        auto tray = fields(reported);
        // "auto" is the printer choosing a tray, not a tray.
        if (tray["name"] == "auto")
            continue;
        const int level = percent(number(tray["level"], -1), number(tray["maxcapacity"], -1));
        const auto media = mediaBySource.find(tray["name"]);
        trays.push_back({tray["name"], media == mediaBySource.end() ? "" : media->second, level,
                         level == 0 ? "empty" : level > 0 && level <= LowPercent ? "low" : "ok"});
    }
    return trays;
}

PrinterStatus printerStatus(const AttributeMap& attributes)
{
    PrinterStatus status;
    status.state = first(attributes, "printer-state");
    status.reasons = reasons(attributes, "printer-state-reasons");
    status.message = first(attributes, "printer-state-message");
    status.accepting = first(attributes, "printer-is-accepting-jobs") == "true";
    status.deviceUri = first(attributes, "device-uri");
    status.supplies = markerSupplies(attributes);
    return status;
}

// A printer's own reasons carry a severity ("media-empty-report"); callers
// get the reason itself, as the scheduler words the ones it keeps.
std::vector<std::string> withoutSeverity(std::vector<std::string> reasons)
{
    for (auto& reason : reasons) {
        for (const std::string suffix : {"-report", "-warning", "-error"}) {
            if (reason.size() > suffix.size() &&
                reason.compare(reason.size() - suffix.size(), suffix.size(), suffix) == 0) {
                reason.resize(reason.size() - suffix.size());
                break;
            }
        }
    }
    return reasons;
}

// The named attributes of the response's first printer; none when it has none.
AttributeMap firstPrinter(CupsRequestHandler& handler, const std::unordered_set<std::string>& names)
{
    auto groups = handler.getGroups(IPP_TAG_PRINTER, names);
    return groups.empty() ? AttributeMap{} : std::move(groups.front());
}

PrinterStatus offline()
{
    PrinterStatus status;
    status.state = "offline";
    status.reasons = {"offline-report"};
    return status;
}

} // namespace

bool Supply::operator==(const Supply& other) const
{
    return name == other.name && kind == other.kind && color == other.color && level == other.level;
}

bool Tray::operator==(const Tray& other) const
{
    return name == other.name && media == other.media && level == other.level && state == other.state;
}

bool PrinterStatus::sameState(const PrinterStatus& other) const
{
    return state == other.state && reasons == other.reasons && accepting == other.accepting &&
           supplies == other.supplies && trays == other.trays;
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
    handler.addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", QueueAttributes);
    handler.executeAdminRequest();
    return printerStatus(firstPrinter(handler, QueueAttributes));
}

std::map<std::string, PrinterStatus> CupsJobs::queueStatuses()
{
    CupsRequestHandler handler;
    handler.newRequest(IPP_OP_CUPS_GET_PRINTERS);
    handler.addString(IPP_TAG_OPERATION, IPP_TAG_NAME, "requesting-user-name", "defaultuser");
    handler.addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", QueueAttributes);
    std::map<std::string, PrinterStatus> queues;
    if (!handler.executeListing())
        return queues;
    for (const auto& attributes : handler.getGroups(IPP_TAG_PRINTER, QueueAttributes))
        queues[first(attributes, "printer-name")] = printerStatus(attributes);
    return queues;
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
        handler.addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", DeviceAttributes);
        handler.executeRequestAt(resource);
        const auto attributes = firstPrinter(handler, DeviceAttributes);
        auto status = printerStatus(attributes);
        status.reasons = withoutSeverity(std::move(status.reasons));
        const auto supplies = printerSupplies(attributes);
        if (!supplies.empty())
            status.supplies = supplies;
        status.trays = printerTrays(attributes, handler);
        return status;
    } catch (const std::exception&) {
        return offline();
    }
}

} // namespace Kestrel::Private
