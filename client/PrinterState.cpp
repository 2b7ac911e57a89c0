#include "PrinterState.h"

#include "Text.h"

namespace Kestrel::Client {

PrinterState PrinterState::from(const std::map<std::string, sdbus::Variant>& state)
{
    PrinterState printer;
    for (const auto& [key, value] : state) {
        if (key == "state")
            printer.state = value.get<std::string>();
        else if (key == "reasons")
            printer.reasons = value.get<std::vector<std::string>>();
        else if (key == "message")
            printer.message = value.get<std::string>();
        else if (key == "accepting")
            printer.accepting = value.get<bool>();
    }
    return printer;
}

std::string PrinterState::describe() const
{
    const std::string word = state == "idle" ? "ready" : state == "processing" ? "printing" : state;
    const auto why = reasonWords(reasons);
    std::string text = why.empty() ? word : word + ": " + why;
    if (!accepting)
        text += "; not accepting jobs";
    return text;
}

} // namespace Kestrel::Client
