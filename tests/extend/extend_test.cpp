// extend_test.cpp - the extend client in-process against one kvn-sim: service object, send, framings, indications.

#include <array>
#include <numeric>

#include "extend_journal.h"
#include "pelmox_extend_cmn.h"
#include "pelmox_extend_qmi.h"
#include "pelmox_shell.h"

using namespace extend_test;

namespace {

::testing::Environment *const g_env = ::testing::AddGlobalTestEnvironment(new SimEnvironment);

class ExtendSimTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(sim().started());
        // Command 9 answers 01..14, 10 refuses with result 7, 4 answers the framings with 6 bytes.
        load(sim(), R"({"extend_replies": {
          "9": {"result": 0, "data": "0102030405060708090a0b0c0d0e0f1011121314"},
          "10": {"result": 7, "data": ""}, "4": {"result": 0, "data": "a1a2a3a4a5a6"}}})");
        int32_t cap = 1; // opens the client, so captured output holds only the send under test
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

// Only the exact version gives the object; each message at its fullest encodes to its largest length and back.
TEST(ExtendServiceObject, EveryMessageAtItsFullestEncodesToItsLargestLength)
{
    for (const auto &v : {std::array{1, 1, 5}, std::array{1, 2, 6}, std::array{2, 1, 6}, std::array{0, 0, 0}})
        EXPECT_EQ(pelmox_extend_get_service_object_internal_v01(v[0], v[1], v[2]), nullptr) << v[0] << v[1] << v[2];
    auto *obj = pelmox_extend_get_service_object_internal_v01(1, 1, 6);
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(obj->service_id, 0xFFE4u);
    const std::tuple<qmi_idl_type_of_message_type, uint16_t, uint32_t> cases[] = {
        {QMI_IDL_REQUEST, 2, 529},    {QMI_IDL_REQUEST, 3, 529},    {QMI_IDL_REQUEST, 4, 533},
        {QMI_IDL_RESPONSE, 2, 529},   {QMI_IDL_RESPONSE, 3, 529},   {QMI_IDL_RESPONSE, 4, 14},
        {QMI_IDL_INDICATION, 3, 529}, {QMI_IDL_INDICATION, 5, 1137}, {QMI_IDL_INDICATION, 6, 1227},
        {QMI_IDL_INDICATION, 7, 14},  {QMI_IDL_INDICATION, 8, 34},
    };
    EXPECT_EQ(obj->max_msg_len, 1227u);
    for (const auto &[kind, id, expect_len] : cases) {
        SCOPED_TRACE(testing::Message() << "kind " << kind << " id " << id);
        uint32_t c_len = 0;
        ASSERT_EQ(qmi_idl_get_message_c_struct_len(obj, kind, id, &c_len), QMI_IDL_LIB_NO_ERR);
        Bytes rec(c_len);
        for (size_t i = 0; i < rec.size(); ++i)
            rec[i] = uint8_t(i * 7 + 1);
        // Valid flags and counts take legal values.
        if (id <= 3 || (id == 4 && kind == QMI_IDL_REQUEST))
            rec[offsetof(pelmox_extend_msg_v01, data_valid)] = 1;
        if (id == 4 && kind == QMI_IDL_REQUEST)
            rec[offsetof(pelmox_extend_msg_ex_v01, opt_valid)] = 1;
        if (kind == QMI_IDL_INDICATION && id == 6)
            for (auto &g : reinterpret_cast<pelmox_extend_ind_0006_v01 *>(rec.data())->group)
                g.rec_len = 5;
        // Padding is not carried: compare the wire forms.
        Bytes wire(2048), wire2(2048), back(c_len);
        uint32_t len = 0, len2 = 0;
        ASSERT_EQ(qmi_idl_message_encode(obj, kind, id, rec.data(), c_len, wire.data(), wire.size(), &len), 0);
        EXPECT_EQ(len, expect_len);
        ASSERT_EQ(qmi_idl_message_decode(obj, kind, id, wire.data(), len, back.data(), c_len), 0);
        ASSERT_EQ(qmi_idl_message_encode(obj, kind, id, back.data(), c_len, wire2.data(), wire2.size(), &len2), 0);
        EXPECT_EQ(Bytes(wire.begin(), wire.begin() + len), Bytes(wire2.begin(), wire2.begin() + len2));
    }

    // A group of indication 0x0006 holds at most five records (TLV 0x03 at 14).
    pelmox_extend_ind_0006_v01 ind{}, back{};
    for (auto &g : ind.group)
        g.rec_len = 1;
    Bytes wire(2048);
    uint32_t len = 0;
    ASSERT_EQ(qmi_idl_message_encode(obj, QMI_IDL_INDICATION, 6, &ind, sizeof(ind), wire.data(), wire.size(), &len), 0);
    ASSERT_EQ(wire[14], 0x03);
    wire[17] = 6;
    EXPECT_NE(qmi_idl_message_decode(obj, QMI_IDL_INDICATION, 6, wire.data(), len, &back, sizeof(back)), 0);
}

