#include "tests/world/ChildProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "tests/world/World.h"

namespace Kestrel::Test {

namespace {

int openOutput(const std::string& path)
{
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0)
        throw std::system_error(errno, std::generic_category(), "cannot open " + path);
    return fd;
}

void writeAll(int fd, const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n <= 0 && errno != EINTR)
            return;
        if (n > 0)
            done += static_cast<std::size_t>(n);
    }
}

} // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& stdoutPath,
                           const std::string& stderrPath)
{
    // Everything the child needs is prepared before fork: the parent may have
    // threads, so the child only calls async-signal-safe functions.
    std::vector<char*> args;
    for (const auto& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    int out = openOutput(stdoutPath);
    int err = openOutput(stderrPath);

    childPid = ::fork();
    if (childPid == 0) {
        // Tests make the daemon fail on purpose; no core files for those.
        const rlimit noCore{0, 0};
        ::setrlimit(RLIMIT_CORE, &noCore);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        ::execv(args[0], args.data());
        _exit(127);
    }
    int forkError = errno;
    ::close(out);
    ::close(err);
    if (childPid < 0)
        throw std::system_error(forkError, std::generic_category(), "fork");
}

ChildProcess::~ChildProcess()
{
    terminate();
}

bool ChildProcess::reap(int options)
{
    if (status)
        return true;
    int wstatus = 0;
    pid_t result = ::waitpid(childPid, &wstatus, options);
    if (result == childPid)
        status = wstatus;
    return status.has_value();
}

bool ChildProcess::running()
{
    return !reap(WNOHANG);
}

std::optional<int> ChildProcess::waitForExit(std::chrono::milliseconds timeout)
{
    waitFor([this] { return reap(WNOHANG); }, timeout);
    return status;
}

void ChildProcess::terminate()
{
    if (!running())
        return;
    ::kill(childPid, SIGTERM);
    if (waitForExit(std::chrono::seconds(5)))
        return;
    ::kill(childPid, SIGKILL);
    reap(0);
}

std::string ChildProcess::runAs(uid_t uid, gid_t gid, const std::vector<gid_t>& extraGroups,
                                const std::function<std::string()>& body)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    pid_t pid = ::fork();
    if (pid < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (pid == 0) {
        ::close(fds[0]);
        std::string result;
        if (::setgroups(extraGroups.size(), extraGroups.data()) != 0 || ::setgid(gid) != 0 ||
            ::setuid(uid) != 0) {
            result = std::string("cannot switch user: ") + std::strerror(errno);
        } else {
            try {
                result = body();
            } catch (const std::exception& e) {
                result = std::string("exception: ") + e.what();
            }
        }
        writeAll(fds[1], result);
        _exit(0);
    }
    ::close(fds[1]);
    std::string result;
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(fds[0], buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0)
            result.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    // A crashed body must not read as an empty, successful answer.
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error("the child running as uid " + std::to_string(uid) + " ended abnormally");
    return result;
}

} // namespace Kestrel::Test
