// extend_test.cpp - the extend client in-process against one kvn-sim: the
// service object's tables, the send's argument checks and reply handling, the
// command-4 framings as the sim's journal shows them, the indication callback
// and the result map.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "extend_journal.h"
#include "pelmox_extend_cmn.h"
#include "pelmox_extend_qmi.h"
#include "pelmox_shell.h"
#include "process.h"

using namespace extend_test;

namespace {

::testing::Environment *const g_env = ::testing::AddGlobalTestEnvironment(new SimEnvironment);

// Canned replies: 9 answers 20 bytes 01..14, 10 refuses with result 7,
// 4 answers the framings with 6 bytes.
const char k_replies[] = R"({"extend_replies": {
  "9": {"result": 0, "data": "0102030405060708090a0b0c0d0e0f1011121314"},
  "10": {"result": 7, "data": ""},
  "4": {"result": 0, "data": "a1a2a3a4a5a6"}}})";

std::string captured(const std::function<void()> &fn)
{
    fflush(stdout);
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

class ExtendSimTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(sim().started());
        load_scenario(k_replies);
        // Open the client first, so captured output holds only the send under test.
        const uint8_t req[1] = {0};
        uint8_t rsp[1];
        int32_t cap = 1;
        ASSERT_EQ(pelmox_extend_qmi_send_sync(9, req, 1, rsp, &cap), 0);
        sim().clear_journal();
    }
};

/* ---- service object ---- */

TEST(ExtendServiceObject, OnlyTheExactVersionTripleGivesTheObject)
{
    struct {
        int maj, min, lib;
        bool found;
    } cases[] = {{1, 1, 6, true}, {1, 1, 5, false}, {1, 2, 6, false}, {2, 1, 6, false}, {0, 0, 0, false}};
    for (const auto &c : cases)
        EXPECT_EQ(pelmox_extend_get_service_object_internal_v01(c.maj, c.min, c.lib) != nullptr, c.found)
            << c.maj << "/" << c.min << "/" << c.lib;
    auto *obj = pelmox_extend_get_service_object_internal_v01(1, 1, 6);
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(obj->service_id, 0xFFE4u);
    EXPECT_EQ(obj->max_msg_len, 1227u);
    EXPECT_EQ(obj->n_msgs[QMI_IDL_REQUEST], 3);
    EXPECT_EQ(obj->n_msgs[QMI_IDL_RESPONSE], 3);
    EXPECT_EQ(obj->n_msgs[QMI_IDL_INDICATION], 5);
}

// Every message, filled to its fullest, encodes to exactly its declared
// largest length and decodes back to the same record.
TEST(ExtendServiceObject, EveryMessageAtItsFullestEncodesToItsLargestLength)
{
    auto *obj = pelmox_extend_get_service_object_internal_v01(1, 1, 6);
    ASSERT_NE(obj, nullptr);
    struct Case {
        qmi_idl_type_of_message_type kind;
        uint16_t id;
        uint32_t expect_len;
    } cases[] = {
        {QMI_IDL_REQUEST, 2, 529},    {QMI_IDL_REQUEST, 3, 529},    {QMI_IDL_REQUEST, 4, 533},
        {QMI_IDL_RESPONSE, 2, 529},   {QMI_IDL_RESPONSE, 3, 529},   {QMI_IDL_RESPONSE, 4, 14},
        {QMI_IDL_INDICATION, 3, 529}, {QMI_IDL_INDICATION, 5, 1137}, {QMI_IDL_INDICATION, 6, 1227},
        {QMI_IDL_INDICATION, 7, 14},  {QMI_IDL_INDICATION, 8, 34},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "kind " << c.kind << " id " << c.id);
        uint32_t c_len = 0;
        ASSERT_EQ(qmi_idl_get_message_c_struct_len(obj, c.kind, c.id, &c_len), QMI_IDL_LIB_NO_ERR);
        std::vector<uint8_t> rec(c_len);
        for (size_t i = 0; i < rec.size(); ++i)
            rec[i] = uint8_t(i * 7 + 1);
        // Valid flags and counts must hold legal values for a full message.
        const bool extend_msg = c.id <= 3 || (c.id == 4 && c.kind == QMI_IDL_REQUEST);
        if (extend_msg)
            rec[offsetof(pelmox_extend_msg_v01, data_valid)] = 1;
        if (c.id == 4 && c.kind == QMI_IDL_REQUEST)
            rec[offsetof(pelmox_extend_msg_ex_v01, opt_valid)] = 1;
        if (c.kind == QMI_IDL_INDICATION && c.id == 6) {
            auto *ind = reinterpret_cast<pelmox_extend_ind_0006_v01 *>(rec.data());
            for (auto &g : ind->group)
                g.rec_len = 5;
        }
        std::vector<uint8_t> wire(2048);
        uint32_t len = 0;
        ASSERT_EQ(qmi_idl_message_encode(obj, c.kind, c.id, rec.data(), c_len, wire.data(), wire.size(), &len),
                  QMI_IDL_LIB_NO_ERR);
        EXPECT_EQ(len, c.expect_len);
        std::vector<uint8_t> back(c_len);
        ASSERT_EQ(qmi_idl_message_decode(obj, c.kind, c.id, wire.data(), len, back.data(), c_len),
                  QMI_IDL_LIB_NO_ERR);
        // Padding bytes are not carried; compare an encode of the decoded record.
        std::vector<uint8_t> wire2(2048);
        uint32_t len2 = 0;
        ASSERT_EQ(qmi_idl_message_encode(obj, c.kind, c.id, back.data(), c_len, wire2.data(), wire2.size(), &len2),
                  QMI_IDL_LIB_NO_ERR);
        EXPECT_EQ(std::vector<uint8_t>(wire.begin(), wire.begin() + len),
                  std::vector<uint8_t>(wire2.begin(), wire2.begin() + len2));
    }
}

