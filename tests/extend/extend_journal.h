// extend_journal.h - the modem layers' tests: one kvn-sim per program, its journal and log, their includes.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "sim_handset.h"

namespace extend_test {

using Bytes = std::vector<uint8_t>;
using kvn_test::wait_until;

// Started before the first test (clients open once per process); terminal traces off unless a test asks.
class SimEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
        sim_ = std::make_unique<kvn_test::SimHandset>();
        setenv("KVN_SIM_SOCKET", sim_->socket().c_str(), 1);
        setenv("PELMOX_SHELL_PRINT_FLAG", "0", 1);
        setenv("PELMOX_PRINT_FLAG", "0", 1);
    }
    void TearDown() override { sim_.reset(); }
    static inline std::unique_ptr<kvn_test::SimHandset> sim_;
};

inline kvn_test::SimHandset &sim() { return *SimEnvironment::sim_; }

inline Bytes unhex(const std::string &hex)
{
    Bytes b;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        b.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return b;
}

inline std::string to_hex(const Bytes &b)
{
    std::string s;
    for (uint8_t v : b)
        s += {"0123456789abcdef"[v >> 4], "0123456789abcdef"[v & 15]};
    return s;
}

// Little-endian field of a payload; bytes past its end read as 0xFF.
inline uint32_t le32(const Bytes &b, size_t off)
{
    uint32_t v = 0;
    for (size_t i = 4; i-- > 0;)
        v = v << 8 | (off + i < b.size() ? b[off + i] : 0xFF);
    return v;
}
inline uint16_t le16(const Bytes &b, size_t off) { return uint16_t(le32(b, off)); }

// The values' bytes one after another (the hosts are little-endian).
template <typename... T> Bytes le_bytes(T... v)
{
    Bytes b;
    (b.insert(b.end(), reinterpret_cast<const uint8_t *>(&v), reinterpret_cast<const uint8_t *>(&v) + sizeof(v)), ...);
    return b;
}

// One QMI request as the handset received it: TLV type -> lower-case hex.
struct Request {
    uint16_t msg_id = 0;
    std::map<int, std::string> tlvs;
    bool operator==(const Request &) const = default;
};

inline std::vector<Request> requests(const kvn_test::SimHandset &from, uint32_t service)
{
    std::vector<Request> out;
    for (const auto &line : from.journal()) {
        auto j = nlohmann::json::parse(line);
        if (j["service"] != service)
            continue;
        Request r{j["msg_id"].get<uint16_t>(), {}};
        for (const auto &t : j["tlvs"])
            r.tlvs[t["type"].get<int>()] = t["hex"].get<std::string>();
        out.push_back(r);
    }
    return out;
}

// An extend request 0x0002: command (TLV 0x01), length (0x02), payload (0x10).
struct ExtendRequest {
    uint32_t cmd_id = 0, data_len = 0;
    Bytes data;
    bool operator==(const ExtendRequest &) const = default;
};

inline std::vector<ExtendRequest> extend_requests(const kvn_test::SimHandset &from = sim())
{
    std::vector<ExtendRequest> out;
    for (auto &r : requests(from, 0xFFE4))
        if (r.msg_id == 2)
            out.push_back({le32(unhex(r.tlvs[1]), 0), le32(unhex(r.tlvs[2]), 0), unhex(r.tlvs[0x10])});
    return out;
}

// Merges a scenario document into a running handset.
inline void load(const kvn_test::SimHandset &into, const std::string &json)
{
    std::string path = into.dir() + "/load.json";
    std::ofstream(path) << json;
    auto r = into.ctl({"load", path});
    ASSERT_EQ(r.exit_code, 0) << r.out << r.err;
}

// The text of a tag's lines of the handset log ("<function>: <text>").
inline std::vector<std::string> hydra_log(const kvn_test::SimHandset &from, const std::string &tag = "HYDRA")
{
    std::vector<std::string> out;
    std::istringstream in(from.ctl({"logcat"}).out);
    std::string line, key = " " + tag + ": ";
    while (std::getline(in, line))
        if (auto p = line.find(key); p != std::string::npos)
            out.push_back(line.substr(p + key.size()));
    return out;
}

inline size_t count_lines(const std::vector<std::string> &lines, const std::string &text)
{
    return size_t(std::count(lines.begin(), lines.end(), text));
}

// What fn printed to stdout, with the terminal traces on when traced is set.
inline std::string captured(const std::function<void()> &fn, bool traced = false)
{
    setenv("PELMOX_SHELL_PRINT_FLAG", traced ? "1" : "0", 1);
    fflush(stdout);
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    setenv("PELMOX_SHELL_PRINT_FLAG", "0", 1);
    return out;
}

} // namespace extend_test
