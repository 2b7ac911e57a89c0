#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "tests/world/ChildProcess.h"

namespace Kestrel::Test {

// The built kestrel-printd, run by a test with its output kept in files.
// Stopping it (or destroying this object) fails the test when the output
// carries a sanitizer report.
class DaemonProcess {
public:
    DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;
    ~DaemonProcess();

    // Launches the daemon and waits until this very process owns
    // "ru.zorv.print" and serves ru.zorv.PrinterManager. False when it ended
    // first or did not get there in time.
    bool start();
    // The wait status once the daemon has ended, nullopt on time-out.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    void stop();

    bool running() const;
    pid_t pid() const;
    std::string stdoutText() const;
    std::string stderrText() const;

private:
    void checkForSanitizerReports() const;

    std::string stdoutPath;
    std::string stderrPath;
    std::unique_ptr<ChildProcess> process;
};

} // namespace Kestrel::Test
