#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace Kestrel::Client {

// The command line of kestrel-print, declared with CLI11: turns the
// arguments into one checked request, or into the text --help or --version
// asked for.
class CommandLine
{
public:
    struct Invocation
    {
        std::string command;
        std::vector<std::string> arguments;
        std::vector<std::string> users;
        std::string printer;
        std::map<std::string, std::string> options;
        std::chrono::seconds timeout {60};
        bool json = false;
        bool force = false;
        bool wait = false;
        bool all = false;
        // Set when the arguments asked for help or the version: print it, do nothing else.
        std::string text;
    };

    class UsageError : public std::runtime_error
    {
    public:
        UsageError(const std::string& message, std::string command, bool json);
        // The command whose help explains the mistake, empty for the tool's.
        const std::string& command() const;
        // Whether --json was among the arguments, so the error is written as JSON.
        bool json() const;

    private:
        std::string command_;
        bool json_;
    };

    CommandLine();
    ~CommandLine();

    Invocation parse(int argc, const char* const argv[]);

private:
    std::unique_ptr<CLI::App> app_;
    Invocation invocation_;
    std::vector<std::string> optionTexts_;
    int timeoutSeconds_ = 60;
};

} // namespace Kestrel::Client
