#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <ru/zorv/PrinterManager_proxy.h>
#include <ru/zorv/PrintingService_proxy.h>
#include <sdbus-c++/sdbus-c++.h>

#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <sstream>

#include "tests/client/ClientProcess.h"
#include "tests/world/RunningServiceTest.h"

using namespace Kestrel::Test;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

namespace {

const char* const notRunning = "the print service is not running on the system bus\n";

// The service's own answers, to compare the client's error output with.
class DirectClient final
    : public sdbus::ProxyInterfaces<ru::zorv::PrinterManager_proxy, ru::zorv::PrintingService_proxy> {
public:
    DirectClient()
        : ProxyInterfaces(sdbus::createSystemBusConnection(), "ru.zorv.print", "/ru/zorv/print")
    {
        registerProxy();
    }
    ~DirectClient() { unregisterProxy(); }

    std::string errorOf(const std::function<void(DirectClient&)>& call)
    {
        try {
            call(*this);
        } catch (const sdbus::Error& error) {
            return error.getMessage();
        }
        return "(no error)";
    }

private:
    void onAccessiblePrintersChanged(const std::map<std::string, std::string>&) override {}
    void onSavedPrintersChanged(const std::vector<std::string>&) override {}
};

// What reaches the printer is the printing tests' concern; the client only
// has to hand the service the right path.
void writeDocument(const std::string& path)
{
    World::writeFile(path, "%PDF-1.4\n%%EOF\n");
}

bool commandRunning(const std::string& needle)
{
    for (const auto& entry : fs::directory_iterator("/proc")) {
        std::string commandLine = World::readFile(entry.path().string() + "/cmdline");
        std::replace(commandLine.begin(), commandLine.end(), '\0', ' ');
        if (commandLine.find(needle) != std::string::npos)
            return true;
    }
    return false;
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        result.push_back(line);
    return result;
}

json parsed(const ClientProcess::Result& result)
{
    EXPECT_EQ(result.exitCode, 0) << result.err;
    try {
        return json::parse(result.out);
    } catch (const json::exception& error) {
        ADD_FAILURE() << "not JSON: " << error.what() << "\n" << result.out;
        return {};
    }
}

class ClientTest : public RunningServiceTest {
protected:
    static ClientProcess::Result client(const std::vector<std::string>& arguments, const std::string& directory = "")
    {
        return ClientProcess::run(arguments, directory);
    }

