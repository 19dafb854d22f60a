// process.h - runs a program as a child process and captures what it prints.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kvn_test {

struct ProcessResult {
    int exit_code = -1;     // exit status, or 128 + signal when killed
    bool timed_out = false; // killed because it ran past its time limit
    std::string out, err;
};

struct ProcessOptions {
    // Environment changes on top of the test's own: a value sets the variable, std::nullopt removes it.
    std::map<std::string, std::optional<std::string>> env;
    std::chrono::milliseconds timeout{60000}; // stdin is /dev/null
};

// Runs argv[0] with argv and waits for it (killing it after the timeout).
ProcessResult run_process(const std::vector<std::string> &argv, const ProcessOptions &opt = {});

// A fresh directory under $TMPDIR (or /tmp), removed with its content when the object goes away.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

// Replaces the line number in "RIL[name:N]" and "SUB[...][file:N]" with "N": traces compare without pinning them.
std::string mask_trace_lines(const std::string &text);

// A kvn run's stdout with mask_trace_lines applied and the transport's client handle shown as "H".
std::string masked_out(const ProcessResult &r);

// Polls pred every 10 ms until it holds or the timeout passes; says whether it held.
bool wait_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout = std::chrono::seconds(30));

} // namespace kvn_test
