#pragma once

#include <sdbus-c++/IConnection.h>

#include <signal.h>

#include <atomic>
#include <thread>

namespace Kestrel::Private {

// The daemon's bus loop: on the main thread while the daemon serves, so an
// idle daemon has no thread but that one, and on a thread of its own while
// the last calls finish. sd-bus writes a message sent from any other thread
// (a worker's reply, a signal) only as far as the socket takes it at once,
// and the rest only when this loop next wakes; so whoever sends off the
// loop's thread calls messageSent(), and the loop then polls for writing
// until nothing is left queued.
class BusEventLoop {
public:
    explicit BusEventLoop(sdbus::IConnection& connection);
    ~BusEventLoop();
    BusEventLoop(const BusEventLoop&) = delete;
    BusEventLoop& operator=(const BusEventLoop&) = delete;

    // Callable from any thread, also when no loop runs.
    static void messageSent();

    // Serves the bus on the calling thread until one of the signals, which
    // every thread blocks, arrives, or the bus goes away.
    void runUntil(const sigset_t& stopSignals);
    // Serves it from now on on a thread of its own, for the calls still running.
    void runInBackground();
    // Writes out what is queued (within a bound) and ends the thread.
    void stop();

private:
    // Until the signal descriptor (when there is one) is readable, the bus
    // fails or a stop is asked for.
    void serve(int signalFd);
    void writeOutQueued();

    sdbus::IConnection& connection;
    const int wakeUp;
    std::atomic<bool> stopping{false};
    // Set by the serving thread; the loop's thread starts after the main one has served.
    bool busLost = false;
    std::thread thread;
};

} // namespace Kestrel::Private
