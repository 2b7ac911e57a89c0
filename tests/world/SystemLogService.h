#pragma once

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tests/world/ChildProcess.h"

namespace Kestrel::Test {

// The stand-in for the platform's system-log service: kestrel-test-syslog
// owning "ru.quentis.SystemLogs" and writing each event it receives as a
// line "level\tevent\tdetails".
class SystemLogService {
public:
    struct Event {
        std::string level;
        std::string event;
        std::string details;

        bool operator==(const Event& other) const
        {
            return level == other.level && event == other.event && details == other.details;
        }
        friend std::ostream& operator<<(std::ostream& out, const Event& e)
        {
            return out << '{' << e.level << ", " << e.event << ", " << e.details << '}';
        }
    };

    SystemLogService();
    SystemLogService(const SystemLogService&) = delete;
    SystemLogService& operator=(const SystemLogService&) = delete;
    ~SystemLogService();

    // Starts the stand-in and waits until it owns its name; false (with its
    // complaint in the test output) when it could not.
    bool start();
    void stop();

    // Every event received so far, oldest first.
    std::vector<Event> events() const;

private:
    std::string eventsPath;
    std::string outputPath;
    std::unique_ptr<ChildProcess> process;
};

} // namespace Kestrel::Test
