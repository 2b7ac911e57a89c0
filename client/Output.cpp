#include "Output.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace Kestrel::Client {

namespace {

std::string joined(const std::vector<std::string>& items)
{
    std::string text;
    for (const auto& item : items)
        text += (text.empty() ? "" : ", ") + item;
    return text;
}

std::string quoted(const std::string& name)
{
    return "\"" + name + "\"";
}

} // namespace

Output::Output(std::ostream& stream, bool json)
    : stream_(stream)
    , json_(json)
{
}

void Output::savedPrinters(const std::vector<std::string>& printers)
{
    if (json_) {
        write(printers);
        return;
    }
    if (printers.empty())
        stream_ << "No printers are saved.\n";
    for (const auto& printer : printers)
        stream_ << printer << '\n';
}

void Output::printerAdded(const std::string& uri, const std::string& name, const std::vector<std::string>& users)
{
    if (json_) {
        write({{"added", {{"name", name}, {"uri", uri}, {"users", users}}}});
        return;
    }
    stream_ << "Added printer " << quoted(name) << " for " << uri;
    if (!users.empty())
        stream_ << " (users: " << joined(users) << ")";
    stream_ << ".\n";
}

void Output::printerRemoved(const std::string& name)
{
    if (json_) {
        write({{"removed", {{"name", name}}}});
        return;
    }
    stream_ << "Removed printer " << quoted(name) << ".\n";
}

void Output::printerRenamed(const std::string& oldName, const std::string& newName)
{
    if (json_) {
        write({{"renamed", {{"from", oldName}, {"to", newName}}}});
        return;
    }
    stream_ << "Renamed printer " << quoted(oldName) << " to " << quoted(newName) << ".\n";
}

void Output::attributes(const std::string& printer, const std::map<std::string, std::vector<std::string>>& attributes)
{
    if (json_) {
        write(attributes);
        return;
    }
    if (attributes.empty())
        stream_ << "Printer " << quoted(printer) << " reported no attributes.\n";
    bool first = true;
    for (const auto& [name, values] : attributes) {
        stream_ << (first ? "" : "\n") << name << '\n';
        first = false;
        if (values.empty())
            stream_ << "  (no values)\n";
        for (const auto& value : values)
            stream_ << "  " << value << '\n';
    }
}

void Output::accessiblePrinters(const std::map<std::string, std::string>& printers)
{
    if (json_) {
        write(printers);
        return;
    }
    if (printers.empty()) {
        stream_ << "No printers found.\n";
        return;
    }
    deviceTable(printers, "");
}

void Output::printed(const std::string& file, const std::string& printer, const std::map<std::string, std::string>& options)
{
    if (json_) {
        write({{"printed", {{"file", file}, {"printer", printer}, {"options", options}}}});
        return;
    }
    stream_ << "Sent " << file << " to printer " << quoted(printer) << ".\n";
}

void Output::savedPrintersChanged(const std::vector<std::string>& printers)
{
    if (json_) {
        write({{"signal", "savedPrintersChanged"}, {"printers", printers}});
        return;
    }
    stream_ << "Saved printers changed: " << (printers.empty() ? "(none)" : joined(printers)) << std::endl;
}

void Output::accessiblePrintersChanged(const std::map<std::string, std::string>& printers)
{
    if (json_) {
        write({{"signal", "accessiblePrintersChanged"}, {"printers", printers}});
        return;
    }
    stream_ << "Accessible printers changed: " << printers.size() << " found\n";
    deviceTable(printers, "  ");
    stream_.flush();
}

void Output::write(const nlohmann::json& document)
{
    // Replacing bad UTF-8 keeps the document valid whatever a caller typed.
    stream_ << document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
}

void Output::deviceTable(const std::map<std::string, std::string>& printers, const std::string& indent)
{
    const std::string uriHeading = "URI";
    std::size_t width = uriHeading.size();
    for (const auto& entry : printers)
        width = std::max(width, entry.first.size());
    stream_ << indent << uriHeading << std::string(width - uriHeading.size() + 2, ' ') << "MAKE AND MODEL\n";
    for (const auto& [uri, makeAndModel] : printers)
        stream_ << indent << uri << std::string(width - uri.size() + 2, ' ') << makeAndModel << '\n';
}

} // namespace Kestrel::Client
