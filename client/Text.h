#pragma once

#include <string>
#include <vector>

namespace Kestrel::Client {

// A name as messages show it: between double quotes.
std::string quoted(const std::string& name);
// Items separated by ", ".
std::string joined(const std::vector<std::string>& items);
// IPP state reasons in words a person understands ("out of paper, offline"),
// the reasons that say nothing to one left out.
std::string reasonWords(const std::vector<std::string>& reasons);

} // namespace Kestrel::Client
