#pragma once

#include "CommandLine.h"
#include "Failure.h"

#include <functional>
#include <string>
#include <vector>

namespace sdbus {
class Error;
}

namespace Kestrel::Client {

// Turns an error from the bus or the print service into a Failure that
// says, for the command at hand, what went wrong and what to do about it.
// The service's texts are matched as they stand; where a text alone is not
// enough, the saved printers are asked for.
class ErrorExplainer
{
public:
    using SavedPrinters = std::function<std::vector<std::string>()>;

    ErrorExplainer(const CommandLine::Invocation& invocation, SavedPrinters savedPrinters);

    Failure explain(const sdbus::Error& error) const;
    // For a connection to the system bus that could not be opened.
    static Failure noSystemBus(const sdbus::Error& error);

private:
    Failure fromService(const std::string& text, const std::string& name) const;
    // What the command would have done, for "may not ..." and "refused to ...".
    std::string action() const;
    // The saved printer the command names, empty when it names none.
    std::string printer() const;
    bool printerSaved(const std::string& printer) const;

    const CommandLine::Invocation& invocation_;
    SavedPrinters savedPrinters_;
};

} // namespace Kestrel::Client
