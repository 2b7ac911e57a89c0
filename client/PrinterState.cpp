#include "PrinterState.h"

#include "Text.h"

#include <cctype>

namespace Kestrel::Client {

namespace {

using Dictionary = std::map<std::string, sdbus::Variant>;

template <typename T>
T field(const Dictionary& dictionary, const std::string& key, T fallback)
{
    const auto found = dictionary.find(key);
    return found == dictionary.end() ? fallback : found->second.get<T>();
}

std::string capitalized(std::string text)
{
    if (!text.empty())
        text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
    return text;
}

// PWG supply kinds ("wasteToner") in words.
std::string kindWords(const std::string& kind)
{
    if (kind == "wasteToner")
        return "waste toner box";
    if (kind == "wasteInk")
        return "waste ink box";
    std::string words;
    for (const char c : kind)
        words += std::isupper(static_cast<unsigned char>(c)) ? std::string(" ") + static_cast<char>(std::tolower(c))
                                                              : std::string(1, c);
    return words;
}

} // namespace

std::string Supply::describe() const
{
    const bool waste = kind.rfind("waste", 0) == 0;
    // Colours in "#RRGGBB" say nothing to a person; the printer's name for the supply does.
    const auto words = !color.empty() && color[0] != '#' ? color + " " + kindWords(kind)
                       : kind.empty()                    ? name
                                                         : kindWords(kind);
    const auto level = this->level < 0 ? "level unknown" : std::to_string(this->level) + " %" + (waste ? " full" : "");
    return capitalized(words) + " " + level;
}

std::string Tray::describe() const
{
    const auto what = state == "empty" ? "out of paper"
                      : state == "low" ? "paper low"
                                       : "ready";
    std::string text = "Tray " + name + ": " + what;
    if (level >= 0 && state != "empty")
        text += ", " + std::to_string(level) + " %";
    if (!media.empty())
        text += " (" + media + ")";
    return text;
}

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
        else if (key == "supplies") {
            for (const auto& supply : value.get<std::vector<Dictionary>>())
                printer.supplies.push_back({field<std::string>(supply, "name", ""),
                    field<std::string>(supply, "kind", ""), field<std::string>(supply, "color", ""),
                    field<int32_t>(supply, "level", -1)});
        } else if (key == "trays") {
            for (const auto& tray : value.get<std::vector<Dictionary>>())
                printer.trays.push_back({field<std::string>(tray, "name", ""), field<std::string>(tray, "media", ""),
                    field<int32_t>(tray, "level", -1), field<std::string>(tray, "state", "")});
        }
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
