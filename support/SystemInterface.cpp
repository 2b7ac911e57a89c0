#include "support/SystemInterface.h"

#include <filesystem>
#include <pwd.h>

namespace Kestrel::Private {

bool SystemInterface::userExists(const std::string& name)
{
    return getpwnam(name.c_str()) != nullptr;
}

bool SystemInterface::fileExists(const std::string& path)
{
    const auto type = std::filesystem::status(path).type();
    return type != std::filesystem::file_type::not_found && type != std::filesystem::file_type::none;
}

bool SystemInterface::removeFile(const std::string& path)
{
    return std::filesystem::remove(path);
}

void SystemInterface::copyFile(const std::string& from, const std::string& to)
{
    std::filesystem::copy(from, to);
}

} // namespace Kestrel::Private
