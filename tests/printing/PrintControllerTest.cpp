#include "printing/PrintController.h"

#include "printing/PrintOptions.h"
#include "support/DatabaseManager.h"
#include "tests/common/FailureText.h"
#include "tests/common/ServiceMocks.h"
#include "tests/cups/IppRecordingServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using namespace Kestrel::Private;
using namespace Kestrel::Test;
using Attribute = Kestrel::Test::IppRecordingServer::Attribute;
using Kestrel::Test::IppRecordingServer;
using ::testing::_;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;
using ::testing::NiceMock;
using ::testing::Return;
using ::testing::StrictMock;

namespace {

class PrintControllerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        directory = std::filesystem::temp_directory_path() / ("kestrel-print-" + std::to_string(::getpid()));
        std::filesystem::remove_all(directory);
        database = std::make_shared<DatabaseManager>(directory.string());
        database->insert("uuid-1", "Office");
        controller = std::make_unique<PrintController>(handler, cups, system, database);
        ON_CALL(*system, openDocument(_, _)).WillByDefault([](auto&, const std::string& path) {
            return Document(path, -1, {}, -1);
        });
        ON_CALL(*system, documentExists(_, _)).WillByDefault(Return(true));
        ON_CALL(*cups, destinationExists(_)).WillByDefault(Return(true));
    }
    void TearDown() override { std::filesystem::remove_all(directory); }

    void expectJobAccepted()
    {
        EXPECT_CALL(*handler, prepareRequest(_, _)).Times(2);
        EXPECT_CALL(*handler, addString(_, _, _, _)).Times(::testing::AnyNumber());
        EXPECT_CALL(*handler, addInteger(_, _, _, _));
        EXPECT_CALL(*handler, addBoolean(_, _, _));
        EXPECT_CALL(*handler, executePrintFileRequest(_)).Times(2);
        EXPECT_CALL(*handler, getInteger(_)).WillOnce(Return(7));
    }

    const CallerCredentials caller{1000, 1000, {1000}};
    std::filesystem::path directory;
    std::shared_ptr<StrictMock<MockCupsRequestHandler>> handler = std::make_shared<StrictMock<MockCupsRequestHandler>>();
    std::shared_ptr<NiceMock<MockCupsInterface>> cups = std::make_shared<NiceMock<MockCupsInterface>>();
    std::shared_ptr<NiceMock<MockSystemInterface>> system = std::make_shared<NiceMock<MockSystemInterface>>();
    std::shared_ptr<DatabaseManager> database;
    std::unique_ptr<PrintController> controller;
};

TEST(PrintJobOnTheWire, CreateJobCarriesOptionsInNameOrderThenTheFixedOnesAndSendDocumentFollows)
{
    IppRecordingServer server;
    server.setReply(IPP_OP_CREATE_JOB, {IPP_STATUS_OK, {{IPP_TAG_JOB, IPP_TAG_INTEGER, "job-id", {"42"}}}});
    // The printing path uses libcups' default connection, which follows this.
    cupsSetServer(server.address().c_str());
    const auto directory = std::filesystem::temp_directory_path() / ("kestrel-wire-" + std::to_string(::getpid()));
    std::filesystem::create_directories(directory);
    auto database = std::make_shared<DatabaseManager>(directory.string());
    database->insert("uuid-1", "Office");
    auto cups = std::make_shared<NiceMock<MockCupsInterface>>();
    ON_CALL(*cups, destinationExists(_)).WillByDefault(Return(true));
    const auto pdf = (directory / "doc.pdf").string();
    std::ofstream(pdf) << "%PDF-1.4 stand-in";

    // Acting as the process itself: the real file operations, no identity switch.
    const CallerCredentials self{::geteuid(), ::getegid(), {}};
    PrintController(std::make_shared<CupsRequestHandler>(), cups, std::make_shared<SystemInterface>(), database)
        .print(self, pdf, "Office", {{"sides", "two-sided-long-edge"}, {"copies", "2"}});
    cupsSetServer(nullptr);

    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    const auto& create = requests[0];
    EXPECT_EQ(create.operation, IPP_OP_CREATE_JOB);
    EXPECT_EQ(create.resource, "/ipp/print");
    ASSERT_EQ(create.attributes.size(), 8u);
    EXPECT_EQ(create.attributes[2].values, std::vector<std::string>{"ipp://localhost/printers/uuid-1"});
    EXPECT_THAT(std::vector<Attribute>(create.attributes.begin() + 4, create.attributes.end()),
                ElementsAre(Attribute{IPP_TAG_JOB, IPP_TAG_KEYWORD, "copies", {"2"}},
                            Attribute{IPP_TAG_JOB, IPP_TAG_KEYWORD, "sides", {"two-sided-long-edge"}},
                            Attribute{IPP_TAG_JOB, IPP_TAG_KEYWORD, "pdfAutoRotate", {"false"}},
                            Attribute{IPP_TAG_JOB, IPP_TAG_KEYWORD, "pdftopdfAutoRotate", {"false"}}));
    EXPECT_EQ(create.document, "%PDF-1.4 stand-in");

    const auto& send = requests[1];
    EXPECT_EQ(send.operation, IPP_OP_SEND_DOCUMENT);
    EXPECT_EQ(send.resource, "/ipp/print");
    ASSERT_EQ(send.attributes.size(), 7u);
    EXPECT_THAT(std::vector<Attribute>(send.attributes.begin() + 4, send.attributes.end()),
                ElementsAre(Attribute{IPP_TAG_OPERATION, IPP_TAG_INTEGER, "job-id", {"42"}},
                            Attribute{IPP_TAG_OPERATION, IPP_TAG_MIMETYPE, "document-format", {"application/pdf"}},
                            Attribute{IPP_TAG_OPERATION, IPP_TAG_BOOLEAN, "last-document", {"true"}}));
    EXPECT_EQ(send.document, "%PDF-1.4 stand-in");
    EXPECT_FALSE(std::filesystem::exists(pdf));
    std::filesystem::remove_all(directory);
}