TEST(ExtendResultMap, TransportCodesMapAndOthersPassThrough)
{
    const int cases[][2] = {{-1, -101}, {-2, -102}, {-3, -103}, {0, 0}, {-4, -4}, {5, 5}, {-101, -101}};
    for (const auto &c : cases)
        EXPECT_EQ(pelmox_qmi_result_map(c[0]), c[1]) << c[0];
}

/* ---- send ---- */

// 512 payload bytes go out whole; 513, a capacity of 513 and null or negative arguments are refused unsent.
TEST_F(ExtendSimTest, ArgumentChecksAndTheFullPayload)
{
    Bytes req(600, 0x5A), out(600);
    const std::tuple<const uint8_t *, int32_t, int32_t, const char *> cases[] = { // request, length, capacity
        {req.data(), 513, 10, "put data_len 513 > max 512\n"}, {req.data(), 10, 513, "put data_len 10 > max 512\n"},
        {nullptr, 10, 10, "0,  put Invalid param\n"},          {req.data(), -1, 10, "put Invalid param\n"},
        {req.data(), 10, -1, "put Invalid param\n"},
    };
    for (auto [data, req_len, cap, message] : cases) {
        int rc = 0;
        std::string text = captured([&, data = data, req_len = req_len, cap = cap]() mutable {
            rc = pelmox_extend_qmi_send_sync(9, data, req_len, out.data(), &cap);
        });
        EXPECT_EQ(rc, -1) << message;
        EXPECT_NE(text.find(message), std::string::npos) << text;
    }
    EXPECT_EQ(pelmox_extend_qmi_send_sync(9, req.data(), 10, nullptr, nullptr), -1);
    EXPECT_TRUE(extend_requests().empty());

    for (size_t i = 0; i < 512; ++i)
        req[i] = uint8_t(255 - i);
    int32_t cap = 512;
    ASSERT_EQ(pelmox_extend_qmi_send_sync(9, req.data(), 512, out.data(), &cap), 0);
    EXPECT_EQ(extend_requests(), (std::vector<ExtendRequest>{{9, 512, Bytes(req.begin(), req.begin() + 512)}}));
}

// The 20-byte reply is cut to the capacity, nothing written past; a modem result other than 0 is -3 and named;
// a reply without TLV 0x10 has length 0.
TEST_F(ExtendSimTest, ReplyHandling)
{
    for (int32_t cap : {8, 20, 100, 0}) {
        int32_t len = 0, want = std::min(cap, 20);
        ASSERT_EQ(send(9, cap, len), 0);
        Bytes got(rsp, rsp + want + 1), expect(size_t(want + 1), 0xEE);
        std::iota(expect.begin(), expect.end() - 1, 1);
        EXPECT_EQ(len, want) << "capacity " << cap;
        EXPECT_EQ(got, expect) << "capacity " << cap;
    }
    int32_t len = 0;
    std::string out;
    EXPECT_EQ(send(10, 16, len, &out), -3);
    EXPECT_EQ(out, "7 QMI service framework error. Check client\npelmox_extend_qmi_handle_req_cb result:-3\n");

    ASSERT_EQ(sim().ctl({"fault", "extend", "2", "qmi-error=0"}).exit_code, 0);
    EXPECT_EQ(send(9, 64, len, &out), 0);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(out, "pelmox_extend_qmi_send_sync resp_len:0\npelmox_extend_qmi_handle_req_cb result:0\n");
}

