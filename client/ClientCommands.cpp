#include "ClientCommands.h"

#include "BusEventLoop.h"
#include "Output.h"
#include "PrintServiceProxy.h"

#include <filesystem>
#include <optional>
#include <set>

namespace Kestrel::Client {

namespace {

const char* const notRunning = "the print service is not running on the system bus";

// Method calls such as adding a printer may wait on a slow printer; give them
// longer than the bus library's default.
constexpr std::chrono::minutes methodCallTimeout{2};

} // namespace

ClientCommands::ClientCommands(std::ostream& out, std::ostream& err)
    : out_(out)
    , err_(err)
{
}

int ClientCommands::run(const CommandLine::Invocation& invocation)
{
    if (invocation.help) {
        out_ << (invocation.command.empty() ? CommandLine::toolHelp() : CommandLine::commandHelp(invocation.command));
        return 0;
    }

    try {
        auto connection = sdbus::createSystemBusConnection();
        connection->setMethodCallTimeout(methodCallTimeout);
        PrintServiceProxy proxy(*connection);
        Output output(out_, invocation.json);
        return dispatch(invocation, *connection, proxy, output);
    } catch (const sdbus::Error& error) {
        return report(error);
    } catch (const std::exception& error) {
        err_ << "kestrel-print: " << error.what() << '\n';
        return 1;
    }
}

int ClientCommands::dispatch(const CommandLine::Invocation& invocation, sdbus::IConnection& connection,
                             PrintServiceProxy& proxy, Output& output)
{
    const auto& command = invocation.command;
    const auto& arguments = invocation.arguments;
    if (command == "list") {
        output.savedPrinters(proxy.getSavedPrinters());
        return 0;
    }
    if (command == "add") {
        proxy.addPrinter(arguments[0], arguments[1], invocation.users);
        output.printerAdded(arguments[0], arguments[1], invocation.users);
        return 0;
    }
    if (command == "remove") {
        proxy.removePrinter(arguments[0]);
        output.printerRemoved(arguments[0]);
        return 0;
    }
    if (command == "rename") {
        proxy.renamePrinter(arguments[0], arguments[1]);
        output.printerRenamed(arguments[0], arguments[1]);
        return 0;
    }
    if (command == "attributes") {
        output.attributes(arguments[0], proxy.getPrinterAttributes(arguments[0]));
        return 0;
    }
    if (command == "scan")
        return scan(invocation, connection, proxy, output);
    if (command == "print")
        return print(invocation, proxy, output);
    return watch(connection, proxy, output);
}

int ClientCommands::scan(const CommandLine::Invocation& invocation, sdbus::IConnection& connection,
                         PrintServiceProxy& proxy, Output& output)
{
    std::optional<std::map<std::string, std::string>> found;
    proxy.onAccessiblePrinters([&found](const auto& printers) { found = printers; });
    BusEventLoop loop(connection);
    proxy.scan();
    const auto outcome
        = loop.runUntil([&found] { return found.has_value(); }, std::chrono::steady_clock::now() + invocation.timeout);
    if (outcome == BusEventLoop::Outcome::Interrupted)
        return 130;
    if (outcome == BusEventLoop::Outcome::TimedOut) {
        err_ << "gave up waiting for the scan after " << invocation.timeout.count()
             << " s; the print service may still be scanning\n";
        return 1;
    }
    output.accessiblePrinters(*found);
    return 0;
}

int ClientCommands::watch(sdbus::IConnection& connection, PrintServiceProxy& proxy, Output& output)
{
    proxy.onSavedPrinters([&output](const auto& printers) { output.savedPrintersChanged(printers); });
    proxy.onAccessiblePrinters([&output](const auto& printers) { output.accessiblePrintersChanged(printers); });
    BusEventLoop loop(connection);
    // The proxy subscribed on construction; the reply to this ping proves the
    // service is there and that the subscription is in place.
    proxy.ping();
    err_ << "Watching the print service; press Ctrl+C to stop." << std::endl;
    loop.runUntil([] { return false; }, std::nullopt);
    return 0;
}

int ClientCommands::print(const CommandLine::Invocation& invocation, PrintServiceProxy& proxy, Output& output)
{
    // The service resolves nothing against our working directory.
    const auto file = std::filesystem::absolute(invocation.arguments[0]).lexically_normal().string();
    proxy.print(file, invocation.printer, invocation.options);
    output.printed(file, invocation.printer, invocation.options);
    return 0;
}

int ClientCommands::report(const sdbus::Error& error)
{
    // Nobody owns the name, or there is no system bus to own it on.
    static const std::set<std::string> absent = {
        "org.freedesktop.DBus.Error.ServiceUnknown",
        "org.freedesktop.DBus.Error.NameHasNoOwner",
        "org.freedesktop.DBus.Error.FileNotFound",
        "System.Error.ECONNREFUSED",
    };
    const auto& name = error.getName();
    if (absent.count(name)) {
        err_ << notRunning << '\n';
        return 1;
    }
    err_ << (error.getMessage().empty() ? name : error.getMessage()) << '\n';
    return 1;
}

} // namespace Kestrel::Client
