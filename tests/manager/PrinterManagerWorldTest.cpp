#include "tests/common/FailureText.h"
#include "tests/world/RunningServiceTest.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <cups/cups.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <filesystem>
#include <regex>

using namespace Kestrel::Test;
using ::testing::HasSubstr;

static std::string errorOf(const std::function<void()>& call)
{
    return busErrorOf("ru.zorv.PrinterManager.Error", call);
}

namespace {

using Names = std::vector<std::string>;
using Devices = std::map<std::string, std::string>;

const std::string printerUri = "ipp://127.0.0.1:631/ipp/print";

// What CUPS says about one queue, read as an ordinary client would.
struct Queue {
    std::string deviceUri;
    std::string state;
    std::string accepting;
    std::string makeAndModel;
};

std::map<std::string, Queue> queueDetails()
{
    cups_dest_t* dests = nullptr;
    const int count = cupsGetDests2(CUPS_HTTP_DEFAULT, &dests);
    std::map<std::string, Queue> queues;
    for (int i = 0; i < count; ++i) {
        auto option = [&](const char* name) {
            const char* value = cupsGetOption(name, dests[i].num_options, dests[i].options);
            return std::string(value ? value : "");
        };
        queues[dests[i].name] = {option("device-uri"), option("printer-state"), option("printer-is-accepting-jobs"),
                                 option("printer-make-and-model")};
    }
    cupsFreeDests(count, dests);
    return queues;
}

std::vector<std::pair<std::string, std::string>> registryRows()
{
    SQLite::Database db("/var/lib/print/printers.db");
    SQLite::Statement query(db, "SELECT cups_name, user_name FROM printers ORDER BY id");
    std::vector<std::pair<std::string, std::string>> rows;
    while (query.executeStep())
        rows.emplace_back(query.getColumn(0).getString(), query.getColumn(1).getString());
    return rows;
}

class PrinterManagerWorldTest : public RunningServiceTest {
protected:
    void SetUp() override
    {
        RunningServiceTest::SetUp();
        if (!serviceUp())
            return;
        client = std::make_unique<PrinterManagerClient>();
    }

    bool waitForSaved(size_t count)
    {
        return waitFor([&] { return client->savedPrintersSignals().size() >= count; });
    }

