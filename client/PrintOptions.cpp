#include "PrintOptions.h"

#include "Failure.h"
#include "Text.h"

#include <algorithm>
#include <stdexcept>

namespace Kestrel::Client {

namespace {

// The service's own table of option names.
const std::vector<std::string> knownNames = {
    "copies",
    "fit-to-page",
    "media",
    "orientation-requested",
    "outputorder",
    "page-ranges",
    "print-color-mode",
    "sides",
};

// Options whose values only the printer can judge, with the capability that lists them.
const std::map<std::string, std::string> capabilityOf = {
    {"media", "media-supported"},
    {"orientation-requested", "orientation-requested-supported"},
    {"print-color-mode", "print-color-mode-supported"},
    {"sides", "sides-supported"},
};

// IPP sends orientations as numbers; printers may list either form.
const std::map<std::string, std::string> orientationNumbers = {
    {"portrait", "3"},
    {"landscape", "4"},
    {"reverse-landscape", "5"},
    {"reverse-portrait", "6"},
};

std::string orientationNumber(const std::string& value)
{
    const auto found = orientationNumbers.find(value);
    return found == orientationNumbers.end() ? value : found->second;
}

// A whole number from 1, or 0 when the text is not one.
long positive(const std::string& text)
{
    const bool digits = !text.empty() && text.size() <= 9
        && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    return digits ? std::stol(text) : 0;
}

bool wellFormedPageRanges(const std::string& text)
{
    long previousEnd = 0;
    std::size_t start = 0;
    for (;;) {
        const auto comma = text.find(',', start);
        const auto range = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        const auto dash = range.find('-');
        const long first = positive(range.substr(0, dash));
        const long last = dash == std::string::npos ? first : positive(range.substr(dash + 1));
        if (first == 0 || last < first || first <= previousEnd)
            return false;
        previousEnd = last;
        if (comma == std::string::npos)
            return true;
        start = comma + 1;
    }
}

void checkValue(const std::string& name, const std::string& value)
{
    const auto refuse = [&](const std::string& expected) {
        throw std::invalid_argument("print option " + name + "=" + value + " is malformed: " + expected);
    };
    if (name == "copies" && positive(value) == 0)
        refuse("copies takes a whole number from 1");
    if (name == "page-ranges" && !wellFormedPageRanges(value))
        refuse("page-ranges takes pages and ranges in ascending order, such as 1-4,7,9-12");
    if (name == "fit-to-page" && value != "true" && value != "false")
        refuse("fit-to-page takes true or false");
    if (name == "outputorder" && value != "normal" && value != "reverse")
        refuse("outputorder takes normal or reverse");
    if (name == "orientation-requested" && orientationNumber(value) == value
        && (value.size() != 1 || value < "3" || value > "6"))
        refuse("orientation-requested takes portrait, landscape, reverse-landscape, reverse-portrait or 3 to 6");
}

} // namespace

PrintOptions::PrintOptions(Values values)
    : values_(std::move(values))
{
}

void PrintOptions::checkForm() const
{
    for (const auto& [name, value] : values_) {
        if (std::find(knownNames.begin(), knownNames.end(), name) == knownNames.end())
            throw std::invalid_argument("unknown print option '" + name + "'; the service knows " + joined(knownNames));
        checkValue(name, value);
    }
}

bool PrintOptions::needsCapabilities() const
{
    return std::any_of(
        values_.begin(), values_.end(), [](const auto& option) { return capabilityOf.count(option.first) > 0; });
}

PrintOptions::Values PrintOptions::checkedAgainst(const Capabilities& capabilities, const std::string& printer) const
{
    Values checked = values_;
    for (const auto& [name, attribute] : capabilityOf) {
        const auto option = checked.find(name);
        if (option == checked.end())
            continue;
        const bool orientation = name == "orientation-requested";
        auto& value = option->second;
        if (orientation)
            value = orientationNumber(value);
        const auto listed = capabilities.find(attribute);
        const auto supported = listed == capabilities.end() ? std::vector<std::string>() : listed->second;
        const bool found = std::any_of(supported.begin(), supported.end(), [&](const std::string& candidate) {
            return (orientation ? orientationNumber(candidate) : candidate) == value;
        });
        if (found)
            continue;
        const auto offer = supported.empty() ? "it lists no values for " + name : "it supports " + joined(supported);
        throw Failure("option_unsupported",
            "printer " + quoted(printer) + " does not support " + name + "=" + values_.at(name) + "; " + offer
                + " (--force sends it anyway)",
            ExitStatus::Refused);
    }
    return checked;
}

} // namespace Kestrel::Client
