#pragma once

#include <string>
#include <string_view>

namespace Kestrel::Private {

// One-line diagnostics; the doubled colon is the service's own format.
void logError(std::string_view message);
void logWarning(std::string_view message);

// Removes every run of white space, as the ECMAScript class \s knows it.
std::string removeWhitespace(std::string_view text);

} // namespace Kestrel::Private
