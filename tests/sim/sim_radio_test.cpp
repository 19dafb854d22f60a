// sim_radio_test.cpp - kvn-sim's radio side in-process: the vs_stats and
// sar_dsi scenario keys (a load replaces only what it names), the vendor
// statistics, SAR, NAS and UIM services' answers to good and malformed
// requests.
#include <gtest/gtest.h>

#include "handset.h"
#include "process.h"
#include "scenario.h"
#include "services/services.h"
#include "tlv.h"

using namespace kvn_sim;

namespace {

class RadioTest : public ::testing::Test {
protected:
    kvn_test::TempDir dir;
    Handset h{dir.path()};

    void SetUp() override
    {
        std::string err;
        ASSERT_TRUE(h.init(&err)) << err;
        register_all_services(h);
    }
    // The response TLVs of one request to a service.
    std::vector<Tlv> ask(uint32_t service, uint16_t msg, const std::string &hex)
    {
        last_ = *from_hex(hex);
        reply_ = h.services.find(service)->service->handle(QmiRequest{1, msg, 1, last_});
        auto t = parse_tlvs(reply_);
        EXPECT_TRUE(t);
        return t ? *t : std::vector<Tlv>{};
    }
    static std::string result(const std::vector<Tlv> &t)
    {
        const Tlv *r = find_tlv(t, 0x02);
        return r ? to_hex(Bytes(r->value.begin(), r->value.end())) : "none";
    }
    Bytes last_, reply_;
};

// The statistics service answers the records of each asked id it holds, in
// the order asked, as the scenario gave them; a load replaces only the
// pairs it names; malformed requests are refused.
TEST_F(RadioTest, StatisticsAnswers)
{
    std::string err;
    ASSERT_TRUE(apply_scenario(h, nlohmann::json::parse(R"({"vs_stats": {"1": {
        "82": "a1a2", "7": {"records": [{"sub": 0, "id": 9, "data": ""}, {"sub": 5, "id": 7, "data": "ff"}]}}}})"),
                               &err))
        << err;
    EXPECT_EQ(h.radio.vs_stats[0].at(82)[0].data.size(), 75u); // the other subscription kept its default
    // Subscription 1, ids 7, 4242 (unknown), 82.
    auto t = ask(0xE4, 0x0207, "01 0200 0100" "02 0200 0500" "03 0d00 03 07000000 92100000 52000000");
    EXPECT_EQ(result(t), "00000000");
    const Tlv *recs = find_tlv(t, 0x10);
    ASSERT_TRUE(recs);
    EXPECT_EQ(to_hex(Bytes(recs->value.begin(), recs->value.end())),
              "03" "0000" "0000" "09000000" "0000"
              "0500" "0000" "07000000" "0100" "ff"
              "0100" "0000" "52000000" "0200" "a1a2");
    // A subscription the handset does not have: no records.
    t = ask(0xE4, 0x0207, "01 0200 0200" "02 0200 0500" "03 0500 01 52000000");
    EXPECT_EQ(to_hex(Bytes(find_tlv(t, 0x10)->value.begin(), find_tlv(t, 0x10)->value.end())), "00");

    t = ask(0xE4, 0x0003, "01 0400 02000000" "02 0100 01" "10 0100 00");
    EXPECT_EQ(result(t), "00000000");
    ASSERT_TRUE(h.radio.vs_features.count(2));
    EXPECT_EQ(h.radio.vs_features[2].enable, 1);
    EXPECT_EQ(h.radio.vs_features[2].extra, 0);

    const std::pair<uint16_t, const char *> malformed[] = {
        {0x0207, "01 0200 0000" "02 0200 0100" "03 0500 02 52000000"}, // count says 2, one id
        {0x0207, "01 0200 0000" "03 0500 01 52000000"},                // no request number
        {0x0207, "01 0100 00" "02 0200 0100" "03 0500 01 52000000"},   // one-byte subscription
        {0x0003, "01 0400 02000000"},                                  // no TLV 0x02
        {0x0003, "01 0400 02000000" "02 0200 0101"},                   // two-byte TLV 0x02
        {0x0207, "01 0900 00"},                                        // TLV runs past the end
    };
    for (const auto &[msg, hex] : malformed)
        EXPECT_EQ(result(ask(0xE4, msg, hex)), "01000100") << hex;
    EXPECT_EQ(result(ask(0xE4, 0x0100, "")), "01004700");
}

