#include <gmock/gmock.h>

#include <filesystem>
#include <functional>
#include <map>
#include <regex>

#include "tests/world/World.h"

using namespace Kestrel::Test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

// The members of one interface as lines such as
// "method getPrinterStatus(in s name, out i status)". sdbus-c++ lists them
// by name, not in registration order, so callers compare them unordered.
std::vector<std::string> describeInterface(const std::string& xml, const std::string& interface)
{
    const auto begin = xml.find("<interface name=\"" + interface + "\"");
    if (begin == std::string::npos)
        return {};
    const std::string section = xml.substr(begin, xml.find("</interface>", begin) - begin);

    const std::regex tag(R"(<(method|signal|arg)\b([^>]*)>)");
    const std::regex attribute(R"re((\w+)="([^"]*)")re");
    std::vector<std::string> members;
    std::string args;
    auto closeMember = [&] {
        if (!members.empty())
            members.back() += "(" + args + ")";
        args.clear();
    };
    for (std::sregex_iterator it(section.begin(), section.end(), tag), end; it != end; ++it) {
        std::map<std::string, std::string> attributes;
        const std::string text = (*it)[2];
        for (std::sregex_iterator a(text.begin(), text.end(), attribute); a != end; ++a)
            attributes[(*a)[1]] = (*a)[2];
        if ((*it)[1] == "arg") {
            const std::string direction = attributes.count("direction") ? attributes["direction"] + " " : "";
            args += (args.empty() ? "" : ", ") + direction + attributes["type"] + " " + attributes["name"];
            continue;
        }
        closeMember();
        members.push_back((*it)[1].str() + " " + attributes["name"]);
    }
    closeMember();
    return members;
}

} // namespace

class BusContract : public testing::Test {
protected:
    void SetUp() override
    {
        KESTREL_REQUIRE_WORLD();
        World::reset();
        ASSERT_TRUE(daemon.start()) << daemon.stderrText();
    }

    DaemonProcess daemon;
};

TEST_F(BusContract, IntrospectionShowsBothInterfacesWithTheirPublishedMembers)
{
    const std::string xml = SystemBus::introspect("ru.zorv.print", "/ru/zorv/print");

    EXPECT_THAT(describeInterface(xml, "ru.zorv.PrinterManager"),
                UnorderedElementsAre("method addPrinter(in s uri, in s name, in as users)",
                                     "method removePrinter(in s name)",
                                     "method renamePrinter(in s oldName, in s newName)",
                                     "method setDefaultPrinter(in s name)",
                                     "method getPrinterStatus(in s name, out i status)",
                                     "method getPrinterStatuses(out a{si} statuses)",
                                     "method getSavedPrinters(out as printers)",
                                     "method scan()",
                                     "method setDefaultSettings(in s printerName, in a(ss) settings)",
                                     "method addUsers(in s printerName, in as users)",
                                     "method removeUsers(in s printerName, in as users)",
                                     "method getPrinterAttributes(in s printerName, out a{sas} pritnerAttributes)",
                                     "signal accessiblePrintersChanged(a{ss} printers)",
                                     "signal savedPrintersChanged(as printers)"));
    EXPECT_THAT(describeInterface(xml, "ru.zorv.PrintingService"),
                ElementsAre("method print(in s path, in s printer, in a{ss} parameters)"));
}

TEST_F(BusContract, UnimplementedMethodsAnswerWithTheirFixedErrorTexts)
{
    PrinterManagerClient client;
    const std::vector<std::tuple<std::string, std::function<void()>, std::string>> calls = {
        {"setDefaultPrinter", [&] { client.setDefaultPrinter(""); }, "method not implemented."},
        {"getPrinterStatus", [&] { client.getPrinterStatus("Office"); }, "method not implemented."},
        {"getPrinterStatuses", [&] { client.getPrinterStatuses(); }, "method not implemented."},
        {"setDefaultSettings", [&] { client.setDefaultSettings("Office", {{"media", "iso_a4_210x297mm"}}); },
         "method not implemented."},
        {"addUsers", [&] { client.addUsers("Office", {"root"}); }, "method not implemented"},
        {"removeUsers", [&] { client.removeUsers("Office", {"root"}); }, "method not implemented"},
    };
    for (const auto& [method, call, message] : calls) {
        SCOPED_TRACE(method);
        try {
            call();
            ADD_FAILURE() << "the call succeeded";
        } catch (const sdbus::Error& e) {
            EXPECT_EQ(e.getName(), "ru.zorv.PrinterManager.Error");
            EXPECT_EQ(e.getMessage(), message);
        }
    }
    EXPECT_TRUE(daemon.running());
}

TEST_F(BusContract, FreshRegistryIsCreatedAndHoldsNoSavedPrinters)
{
    PrinterManagerClient client;

    EXPECT_THAT(client.getSavedPrinters(), IsEmpty());
    EXPECT_TRUE(std::filesystem::is_regular_file("/var/lib/print/printers.db"));
}
