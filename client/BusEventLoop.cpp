#include "BusEventLoop.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

namespace Kestrel::Client {

BusEventLoop::BusEventLoop(sdbus::IConnection& connection)
    : connection_(connection)
{
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &mask, &previousMask_) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot block SIGINT and SIGTERM");
    signalFd_ = signalfd(-1, &mask, SFD_CLOEXEC);
    if (signalFd_ < 0) {
        const int error = errno;
        sigprocmask(SIG_SETMASK, &previousMask_, nullptr);
        throw std::system_error(error, std::generic_category(), "cannot watch SIGINT and SIGTERM");
    }
}

BusEventLoop::~BusEventLoop()
{
    close(signalFd_);
    sigprocmask(SIG_SETMASK, &previousMask_, nullptr);
}

BusEventLoop::Outcome BusEventLoop::runUntil(const std::function<bool()>& done, Deadline deadline)
{
    for (;;) {
        while (connection_.processPendingRequest()) {
            if (done())
                return Outcome::Done;
        }
        if (done())
            return Outcome::Done;
        if (deadline && std::chrono::steady_clock::now() >= *deadline)
            return Outcome::TimedOut;

        const auto pollData = connection_.getEventLoopPollData();
        pollfd fds[] = {{pollData.fd, pollData.events, 0}, {signalFd_, POLLIN, 0}};
        if (poll(fds, 2, pollTimeout(pollData, deadline)) < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "poll failed");
        if (fds[1].revents & POLLIN) {
            // Consumed here, or it would be delivered when the mask is restored.
            signalfd_siginfo info;
            if (read(signalFd_, &info, sizeof info) < 0)
                throw std::system_error(errno, std::generic_category(), "cannot read the interrupt");
            return Outcome::Interrupted;
        }
    }
}

int BusEventLoop::pollTimeout(const sdbus::IConnection::PollData& pollData, Deadline deadline) const
{
    const int busTimeout = pollData.getPollTimeout();
    if (!deadline)
        return busTimeout;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
    const int deadlineTimeout = static_cast<int>(std::max<long long>(left.count(), 0));
    return busTimeout < 0 ? deadlineTimeout : std::min(busTimeout, deadlineTimeout);
}

} // namespace Kestrel::Client
