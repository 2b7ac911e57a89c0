#include "cups/CupsRequestHandler.h"
#include "tests/common/FailureText.h"
#include "tests/cups/IppRecordingServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

using Kestrel::Private::CupsRequestHandler;
using Kestrel::Test::IppRecordingServer;
using Kestrel::Test::failureOf;
using Attribute = IppRecordingServer::Attribute;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

const std::string AlreadyConnected = "WARNING: : connection with CUPS server already established.\n";

class CupsRequestHandlerTest : public testing::Test {
protected:
    // libcups keeps the server per thread; the handler runs on this one.
    void SetUp() override { cupsSetServer(server.address().c_str()); }
    void TearDown() override { cupsSetServer(nullptr); }

    IppRecordingServer server;
    CupsRequestHandler handler;
};

TEST_F(CupsRequestHandlerTest, PreparedRequestAddressesTheQueueWithoutBlanksAsDefaultUser)
{
    handler.connect();
    handler.prepareRequest("Office   Printer  2", IPP_OP_GET_PRINTER_ATTRIBUTES);
    handler.executeAdminRequest();

    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].resource, "/admin/");
    EXPECT_EQ(requests[0].operation, IPP_OP_GET_PRINTER_ATTRIBUTES);
    const auto& attributes = requests[0].attributes;
    ASSERT_EQ(attributes.size(), 4u);
    EXPECT_EQ(attributes[0].name, "attributes-charset");
    EXPECT_EQ(attributes[1].name, "attributes-natural-language");
    EXPECT_EQ(attributes[2], (Attribute{IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri",
                                        {"ipp://localhost/printers/OfficePrinter2"}}));
    EXPECT_EQ(attributes[3],
              (Attribute{IPP_TAG_OPERATION, IPP_TAG_NAME, "requesting-user-name", {"defaultuser"}}));
}

TEST_F(CupsRequestHandlerTest, AddedAttributesReachTheWireWithTheirGroupsAndTags)
{
    handler.newRequest(IPP_OP_CREATE_JOB);
    handler.addStrings(IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", {"media", "sides"});
    handler.addInteger(IPP_TAG_JOB, IPP_TAG_INTEGER, "copies", 2);
    handler.addInteger(IPP_TAG_JOB, IPP_TAG_ENUM, "orientation-requested", 4);
    handler.addBoolean(IPP_TAG_PRINTER, "printer-is-accepting-jobs", true);
    handler.addString(IPP_TAG_PRINTER, IPP_TAG_MIMETYPE, "document-format", "application/pdf");
    handler.executePrintRequest();

    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    const auto& request = requests[0];
    EXPECT_EQ(request.resource, "/ipp/print");
    EXPECT_EQ(request.operation, IPP_OP_CREATE_JOB);
    EXPECT_EQ(*request.find("copies"), (Attribute{IPP_TAG_JOB, IPP_TAG_INTEGER, "copies", {"2"}}));
    EXPECT_EQ(*request.find("orientation-requested"),
              (Attribute{IPP_TAG_JOB, IPP_TAG_ENUM, "orientation-requested", {"4"}}));
    EXPECT_EQ(*request.find("printer-is-accepting-jobs"),
              (Attribute{IPP_TAG_PRINTER, IPP_TAG_BOOLEAN, "printer-is-accepting-jobs", {"true"}}));
    EXPECT_EQ(*request.find("document-format"),
              (Attribute{IPP_TAG_PRINTER, IPP_TAG_MIMETYPE, "document-format", {"application/pdf"}}));
    const Attribute* requested = request.find("requested-attributes");
    ASSERT_NE(requested, nullptr);
    EXPECT_EQ(requested->valueTag, IPP_TAG_KEYWORD);
    EXPECT_THAT(requested->values, testing::UnorderedElementsAre("media", "sides"));
}

TEST_F(CupsRequestHandlerTest, PrintFileRequestSendsTheFileAfterTheRequest)
{
    const std::string path = testing::TempDir() + "kestrel-document.pdf";
    std::ofstream(path) << "%PDF-1.4 body";
    const int document = ::open(path.c_str(), O_RDONLY);
    std::remove(path.c_str());
    handler.newRequest(IPP_OP_SEND_DOCUMENT);
    handler.executePrintFileRequest(document);
    ::close(document);

    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].operation, IPP_OP_SEND_DOCUMENT);
    EXPECT_EQ(requests[0].document, "%PDF-1.4 body");
}