// SAR sets and reports the DSI (u32 on the wire), or leaves TLV 0x10 out when
// the scenario says null; NAS answers binding and registration, and refuses
// a bind that is not one byte.
TEST_F(RadioTest, SarAndNasAnswers)
{
    EXPECT_EQ(result(ask(0x11, 0x0001, "01 0400 08000000")), "00000000");
    auto t = ask(0x11, 0x0002, "");
    ASSERT_TRUE(find_tlv(t, 0x10));
    EXPECT_EQ(to_hex(Bytes(find_tlv(t, 0x10)->value.begin(), find_tlv(t, 0x10)->value.end())), "08000000");
    EXPECT_EQ(result(ask(0x11, 0x0001, "01 0100 08")), "01000100");
    std::string err;
    ASSERT_TRUE(apply_scenario(h, nlohmann::json::parse(R"({"sar_dsi": null})"), &err));
    t = ask(0x11, 0x0002, "");
    EXPECT_EQ(result(t), "00000000");
    EXPECT_FALSE(find_tlv(t, 0x10));

    EXPECT_EQ(result(ask(3, 0x0045, "01 0100 01")), "00000000");
    EXPECT_EQ(result(ask(3, 0x0045, "01 0400 01000000")), "01000100");
    EXPECT_EQ(result(ask(3, 0x0045, "01 0100 03")), "01003000");
    EXPECT_EQ(result(ask(3, 0x0003, "13 0100 00")), "00000000");
    EXPECT_EQ(result(ask(3, 0x0020, "")), "01004700");
}

// Malformed UIM requests are refused with the malformed-message error and
// leave the card and the eUICC as they were: an APDU whose length field
// disagrees with its bytes (here an eUICC memory reset) is not run.
TEST_F(RadioTest, MalformedUimRequestsChangeNothing)
{
    std::string err;
    ASSERT_TRUE(apply_scenario(h, nlohmann::json::parse(R"({"uim": {"slots": {"1": {}, "2": {"selected": "euicc",
        "euicc": {"eid": "89049032123451234512345678901234", "profiles": 2}}}}})"),
                               &err))
        << err;
    const std::string isdr = "10 1100 10 a0000005591010ffffffff8900000100";
    auto t = ask(11, 0x42, "01 0100 02" + isdr);
    ASSERT_EQ(result(t), "00000000");
    const std::string reset = "80e29100 03 bf3400"; // 8 bytes
    const std::pair<uint16_t, std::string> malformed[] = {
        {0x3B, "01 0100 02" "10 0100 01" "02 0a00 0900" + reset},   // claims 9, carries 8
        {0x3B, "01 0100 02" "10 0100 01" "02 0a00 0700" + reset},   // claims 7, carries 8
        {0x3B, "01 0100 02" "10 0100 01" "02 0100 08"},             // no room for the length
        {0x3B, "01 0100 02" "10 0200 0100" "02 0a00 0800" + reset}, // two-byte channel
        {0x3B, "01 0200 0200" "10 0100 01" "02 0a00 0800" + reset}, // two-byte slot
        {0x30, "01 0200 0100"},                                     // power off, two-byte slot
        {0x31, "01 0100 01" "10 0200 0000"},                        // power on, two-byte hot-swap flag
        {0x42, "01 0100 02" "10 1100 11 a0000005591010ffffffff8900000100"}, // AID count past its bytes
        {0x3F, "01 0100 02" "11 0200 0100"},                        // close, two-byte channel
        {0x2F, "10 0200 0100"},                                     // two-byte extended flag
        {0x3B, "01 0100 02" "10 0100 01" "02 0a00 0800 80e29100"},  // TLV runs past the end
    };
    for (const auto &[msg, hex] : malformed) {
        EXPECT_EQ(result(ask(11, msg, hex)), "01000100") << hex;
        EXPECT_EQ(h.uim.slot(2)->euicc->profiles, 2u) << hex;
        EXPECT_TRUE(h.uim.slot(1)->powered && h.uim.slot(2)->powered) << hex;
        EXPECT_TRUE(h.uim.channel_open(2, 1)) << hex;
        EXPECT_FALSE(h.uim.channel_open(2, 2)) << hex;
    }
    // The same reset, well formed, runs.
    t = ask(11, 0x3B, "01 0100 02" "10 0100 01" "02 0a00 0800" + reset);
    EXPECT_EQ(result(t), "00000000");
    EXPECT_EQ(h.uim.slot(2)->euicc->profiles, 0u);
}

} // namespace
