#include <gmock/gmock.h>

#include <sys/wait.h>

#include <filesystem>

#include "tests/world/World.h"

using namespace Kestrel::Test;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

bool endedSuccessfully(std::optional<int> status)
{
    return status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0;
}

} // namespace

class DaemonLifecycle : public testing::Test {
protected:
    void SetUp() override
    {
        KESTREL_REQUIRE_WORLD();
        World::reset();
    }
};

TEST_F(DaemonLifecycle, SecondInstanceFailsWhileTheFirstKeepsServing)
{
    DaemonProcess first;
    DaemonProcess second;
    ASSERT_TRUE(first.start()) << first.stderrText();

    EXPECT_FALSE(second.start());
    const auto status = second.waitForExit();
    ASSERT_TRUE(status.has_value());
    EXPECT_FALSE(endedSuccessfully(status));

    EXPECT_TRUE(first.running());
    EXPECT_EQ(SystemBus::ownerPid("ru.zorv.print"), first.pid());
    PrinterManagerClient client;
    EXPECT_THAT(client.getSavedPrinters(), IsEmpty());
}

TEST_F(DaemonLifecycle, RegistryWithoutTablesFailsOneStartAndTheNextStartsAfresh)
{
    const std::string registry = "/var/lib/print/printers.db";
    World::writeFile(registry, "");
    DaemonProcess daemon;

    EXPECT_FALSE(daemon.start());
    EXPECT_FALSE(endedSuccessfully(daemon.waitForExit()));
    EXPECT_THAT(daemon.stderrText(), HasSubstr("failed to remove the invalid database/var/lib/print/printers.db"));
    EXPECT_FALSE(std::filesystem::exists(registry));

    ASSERT_TRUE(daemon.start()) << daemon.stderrText();
    PrinterManagerClient client;
    EXPECT_THAT(client.getSavedPrinters(), IsEmpty());
}