    std::unique_ptr<PrinterManagerClient> client;
};

TEST_F(PrinterManagerWorldTest, AddingTheSimulatedPrinterMakesAnEnabledDriverlessQueueUnderAUuid)
{
    client->addPrinter(printerUri, "Office", {});

    const auto rows = registryRows();
    ASSERT_EQ(rows.size(), 1u);
    const auto& [queue, name] = rows.front();
    EXPECT_EQ(name, "Office");
    EXPECT_TRUE(std::regex_match(queue, std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}")));
    const auto queues = queueDetails();
    ASSERT_EQ(queues.count(queue), 1u);
    EXPECT_EQ(queues.at(queue).deviceUri, printerUri);
    EXPECT_EQ(queues.at(queue).state, "3");
    EXPECT_EQ(queues.at(queue).accepting, "true");
    ASSERT_TRUE(World::waitUntilQueuesReady());
    EXPECT_THAT(queueDetails()[queue].makeAndModel, HasSubstr("IPP Everywhere"));

    ASSERT_TRUE(waitForSaved(1));
    EXPECT_EQ(client->savedPrintersSignals().front(), Names{"Office"});
    ASSERT_TRUE(waitFor([&] { return !logService.events().empty(); }));
    EXPECT_EQ(logService.events().front(), (SystemLogService::Event{"INFO_LEVEL", "printer-added", "Office"}));

    client->addPrinter(printerUri, "Office copy", {});
    const auto both = registryRows();
    ASSERT_EQ(both.size(), 2u);
    EXPECT_NE(both[0].first, both[1].first);
    EXPECT_EQ(queueDetails().size(), 2u);
    EXPECT_THAT(client->getSavedPrinters(), ::testing::UnorderedElementsAre("Office", "Office copy"));
}

TEST_F(PrinterManagerWorldTest, UsbPrinterIsCreatedFromItsPpdOrRefusedWithoutOne)
{
    const std::string uri = "usb://HP/Laser-Jet%201020?serial=7";
    const std::string ppd = "/usr/share/cups/model/LASERJET1020.ppd";
    World::removeFile(ppd);
    EXPECT_EQ(errorOf([&] { client->addPrinter(uri, "Laser", {}); }), "no PPD file for printer Laser-Jet1020");
    EXPECT_THAT(daemon.stderrText(), HasSubstr("ERROR: : no PPD file for printer Laser-Jet1020\n"));
    EXPECT_TRUE(queueDetails().empty());
    EXPECT_TRUE(registryRows().empty());

    std::filesystem::copy_file("/usr/share/ppd/cupsfilters/Generic-PDF_Printer-PDF.ppd", ppd);
    client->addPrinter(uri, "Laser", {});
    const auto queues = queueDetails();
    ASSERT_EQ(queues.size(), 1u);
    EXPECT_EQ(queues.begin()->second.deviceUri, uri);
    EXPECT_THAT(queues.begin()->second.makeAndModel, HasSubstr("Generic PDF"));
}

TEST_F(PrinterManagerWorldTest, UserChecksRegistryRulesAndTheLogServiceDecideWhatAnAddLeavesBehind)
{
    EXPECT_EQ(errorOf([&] { client->addPrinter(printerUri, "Office", {"root", "no-such-user", "nobody"}); }),
              "user no-such-user doesn't exists");
    EXPECT_TRUE(queueDetails().empty());

    client->addPrinter(printerUri, "Office", {"root", "nobody"});
    // A taken name fails at the registry, after its queue was made and enabled.
    EXPECT_THAT(errorOf([&] { client->addPrinter(printerUri, "Office", {}); }), HasSubstr("UNIQUE"));
    EXPECT_EQ(queueDetails().size(), 2u);
    EXPECT_EQ(registryRows().size(), 1u);

    logService.stop();
    EXPECT_THAT(errorOf([&] { client->addPrinter(printerUri, "Unlogged", {}); }),
                HasSubstr("[ru.zorv.SystemLogger.Error]"));
    EXPECT_EQ(queueDetails().size(), 3u);
    EXPECT_EQ(registryRows().back().second, "Unlogged");
    EXPECT_EQ(client->savedPrintersSignals().size(), 1u);
}

TEST_F(PrinterManagerWorldTest, RenameKeepsTheQueueAndRefusesEmptyOrTakenNames)
{
    client->addPrinter(printerUri, "Office", {});
    client->addPrinter(printerUri, "Home", {});
    ASSERT_TRUE(World::waitUntilQueuesReady());
    const auto queue = registryRows().front().first;

    client->renamePrinter("Office", "Lab");
    EXPECT_EQ(registryRows().front(), std::make_pair(queue, std::string("Lab")));
    EXPECT_FALSE(client->getPrinterAttributes("Lab").empty());
    ASSERT_TRUE(waitForSaved(3));
    EXPECT_THAT(client->savedPrintersSignals().back(), ::testing::UnorderedElementsAre("Lab", "Home"));

    client->renamePrinter("Lab", "Lab");
    EXPECT_TRUE(waitFor([&] {
        return daemon.stdoutText().find("WARNING: : new name and old name match. Nothing to be done.\n") !=
               std::string::npos;
    }));
    EXPECT_EQ(errorOf([&] { client->renamePrinter("Lab", ""); }), "no old name or new name provided");
    EXPECT_THAT(errorOf([&] { client->renamePrinter("Lab", "Home"); }), HasSubstr("UNIQUE"));
    EXPECT_THAT(client->getSavedPrinters(), ::testing::UnorderedElementsAre("Lab", "Home"));
}

TEST_F(PrinterManagerWorldTest, AttributesReportTheSimulatedPrintersCapabilities)
{
    client->addPrinter(printerUri, "Office", {});
    ASSERT_TRUE(World::waitUntilQueuesReady());
    const auto attributes = client->getPrinterAttributes("Office");
    for (const char* name : {"media-supported", "sides-supported", "print-color-mode-supported",
                             "orientation-requested-supported"}) {
        ASSERT_EQ(attributes.count(name), 1u) << name;
        EXPECT_FALSE(attributes.at(name).empty()) << name;
    }
    EXPECT_THAT(attributes.at("sides-supported"), ::testing::Contains("one-sided"));
    EXPECT_THAT(attributes.at("print-color-mode-supported"), ::testing::Contains("monochrome"));

    EXPECT_EQ(errorOf([&] { client->getPrinterAttributes("Nobody"); }), "cups_name is empty");
    const auto queue = registryRows().front().first;
    ASSERT_EQ(std::system(("lpadmin -x " + queue).c_str()), 0);
    EXPECT_EQ(errorOf([&] { client->getPrinterAttributes("Office"); }),
              "printer with user_name 'Office' and cups_name '" + queue + "' doesn't exist.");
}

TEST_F(PrinterManagerWorldTest, RemovingTheLastPrinterDeletesQueueAndRowAndSignalsAnEmptyList)
{
    client->addPrinter(printerUri, "Office", {});
    ASSERT_TRUE(World::waitUntilQueuesReady());
    client->removePrinter("Office");
    EXPECT_TRUE(queueDetails().empty());
    EXPECT_TRUE(registryRows().empty());
    ASSERT_TRUE(waitForSaved(2));
    EXPECT_EQ(client->savedPrintersSignals().back(), Names{});
    ASSERT_TRUE(waitFor([&] { return logService.events().size() == 2; }));
    EXPECT_EQ(logService.events().back(), (SystemLogService::Event{"INFO_LEVEL", "printer-removed", "Office"}));

    EXPECT_EQ(errorOf([&] { client->removePrinter("Office"); }), "cups_name is empty");
    EXPECT_EQ(client->savedPrintersSignals().size(), 2u);
}

TEST_F(PrinterManagerWorldTest, ScanReportsUsbAndIppDevicesOnceEvenWhenAskedTwice)
{
    client->scan();
    client->scan();
    ASSERT_TRUE(waitFor([&] { return !client->accessiblePrintersSignals().empty(); }, std::chrono::seconds(60)));
    const auto devices = client->accessiblePrintersSignals().front();
    EXPECT_EQ(devices.at("usb://Maker/Model?serial=1"), "Maker Model");
    for (const auto& [uri, makeAndModel] : devices) {
        EXPECT_NE(makeAndModel, "Unknown");
        EXPECT_EQ(uri.rfind("lpd:", 0), std::string::npos);
        EXPECT_EQ(uri.rfind("socket:", 0), std::string::npos) << uri;
    }
    EXPECT_TRUE(std::any_of(devices.begin(), devices.end(),
                            [](const auto& device) { return device.first.rfind("ipp://127.0.0.1", 0) == 0; }));
    // The second call came while the first scan ran; a later scan's answer
    // proves no other one was on its way.
    client->scan();
    ASSERT_TRUE(waitFor([&] { return client->accessiblePrintersSignals().size() >= 2; }, std::chrono::seconds(60)));
    EXPECT_EQ(client->accessiblePrintersSignals().size(), 2u);
    EXPECT_EQ(client->accessiblePrintersSignals().back(), devices);
}

TEST_F(PrinterManagerWorldTest, ScanWithoutTheSchedulerStillSignalsAnEmptyMap)
{
    World::stopScheduler();
    client->scan();
    ASSERT_TRUE(waitFor([&] { return !client->accessiblePrintersSignals().empty(); }, std::chrono::seconds(60)));
    EXPECT_TRUE(client->accessiblePrintersSignals().front().empty());
    EXPECT_THAT(daemon.stderrText(), HasSubstr("ERROR: : "));
    World::startScheduler();
}

} // namespace
