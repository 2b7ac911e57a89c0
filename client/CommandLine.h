#pragma once

#include <chrono>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace Kestrel::Client {

// Turns the arguments of kestrel-print into one checked request and knows
// the help texts that describe them.
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
        std::chrono::seconds timeout{60};
        bool json = false;
        bool help = false;
    };

    class UsageError : public std::runtime_error
    {
    public:
        UsageError(const std::string& message, std::string command);
        const std::string& command() const;

    private:
        std::string command_;
    };

    static Invocation parse(const std::vector<std::string>& arguments);
    static std::string toolHelp();
    static std::string commandHelp(const std::string& command);
    // The usage line of a command, or the tool's when command is empty.
    static std::string usage(const std::string& command);
};

} // namespace Kestrel::Client
