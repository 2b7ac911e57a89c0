#pragma once

#include "support/ChildProcess.h"

#include <cstddef>
#include <exception>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace Kestrel::Private {

// Probes network devices for IPP side by side, each from the moment
// discovery reports it, in a short-lived helper process: the TLS probe on
// port 443 would otherwise leave the library code of its handshake and the
// memory of its threads counted in the daemon for the rest of its life.
// One prober serves one scan.
class DeviceProber {
public:
    // The argument that makes the daemon the helper.
    static constexpr const char* HelperMode = "--probe-devices";

    // Starts probing the device numbered `number` (the helper starts with
    // the first one). Never throws: a device that cannot be handed over is
    // left out, and the reason is logged once.
    void probe(size_t number, const std::string& uri);

    // The IPP URI of each device handed over that answered, by its number.
    // Answers are awaited until a bound has passed since the last hand-over;
    // the devices that have not answered by then are left out.
    std::map<size_t, std::string> answers();

    // The helper's whole life: probes each device as it is handed over and
    // sends each answer ("NUMBER<TAB>IPP URI", the URI empty for no answer)
    // as soon as it has it, then ends once no device is left.
    [[noreturn]] static void runHelper();

private:
    void leaveOut(const std::exception& error);

    std::unique_ptr<ChildProcess> helper;
    std::set<size_t> waiting;
    ChildProcess::Clock::time_point deadline;
    bool failed = false;
};

} // namespace Kestrel::Private
