// Start-up time of the daemon, from exec to its bus name owned, against a
// minimal sdbus-c++ service (the system-log stand-in) started the same way:
// cold, its program and libraries first dropped from the page cache (as far
// as no other process holds them), and warm, the median of 20 starts.
// Run before anything else in the world starts either of them.
#include "bench/Measure.h"
#include "bench/WorldGuard.h"

#include <sdbus-c++/sdbus-c++.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

using namespace Kestrel::Bench;

namespace {

using Clock = std::chrono::steady_clock;
constexpr int WarmStarts = 20;
constexpr auto StartBound = std::chrono::seconds(10);

// Tells when a bus name gets an owner.
class NameWatch {
public:
    NameWatch()
        : connection(sdbus::createSystemBusConnection())
        , bus(sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus"))
    {
        bus->uponSignal("NameOwnerChanged")
            .onInterface("org.freedesktop.DBus")
            .call([this](const std::string& name, const std::string&, const std::string& owner) {
                std::lock_guard<std::mutex> lock(mutex);
                if (name == watched && !owner.empty() && !owned)
                    owned = Clock::now();
                changed.notify_all();
            });
        bus->finishRegistration();
        connection->enterEventLoopAsync();
    }
    ~NameWatch() { connection->leaveEventLoop(); }

    void watch(const std::string& name)
    {
        std::lock_guard<std::mutex> lock(mutex);
        watched = name;
        owned.reset();
    }

    std::optional<Clock::time_point> waitOwned()
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, StartBound, [this] { return owned.has_value(); });
        return owned;
    }

private:
    std::unique_ptr<sdbus::IConnection> connection;
    std::unique_ptr<sdbus::IProxy> bus;
    std::mutex mutex;
    std::condition_variable changed;
    std::string watched;
    std::optional<Clock::time_point> owned;
};

// The program and every library the loader maps for it.
std::vector<std::string> filesOf(const std::string& program)
{
    std::vector<std::string> files{program};
    const std::string command = "LD_TRACE_LOADED_OBJECTS=1 '" + program + "'";
    FILE* listing = ::popen(command.c_str(), "r");
    if (!listing)
        return files;
    char line[4096];
    while (std::fgets(line, sizeof line, listing)) {
        std::istringstream words(line);
        for (std::string word; words >> word;) {
            if (word.front() == '/')
                files.push_back(word);
        }
    }
    ::pclose(listing);
    return files;
}

void dropFromPageCache(const std::vector<std::string>& files)
{
    for (const auto& file : files) {
        const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            continue;
        ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
        ::close(fd);
    }
}

// Milliseconds from exec to the name owned; the program is stopped again.
double startOnce(NameWatch& names, const std::string& program, const std::string& busName)
{
    names.watch(busName);
    const auto start = Clock::now();
    const pid_t child = ::fork();
    if (child == 0) {
        const int quiet = ::open("/dev/null", O_WRONLY);
        ::dup2(quiet, STDOUT_FILENO);
        ::dup2(quiet, STDERR_FILENO);
        ::execl(program.c_str(), program.c_str(), nullptr);
        ::_exit(127);
    }
    const auto owned = names.waitOwned();
    ::kill(child, SIGTERM);
    ::waitpid(child, nullptr, 0);
    if (!owned) {
        std::fprintf(stderr, "%s did not take %s\n", program.c_str(), busName.c_str());
        std::exit(1);
    }
    return std::chrono::duration<double, std::milli>(*owned - start).count();
}

struct StartTimes {
    double cold;
    double warm;
};

StartTimes startTimes(NameWatch& names, const std::string& program, const std::string& busName)
{
    dropFromPageCache(filesOf(program));
    const double cold = startOnce(names, program, busName);
    std::vector<double> warm;
    for (int start = 0; start < WarmStarts; ++start)
        warm.push_back(startOnce(names, program, busName));
    return {cold, Measure::median(warm)};
}

} // namespace

int main()
{
    WorldGuard::require();
    const std::string daemon = std::getenv("KESTREL_DAEMON");
    const std::string anchor = std::string(std::getenv("KESTREL_BUILD_DIR")) + "/bench/system-log-stand-in";
    NameWatch names;
    const auto service = startTimes(names, daemon, "ru.zorv.print");
    const auto minimal = startTimes(names, anchor, "ru.quentis.SystemLogs");
    Measure::report("start-up to bus name, cold", service.cold, "minimal sdbus-c++ service, cold", minimal.cold);
    Measure::report("start-up to bus name, warm", service.warm, "minimal sdbus-c++ service, warm", minimal.warm);
    return 0;
}
