#include "support/CurlInterface.h"
#include "support/Uri.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <regex>

using Kestrel::Private::CurlInterface;
using Kestrel::Private::Uri;

namespace {

// What a parse gives, comparable across implementations: the failure text,
// or the three fields.
struct Outcome {
    std::string error;
    std::string text;
    std::string modelOrAddress;
    int32_t protocol = -1;

    bool operator==(const Outcome& other) const
    {
        return error == other.error && text == other.text && modelOrAddress == other.modelOrAddress &&
               protocol == other.protocol;
    }
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome)
{
    return out << "{error=\"" << outcome.error << "\" text=\"" << outcome.text << "\" value=\""
               << outcome.modelOrAddress << "\" protocol=" << outcome.protocol << "}";
}

Outcome parse(const std::string& uri)
{
    try {
        Uri parsed(uri, std::make_shared<CurlInterface>());
        return {"", parsed.text(), parsed.modelOrAddress(), parsed.protocol()};
    } catch (const std::exception& error) {
        return {error.what(), "", "", -1};
    }
}

// The same steps with the ECMAScript engine; only safe on short inputs.
Outcome parseWithStdRegex(const std::string& uri)
{
    CurlInterface curl;
    curl.init();
    std::string unescaped = curl.unescape(uri.c_str(), uri.size());
    if (unescaped.empty())
        return {"failed to extract uri.", "", "", -1};
    const std::string text = std::regex_replace(unescaped, std::regex("\\s+"), "");
    std::smatch match;
    if (!std::regex_search(text, match, std::regex("([a-z]+)://(?:(.*)/(.*)\\?serial=[0-9]*|((?:[0-9]+.){4}))")))
        return {"invalid uri scheme", "", "", -1};
    auto protocol = Uri::protocols().find(match[1].str());
    if (protocol == Uri::protocols().end())
        return {"protocol is not supported", "", "", -1};
    if (match[3].matched)
        return {"", text, match[3].str(), protocol->second};
    if (match[4].matched)
        return {"", text, match[4].str(), protocol->second};
    return {"failed to extract model or ip", "", "", -1};
}

Outcome failure(const std::string& message)
{
    return {message, "", "", -1};
}

TEST(UriTest, DeviceUrisSplitIntoProtocolAndModelOrAddress)
{
    EXPECT_EQ(parse("usb://HP/LaserJet%20Pro%20400?serial=A1"),
              (Outcome{"", "usb://HP/LaserJetPro400?serial=A1", "LaserJetPro400", 3}));
    EXPECT_EQ(parse("usb://Maker/Model?serial=1"), (Outcome{"", "usb://Maker/Model?serial=1", "Model", 3}));
    EXPECT_EQ(parse("socket://192.168.0.10:9100"), (Outcome{"", "socket://192.168.0.10:9100", "192.168.0.10:", 4}));
    EXPECT_EQ(parse("ipp://10.0.0.55"), (Outcome{"", "ipp://10.0.0.55", "10.0.0.55", 1}));
    EXPECT_EQ(parse("ipps://10.0.0.5/ipp/print").modelOrAddress, "10.0.0.5/");
    EXPECT_EQ(parse("dnssd://1.2.3.4.5").protocol, 0);
}

TEST(UriTest, MalformedOrForeignUrisFailWithTheirMessages)
{
    EXPECT_EQ(parse(""), failure("failed to extract uri."));
    EXPECT_EQ(parse("USB://HP/Model?serial=1"), failure("invalid uri scheme"));
    EXPECT_EQ(parse("lpd://host/queue?serial=7"), failure("protocol is not supported"));
    EXPECT_EQ(parse("lpd://10.0.0.1/queue"), failure("protocol is not supported"));
    EXPECT_EQ(parse("socket://printer.local"), failure("invalid uri scheme"));
    // A single-digit last run leaves the wildcard nothing to take.
    EXPECT_EQ(parse("socket://1.2.3.4"), failure("invalid uri scheme"));
    EXPECT_EQ(parse("%20%09"), failure("invalid uri scheme"));
}

TEST(UriTest, SupportedPrefixesAreTheFiveSchemeNames)
{
    EXPECT_EQ(Uri::protocols().size(), 5u);
    EXPECT_TRUE(Uri::hasSupportedPrefix("ipps://host"));
    EXPECT_TRUE(Uri::hasSupportedPrefix("usbfoo"));
    EXPECT_TRUE(Uri::hasSupportedPrefix("dnssd://x"));
    EXPECT_FALSE(Uri::hasSupportedPrefix("lpd://host/queue"));
    EXPECT_FALSE(Uri::hasSupportedPrefix("IPP://host"));
    EXPECT_FALSE(Uri::hasSupportedPrefix("soc"));
}

class FailingCurl : public CurlInterface {
public:
    bool init() override { return false; }
};

TEST(UriTest, CurlThatCannotStartStopsTheParse)
{
    try {
        Uri("usb://Maker/Model?serial=1", std::make_shared<FailingCurl>());
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "failed to init curl for uri parsing");
    }
}

TEST(UriTest, AgreesWithTheEcmaScriptEngineOnGeneratedUris)
{
    const std::vector<std::string> tokens{"usb", "socket", "ipp", "ipps", "dnssd", "lpd", "a", "z", "USB", "://",
                                          "://", ":", "/", "/", "?serial=", "?serial=", "?serial", "serial=", "0",
                                          "1", "12", "255", "7", ".", ".", ":9100", "%20", "%2F", "%0A", "%0d",
                                          "%0B", " ", "\t", "\v", "\f", "\r\n", "x-", "?", "%3A%2F%2F", "%",
                                          "3", "45", ".", "/"};
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
        ++outcomes[expected.error.empty() ? std::to_string(expected.protocol) : expected.error];
    }
    // The generator must reach every branch, or agreement proves little.
    for (const char* outcome : {"0", "1", "2", "3", "4", "invalid uri scheme", "protocol is not supported",
                                "failed to extract uri."})
        EXPECT_GE(outcomes[outcome], 5) << outcome;
}

TEST(UriTest, SixteenMebibyteUrisParseOrFailWithoutCrashing)
{
    const size_t size = 16u << 20;
    std::string slashes = "usb://";
    while (slashes.size() < size)
        slashes += "a/";
    EXPECT_EQ(parse(slashes + "?serial=1").protocol, 3);
    EXPECT_EQ(parse("socket://" + std::string(size, '1')).modelOrAddress.size(), size);
    EXPECT_EQ(parse("usb://" + std::string(size, 'a')).error, "invalid uri scheme");
    std::string schemes;
    while (schemes.size() < size)
        schemes += "a://1.";
    EXPECT_EQ(parse(schemes).error, "invalid uri scheme");
    EXPECT_EQ(parse(std::string(size, '%')).error, "invalid uri scheme");
}

} // namespace
