// extend_journal.h - helpers for in-process tests of the extend client: one
// kvn-sim for the whole test program (the client opens once per process and
// keeps its connection), and the sim's journal read back as extend requests.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "sim_handset.h"

namespace extend_test {

// One extend request 0x0002 as the sim received it.
struct ExtendRequest {
    uint32_t cmd_id = 0;
    uint32_t data_len = 0;
    bool has_data = false;
    std::vector<uint8_t> data; // TLV 0x10 as sent (512 bytes when present)
};

inline std::vector<uint8_t> from_hex(const std::string &hex)
{
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return out;
}

inline uint32_t le32(const std::vector<uint8_t> &b, size_t off)
{
    return b.size() < off + 4 ? 0xFFFFFFFFu
                              : uint32_t(b[off]) | uint32_t(b[off + 1]) << 8 | uint32_t(b[off + 2]) << 16 |
                                    uint32_t(b[off + 3]) << 24;
}

inline uint16_t le16(const std::vector<uint8_t> &b, size_t off)
{
    return b.size() < off + 2 ? 0xFFFF : uint16_t(b[off] | b[off + 1] << 8);
}

// The sim shared by every test of the program. It is started before the
// first test and KVN_SIM_SOCKET points at it before anything is sent.
class SimEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
        sim_ = std::make_unique<kvn_test::SimHandset>();
        setenv("KVN_SIM_SOCKET", sim_->socket().c_str(), 1);
        // The traces of the modules are not what these tests look at.
        setenv("PELMOX_SHELL_PRINT_FLAG", "0", 1);
        setenv("PELMOX_PRINT_FLAG", "0", 1);
    }
    void TearDown() override { sim_.reset(); }
    static kvn_test::SimHandset &sim() { return *sim_; }

private:
    static inline std::unique_ptr<kvn_test::SimHandset> sim_;
};

inline kvn_test::SimHandset &sim() { return SimEnvironment::sim(); }

// The extend requests journalled since the last clear.
inline std::vector<ExtendRequest> extend_requests()
{
    std::vector<ExtendRequest> out;
    for (const auto &line : sim().journal()) {
        auto j = nlohmann::json::parse(line);
        if (j["service"] != 0xFFE4 || j["msg_id"] != 2)
            continue;
        ExtendRequest r;
        for (const auto &tlv : j["tlvs"]) {
            auto bytes = from_hex(tlv["hex"].get<std::string>());
            int type = tlv["type"];
            if (type == 1)
                r.cmd_id = le32(bytes, 0);
            else if (type == 2)
                r.data_len = le32(bytes, 0);
            else if (type == 0x10) {
                r.has_data = true;
                r.data = bytes;
            }
        }
        out.push_back(r);
    }
    return out;
}

// Merges a scenario document into the running sim.
inline void load_scenario(const std::string &json)
{
    std::string path = sim().dir() + "/load.json";
    std::ofstream(path) << json;
    auto r = sim().ctl({"load", path});
    ASSERT_EQ(r.exit_code, 0) << r.out << r.err;
}

} // namespace extend_test
