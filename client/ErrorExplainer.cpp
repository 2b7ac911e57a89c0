#include "ErrorExplainer.h"
#include "Text.h"

#include <sdbus-c++/Error.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

namespace Kestrel::Client {

namespace {

bool startsWith(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool endsWith(const std::string& text, const std::string& suffix)
{
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The reasons libcups gives when the scheduler does not answer at all.
bool schedulerAbsent(const std::string& reason)
{
    static const std::set<std::string> reasons = {
        "Service Unavailable",
        std::strerror(ECONNREFUSED),
        std::strerror(ENOENT),
        std::strerror(ECONNRESET),
        std::strerror(EPIPE),
        std::strerror(ETIMEDOUT),
        std::strerror(EHOSTUNREACH),
    };
    return reasons.count(reason) > 0;
}

} // namespace

ErrorExplainer::ErrorExplainer(const CommandLine::Invocation& invocation, SavedPrinters savedPrinters)
    : invocation_(invocation)
    , savedPrinters_(std::move(savedPrinters))
{
}

Failure ErrorExplainer::noSystemBus(const sdbus::Error& error)
{
    return {"no_system_bus", "cannot connect to the system bus; is dbus running?", ExitStatus::Unreachable,
        error.getMessage(), error.getName()};
}

Failure ErrorExplainer::explain(const sdbus::Error& error) const
{
    const auto& name = error.getName();
    const auto& text = error.getMessage();
    if (startsWith(name, "ru.zorv."))
        return fromService(text, name);
    // Printing is open to everyone: a refusal there is the capability lookup's.
    if (name == "org.freedesktop.DBus.Error.AccessDenied" && invocation_.command == "print")
        return {"not_admin",
            "permission denied: only root and members of the group \"lpadmin\" may read the capabilities of "
                + quoted(invocation_.printer) + "; --force prints without checking the options",
            ExitStatus::PermissionDenied, text, name};
    if (name == "org.freedesktop.DBus.Error.AccessDenied")
        return {"not_admin", "permission denied: only root and members of the group \"lpadmin\" may " + action(),
            ExitStatus::PermissionDenied, text, name};
    if (name == "org.freedesktop.DBus.Error.ServiceUnknown" || name == "org.freedesktop.DBus.Error.NameHasNoOwner")
        return {"service_not_running",
            "the print service (ru.zorv.print) is not running and the bus cannot start it; "
            "start it with 'systemctl start kestrel-printd'",
            ExitStatus::Unreachable, text, name};
    if (startsWith(name, "org.freedesktop.DBus.Error.Spawn."))
        return {"activation_failed",
            "the system bus tried to start the print service and failed; "
            "see 'journalctl -u kestrel-printd'",
            ExitStatus::Unreachable, text, name};
    if (name == "org.freedesktop.DBus.Error.NoReply" || name == "org.freedesktop.DBus.Error.Timeout")
        return {"no_reply", "the print service did not answer in time", ExitStatus::Unreachable, text, name};
    return {"bus_error", "the bus refused the request to " + action(), ExitStatus::Refused, text, name};
}

Failure ErrorExplainer::fromService(const std::string& text, const std::string& name) const
{
    const auto refused = [&](const std::string& kind, const std::string& message, ExitStatus status) {
        return Failure(kind, message, status, text, name);
    };
    const auto& command = invocation_.command;
    const auto& arguments = invocation_.arguments;

    const std::string unauthorized = "permission denied: managing printers needs the ";
    if (startsWith(text, unauthorized)) {
        const auto authorization = text.substr(unauthorized.size(), text.find(' ', unauthorized.size()) - unauthorized.size());
        return refused("not_admin",
            "permission denied: to " + action() + " you need the polkit authorization " + authorization
                + "; an administrator grants it with a polkit rule (see kestrel-print(1))",
            ExitStatus::PermissionDenied);
    }
    const std::string taken = "UNIQUE constraint failed: printers.user_name";
    if (text.find(taken) != std::string::npos && (command == "add" || command == "rename"))
        return refused("name_taken",
            "a printer named " + quoted(arguments[1]) + " is already saved; choose another name", ExitStatus::Refused);
    const std::string userPrefix = "user ", userSuffix = " doesn't exists";
    if (startsWith(text, userPrefix) && endsWith(text, userSuffix)) {
        const auto user = text.substr(userPrefix.size(), text.size() - userPrefix.size() - userSuffix.size());
        return refused(
            "unknown_user", "there is no user account named " + quoted(user) + " on this system", ExitStatus::Refused);
    }
    const std::string requestFailed = "failed to execute request: ";
    if (text == "failed to establish connection with CUPS server."
        || (startsWith(text, requestFailed) && schedulerAbsent(text.substr(requestFailed.size()))))
        return refused("scheduler_unreachable",
            "the print service cannot reach the print scheduler (CUPS); is cupsd running?", ExitStatus::Refused);

    if (startsWith(text, "there is no job "))
        return refused("unknown_job",
            "there is no job " + text.substr(16) + " that you may see; 'kestrel-print jobs --all' lists yours",
            ExitStatus::Refused);
    if (startsWith(text, "job ") && text.find(" has already ended") != std::string::npos)
        return refused("job_ended", "job " + arguments[0] + " has already ended; there is nothing to cancel",
            ExitStatus::Refused);
    if (startsWith(text, "too many active print jobs"))
        return refused("job_limit",
            "you have as many print jobs waiting or printing as one user may; wait for some to end, or cancel "
            "some ('kestrel-print jobs')",
            ExitStatus::Refused);

    const auto saved = printer();
    if (!saved.empty() && (text == "cups_name is empty" || !printerSaved(saved)))
        return refused("unknown_printer",
            "no saved printer is named " + quoted(saved) + "; 'kestrel-print list' shows the saved ones",
            ExitStatus::Refused);
    if (!saved.empty() && startsWith(text, "printer ") && endsWith(text, " doesn't exist."))
        return refused("queue_missing",
            "the print scheduler has no queue for the saved printer " + quoted(saved)
                + ": CUPS is not running, or the queue was deleted outside the print service",
            ExitStatus::Refused);
    if (command == "print")
        return refused("document_refused", "the print service refused to print " + arguments[0],
            startsWith(text, "permission denied") ? ExitStatus::PermissionDenied : ExitStatus::Refused);
    if (startsWith(text, requestFailed))
        return refused(
            "scheduler_refused", "the print scheduler (CUPS) refused the request to " + action(), ExitStatus::Refused);
    return refused("refused", "the print service could not " + action(), ExitStatus::Refused);
}

std::string ErrorExplainer::action() const
{
    const auto& command = invocation_.command;
    if (command == "list")
        return "list the saved printers";
    if (command == "attributes")
        return "read the capabilities of " + quoted(invocation_.arguments[0]);
    if (command == "scan")
        return "scan for printers";
    if (command == "print")
        return "print";
    if (command == "watch")
        return "watch the print service";
    if (command == "jobs")
        return "list the print jobs";
    if (command == "cancel")
        return "cancel job " + invocation_.arguments[0];
    if (command == "status")
        return "read the state of " + quoted(invocation_.arguments[0]);
    return command + " printers";
}

std::string ErrorExplainer::printer() const
{
    const auto& command = invocation_.command;
    if (command == "print")
        return invocation_.printer;
    if (command == "remove" || command == "rename" || command == "attributes" || command == "status")
        return invocation_.arguments[0];
    return {};
}

bool ErrorExplainer::printerSaved(const std::string& printer) const
{
    try {
        const auto printers = savedPrinters_();
        return std::find(printers.begin(), printers.end(), printer) != printers.end();
    } catch (const sdbus::Error&) {
        // Without the list the service's own text has to do.
        return true;
    }
}

} // namespace Kestrel::Client
