// device_tests_e2e.h - helpers shared by the end-to-end tests of the device test commands.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "../shell/help_text.h"
#include "sim_handset.h"

namespace devtests {

using help_text::for_group;
using kvn_test::masked_out;
using kvn_test::ProcessOptions;
using kvn_test::ProcessResult;
using kvn_test::SimHandset;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// What the command prints for its operator: the vendor transport's debug lines and the RIL traces left out.
inline std::string tool_lines(const std::string &out)
{
    static const char *const debug[] = {"RIL[", "PELMOX_QMI_NV:", "qmi_client_get_service_list",
                                        "pelmox_extend_qmi_send_sync resp_len", "pelmox_extend_qmi_handle_req_cb"};
    std::string kept;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);)
        if (std::none_of(std::begin(debug), std::end(debug), [&](const char *p) { return line.rfind(p, 0) == 0; }) &&
            line.find(" QMI service framework error. Check client") == std::string::npos)
            kept += line + "\n";
    if (!out.empty() && out.back() != '\n' && !kept.empty())
        kept.pop_back();
    return kept;
}

// The extend transport's debug lines of a run's first send (client handle masked), and of each send.
inline const std::string k_open = "PELMOX_QMI_NV: qmi_client_get_service_list() returned 0 num_services = 1\n"
                                  "qmi_client_get_service_list, err = 0, num_entries = 1, num_services = 1"
                                  "qmi_client_init, err = 0, handle = H, client_handle = 0QMI client inited\n";
inline std::string send_ok(int len)
{
    return "pelmox_extend_qmi_send_sync resp_len:" + std::to_string(len) +
           "\npelmox_extend_qmi_handle_req_cb result:0\n";
}
inline std::string error_note(int code) { return "\nnote: Error happen! error_code(" + std::to_string(code) + ")\n"; }
inline const std::string k_too_few = "\nnote: Too few parameters, Pls refer to the following cmd:\n";
inline bool contains(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// masked_out with pointers shown as P as well.
inline std::string masked(const ProcessResult &r)
{
    static const std::regex ptr(R"((0x[0-9a-f]+|\(nil\)))");
    return std::regex_replace(masked_out(r), ptr, "P");
}

inline ProcessOptions shell_flag(const char *value) { return {{{"PELMOX_SHELL_PRINT_FLAG", value}}}; }

// Runs kvn with no handset to talk to, the log flag 0.
inline ProcessResult kvn_alone(const std::vector<std::string> &args, const char *shell_flag_value = "1")
{
    ProcessOptions opt = shell_flag(shell_flag_value);
    opt.env["KVN_SIM_SOCKET"] = "/nonexistent/kvn-sim.sock";
    opt.env["PELMOX_PRINT_FLAG"] = "0";
    auto argv = kvn_test::kvn_command();
    argv.insert(argv.end(), args.begin(), args.end());
    return kvn_test::run_process(argv, opt);
}

// A command that prints `always`, then `note` only with the shell flag at its default, then its group's help.
struct FlagCase {
    std::vector<std::string> args;
    std::string always, note;
    int group;
};

inline void expect_flag_cases(const SimHandset &sim, const std::vector<FlagCase> &cases)
{
    for (const auto &c : cases) {
        SCOPED_TRACE(c.args.size() > 1 ? c.args[1].substr(0, 16) : c.args[0]);
        EXPECT_EQ(sim.kvn(c.args).out, c.always + c.note + for_group(c.group));
        EXPECT_EQ(sim.kvn(c.args, shell_flag("0")).out, c.always + for_group(c.group));
    }
}

inline std::string status_of(const SimHandset &sim) { return sim.ctl({"status"}).out; }

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
    return kvn_test::wait_until([&] { return contains(status_of(sim), "service extend 0xffe4 instance 0: up"); });
}

inline std::string hex_of(const std::string &bytes)
{
    std::string out;
    for (unsigned char c : bytes)
        out += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
    return out;
}

// The journal lines that carry `key` ("at", "diag"), parsed.
inline std::vector<nlohmann::json> journal_of(const SimHandset &sim, const char *key)
{
    std::vector<nlohmann::json> out;
    for (const auto &line : sim.journal())
        if (auto j = nlohmann::json::parse(line); j.contains(key))
            out.push_back(j);
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

inline void load(const SimHandset &sim, const std::string &json)
{
    std::ofstream(sim.dir() + "/load.json") << json;
    ASSERT_EQ(sim.ctl({"load", sim.dir() + "/load.json"}).exit_code, 0);
}

inline std::vector<std::string> args_of(std::vector<std::string> head, size_t n, const std::string &value)
{
    head.insert(head.end(), n, value);
    return head;
}

} // namespace devtests