// A group of indication 0x0006 holds at most five records.
TEST(ExtendServiceObject, GroupCountAboveFiveIsADecodeError)
{
    auto *obj = pelmox_extend_get_service_object_internal_v01(1, 1, 6);
    pelmox_extend_ind_0006_v01 ind{};
    for (auto &g : ind.group)
        g.rec_len = 1;
    std::vector<uint8_t> wire(2048);
    uint32_t len = 0;
    ASSERT_EQ(qmi_idl_message_encode(obj, QMI_IDL_INDICATION, 6, &ind, sizeof(ind), wire.data(), wire.size(), &len),
              QMI_IDL_LIB_NO_ERR);
    // TLV 0x03 starts after two 7-byte TLVs and its own 3-byte header.
    ASSERT_EQ(wire[14], 0x03);
    wire[17] = 6;
    pelmox_extend_ind_0006_v01 back{};
    EXPECT_NE(qmi_idl_message_decode(obj, QMI_IDL_INDICATION, 6, wire.data(), len, &back, sizeof(back)),
              QMI_IDL_LIB_NO_ERR);
}

/* ---- result map ---- */

TEST(ExtendResultMap, TransportCodesMapAndOthersPassThrough)
{
    struct {
        int in, out;
    } cases[] = {{-1, -101}, {-2, -102}, {-3, -103}, {0, 0}, {-4, -4}, {5, 5}, {-101, -101}};
    for (const auto &c : cases)
        EXPECT_EQ(pelmox_qmi_result_map(c.in), c.out) << c.in;
}

/* ---- send ---- */

TEST_F(ExtendSimTest, ArgumentChecksRefuseBeforeSending)
{
    std::vector<uint8_t> req(600, 0x5A), rsp(600);
    struct Case {
        const uint8_t *req;
        int32_t req_len;
        uint8_t *rsp;
        int32_t cap;
        const char *message;
    } cases[] = {
        {req.data(), 513, rsp.data(), 10, "put data_len 513 > max 512\n"},
        // The capacity is what is too large, yet the message names the payload length.
        {req.data(), 10, rsp.data(), 513, "put data_len 10 > max 512\n"},
        {nullptr, 10, rsp.data(), 10, "0,  put Invalid param\n"},
        {req.data(), -1, rsp.data(), 10, "put Invalid param\n"},
        {req.data(), 10, rsp.data(), -1, "put Invalid param\n"},
    };
    for (const auto &c : cases) {
        int32_t cap = c.cap;
        int rc = 0;
        std::string out = captured([&] { rc = pelmox_extend_qmi_send_sync(9, c.req, c.req_len, c.rsp, &cap); });
        EXPECT_EQ(rc, -1) << c.message;
        EXPECT_NE(out.find(c.message), std::string::npos) << out;
    }
    int rc = pelmox_extend_qmi_send_sync(9, req.data(), 10, nullptr, nullptr);
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(extend_requests().empty());
}

TEST_F(ExtendSimTest, FullPayloadGoesOutWhole)
{
    std::vector<uint8_t> req(512);
    for (size_t i = 0; i < req.size(); ++i)
        req[i] = uint8_t(255 - i);
    uint8_t rsp[512];
    int32_t cap = 512;
    ASSERT_EQ(pelmox_extend_qmi_send_sync(9, req.data(), 512, rsp, &cap), 0);
    auto reqs = extend_requests();
    ASSERT_EQ(reqs.size(), 1u);
    EXPECT_EQ(reqs[0].cmd_id, 9u);
    EXPECT_EQ(reqs[0].data_len, 512u);
    EXPECT_EQ(reqs[0].data, req);
}

