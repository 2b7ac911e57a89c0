#include "Failure.h"

namespace Kestrel::Client {

Failure::Failure(
    std::string kind, const std::string& message, ExitStatus status, std::string serviceMessage, std::string busError)
    : std::runtime_error(message)
    , kind_(std::move(kind))
    , status_(status)
    , serviceMessage_(std::move(serviceMessage))
    , busError_(std::move(busError))
{
}

const std::string& Failure::kind() const
{
    return kind_;
}

ExitStatus Failure::status() const
{
    return status_;
}

const std::string& Failure::serviceMessage() const
{
    return serviceMessage_;
}

const std::string& Failure::busError() const
{
    return busError_;
}

} // namespace Kestrel::Client
