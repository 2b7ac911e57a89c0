#include "ClientCommands.h"
#include "CommandLine.h"
#include "Output.h"

#include <iostream>
#include <unistd.h>

int main(int argc, char* argv[])
{
    using namespace Kestrel::Client;
    const bool terminal = isatty(STDERR_FILENO) == 1;
    CommandLine commandLine;
    CommandLine::Invocation invocation;
    try {
        invocation = commandLine.parse(argc, argv);
    } catch (const CommandLine::UsageError& error) {
        Output(std::cout, std::cerr, error.json(), terminal).usageError(error.what(), error.command());
        return 2;
    }
    return ClientCommands(std::cout, std::cerr, terminal).run(invocation);
}
