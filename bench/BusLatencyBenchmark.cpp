// Per-call latency of getSavedPrinters against a bare Peer.Ping on the same
// object, at 0, 100, 1,000 and 10,000 saved printers; then the latency of
// getSavedPrinters and getPrinterAttributes while another client waits on a
// silent printer, a huge document, a frozen scheduler or a silent system
// log, against the same calls on an idle service, each beside a bare round
// trip to the bus daemon at the same moments; and getPrinterAttributes
// throughput with 1, 4 and 16 clients.
#include "bench/Measure.h"
#include "bench/ServiceClient.h"
#include "bench/WorldGuard.h"
#include "support/DatabaseManager.h"
#include "support/UuidGenerator.h"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace Kestrel::Bench;
using Kestrel::Private::DatabaseManager;
using Kestrel::Private::UuidGenerator;

namespace {

constexpr int Rounds = 20;

std::string world(const std::string& name)
{
    return std::string(std::getenv("KESTREL_WORLD_DIR")) + "/" + name;
}

pid_t pidIn(const std::string& file)
{
    pid_t pid = 0;
    std::ifstream(world(file)) >> pid;
    return pid;
}

struct Latency {
    double median;
    double worst;
};

Latency summary(const std::vector<double>& samples)
{
    return {Measure::median(samples), *std::max_element(samples.begin(), samples.end())};
}

// A call that fails (a service that kept it past the bus's time-out) counts with the time it took.
double timed(const std::function<void()>& call)
{
    return Measure::milliseconds([&] {
        try {
            call();
        } catch (const std::exception&) {
        }
    });
}

Latency latency(const std::function<void()>& call)
{
    std::vector<double> samples;
    for (int round = 0; round < Rounds; ++round)
        samples.push_back(timed(call));
    return summary(samples);
}

// The call and a bare round trip to the bus daemon, alternately: the round
// trip shows what the machine's load alone costs at the same moments.
std::pair<Latency, Latency> latencyBesideBus(ServiceClient& client, const std::function<void()>& call)
{
    std::vector<double> calls, bus;
    for (int round = 0; round < Rounds; ++round) {
        calls.push_back(timed(call));
        bus.push_back(timed([&] { client.busRoundTrip(); }));
    }
    return {summary(calls), summary(bus)};
}

// Another client's call runs on its own connection while the figures are taken.
class Meanwhile {
public:
    explicit Meanwhile(std::function<void(ServiceClient&)> call)
        : thread([call] {
            ServiceClient other;
            try {
                call(other);
            } catch (const std::exception&) {
                // Failing is what some of these calls do; only the others' latency counts.
            }
        })
    {
        // Time for the call to reach the service and start waiting.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    ~Meanwhile() { thread.join(); }

private:
    std::thread thread;
};

// A printer that accepts connections and never answers, on the simulated printer's port.
class SilentPrinter {
public:
    SilentPrinter()
    {
        ::kill(pidIn("ippeveprinter.pid"), SIGTERM);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(631);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        for (int attempt = 0; attempt < 500 && listener < 0; ++attempt) {
            int fd = ::socket(AF_INET, SOCK_STREAM, 0);
            const int yes = 1;
            ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
            if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 && ::listen(fd, 64) == 0) {
                listener = fd;
                break;
            }
            ::close(fd);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    ~SilentPrinter()
    {
        ::close(listener);
        std::system("(\"$KESTREL_PRINTER_START\" &) ; for i in $(seq 500); do"
                    " bash -c ': </dev/tcp/127.0.0.1/631' 2>/dev/null && break; sleep 0.01; done");
    }

private:
    int listener = -1;
};

// SIGSTOP until the end of the scope.
class Frozen {
public:
    explicit Frozen(pid_t pid)
        : pid(pid)
    {
        ::kill(pid, SIGSTOP);
    }
    ~Frozen() { ::kill(pid, SIGCONT); }

private:
    pid_t pid;
};

// One condition's figures, taken in the same order after the same pause
// whether another client waits or not: the first call after a pause is the
// slowest even on an idle machine, so idle figures taken warm would charge
// that pause to the other client.
struct Figures {
    Latency list;
    Latency bus;
    Latency attributes;
};

Figures figures(ServiceClient& client, bool withAttributes)
{
    const auto [list, bus] = latencyBesideBus(client, [&] { client.savedPrinters(); });
    if (!withAttributes)
        return {list, bus, {}};
    return {list, bus, latency([&] { client.printerAttributes("Office"); })};
}

void reportLatency(ServiceClient& client, const std::string& condition, const Figures& idle, bool withAttributes)
{
    const auto now = figures(client, withAttributes);
    Measure::report("getSavedPrinters median, " + condition, now.list.median, "idle median", idle.list.median);
    Measure::report("getSavedPrinters worst, " + condition, now.list.worst, "idle worst", idle.list.worst);
    Measure::report("bus daemon round trip worst, " + condition, now.bus.worst, "idle worst", idle.bus.worst);
    if (!withAttributes)
        return;
    Measure::report("getPrinterAttributes median, " + condition, now.attributes.median, "idle median",
                    idle.attributes.median);
    Measure::report("getPrinterAttributes worst, " + condition, now.attributes.worst, "idle worst",
                    idle.attributes.worst);
}

// Calls per second of `clients` clients asking at once for two seconds.
double throughput(int clients)
{
    std::atomic<long> calls{0};
    std::vector<std::thread> threads;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&] {
            ServiceClient client;
            while (std::chrono::steady_clock::now() < end) {
                client.printerAttributes("Office");
                ++calls;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    return calls / 2.0;
}

void measureSideBySide(ServiceClient& client, DatabaseManager& registry)
{
    registry.clear();
    const std::string printer = std::getenv("KESTREL_PRINTER_URI");
    client.addPrinter(printer, "Office");
    const auto idle = [&] {
        Meanwhile nothing([](ServiceClient&) {});
        return figures(client, true);
    }();
    {
        SilentPrinter silent;
        Meanwhile adding([&](ServiceClient& other) { other.addPrinter(printer, "Silent"); });
        reportLatency(client, "(a) beside an add of a silent printer", idle, true);
    }
    {
        // Sparse, and non-ASCII, so the service copies it before sending.
        const auto document = world("доклад.pdf");
        std::ofstream(document) << "%PDF-1.4\n";
        ::truncate(document.c_str(), 300L << 20);
        Meanwhile printing([&](ServiceClient& other) { other.print(document, "Office"); });
        reportLatency(client, "(b) beside a print of 300 MB", idle, true);
        ::unlink(document.c_str());
    }
    // Its filters would take minutes over 300 MB, holding up the jobs of later benchmarks.
    std::system("cancel -a -x >/dev/null 2>&1");
    {
        Frozen scheduler(pidIn("cupsd.pid"));
        Meanwhile asking([&](ServiceClient& other) { other.printerAttributes("Office"); });
        reportLatency(client, "(c) beside a call on a frozen scheduler", idle, false);
    }
    {
        Frozen log(client.ownerPid("ru.quentis.SystemLogs"));
        Meanwhile adding([&](ServiceClient& other) { other.addPrinter(printer, "Logged"); });
        reportLatency(client, "(d) beside an add with a silent system log", idle, true);
    }
    const double single = throughput(1);
    for (int clients : {1, 4, 16})
        Measure::report("getPrinterAttributes, " + std::to_string(clients) + " clients", throughput(clients),
                        "1 client", single, "calls/s");
}

} // namespace

int main()
{
    WorldGuard::require();
    ServiceClient client;
    DatabaseManager registry;
    registry.clear();
    size_t saved = 0;
    for (size_t count : {0u, 100u, 1000u, 10000u}) {
        for (; saved < count; ++saved)
            registry.insert(UuidGenerator::generate(), "Printer " + std::to_string(saved));
        if (client.savedPrinters().size() != count) {
            std::fprintf(stderr, "the service does not list %zu printers\n", count);
            return 1;
        }
        const int rounds = count < 10000 ? 200 : 50;
        // Alternately, so that both see the machine's load of the same moments.
        std::vector<double> list, ping;
        for (int round = 0; round < rounds; ++round) {
            list.push_back(Measure::milliseconds([&] { client.savedPrinters(); }));
            ping.push_back(Measure::milliseconds([&] { client.ping(); }));
        }
        Measure::report("getSavedPrinters, " + std::to_string(count) + " saved", Measure::median(list), "Peer.Ping",
                        Measure::median(ping));
    }
    measureSideBySide(client, registry);
    registry.clear();
    return 0;
}
