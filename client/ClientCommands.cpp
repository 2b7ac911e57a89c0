#include "ClientCommands.h"

#include "BusEventLoop.h"
#include "ErrorExplainer.h"
#include "Failure.h"
#include "Output.h"
#include "PrintOptions.h"
#include "PrintServiceProxy.h"
#include "PrintJob.h"
#include "PrinterState.h"
#include "Text.h"

#include <filesystem>
#include <optional>

namespace Kestrel::Client {

namespace {

// Method calls such as adding a printer may wait on a slow printer; give them
// longer than the bus library's default.
constexpr std::chrono::minutes methodCallTimeout {2};

// A lost signal (the service restarted) must not leave --wait waiting for
// ever: the job is asked after this long without news.
constexpr std::chrono::seconds jobRecheck {5};

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
        proxy.change(terminal_, "addPrinter", arguments[0], arguments[1], invocation.users);
        return output.printerAdded(arguments[0], arguments[1], invocation.users);
    }
    if (command == "remove") {
        proxy.change(terminal_, "removePrinter", arguments[0]);
        return output.printerRemoved(arguments[0]);
    }
    if (command == "rename") {
        proxy.change(terminal_, "renamePrinter", arguments[0], arguments[1]);
        return output.printerRenamed(arguments[0], arguments[1]);
    }
    if (command == "attributes")
        return output.attributes(arguments[0], proxy.getPrinterAttributes(arguments[0]));
    if (command == "scan")
        return scan(invocation, connection, proxy, output);
    if (command == "print")
        return print(invocation, connection, proxy, output);
    if (command == "jobs")
        return jobs(invocation, proxy, output);
    if (command == "cancel") {
        const auto id = static_cast<uint32_t>(std::stoul(arguments[0]));
        proxy.cancelJob(id);
        return output.jobCanceled(id);
    }
    if (command == "status")
        return output.printerState(arguments[0], PrinterState::from(proxy.getPrinterState(arguments[0])));
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
    // The service tells a job's changes only to the connection that sent it;
    // a job starting or ending moves its printer, so each printer change is
    // the cue to read the caller's own jobs again.
    std::map<uint32_t, std::string> seen;
    const auto readJobs = [&proxy, &output, &seen](bool tell) {
        for (const auto& entry : proxy.getJobs()) {
            const auto job = PrintJob::from(entry);
            auto& before = seen[job.id];
            const auto now = job.describe();
            if (tell && before != now)
                output.jobChanged(job);
            before = now;
        }
    };
    proxy.onPrinterState([&output, &readJobs](const auto& printer, const auto& state) {
        output.printerStateChanged(printer, PrinterState::from(state));
        readJobs(true);
    });
    readJobs(false);
    BusEventLoop loop(connection);
    // The proxy subscribed on construction; the reply to this ping proves the
    // service is there and that the subscription is in place.
    proxy.ping();
    err_ << "Watching the print service; press Ctrl+C to stop." << std::endl;
    loop.runUntil([] { return false; }, std::nullopt);
}

void ClientCommands::print(
    const CommandLine::Invocation& invocation, sdbus::IConnection& connection, PrintServiceProxy& proxy, Output& output)
{
    // The service resolves nothing against our working directory.
    const auto file = std::filesystem::absolute(invocation.arguments[0]).lexically_normal().string();
    const PrintOptions options(invocation.options);
    auto toSend = invocation.options;
    if (!invocation.force && options.needsCapabilities())
        toSend = options.checkedAgainst(proxy.getPrinterAttributes(invocation.printer), invocation.printer);
    if (!invocation.wait) {
        proxy.print(file, invocation.printer, toSend);
        return output.printed(file, invocation.printer, toSend, invocation.force);
    }
    const auto job = follow(proxy.submit(file, invocation.printer, toSend), connection, proxy, output);
    output.printedJob(file, invocation.printer, toSend, invocation.force, job);
    if (job.state != "completed")
        throw Failure("job_not_completed",
            "job " + std::to_string(job.id) + " on printer " + Client::quoted(invocation.printer) + " ended "
                + job.describe(),
            ExitStatus::Refused);
}

void ClientCommands::jobs(const CommandLine::Invocation& invocation, PrintServiceProxy& proxy, Output& output)
{
    std::vector<PrintJob> shown;
    for (const auto& job : proxy.getJobs()) {
        auto parsed = PrintJob::from(job);
        if (invocation.all || !parsed.ended())
            shown.push_back(std::move(parsed));
    }
    output.jobs(shown);
}

// The job's changes come as signals to this connection only.
PrintJob ClientCommands::follow(uint32_t id, sdbus::IConnection& connection, PrintServiceProxy& proxy, Output& output)
{
    auto job = PrintJob::from(proxy.getJob(id));
    proxy.onJob([&job, id](const auto& changed) {
        auto parsed = PrintJob::from(changed);
        if (parsed.id == id)
            job = std::move(parsed);
    });
    BusEventLoop loop(connection);
    while (!job.ended()) {
        output.progress("Job " + std::to_string(id) + " on " + Client::quoted(job.printer) + ": " + job.describe());
        const auto outcome = loop.runUntil(
            [&job, shown = job.state + std::to_string(job.pages)] {
                return job.ended() || job.state + std::to_string(job.pages) != shown;
            },
            std::chrono::steady_clock::now() + jobRecheck);
        if (outcome == BusEventLoop::Outcome::Interrupted)
            throw Interrupted();
        if (outcome == BusEventLoop::Outcome::TimedOut)
            job = PrintJob::from(proxy.getJob(id));
    }
    return job;
}

} // namespace Kestrel::Client
