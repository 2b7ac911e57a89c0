#include "support/SystemLogger.h"

#include <sdbus-c++/sdbus-c++.h>

namespace Kestrel::Private {

void SystemLogger::sendEvent(const std::string& level, const std::string& event, const std::string& details)
{
    try {
        // A fresh proxy and connection per event: nothing is kept between events.
        auto proxy = sdbus::createProxy("ru.quentis.SystemLogs", "/ru/quentis/SystemLogs");
        proxy->callMethod("sendEventStringAlt")
            .onInterface("ru.quentis.SystemLogs")
            .withArguments(level, event, details);
    } catch (const std::exception& error) {
        throw sdbus::Error("ru.zorv.SystemLogger.Error", error.what());
    }
}

} // namespace Kestrel::Private
