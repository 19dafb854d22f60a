// extend_test.cpp - the extend client in-process against one kvn-sim: the
// service object's tables, the send's argument checks and reply handling, the
// command-4 framings as the sim's journal shows them, the indication callback
// and the result map.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "extend_journal.h"
#include "pelmox_extend_cmn.h"
#include "pelmox_extend_qmi.h"
#include "pelmox_shell.h"
#include "process.h"

using namespace extend_test;
using Bytes = std::vector<uint8_t>;

namespace {

::testing::Environment *const g_env = ::testing::AddGlobalTestEnvironment(new SimEnvironment);

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
        // Canned replies: 9 answers 20 bytes 01..14, 10 refuses with result 7,
        // 4 answers the framings with 6 bytes.
        load_scenario(R"({"extend_replies": {
          "9": {"result": 0, "data": "0102030405060708090a0b0c0d0e0f1011121314"},
          "10": {"result": 7, "data": ""}, "4": {"result": 0, "data": "a1a2a3a4a5a6"}}})");
        // Open the client first, so captured output holds only the send under test.
        int32_t cap = 1;
        ASSERT_EQ(send(9, 1, cap), 0);
        sim().clear_journal();
    }
    // Sends a one-byte request; the reply lands in rsp, cap is in/out.
    int send(uint32_t cmd, int32_t cap_in, int32_t &cap, std::string *out = nullptr)
    {
        const uint8_t req[1] = {0};
        std::memset(rsp, 0xEE, sizeof(rsp));
        cap = cap_in;
        int rc = 0;
        std::string o = captured([&] { rc = pelmox_extend_qmi_send_sync(cmd, req, 1, rsp, &cap); });
        if (out)
            *out = o;
        return rc;
    }
    uint8_t rsp[512];
};

/* ---- service object ---- */

