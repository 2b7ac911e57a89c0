#include "printing/PrintOptions.h"

#include "cups/CupsRequestHandler.h"

#include <stdexcept>

namespace Kestrel::Private {

const std::set<std::string>& PrintOptions::supported()
{
    static const std::set<std::string> names = {
        "copies", "fit-to-page", "media", "orientation-requested",
        "outputorder", "page-ranges", "print-color-mode", "sides",
    };
    return names;
}

void PrintOptions::check(const std::map<std::string, std::string>& options)
{
    // Every unknown name is looked for first, so a map that also holds a long
    // value still gets the unknown-option message. A map of more than eight
    // names always holds an unknown one, and the search stops at it.
    for (const auto& [name, value] : options) {
        if (supported().count(name) == 0)
            throw std::runtime_error(unknownOptionMessage(name));
    }
    // Only what the wire cannot carry is refused: libcups cannot encode a
    // longer value, and the scheduler accepts shorter ones, past the 255
    // bytes a keyword should have, so CUPS still judges every value it can
    // receive.
    for (const auto& [name, value] : options) {
        if (value.size() > IPP_MAX_LENGTH)
            throw std::runtime_error("value of option '" + name + "' is " + std::to_string(value.size()) +
                                     " bytes long, more than the " + std::to_string(IPP_MAX_LENGTH) +
                                     " bytes IPP can carry");
    }
}

void PrintOptions::addTo(CupsRequestHandler& handler, const std::map<std::string, std::string>& options)
{
    // Every value goes as keyword text; CUPS judges the values, not us.
    for (const auto& [name, value] : options)
        handler.addString(IPP_TAG_JOB, IPP_TAG_KEYWORD, name, value);
    // Automatic rotation is always off.
    handler.addString(IPP_TAG_JOB, IPP_TAG_KEYWORD, "pdfAutoRotate", "false");
    handler.addString(IPP_TAG_JOB, IPP_TAG_KEYWORD, "pdftopdfAutoRotate", "false");
}

std::string PrintOptions::unknownOptionMessage(const std::string& name)
{
    std::string message = "Unknown option '" + name + "'. List of supported options:\n";
    for (const auto& option : supported())
        message += "\t - " + option + "\n";
    return message;
}

} // namespace Kestrel::Private
