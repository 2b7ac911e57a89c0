#include "support/SystemLogger.h"

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>

namespace Kestrel::Private {

namespace {

// Handlers run one at a time on the bus thread: a log service that does not
// answer may hold every other caller for this long, not for the bus's 25 s.
constexpr auto EventTimeout = std::chrono::seconds(3);

} // namespace

void SystemLogger::sendEvent(const std::string& level, const std::string& event, const std::string& details)
{
    try {
        // A fresh proxy and connection per event: nothing is kept between events.
        auto proxy = sdbus::createProxy("ru.quentis.SystemLogs", "/ru/quentis/SystemLogs");
        proxy->callMethod("sendEventStringAlt")
            .onInterface("ru.quentis.SystemLogs")
            .withTimeout(EventTimeout)
            .withArguments(level, event, details);
    } catch (const std::exception& error) {
        throw sdbus::Error("ru.zorv.SystemLogger.Error", error.what());
    }
}

} // namespace Kestrel::Private
