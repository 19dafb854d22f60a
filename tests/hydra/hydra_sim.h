// hydra_sim.h - helpers shared by the statistics tests: a kvn-sim's journal
// read back as requests, its HYDRA log lines, a bounded wait, and a packer
// for statistic records.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sim_handset.h"

namespace hydra_test {

// One QMI request as the sim received it: TLV type -> lower-case hex.
struct Request {
    uint32_t service = 0;
    uint16_t msg_id = 0;
    std::map<int, std::string> tlvs;
};

inline std::vector<Request> requests(const kvn_test::SimHandset &sim, uint32_t service)
{
    std::vector<Request> out;
    for (const auto &line : sim.journal()) {
        auto j = nlohmann::json::parse(line);
        if (j["service"] != service)
            continue;
        Request r{service, j["msg_id"].get<uint16_t>(), {}};
        for (const auto &t : j["tlvs"])
            r.tlvs[t["type"].get<int>()] = t["hex"].get<std::string>();
        out.push_back(r);
    }
    return out;
}

// The text of the HYDRA lines of the handset log ("<function>: <text>").
inline std::vector<std::string> hydra_log(const kvn_test::SimHandset &sim, const std::string &tag = "HYDRA")
{
    std::vector<std::string> out;
    std::istringstream in(sim.ctl({"logcat"}).out);
    std::string line, key = " " + tag + ": ";
    while (std::getline(in, line))
        if (auto p = line.find(key); p != std::string::npos)
            out.push_back(line.substr(p + key.size()));
    return out;
}

inline size_t count_lines(const std::vector<std::string> &lines, const std::string &text)
{
    size_t n = 0;
    for (const auto &l : lines)
        n += l == text;
    return n;
}

using kvn_test::wait_until;

inline void load(const kvn_test::SimHandset &sim, const std::string &json)
{
    std::string path = sim.dir() + "/load.json";
    std::ofstream(path) << json;
    auto r = sim.ctl({"load", path});
    ASSERT_EQ(r.exit_code, 0) << r.out << r.err;
}

// Little-endian bytes of a statistic record, written as hex.
class Pack {
public:
    Pack &u8(uint8_t v) { return raw(&v, 1); }
    Pack &u16(uint16_t v) { return raw(&v, 2); }
    Pack &u32(uint32_t v) { return raw(&v, 4); }
    Pack &f32(float v) { return raw(&v, 4); }
    Pack &fill(size_t n, uint8_t v)
    {
        while (n--)
            u8(v);
        return *this;
    }
    std::string hex() const { return hex_; }
    size_t size() const { return hex_.size() / 2; }

private:
    Pack &raw(const void *p, size_t n)
    {
        static const char d[] = "0123456789abcdef";
        for (size_t i = 0; i < n; ++i) {
            uint8_t b = static_cast<const uint8_t *>(p)[i];
            hex_ += d[b >> 4];
            hex_ += d[b & 15];
        }
        return *this;
    }
    std::string hex_;
};

} // namespace hydra_test
