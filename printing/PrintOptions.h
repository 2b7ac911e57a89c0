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
    // Throws for the first unknown name in ascending order, then for a value
    // longer than IPP can carry; nothing is built before this passes.
    static void check(const std::map<std::string, std::string>& options);
    // Adds the caller's checked options, then the fixed ones.
    static void addTo(CupsRequestHandler& handler, const std::map<std::string, std::string>& options);
    static std::string unknownOptionMessage(const std::string& name);
};

} // namespace Kestrel::Private
