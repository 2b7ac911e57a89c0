#pragma once

#include "CommandLine.h"

#include <ostream>

namespace sdbus {
class Error;
class IConnection;
}

namespace Kestrel::Client {

class Output;
class PrintServiceProxy;

// Carries out one parsed command against the print service and turns its
// outcome into output and an exit status.
class ClientCommands
{
public:
    ClientCommands(std::ostream& out, std::ostream& err);

    int run(const CommandLine::Invocation& invocation);

private:
    int dispatch(const CommandLine::Invocation& invocation, sdbus::IConnection& connection, PrintServiceProxy& proxy,
                 Output& output);
    int scan(const CommandLine::Invocation& invocation, sdbus::IConnection& connection, PrintServiceProxy& proxy,
             Output& output);
    int watch(sdbus::IConnection& connection, PrintServiceProxy& proxy, Output& output);
    int print(const CommandLine::Invocation& invocation, PrintServiceProxy& proxy, Output& output);
    int report(const sdbus::Error& error);

    std::ostream& out_;
    std::ostream& err_;
};

} // namespace Kestrel::Client
