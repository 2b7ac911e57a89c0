#pragma once

#include <sdbus-c++/IConnection.h>

#include <chrono>
#include <functional>
#include <optional>
#include <signal.h>

namespace Kestrel::Client {

// Dispatches incoming bus messages on the calling thread until a condition
// holds, a deadline passes or SIGINT/SIGTERM arrives. The two signals are
// taken over for the loop's lifetime so an interrupt ends it cleanly.
class BusEventLoop
{
public:
    enum class Outcome { Done, TimedOut, Interrupted };
    using Deadline = std::optional<std::chrono::steady_clock::time_point>;

    explicit BusEventLoop(sdbus::IConnection& connection);
    ~BusEventLoop();
    BusEventLoop(const BusEventLoop&) = delete;
    BusEventLoop& operator=(const BusEventLoop&) = delete;

    Outcome runUntil(const std::function<bool()>& done, Deadline deadline);

private:
    int pollTimeout(const sdbus::IConnection::PollData& pollData, Deadline deadline) const;

    sdbus::IConnection& connection_;
    sigset_t previousMask_;
    int signalFd_;
};

} // namespace Kestrel::Client
