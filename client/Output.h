#pragma once

#include <nlohmann/json_fwd.hpp>

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace Kestrel::Client {

// Writes command results either as text for a terminal or as JSON for
// scripts, one document (or, for events, one line) per result.
class Output
{
public:
    Output(std::ostream& stream, bool json);

    void savedPrinters(const std::vector<std::string>& printers);
    void printerAdded(const std::string& uri, const std::string& name, const std::vector<std::string>& users);
    void printerRemoved(const std::string& name);
    void printerRenamed(const std::string& oldName, const std::string& newName);
    void attributes(const std::string& printer, const std::map<std::string, std::vector<std::string>>& attributes);
    void accessiblePrinters(const std::map<std::string, std::string>& printers);
    void printed(const std::string& file, const std::string& printer, const std::map<std::string, std::string>& options);
    void savedPrintersChanged(const std::vector<std::string>& printers);
    void accessiblePrintersChanged(const std::map<std::string, std::string>& printers);

private:
    void write(const nlohmann::json& document);
    void deviceTable(const std::map<std::string, std::string>& printers, const std::string& indent);

    std::ostream& stream_;
    bool json_;
};

} // namespace Kestrel::Client