// Only the exact version triple gives the object. Every message, filled to
// its fullest, encodes to exactly its declared largest length and decodes
// back to the same record; the object's message counts and largest length
// agree with the messages there are.
TEST(ExtendServiceObject, EveryMessageAtItsFullestEncodesToItsLargestLength)
{
    for (const auto &v : {std::array{1, 1, 5}, std::array{1, 2, 6}, std::array{2, 1, 6}, std::array{0, 0, 0}})
        EXPECT_EQ(pelmox_extend_get_service_object_internal_v01(v[0], v[1], v[2]), nullptr) << v[0] << v[1] << v[2];
    auto *obj = pelmox_extend_get_service_object_internal_v01(1, 1, 6);
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(obj->service_id, 0xFFE4u);
    const struct {
        qmi_idl_type_of_message_type kind;
        uint16_t id;
        uint32_t expect_len;
    } cases[] = {
        {QMI_IDL_REQUEST, 2, 529},    {QMI_IDL_REQUEST, 3, 529},    {QMI_IDL_REQUEST, 4, 533},
        {QMI_IDL_RESPONSE, 2, 529},   {QMI_IDL_RESPONSE, 3, 529},   {QMI_IDL_RESPONSE, 4, 14},
        {QMI_IDL_INDICATION, 3, 529}, {QMI_IDL_INDICATION, 5, 1137}, {QMI_IDL_INDICATION, 6, 1227},
        {QMI_IDL_INDICATION, 7, 14},  {QMI_IDL_INDICATION, 8, 34},
    };
    std::map<int, int> per_kind;
    uint32_t largest = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "kind " << c.kind << " id " << c.id);
        ++per_kind[c.kind];
        largest = std::max(largest, c.expect_len);
        uint32_t c_len = 0;
        ASSERT_EQ(qmi_idl_get_message_c_struct_len(obj, c.kind, c.id, &c_len), QMI_IDL_LIB_NO_ERR);
        Bytes rec(c_len);
        for (size_t i = 0; i < rec.size(); ++i)
            rec[i] = uint8_t(i * 7 + 1);
        // Valid flags and counts must hold legal values for a full message.
        if (c.id <= 3 || (c.id == 4 && c.kind == QMI_IDL_REQUEST))
            rec[offsetof(pelmox_extend_msg_v01, data_valid)] = 1;
        if (c.id == 4 && c.kind == QMI_IDL_REQUEST)
            rec[offsetof(pelmox_extend_msg_ex_v01, opt_valid)] = 1;
        if (c.kind == QMI_IDL_INDICATION && c.id == 6)
            for (auto &g : reinterpret_cast<pelmox_extend_ind_0006_v01 *>(rec.data())->group)
                g.rec_len = 5;
        // Padding bytes are not carried: compare the wire form of the record
        // with that of its decoded copy.
        Bytes wire(2048), wire2(2048), back(c_len);
        uint32_t len = 0, len2 = 0;
        ASSERT_EQ(qmi_idl_message_encode(obj, c.kind, c.id, rec.data(), c_len, wire.data(), wire.size(), &len),
                  QMI_IDL_LIB_NO_ERR);
        EXPECT_EQ(len, c.expect_len);
        ASSERT_EQ(qmi_idl_message_decode(obj, c.kind, c.id, wire.data(), len, back.data(), c_len), QMI_IDL_LIB_NO_ERR);
        ASSERT_EQ(qmi_idl_message_encode(obj, c.kind, c.id, back.data(), c_len, wire2.data(), wire2.size(), &len2),
                  QMI_IDL_LIB_NO_ERR);
        EXPECT_EQ(Bytes(wire.begin(), wire.begin() + len), Bytes(wire2.begin(), wire2.begin() + len2));
    }
    EXPECT_EQ(obj->max_msg_len, largest);
    for (auto kind : {QMI_IDL_REQUEST, QMI_IDL_RESPONSE, QMI_IDL_INDICATION})
        EXPECT_EQ(obj->n_msgs[kind], per_kind[kind]) << kind;

    // A group of indication 0x0006 holds at most five records. Its TLV 0x03
    // starts after two 7-byte TLVs and its own 3-byte header.
    pelmox_extend_ind_0006_v01 ind{}, back{};
    for (auto &g : ind.group)
        g.rec_len = 1;
    Bytes wire(2048);
    uint32_t len = 0;
    ASSERT_EQ(qmi_idl_message_encode(obj, QMI_IDL_INDICATION, 6, &ind, sizeof(ind), wire.data(), wire.size(), &len),
              QMI_IDL_LIB_NO_ERR);
    ASSERT_EQ(wire[14], 0x03);
    wire[17] = 6;
    EXPECT_NE(qmi_idl_message_decode(obj, QMI_IDL_INDICATION, 6, wire.data(), len, &back, sizeof(back)),
              QMI_IDL_LIB_NO_ERR);
}

TEST(ExtendResultMap, TransportCodesMapAndOthersPassThrough)
{
    const int cases[][2] = {{-1, -101}, {-2, -102}, {-3, -103}, {0, 0}, {-4, -4}, {5, 5}, {-101, -101}};
    for (const auto &c : cases)
        EXPECT_EQ(pelmox_qmi_result_map(c[0]), c[1]) << c[0];
}

/* ---- send ---- */

// A 512-byte payload goes out whole; a 513-byte one, a capacity of 513 (the
// message then names the payload length) and null or negative arguments are
// refused before anything is sent.
TEST_F(ExtendSimTest, ArgumentChecksAndTheFullPayload)
{
    Bytes req(600, 0x5A), out(600);
    const struct {
        const uint8_t *req;
        int32_t req_len, cap;
        const char *message;
    } cases[] = {
        {req.data(), 513, 10, "put data_len 513 > max 512\n"}, {req.data(), 10, 513, "put data_len 10 > max 512\n"},
        {nullptr, 10, 10, "0,  put Invalid param\n"},          {req.data(), -1, 10, "put Invalid param\n"},
        {req.data(), 10, -1, "put Invalid param\n"},
    };
    for (const auto &c : cases) {
        int32_t cap = c.cap;
        int rc = 0;
        std::string text = captured([&] { rc = pelmox_extend_qmi_send_sync(9, c.req, c.req_len, out.data(), &cap); });
        EXPECT_EQ(rc, -1) << c.message;
        EXPECT_NE(text.find(c.message), std::string::npos) << text;
    }
    EXPECT_EQ(pelmox_extend_qmi_send_sync(9, req.data(), 10, nullptr, nullptr), -1);
    EXPECT_TRUE(extend_requests().empty());

    for (size_t i = 0; i < 512; ++i)
        req[i] = uint8_t(255 - i);
    int32_t cap = 512;
    ASSERT_EQ(pelmox_extend_qmi_send_sync(9, req.data(), 512, out.data(), &cap), 0);
    auto reqs = extend_requests();
    ASSERT_EQ(reqs.size(), 1u);
    EXPECT_EQ(reqs[0].cmd_id, 9u);
    EXPECT_EQ(reqs[0].data_len, 512u);
    EXPECT_EQ(reqs[0].data, Bytes(req.begin(), req.begin() + 512));
}

