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

    // What a job needs to know of its queue, from one request.
    struct QueueCondition {
        bool exists = false;
        // Stopped by the scheduler itself, not paused by an administrator with cupsdisable.
        bool stoppedByScheduler = false;
    };

    virtual bool destinationExists(std::string_view cupsName);
    // A queue the scheduler cannot be asked about counts as missing.
    virtual QueueCondition queueCondition(std::string_view cupsName);
    virtual DeviceMap getDevices();
    virtual void resume(std::string_view cupsName);
};

} // namespace Kestrel::Private
