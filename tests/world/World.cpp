#include "tests/world/World.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace Kestrel::Test {

namespace {

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "";
}

// Output of a shell command; throws when it fails, because a world that
// cannot be reset would make every later result meaningless.
std::string shell(const std::string& command)
{
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe)
        throw std::runtime_error("cannot run: " + command);
    std::string output;
    char buffer[4096];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
        output.append(buffer, n);
    if (::pclose(pipe) != 0)
        throw std::runtime_error("failed: " + command + "\n" + output);
    return output;
}

std::string schedulerPidPath()
{
    return World::dir() + "/cupsd.pid";
}

bool acceptsConnections()
{
    const char* const socketPath = "/run/cups/cups.sock";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath, sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool connected = fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    if (fd >= 0)
        ::close(fd);
    return connected;
}

void clearDirectory(const std::string& path)
{
    for (const auto& entry : std::filesystem::directory_iterator(path))
        std::filesystem::remove_all(entry.path());
}

} // namespace

bool waitFor(const std::function<bool()>& predicate, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return predicate();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

bool World::available()
{
    return environment("KESTREL_WORLD") == "1" && ::geteuid() == 0;
}

bool World::requiredByCi()
{
    return environment("CI") == "true";
}

std::string World::unavailableReason()
{
    return "test world unavailable: run as root through tests/world/run-in-world.sh";
}

std::string World::dir()
{
    return environment("KESTREL_WORLD_DIR");
}

std::string World::printerSpool()
{
    return environment("KESTREL_PRINTER_SPOOL");
}

std::string World::printerUri()
{
    return environment("KESTREL_PRINTER_URI");
}

std::string World::scratchPath(const std::string& label)
{
    static std::atomic<int> counter{0};
    return dir() + "/" + std::to_string(::getpid()) + "-" + std::to_string(++counter) + "-" + label;
}

void World::reset()
{
    if (!schedulerRunning())
        startScheduler();
    removeAllQueues();
    wipeRegistry();
    clearPrinterSpool();
}

void World::removeAllQueues()
{
    for (const auto& queue : cupsQueues())
        shell("lpadmin -x '" + queue + "' 2>&1");
}

void World::wipeRegistry()
{
    clearDirectory("/var/lib/print");
}

void World::clearPrinterSpool()
{
    clearDirectory(printerSpool());
}

bool World::schedulerRunning()
{
    const pid_t pid = std::atoi(readFile(schedulerPidPath()).c_str());
    if (pid <= 0 || ::kill(pid, 0) != 0)
        return false;
    // Until pid 1 of the world reaps it, a stopped scheduler lingers as a zombie.
    const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    const auto state = stat.rfind(") ");
    return state != std::string::npos && stat.compare(state + 2, 1, "Z") != 0;
}

void World::stopScheduler()
{
    const pid_t pid = std::atoi(readFile(schedulerPidPath()).c_str());
    if (pid > 0)
        ::kill(pid, SIGTERM);
    if (!waitFor([] { return !schedulerRunning(); }))
        throw std::runtime_error("cupsd did not stop");
}

void World::startScheduler()
{
    // Started through the shell so that it becomes a child of the world's
    // pid 1, not of the test, and outlives the call.
    shell("cupsd -f >>'" + dir() + "/cupsd.log' 2>&1 & echo $! >'" + schedulerPidPath() + "'");
    if (!waitFor(acceptsConnections))
        throw std::runtime_error("cupsd did not start:\n" + readFile(dir() + "/cupsd.log"));
}

bool World::waitUntilQueuesReady()
{
    return waitFor([] {
        const auto queues = cupsQueues();
        return std::none_of(queues.begin(), queues.end(), [](const std::string& queue) {
            return shell("lpoptions -p '" + queue + "'").find("Local Raw Printer") != std::string::npos;
        });
    });
}

std::vector<std::string> World::cupsQueues()
{
    std::vector<std::string> queues;
    std::istringstream lines(shell("lpstat -e"));
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty())
            queues.push_back(line);
    }
    return queues;
}

std::vector<std::string> World::printedDocuments()
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(printerSpool()))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string World::readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void World::writeFile(const std::string& path, const std::string& text)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    if (!file.flush())
        throw std::runtime_error("cannot write " + path);
}

void World::removeFile(const std::string& path)
{
    std::filesystem::remove(path);
}

bool World::hasSanitizerReport(const std::string& text)
{
    for (const char* marker : {"runtime error:", "AddressSanitizer", "LeakSanitizer"}) {
        if (text.find(marker) != std::string::npos)
            return true;
    }
    return false;
}

} // namespace Kestrel::Test
