#include "ClientCommands.h"
#include "CommandLine.h"

#include <iostream>

int main(int argc, char* argv[])
{
    using Kestrel::Client::CommandLine;
    CommandLine::Invocation invocation;
    try {
        invocation = CommandLine::parse({argv + 1, argv + argc});
    } catch (const CommandLine::UsageError& error) {
        std::cerr << "kestrel-print: " << error.what() << '\n'
                  << CommandLine::usage(error.command())
                  << "Try 'kestrel-print " << (error.command().empty() ? "" : error.command() + " ")
                  << "--help' for more information.\n";
        return 2;
    }
    return Kestrel::Client::ClientCommands(std::cout, std::cerr).run(invocation);
}
