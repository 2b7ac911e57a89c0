#pragma once

#include <sdbus-c++/Types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Kestrel::Client {

// One job as the service describes it.
struct PrintJob
{
    uint32_t id = 0;
    std::string printer;
    std::string document;
    std::string state;
    std::vector<std::string> reasons;
    uint32_t pages = 0;
    int64_t created = 0;

    static PrintJob from(const std::map<std::string, sdbus::Variant>& job);
    bool ended() const;
    // The state and why, for a person: "printing, 2 pages", "waiting (printer stopped)".
    std::string describe() const;
};

} // namespace Kestrel::Client
