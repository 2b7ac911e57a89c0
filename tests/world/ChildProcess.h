#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Kestrel::Test {

// A program started by a test, its output going to files. The destructor
// kills it if it still runs, so no test leaves a process behind.
class ChildProcess {
public:
    ChildProcess(const std::vector<std::string>& argv, const std::string& stdoutPath,
                 const std::string& stderrPath);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    pid_t pid() const { return childPid; }
    bool running();
    // The wait status once the program has ended, nullopt on time-out.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout);
    // SIGTERM, then SIGKILL if it does not end within a few seconds.
    void terminate();

    // Runs body in a forked child under the given account (no supplementary
    // groups but extraGroups) and returns the text the body returned. Call it
    // while the test holds no bus connection with a thread of its own.
    static std::string runAs(uid_t uid, gid_t gid, const std::vector<gid_t>& extraGroups,
                             const std::function<std::string()>& body);

private:
    bool reap(int options);

    pid_t childPid = -1;
    std::optional<int> status;
};

} // namespace Kestrel::Test