// The canned reply of command 9 is 20 bytes: a smaller capacity cuts it and
// keeps the capacity, a larger one gets the 20.
TEST_F(ExtendSimTest, ReplyIsCutToTheCapacity)
{
    struct {
        int32_t cap, want_len;
    } cases[] = {{8, 8}, {20, 20}, {100, 20}, {0, 0}};
    for (const auto &c : cases) {
        uint8_t rsp[512];
        std::memset(rsp, 0xEE, sizeof(rsp));
        int32_t len = c.cap;
        const uint8_t req[1] = {0};
        ASSERT_EQ(pelmox_extend_qmi_send_sync(9, req, 1, rsp, &len), 0);
        ASSERT_EQ(len, c.want_len) << "capacity " << c.cap;
        for (int i = 0; i < len; ++i)
            EXPECT_EQ(rsp[i], i + 1);
        EXPECT_EQ(rsp[len], 0xEE) << "nothing written past the reply";
    }
}

TEST_F(ExtendSimTest, NonZeroResultFailsWithMinus3AndNamesIt)
{
    const uint8_t req[1] = {0};
    uint8_t rsp[16];
    int32_t cap = 16;
    int rc = 0;
    std::string out = captured([&] { rc = pelmox_extend_qmi_send_sync(10, req, 1, rsp, &cap); });
    EXPECT_EQ(rc, -3);
    EXPECT_EQ(out, "7 QMI service framework error. Check client\npelmox_extend_qmi_handle_req_cb result:-3\n");
}

TEST_F(ExtendSimTest, ReplyWithoutDataTlvGivesLengthZero)
{
    ASSERT_EQ(sim().ctl({"fault", "extend", "2", "qmi-error=0"}).exit_code, 0);
    const uint8_t req[1] = {0};
    uint8_t rsp[64];
    int32_t cap = 64;
    int rc = -9;
    std::string out = captured([&] { rc = pelmox_extend_qmi_send_sync(9, req, 1, rsp, &cap); });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(cap, 0);
    EXPECT_EQ(out, "pelmox_extend_qmi_send_sync resp_len:0\npelmox_extend_qmi_handle_req_cb result:0\n");
}

/* ---- framings of command 4 ---- */

TEST_F(ExtendSimTest, CommonRequestFraming)
{
    std::vector<uint8_t> v(499);
    for (size_t i = 0; i < v.size(); ++i)
        v[i] = uint8_t(i % 251 + 1);
    std::vector<uint8_t> rsp(512, 0xAA);
    EXPECT_EQ(pelmox_common_qmi_req(0x11223344, 499, v.data(), rsp.data()), 0);
    // The reply lands at the start, the rest of the 508 bytes is cleared, and
    // nothing past 508 is touched.
    EXPECT_EQ(std::vector<uint8_t>(rsp.begin(), rsp.begin() + 6),
              (std::vector<uint8_t>{0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6}));
    EXPECT_EQ(rsp[6], 0);
    EXPECT_EQ(rsp[507], 0);
    EXPECT_EQ(rsp[508], 0xAA);

    EXPECT_EQ(pelmox_common_qmi_req(5, 500, v.data(), rsp.data()), PELMOX_ERR_INVALID_ARGS);
    EXPECT_EQ(pelmox_common_qmi_req(5, 0, nullptr, rsp.data()), 0);
    EXPECT_EQ(pelmox_common_qmi_req(5, 1, nullptr, rsp.data()), PELMOX_ERR_INVALID_ARGS);
    EXPECT_EQ(pelmox_common_qmi_req(5, 1, v.data(), nullptr), PELMOX_ERR_INVALID_ARGS);

    auto reqs = extend_requests();
    ASSERT_EQ(reqs.size(), 2u) << "only the accepted framings reach the modem";
    for (const auto &r : reqs) {
        EXPECT_EQ(r.cmd_id, 4u);
        EXPECT_EQ(r.data_len, 512u);
        EXPECT_EQ(le32(r.data, 4), 0u) << "the length field stays zero";
    }
    EXPECT_EQ(le32(reqs[0].data, 0), 0x11223344u);
    EXPECT_EQ(std::vector<uint8_t>(reqs[0].data.begin() + 8, reqs[0].data.begin() + 507), v);
    EXPECT_EQ(reqs[0].data[507], 0);
    EXPECT_EQ(le32(reqs[1].data, 0), 5u);
    EXPECT_EQ(reqs[1].data, [] {
        std::vector<uint8_t> w(512, 0);
        w[0] = 5;
        return w;
    }());
}

