#include "Output.h"

#include "Failure.h"
#include "Text.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace Kestrel::Client {

namespace {

using nlohmann::json;

json printerList(const std::vector<std::string>& printers)
{
    auto list = json::array();
    for (const auto& printer : printers)
        list.push_back({{"name", printer}});
    return list;
}

json deviceList(const std::map<std::string, std::string>& devices)
{
    auto list = json::array();
    for (const auto& [uri, makeAndModel] : devices)
        list.push_back({{"uri", uri}, {"make_and_model", makeAndModel}});
    return list;
}

// The service's texts may span lines (the list of known options); a
// message stays on one.
std::string oneLine(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '\n' || c == '\t'; }, ' ');
    std::string line;
    for (const char c : text) {
        if (c != ' ' || (!line.empty() && line.back() != ' '))
            line += c;
    }
    while (!line.empty() && line.back() == ' ')
        line.pop_back();
    return line;
}

json printerObject(const std::string& printer, const PrinterState& state)
{
    json supplies = json::array();
    for (const auto& supply : state.supplies)
        supplies.push_back({{"name", supply.name}, {"kind", supply.kind}, {"color", supply.color},
            {"level", supply.level}, {"description", supply.describe()}});
    json trays = json::array();
    for (const auto& tray : state.trays)
        trays.push_back({{"name", tray.name}, {"media", tray.media}, {"level", tray.level}, {"state", tray.state},
            {"description", tray.describe()}});
    return {{"printer", printer}, {"state", state.state}, {"reasons", state.reasons},
        {"description", state.describe()}, {"message", state.message}, {"accepting", state.accepting},
        {"supplies", supplies}, {"trays", trays}};
}

json jobObject(const PrintJob& job)
{
    return {{"id", job.id}, {"printer", job.printer}, {"document", job.document}, {"state", job.state},
        {"reasons", job.reasons}, {"pages", job.pages}, {"created", job.created}};
}

} // namespace

Output::Output(std::ostream& out, std::ostream& err, bool json, bool terminal)
    : out_(out)
    , err_(err)
    , json_(json)
    , terminal_(terminal)
{
}

void Output::savedPrinters(const std::vector<std::string>& printers)
{
    if (json_) {
        write(out_, {{"printers", printerList(printers)}});
        return;
    }
    if (printers.empty())
        note("No printers are saved.");
    for (const auto& printer : printers)
        out_ << printer << '\n';
}

void Output::printerAdded(const std::string& uri, const std::string& name, const std::vector<std::string>& users)
{
    if (json_) {
        write(out_, {{"printer", name}, {"uri", uri}, {"users", users}});
        return;
    }
    note("Added printer " + quoted(name) + " for " + uri + (users.empty() ? "" : " (users: " + joined(users) + ")")
        + ".");
}

void Output::printerRemoved(const std::string& name)
{
    if (json_) {
        write(out_, {{"printer", name}});
        return;
    }
    note("Removed printer " + quoted(name) + ".");
}

void Output::printerRenamed(const std::string& oldName, const std::string& newName)
{
    if (json_) {
        write(out_, {{"printer", newName}, {"old_name", oldName}});
        return;
    }
    note("Renamed printer " + quoted(oldName) + " to " + quoted(newName) + ".");
}

void Output::attributes(const std::string& printer, const std::map<std::string, std::vector<std::string>>& attributes)
{
    if (json_) {
        write(out_, {{"printer", printer}, {"attributes", attributes}});
        return;
    }
    if (attributes.empty())
        note("Printer " + quoted(printer) + " reported no attributes.");
    bool first = true;
    for (const auto& [name, values] : attributes) {
        out_ << (first ? "" : "\n") << name << '\n';
        first = false;
        if (values.empty())
            out_ << "  (no values)\n";
        for (const auto& value : values)
            out_ << "  " << value << '\n';
    }
}

void Output::devices(const std::map<std::string, std::string>& devices)
{
    if (json_) {
        write(out_, {{"devices", deviceList(devices)}});
        return;
    }
    if (devices.empty()) {
        note("No printers found. A failed discovery looks the same: if a printer is attached, check that CUPS is "
             "running.");
        return;
    }
    deviceTable(devices, "");
}

void Output::printed(
    const std::string& file, const std::string& printer, const std::map<std::string, std::string>& options, bool forced)
{
    if (json_) {
        write(out_, {{"printer", printer}, {"file", file}, {"options", options}, {"forced", forced}});
        return;
    }
    note("Sent " + file + " to printer " + quoted(printer) + "; the service has deleted the file.");
}

void Output::printedJob(const std::string& file, const std::string& printer,
    const std::map<std::string, std::string>& options, bool forced, const PrintJob& job)
{
    endProgress();
    if (json_) {
        write(out_,
            {{"printer", printer}, {"file", file}, {"options", options}, {"forced", forced}, {"job", jobObject(job)}});
        return;
    }
    note("Job " + std::to_string(job.id) + " on printer " + quoted(printer) + ": " + job.describe()
        + "; the service has deleted " + file + ".");
}

