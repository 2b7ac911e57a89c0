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
#include <vector>

namespace Kestrel::Private {

namespace {

// A silent device on port 443 holds its probe for the library's own TLS
// handshake bound (10 s), which no time-out of ours shortens; so a scan waits
// for the probes until this long after the last hand-over, and leaves out
// the devices that have not answered.
constexpr auto ProbeDeadline = std::chrono::seconds(3);

// The IPP URI under which a network device answers; empty when it does not.
std::string ippUriOf(const std::string& uri)
{
    IppChecker checker(uri, std::make_shared<CupsRequestHandler>());
    if (checker.isIppSupported() || checker.isIppsSupported())
        return checker.getIppUri();
    return {};
}

// The number and text of a "NUMBER<TAB>TEXT" record.
std::optional<std::pair<size_t, std::string>> parseRecord(const std::string& record)
{
    const size_t tab = record.find('\t');
    // Nine digits at most, which cannot overflow.
    if (tab == 0 || tab == std::string::npos || tab > 9)
        return std::nullopt;
    size_t number = 0;
    for (size_t i = 0; i < tab; ++i) {
        if (record[i] < '0' || record[i] > '9')
            return std::nullopt;
        number = number * 10 + static_cast<size_t>(record[i] - '0');
    }
    return std::make_pair(number, record.substr(tab + 1));
}

} // namespace

void DeviceProber::probe(size_t number, const std::string& uri)
{
    if (failed)
        return;
    try {
        if (!helper)
            helper = std::make_unique<ChildProcess>(std::vector<std::string>{HelperMode});
        helper->send(std::to_string(number) + '\t' + uri);
        waiting.insert(number);
        deadline = ChildProcess::Clock::now() + ProbeDeadline;
    } catch (const std::exception& error) {
        leaveOut(error);
    }
}

std::map<size_t, std::string> DeviceProber::answers()
{
    std::map<size_t, std::string> keys;
    if (!helper)
        return keys;
    try {
        helper->finishSending();
        while (!waiting.empty()) {
            auto record = helper->nextRecord(deadline);
            if (!record)
                break;
            auto answer = parseRecord(*record);
            if (!answer || waiting.erase(answer->first) == 0)
                continue;
            if (!answer->second.empty())
                keys.emplace(answer->first, std::move(answer->second));
        }
    } catch (const std::exception& error) {
        leaveOut(error);
    }
    helper.reset();
    return keys;
}

void DeviceProber::leaveOut(const std::exception& error)
{
    failed = true;
    logError(std::string("network devices left out of the scan: ") + error.what());
}

void DeviceProber::runHelper()
{
    std::vector<std::thread> probes;
    while (auto record = ChildProcess::nextFromParent()) {
        auto device = parseRecord(*record);
        if (!device)
            continue;
        const size_t number = device->first;
        try {
            probes.emplace_back([number, uri = std::move(device->second)] {
                std::string key;
                // The device is then left out.
                try {
                    key = ippUriOf(uri);
                } catch (...) {
                }
                ChildProcess::sendToParent(std::to_string(number) + '\t' + key);
            });
        } catch (const std::exception& error) {
            logError(std::string("network device left out of the scan: ") + error.what());
            ChildProcess::sendToParent(std::to_string(number) + '\t');
        }
    }
    for (auto& running : probes)
        running.join();
    ChildProcess::end();
}

} // namespace Kestrel::Private
