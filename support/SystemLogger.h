#pragma once

#include <string>

namespace Kestrel::Private {

// Sends audit events to the platform's system-log service.
class SystemLogger {
public:
    virtual ~SystemLogger() = default;

    virtual void sendEvent(const std::string& level, const std::string& event, const std::string& details);
};

} // namespace Kestrel::Private