void Output::jobs(const std::vector<PrintJob>& jobs)
{
    if (json_) {
        auto list = json::array();
        for (const auto& job : jobs)
            list.push_back(jobObject(job));
        write(out_, {{"jobs", list}});
        return;
    }
    if (jobs.empty()) {
        note("No print jobs.");
        return;
    }
    std::size_t printerWidth = 7, documentWidth = 8;
    for (const auto& job : jobs) {
        printerWidth = std::max(printerWidth, job.printer.size());
        documentWidth = std::max(documentWidth, job.document.size());
    }
    const auto row = [&](const std::string& id, const std::string& printer, const std::string& document,
                         const std::string& state) {
        out_ << id << std::string(id.size() < 6 ? 6 - id.size() : 1, ' ') << printer
             << std::string(printerWidth - printer.size() + 2, ' ') << document
             << std::string(documentWidth - document.size() + 2, ' ') << state << '\n';
    };
    row("ID", "PRINTER", "DOCUMENT", "STATE");
    for (const auto& job : jobs)
        row(std::to_string(job.id), job.printer, job.document, job.describe());
}

void Output::jobCanceled(uint32_t id)
{
    if (json_) {
        write(out_, {{"job", id}});
        return;
    }
    note("Canceled job " + std::to_string(id) + ".");
}

void Output::printerState(const std::string& printer, const PrinterState& state)
{
    if (json_) {
        write(out_, printerObject(printer, state));
        return;
    }
    out_ << printer << ": " << state.describe() << '\n';
    if (!state.message.empty())
        out_ << "  " << state.message << '\n';
    for (const auto& tray : state.trays)
        out_ << "  " << tray.describe() << '\n';
    for (const auto& supply : state.supplies)
        out_ << "  " << supply.describe() << '\n';
}

void Output::printerStateChanged(const std::string& printer, const PrinterState& state)
{
    if (json_) {
        auto document = printerObject(printer, state);
        document["signal"] = "printerStateChanged";
        write(out_, document);
        return;
    }
    out_ << "Printer " << quoted(printer) << ": " << state.describe() << std::endl;
}

void Output::jobChanged(const PrintJob& job)
{
    if (json_) {
        write(out_, {{"signal", "jobChanged"}, {"job", jobObject(job)}});
        return;
    }
    out_ << "Job " << job.id << " on printer " << quoted(job.printer) << ": " << job.describe() << std::endl;
}

void Output::savedPrintersChanged(const std::vector<std::string>& printers)
{
    if (json_) {
        write(out_, {{"signal", "savedPrintersChanged"}, {"printers", printerList(printers)}});
        return;
    }
    out_ << "Saved printers changed: " << (printers.empty() ? "(none)" : joined(printers)) << std::endl;
}

void Output::accessiblePrintersChanged(const std::map<std::string, std::string>& devices)
{
    if (json_) {
        write(out_, {{"signal", "accessiblePrintersChanged"}, {"devices", deviceList(devices)}});
        return;
    }
    out_ << "Accessible printers changed: " << devices.size() << " found\n";
    if (!devices.empty())
        deviceTable(devices, "  ");
    out_.flush();
}

void Output::note(const std::string& text)
{
    if (!json_)
        err_ << text << std::endl;
}

void Output::progress(const std::string& text)
{
    if (!terminal_)
        return;
    // Carriage return and erase-line: the next progress overwrites this one.
    err_ << "\r" << text << "\33[K" << std::flush;
    progressShown_ = true;
}

void Output::endProgress()
{
    if (progressShown_)
        err_ << "\r\33[K" << std::flush;
    progressShown_ = false;
}

void Output::failure(const Failure& failure)
{
    endProgress();
    if (json_) {
        write(err_,
            {{"error",
                {{"kind", failure.kind()}, {"message", failure.what()}, {"service_message", failure.serviceMessage()},
                    {"bus_error", failure.busError()}, {"exit_status", static_cast<int>(failure.status())}}}});
        return;
    }
    err_ << "kestrel-print: " << failure.what();
    if (!failure.serviceMessage().empty()) {
        const bool fromService = failure.busError().rfind("ru.zorv.", 0) == 0;
        err_ << " (" << (fromService ? "service" : "bus") << ": " << oneLine(failure.serviceMessage()) << ")";
    }
    err_ << std::endl;
}

void Output::usageError(const std::string& message, const std::string& command)
{
    if (json_) {
        failure(Failure("usage", message, ExitStatus::Usage));
        return;
    }
    err_ << "kestrel-print: " << message << "\nRun 'kestrel-print " << (command.empty() ? "" : command + " ")
         << "--help' for more information." << std::endl;
}

void Output::write(std::ostream& stream, const nlohmann::json& document)
{
    // Replacing bad UTF-8 keeps the document valid whatever a caller typed.
    stream << document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
}

void Output::deviceTable(const std::map<std::string, std::string>& devices, const std::string& indent)
{
    const std::string uriHeading = "URI";
    std::size_t width = uriHeading.size();
    for (const auto& entry : devices)
        width = std::max(width, entry.first.size());
    out_ << indent << uriHeading << std::string(width - uriHeading.size() + 2, ' ') << "MAKE AND MODEL\n";
    for (const auto& [uri, makeAndModel] : devices)
        out_ << indent << uri << std::string(width - uri.size() + 2, ' ') << makeAndModel << '\n';
}

} // namespace Kestrel::Client
