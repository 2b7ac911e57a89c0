#include <gmock/gmock.h>

#include <grp.h>
#include <pwd.h>

#include <functional>
#include <map>

#include "tests/world/World.h"

using namespace Kestrel::Test;
using testing::AnyOf;
using testing::Eq;
using testing::IsEmpty;

namespace {

using Call = std::function<void(sdbus::IProxy&)>;

const char* const accessDenied = "org.freedesktop.DBus.Error.AccessDenied";

const Call listSavedPrinters = [](sdbus::IProxy& proxy) {
    proxy.callMethod("getSavedPrinters").onInterface("ru.zorv.PrinterManager");
};
const Call removeUnknownPrinter = [](sdbus::IProxy& proxy) {
    proxy.callMethod("removePrinter").onInterface("ru.zorv.PrinterManager").withArguments(std::string("No Such Printer"));
};
const Call printMissingDocument = [](sdbus::IProxy& proxy) {
    proxy.callMethod("print")
        .onInterface("ru.zorv.PrintingService")
        .withArguments(std::string("/nonexistent/document.pdf"), std::string("No Such Printer"),
                       std::map<std::string, std::string>{});
};
const Call introspect = [](sdbus::IProxy& proxy) {
    proxy.callMethod("Introspect").onInterface("org.freedesktop.DBus.Introspectable");
};

// The error name of a call on a fresh connection, empty when it succeeded.
std::string errorOf(const Call& call, const std::string& destination = "ru.zorv.print",
                    const std::string& path = "/ru/zorv/print")
{
    auto connection = sdbus::createSystemBusConnection();
    auto proxy = sdbus::createProxy(*connection, destination, path);
    try {
        call(*proxy);
    } catch (const sdbus::Error& e) {
        return e.getName();
    }
    return {};
}

} // namespace

class BusPolicy : public testing::Test {
protected:
    void SetUp() override
    {
        KESTREL_REQUIRE_WORLD();
        World::reset();
        ASSERT_TRUE(daemon.start()) << daemon.stderrText();
        const passwd* account = ::getpwnam("nobody");
        const group* admins = ::getgrnam("lpadmin");
        ASSERT_TRUE(account && admins) << "the world needs the nobody account and the lpadmin group";
        nobody = account->pw_uid;
        nogroup = account->pw_gid;
        lpadmin = admins->gr_gid;
    }

    std::string errorAsNobody(const Call& call, const std::vector<gid_t>& groups = {})
    {
        return ChildProcess::runAs(nobody, nogroup, groups, [&] { return errorOf(call); });
    }

    DaemonProcess daemon;
    uid_t nobody = 0;
    gid_t nogroup = 0;
    gid_t lpadmin = 0;
};

TEST_F(BusPolicy, OrdinaryUserIsRefusedPrinterChangesButMayListPrintAndIntrospect)
{
    EXPECT_EQ(errorAsNobody(removeUnknownPrinter), accessDenied);
    EXPECT_EQ(errorAsNobody(listSavedPrinters), "");
    EXPECT_THAT(errorAsNobody(printMissingDocument), AnyOf(IsEmpty(), Eq("ru.zorv.PrintingService.Error")));
    EXPECT_EQ(errorAsNobody(introspect), "");
}

TEST_F(BusPolicy, RootAndLpadminMembersReachPrinterManagement)
{
    EXPECT_EQ(errorOf(removeUnknownPrinter), "ru.zorv.PrinterManager.Error");
    EXPECT_EQ(errorAsNobody(removeUnknownPrinter, {lpadmin}), "ru.zorv.PrinterManager.Error");
}

TEST_F(BusPolicy, OnlyRootMayOwnTheServiceName)
{
    const Call requestServiceName = [](sdbus::IProxy& bus) {
        bus.callMethod("RequestName").onInterface("org.freedesktop.DBus").withArguments(std::string("ru.zorv.print"), 0u);
    };

    EXPECT_EQ(ChildProcess::runAs(nobody, nogroup, {lpadmin}, [&] {
                  return errorOf(requestServiceName, "org.freedesktop.DBus", "/org/freedesktop/DBus");
              }),
              accessDenied);
    EXPECT_EQ(SystemBus::ownerPid("ru.zorv.print"), daemon.pid());
}