/* ---- framings of command 4 ---- */

// The request frames id, 0, then up to 499 bytes; the message 2, 0, id, length, then up to 491. One byte more, or
// a null value or reply area with a length, is refused unsent. The reply fills the 508-byte area, nothing past.
TEST_F(ExtendSimTest, CommandFourFramings)
{
    const struct {
        int (*frame)(uint32_t, uint32_t, const uint8_t *, uint8_t *);
        uint32_t max;
        bool message;
    } framings[] = {{pelmox_common_qmi_req, 499, false}, {pelmox_send_common_qmi_msg, 491, true}};
    for (const auto &f : framings) {
        SCOPED_TRACE(f.max);
        Bytes v(f.max), out(512, 0xAA);
        std::iota(v.begin(), v.end(), 1);
        sim().clear_journal();
        EXPECT_EQ(f.frame(7, f.max, v.data(), out.data()), 0);
        Bytes reply(512, 0);
        std::iota(reply.begin(), reply.begin() + 6, 0xA1);
        std::fill(reply.begin() + 508, reply.end(), 0xAA);
        EXPECT_EQ(out, reply);
        EXPECT_EQ(f.frame(7, f.max + 1, v.data(), out.data()), PELMOX_ERR_INVALID_ARGS);
        EXPECT_EQ(f.frame(8, 0, nullptr, out.data()), 0);
        EXPECT_EQ(f.frame(8, 1, nullptr, out.data()), PELMOX_ERR_INVALID_ARGS);
        EXPECT_EQ(f.frame(8, 1, v.data(), nullptr), PELMOX_ERR_INVALID_ARGS);

        auto reqs = extend_requests();
        ASSERT_EQ(reqs.size(), 2u);
        for (auto [r, id, value] : {std::tuple{reqs[0], 7u, v}, std::tuple{reqs[1], 8u, Bytes{}}}) {
            Bytes want = f.message ? le_bytes(2u, 0u, id, uint32_t(value.size())) : le_bytes(id, 0u);
            want.insert(want.end(), value.begin(), value.end());
            want.resize(512);
            EXPECT_EQ(r, (ExtendRequest{4, 512, want})) << "id " << id;
        }
    }
}

/* ---- indications ---- */

TEST_F(ExtendSimTest, IndicationNumbersAboveSixAreUnknownAndTheRestHaveNoHandler)
{
    qmi_client_type handle = pelmox_extend_qmi_client_open(); // the fixture's send opened it
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
    // A TLV running past the buffer is dropped after the first line; other message ids print nothing.
    EXPECT_EQ(deliver(3, {0x01, 9, 0, 1, 0}), "PELMOX__EXTEND_QMI: Indication msg_id=0x3 buf_len=5 \n");
    for (unsigned id : {4u, 5u, 6u, 7u, 8u, 9u})
        EXPECT_EQ(deliver(id, ind_0003(1)), "") << id;
}

TEST(ExtendEmptyIndication, TracesOnlyTheMessageId)
{
    auto ind = [] { pelmox_qcril_qmi_client_common_empty_unsol_ind_cb(nullptr, 50, nullptr, 0, nullptr); };
    std::string out = captured(ind, true);
    EXPECT_EQ(kvn_test::mask_trace_lines(out), "RIL[pelmox_qcril_qmi_client_common_empty_unsol_ind_cb:N]: msg_id 50\n");
}

} // namespace
