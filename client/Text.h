#pragma once

#include <string>
#include <vector>

namespace Kestrel::Client {

// A name as messages show it: between double quotes.
std::string quoted(const std::string& name);
// Items separated by ", ".
std::string joined(const std::vector<std::string>& items);

} // namespace Kestrel::Client
