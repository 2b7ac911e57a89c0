#pragma once

#include <string>

namespace Kestrel::Private {

// The few account and file-system calls the service needs, behind one seam.
class SystemInterface {
public:
    virtual ~SystemInterface() = default;

    virtual bool userExists(const std::string& name);
    virtual bool fileExists(const std::string& path);
    virtual bool removeFile(const std::string& path);
    virtual void copyFile(const std::string& from, const std::string& to);
};

} // namespace Kestrel::Private