    static void addPrinter(const std::string& name)
    {
        const auto result = client({"add", World::printerUri(), name});
        ASSERT_EQ(result.exitCode, 0) << result.err;
    }

};

TEST_F(ClientTest, ListPrintsSavedPrintersOnePerLineOrAsJsonArray)
{
    EXPECT_EQ(client({"list"}).out, "No printers are saved.\n");
    EXPECT_EQ(parsed(client({"list", "--json"})), json::array());

    addPrinter("Office");
    addPrinter("Lab printer");

    const auto text = client({"list"});
    EXPECT_EQ(text.exitCode, 0);
    EXPECT_THAT(lines(text.out), UnorderedElementsAre("Office", "Lab printer"));
    EXPECT_THAT(parsed(client({"--json", "list"})).get<std::vector<std::string>>(),
                UnorderedElementsAre("Office", "Lab printer"));
}

TEST_F(ClientTest, AddRenameAndRemoveSayWhatTheyDidInTextAndJson)
{
    const auto uri = World::printerUri();
    const auto added = client({"add", uri, "Office", "--user", "root"});
    EXPECT_EQ(added.exitCode, 0) << added.err;
    EXPECT_EQ(added.out, "Added printer \"Office\" for " + uri + " (users: root).\n");
    EXPECT_EQ(parsed(client({"add", "--json", uri, "Lab"})),
              json({{"added", {{"name", "Lab"}, {"uri", uri}, {"users", json::array()}}}}));

    EXPECT_EQ(client({"rename", "Office", "Front"}).out, "Renamed printer \"Office\" to \"Front\".\n");
    EXPECT_EQ(parsed(client({"rename", "Lab", "Back", "--json"})), json({{"renamed", {{"from", "Lab"}, {"to", "Back"}}}}));
    EXPECT_THAT(parsed(client({"list", "--json"})).get<std::vector<std::string>>(),
                UnorderedElementsAre("Front", "Back"));

    EXPECT_EQ(client({"remove", "Front"}).out, "Removed printer \"Front\".\n");
    EXPECT_EQ(parsed(client({"--json", "remove", "Back"})), json({{"removed", {{"name", "Back"}}}}));
    EXPECT_EQ(parsed(client({"list", "--json"})), json::array());
}

TEST_F(ClientTest, ServiceErrorsPrintTheServiceMessageOnStderrAndFail)
{
    addPrinter("Office");
    const auto document = World::scratchPath("kept.pdf");
    writeDocument(document);

    struct Case {
        std::vector<std::string> arguments;
        std::function<void(DirectClient&)> call;
    };
    const std::vector<Case> cases = {
        {{"remove", "Nope"}, [](DirectClient& c) { c.removePrinter("Nope"); }},
        {{"rename", "Nope", "Other"}, [](DirectClient& c) { c.renamePrinter("Nope", "Other"); }},
        {{"add", World::printerUri(), "Other", "--user", "no-such-user"},
         [](DirectClient& c) { c.addPrinter(World::printerUri(), "Other", {"no-such-user"}); }},
        {{"attributes", "Nope"}, [](DirectClient& c) { c.getPrinterAttributes("Nope"); }},
        {{"print", document, "--printer", "Nope"}, [&](DirectClient& c) { c.print(document, "Nope", {}); }},
        {{"print", document, "--printer", "Office", "-o", "frob=1"},
         [&](DirectClient& c) { c.print(document, "Office", {{"frob", "1"}}); }},
    };
    DirectClient service;
    for (const auto& [arguments, call] : cases) {
        const auto expected = service.errorOf(call) + "\n";
        for (const bool asJson : {false, true}) {
            auto withMode = arguments;
            if (asJson)
                withMode.push_back("--json");
            const auto result = client(withMode);
            SCOPED_TRACE(testing::PrintToString(withMode));
            EXPECT_EQ(result.exitCode, 1);
            EXPECT_EQ(result.out, "");
            EXPECT_EQ(result.err, expected);
        }
    }
    EXPECT_TRUE(fs::exists(document)) << "a failed print must not cost the document";
}

TEST_F(ClientTest, AttributesPrintOneBlockPerCapabilityWithItsValues)
{
    addPrinter("Office");

    const json attributes = parsed(client({"attributes", "Office", "--json"}));
    ASSERT_TRUE(attributes.is_object());
    EXPECT_THAT(attributes["sides-supported"].get<std::vector<std::string>>(), testing::Contains("one-sided"));

    std::string blocks;
    for (const auto& [name, values] : attributes.items()) {
        blocks += (blocks.empty() ? "" : "\n") + name + "\n";
        for (const auto& value : values)
            blocks += "  " + value.get<std::string>() + "\n";
    }
    EXPECT_EQ(client({"attributes", "Office"}).out, blocks);
}

TEST_F(ClientTest, ScanPrintsATableOfDeviceUrisWithMakeAndModel)
{
    const json found = parsed(client({"scan", "--timeout", "30", "--json"}));
    ASSERT_TRUE(found.is_object());
    EXPECT_EQ(found.value("usb://Maker/Model?serial=1", ""), "Maker Model");

    const auto table = client({"scan", "--timeout=30"});
    ASSERT_EQ(table.exitCode, 0) << table.err;
    const auto rows = lines(table.out);
    ASSERT_EQ(rows.size(), found.size() + 1) << table.out;
    EXPECT_THAT(rows[0], AllOf(StartsWith("URI "), HasSubstr("MAKE AND MODEL")));
    std::size_t row = 1;
    for (const auto& [uri, makeAndModel] : found.items()) {
        EXPECT_THAT(rows[row], StartsWith(uri + "  "));
        EXPECT_THAT(rows[row], testing::EndsWith("  " + makeAndModel.get<std::string>()));
        ++row;
    }
}

TEST_F(ClientTest, ScanSaysPlainlyWhenNothingWasFound)
{
    // Without the scheduler the discovery finds nothing, and the service says so with an empty answer.
    World::stopScheduler();

    const auto text = client({"scan", "--timeout", "30"});
    EXPECT_EQ(text.exitCode, 0) << text.err;
    EXPECT_EQ(text.out, "No printers found.\n");
    EXPECT_EQ(parsed(client({"scan", "--json", "--timeout", "30"})), json::object());
}

TEST_F(ClientTest, ScanGivesUpAfterItsTimeoutAndSaysSo)
{
    // A backend that answers late keeps the discovery busy past the client's patience.
    const std::string slowBackend = "/usr/lib/cups/backend/kestrel-slow";
    World::writeFile(slowBackend, "#!/bin/sh\n[ $# -eq 0 ] || exit 1\nsleep 3\n");
    fs::permissions(slowBackend, fs::perms::owner_all);

    const auto started = std::chrono::steady_clock::now();
    const auto result = client({"scan", "--timeout", "1"});
    const auto waited = std::chrono::steady_clock::now() - started;
    World::removeFile(slowBackend);
    // Later scans must not meet the discovery this one left behind.
    EXPECT_TRUE(waitFor([&] { return !commandRunning(slowBackend); }));

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "gave up waiting for the scan after 1 s; the print service may still be scanning\n");
    EXPECT_LT(waited, std::chrono::seconds(3));
}

