#pragma once

#include <map>
#include <string>
#include <vector>

namespace Kestrel::Client {

// The print options of one job, checked before the service sees them: their
// form on the command line, their values against the printer's capabilities.
class PrintOptions
{
public:
    using Values = std::map<std::string, std::string>;
    using Capabilities = std::map<std::string, std::vector<std::string>>;

    explicit PrintOptions(Values values);

    // Raises std::invalid_argument for a name the service does not know or
    // a value that is malformed whatever the printer.
    void checkForm() const;
    // Whether a value has to be looked up among the printer's capabilities.
    bool needsCapabilities() const;
    // The options to send: each value the printer must list is looked up,
    // orientation names become their IPP numbers. Raises a Failure naming
    // what the printer supports instead.
    Values checkedAgainst(const Capabilities& capabilities, const std::string& printer) const;

private:
    Values values_;
};

} // namespace Kestrel::Client
