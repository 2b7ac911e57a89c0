#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <stdexcept>

extern char** environ;

namespace Kestrel::Private {

namespace {

constexpr int AnswerDescriptor = 3;
// Records end with a NUL: an argument can hold no NUL, while a URI taken
// apart line by line may hold a line break.
constexpr char Terminator = '\0';
const char* const OwnExecutable = "/proc/self/exe";

std::runtime_error failure(const std::string& what, int error)
{
    return std::runtime_error("cannot start a helper process: " + what + ": " + std::strerror(error));
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
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw failure("pipe", errno);
    SpawnSetup setup;
    posix_spawn_file_actions_addopen(&setup.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    // dup2 clears close-on-exec on the copy, even when it lands on itself.
    posix_spawn_file_actions_adddup2(&setup.actions, ends[1], AnswerDescriptor);
    posix_spawn_file_actions_addclosefrom_np(&setup.actions, AnswerDescriptor + 1);
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
    output = ends[0];
}

ChildProcess::~ChildProcess()
{
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    close(output);
}

std::optional<std::string> ChildProcess::nextRecord(Clock::time_point deadline)
{
    for (;;) {
        if (const size_t end = received.find(Terminator); end != std::string::npos) {
            std::string record = received.substr(0, end);
            received.erase(0, end + 1);
            return record;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (closed || left <= 0)
            return std::nullopt;
        pollfd readable{output, POLLIN, 0};
        const int ready = poll(&readable, 1, static_cast<int>(left));
        if (ready < 0 && errno != EINTR)
            throw std::runtime_error(std::string("cannot wait for the helper process: ") + std::strerror(errno));
        if (ready <= 0)
            continue;
        char buffer[4096];
        const ssize_t got = read(output, buffer, sizeof buffer);
        if (got < 0 && errno != EINTR)
            throw std::runtime_error(std::string("cannot read from the helper process: ") + std::strerror(errno));
        if (got == 0)
            closed = true;
        if (got > 0)
            received.append(buffer, static_cast<size_t>(got));
    }
}

void ChildProcess::sendToParent(std::string_view record)
{
    static std::mutex sending;
    std::string whole(record);
    whole += Terminator;
    std::lock_guard<std::mutex> lock(sending);
    for (size_t sent = 0; sent < whole.size();) {
        const ssize_t wrote = write(AnswerDescriptor, whole.data() + sent, whole.size() - sent);
        if (wrote < 0 && errno == EINTR)
            continue;
        // The parent stopped listening: nothing is left to tell it.
        if (wrote < 0)
            return;
        sent += static_cast<size_t>(wrote);
    }
}

void ChildProcess::end()
{
    _exit(0);
}

} // namespace Kestrel::Private
