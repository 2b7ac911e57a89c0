#include "CommandLine.h"

#include "PrintOptions.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace Kestrel::Client {

namespace {

const char* const toolFooter = "Data goes to standard output; notes and errors go to standard error. With\n"
                               "--json every command writes one JSON object, and an error is one JSON object\n"
                               "on standard error.\n"
                               "\n"
                               "Exit status:\n"
                               "  0  success\n"
                               "  1  the service refused the request (for print options: the printer does\n"
                               "     not support them), or a scan did not finish in time\n"
                               "  2  wrong usage\n"
                               "  3  the service cannot be reached: not running, failed to start, no system bus\n"
                               "  4  permission denied\n"
                               "\n"
                               "Run 'kestrel-print COMMAND --help' for the details of one command.";

const char* const printFooter = "Print options (-o NAME=VALUE, each NAME at most once):\n"
                                "  copies=N                   number of copies, a whole number from 1\n"
                                "  fit-to-page=true|false     scale each page to fit the paper\n"
                                "  media=SIZE                 paper size, one the printer lists\n"
                                "  orientation-requested=O    portrait, landscape, reverse-landscape or\n"
                                "                             reverse-portrait (or 3 to 6), one the printer lists\n"
                                "  outputorder=normal|reverse order in which the pages come out\n"
                                "  page-ranges=LIST           pages to print, ascending, e.g. 1-4,7,9-12\n"
                                "  print-color-mode=MODE      e.g. color or monochrome, one the printer lists\n"
                                "  sides=SIDES                one-sided, two-sided-long-edge or\n"
                                "                             two-sided-short-edge, one the printer lists\n"
                                "\n"
                                "Before sending, the values of sides, media, print-color-mode and\n"
                                "orientation-requested are checked against what the printer lists (see\n"
                                "'kestrel-print attributes NAME'), and orientation names are sent as their\n"
                                "IPP numbers. --force sends every option as written, unchecked.\n"
                                "\n"
                                "THE SERVICE DELETES FILE once the job has been handed over: print a copy if\n"
                                "you want to keep it. A relative FILE is resolved against the current\n"
                                "directory, because the service does not share it.";

// A printer or account name that the service would refuse only with a
// registry text.
CLI::Validator nonEmpty()
{
    return CLI::Validator(
        [](const std::string& text) { return text.empty() ? std::string("must not be empty") : std::string(); }, "",
        "non-empty");
}

CLI::App* command(CLI::App& app, const std::string& name, const std::string& description, const std::string& footer)
{
    auto* sub = app.add_subcommand(name, description);
    sub->set_help_all_flag();
    sub->fallthrough();
    sub->footer(footer);
    return sub;
}

// Without a command CLI11 only knows that one is missing; say which word was
// taken for one.
std::string commandError(int argc, const char* const argv[])
{
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument.empty() || argument.front() != '-')
            return "unknown command '" + argument + "'";
    }
    return "no command given";
}

bool jsonRequested(int argc, const char* const argv[])
{
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--")
            return false;
        if (argument == "--json")
            return true;
    }
    return false;
}

} // namespace

CommandLine::UsageError::UsageError(const std::string& message, std::string command, bool json)
    : std::runtime_error(message)
    , command_(std::move(command))
    , json_(json)
{
}

const std::string& CommandLine::UsageError::command() const
{
    return command_;
}

bool CommandLine::UsageError::json() const
{
    return json_;
}

