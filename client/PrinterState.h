#pragma once

#include <sdbus-c++/Types.h>

#include <map>
#include <string>
#include <vector>

namespace Kestrel::Client {

// Toner, ink or a waste box as the printer reports it; level -1 when unknown.
struct Supply
{
    std::string name;
    std::string kind;
    std::string color;
    int level = -1;

    // For a person: "Black toner 75 %", "Waste toner box 25 % full".
    std::string describe() const;
};

// A paper tray; state "ok", "low" or "empty", level -1 when unknown.
struct Tray
{
    std::string name;
    std::string media;
    int level = -1;
    std::string state;

    // For a person: "Tray main: out of paper".
    std::string describe() const;
};

// A saved printer's state as the service reads it from the queue and the printer.
struct PrinterState
{
    std::string state;
    std::vector<std::string> reasons;
    std::string message;
    bool accepting = false;
    std::vector<Supply> supplies;
    std::vector<Tray> trays;

    static PrinterState from(const std::map<std::string, sdbus::Variant>& state);
    // For a person: "ready", "stopped: out of paper, paused".
    std::string describe() const;
};

} // namespace Kestrel::Client