TEST_F(ExtendSimTest, CommonMessageFraming)
{
    std::vector<uint8_t> v(491, 0x3C);
    v[0] = 0x01;
    v[490] = 0x02;
    std::vector<uint8_t> rsp(508);
    EXPECT_EQ(pelmox_send_common_qmi_msg(7, 491, v.data(), rsp.data()), 0);
    EXPECT_EQ(pelmox_send_common_qmi_msg(7, 492, v.data(), rsp.data()), PELMOX_ERR_INVALID_ARGS);
    EXPECT_EQ(pelmox_send_common_qmi_msg(8, 0, nullptr, rsp.data()), 0);
    EXPECT_EQ(pelmox_send_common_qmi_msg(8, 3, nullptr, rsp.data()), PELMOX_ERR_INVALID_ARGS);
    EXPECT_EQ(pelmox_send_common_qmi_msg(8, 3, v.data(), nullptr), PELMOX_ERR_INVALID_ARGS);

    auto reqs = extend_requests();
    ASSERT_EQ(reqs.size(), 2u);
    const auto &a = reqs[0].data;
    EXPECT_EQ(le32(a, 0), 2u);
    EXPECT_EQ(le32(a, 4), 0u);
    EXPECT_EQ(le32(a, 8), 7u);
    EXPECT_EQ(le32(a, 12), 491u);
    EXPECT_EQ(std::vector<uint8_t>(a.begin() + 16, a.begin() + 507), v);
    EXPECT_EQ(a[507], 0);
    const auto &b = reqs[1].data;
    EXPECT_EQ(le32(b, 0), 2u);
    EXPECT_EQ(le32(b, 8), 8u);
    EXPECT_EQ(le32(b, 12), 0u);
    EXPECT_EQ(std::count(b.begin() + 16, b.end(), 0), 512 - 16);
}

/* ---- indications ---- */

std::vector<uint8_t> ind_0003(uint32_t number)
{
    return {0x01, 4, 0, uint8_t(number), 0, 0, 0, 0x02, 4, 0, 0, 0, 0, 0};
}

TEST_F(ExtendSimTest, IndicationNumbersAboveSixAreUnknownAndTheRestHaveNoHandler)
{
    // The fixture's first send opened the client.
    qmi_client_type handle = pelmox_extend_qmi_client_open();
    ASSERT_NE(handle, nullptr);

    const std::string head = "PELMOX__EXTEND_QMI: Indication msg_id=0x3 buf_len=14 \n";
    for (uint32_t n : {7u, 200u}) {
        auto buf = ind_0003(n);
        std::string out = captured([&] { pelmox_extend_qmi_ind_cb(handle, 3, buf.data(), buf.size(), nullptr); });
        EXPECT_EQ(out, head + "Indicaion: " + std::to_string(n) + " greater than maximum known indication.");
    }
    for (uint32_t n = 0; n <= 6; ++n) {
        auto buf = ind_0003(n);
        std::string out = captured([&] { pelmox_extend_qmi_ind_cb(handle, 3, buf.data(), buf.size(), nullptr); });
        EXPECT_EQ(out, head + "No function defined to handle indication: " + std::to_string(n));
    }
    // A TLV running past the buffer is dropped after the first line.
    std::vector<uint8_t> bad = {0x01, 9, 0, 1, 0};
    std::string out = captured([&] { pelmox_extend_qmi_ind_cb(handle, 3, bad.data(), bad.size(), nullptr); });
    EXPECT_EQ(out, "PELMOX__EXTEND_QMI: Indication msg_id=0x3 buf_len=5 \n");
    // Other message ids print nothing.
    for (unsigned id : {4u, 5u, 7u, 9u}) {
        auto buf = ind_0003(1);
        out = captured([&] { pelmox_extend_qmi_ind_cb(handle, id, buf.data(), buf.size(), nullptr); });
        EXPECT_EQ(out, "") << id;
    }
}

TEST(ExtendEmptyIndication, TracesOnlyTheMessageId)
{
    setenv("PELMOX_SHELL_PRINT_FLAG", "1", 1);
    std::string out = captured([] {
        pelmox_qcril_qmi_client_common_empty_unsol_ind_cb(nullptr, 50, nullptr, 0, nullptr);
    });
    setenv("PELMOX_SHELL_PRINT_FLAG", "0", 1);
    EXPECT_EQ(kvn_test::mask_trace_lines(out), "RIL[pelmox_qcril_qmi_client_common_empty_unsol_ind_cb:N]: msg_id 50\n");
}

} // namespace
