#include "cups/DeviceProber.h"
#include "manager/PrinterManagerInterface.h"
#include "service/BusEventLoop.h"
#include "printing/PrintJobsInterface.h"
#include "printing/PrintingServiceInterface.h"
#include "support/Authorizer.h"
#include "support/Privileges.h"
#include "support/SystemInterface.h"

#include <sdbus-c++/sdbus-c++.h>

#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <string_view>

namespace {

// How long calls in flight may take to end once a stop is asked for.
constexpr auto StopBound = std::chrono::seconds(5);

} // namespace

int main(int argc, char* argv[])
{
    // A scan's helper: probes and ends, touching neither the bus nor the registry.
    if (argc >= 2 && std::string_view(argv[1]) == Kestrel::Private::DeviceProber::HelperMode)
        Kestrel::Private::DeviceProber::runHelper();
    // Workers would otherwise bring malloc arenas of their own, and free
    // memory at the top of any but the first is never given back. Fixed
    // thresholds keep big buffers out of the heap and trim it eagerly.
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, 64 * 1024);
    mallopt(M_TRIM_THRESHOLD, 128 * 1024);
    // Blocked before any thread starts, so every thread inherits the mask
    // and the stop signals reach only the bus loop's watch below.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    const char* const busName = "ru.zorv.print";
    const char* const objectPath = "/ru/zorv/print";
    // Before any call is served, whoever started the daemon.
    Kestrel::Private::Privileges::keepOnlyIdentitySwitch();
    auto connection = sdbus::createSystemBusConnection(busName);
    // One for both interfaces, so a silent polkitd is reported once.
    auto authorizer =
        std::make_shared<Kestrel::Private::Authorizer>(*connection, std::make_shared<Kestrel::Private::SystemInterface>());
    Kestrel::Private::PrinterManagerInterface manager(*connection, objectPath, authorizer);
    // One print core for both printing interfaces: one job limit, one record of owners.
    auto printer = std::make_shared<Kestrel::Private::PrintController>();
    Kestrel::Private::PrintingServiceInterface printing(*connection, objectPath, printer);
    Kestrel::Private::PrintJobsInterface jobs(*connection, objectPath, printer, authorizer);
    // A printer's state is told from its first read as a saved printer.
    manager.whenSavedPrintersChange([&jobs] { jobs.savedPrintersChanged(); });
    Kestrel::Private::BusEventLoop loop(*connection);
    // What start-up freed (the registry check above all) goes back now, not at the first call.
    malloc_trim(0);

    loop.runUntil(stopSignals);
    loop.runInBackground();
    // Calls still waiting are answered with an error; running ones may end.
    manager.refuseCalls();
    printing.refuseCalls();
    jobs.refuseCalls();
    const auto deadline = std::chrono::steady_clock::now() + StopBound;
    const bool managerEnded = manager.finishCalls(deadline);
    const bool printingEnded = printing.finishCalls(deadline);
    const bool allEnded = jobs.finishCalls(deadline) && printingEnded && managerEnded;
    try {
        connection->releaseName(busName);
    } catch (const sdbus::Error&) {
        // The bus itself went away; there is no name left to release.
    }
    loop.stop();
    if (!allEnded) {
        // Workers still running use what the destructors would free.
        std::cout.flush();
        std::cerr.flush();
        std::fflush(nullptr);
        _exit(0);
    }
    return 0;
}
