#pragma once

#include <stdexcept>
#include <string>

namespace Kestrel::Client {

// What the exit status tells a script, documented in --help and the README.
enum class ExitStatus : int {
    Success = 0,
    Refused = 1,
    Usage = 2,
    Unreachable = 3,
    PermissionDenied = 4,
};

// A command that did not succeed, in words a person can act on, with the
// text that the service or the bus gave for it kept alongside.
class Failure : public std::runtime_error
{
public:
    // kind: a stable word for scripts, such as "unknown_printer".
    Failure(std::string kind, const std::string& message, ExitStatus status, std::string serviceMessage = "",
        std::string busError = "");

    const std::string& kind() const;
    ExitStatus status() const;
    const std::string& serviceMessage() const;
    // The D-Bus error name behind the failure, empty when the client itself refused.
    const std::string& busError() const;

private:
    std::string kind_;
    ExitStatus status_;
    std::string serviceMessage_;
    std::string busError_;
};

} // namespace Kestrel::Client
