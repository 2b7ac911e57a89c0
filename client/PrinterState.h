#pragma once

#include <sdbus-c++/Types.h>

#include <map>
#include <string>
#include <vector>

namespace Kestrel::Client {

// A saved printer's state as the service reads it from the queue and the printer.
struct PrinterState
{
    std::string state;
    std::vector<std::string> reasons;
    std::string message;
    bool accepting = false;

    static PrinterState from(const std::map<std::string, sdbus::Variant>& state);
    // For a person: "ready", "stopped: out of paper, paused".
    std::string describe() const;
};

} // namespace Kestrel::Client
