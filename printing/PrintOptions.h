#pragma once

#include <map>
#include <set>
#include <string>

namespace Kestrel::Private {

class CupsRequestHandler;

// The print options a caller may pass; each travels as a keyword in the job group.
class PrintOptions {
public:
    static const std::set<std::string>& supported();
    // Adds the caller's options, then the fixed ones; throws on the first
    // unknown name in ascending order.
    static void addTo(CupsRequestHandler& handler, const std::map<std::string, std::string>& options);
    static std::string unknownOptionMessage(const std::string& name);
};

} // namespace Kestrel::Private
