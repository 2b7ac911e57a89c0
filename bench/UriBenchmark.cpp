// Parsing time of hostile 16 MiB device URIs, the size a bus caller can send.
#include "support/CurlInterface.h"
#include "support/IppChecker.h"
#include "support/Uri.h"

#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <stdexcept>

using Kestrel::Private::CurlInterface;
using Kestrel::Private::IppChecker;
using Kestrel::Private::Uri;

namespace {

constexpr size_t Size = 16u << 20;

std::string repeated(const std::string& prefix, const std::string& unit, const std::string& suffix)
{
    std::string text = prefix;
    text.reserve(Size + suffix.size());
    while (text.size() < Size)
        text += unit;
    return text + suffix;
}

const std::map<std::string, std::function<std::string()>>& shapes()
{
    static const std::map<std::string, std::function<std::string()>> all{
        {"model_slashes", [] { return repeated("usb://", "a/", "?serial=1"); }},
        {"address_digits", [] { return repeated("socket://", "1", ""); }},
        {"no_match_letters", [] { return repeated("usb://", "a", ""); }},
        {"many_schemes", [] { return repeated("", "a://1.", ""); }},
        {"escapes", [] { return repeated("usb://", "%20", "/m?serial=1"); }},
        {"scheme_lines", [] { return repeated("socket://10.0.0.55", "\na://", ""); }},
    };
    return all;
}

void parseUri(benchmark::State& state, const std::string& shape)
{
    const std::string uri = shapes().at(shape)();
    for (auto _ : state) {
        try {
            Uri parsed(uri, std::make_shared<CurlInterface>());
            benchmark::DoNotOptimize(parsed.protocol());
        } catch (const std::invalid_argument&) {
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(uri.size()));
}

void buildProbe(benchmark::State& state, const std::string& shape)
{
    const std::string uri = shapes().at(shape)();
    for (auto _ : state) {
        IppChecker checker(uri, nullptr);
        benchmark::DoNotOptimize(checker.getIppUri());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(uri.size()));
}

int registerAll()
{
    for (const auto& entry : shapes()) {
        const std::string& shape = entry.first;
        benchmark::RegisterBenchmark(("Uri/" + shape).c_str(), parseUri, shape)->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("IppChecker/" + shape).c_str(), buildProbe, shape)
            ->Unit(benchmark::kMillisecond);
    }
    return 0;
}

const int registered = registerAll();

} // namespace

BENCHMARK_MAIN();
