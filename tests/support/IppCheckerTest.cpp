#include "cups/CupsRequestHandler.h"
#include "support/IppChecker.h"
#include "tests/cups/IppRecordingServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <regex>

using Kestrel::Private::AttributeMap;
using Kestrel::Private::CupsRequestHandler;
using Kestrel::Private::IppChecker;
using Kestrel::Test::IppRecordingServer;
using Attribute = IppRecordingServer::Attribute;
using testing::ElementsAre;
using testing::Pair;

namespace {

const std::string NoAddress = "WARNING: : no address.\n";
const std::string Unreachable = "WARNING: : failed to establish connection with remote server.\n";

// The real handler, with the probe's fixed ports mapped to test servers.
class RedirectingHandler : public CupsRequestHandler {
public:
    explicit RedirectingHandler(std::map<int, int> ports)
        : ports(std::move(ports))
    {
    }

    void connectRemote(std::string_view host, int port) override
    {
        connects.emplace_back(host, port);
        CupsRequestHandler::connectRemote(host, ports.at(port));
    }

    std::map<int, int> ports;
    std::vector<std::pair<std::string, int>> connects;
};

int deadPort()
{
    IppRecordingServer closed;
    return closed.port();
}

const IppRecordingServer::Reply VersionsReply{
    IPP_STATUS_OK, {{IPP_TAG_PRINTER, IPP_TAG_KEYWORD, "ipp-versions-supported", {"1.1", "2.0"}}}};

TEST(IppCheckerTest, PrinterNamingItsIppVersionsIsSupported)
{
    IppRecordingServer printer;
    printer.setReply(VersionsReply);
    auto handler = std::make_shared<RedirectingHandler>(std::map<int, int>{{631, printer.port()}});
    IppChecker checker("socket://127.0.0.1", handler);

    testing::internal::CaptureStdout();
    EXPECT_TRUE(checker.isIppSupported());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(checker.getIppUri(), "ipp://127.0.0.1");
    EXPECT_THAT(handler->connects, ElementsAre(Pair("127.0.0.1", 631)));

    auto requests = printer.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].resource, "/ipp/print");
    EXPECT_EQ(requests[0].operation, IPP_OP_GET_PRINTER_ATTRIBUTES);
    const auto& attributes = requests[0].attributes;
    ASSERT_EQ(attributes.size(), 4u);
    EXPECT_EQ(attributes[2], (Attribute{IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", {"ipp://127.0.0.1"}}));
    EXPECT_EQ(attributes[3], (Attribute{IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes",
                                        {"ipp-versions-supported"}}));
}

TEST(IppCheckerTest, PrinterSilentOrFailingOnVersionsIsNotSupported)
{
    IppRecordingServer printer;
    auto handler = std::make_shared<RedirectingHandler>(std::map<int, int>{{631, printer.port()}});
    IppChecker checker("socket://127.0.0.1", handler);

    testing::internal::CaptureStdout();
    EXPECT_FALSE(checker.isIppSupported());
    printer.setReply({IPP_STATUS_OK, {{IPP_TAG_PRINTER, IPP_TAG_KEYWORD, "ipp-versions-supported", {}}}});
    EXPECT_FALSE(checker.isIppSupported());
    printer.setReply({IPP_STATUS_ERROR_NOT_FOUND, VersionsReply.attributes});
    EXPECT_FALSE(checker.isIppSupported());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "WARNING: : connection with CUPS server already established.\n"
              "WARNING: : connection with CUPS server already established.\n"
              "WARNING: : failed to execute request: client-error-not-found\n");
}

TEST(IppCheckerTest, SecureProbeAfterFailedPlainOneSwitchesToIpps)
{
    IppRecordingServer printer;
    printer.setReply(VersionsReply);
    auto handler =
        std::make_shared<RedirectingHandler>(std::map<int, int>{{631, deadPort()}, {443, printer.port()}});
    IppChecker checker("dnssd://127.0.0.1", handler);

    testing::internal::CaptureStdout();
    EXPECT_FALSE(checker.isIppSupported());
    EXPECT_TRUE(checker.isIppsSupported());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), Unreachable);
    EXPECT_EQ(checker.getIppUri(), "ipps://127.0.0.1");
    EXPECT_THAT(handler->connects, ElementsAre(Pair("127.0.0.1", 631), Pair("127.0.0.1", 443)));
    // The request itself still named the plain URI.
    ASSERT_EQ(printer.requests().size(), 1u);
    EXPECT_EQ(printer.requests()[0].find("printer-uri")->values[0], "ipp://127.0.0.1");
}

