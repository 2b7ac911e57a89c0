#include "ClientCommands.h"

#include "BusEventLoop.h"
#include "ErrorExplainer.h"
#include "Failure.h"
#include "Output.h"
#include "PrintOptions.h"
#include "PrintServiceProxy.h"

#include <filesystem>
#include <optional>

namespace Kestrel::Client {

namespace {

// Method calls such as adding a printer may wait on a slow printer; give them
// longer than the bus library's default.
constexpr std::chrono::minutes methodCallTimeout {2};

// Ends a command that was interrupted: the shell's status for SIGINT.
struct Interrupted
{
};

} // namespace

ClientCommands::ClientCommands(std::ostream& out, std::ostream& err, bool terminal)
    : out_(out)
    , err_(err)
    , terminal_(terminal)
{
}

int ClientCommands::run(const CommandLine::Invocation& invocation)
{
    if (!invocation.text.empty()) {
        out_ << invocation.text;
        return 0;
    }
    Output output(out_, err_, invocation.json, terminal_);
    try {
        auto connection = connect();
        std::unique_ptr<PrintServiceProxy> proxy;
        const ErrorExplainer explainer(invocation, [&proxy] {
            if (!proxy)
                throw sdbus::Error("org.freedesktop.DBus.Error.Disconnected", "no proxy");
            return proxy->getSavedPrinters();
        });
        try {
            proxy = std::make_unique<PrintServiceProxy>(*connection);
            dispatch(invocation, *connection, *proxy, output);
        } catch (const sdbus::Error& error) {
            throw explainer.explain(error);
        }
    } catch (const Failure& failure) {
        output.failure(failure);
        return static_cast<int>(failure.status());
    } catch (const Interrupted&) {
        output.endProgress();
        return 130;
    }
    return 0;
}

std::unique_ptr<sdbus::IConnection> ClientCommands::connect()
{
    try {
        auto connection = sdbus::createSystemBusConnection();
        connection->setMethodCallTimeout(methodCallTimeout);
        return connection;
    } catch (const sdbus::Error& error) {
        throw ErrorExplainer::noSystemBus(error);
    }
}

void ClientCommands::dispatch(
    const CommandLine::Invocation& invocation, sdbus::IConnection& connection, PrintServiceProxy& proxy, Output& output)
{
    const auto& command = invocation.command;
    const auto& arguments = invocation.arguments;
    if (command == "list")
        return output.savedPrinters(proxy.getSavedPrinters());
    if (command == "add") {
        proxy.addPrinter(arguments[0], arguments[1], invocation.users);
        return output.printerAdded(arguments[0], arguments[1], invocation.users);
    }
    if (command == "remove") {
        proxy.removePrinter(arguments[0]);
        return output.printerRemoved(arguments[0]);
    }
    if (command == "rename") {
        proxy.renamePrinter(arguments[0], arguments[1]);
        return output.printerRenamed(arguments[0], arguments[1]);
    }
    if (command == "attributes")
        return output.attributes(arguments[0], proxy.getPrinterAttributes(arguments[0]));
    if (command == "scan")
        return scan(invocation, connection, proxy, output);
    if (command == "print")
        return print(invocation, proxy, output);
    watch(connection, proxy, output);
}

void ClientCommands::scan(
    const CommandLine::Invocation& invocation, sdbus::IConnection& connection, PrintServiceProxy& proxy, Output& output)
{
    std::optional<std::map<std::string, std::string>> found;
    proxy.onAccessiblePrinters([&found](const auto& printers) { found = printers; });
    BusEventLoop loop(connection);
    proxy.scan();
    const auto started = std::chrono::steady_clock::now();
    const auto deadline = started + invocation.timeout;
    for (auto elapsed = std::chrono::seconds(0);; ++elapsed) {
        output.progress("Scanning for printers: " + std::to_string(elapsed.count()) + " s (at most "
            + std::to_string(invocation.timeout.count()) + " s)");
        const auto outcome = loop.runUntil(
            [&found] { return found.has_value(); }, std::min(deadline, started + elapsed + std::chrono::seconds(1)));
        if (outcome == BusEventLoop::Outcome::Interrupted)
            throw Interrupted();
        if (outcome == BusEventLoop::Outcome::Done)
            break;
        if (std::chrono::steady_clock::now() >= deadline)
            throw Failure("scan_timeout",
                "gave up waiting for the scan after " + std::to_string(invocation.timeout.count())
                    + " s; the print service may still be scanning",
                ExitStatus::Refused);
    }
    output.endProgress();
    output.devices(*found);
}

void ClientCommands::watch(sdbus::IConnection& connection, PrintServiceProxy& proxy, Output& output)
{
    proxy.onSavedPrinters([&output](const auto& printers) { output.savedPrintersChanged(printers); });
    proxy.onAccessiblePrinters([&output](const auto& printers) { output.accessiblePrintersChanged(printers); });
    BusEventLoop loop(connection);
    // The proxy subscribed on construction; the reply to this ping proves the
    // service is there and that the subscription is in place.
    proxy.ping();
    err_ << "Watching the print service; press Ctrl+C to stop." << std::endl;
    loop.runUntil([] { return false; }, std::nullopt);
}

void ClientCommands::print(const CommandLine::Invocation& invocation, PrintServiceProxy& proxy, Output& output)
{
    // The service resolves nothing against our working directory.
    const auto file = std::filesystem::absolute(invocation.arguments[0]).lexically_normal().string();
    const PrintOptions options(invocation.options);
    auto toSend = invocation.options;
    if (!invocation.force && options.needsCapabilities())
        toSend = options.checkedAgainst(proxy.getPrinterAttributes(invocation.printer), invocation.printer);
    proxy.print(file, invocation.printer, toSend);
    output.printed(file, invocation.printer, toSend, invocation.force);
}

} // namespace Kestrel::Client
