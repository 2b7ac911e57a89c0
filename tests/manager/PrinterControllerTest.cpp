#include "manager/PrinterController.h"

#include "support/CurlInterface.h"
#include "support/DatabaseManager.h"
#include "tests/common/FailureText.h"
#include "tests/common/ServiceMocks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

using namespace Kestrel::Private;
using namespace Kestrel::Test;
using ::testing::_;
using ::testing::InSequence;
using ::testing::NiceMock;
using ::testing::Return;
using ::testing::StrictMock;
using ::testing::Throw;

namespace {

class PrinterControllerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        directory = std::filesystem::temp_directory_path() / ("kestrel-controller-" + std::to_string(::getpid()));
        std::filesystem::remove_all(directory);
        database = std::make_shared<DatabaseManager>(directory.string());
        controller = std::make_unique<PrinterController>(handler, cups, std::make_shared<CurlInterface>(), system,
                                                         logger, database);
        ON_CALL(*system, userExists(_)).WillByDefault(Return(true));
    }
    void TearDown() override { std::filesystem::remove_all(directory); }


    std::filesystem::path directory;
    std::shared_ptr<StrictMock<MockCupsRequestHandler>> handler = std::make_shared<StrictMock<MockCupsRequestHandler>>();
    std::shared_ptr<StrictMock<MockCupsInterface>> cups = std::make_shared<StrictMock<MockCupsInterface>>();
    std::shared_ptr<NiceMock<MockSystemInterface>> system = std::make_shared<NiceMock<MockSystemInterface>>();
    std::shared_ptr<StrictMock<MockSystemLogger>> logger = std::make_shared<StrictMock<MockSystemLogger>>();
    std::shared_ptr<DatabaseManager> database;
    std::unique_ptr<PrinterController> controller;
};

TEST_F(PrinterControllerTest, AddingAnIppPrinterDefinesADriverlessQueueEnablesItWaitsUntilSetUpSavesItAndLogsIt)
{
    const std::string uri = "ipp://127.0.0.1:631/ipp/print";
    std::string queue;
    {
        InSequence order;
        EXPECT_CALL(*handler, connect());
        EXPECT_CALL(*handler, prepareRequest(_, IPP_OP_CUPS_ADD_MODIFY_PRINTER))
            .WillOnce([&](std::string name, ipp_op_t) { queue = name; });
        EXPECT_CALL(*handler, addString(IPP_TAG_OPERATION, IPP_TAG_URI, std::string_view("device-uri"),
                                        std::string_view(uri)));
        EXPECT_CALL(*handler, addString(IPP_TAG_OPERATION, IPP_TAG_NAME, std::string_view("printer-name"), _))
            .WillOnce([&](auto, auto, auto, std::string_view value) { EXPECT_EQ(value, queue); });
        EXPECT_CALL(*handler, addString(IPP_TAG_OPERATION, IPP_TAG_NAME, std::string_view("ppd-name"),
                                        std::string_view("everywhere")));
        EXPECT_CALL(*handler, executeAdminRequest());
        EXPECT_CALL(*handler, prepareRequest(_, IPP_OP_CUPS_ADD_MODIFY_PRINTER))
            .WillOnce([&](std::string name, ipp_op_t) { EXPECT_EQ(name, queue); });
        EXPECT_CALL(*handler, addBoolean(IPP_TAG_PRINTER, std::string_view("printer-is-accepting-jobs"), true));
        EXPECT_CALL(*handler, addInteger(IPP_TAG_PRINTER, IPP_TAG_ENUM, std::string_view("printer-state"), 3));
        EXPECT_CALL(*handler, executeAdminRequest());
        // Saved only once the scheduler has set the queue up from the printer.
        const std::unordered_set<std::string> model = {"printer-make-and-model"};
        for (const char* answer : {"Local Raw Printer", "Printer - IPP Everywhere"}) {
            EXPECT_CALL(*handler, prepareRequest(_, IPP_OP_GET_PRINTER_ATTRIBUTES))
                .WillOnce([&](std::string name, ipp_op_t) { EXPECT_EQ(name, queue); });
            EXPECT_CALL(*handler, addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD,
                                             std::string_view("requested-attributes"), model));
            EXPECT_CALL(*handler, executeAdminRequest());
            EXPECT_CALL(*handler, getAttributes(model)).WillOnce([this, answer](auto&) {
                EXPECT_TRUE(database->getUserNames().empty());
                return AttributeMap{{"printer-make-and-model", {answer}}};
            });
        }
        EXPECT_CALL(*logger, sendEvent("INFO_LEVEL", "printer-added", "Office"));
    }
    controller->addPrinter(uri, "Office", {});

    EXPECT_TRUE(std::regex_match(queue, std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}")));
    EXPECT_EQ(database->getCupsName("Office"), queue);
}

