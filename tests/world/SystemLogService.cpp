#include "tests/world/SystemLogService.h"

#include <gtest/gtest.h>

#include <sstream>

#include "tests/world/SystemBus.h"
#include "tests/world/World.h"

namespace Kestrel::Test {

SystemLogService::SystemLogService()
    : eventsPath(World::scratchPath("system-log.events"))
    , outputPath(World::scratchPath("system-log.output"))
{
}

SystemLogService::~SystemLogService()
{
    stop();
}

bool SystemLogService::start()
{
    stop();
    World::removeFile(eventsPath);
    process = std::make_unique<ChildProcess>(std::vector<std::string>{KESTREL_TEST_SYSLOG_PATH, eventsPath},
                                             outputPath, outputPath);
    const pid_t child = process->pid();
    bool owned = waitFor([&] { return !process->running() || SystemBus::ownerPid("ru.quentis.SystemLogs") == child; });
    if (owned && process->running())
        return true;
    ADD_FAILURE() << "kestrel-test-syslog did not come up:\n" << World::readFile(outputPath);
    return false;
}

void SystemLogService::stop()
{
    if (!process)
        return;
    process->terminate();
    process.reset();
}

std::vector<SystemLogService::Event> SystemLogService::events() const
{
    std::vector<Event> events;
    std::istringstream text(World::readFile(eventsPath));
    for (std::string line; std::getline(text, line);) {
        Event event;
        std::istringstream fields(line);
        std::getline(fields, event.level, '\t');
        std::getline(fields, event.event, '\t');
        std::getline(fields, event.details);
        events.push_back(event);
    }
    return events;
}

} // namespace Kestrel::Test
