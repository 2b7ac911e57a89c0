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

void PrintOptions::addTo(CupsRequestHandler& handler, const std::map<std::string, std::string>& options)
{
    // Every value goes as keyword text; CUPS judges the values, not us.
    for (const auto& [name, value] : options) {
        if (supported().count(name) == 0)
            throw std::runtime_error(unknownOptionMessage(name));
        handler.addString(IPP_TAG_JOB, IPP_TAG_KEYWORD, name, value);
    }
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
