#include "support/SystemInterface.h"

#include "support/CallerFiles.h"

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

Document SystemInterface::openDocument(const CallerCredentials& caller, const std::string& path)
{
    return CallerFiles(caller).openRemovable(path);
}

Document SystemInterface::copyDocument(const CallerCredentials& caller, const std::string& path,
                                       const std::string& name)
{
    const CallerFiles files(caller);
    return files.copy(files.open(path), name);
}

bool SystemInterface::documentExists(const CallerCredentials& caller, const Document& document)
{
    return CallerFiles(caller).exists(document);
}

void SystemInterface::removeDocument(const CallerCredentials& caller, const Document& document)
{
    CallerFiles(caller).remove(document);
}

} // namespace Kestrel::Private
