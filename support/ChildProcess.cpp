#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <stdexcept>

extern char** environ;

namespace Kestrel::Private {

namespace {

constexpr int ChannelDescriptor = 3;
// Records end with a NUL: a URI can hold no NUL, while one taken apart line
// by line may hold a line break.
constexpr char Terminator = '\0';
const char* const OwnExecutable = "/proc/self/exe";

std::runtime_error failure(const std::string& what, int error)
{
    return std::runtime_error("cannot start a helper process: " + what + ": " + std::strerror(error));
}

// The first record in `received`, taken out of it.
std::optional<std::string> takeRecord(std::string& received)
{
    const size_t end = received.find(Terminator);
    if (end == std::string::npos)
        return std::nullopt;
    std::string record = received.substr(0, end);
    received.erase(0, end + 1);
    return record;
}

// Sends the record and its terminator; false when the other side is gone.
// No SIGPIPE for a helper that died: the caller hears of it here.
bool sendWhole(int descriptor, std::string_view record)
{
    std::string whole(record);
    whole += Terminator;
    for (size_t sent = 0; sent < whole.size();) {
        const ssize_t wrote = ::send(descriptor, whole.data() + sent, whole.size() - sent, MSG_NOSIGNAL);
        if (wrote < 0 && errno == EINTR)
            continue;
        if (wrote < 0)
            return false;
        sent += static_cast<size_t>(wrote);
    }
    return true;
}

// What posix_spawn needs, freed however the start ends.
struct SpawnSetup {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    SpawnSetup()
    {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
    }
    ~SpawnSetup()
    {
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
};

} // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw failure("socketpair", errno);
    SpawnSetup setup;
    posix_spawn_file_actions_addopen(&setup.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    // dup2 clears close-on-exec on the copy, even when it lands on itself.
    posix_spawn_file_actions_adddup2(&setup.actions, ends[1], ChannelDescriptor);
    posix_spawn_file_actions_addclosefrom_np(&setup.actions, ChannelDescriptor + 1);
    // The daemon blocks its stop signals on every thread; the helper must not.
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&setup.attributes, &none);
    posix_spawnattr_setflags(&setup.attributes, POSIX_SPAWN_SETSIGMASK);

    std::vector<char*> argv{const_cast<char*>(OwnExecutable)};
    for (const auto& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const int status = posix_spawn(&pid, OwnExecutable, &setup.actions, &setup.attributes, argv.data(), environ);
    close(ends[1]);
    if (status != 0) {
        close(ends[0]);
        throw failure(OwnExecutable, status);
    }
    channel = ends[0];
}

ChildProcess::~ChildProcess()
{
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    close(channel);
}

void ChildProcess::send(std::string_view record)
{
    if (!sendWhole(channel, record))
        throw std::runtime_error(std::string("cannot write to the helper process: ") + std::strerror(errno));
}

void ChildProcess::finishSending()
{
    shutdown(channel, SHUT_WR);
}

std::optional<std::string> ChildProcess::nextRecord(Clock::time_point deadline)
{
    for (;;) {
        if (auto record = takeRecord(received))
            return record;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (closed || left <= 0)
            return std::nullopt;
        pollfd readable{channel, POLLIN, 0};
        const int ready = poll(&readable, 1, static_cast<int>(left));
        if (ready < 0 && errno != EINTR)
            throw std::runtime_error(std::string("cannot wait for the helper process: ") + std::strerror(errno));
        if (ready <= 0)
            continue;
        char buffer[4096];
        const ssize_t got = read(channel, buffer, sizeof buffer);
        if (got < 0 && errno != EINTR)
            throw std::runtime_error(std::string("cannot read from the helper process: ") + std::strerror(errno));
        if (got == 0)
            closed = true;
        if (got > 0)
            received.append(buffer, static_cast<size_t>(got));
    }
}

std::optional<std::string> ChildProcess::nextFromParent()
{
    // Read by the helper's main thread alone.
    static std::string received;
    for (;;) {
        if (auto record = takeRecord(received))
            return record;
        char buffer[4096];
        const ssize_t got = read(ChannelDescriptor, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return std::nullopt;
        received.append(buffer, static_cast<size_t>(got));
    }
}

void ChildProcess::sendToParent(std::string_view record)
{
    static std::mutex sending;
    std::lock_guard<std::mutex> lock(sending);
    // When the parent stopped listening, nothing is left to tell it.
    sendWhole(ChannelDescriptor, record);
}

void ChildProcess::end()
{
    _exit(0);
}

} // namespace Kestrel::Private