CommandLine::CommandLine()
    : app_(std::make_unique<CLI::App>("Manages printers and prints PDF documents through the Kestrel print service\n"
                                      "(ru.zorv.print on the system bus).",
        "kestrel-print"))
{
    auto& app = *app_;
    auto& call = invocation_;
    app.require_subcommand(1);
    app.set_help_all_flag("--help-all", "Show the help of the tool and of every command, and exit");
    app.set_version_flag("--version", "kestrel-print " KESTREL_VERSION);
    app.add_flag("--json", call.json, "Write results as JSON (one object per command, or per line for watch)");
    app.footer(toolFooter);

    command(
        app, "list", "List the saved printers, one name per line.", "With --json: {\"printers\": [{\"name\": NAME}]}.");

    auto* add = command(app, "add", "Create a print queue for a device URI (as 'scan' shows it) and save it as NAME.",
        "With --json: {\"printer\": NAME, \"uri\": URI, \"users\": [USER]}.");
    add->add_option("URI", "Device URI of the printer")->required();
    add->add_option("NAME", "Name to save the printer under")->required()->check(nonEmpty());
    add->add_option("-u,--user", call.users,
           "Local user account to name with the printer; the service only checks that it exists (repeatable)")
        ->type_name("USER")
        ->check(nonEmpty());

    auto* remove = command(
        app, "remove", "Delete a saved printer's queue and forget its name.", "With --json: {\"printer\": NAME}.");
    remove->add_option("NAME", "Saved printer")->required()->check(nonEmpty());

    auto* rename = command(app, "rename", "Give a saved printer a new name; its queue stays.",
        "With --json: {\"printer\": NEW, \"old_name\": OLD}.");
    rename->add_option("OLD", "Saved printer")->required()->check(nonEmpty());
    rename->add_option("NEW", "Its new name")->required()->check(nonEmpty());

    auto* attributes
        = command(app, "attributes", "Show what a saved printer supports: media, sides, colour modes, orientations.",
            "With --json: {\"printer\": NAME, \"attributes\": {ATTRIBUTE: [VALUE]}}.");
    attributes->add_option("NAME", "Saved printer")->required()->check(nonEmpty());

    auto* scan = command(app, "scan", "Look for attached and network printers that can be added.",
        "Prints each device URI (what 'add' expects) with its make and model. The\n"
        "service reports a failed discovery (for example CUPS not running) as an empty one.\n"
        "With --json: {\"devices\": [{\"uri\": URI, \"make_and_model\": TEXT}]}.");
    scan->add_option("-t,--timeout", timeoutSeconds_, "Seconds to wait for the answer (default 60)")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 86400));

    auto* print = command(app, "print", "Print a PDF document on a saved printer, then the service deletes it.",
        std::string(printFooter)
            + "\n\nWith --json: {\"printer\": NAME, \"file\": PATH, "
              "\"options\": {NAME: VALUE}, \"forced\": BOOL}.");
    print->add_option("FILE", "PDF document to print (deleted once printed)")->required();
    print->add_option("-p,--printer", call.printer, "Saved printer to print on")
        ->type_name("NAME")
        ->required()
        ->check(nonEmpty());
    print->add_option("-o,--option", optionTexts_, "Print option (repeatable, see below)")
        ->type_name("NAME=VALUE")
        ->check(CLI::Validator(
            [](const std::string& text) {
                return text.find('=') == std::string::npos || text.front() == '='
                    ? "print options are written NAME=VALUE, not '" + text + "'"
                    : std::string();
            },
            ""));
    print->add_flag("-f,--force", call.force, "Send the options unchecked");
    print->add_flag("-w,--wait", call.wait,
        "Follow the job until it ends (a live line on a terminal); exit 1 unless it completed");

    auto* jobs = command(app, "jobs", "List your print jobs that have not ended (root and lpadmin: everyone's).",
        "With --json: {\"jobs\": [{\"id\": N, \"printer\": NAME, \"document\": FILE, \"state\": STATE,\n"
        "\"reasons\": [REASON], \"pages\": N, \"created\": UNIX_TIME}]}, newest first.");
    jobs->add_flag("-a,--all", call.all, "Also list the jobs that have ended");

    auto* cancel = command(app, "cancel", "Cancel a print job that has not ended.", "With --json: {\"job\": ID}.");
    cancel->add_option("ID", "Job number, as 'jobs' shows it")->required()->check(CLI::PositiveNumber);

    auto* status = command(app, "status", "Show whether a saved printer is ready, and what it lacks.",
        "Network printers are asked themselves as well, for at most a few seconds, and\n"
        "tell their paper trays and supplies, one a line (\"Tray main: out of paper\",\n"
        "\"Black toner 75 %\", \"Waste toner box 25 % full\").\n"
        "With --json: {\"printer\": NAME, \"state\": STATE, \"reasons\": [REASON],\n"
        "\"description\": TEXT, \"message\": TEXT, \"accepting\": BOOL, \"supplies\": [{\"name\": TEXT,\n"
        "\"kind\": KIND, \"color\": TEXT, \"level\": PERCENT, \"description\": TEXT}], \"trays\": [{\"name\": TEXT,\n"
        "\"media\": MEDIA, \"level\": PERCENT, \"state\": ok|low|empty, \"description\": TEXT}]}; a level is -1\n"
        "when unknown.");
    status->add_option("NAME", "Saved printer")->required()->check(nonEmpty());

    command(app, "watch",
        "Show every change of the saved or reachable printers, of their states and of your jobs until interrupted.",
        "One line per change, such as 'Printer \"Office\": stopped: paused' or\n"
        "'Job 12 on printer \"Office\": completed, 2 pages'. The service tells a job's\n"
        "changes only to the program that sent it, so the jobs 'jobs' lists (yours, or\n"
        "everyone's with ru.zorv.print.manage-jobs) are read again at each printer\n"
        "change, as a job starting or ending changes its printer, and those that\n"
        "changed are shown.\n"
        "Ends with status 0 on Ctrl+C or SIGTERM. With --json, one object per line:\n"
        "{\"signal\": \"savedPrintersChanged\", \"printers\": [{\"name\": NAME}]},\n"
        "{\"signal\": \"accessiblePrintersChanged\", \"devices\": [{\"uri\": URI, \"make_and_model\": TEXT}]},\n"
        "{\"signal\": \"printerStateChanged\", \"printer\": NAME, \"state\": STATE, ...} with the\n"
        "fields of 'status', or\n"
        "{\"signal\": \"jobChanged\", \"job\": {...}} with the fields of 'jobs'.");
}

