#pragma once

#include <string>
#include <vector>

namespace Kestrel::Private {

// Probes network devices for IPP side by side, in a short-lived helper
// process: the TLS probe on port 443 would otherwise leave the library code
// of its handshake and the memory of its threads counted in the daemon for
// the rest of its life.
class DeviceProber {
public:
    // The argument that makes the daemon the helper, followed by the URIs.
    static constexpr const char* HelperMode = "--probe-devices";

    // The IPP URI of each given device; empty where the URI is empty, the
    // device did not answer, or its answer did not come within the bound.
    static std::vector<std::string> probeAll(const std::vector<std::string>& uris);

    // The helper's whole life: probes every URI at once and sends each
    // answer ("INDEX<TAB>IPP URI", the URI empty for no answer) as soon as
    // it has it, then ends.
    [[noreturn]] static void runHelper(const std::vector<std::string>& uris);
};

} // namespace Kestrel::Private
