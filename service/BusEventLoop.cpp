#include "service/BusEventLoop.h"

#include "support/Diagnostics.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace Kestrel::Private {

namespace {

// The wake-up of the one running loop; -1 when none runs.
std::atomic<int> activeWakeUp{-1};

// What is still queued when the daemon stops gets this long to leave.
constexpr auto FinalWriteBound = std::chrono::seconds(2);

int newEventFd()
{
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0)
        throw std::runtime_error("cannot create the bus loop's wake-up");
    return fd;
}

void poke(int fd)
{
    const uint64_t one = 1;
    // A full counter already means "wake up".
    [[maybe_unused]] const auto written = ::write(fd, &one, sizeof one);
}

} // namespace

BusEventLoop::BusEventLoop(sdbus::IConnection& connection)
    : connection(connection)
    , wakeUp(newEventFd())
{
    activeWakeUp = wakeUp;
}

BusEventLoop::~BusEventLoop()
{
    stop();
    activeWakeUp = -1;
    ::close(wakeUp);
}

void BusEventLoop::messageSent()
{
    const int fd = activeWakeUp;
    if (fd >= 0)
        poke(fd);
}

void BusEventLoop::stop()
{
    if (!thread.joinable())
        return;
    stopping = true;
    poke(wakeUp);
    thread.join();
}

void BusEventLoop::runUntil(const sigset_t& stopSignals)
{
    const int signalFd = ::signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signalFd < 0)
        throw std::runtime_error("cannot watch for the stop signals");
    serve(signalFd);
    ::close(signalFd);
}

void BusEventLoop::runInBackground()
{
    thread = std::thread([this] {
        serve(-1);
        if (!busLost)
            writeOutQueued();
    });
}

void BusEventLoop::serve(int signalFd)
{
    if (busLost)
        return;
    try {
        while (!stopping) {
            while (connection.processPendingRequest()) {
            }
            const auto data = connection.getEventLoopPollData();
            // A negative descriptor is left out by poll().
            pollfd watched[] = {{data.fd, data.events, 0}, {wakeUp, POLLIN, 0}, {signalFd, POLLIN, 0}};
            if (::poll(watched, 3, data.getPollTimeout()) < 0 && errno != EINTR)
                throw std::runtime_error("polling the bus failed");
            if (watched[2].revents & POLLIN)
                return;
            if (watched[1].revents & POLLIN) {
                uint64_t count = 0;
                [[maybe_unused]] const auto read = ::read(wakeUp, &count, sizeof count);
            }
        }
    } catch (const std::exception& error) {
        // The bus is gone: nobody can reach the daemon any more, so it stops
        // the way it stops for a signal.
        logError(error.what());
        busLost = true;
    }
}

void BusEventLoop::writeOutQueued()
{
    const auto deadline = std::chrono::steady_clock::now() + FinalWriteBound;
    try {
        for (;;) {
            while (connection.processPendingRequest()) {
            }
            const auto data = connection.getEventLoopPollData();
            if (!(data.events & POLLOUT) || std::chrono::steady_clock::now() >= deadline)
                return;
            pollfd watched{data.fd, POLLOUT, 0};
            ::poll(&watched, 1, 100);
        }
    } catch (const std::exception& error) {
        logError(error.what());
    }
}

} // namespace Kestrel::Private
