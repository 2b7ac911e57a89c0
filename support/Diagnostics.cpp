#include "support/Diagnostics.h"

#include <algorithm>
#include <iostream>

namespace Kestrel::Private {

void logError(std::string_view message)
{
    std::cerr << "ERROR: " << ": " << message << std::endl;
}

void logWarning(std::string_view message)
{
    std::cout << "WARNING: " << ": " << message << std::endl;
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