TEST_F(CupsRequestHandlerTest, ConnectTwiceWarnsOnceAndKeepsConnection)
{
    testing::internal::CaptureStdout();
    handler.connect();
    handler.connect();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), AlreadyConnected);

    handler.newRequest(IPP_OP_GET_PRINTER_ATTRIBUTES);
    handler.executeAdminRequest();
    handler.newRequest(IPP_OP_GET_PRINTER_ATTRIBUTES);
    handler.executeAdminRequest();
    EXPECT_EQ(server.requests().size(), 2u);
    EXPECT_EQ(server.acceptedConnections(), 1);
}

TEST_F(CupsRequestHandlerTest, ConnectRemoteReusesTheSameServerAndReplacesAnotherOne)
{
    testing::internal::CaptureStdout();
    handler.connectRemote("127.0.0.1", server.port());
    handler.connectRemote("127.0.0.1", server.port());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), AlreadyConnected);
    handler.newRequest(IPP_OP_GET_PRINTER_ATTRIBUTES);
    handler.executePrintRequest();
    EXPECT_EQ(server.acceptedConnections(), 1);

    IppRecordingServer other;
    handler.connectRemote("127.0.0.1", other.port());
    handler.newRequest(IPP_OP_GET_PRINTER_ATTRIBUTES);
    handler.executePrintRequest();
    EXPECT_EQ(other.requests().size(), 1u);
    EXPECT_TRUE(server.waitForOpenConnections(0));
}

TEST_F(CupsRequestHandlerTest, FailedConnectRemoteKeepsThePreviousConnection)
{
    int deadPort = 0;
    {
        IppRecordingServer closed;
        deadPort = closed.port();
    }
    handler.connectRemote("127.0.0.1", server.port());
    EXPECT_EQ(failureOf<std::runtime_error>([&] { handler.connectRemote("127.0.0.1", deadPort); }),
              "failed to establish connection with remote server.");

    handler.newRequest(IPP_OP_GET_PRINTER_ATTRIBUTES);
    handler.executePrintRequest();
    EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(CupsRequestHandlerTest, EveryOperationNeedsItsPendingRequestOrResponse)
{
    const std::string noRequest = "no pending requests prepared.";
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { handler.addString(IPP_TAG_OPERATION, IPP_TAG_NAME, "n", "v"); }),
              noRequest);
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { handler.addInteger(IPP_TAG_JOB, IPP_TAG_INTEGER, "n", 1); }),
              noRequest);
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { handler.addBoolean(IPP_TAG_PRINTER, "n", true); }), noRequest);
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { handler.addStrings(IPP_TAG_JOB, IPP_TAG_KEYWORD, "n", {"v"}); }),
              noRequest);
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { handler.executeAdminRequest(); }), noRequest);
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { handler.executePrintRequest(); }), noRequest);
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { handler.executePrintFileRequest(STDIN_FILENO); }), noRequest);
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { handler.getInteger("job-id"); }), "no response provided.");
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { handler.getAttributes({"job-id"}); }),
              "no response provided.");
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(CupsRequestHandlerTest, AttributeTheLibraryRefusesNamesItselfAndTheLibraryText)
{
    handler.newRequest(IPP_OP_CREATE_JOB);
    EXPECT_THAT(failureOf<std::runtime_error>([&] { handler.addStrings(IPP_TAG_JOB, IPP_TAG_KEYWORD, "sides", {}); }),
                testing::StartsWith("failed to adjust CUPS attribute 'sides': "));
}