TEST_F(PrinterControllerTest, IppsSocketAndDnssdQueuesGetNoDriverAttribute)
{
    for (const std::string uri : {"ipps://10.0.0.5/ipp/print", "socket://10.0.0.55", "dnssd://10.0.0.5.local/"}) {
        ::testing::Mock::VerifyAndClearExpectations(handler.get());
        EXPECT_CALL(*handler, connect());
        EXPECT_CALL(*handler, prepareRequest(_, _)).Times(2);
        EXPECT_CALL(*handler, addString(_, _, std::string_view("device-uri"), std::string_view(uri)));
        EXPECT_CALL(*handler, addString(_, _, std::string_view("printer-name"), _));
        EXPECT_CALL(*handler, addString(_, _, std::string_view("ppd-name"), _)).Times(0);
        EXPECT_CALL(*handler, addBoolean(_, _, _));
        EXPECT_CALL(*handler, addInteger(_, _, _, _));
        EXPECT_CALL(*handler, executeAdminRequest()).Times(2);
        EXPECT_CALL(*logger, sendEvent(_, _, uri));
        controller->addPrinter(uri, uri, {});
    }
}

TEST_F(PrinterControllerTest, UsbModelIsLookedUpWithoutHyphensInUpperCase)
{
    const std::string ppd = "/usr/share/cups/model/LASERJET1020.ppd";
    EXPECT_CALL(*system, fileExists(ppd)).WillOnce(Return(true));
    EXPECT_CALL(*handler, connect());
    EXPECT_CALL(*handler, prepareRequest(_, _)).Times(2);
    EXPECT_CALL(*handler, addString(_, _, _, _)).Times(2);
    EXPECT_CALL(*handler, addString(IPP_TAG_OPERATION, IPP_TAG_NAME, std::string_view("ppd-name"),
                                    std::string_view(ppd)));
    EXPECT_CALL(*handler, addBoolean(_, _, _));
    EXPECT_CALL(*handler, addInteger(_, _, _, _));
    EXPECT_CALL(*handler, executeAdminRequest()).Times(2);
    EXPECT_CALL(*logger, sendEvent(_, _, _));
    controller->addPrinter("usb://HP/Laser-Jet%201020?serial=42", "Laser", {});
}

TEST_F(PrinterControllerTest, UnparsableUriFailsWithTheParserMessage)
{
    EXPECT_EQ(failureOf([&] { controller->addPrinter("lpd://10.0.0.5/queue", "Office", {}); }),
              "protocol is not supported");
    EXPECT_EQ(failureOf([&] { controller->addPrinter("", "Office", {}); }), "failed to extract uri.");
}

TEST_F(PrinterControllerTest, RemovingDeletesQueueThenRowThenLogs)
{
    database->insert("uuid-1", "Office");
    {
        InSequence order;
        EXPECT_CALL(*cups, destinationExists(std::string_view("uuid-1"))).WillOnce(Return(true));
        EXPECT_CALL(*handler, connect());
        EXPECT_CALL(*handler, prepareRequest("uuid-1", IPP_OP_CUPS_DELETE_PRINTER));
        EXPECT_CALL(*handler, executeAdminRequest());
        EXPECT_CALL(*logger, sendEvent("INFO_LEVEL", "printer-removed", "Office"));
    }
    controller->removePrinter("Office");
    EXPECT_TRUE(database->getUserNames().empty());
}

TEST_F(PrinterControllerTest, RemovalRejectedByCupsKeepsTheRow)
{
    database->insert("uuid-1", "Office");
    EXPECT_CALL(*cups, destinationExists(_)).WillOnce(Return(true));
    EXPECT_CALL(*handler, connect());
    EXPECT_CALL(*handler, prepareRequest(_, _));
    EXPECT_CALL(*handler, executeAdminRequest()).WillOnce(Throw(std::runtime_error("failed to execute request: x")));
    EXPECT_EQ(failureOf([&] { controller->removePrinter("Office"); }), "failed to execute request: x");
    EXPECT_EQ(database->getCupsName("Office"), "uuid-1");
}

TEST_F(PrinterControllerTest, AttributesAskForTheFourCapabilities)
{
    database->insert("uuid-1", "Office");
    const std::unordered_set<std::string> wanted = {"orientation-requested-supported", "media-supported",
                                                    "print-color-mode-supported", "sides-supported"};
    const AttributeMap reply = {{"sides-supported", {"one-sided"}}};
    {
        InSequence order;
        EXPECT_CALL(*cups, destinationExists(std::string_view("uuid-1"))).WillOnce(Return(true));
        EXPECT_CALL(*handler, connect());
        EXPECT_CALL(*handler, prepareRequest("uuid-1", IPP_OP_GET_PRINTER_ATTRIBUTES));
        EXPECT_CALL(*handler, addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD,
                                         std::string_view("requested-attributes"), wanted));
        EXPECT_CALL(*handler, executeAdminRequest());
        EXPECT_CALL(*handler, getAttributes(wanted)).WillOnce(Return(reply));
    }
    EXPECT_EQ(controller->getPrinterAttributes("Office"), reply);
}

TEST_F(PrinterControllerTest, DiscoveryKeepsOnlySupportedSchemes)
{
    EXPECT_CALL(*cups, getDevices())
        .WillOnce(Return(DeviceMap{{"usb://A/B?serial=1", "A B"}, {"lpd://x/y", "L"}, {"ipps://1.2.3.4/", "I"}}));
    EXPECT_EQ(controller->getAccessiblePrinters(),
              (DeviceMap{{"ipps://1.2.3.4/", "I"}, {"usb://A/B?serial=1", "A B"}}));
}

} // namespace
