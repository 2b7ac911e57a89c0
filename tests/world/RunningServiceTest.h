#pragma once

#include "tests/world/World.h"

#include <gtest/gtest.h>

namespace Kestrel::Test {

// A fresh world with the system-log stand-in and the daemon running.
class RunningServiceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        KESTREL_REQUIRE_WORLD();
        World::reset();
        ASSERT_TRUE(logService.start());
        ASSERT_TRUE(daemon.start()) << daemon.stderrText();
    }

    // For fixtures that extend SetUp: false when there is nothing to build on.
    bool serviceUp() const { return !IsSkipped() && !HasFatalFailure(); }

    SystemLogService logService;
    DaemonProcess daemon;
};

} // namespace Kestrel::Test