CommandLine::~CommandLine() = default;

CommandLine::Invocation CommandLine::parse(int argc, const char* const argv[])
{
    auto& app = *app_;
    const auto selected = [&app] {
        const auto subcommands = app.get_subcommands();
        return subcommands.empty() ? std::string() : subcommands.front()->get_name();
    };
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        invocation_.text = app.help();
        return invocation_;
    } catch (const CLI::CallForAllHelp&) {
        // Each command's own help in full, its footer included (the manual page is made of it).
        invocation_.text = app.help();
        for (const auto* sub : app.get_subcommands({})) {
            // A line ending in a colon over an indented one starts a section of the manual page.
            auto text = sub->help(app.get_name());
            invocation_.text
                += "\nCommand " + sub->get_name() + ":\n  " + text.replace(text.find("\nUsage:"), 1, "\n\n");
        }
        return invocation_;
    } catch (const CLI::CallForVersion& version) {
        invocation_.text = std::string(version.what()) + "\n";
        return invocation_;
    } catch (const CLI::ParseError& error) {
        const auto command = selected();
        throw UsageError(command.empty() ? commandError(argc, argv) : error.what(), command, jsonRequested(argc, argv));
    }
    invocation_.command = selected();
    invocation_.timeout = std::chrono::seconds(timeoutSeconds_);
    for (const auto* positional : app.get_subcommand(invocation_.command)->get_options([](const CLI::Option* option) {
             return option->get_positional();
         }))
        invocation_.arguments.push_back(positional->as<std::string>());
    for (const auto& text : optionTexts_) {
        const auto equals = text.find('=');
        const auto name = text.substr(0, equals);
        if (!invocation_.options.emplace(name, text.substr(equals + 1)).second)
            throw UsageError("print option '" + name + "' is given more than once", "print", invocation_.json);
    }
    try {
        if (!invocation_.force)
            PrintOptions(invocation_.options).checkForm();
    } catch (const std::invalid_argument& error) {
        throw UsageError(std::string(error.what()) + " (--force sends it anyway)", "print", invocation_.json);
    }
    return invocation_;
}

} // namespace Kestrel::Client