TEST_F(PrintControllerTest, UnknownOptionOrOversizedValueIsRefusedBeforeAnyRequestIsBuilt)
{
    const std::string expected = "Unknown option 'Copies'. List of supported options:\n"
                                 "\t - copies\n\t - fit-to-page\n\t - media\n\t - orientation-requested\n"
                                 "\t - outputorder\n\t - page-ranges\n\t - print-color-mode\n\t - sides\n";
    // The strict handler expects no call at all: nothing is built or sent.
    EXPECT_CALL(*system, removeDocument(_, _)).Times(0);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(failureOf([&] { controller->print(caller, "/tmp/d.pdf", "Office", {{"zoom", "1"}, {"Copies", "2"}}); }),
              expected);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "ERROR: : " + expected + "\n");
    EXPECT_EQ(failureOf([&] { controller->print(caller, "/tmp/d.pdf", "Office", {{"pdfAutoRotate", "true"}}); }),
              PrintOptions::unknownOptionMessage("pdfAutoRotate"));
    EXPECT_EQ(failureOf([&] { controller->print(caller, "/tmp/d.pdf", "Office", {{"sides", "x"}, {"zz", "1"}}); }),
              PrintOptions::unknownOptionMessage("zz"));
    const std::string tooLong(32768, 'a');
    EXPECT_EQ(failureOf([&] { controller->print(caller, "/tmp/d.pdf", "Office", {{"copies", tooLong}, {"zz", "1"}}); }),
              PrintOptions::unknownOptionMessage("zz"));
    EXPECT_EQ(failureOf([&] { controller->print(caller, "/tmp/d.pdf", "Office", {{"copies", "1"}, {"media", tooLong}}); }),
              "value of option 'media' is 32768 bytes long, more than the 32767 bytes IPP can carry");
}

TEST_F(PrintControllerTest, NonAsciiPathIsPrintedFromAUuidCopyWithTheSameExtensionMadeAsTheCaller)
{
    const auto byCaller = ::testing::Field(&CallerCredentials::uid, caller.uid);
    for (const auto& [path, pattern] : {std::pair{"/tmp/отчёт/doc.pdf", "[0-9a-f-]{36}\\.pdf"},
                                        std::pair{"/tmp/документ", "[0-9a-f-]{36}"}}) {
        std::string name;
        EXPECT_CALL(*system, copyDocument(byCaller, path, _)).WillOnce([&](auto&, auto&, const std::string& to) {
            name = to;
            return Document("/tmp/" + to, -1, to, -1);
        });
        expectJobAccepted();
        EXPECT_CALL(*system, removeDocument(byCaller, _)).WillOnce([&](auto&, const Document& document) {
            EXPECT_EQ(document.name(), name);
        });
        controller->print(caller, path, "Office", {});
        EXPECT_THAT(name, MatchesRegex(pattern));
    }
}

TEST_F(PrintControllerTest, DocumentVanishingBeforeSendDocumentKeepsTheMissingBlank)
{
    EXPECT_CALL(*system, documentExists(_, _)).WillOnce(Return(false));
    EXPECT_CALL(*handler, prepareRequest(_, IPP_OP_CREATE_JOB));
    EXPECT_CALL(*handler, addString(_, _, _, _)).Times(2);
    EXPECT_CALL(*handler, executePrintFileRequest(_));
    EXPECT_CALL(*handler, getInteger(_)).WillOnce(Return(3));
    EXPECT_EQ(failureOf([&] { controller->print(caller, "/tmp/d.pdf", "Office", {}); }), "file /tmp/d.pdfdoesn't exist.");
}

} // namespace
