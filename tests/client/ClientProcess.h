#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/world/ChildProcess.h"

namespace Kestrel::Test {

// The built kestrel-print, run with the given arguments and its output kept
// in files of the world's scratch directory.
class ClientProcess {
public:
    struct Result {
        int exitCode;
        std::string out;
        std::string err;
    };

    // Runs the client to its end, from the given working directory if any.
    static Result run(const std::vector<std::string>& arguments, const std::string& directory = "");

    explicit ClientProcess(const std::vector<std::string>& arguments, const std::string& directory = "");

    void signal(int number);
    // The exit code (128 + signal number when killed), nullopt on time-out.
    std::optional<int> waitForExit(std::chrono::milliseconds timeout = std::chrono::seconds(30));
    std::string stdoutText() const;
    std::string stderrText() const;

private:
    std::string stdoutPath;
    std::string stderrPath;
    std::unique_ptr<ChildProcess> process;
};

} // namespace Kestrel::Test
