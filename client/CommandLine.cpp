#include "CommandLine.h"

#include <algorithm>
#include <cctype>
#include <optional>

namespace Kestrel::Client {

namespace {

struct CommandEntry
{
    const char* name;
    std::size_t argumentCount;
    const char* synopsis;
    const char* summary;
    const char* details;
    std::vector<std::string> options;
};

const std::vector<CommandEntry>& commands()
{
    static const std::vector<CommandEntry> entries = {
        {"list", 0, "list", "list the saved printers",
         "Prints the names of the saved printers, one per line.\n"
         "With --json: an array of names.\n",
         {}},
        {"add", 2, "add URI NAME [--user USER]...", "save a printer under a name",
         "Creates a print queue for the device URI (as shown by 'scan') and saves it\n"
         "under NAME. Each --user names an account that may use the printer.\n"
         "With --json: {\"added\": {\"name\", \"uri\", \"users\"}}.\n",
         {"--user"}},
        {"remove", 1, "remove NAME", "remove a saved printer",
         "Deletes the printer's queue and forgets the name.\n"
         "With --json: {\"removed\": {\"name\"}}.\n",
         {}},
        {"rename", 2, "rename OLD NEW", "rename a saved printer",
         "Gives the saved printer OLD the name NEW.\n"
         "With --json: {\"renamed\": {\"from\", \"to\"}}.\n",
         {}},
        {"attributes", 1, "attributes NAME", "show what a printer supports",
         "Asks the printer for its capabilities and prints one block per capability:\n"
         "its name, then its values indented below it.\n"
         "With --json: an object mapping each capability to its list of values.\n",
         {}},
        {"scan", 0, "scan [--timeout SECONDS]", "look for printers that can be added",
         "Asks the service to look for attached and network printers and waits for the\n"
         "answer, at most SECONDS (default 60). Prints the device URI and the make and\n"
         "model of each printer found; the URI is what 'add' expects.\n"
         "With --json: an object mapping each device URI to its make and model.\n",
         {"--timeout"}},
        {"print", 1, "print FILE --printer NAME [-o OPTION=VALUE]...", "print a PDF document",
         "Sends the PDF document FILE to the saved printer NAME. Each -o (or --option)\n"
         "passes a print option such as media=iso_a4_210x297mm or sides=two-sided-long-edge.\n"
         "The service DELETES FILE once the job has been handed over; print a copy if\n"
         "you want to keep it. A relative FILE is resolved against the current\n"
         "directory, because the service does not share it.\n"
         "With --json: {\"printed\": {\"file\", \"printer\", \"options\"}}.\n",
         {"--printer", "--option"}},
        {"watch", 0, "watch", "show changes as the service announces them",
         "Prints every change of the saved or of the reachable printers as the service\n"
         "announces it, until interrupted (Ctrl+C or SIGTERM), then exits with 0.\n"
         "With --json: one JSON object per line, {\"signal\", \"printers\"}.\n",
         {}},
    };
    return entries;
}

const CommandEntry* findCommand(const std::string& name)
{
    const auto& entries = commands();
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [&](const CommandEntry& entry) { return name == entry.name; });
    return found == entries.end() ? nullptr : &*found;
}

std::chrono::seconds parseTimeout(const std::string& text, const std::string& command)
{
    const bool digitsOnly = !text.empty() && text.size() <= 5
        && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    const long seconds = digitsOnly ? std::stol(text) : 0;
    if (seconds < 1 || seconds > 86400)
        throw CommandLine::UsageError("--timeout takes a whole number of seconds from 1 to 86400", command);
    return std::chrono::seconds(seconds);
}

void addOption(CommandLine::Invocation& invocation, const std::string& text)
{
    const auto equals = text.find('=');
    if (equals == std::string::npos || equals == 0)
        throw CommandLine::UsageError("print options are written OPTION=VALUE, not '" + text + "'", "print");
    const auto name = text.substr(0, equals);
    if (!invocation.options.emplace(name, text.substr(equals + 1)).second)
        throw CommandLine::UsageError("print option '" + name + "' is given twice", "print");
}

void applyOption(CommandLine::Invocation& invocation, const std::string& name, const std::string& value)
{
    if (name == "--user") {
        invocation.users.push_back(value);
        return;
    }
    if (name == "--printer") {
        invocation.printer = value;
        return;
    }
    if (name == "--timeout") {
        invocation.timeout = parseTimeout(value, invocation.command);
        return;
    }
    addOption(invocation, value);
}

} // namespace

