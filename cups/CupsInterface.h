#pragma once

#include <map>
#include <string>
#include <string_view>

namespace Kestrel::Private {

// Device URI to the device's make-and-model; the first report of a URI wins.
using DeviceMap = std::map<std::string, std::string>;

// Queue lookup and device discovery through libcups' convenience calls.
class CupsInterface {
public:
    virtual ~CupsInterface() = default;

    virtual bool destinationExists(std::string_view cupsName);
    virtual DeviceMap getDevices();
    // Stopped by the scheduler itself, not paused by an administrator with
    // cupsdisable; a queue the scheduler cannot be asked about counts as not stopped.
    virtual bool isStopped(std::string_view cupsName);
    virtual void resume(std::string_view cupsName);
};

} // namespace Kestrel::Private
