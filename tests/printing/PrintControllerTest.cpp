#include "printing/PrintController.h"

#include "printing/PrintOptions.h"
#include "support/DatabaseManager.h"
#include "tests/common/FailureText.h"
#include "tests/common/ServiceMocks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

using namespace Kestrel::Private;
using namespace Kestrel::Test;
using ::testing::_;
using ::testing::InSequence;
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
        ON_CALL(*system, fileExists(_)).WillByDefault(Return(true));
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

    std::filesystem::path directory;
    std::shared_ptr<StrictMock<MockCupsRequestHandler>> handler = std::make_shared<StrictMock<MockCupsRequestHandler>>();
    std::shared_ptr<NiceMock<MockCupsInterface>> cups = std::make_shared<NiceMock<MockCupsInterface>>();
    std::shared_ptr<NiceMock<MockSystemInterface>> system = std::make_shared<NiceMock<MockSystemInterface>>();
    std::shared_ptr<DatabaseManager> database;
    std::unique_ptr<PrintController> controller;
};

TEST_F(PrintControllerTest, JobCarriesOptionsInNameOrderThenTheFixedOnesThenTheDocument)
{
    const std::string pdf = "/tmp/doc.pdf";
    {
        InSequence order;
        EXPECT_CALL(*handler, prepareRequest("uuid-1", IPP_OP_CREATE_JOB));
        EXPECT_CALL(*handler, addString(IPP_TAG_JOB, IPP_TAG_KEYWORD, std::string_view("copies"), std::string_view("2")));
        EXPECT_CALL(*handler, addString(IPP_TAG_JOB, IPP_TAG_KEYWORD, std::string_view("sides"),
                                        std::string_view("two-sided-long-edge")));
        EXPECT_CALL(*handler, addString(IPP_TAG_JOB, IPP_TAG_KEYWORD, std::string_view("pdfAutoRotate"),
                                        std::string_view("false")));
        EXPECT_CALL(*handler, addString(IPP_TAG_JOB, IPP_TAG_KEYWORD, std::string_view("pdftopdfAutoRotate"),
                                        std::string_view("false")));
        EXPECT_CALL(*handler, executePrintFileRequest(std::string_view(pdf)));
        EXPECT_CALL(*handler, getInteger(std::string_view("job-id"))).WillOnce(Return(42));
        EXPECT_CALL(*handler, prepareRequest("uuid-1", IPP_OP_SEND_DOCUMENT));
        EXPECT_CALL(*handler, addInteger(IPP_TAG_OPERATION, IPP_TAG_INTEGER, std::string_view("job-id"), 42));
        EXPECT_CALL(*handler, addString(IPP_TAG_OPERATION, IPP_TAG_MIMETYPE, std::string_view("document-format"),
                                        std::string_view("application/pdf")));
        EXPECT_CALL(*handler, addBoolean(IPP_TAG_OPERATION, std::string_view("last-document"), true));
        EXPECT_CALL(*handler, executePrintFileRequest(std::string_view(pdf)));
        EXPECT_CALL(*system, removeFile(pdf));
    }
    controller->print(pdf, "Office", {{"sides", "two-sided-long-edge"}, {"copies", "2"}});
}

TEST_F(PrintControllerTest, UnknownOptionIsReportedWithTheSupportedListAndNothingIsSent)
{
    const std::string expected = "Unknown option 'Copies'. List of supported options:\n"
                                 "\t - copies\n\t - fit-to-page\n\t - media\n\t - orientation-requested\n"
                                 "\t - outputorder\n\t - page-ranges\n\t - print-color-mode\n\t - sides\n";
    EXPECT_CALL(*handler, prepareRequest(_, IPP_OP_CREATE_JOB)).Times(3);
    EXPECT_CALL(*handler, addString(_, _, _, _)).Times(::testing::AnyNumber());
    EXPECT_CALL(*system, removeFile(_)).Times(0);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(failureOf([&] { controller->print("/tmp/d.pdf", "Office", {{"zoom", "1"}, {"Copies", "2"}}); }),
              expected);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "ERROR: : " + expected + "\n");
    EXPECT_EQ(failureOf([&] { controller->print("/tmp/d.pdf", "Office", {{"pdfAutoRotate", "true"}}); }),
              PrintOptions::unknownOptionMessage("pdfAutoRotate"));
    EXPECT_EQ(failureOf([&] { controller->print("/tmp/d.pdf", "Office", {{"sides", "x"}, {"zz", "1"}}); }),
              PrintOptions::unknownOptionMessage("zz"));
}

TEST_F(PrintControllerTest, NonAsciiPathIsPrintedFromAUuidCopyWithTheSameExtension)
{
    std::string copy;
    EXPECT_CALL(*system, copyFile("/tmp/отчёт/doc.pdf", _)).WillOnce([&](auto, const std::string& to) { copy = to; });
    expectJobAccepted();
    EXPECT_CALL(*system, removeFile(_)).Times(2).WillRepeatedly([&](const std::string& path) {
        EXPECT_EQ(path, copy);
        return true;
    });
    controller->print("/tmp/отчёт/doc.pdf", "Office", {});
    EXPECT_THAT(copy, MatchesRegex("/tmp/отчёт/[0-9a-f-]{36}\\.pdf"));

    EXPECT_CALL(*system, copyFile("/tmp/документ", _)).WillOnce([&](auto, const std::string& to) { copy = to; });
    expectJobAccepted();
    controller->print("/tmp/документ", "Office", {});
    EXPECT_THAT(copy, MatchesRegex("/tmp/[0-9a-f-]{36}"));
}

TEST_F(PrintControllerTest, DocumentVanishingBeforeSendDocumentKeepsTheMissingBlank)
{
    EXPECT_CALL(*system, fileExists("/tmp/d.pdf")).WillOnce(Return(true)).WillOnce(Return(false));
    EXPECT_CALL(*handler, prepareRequest(_, IPP_OP_CREATE_JOB));
    EXPECT_CALL(*handler, addString(_, _, _, _)).Times(2);
    EXPECT_CALL(*handler, executePrintFileRequest(_));
    EXPECT_CALL(*handler, getInteger(_)).WillOnce(Return(3));
    EXPECT_EQ(failureOf([&] { controller->print("/tmp/d.pdf", "Office", {}); }), "file /tmp/d.pdfdoesn't exist.");
}

} // namespace
