// sim_replay_e2e_test.cpp - kvn runs recorded against one handset
// (KVN_QMI_RECORD) print the same when another handset, whose own state
// differs, plays the recording back.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include <nlohmann/json.hpp>

#include "sim_handset.h"

namespace {
// Handle numbers and the UIM client's address differ from run to run.
std::string masked(const kvn_test::ProcessResult &r)
{
    static const std::regex pointer("0x[0-9a-f]+");
    return std::regex_replace(kvn_test::masked_out(r), pointer, "0xP");
}
} // namespace

TEST(ReplayE2e, ARecordedRunPrintsTheSameOnAnotherHandset)
{
    const std::vector<std::vector<std::string>> runs = {{"5", "10", "4", "1"}, {"9", "0", "0"}};
    const auto differs = nlohmann::json::parse(R"({"vs_stats": {"0": {"82": "01"}}})");
    kvn_test::SimHandset a;
    ASSERT_TRUE(a.started());
    kvn_test::ProcessOptions rec;
    rec.env["KVN_QMI_RECORD"] = a.dir() + "/record.jsonl";
    std::vector<std::string> recorded;
    for (const auto &r : runs)
        recorded.push_back(masked(a.kvn(r, rec)));
    auto doc = differs;
    std::ifstream in(*rec.env["KVN_QMI_RECORD"]);
    for (std::string line; std::getline(in, line);)
        doc["replay"].push_back(nlohmann::json::parse(line));
    if (!doc.contains("replay"))
        GTEST_SKIP() << "kvn wrote no record: its host library does not support KVN_QMI_RECORD";
    kvn_test::SimHandset own(differs.dump()), b(doc.dump());
    ASSERT_TRUE(own.started() && b.started());
    EXPECT_NE(masked(own.kvn(runs[1])), recorded[1]) << "the handsets do not differ";
    for (size_t i = 0; i < runs.size(); ++i)
        EXPECT_EQ(masked(b.kvn(runs[i])), recorded[i]) << runs[i][0];
}
