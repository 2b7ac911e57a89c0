#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Kestrel::Private {

// This very program run again as a short-lived helper, which is given work
// and answers as records over one socket, its descriptor 3. The helper
// shares the daemon's standard output and error (its diagnostics land in the
// same log), reads /dev/null and inherits nothing else. Once started, it is
// killed and reaped when the object goes, whatever state it is in.
class ChildProcess {
public:
    using Clock = std::chrono::steady_clock;

    // Runs the program's own executable with these arguments after its
    // name; throws std::runtime_error with the reason when it cannot start.
    explicit ChildProcess(const std::vector<std::string>& arguments);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Hands the helper one record; throws std::runtime_error when it can
    // no longer take one.
    void send(std::string_view record);
    // Tells the helper that no record follows.
    void finishSending();

    // The next record the helper sent, without its terminator; nothing once
    // the helper has closed its end or the deadline has passed.
    std::optional<std::string> nextRecord(Clock::time_point deadline);

    // In the helper: the next record the parent handed over; nothing once
    // it has finished sending (or is gone).
    static std::optional<std::string> nextFromParent();
    // In the helper: sends one record in a single write, whole even when
    // several threads send at once.
    static void sendToParent(std::string_view record);
    // In the helper: ends it now, running no exit handlers and no
    // destructors of the threads still running.
    [[noreturn]] static void end();

private:
    pid_t pid = -1;
    int channel = -1;
    std::string received;
    bool closed = false;
};

} // namespace Kestrel::Private
