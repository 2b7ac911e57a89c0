#include "support/CurlInterface.h"
#include "support/Uri.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <regex>
#include <tuple>

using Kestrel::Private::CurlInterface;
using Kestrel::Private::Uri;

namespace {

// The failure text, or the text, the model or address and the protocol.
using Outcome = std::tuple<std::string, std::string, std::string, int32_t>;

Outcome failure(const std::string& message)
{
    return {message, "", "", -1};
}

Outcome parse(const std::string& uri, std::shared_ptr<CurlInterface> curl = std::make_shared<CurlInterface>())
{
    try {
        Uri parsed(uri, curl);
        return {"", parsed.text(), parsed.modelOrAddress(), parsed.protocol()};
    } catch (const std::exception& error) {
        return failure(error.what());
    }
}

// The same steps with the ECMAScript engine; only safe on short inputs.
Outcome parseWithStdRegex(const std::string& uri)
{
    CurlInterface curl;
    curl.init();
    const std::string unescaped = curl.unescape(uri.c_str(), uri.size());
    if (unescaped.empty())
        return failure("failed to extract uri.");
    const std::string text = std::regex_replace(unescaped, std::regex("\\s+"), "");
    std::smatch match;
    if (!std::regex_search(text, match, std::regex("([a-z]+)://(?:(.*)/(.*)\\?serial=[0-9]*|((?:[0-9]+.){4}))")))
        return failure("invalid uri scheme");
    const auto protocol = Uri::protocols().find(match[1].str());
    if (protocol == Uri::protocols().end())
        return failure("protocol is not supported");
    return {"", text, match[3].matched ? match[3].str() : match[4].str(), protocol->second};
}

TEST(UriTest, DeviceUrisGiveProtocolAndModelOrAddressOrTheirFailure)
{
    const std::vector<std::pair<std::string, Outcome>> cases{
        {"usb://HP/LaserJet%20Pro%20400?serial=A1", {"", "usb://HP/LaserJetPro400?serial=A1", "LaserJetPro400", 3}},
        {"socket://192.168.0.10:9100", {"", "socket://192.168.0.10:9100", "192.168.0.10:", 4}},
        {"ipp://10.0.0.55", {"", "ipp://10.0.0.55", "10.0.0.55", 1}},
        {"ipps://10.0.0.5/ipp/print", {"", "ipps://10.0.0.5/ipp/print", "10.0.0.5/", 2}},
        {"dnssd://1.2.3.4.5", {"", "dnssd://1.2.3.4.5", "1.2.3.4.", 0}},
        {"", failure("failed to extract uri.")},
        // A single-digit last run leaves the wildcard nothing to take.
        {"socket://1.2.3.4", failure("invalid uri scheme")},
        {"lpd://host/queue?serial=7", failure("protocol is not supported")},
        // Announced printers keep their escaped service name; other names stay refused.
        {"ipp://My%20Printer._ipp._tcp.local/", {"", "ipp://My%20Printer._ipp._tcp.local/", "My%20Printer._ipp._tcp.local", 1}},
        {"dnssd://P._ipps._tcp.local/?uuid=1", {"", "dnssd://P._ipps._tcp.local/?uuid=1", "P._ipps._tcp.local", 0}},
        {"ipp://printer.local/ipp/print", failure("invalid uri scheme")},
        {"socket://P._ipp._tcp.local", failure("invalid uri scheme")},
        {"ipp://My Printer._ipp._tcp.local/", failure("invalid uri scheme")},
        {"ipps://P._printer._tcp.local/", failure("invalid uri scheme")},
    };
    for (const auto& [uri, expected] : cases)
        EXPECT_EQ(parse(uri), expected) << uri;
    struct FailingCurl : CurlInterface {
        bool init() override { return false; }
    };
    EXPECT_EQ(parse("usb://Maker/Model?serial=1", std::make_shared<FailingCurl>()),
              failure("failed to init curl for uri parsing"));
}

TEST(UriTest, SupportedPrefixIsAnyOfTheFiveSchemeNames)
{
    for (const auto& [text, supported] : std::vector<std::pair<std::string, bool>>{
             {"ipps://host", true}, {"usbfoo", true}, {"dnssd://x", true}, {"socket", true},
             {"lpd://ipp.local/queue", false}, {"IPP://host", false}, {"soc", false}})
        EXPECT_EQ(Uri::hasSupportedPrefix(text), supported) << text;
}

TEST(UriTest, AgreesWithTheEcmaScriptEngineOnGeneratedUris)
{
    const std::vector<std::string> tokens{"usb", "socket", "ipp", "ipps", "dnssd", "lpd", "a", "z", "USB", "://", "://",
                                          ":", "/", "/", "?serial=", "?serial=", "?serial", "serial=", "0", "1", "12",
                                          "255", "7", ".", ".", ":9100", "%20", "%2F", "%0A", "%0d", "%0B", " ", "\t",
                                          "\v", "\f", "\r\n", "x-", "?", "%3A%2F%2F", "%", "3", "45", ".", "/"};
    std::mt19937 random(20240611);
    std::uniform_int_distribution<size_t> pick(0, tokens.size() - 1);
    std::uniform_int_distribution<int> length(0, 14);
    std::map<std::string, int> outcomes;
    for (int i = 0; i < 8000; ++i) {
        // Half start like a device URI, so that matches are frequent.
        std::string uri = i % 2 ? tokens[random() % 6] + "://" : "";
        for (int n = length(random); n > 0; --n)
            uri += tokens[pick(random)];
        const Outcome expected = parseWithStdRegex(uri);
        ASSERT_EQ(parse(uri), expected) << "uri: \"" << uri << "\"";
        ++outcomes[std::get<0>(expected).empty() ? std::to_string(std::get<3>(expected)) : std::get<0>(expected)];
    }
    // The generator must reach every branch, or agreement proves little.
    for (const char* outcome : {"0", "1", "2", "3", "4", "invalid uri scheme", "protocol is not supported",
                                "failed to extract uri."})
        EXPECT_GE(outcomes[outcome], 5) << outcome;
}

TEST(UriTest, SixteenMebibyteUrisParseOrFailWithoutCrashing)
{
    const size_t size = 16u << 20;
    std::string slashes, schemes;
    for (; schemes.size() < size; schemes += "a://1.")
        slashes += "a/a/a/";
    EXPECT_EQ(std::get<3>(parse("usb://" + slashes + "?serial=1")), 3);
    EXPECT_EQ(std::get<2>(parse("socket://" + std::string(size, '1'))).size(), size);
    EXPECT_EQ(std::get<0>(parse("usb://" + std::string(size, 'a'))), "invalid uri scheme");
    EXPECT_EQ(std::get<0>(parse(schemes)), "invalid uri scheme");
    EXPECT_EQ(std::get<0>(parse(std::string(size, '%'))), "invalid uri scheme");
}

} // namespace

TEST(UriTest, UnescapingDecodesEscapesAndReadsAnyTextUpToItsFirstNul)
{
    CurlInterface curl;
    ASSERT_TRUE(curl.init());
    const std::string withNul("usb://A\0B", 9);
    EXPECT_EQ(curl.unescape(withNul.data(), withNul.size()), "usb://A");
    EXPECT_EQ(curl.unescape("a%20b%zz%", 9), "a b%zz%");
    EXPECT_EQ(curl.unescape("a%00b", 5), "a");
    EXPECT_EQ(curl.unescape("plain", 3), "pla");
}