TEST(IppCheckerTest, FailedSecureProbeKeepsThePlainUri)
{
    auto handler = std::make_shared<RedirectingHandler>(std::map<int, int>{{631, deadPort()}, {443, deadPort()}});
    IppChecker checker("socket://127.0.0.1", handler);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(checker.isIppSupported());
    EXPECT_FALSE(checker.isIppsSupported());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), Unreachable + Unreachable);
    EXPECT_EQ(checker.getIppUri(), "ipp://127.0.0.1");
}

TEST(IppCheckerTest, UriWithoutAddressNeverTouchesTheNetwork)
{
    auto handler = std::make_shared<RedirectingHandler>(std::map<int, int>{});
    IppChecker checker("socket://ab", handler);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(checker.isIppSupported());
    EXPECT_FALSE(checker.isIppsSupported());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), NoAddress + NoAddress);
    EXPECT_TRUE(handler->connects.empty());
    EXPECT_EQ(checker.getIppUri(), "ipp://ab");
}

// Answers every probe with IPP versions and records the address asked for.
class AnsweringHandler : public CupsRequestHandler {
public:
    void connectRemote(std::string_view host, int) override { hosts.emplace_back(host); }
    void newRequest(ipp_op_t) override {}
    void addString(ipp_tag_t, ipp_tag_t, std::string_view, std::string_view) override {}
    void addStrings(ipp_tag_t, ipp_tag_t, std::string_view, const std::unordered_set<std::string>&) override {}
    void executePrintRequest() override {}
    AttributeMap getAttributes(const std::unordered_set<std::string>&) override
    {
        return {{"ipp-versions-supported", {"2.0"}}};
    }

    std::vector<std::string> hosts;
};

TEST(IppCheckerTest, AddressIsWhatTheDeviceUriSays)
{
    auto handler = std::make_shared<AnsweringHandler>();
    IppChecker checker("socket://10.0.0.5:9100", handler);
    EXPECT_TRUE(checker.isIppSupported());
    EXPECT_EQ(checker.getIppUri(), "ipp://10.0.0.5:9100");
    EXPECT_THAT(handler->hosts, ElementsAre("10.0.0.5:"));
}

TEST(IppCheckerTest, AgreesWithTheEcmaScriptEngineOnGeneratedUris)
{
    const std::vector<std::string> tokens{"socket", "dnssd", "ipp", "ipps", "a", "://", "://", ":", "/", "0",
                                          "1",      "12",    "255", ".",   ".",  "\n", "\r",  "x", "?", "ipp://"};
    std::mt19937 random(7);
    std::uniform_int_distribution<size_t> pick(0, tokens.size() - 1);
    std::uniform_int_distribution<int> length(0, 12);
    const std::regex scheme("(.*)://");
    const std::regex address("ipp://(([0-9]*.){4})");
    int withAddress = 0;
    for (int i = 0; i < 4000; ++i) {
        std::string uri;
        for (int n = length(random); n > 0; --n)
            uri += tokens[pick(random)];
        const std::string ippUri = std::regex_replace(uri, scheme, "ipp://");
        std::smatch match;
        const std::string expectedAddress =
            std::regex_search(ippUri, match, address) ? match[1].str() : std::string();

        auto handler = std::make_shared<AnsweringHandler>();
        IppChecker checker(uri, handler);
        ASSERT_EQ(checker.getIppUri(), ippUri) << "uri: \"" << uri << "\"";
        testing::internal::CaptureStdout();
        checker.isIppsSupported();
        testing::internal::GetCapturedStdout();
        if (expectedAddress.empty()) {
            ASSERT_TRUE(handler->hosts.empty()) << "uri: \"" << uri << "\"";
            continue;
        }
        ++withAddress;
        ASSERT_THAT(handler->hosts, ElementsAre(expectedAddress)) << "uri: \"" << uri << "\"";
        ASSERT_EQ(checker.getIppUri(), std::regex_replace(ippUri, scheme, "ipps://")) << "uri: \"" << uri << "\"";
    }
    EXPECT_GT(withAddress, 500);
}

} // namespace
