#pragma once

#include "PrintJob.h"
#include "PrinterState.h"

#include <nlohmann/json_fwd.hpp>

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace Kestrel::Client {

class Failure;

// Writes what a command found, did or failed to do: data to standard
// output, notes and errors to standard error, either as text for a person
// or as one JSON object per result (per line for events).
class Output
{
public:
    // terminal: standard error is a terminal, so a live progress line may go there.
    Output(std::ostream& out, std::ostream& err, bool json, bool terminal);

    void savedPrinters(const std::vector<std::string>& printers);
    void printerAdded(const std::string& uri, const std::string& name, const std::vector<std::string>& users);
    void printerRemoved(const std::string& name);
    void printerRenamed(const std::string& oldName, const std::string& newName);
    void attributes(const std::string& printer, const std::map<std::string, std::vector<std::string>>& attributes);
    void devices(const std::map<std::string, std::string>& devices);
    void printed(const std::string& file, const std::string& printer, const std::map<std::string, std::string>& options,
        bool forced);
    // A print followed to its end.
    void printedJob(const std::string& file, const std::string& printer,
        const std::map<std::string, std::string>& options, bool forced, const PrintJob& job);
    void jobs(const std::vector<PrintJob>& jobs);
    void jobCanceled(uint32_t id);
    void printerState(const std::string& printer, const PrinterState& state);
    void savedPrintersChanged(const std::vector<std::string>& printers);
    void printerStateChanged(const std::string& printer, const PrinterState& state);
    void jobChanged(const PrintJob& job);
    void accessiblePrintersChanged(const std::map<std::string, std::string>& devices);

    // A note for a person; scripts reading JSON get the data instead.
    void note(const std::string& text);
    // A line on the terminal that the next progress or end replaces; nothing elsewhere.
    void progress(const std::string& text);
    void endProgress();
    void failure(const Failure& failure);
    // command: the one whose --help explains the mistake, empty for the tool's.
    void usageError(const std::string& message, const std::string& command);

private:
    void write(std::ostream& stream, const nlohmann::json& document);
    void deviceTable(const std::map<std::string, std::string>& devices, const std::string& indent);

    std::ostream& out_;
    std::ostream& err_;
    bool json_;
    bool terminal_;
    bool progressShown_ = false;
};

} // namespace Kestrel::Client