// The canned reply of command 9 is 20 bytes: a smaller capacity cuts it and
// keeps the capacity, a larger one gets the 20. A modem result other than 0
// is -3 and named; a reply without TLV 0x10 has length 0.
TEST_F(ExtendSimTest, ReplyHandling)
{
    const int32_t cases[][2] = {{8, 8}, {20, 20}, {100, 20}, {0, 0}};
    int32_t len = 0;
    for (const auto &c : cases) {
        ASSERT_EQ(send(9, c[0], len), 0);
        ASSERT_EQ(len, c[1]) << "capacity " << c[0];
        for (int i = 0; i < len; ++i)
            EXPECT_EQ(rsp[i], i + 1);
        EXPECT_EQ(rsp[len], 0xEE) << "nothing written past the reply";
    }
    std::string out;
    EXPECT_EQ(send(10, 16, len, &out), -3);
    EXPECT_EQ(out, "7 QMI service framework error. Check client\npelmox_extend_qmi_handle_req_cb result:-3\n");

    ASSERT_EQ(sim().ctl({"fault", "extend", "2", "qmi-error=0"}).exit_code, 0);
    EXPECT_EQ(send(9, 64, len, &out), 0);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(out, "pelmox_extend_qmi_send_sync resp_len:0\npelmox_extend_qmi_handle_req_cb result:0\n");
}

/* ---- framings of command 4 ---- */

// The common request carries its value at byte 8 (up to 499 bytes, null with
// length 0); the reply lands at the start of the 508-byte area, the rest is
// cleared and nothing past 508 is touched.
TEST_F(ExtendSimTest, CommonRequestFraming)
{
    Bytes v(499);
    for (size_t i = 0; i < v.size(); ++i)
        v[i] = uint8_t(i % 251 + 1);
    Bytes out(512, 0xAA);
    EXPECT_EQ(pelmox_common_qmi_req(0x11223344, 499, v.data(), out.data()), 0);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 6), (Bytes{0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6}));
    EXPECT_EQ(std::count(out.begin() + 6, out.begin() + 508, 0), 502);
    EXPECT_EQ(out[508], 0xAA);

    EXPECT_EQ(pelmox_common_qmi_req(5, 500, v.data(), out.data()), PELMOX_ERR_INVALID_ARGS);
    EXPECT_EQ(pelmox_common_qmi_req(5, 0, nullptr, out.data()), 0);
    EXPECT_EQ(pelmox_common_qmi_req(5, 1, nullptr, out.data()), PELMOX_ERR_INVALID_ARGS);
    EXPECT_EQ(pelmox_common_qmi_req(5, 1, v.data(), nullptr), PELMOX_ERR_INVALID_ARGS);

    auto reqs = extend_requests();
    ASSERT_EQ(reqs.size(), 2u) << "only the accepted framings reach the modem";
    for (const auto &r : reqs) {
        EXPECT_EQ(r.cmd_id, 4u);
        EXPECT_EQ(r.data_len, 512u);
        EXPECT_EQ(le32(r.data, 4), 0u) << "the length field stays zero";
    }
    EXPECT_EQ(le32(reqs[0].data, 0), 0x11223344u);
    EXPECT_EQ(Bytes(reqs[0].data.begin() + 8, reqs[0].data.begin() + 507), v);
    EXPECT_EQ(reqs[0].data[507], 0);
    Bytes only_id(512, 0);
    only_id[0] = 5;
    EXPECT_EQ(reqs[1].data, only_id);
}

