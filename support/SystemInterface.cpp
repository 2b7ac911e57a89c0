#include "support/SystemInterface.h"

#include "support/CallerFiles.h"

#include <climits>
#include <filesystem>
#include <grp.h>
#include <pwd.h>
#include <vector>

namespace Kestrel::Private {

namespace {

// No account has a longer name, and some account database modules abort
// on a name of megabytes rather than answer "no such account".
bool couldBeAccountName(const std::string& name)
{
    return name.size() < LOGIN_NAME_MAX && name.find('\0') == std::string::npos;
}

} // namespace

bool SystemInterface::userExists(const std::string& name)
{
    return couldBeAccountName(name) && getpwnam(name.c_str()) != nullptr;
}

std::optional<gid_t> SystemInterface::groupId(const std::string& name)
{
    // Workers ask side by side: the reentrant form.
    if (!couldBeAccountName(name))
        return std::nullopt;
    group entry{};
    group* found = nullptr;
    std::vector<char> buffer(16384);
    if (getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found)
        return std::nullopt;
    return found->gr_gid;
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
