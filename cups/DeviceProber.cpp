#include "cups/DeviceProber.h"

#include "cups/CupsRequestHandler.h"
#include "support/ChildProcess.h"
#include "support/Diagnostics.h"
#include "support/IppChecker.h"

#include <chrono>
#include <exception>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

namespace Kestrel::Private {

namespace {

// A silent device on port 443 holds its probe for the library's own TLS
// handshake bound (10 s), which no time-out of ours shortens; so a scan waits
// this long for its probes, from the helper's start, and leaves out the rest.
constexpr auto ProbeDeadline = std::chrono::seconds(3);

// The IPP URI under which a network device answers; empty when it does not.
std::string probe(const std::string& uri)
{
    IppChecker checker(uri, std::make_shared<CupsRequestHandler>());
    if (checker.isIppSupported() || checker.isIppsSupported())
        return checker.getIppUri();
    return {};
}

// The index and URI of a well-formed answer about one of `count` devices.
std::optional<std::pair<size_t, std::string>> parseAnswer(const std::string& record, size_t count)
{
    const size_t tab = record.find('\t');
    // Nine digits at most, which cannot overflow.
    if (tab == 0 || tab == std::string::npos || tab > 9)
        return std::nullopt;
    size_t index = 0;
    for (size_t i = 0; i < tab; ++i) {
        if (record[i] < '0' || record[i] > '9')
            return std::nullopt;
        index = index * 10 + static_cast<size_t>(record[i] - '0');
    }
    if (index >= count)
        return std::nullopt;
    return std::make_pair(index, record.substr(tab + 1));
}

} // namespace

std::vector<std::string> DeviceProber::probeAll(const std::vector<std::string>& uris)
{
    std::vector<std::string> keys(uris.size());
    std::vector<size_t> positions;
    std::vector<std::string> arguments{HelperMode};
    for (size_t i = 0; i < uris.size(); ++i) {
        if (!uris[i].empty()) {
            positions.push_back(i);
            arguments.push_back(uris[i]);
        }
    }
    if (positions.empty())
        return keys;
    const auto deadline = ChildProcess::Clock::now() + ProbeDeadline;
    try {
        ChildProcess helper(arguments);
        std::vector<bool> answered(positions.size());
        for (size_t left = positions.size(); left > 0;) {
            auto record = helper.nextRecord(deadline);
            if (!record)
                break;
            auto answer = parseAnswer(*record, positions.size());
            if (!answer || answered[answer->first])
                continue;
            answered[answer->first] = true;
            keys[positions[answer->first]] = std::move(answer->second);
            --left;
        }
    } catch (const std::exception& error) {
        logError(std::string("network devices left out of the scan: ") + error.what());
    }
    return keys;
}

void DeviceProber::runHelper(const std::vector<std::string>& uris)
{
    std::vector<std::thread> probes;
    probes.reserve(uris.size());
    for (size_t i = 0; i < uris.size(); ++i) {
        try {
            probes.emplace_back([i, &uris] {
                std::string key;
                // The device is then left out.
                try {
                    key = probe(uris[i]);
                } catch (...) {
                }
                ChildProcess::sendToParent(std::to_string(i) + '\t' + key);
            });
        } catch (const std::exception& error) {
            logError(std::string("network devices left out of the scan: ") + error.what());
            break;
        }
    }
    for (auto& running : probes)
        running.join();
    ChildProcess::end();
}

} // namespace Kestrel::Private
