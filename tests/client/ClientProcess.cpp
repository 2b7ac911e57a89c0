#include "tests/client/ClientProcess.h"

#include <signal.h>
#include <sys/wait.h>

#include <stdexcept>

#include "tests/world/World.h"

namespace Kestrel::Test {

ClientProcess::Result ClientProcess::run(const std::vector<std::string>& arguments, const std::string& directory)
{
    ClientProcess client(arguments, directory);
    const auto exitCode = client.waitForExit();
    if (!exitCode)
        throw std::runtime_error("kestrel-print did not finish:\n" + client.stderrText());
    return {*exitCode, client.stdoutText(), client.stderrText()};
}

ClientProcess::ClientProcess(const std::vector<std::string>& arguments, const std::string& directory)
    : stdoutPath(World::scratchPath("client.out"))
    , stderrPath(World::scratchPath("client.err"))
{
    std::vector<std::string> argv = {"/usr/bin/env", "--chdir=" + (directory.empty() ? "." : directory),
                                     KESTREL_CLIENT_PATH};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    process = std::make_unique<ChildProcess>(argv, stdoutPath, stderrPath);
}

void ClientProcess::signal(int number)
{
    ::kill(process->pid(), number);
}

std::optional<int> ClientProcess::waitForExit(std::chrono::milliseconds timeout)
{
    const auto status = process->waitForExit(timeout);
    if (!status)
        return std::nullopt;
    return WIFEXITED(*status) ? WEXITSTATUS(*status) : 128 + WTERMSIG(*status);
}

std::string ClientProcess::stdoutText() const
{
    return World::readFile(stdoutPath);
}

std::string ClientProcess::stderrText() const
{
    return World::readFile(stderrPath);
}

} // namespace Kestrel::Test
