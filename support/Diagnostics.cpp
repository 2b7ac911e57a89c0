#include "support/Diagnostics.h"

#include <algorithm>
#include <iostream>

namespace Kestrel::Private {

// One write per line: probes on several threads warn at the same time.
void logError(std::string_view message)
{
    std::cerr << "ERROR: " + std::string(": ") + std::string(message) + "\n" << std::flush;
}

void logWarning(std::string_view message)
{
    std::cout << "WARNING: " + std::string(": ") + std::string(message) + "\n" << std::flush;
}

std::string removeWhitespace(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    std::copy_if(text.begin(), text.end(), std::back_inserter(result), [](char c) {
        return c != ' ' && c != '\t' && c != '\n' && c != '\v' && c != '\f' && c != '\r';
    });
    return result;
}

} // namespace Kestrel::Private