TEST_F(ClientTest, PrintSendsTheDocumentByItsAbsolutePath)
{
    addPrinter("Office");
    const auto directory = World::scratchPath("documents");
    fs::create_directories(directory + "/sub");
    writeDocument(directory + "/report.pdf");
    writeDocument(directory + "/letter.pdf");

    const auto text = client({"print", "sub/../report.pdf", "--printer", "Office"}, directory);
    EXPECT_EQ(text.exitCode, 0) << text.err;
    EXPECT_EQ(text.out, "Sent " + directory + "/report.pdf to printer \"Office\".\n");
    EXPECT_FALSE(fs::exists(directory + "/report.pdf")) << "the service removes what it printed";

    EXPECT_EQ(parsed(client({"--json", "print", "letter.pdf", "--printer=Office", "-o", "sides=one-sided"}, directory)),
              json({{"printed",
                     {{"file", directory + "/letter.pdf"},
                      {"printer", "Office"},
                      {"options", {{"sides", "one-sided"}}}}}}));
}

TEST_F(ClientTest, WatchPrintsBothSignalsAsTextOrJsonLinesUntilInterrupted)
{
    ClientProcess text({"watch"});
    ClientProcess jsonLines({"watch", "--json"});
    for (auto* watch : {&text, &jsonLines})
        ASSERT_TRUE(waitFor([&] { return watch->stderrText().find("Watching") != std::string::npos; }))
            << watch->stderrText();

    addPrinter("Office");
    ASSERT_EQ(client({"remove", "Office"}).exitCode, 0);
    ASSERT_EQ(client({"scan"}).exitCode, 0);
    ASSERT_TRUE(waitFor([&] { return lines(jsonLines.stdoutText()).size() >= 3; })) << jsonLines.stdoutText();
    ASSERT_TRUE(waitFor([&] { return text.stdoutText().find("Accessible") != std::string::npos; }));

    text.signal(SIGINT);
    jsonLines.signal(SIGTERM);
    EXPECT_EQ(text.waitForExit(), 0) << text.stderrText();
    EXPECT_EQ(jsonLines.waitForExit(), 0) << jsonLines.stderrText();

    EXPECT_THAT(text.stdoutText(), AllOf(StartsWith("Saved printers changed: Office\nSaved printers changed: (none)\n"),
                                         HasSubstr("\n  usb://Maker/Model?serial=1  ")));
    const auto events = lines(jsonLines.stdoutText());
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(json::parse(events[0]), json({{"signal", "savedPrintersChanged"}, {"printers", json::array({"Office"})}}));
    EXPECT_EQ(json::parse(events[1]), json({{"signal", "savedPrintersChanged"}, {"printers", json::array()}}));
    const auto scanned = json::parse(events[2]);
    EXPECT_EQ(scanned["signal"], "accessiblePrintersChanged");
    EXPECT_EQ(scanned["printers"].value("usb://Maker/Model?serial=1", ""), "Maker Model") << events[2];
}

TEST_F(ClientTest, EveryCommandSaysTheServiceIsNotRunningWhenItIsStopped)
{
    daemon.stop();

    const std::vector<std::vector<std::string>> commands = {
        {"list"},
        {"add", World::printerUri(), "Office"},
        {"remove", "Office"},
        {"rename", "Office", "Front"},
        {"attributes", "Office"},
        {"scan", "--timeout", "5"},
        {"print", "/nonexistent.pdf", "--printer", "Office"},
        {"watch"},
    };
    for (const auto& command : commands) {
        for (const bool asJson : {false, true}) {
            auto arguments = command;
            if (asJson)
                arguments.insert(arguments.begin(), "--json");
            SCOPED_TRACE(testing::PrintToString(arguments));
            const auto result = client(arguments);
            EXPECT_EQ(result.exitCode, 1);
            EXPECT_EQ(result.out, "");
            EXPECT_EQ(result.err, notRunning);
        }
    }
}

TEST(ClientUsage, WrongUsageGoesToStderrWithStatusTwoAndHelpToStdoutWithZero)
{
    KESTREL_REQUIRE_WORLD();
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"frob"},
        {"--frob", "list"},
        {"list", "--user", "root"},
        {"add", "ipp://host/ipp/print"},
        {"print", "file.pdf"},
        {"print", "file.pdf", "--printer", "Office", "-o", "novalue"},
        {"print", "file.pdf", "--printer", "Office", "-o", "sides=a", "-o", "sides=b"},
        {"scan", "--timeout", "soon"},
    };
    for (const auto& arguments : wrong) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        const auto result = ClientProcess::run(arguments);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, AllOf(StartsWith("kestrel-print: "), HasSubstr("\nUsage: kestrel-print ")));
    }

    const auto tool = ClientProcess::run({"--help"});
    EXPECT_EQ(tool.exitCode, 0);
    for (const std::string command : {"list", "add", "remove", "rename", "attributes", "scan", "print", "watch"}) {
        EXPECT_THAT(tool.out, HasSubstr("\n  " + command));
        const auto help = ClientProcess::run({command, "--help"});
        EXPECT_EQ(help.exitCode, 0) << command;
        EXPECT_THAT(help.out, StartsWith("Usage: kestrel-print " + command)) << command;
    }
    EXPECT_THAT(ClientProcess::run({"print", "-h"}).out, HasSubstr("DELETES FILE"));
}

} // namespace
