// nvefs_test.cpp - NV and EFS access in-process against one kvn-sim, with buffers larger than the command line allows.

#include "../extend/extend_journal.h"
#include "pelmox_extend_nvefs.h"

using namespace extend_test;

namespace {

::testing::Environment *const g_env = ::testing::AddGlobalTestEnvironment(new SimEnvironment);

struct NvefsTest : ::testing::Test {
    void SetUp() override
    {
        ASSERT_TRUE(sim().started());
        sim().clear_journal();
    }
};

Bytes pattern(size_t n, uint32_t seed)
{
    Bytes v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = uint8_t((i * 131 + seed) ^ (i >> 8));
    return v;
}

// Each refused call returns its code and sends nothing.
TEST_F(NvefsTest, ArgumentChecksComeInTheirOrderAndSendNothing)
{
    uint8_t buf[500] = {};
    uint32_t len = 10;
    const char p71[] = "/aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";
    ASSERT_EQ(strlen(p71), 71u);
    const std::tuple<const char *, int, int> cases[] = { // what, result, the code it must be
        {"nv read sub 2", pelmox_nv_read(2, 7233, nullptr, nullptr), -104},
        {"nv read id 7233", pelmox_nv_read(1, 7233, nullptr, nullptr), -109},
        {"nv read null buf", pelmox_nv_read(1, 7232, nullptr, nullptr), -107},
        {"nv read null len", pelmox_nv_read(1, 7232, buf, nullptr), -108},
        {"nv read len 0", [&] { uint32_t z = 0; return pelmox_nv_read(0, 1, buf, &z); }(), -108},
        {"nv write sub 7", pelmox_nv_write_ex(7, 1, buf, 10), -104},
        {"nv write id 9999", pelmox_nv_write_ex(0, 9999, nullptr, 0), -109},
        {"nv write null", pelmox_nv_write_ex(0, 1, nullptr, 10), -107},
        {"nv write 0", pelmox_nv_write_ex(0, 1, buf, 0), -108},
        {"nv write 425", pelmox_nv_write_ex(0, 1, buf, 425), -108},
        {"nv delete sub 2", pelmox_nv_delete(2, 1), -104},
        {"nv delete 7233", pelmox_nv_delete(0, 7233), -109},
        {"efs read sub", pelmox_efs_read(2, nullptr, 0, nullptr, nullptr), -104},
        {"efs read path 0", pelmox_efs_read(0, nullptr, 0, nullptr, nullptr), -106},
        {"efs read path 72", pelmox_efs_read(0, nullptr, 72, nullptr, nullptr), -106},
        {"efs read null path", pelmox_efs_read(0, nullptr, 5, nullptr, nullptr), -105},
        {"efs read null buf", pelmox_efs_read(0, "/a", 2, nullptr, &len), -107},
        {"efs read null len", pelmox_efs_read(0, "/a", 2, buf, nullptr), -108},
        {"efs read len 0", [&] { uint32_t z = 0; return pelmox_efs_read(0, "/a", 2, buf, &z); }(), -108},
        {"efs write path 71", pelmox_efs_write(0, p71, 71, buf, 10), -106},
        {"efs write null path", pelmox_efs_write(0, nullptr, 3, buf, 10), -105},
        {"efs write null buf", pelmox_efs_write(0, "/a", 2, nullptr, 10), -107},
        {"efs write 0", pelmox_efs_write(0, "/a", 2, buf, 0), -108},
        {"efs write 102411", pelmox_efs_write(0, "/a", 2, buf, 102411), -108},
        {"efs delete path 71", pelmox_efs_delete(0, p71, 71), -106},
        {"efs delete sub", pelmox_efs_delete(3, "/a", 2), -104},
    };
    for (const auto &[what, got, want] : cases)
        EXPECT_EQ(got, want) << what;
    EXPECT_TRUE(extend_requests().empty());

    // The boundaries reach the modem (which has neither): nv_id 7232 and a 71-byte read path.
    EXPECT_EQ(pelmox_nv_read(0, 7232, buf, &len), 5);
    len = 10;
    EXPECT_LT(pelmox_efs_read(0, p71, 71, buf, &len), 0);
    EXPECT_EQ(extend_requests().size(), 2u);
}

TEST_F(NvefsTest, NvWriteReadDeleteRoundTripWithPayloadLayout)
{
    auto item = pattern(424, 3);
    ASSERT_EQ(pelmox_nv_write_ex(1, 4321, item.data(), 424), 0);
    auto reqs = extend_requests();
    ASSERT_EQ(reqs.size(), 1u);
    const auto &p = reqs[0].data;
    EXPECT_EQ((std::vector<uint32_t>{reqs[0].cmd_id, reqs[0].data_len, p[0], p[1], le16(p, 2), le32(p, 76)}),
              (std::vector<uint32_t>{2, 512, 2, 1, 4321, 424}));
    EXPECT_EQ(Bytes(p.begin() + 88, p.end()), item);

    // A capacity larger than the item is lowered to it; a smaller one gets the first bytes and keeps its value.
    for (uint32_t cap : {1000u, 7u}) {
        Bytes buf(cap + 1, 0xEE), want(item.begin(), item.begin() + std::min(cap, 424u));
        uint32_t len = cap;
        ASSERT_EQ(pelmox_nv_read(1, 4321, buf.data(), &len), 0);
        EXPECT_EQ(len, want.size());
        want.resize(cap + 1, 0xEE);
        EXPECT_EQ(buf, want) << cap;
    }
    Bytes buf(10);
    uint32_t len = 10;
    EXPECT_EQ(pelmox_nv_read(0, 4321, buf.data(), &len), 5) << "the other subscription is another item";
    ASSERT_EQ(pelmox_nv_delete(1, 4321), 0);
    len = 10;
    EXPECT_EQ(pelmox_nv_read(1, 4321, buf.data(), &len), 5) << "the modem's result comes back unchanged";
    EXPECT_EQ(pelmox_nv_delete(1, 4321), 5);
}

TEST_F(NvefsTest, EfsWriteOf415BytesGoesAs414AndOne)
{
    auto data = pattern(415, 9);
    ASSERT_EQ(pelmox_efs_write(0, "/t/four15", 9, data.data(), 415), 0);
    auto reqs = extend_requests();
    ASSERT_EQ(reqs.size(), 2u);
    const auto &a = reqs[0].data, &b = reqs[1].data;
    // op, path length, total, chunk, position; the path is unterminated within its count, the rest zero.
    auto fields = [](const Bytes &d) {
        return std::vector<uint32_t>{d[0], d[4], le32(d, 76), le32(d, 80), le32(d, 84)};
    };
    EXPECT_EQ(fields(a), (std::vector<uint32_t>{5, 9, 415, 414, 0}));
    EXPECT_EQ(fields(b), (std::vector<uint32_t>{5, 9, 415, 1, 414}));
    EXPECT_EQ(std::string(a.begin() + 5, a.begin() + 15), std::string("/t/four15") + '\0');
    EXPECT_EQ(le16(a, 2), 0xFF) << "first chunk opens a transfer";
    EXPECT_NE(le16(b, 2), 0xFF) << "second chunk carries the modem's instance";
    EXPECT_EQ(Bytes(a.begin() + 88, a.begin() + 502), Bytes(data.begin(), data.begin() + 414));
    EXPECT_EQ(Bytes(b.begin() + 88, b.begin() + 90), (Bytes{data[414], 0}));
}

// The largest file goes out in 248 chunks, each where the last ended. A read needs a byte of room beyond the file,
// else -108 on the chunk that does not fit, keeping those that did; a refused chunk ends it as a failed send (-103).
TEST_F(NvefsTest, EfsLargestFileAndReadsCutByTheCapacity)
{
    auto big = pattern(102410, 1);
    ASSERT_EQ(pelmox_efs_write(1, "/big/file.bin", 13, big.data(), 102410), 0);
    auto reqs = extend_requests();
    ASSERT_EQ(reqs.size(), 248u);
    uint32_t pos = 0;
    for (const auto &r : reqs) {
        EXPECT_EQ(le32(r.data, 84), pos);
        pos += le32(r.data, 80);
    }
    EXPECT_EQ(pos, 102410u);
    load(sim(), R"({"efs": {"1": {"/empty": ""}}})");
    const struct {
        const char *path;
        const Bytes *file; // what the kept bytes are; nullptr: none kept
        uint32_t cap;
        const char *fault;
        int rc;
        uint32_t len, reads;
    } cases[] = {
        {"/big/file.bin", &big, 102411, nullptr, 0, 102410, 242}, // 424-byte read chunks
        {"/big/file.bin", &big, 102410, nullptr, -108, 241 * 424, 242},
        {"/empty", nullptr, 64, nullptr, -108, 64, 1},
        {"/empty", nullptr, 64, "qmi-error=7", -103, 64, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.path << " " << c.cap << " " << (c.fault ? c.fault : ""));
        if (c.fault) {
            ASSERT_EQ(sim().ctl({"fault", "extend", "2", c.fault}).exit_code, 0);
        }
        sim().clear_journal();
        Bytes buf(c.cap, 0xEE), want(buf);
        if (c.file)
            std::copy_n(c.file->begin(), c.len, want.begin());
        uint32_t len = c.cap;
        EXPECT_EQ(pelmox_efs_read(1, c.path, uint32_t(strlen(c.path)), buf.data(), &len), c.rc);
        EXPECT_EQ(len, c.len);
        EXPECT_EQ(buf, want);
        EXPECT_EQ(extend_requests().size(), c.reads);
    }
}

TEST_F(NvefsTest, TransportFailureIsMapped)
{
    ASSERT_EQ(sim().ctl({"fault", "extend", "2", "qmi-error=3"}).exit_code, 0);
    uint8_t buf[16];
    uint32_t len = 16;
    EXPECT_EQ(pelmox_nv_read(0, 550, buf, &len), -103);
    ASSERT_EQ(sim().ctl({"fault", "extend", "2", "qmi-error=3"}).exit_code, 0);
    auto data = pattern(500, 2);
    EXPECT_EQ(pelmox_efs_write(0, "/x/y", 4, data.data(), 500), -103);
    EXPECT_EQ(extend_requests().size(), 2u) << "the write stops at its first failed chunk";
}

// A read reply claiming 500 item bytes gives the 424 a reply carries, reading nothing past them. Last in the
// program: the canned reply stays for the shared handset's life.
TEST_F(NvefsTest, ReadReplyClaimingFiveHundredBytesGivesFourHundredTwentyFour)
{
    auto item = pattern(424, 5);
    std::string hex = "01000000f4010000000000000000000000000000" + to_hex(item);
    load(sim(), R"({"extend_replies": {"2": {"result": 0, "data": ")" + hex + R"("}}})");
    Bytes buf(1000, 0xEE);
    uint32_t len = 1000;
    ASSERT_EQ(pelmox_nv_read(0, 1, buf.data(), &len), 0);
    EXPECT_EQ(len, 424u);
    item.resize(1000, 0xEE);
    EXPECT_EQ(buf, item);
}

} // namespace
