#pragma once

#include <sdbus-c++/IConnection.h>

#include <atomic>
#include <thread>

namespace Kestrel::Private {

// The daemon's bus thread. sd-bus writes a message sent from any other
// thread (a worker's reply, a signal) only as far as the socket takes it at
// once, and the rest only when this loop next wakes; so whoever sends off
// this thread calls messageSent(), and the loop then polls for writing
// until nothing is left queued.
class BusEventLoop {
public:
    explicit BusEventLoop(sdbus::IConnection& connection);
    ~BusEventLoop();
    BusEventLoop(const BusEventLoop&) = delete;
    BusEventLoop& operator=(const BusEventLoop&) = delete;

    // Callable from any thread, also when no loop runs.
    static void messageSent();

    // Writes out what is queued (within a bound) and ends the thread.
    void stop();

private:
    void run();
    void writeOutQueued();

    sdbus::IConnection& connection;
    const int wakeUp;
    std::atomic<bool> stopping{false};
    std::thread thread;
};

} // namespace Kestrel::Private
