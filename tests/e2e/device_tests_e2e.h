// device_tests_e2e.h - helpers shared by the end-to-end tests of the device
// test commands: the tool's output without the transport's and the modules'
// debug lines, the sim's status counters and device paths, waiting for a
// restarted modem, and hex.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "../shell/help_text.h"
#include "sim_handset.h"

namespace devtests {

using kvn_test::ProcessOptions;
using kvn_test::ProcessResult;
using kvn_test::SimHandset;

// What the command prints for its operator: the lines of the vendor
// transport's own debug output and the RIL traces are left out.
inline std::string tool_lines(const std::string &out)
{
    static const char *const debug_prefixes[] = {"RIL[", "PELMOX_QMI_NV:", "qmi_client_get_service_list",
                                                 "pelmox_extend_qmi_send_sync resp_len",
                                                 "pelmox_extend_qmi_handle_req_cb"};
    std::string kept;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line)) {
        bool debug = false;
        for (const char *p : debug_prefixes)
            debug = debug || line.rfind(p, 0) == 0;
        debug = debug || line.find(" QMI service framework error. Check client") != std::string::npos;
        if (!debug)
            kept += line + "\n";
    }
    if (!out.empty() && out.back() != '\n' && !kept.empty())
        kept.pop_back();
    return kept;
}

// The extend transport's debug lines of the first send of a run (client
// handle masked), and of each send.
inline const std::string k_open = "PELMOX_QMI_NV: qmi_client_get_service_list() returned 0 num_services = 1\n"
                                  "qmi_client_get_service_list, err = 0, num_entries = 1, num_services = 1"
                                  "qmi_client_init, err = 0, handle = H, client_handle = 0QMI client inited\n";
inline std::string send_ok(int len)
{
    return "pelmox_extend_qmi_send_sync resp_len:" + std::to_string(len) +
           "\npelmox_extend_qmi_handle_req_cb result:0\n";
}

inline ProcessOptions shell_flag(const char *value)
{
    ProcessOptions o;
    o.env["PELMOX_SHELL_PRINT_FLAG"] = value;
    return o;
}

// A command whose whole output is `on` with the shell flag at its default and
// `off` with the flag 0.
struct FlagCase {
    std::vector<std::string> args;
    std::string on, off;
};

inline void expect_flag_cases(const SimHandset &sim, const std::vector<FlagCase> &cases)
{
    for (const auto &c : cases) {
        std::string joined;
        for (const auto &a : c.args)
            joined += a.substr(0, 16) + " ";
        SCOPED_TRACE(joined);
        EXPECT_EQ(sim.kvn(c.args).out, c.on);
        EXPECT_EQ(sim.kvn(c.args, shell_flag("0")).out, c.off);
    }
}

inline std::string status_of(const SimHandset &sim) { return sim.ctl({"status"}).out; }

// The status line of the modem action counters.
inline std::string counters(const SimHandset &sim)
{
    std::istringstream in(status_of(sim));
    for (std::string line; std::getline(in, line);)
        if (line.rfind("modem restarts ", 0) == 0)
            return line;
    return "(no counter line)";
}

// Waits until a restarted modem serves again (bounded; not a timing check).
inline bool wait_modem_up(const SimHandset &sim)
{
    for (int i = 0; i < 200; ++i) {
        if (status_of(sim).find("service extend 0xffe4 instance 0: up") != std::string::npos)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

inline std::string hex_of(const std::string &bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out.push_back(digits[c >> 4]);
        out.push_back(digits[c & 15]);
    }
    return out;
}

// The journal lines that carry `key` ("at", "diag"), parsed.
inline std::vector<nlohmann::json> journal_of(const SimHandset &sim, const char *key)
{
    std::vector<nlohmann::json> out;
    for (const auto &line : sim.journal()) {
        auto j = nlohmann::json::parse(line);
        if (j.contains(key))
            out.push_back(j);
    }
    return out;
}

// `kvn-sim efs get 0 PATH` as hex, or "absent".
inline std::string efs_hex(const SimHandset &sim, const std::string &path)
{
    auto r = sim.ctl({"efs", "get", "0", path});
    return r.exit_code == 0 ? hex_of(r.out) : "absent";
}

inline std::string prop(const SimHandset &sim, const std::string &key)
{
    auto r = sim.ctl({"prop", "get", key});
    return r.exit_code == 0 ? r.out.substr(0, r.out.find('\n')) : "(unset)";
}

} // namespace devtests
