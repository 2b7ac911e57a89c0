// Stand-in for the platform's system-log service in the test world: owns
// "ru.quentis.SystemLogs" and appends every event to the file named by its
// only argument, one line "level\tevent\tdetails" per event.
#include <sdbus-c++/sdbus-c++.h>

#include <fstream>
#include <iostream>
#include <string>

int main(int argc, char* argv[])
{
    if (argc != 2) {
        std::cerr << "usage: kestrel-test-syslog EVENTS-FILE" << std::endl;
        return 2;
    }
    const std::string eventsPath = argv[1];
    try {
        auto connection = sdbus::createSystemBusConnection("ru.quentis.SystemLogs");
        auto object = sdbus::createObject(*connection, "/ru/quentis/SystemLogs");
        object->registerMethod("sendEventStringAlt")
            .onInterface("ru.quentis.SystemLogs")
            .withInputParamNames("level", "event", "details")
            .implementedAs([&eventsPath](const std::string& level, const std::string& event, const std::string& details) {
                std::ofstream events(eventsPath, std::ios::app);
                events << level << '\t' << event << '\t' << details << '\n';
                events.flush();
                if (!events)
                    throw sdbus::Error("ru.quentis.SystemLogs.Error", "cannot write " + eventsPath);
            });
        object->finishRegistration();
        connection->enterEventLoop();
    } catch (const sdbus::Error& e) {
        // Loud on purpose: a test that expects events must not pass quietly.
        std::cerr << "kestrel-test-syslog: cannot serve ru.quentis.SystemLogs: " << e.getName() << ": "
                  << e.getMessage() << std::endl;
        return 1;
    }
    return 0;
}
