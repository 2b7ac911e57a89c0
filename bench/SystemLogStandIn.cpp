// The system-log service for benchmark runs, and the memory anchor: a
// minimal sdbus-c++ service that owns "ru.quentis.SystemLogs" and accepts
// every event.
#include <sdbus-c++/sdbus-c++.h>

#include <string>

int main()
{
    auto connection = sdbus::createSystemBusConnection("ru.quentis.SystemLogs");
    auto object = sdbus::createObject(*connection, "/ru/quentis/SystemLogs");
    object->registerMethod("sendEventStringAlt")
        .onInterface("ru.quentis.SystemLogs")
        .implementedAs([](const std::string&, const std::string&, const std::string&) {});
    object->finishRegistration();
    connection->enterEventLoop();
}