CommandLine::UsageError::UsageError(const std::string& message, std::string command)
    : std::runtime_error(message)
    , command_(std::move(command))
{
}

const std::string& CommandLine::UsageError::command() const
{
    return command_;
}

CommandLine::Invocation CommandLine::parse(const std::vector<std::string>& arguments)
{
    Invocation invocation;
    bool optionsEnded = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (!optionsEnded && argument == "--") {
            optionsEnded = true;
            continue;
        }
        if (optionsEnded || argument.size() < 2 || argument[0] != '-') {
            if (!invocation.command.empty()) {
                invocation.arguments.push_back(argument);
                continue;
            }
            if (!findCommand(argument))
                throw UsageError("unknown command '" + argument + "'", "");
            invocation.command = argument;
            continue;
        }

        std::string name = argument;
        std::optional<std::string> value;
        if (argument.rfind("--", 0) == 0 && argument.find('=') != std::string::npos) {
            name = argument.substr(0, argument.find('='));
            value = argument.substr(argument.find('=') + 1);
        } else if (argument.rfind("-o", 0) == 0 && argument.size() > 2) {
            name = "-o";
            value = argument.substr(2);
        }
        if (name == "-o")
            name = "--option";

        if ((name == "--json" || name == "--help" || name == "-h") && !value) {
            (name == "--json" ? invocation.json : invocation.help) = true;
            continue;
        }
        const CommandEntry* entry = findCommand(invocation.command);
        if (!entry || std::find(entry->options.begin(), entry->options.end(), name) == entry->options.end()) {
            const auto where = invocation.command.empty() ? std::string() : " for '" + invocation.command + "'";
            throw UsageError("unknown option '" + argument + "'" + where, invocation.command);
        }
        if (!value) {
            if (i + 1 == arguments.size())
                throw UsageError("option '" + argument + "' needs a value", invocation.command);
            value = arguments[++i];
        }
        applyOption(invocation, name, *value);
    }

    if (invocation.help)
        return invocation;
    if (invocation.command.empty())
        throw UsageError("no command given", "");
    const CommandEntry* entry = findCommand(invocation.command);
    if (invocation.arguments.size() != entry->argumentCount)
        throw UsageError("wrong number of arguments for '" + invocation.command + "'", invocation.command);
    if (invocation.command == "print" && invocation.printer.empty())
        throw UsageError("'print' needs --printer NAME", invocation.command);
    return invocation;
}

std::string CommandLine::usage(const std::string& command)
{
    const CommandEntry* entry = findCommand(command);
    if (!entry)
        return "Usage: kestrel-print [--json] COMMAND [ARGUMENTS]\n";
    return std::string("Usage: kestrel-print ") + entry->synopsis + " [--json]\n";
}

std::string CommandLine::toolHelp()
{
    std::string text = usage("")
        + "\nManages printers and prints PDF documents through the Kestrel print service\n"
          "(ru.zorv.print on the system bus).\n\nCommands:\n";
    for (const auto& entry : commands()) {
        std::string line = std::string("  ") + entry.synopsis;
        line += line.size() < 34 ? std::string(34 - line.size(), ' ') : "\n" + std::string(34, ' ');
        text += line + entry.summary + "\n";
    }
    return text
        + "\nOptions:\n"
          "  --json      write JSON to standard output instead of text\n"
          "  -h, --help  show this help; after a command, that command's help\n"
          "\nErrors go to standard error. Exit status: 0 on success, 1 when the service\n"
          "reports an error or cannot be reached, 2 on wrong usage.\n";
}

std::string CommandLine::commandHelp(const std::string& command)
{
    const CommandEntry* entry = findCommand(command);
    if (!entry)
        return toolHelp();
    std::string summary = entry->summary;
    summary[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(summary[0])));
    return usage(command) + "\n" + summary + ".\n\n" + entry->details;
}

} // namespace Kestrel::Client
