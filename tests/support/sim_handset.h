// sim_handset.h - kvn-sim as a daemon on a state directory and socket of its own, and kvn run against it.
#pragma once

#include <string>
#include <vector>

#include "process.h"

namespace kvn_test {

std::string kvn_bin(); // the built kvn ($KVN_TEST_KVN_BIN overrides)
// The words of $KVN_TEST_KVN_WRAPPER (an emulator's path and options for an arm64 kvn), then kvn_bin().
std::vector<std::string> kvn_command();
std::string kvn_sim_bin(); // the built kvn-sim ($KVN_TEST_SIM_BIN overrides)

class SimHandset {
public:
    // `kvn-sim start` on <dir>/state and <dir>/sim.sock with the scenario if any; the test fails if it does not start.
    explicit SimHandset(const std::string &scenario_json = "");
    ~SimHandset(); // kvn-sim stop; the directory is removed
    SimHandset(const SimHandset &) = delete;
    SimHandset &operator=(const SimHandset &) = delete;

    bool started() const { return started_; }
    const std::string &socket() const { return socket_; }
    std::string state_dir() const { return dir_.path() + "/state"; }
    const std::string &dir() const { return dir_.path(); }

    // Runs kvn with args; print flags shell 1, log 0 unless set by opt.env or the environment. Exit != 0 fails.
    ProcessResult kvn(const std::vector<std::string> &args, ProcessOptions opt = {}) const;
    // Runs `kvn-sim <args...> --socket <socket>`.
    ProcessResult ctl(const std::vector<std::string> &args, ProcessOptions opt = {}) const;
    // The journal as JSON lines (`kvn-sim journal`), and clearing it.
    std::vector<std::string> journal() const;
    void clear_journal() const;
    // Stops and starts the daemon again on the same state directory.
    bool restart();
    bool stop();
    bool start(const std::string &scenario_path = "");

private:
    void check_daemon_log() const;

    TempDir dir_;
    std::string socket_;
    bool started_ = false;
};

} // namespace kvn_test
