#pragma once

#include "support/CallerCredentials.h"
#include "support/Document.h"

#include <optional>
#include <string>
#include <sys/types.h>

namespace Kestrel::Private {

// The few account and file-system calls the service needs, behind one seam.
// A caller's documents are handled with the caller's rights (CallerFiles).
class SystemInterface {
public:
    virtual ~SystemInterface() = default;

    virtual bool userExists(const std::string& name);
    virtual bool fileExists(const std::string& path);
    virtual std::optional<gid_t> groupId(const std::string& name);

    // A PDF the caller may read and, afterwards, remove.
    virtual Document openDocument(const CallerCredentials& caller, const std::string& path);
    // A readable PDF copied, as the caller, to a new file of that name beside it.
    virtual Document copyDocument(const CallerCredentials& caller, const std::string& path, const std::string& name);
    virtual bool documentExists(const CallerCredentials& caller, const Document& document);
    virtual void removeDocument(const CallerCredentials& caller, const Document& document);
};

} // namespace Kestrel::Private