// The common message carries 2, 0, its id and length, then up to 491 bytes.
TEST_F(ExtendSimTest, CommonMessageFraming)
{
    Bytes v(491, 0x3C), out(508);
    v[0] = 0x01;
    v[490] = 0x02;
    EXPECT_EQ(pelmox_send_common_qmi_msg(7, 491, v.data(), out.data()), 0);
    EXPECT_EQ(pelmox_send_common_qmi_msg(7, 492, v.data(), out.data()), PELMOX_ERR_INVALID_ARGS);
    EXPECT_EQ(pelmox_send_common_qmi_msg(8, 0, nullptr, out.data()), 0);
    EXPECT_EQ(pelmox_send_common_qmi_msg(8, 3, nullptr, out.data()), PELMOX_ERR_INVALID_ARGS);
    EXPECT_EQ(pelmox_send_common_qmi_msg(8, 3, v.data(), nullptr), PELMOX_ERR_INVALID_ARGS);

    auto reqs = extend_requests();
    ASSERT_EQ(reqs.size(), 2u);
    const auto &a = reqs[0].data, &b = reqs[1].data;
    auto head = [](const Bytes &d) { return std::vector<uint32_t>{le32(d, 0), le32(d, 4), le32(d, 8), le32(d, 12)}; };
    EXPECT_EQ(head(a), (std::vector<uint32_t>{2, 0, 7, 491}));
    EXPECT_EQ(head(b), (std::vector<uint32_t>{2, 0, 8, 0}));
    EXPECT_EQ(Bytes(a.begin() + 16, a.begin() + 507), v);
    EXPECT_EQ(a[507], 0);
    EXPECT_EQ(std::count(b.begin() + 16, b.end(), 0), 512 - 16);
}

/* ---- indications ---- */

TEST_F(ExtendSimTest, IndicationNumbersAboveSixAreUnknownAndTheRestHaveNoHandler)
{
    // The fixture's first send opened the client.
    qmi_client_type handle = pelmox_extend_qmi_client_open();
    ASSERT_NE(handle, nullptr);
    auto deliver = [&](unsigned msg_id, Bytes buf) {
        return captured([&] { pelmox_extend_qmi_ind_cb(handle, msg_id, buf.data(), buf.size(), nullptr); });
    };
    auto ind_0003 = [](uint32_t n) { return Bytes{0x01, 4, 0, uint8_t(n), 0, 0, 0, 0x02, 4, 0, 0, 0, 0, 0}; };

    const std::string head = "PELMOX__EXTEND_QMI: Indication msg_id=0x3 buf_len=14 \n";
    for (uint32_t n : {7u, 200u})
        EXPECT_EQ(deliver(3, ind_0003(n)),
                  head + "Indicaion: " + std::to_string(n) + " greater than maximum known indication.");
    for (uint32_t n = 0; n <= 6; ++n)
        EXPECT_EQ(deliver(3, ind_0003(n)), head + "No function defined to handle indication: " + std::to_string(n));
    // A TLV running past the buffer is dropped after the first line; other
    // message ids print nothing.
    EXPECT_EQ(deliver(3, {0x01, 9, 0, 1, 0}), "PELMOX__EXTEND_QMI: Indication msg_id=0x3 buf_len=5 \n");
    for (unsigned id : {4u, 5u, 6u, 7u, 8u, 9u})
        EXPECT_EQ(deliver(id, ind_0003(1)), "") << id;
}

TEST(ExtendEmptyIndication, TracesOnlyTheMessageId)
{
    setenv("PELMOX_SHELL_PRINT_FLAG", "1", 1);
    std::string out = captured([] { pelmox_qcril_qmi_client_common_empty_unsol_ind_cb(nullptr, 50, nullptr, 0, nullptr); });
    setenv("PELMOX_SHELL_PRINT_FLAG", "0", 1);
    EXPECT_EQ(kvn_test::mask_trace_lines(out), "RIL[pelmox_qcril_qmi_client_common_empty_unsol_ind_cb:N]: msg_id 50\n");
}

} // namespace
