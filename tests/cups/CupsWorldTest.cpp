#include "cups/CupsInterface.h"
#include "cups/CupsRequestHandler.h"
#include "tests/world/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using Kestrel::Private::CupsInterface;
using Kestrel::Private::CupsRequestHandler;
using Kestrel::Private::DeviceMap;
using Kestrel::Test::World;
using testing::Contains;
using testing::Key;
using testing::Not;
using testing::Pair;

namespace {

class CupsWorldTest : public testing::Test {
protected:
    void SetUp() override { KESTREL_REQUIRE_WORLD(); }
    void TearDown() override
    {
        if (World::available())
            World::removeAllQueues();
    }

    // What adding a printer sends: a driverless queue for the given device.
    void addQueue(const std::string& name, const std::string& deviceUri)
    {
        handler.connect();
        handler.prepareRequest(name, CUPS_ADD_MODIFY_PRINTER);
        handler.addString(IPP_TAG_OPERATION, IPP_TAG_URI, "device-uri", deviceUri);
        handler.addString(IPP_TAG_OPERATION, IPP_TAG_NAME, "ppd-name", "everywhere");
        handler.executeAdminRequest();
    }

    CupsRequestHandler handler;
    CupsInterface cups;
};

TEST(CupsInterfaceTest, EmptyQueueNameFailsBeforeAskingCups)
{
    CupsInterface cups;
    try {
        cups.destinationExists("");
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "cups_name is empty");
    }
}

TEST_F(CupsWorldTest, QueueIsFoundOnlyUnderItsExactName)
{
    EXPECT_FALSE(cups.destinationExists("KestrelQueue"));
    addQueue("KestrelQueue", World::printerUri());

    EXPECT_TRUE(cups.destinationExists("KestrelQueue"));
    EXPECT_FALSE(cups.destinationExists("kestrelqueue"));
    EXPECT_FALSE(cups.destinationExists("KestrelQueu"));
    EXPECT_FALSE(cups.destinationExists("KestrelQueue2"));
}

TEST_F(CupsWorldTest, RequestTheSchedulerRejectsFailsWithItsText)
{
    try {
        addQueue("BogusQueue", "bogus://x");
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(), "failed to execute request: " + Kestrel::Private::cupsErrorText());
        EXPECT_THAT(error.what(), testing::HasSubstr("bogus"));
    }
    EXPECT_FALSE(cups.destinationExists("BogusQueue"));
}

TEST_F(CupsWorldTest, DiscoveryListsUsableDevicesOnly)
{
    testing::internal::CaptureStdout();
    DeviceMap devices = cups.getDevices();
    const std::string warnings = testing::internal::GetCapturedStdout();

    EXPECT_THAT(devices, Contains(Pair("usb://Maker/Model?serial=1", "Maker Model")));
    // The probe reached the simulated printer through the socket device.
    EXPECT_THAT(devices, Contains(Pair("ipp://127.0.0.1", "Loopback Printer")));
    for (const auto& [uri, makeAndModel] : devices) {
        EXPECT_NE(makeAndModel, "Unknown") << uri;
        EXPECT_NE(uri.rfind("lpd://", 0), 0u) << uri;
        EXPECT_NE(uri.rfind("socket://", 0), 0u) << uri;
        EXPECT_NE(makeAndModel, "Loopback Printer 9100") << uri;
        EXPECT_NE(makeAndModel, "Named Printer") << uri;
    }
    EXPECT_THAT(warnings, testing::HasSubstr("WARNING: : failed to establish connection with remote server.\n"));
}

} // namespace
