#include "cups/CupsRequestHandler.h"
#include "support/IppChecker.h"

#include <gmock/gmock.h>

#include <random>
#include <regex>

using Kestrel::Private::AttributeMap;
using Kestrel::Private::CupsRequestHandler;
using Kestrel::Private::IppChecker;
using testing::ElementsAre;
using testing::Pair;

namespace {

// A device that names its IPP versions only on the given ports; records where it was reached.
class Device : public CupsRequestHandler {
public:
    explicit Device(std::vector<int> answering)
        : answering(std::move(answering))
    {
    }
    void connectRemote(std::string_view host, int port) override { reached.emplace_back(host, port); }
    void newRequest(ipp_op_t) override {}
    void addString(ipp_tag_t, ipp_tag_t, std::string_view, std::string_view) override {}
    void addStrings(ipp_tag_t, ipp_tag_t, std::string_view, const std::unordered_set<std::string>&) override {}
    void executePrintRequest() override
    {
        if (answering.empty())
            throw std::runtime_error("failed to execute request: Connection refused");
    }
    AttributeMap getAttributes(const std::unordered_set<std::string>&) override
    {
        const int port = reached.back().second;
        if (std::find(answering.begin(), answering.end(), port) == answering.end())
            return {{"ipp-versions-supported", {}}};
        return {{"ipp-versions-supported", {"2.0"}}};
    }

    std::vector<int> answering;
    std::vector<std::pair<std::string, int>> reached;
};

TEST(IppCheckerTest, PlainProbeOn631ThenSecureProbeOn443SwitchesTheUriToIpps)
{
    auto device = std::make_shared<Device>(std::vector<int>{443});
    IppChecker checker("socket://10.0.0.5:9100", device);
    EXPECT_FALSE(checker.isIppSupported());
    EXPECT_EQ(checker.getIppUri(), "ipp://10.0.0.5:9100");
    EXPECT_TRUE(checker.isIppsSupported());
    EXPECT_EQ(checker.getIppUri(), "ipps://10.0.0.5:9100");
    EXPECT_THAT(device->reached, ElementsAre(Pair("10.0.0.5:", 631), Pair("10.0.0.5:", 443)));
}

TEST(IppCheckerTest, FailedProbesWarnAndKeepThePlainUri)
{
    testing::internal::CaptureStdout();
    IppChecker unreachable("dnssd://10.0.0.5", std::make_shared<Device>(std::vector<int>{}));
    EXPECT_FALSE(unreachable.isIppSupported());
    EXPECT_FALSE(unreachable.isIppsSupported());
    auto named = std::make_shared<Device>(std::vector<int>{631});
    IppChecker noAddress("socket://ab", named);
    EXPECT_FALSE(noAddress.isIppSupported());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "WARNING: : failed to execute request: Connection refused\n"
              "WARNING: : failed to execute request: Connection refused\n"
              "WARNING: : no address.\n");
    EXPECT_EQ(unreachable.getIppUri(), "ipp://10.0.0.5");
    EXPECT_TRUE(named->reached.empty());
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
        const std::string expected = std::regex_search(ippUri, match, address) ? match[1].str() : std::string();

        auto device = std::make_shared<Device>(std::vector<int>{631});
        IppChecker checker(uri, device);
        ASSERT_EQ(checker.getIppUri(), ippUri) << "uri: \"" << uri << "\"";
        testing::internal::CaptureStdout();
        checker.isIppSupported();
        testing::internal::GetCapturedStdout();
        ASSERT_EQ(device->reached.empty() ? "" : device->reached[0].first, expected) << "uri: \"" << uri << "\"";
        withAddress += !expected.empty();
    }
    EXPECT_GT(withAddress, 500);
}

} // namespace
