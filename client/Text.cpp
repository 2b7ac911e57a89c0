#include "Text.h"

namespace Kestrel::Client {

std::string quoted(const std::string& name)
{
    return "\"" + name + "\"";
}

std::string joined(const std::vector<std::string>& items)
{
    std::string text;
    for (const auto& item : items)
        text += (text.empty() ? "" : ", ") + item;
    return text;
}

} // namespace Kestrel::Client
