// sim_handset.cpp - kvn-sim as a fixture of end-to-end tests.
#include "sim_handset.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace kvn_test {
namespace {

std::string from_env_or(const char *var, const char *fallback)
{
    const char *v = getenv(var);
    return v && *v ? v : fallback;
}

} // namespace

std::string kvn_bin() { return from_env_or("KVN_TEST_KVN_BIN", KVN_TEST_KVN_BIN); }
std::vector<std::string> kvn_command()
{
    std::vector<std::string> argv;
    std::istringstream words(from_env_or("KVN_TEST_KVN_WRAPPER", ""));
    for (std::string w; words >> w;)
        argv.push_back(w);
    argv.push_back(kvn_bin());
    return argv;
}
std::string kvn_sim_bin() { return from_env_or("KVN_TEST_SIM_BIN", KVN_TEST_SIM_BIN); }

SimHandset::SimHandset(const std::string &scenario_json) : socket_(dir_.path() + "/sim.sock")
{
    std::string scenario;
    if (!scenario_json.empty()) {
        scenario = dir_.path() + "/scenario.json";
        std::ofstream(scenario) << scenario_json;
    }
    if (!start(scenario))
        ADD_FAILURE() << "kvn-sim did not start on " << socket_;
}

SimHandset::~SimHandset()
{
    if (started_)
        stop();
}

bool SimHandset::start(const std::string &scenario_path)
{
    std::vector<std::string> args = {"start", "--state", state_dir()};
    if (!scenario_path.empty())
        args.insert(args.end(), {"--scenario", scenario_path});
    auto r = ctl(args);
    if (r.exit_code != 0)
        ADD_FAILURE() << "kvn-sim start: " << r.out << r.err;
    started_ = r.exit_code == 0;
    return started_;
}

bool SimHandset::stop()
{
    auto r = ctl({"stop"});
    started_ = false;
    check_daemon_log();
    return r.exit_code == 0;
}

// A sanitizer report in the daemon's <state>/kvn-sim.log fails the test that ran it.
void SimHandset::check_daemon_log() const
{
    std::stringstream log;
    log << std::ifstream(state_dir() + "/kvn-sim.log").rdbuf();
    for (const char *marker : {"ERROR: AddressSanitizer", "WARNING: ThreadSanitizer", "runtime error:",
                               "ERROR: LeakSanitizer"})
        if (log.str().find(marker) != std::string::npos) {
            ADD_FAILURE() << "kvn-sim reported a sanitizer finding:\n" << log.str();
            return;
        }
}

bool SimHandset::restart()
{
    stop();
    return start();
}

ProcessResult SimHandset::kvn(const std::vector<std::string> &args, ProcessOptions opt) const
{
    std::vector<std::string> argv = kvn_command();
    argv.insert(argv.end(), args.begin(), args.end());
    opt.env["KVN_SIM_SOCKET"] = socket_;
    // Print flags pinned unless opt.env or this process's environment (a benchmark's) sets them.
    for (const auto &[name, pinned] : {std::pair<const char *, const char *>{"PELMOX_SHELL_PRINT_FLAG", "1"},
                                       {"PELMOX_PRINT_FLAG", "0"}})
        if (!getenv(name))
            opt.env.try_emplace(name, pinned);
    auto r = run_process(argv, opt);
    // kvn exits 0 whatever happened; anything else is a crash or a sanitizer report.
    if (r.exit_code != 0 || r.timed_out)
        ADD_FAILURE() << "kvn exited with " << r.exit_code << (r.timed_out ? " (timed out)" : "") << ":\n"
                      << r.err;
    return r;
}

ProcessResult SimHandset::ctl(const std::vector<std::string> &args, ProcessOptions opt) const
{
    std::vector<std::string> argv = {kvn_sim_bin()};
    argv.insert(argv.end(), args.begin(), args.end());
    argv.insert(argv.end(), {"--socket", socket_});
    opt.env["KVN_SIM_SOCKET"] = socket_;
    return run_process(argv, opt);
}

std::vector<std::string> SimHandset::journal() const
{
    auto r = ctl({"journal"});
    std::vector<std::string> lines;
    std::istringstream in(r.out);
    for (std::string line; std::getline(in, line);)
        if (!line.empty())
            lines.push_back(line);
    return lines;
}

void SimHandset::clear_journal() const { ctl({"journal", "--clear"}); }

} // namespace kvn_test
