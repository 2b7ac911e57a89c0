#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "tests/world/ChildProcess.h"
#include "tests/world/DaemonProcess.h"
#include "tests/world/PrinterManagerClient.h"
#include "tests/world/SystemBus.h"
#include "tests/world/SystemLogService.h"

// In SetUp (or a test body): skip when the test runs outside the world that
// tests/world/run-in-world.sh builds, fail instead when CI=true.
#define KESTREL_REQUIRE_WORLD()                                                      \
    do {                                                                             \
        if (!::Kestrel::Test::World::available()) {                                  \
            if (::Kestrel::Test::World::requiredByCi())                              \
                FAIL() << "CI=true requires the test world (root, run-in-world.sh)"; \
            GTEST_SKIP() << ::Kestrel::Test::World::unavailableReason();             \
        }                                                                            \
    } while (false)

namespace Kestrel::Test {

// Polls the predicate until it holds or the time-out passes; returns its last answer.
bool waitFor(const std::function<bool()>& predicate,
             std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Facts and state of the test world: a private system bus, cupsd on
// /run/cups/cups.sock, ippeveprinter at printerUri() keeping what it
// receives in printerSpool(), a tmpfs at /var/lib/print.
class World {
public:
    static bool available();
    static bool requiredByCi();
    static std::string unavailableReason();

    static std::string dir();
    static std::string printerSpool();
    static std::string printerUri();
    // A fresh path in the world's scratch directory, named after the label.
    static std::string scratchPath(const std::string& label);

    // Back to a fresh world: scheduler running, no CUPS queues, no registry,
    // nothing printed.
    static void reset();
    static void removeAllQueues();
    static void wipeRegistry();
    static void clearPrinterSpool();

    static bool schedulerRunning();
    static void stopScheduler();
    static void startScheduler();

    static std::vector<std::string> cupsQueues();
    // The scheduler fills in a driverless queue from the printer in the
    // background; until then it is a raw queue. True once no queue is.
    static bool waitUntilQueuesReady();
    // Names of the files the simulated printer has received, sorted.
    static std::vector<std::string> printedDocuments();

    static std::string readFile(const std::string& path);
    static void writeFile(const std::string& path, const std::string& text);
    static void removeFile(const std::string& path);
    static bool hasSanitizerReport(const std::string& text);
};

} // namespace Kestrel::Test
