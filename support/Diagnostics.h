#pragma once

#include <exception>
#include <string>
#include <string_view>

namespace Kestrel::Private {

// One-line diagnostics; the doubled colon is the service's own format.
void logError(std::string_view message);
void logWarning(std::string_view message);

// Runs the body; a failure leaving it is logged once, then goes on unchanged.
template <typename Body>
auto logFailures(Body&& body)
{
    try {
        return body();
    } catch (const std::exception& error) {
        logError(error.what());
        throw;
    }
}

// Removes every run of white space, as the ECMAScript class \s knows it.
std::string removeWhitespace(std::string_view text);

} // namespace Kestrel::Private
