#include "tests/world/DaemonProcess.h"

#include <gtest/gtest.h>

#include "tests/world/SystemBus.h"
#include "tests/world/World.h"

namespace Kestrel::Test {

namespace {

const char* const busName = "ru.zorv.print";
const char* const objectPath = "/ru/zorv/print";

} // namespace

DaemonProcess::DaemonProcess()
    : stdoutPath(World::scratchPath("kestrel-printd.stdout"))
    , stderrPath(World::scratchPath("kestrel-printd.stderr"))
{
}

DaemonProcess::~DaemonProcess()
{
    stop();
}

bool DaemonProcess::start()
{
    stop();
    World::removeFile(stdoutPath);
    World::removeFile(stderrPath);
    process = std::make_unique<ChildProcess>(std::vector<std::string>{KESTREL_DAEMON_PATH}, stdoutPath, stderrPath);
    const pid_t child = process->pid();
    // The name is requested before the objects exist, so owning it is not
    // enough: the manager interface appears once its registry is open.
    bool serving = waitFor([&] {
        if (!process->running())
            return true;
        return SystemBus::ownerPid(busName) == child &&
               SystemBus::introspect(busName, objectPath).find("\"ru.zorv.PrinterManager\"") != std::string::npos;
    }, std::chrono::seconds(20));
    return serving && process->running();
}

std::optional<int> DaemonProcess::waitForExit(std::chrono::milliseconds timeout)
{
    if (!process)
        return std::nullopt;
    return process->waitForExit(timeout);
}

void DaemonProcess::stop()
{
    if (!process)
        return;
    process->terminate();
    process.reset();
    checkForSanitizerReports();
}

bool DaemonProcess::running() const
{
    return process && process->running();
}

pid_t DaemonProcess::pid() const
{
    return process ? process->pid() : -1;
}

std::string DaemonProcess::stdoutText() const
{
    return World::readFile(stdoutPath);
}

std::string DaemonProcess::stderrText() const
{
    return World::readFile(stderrPath);
}

void DaemonProcess::checkForSanitizerReports() const
{
    for (const auto& text : {stdoutText(), stderrText()}) {
        if (World::hasSanitizerReport(text))
            ADD_FAILURE() << "kestrel-printd reported a sanitizer error:\n" << text;
    }
}

} // namespace Kestrel::Test