TEST_F(CupsRequestHandlerTest, OverlongQueueNameFailsToAssembleButKeepsTheRequest)
{
    EXPECT_EQ(failureOf<std::runtime_error>(
                  [&] { handler.prepareRequest(std::string(1100, 'q'), IPP_OP_GET_PRINTER_ATTRIBUTES); }),
              std::string("error assembling printer uri: ") + httpURIStatusString(HTTP_URI_STATUS_OVERFLOW));
    handler.addString(IPP_TAG_OPERATION, IPP_TAG_NAME, "requesting-user-name", "defaultuser");
    handler.executePrintRequest();
    EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(CupsRequestHandlerTest, ConflictingStatusSucceedsAndClientErrorFailsWithTheLibraryText)
{
    server.setReply({IPP_STATUS_OK_CONFLICTING, {}});
    handler.newRequest(IPP_OP_GET_PRINTER_ATTRIBUTES);
    EXPECT_NO_THROW(handler.executePrintRequest());

    server.setReply({IPP_STATUS_ERROR_BAD_REQUEST,
                     {{IPP_TAG_PRINTER, IPP_TAG_KEYWORD, "sides-supported", {"one-sided"}}}});
    handler.newRequest(IPP_OP_GET_PRINTER_ATTRIBUTES);
    EXPECT_EQ(failureOf<std::runtime_error>([&] { handler.executePrintRequest(); }),
              "failed to execute request: client-error-bad-request");
    // The failed exchange still leaves its response, and the consumed
    // request is gone.
    EXPECT_THAT(handler.getAttributes({"sides-supported"})["sides-supported"], ElementsAre("one-sided"));
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { handler.executePrintRequest(); }),
              "no pending requests prepared.");
}

TEST_F(CupsRequestHandlerTest, UnusableDocumentDescriptorFailsAndEmptiesThePendingSlot)
{
    const int closedDescriptor = 1 << 20;
    handler.newRequest(IPP_OP_SEND_DOCUMENT);
    EXPECT_THAT(failureOf<std::runtime_error>([&] { handler.executePrintFileRequest(closedDescriptor); }),
                testing::StartsWith("failed to execute request: "));
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { handler.executePrintRequest(); }),
              "no pending requests prepared.");
}

TEST_F(CupsRequestHandlerTest, ResponseValuesAreSplitAtCommasAndOnlyRequestedNamesKept)
{
    server.setReply({IPP_STATUS_OK,
                     {{IPP_TAG_PRINTER, IPP_TAG_KEYWORD, "media-supported", {"a", "b", "", "c"}},
                      {IPP_TAG_PRINTER, IPP_TAG_KEYWORD, "finishings-supported", {"x", ""}},
                      {IPP_TAG_PRINTER, IPP_TAG_KEYWORD, "sides-supported", {"none"}},
                      {IPP_TAG_PRINTER, IPP_TAG_INTEGER, "copies-default", {"7"}},
                      {IPP_TAG_JOB, IPP_TAG_INTEGER, "job-id", {"42", "43"}}}});
    handler.newRequest(IPP_OP_GET_PRINTER_ATTRIBUTES);
    handler.executePrintRequest();

    auto attributes = handler.getAttributes({"media-supported", "finishings-supported", "sides-supported", "absent"});
    EXPECT_EQ(attributes.size(), 3u);
    EXPECT_THAT(attributes["media-supported"], ElementsAre("a", "b", "", "c"));
    EXPECT_THAT(attributes["finishings-supported"], ElementsAre("x"));
    EXPECT_THAT(attributes["sides-supported"], ElementsAre("none"));
    EXPECT_TRUE(handler.getAttributes({}).empty());

    EXPECT_EQ(handler.getInteger("job-id"), 42);
    EXPECT_EQ(handler.getInteger("copies-default"), 7);
    EXPECT_EQ(handler.getInteger("media-supported"), 0);

    handler.releaseResponse();
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { handler.getInteger("job-id"); }), "no response provided.");
}

class RecordingAddString : public CupsRequestHandler {
public:
    MOCK_METHOD(void, addString, (ipp_tag_t, ipp_tag_t, std::string_view, std::string_view), (override));
};

TEST(CupsRequestHandlerSlots, PrepareRequestAddsThroughTheReplaceableSlot)
{
    RecordingAddString handler;
    testing::InSequence order;
    EXPECT_CALL(handler, addString(IPP_TAG_OPERATION, IPP_TAG_URI, std::string_view("printer-uri"),
                                   std::string_view("ipp://localhost/printers/q1")));
    EXPECT_CALL(handler, addString(IPP_TAG_OPERATION, IPP_TAG_NAME, std::string_view("requesting-user-name"),
                                   std::string_view("defaultuser")));
    handler.prepareRequest("q 1", IPP_OP_PAUSE_PRINTER);
}

} // namespace
