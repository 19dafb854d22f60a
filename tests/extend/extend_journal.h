// extend_journal.h - helpers for tests of the extend client: one kvn-sim for
// the whole in-process test program (the client opens once per process and
// keeps its connection), and a sim's journal read back as extend requests.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "sim_handset.h"

namespace extend_test {

// One extend request 0x0002 as the sim received it.
struct ExtendRequest {
    uint32_t cmd_id = 0, data_len = 0;
    std::vector<uint8_t> data; // TLV 0x10 as sent (512 bytes when present)
};

inline uint32_t le32(const std::vector<uint8_t> &b, size_t off)
{
    uint32_t v = 0;
    for (size_t i = 4; i-- > 0;)
        v = v << 8 | (off + i < b.size() ? b[off + i] : 0xFF);
    return v;
}
inline uint16_t le16(const std::vector<uint8_t> &b, size_t off) { return uint16_t(le32(b, off)); }

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
inline std::vector<ExtendRequest> extend_requests(const kvn_test::SimHandset &from = sim())
{
    std::vector<ExtendRequest> out;
    for (const auto &line : from.journal()) {
        auto j = nlohmann::json::parse(line);
        if (j["service"] != 0xFFE4 || j["msg_id"] != 2)
            continue;
        ExtendRequest r;
        for (const auto &tlv : j["tlvs"]) {
            std::string hex = tlv["hex"];
            std::vector<uint8_t> b;
            for (size_t i = 0; i + 1 < hex.size(); i += 2)
                b.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
            int type = tlv["type"];
            if (type == 1)
                r.cmd_id = le32(b, 0);
            else if (type == 2)
                r.data_len = le32(b, 0);
            else if (type == 0x10)
                r.data = b;
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
