#pragma once

#include "CommandLine.h"

#include <memory>
#include <ostream>

namespace sdbus {
class IConnection;
}

namespace Kestrel::Client {

struct PrintJob;
class Output;
class PrintServiceProxy;

// Carries out one parsed command against the print service and turns its
// outcome into output and an exit status.
class ClientCommands
{
public:
    // terminal: standard error is a terminal (for the live line of scan).
    ClientCommands(std::ostream& out, std::ostream& err, bool terminal);

    int run(const CommandLine::Invocation& invocation);

private:
    static std::unique_ptr<sdbus::IConnection> connect();
    void dispatch(const CommandLine::Invocation& invocation, sdbus::IConnection& connection, PrintServiceProxy& proxy,
        Output& output);
    void scan(const CommandLine::Invocation& invocation, sdbus::IConnection& connection, PrintServiceProxy& proxy,
        Output& output);
    void watch(sdbus::IConnection& connection, PrintServiceProxy& proxy, Output& output);
    void print(const CommandLine::Invocation& invocation, sdbus::IConnection& connection, PrintServiceProxy& proxy,
        Output& output);
    void jobs(const CommandLine::Invocation& invocation, PrintServiceProxy& proxy, Output& output);
    PrintJob follow(uint32_t id, sdbus::IConnection& connection, PrintServiceProxy& proxy, Output& output);

    std::ostream& out_;
    std::ostream& err_;
    bool terminal_;
};

} // namespace Kestrel::Client
