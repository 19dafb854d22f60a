// sim_core_test.cpp - kvn-sim's modem side in-process: the command-2 NV/EFS
// handler at the payload level (results, chunking, transfer instances,
// abandoned transfers, refused paths), the scenario checker, IMEI packing
// and the hex/number/TLV parsers.
#include <gtest/gtest.h>

#include <set>

#include "fsync_queue.h"
#include "handset.h"
#include "process.h"
#include "scenario.h"
#include "services/services.h"
#include "sim_client.h"
#include "tlv.h"

using namespace kvn_sim;
using sim_test::decode_nvefs;
using sim_test::NvEfsReply;
using sim_test::NvEfsRequest;

namespace {

const Bytes kDefaultImei = {0x08, 0x3A, 0x85, 0x42, 0x00, 0x15, 0x11, 0x11, 0x01};

Bytes pattern(size_t n, uint8_t seed)
{
    Bytes b(n);
    for (size_t i = 0; i < n; ++i)
        b[i] = static_cast<uint8_t>(seed + i * 7);
    return b;
}
Bytes slice(const Bytes &b, size_t from, size_t to) { return Bytes(b.begin() + from, b.begin() + to); }

class NvEfsTest : public ::testing::Test {
protected:
    kvn_test::TempDir dir;
    Handset h{dir.path()};
    std::vector<std::string> logged;
    NvEfsCommand cmd{h.store, [this](const std::string &t) { logged.push_back(t); }};
    NvEfsCommand::Clock::time_point now = NvEfsCommand::Clock::now();

    void SetUp() override
    {
        std::string err;
        ASSERT_TRUE(h.init(&err)) << err;
    }
    NvEfsReply run(const NvEfsRequest &rq, uint64_t conn = 1)
    {
        auto p = rq.encode();
        Bytes reply = cmd.handle(p.data(), p.size(), conn, now);
        EXPECT_EQ(reply.size(), 444u);
        return decode_nvefs(reply);
    }
    NvEfsReply write_chunk(const std::string &path, uint16_t inst, uint32_t total, uint32_t pos, const Bytes &chunk,
                           uint64_t conn = 1)
    {
        return run({5, 0, inst, path, total, static_cast<uint32_t>(chunk.size()), pos, chunk}, conn);
    }
    Bytes read_whole(const std::string &path)
    {
        Bytes all;
        for (NvEfsReply r; all.size() < 200000; all.insert(all.end(), r.data.begin(), r.data.end())) {
            r = run({4, 0, 0, path, 0, 0, static_cast<uint32_t>(all.size())});
            EXPECT_EQ(r.result, 0);
            if (r.result != 0 || r.len_send == 0 || all.size() >= r.len_all)
                break;
        }
        return all;
    }
};

// A never-written item answers 5 (not active); subscriptions are separate
// stores; a write stores exactly the declared length.
TEST_F(NvEfsTest, NvReadWriteDeleteAndNotActive)
{
    auto r = run({1, 0, 550});
    EXPECT_EQ(r.result, NvEfsCommand::kNotActive);
    EXPECT_EQ(r.len_all, 0u);

    Bytes item = pattern(424, 3);
    EXPECT_EQ(run({2, 1, 550, "", 424, 0, 0, item}).result, 0);
    r = run({1, 1, 550});
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.len_all, 424u);
    EXPECT_EQ(r.data, item);
    EXPECT_EQ(run({1, 0, 550}).result, NvEfsCommand::kNotActive);

    EXPECT_EQ(run({2, 1, 550, "", 3, 0, 0, item}).result, 0);
    EXPECT_EQ(run({1, 1, 550}).data, slice(item, 0, 3));

    EXPECT_EQ(run({3, 1, 550}).result, 0);
    EXPECT_EQ(run({1, 1, 550}).result, NvEfsCommand::kNotActive);
    EXPECT_EQ(run({3, 1, 550}).result, NvEfsCommand::kNotActive);
}

TEST_F(NvEfsTest, MalformedRequestsAreRefusedAndLogged)
{
    const std::pair<const char *, NvEfsRequest> cases[] = {
        {"sub 2", {1, 2, 550}},
        {"unknown operation", {9, 0, 1}},
        {"NV write of 0 bytes", {2, 0, 1, "", 0, 0, 0, {1}}},
        {"NV write of 425 bytes", {2, 0, 1, "", 425, 0, 0, {1}}},
        {"empty path", {4, 0, 0, ""}},
        {"relative path", {4, 0, 0, "nv/x"}},
        {"dot-dot component", {6, 0, 0, "/nv/../../etc/passwd"}},
        {"dot component", {5, 0, 255, "/nv/./x", 1, 1, 0, {1}}},
        {"root", {4, 0, 0, "/"}},
        {"chunk above 424", {5, 0, 255, "/x", 1000, 425, 0, pattern(424, 1)}},
        {"chunk above total", {5, 0, 255, "/x", 10, 11, 0, pattern(11, 1)}},
        {"total above 102410", {5, 0, 255, "/x", 102411, 10, 0, pattern(10, 1)}},
        {"first chunk not at 0", {5, 0, 255, "/x", 100, 10, 10, pattern(10, 1)}},
    };
    for (const auto &[what, rq] : cases) {
        logged.clear();
        auto r = run(rq);
        EXPECT_LT(r.result, 0) << what;
        EXPECT_EQ(r.len_all, 0u) << what;
        EXPECT_FALSE(logged.empty()) << what;
    }
    EXPECT_EQ(cmd.open_transfers(), 0u);
    // A path length byte above 71 (the path would run into the length
    // fields), and a payload shorter than the 512-byte record.
    Bytes p = NvEfsRequest{4, 0, 0, "/x"}.encode();
    p[4] = 72;
    EXPECT_LT(decode_nvefs(cmd.handle(p.data(), p.size(), 1, now)).result, 0);
    EXPECT_LT(decode_nvefs(cmd.handle(p.data(), 100, 1, now)).result, 0);
    EXPECT_FALSE(std::filesystem::exists(dir.path() + "/efs/x")) << "nothing escaped the EFS tree";
}

TEST_F(NvEfsTest, ChunkedWriteBecomesVisibleOnlyWithItsLastChunk)
{
    const std::string path = "/nv/item_files/test/big";
    Bytes file = pattern(1000, 9);
    auto r = write_chunk(path, 255, 1000, 0, slice(file, 0, 414));
    ASSERT_GE(r.result, 0);
    ASSERT_LT(r.result, 255);
    uint16_t inst = static_cast<uint16_t>(r.result);
    EXPECT_EQ(run({4, 0, 0, path}).result, NvEfsCommand::kNoFile) << "visible before its last chunk";
    EXPECT_EQ(write_chunk(path, inst, 1000, 414, slice(file, 414, 828)).result, inst);
    EXPECT_FALSE(h.store.efs_size(0, path));
    EXPECT_EQ(write_chunk(path, inst, 1000, 828, slice(file, 828, 1000)).result, inst);
    EXPECT_EQ(cmd.open_transfers(), 0u);
    EXPECT_EQ(read_whole(path), file);

    // Reads come in chunks of at most 424 bytes, each telling the whole size.
    auto first = run({4, 0, 0, path, 0, 0, 0});
    EXPECT_EQ(first.len_all, 1000u);
    EXPECT_EQ(first.len_send, 424u);
    auto tail = run({4, 0, 0, path, 0, 0, 848});
    EXPECT_EQ(tail.len_send, 152u);
    EXPECT_EQ(tail.data, slice(file, 848, 1000));
    EXPECT_LT(run({4, 0, 0, path, 0, 0, 1001}).result, 0) << "position past the end";
    cmd.set_read_chunk(100);
    EXPECT_EQ(run({4, 0, 0, path, 0, 0, 0}).len_send, 100u) << "a scenario's smaller read chunk";
    cmd.set_read_chunk(424);

    // A rewrite replaces the content whole; delete removes it.
    ASSERT_GE(write_chunk(path, 255, 5, 0, pattern(5, 1)).result, 0);
    EXPECT_EQ(read_whole(path), pattern(5, 1));
    EXPECT_EQ(run({6, 0, 0, path}).result, 0);
    EXPECT_EQ(run({6, 0, 0, path}).result, NvEfsCommand::kNoFile);
    EXPECT_EQ(run({4, 0, 0, path}).result, NvEfsCommand::kNoFile);
}

TEST_F(NvEfsTest, TransferMistakesAndAbandonedTransfersDropTheTransfer)
{
    const std::string path = "/t";
    Bytes file = pattern(900, 2), next = slice(file, 400, 800);
    auto start = [&](uint64_t conn = 1) {
        auto r = write_chunk(path, 255, 900, 0, slice(file, 0, 400), conn);
        EXPECT_GE(r.result, 0);
        return static_cast<uint16_t>(r.result);
    };

    uint16_t a = start();
    EXPECT_LT(write_chunk(path, static_cast<uint16_t>((a + 1) % 255), 900, 400, next).result, 0) << "unknown instance";
    EXPECT_LT(write_chunk(path, a, 900, 300, next).result, 0) << "wrong position";
    EXPECT_LT(write_chunk(path, a, 900, 400, next).result, 0) << "dropped after the wrong position";
    EXPECT_LT(write_chunk(path, start(), 901, 400, next).result, 0) << "wrong total";
    EXPECT_EQ(cmd.open_transfers(), 0u);
    EXPECT_LT(write_chunk("/other", start(), 900, 400, next).result, 0) << "another path";

    // Abandoned: a new transfer of the same file by the same connection...
    a = start();
    uint16_t b = start();
    EXPECT_NE(a, b);
    EXPECT_LT(write_chunk(path, a, 900, 400, next).result, 0);
    EXPECT_EQ(write_chunk(path, b, 900, 400, next).result, b);
    // ...its connection closing...
    cmd.connection_closed(1);
    EXPECT_LT(write_chunk(path, b, 900, 800, slice(file, 800, 900)).result, 0);
    // ...or 30 s of silence.
    a = start();
    now += std::chrono::seconds(31);
    EXPECT_LT(write_chunk(path, a, 900, 400, next).result, 0);
    EXPECT_EQ(cmd.open_transfers(), 0u);
    EXPECT_FALSE(h.store.efs_size(0, path)) << "no abandoned transfer may produce the file";
    // A transfer belongs to its connection: another connection's chunks
    // naming it, good or bad, are refused and leave it as it was.
    a = start(7);
    EXPECT_EQ(write_chunk(path, a, 900, 400, next, 8).result, NvEfsCommand::kBadTransfer);
    EXPECT_LT(write_chunk(path, a, 900, 400, Bytes(500, 1), 8).result, 0) << "an oversized chunk";
    EXPECT_LT(write_chunk(path, a, 0, 0, {}, 8).result, 0) << "a zero total";
    EXPECT_EQ(write_chunk(path, a, 900, 400, next, 7).result, a) << "the owner's transfer survived";
    cmd.connection_closed(7);

    // An EFS write of 0 bytes is refused, as kvn refuses it: no empty file.
    EXPECT_EQ(write_chunk("/empty", 255, 0, 0, {}).result, NvEfsCommand::kBadRequest);
    EXPECT_FALSE(h.store.efs_size(0, "/empty"));

    // Instance 255 means "open one". One connection holds at most 8 open
    // transfers; 255 at once over several connections get distinct
    // instances below 255, the next is refused.
    const size_t per = NvEfsCommand::kMaxTransfersPerConnection;
    std::set<int> seen;
    for (size_t i = 0; i < 255; ++i) {
        auto r = write_chunk("/f" + std::to_string(i), 255, 10, 0, pattern(4, 1), 100 + i / per);
        ASSERT_GE(r.result, 0);
        ASSERT_LT(r.result, 255);
        seen.insert(r.result);
    }
    EXPECT_EQ(seen.size(), 255u);
    EXPECT_EQ(write_chunk("/mine", 255, 10, 0, pattern(4, 1), 100).result, NvEfsCommand::kBusy)
        << "the connection's share is used up";
    EXPECT_EQ(write_chunk("/full", 255, 10, 0, pattern(4, 1), 999).result, NvEfsCommand::kBusy)
        << "every instance is in use";
    cmd.connection_closed(100);
    EXPECT_GE(write_chunk("/mine", 255, 10, 0, pattern(4, 1), 999).result, 0) << "freed by its connection";
}

/* ---- scenario ---- */

// Open descriptors of this process.
size_t open_fds()
{
    size_t n = 0;
    for ([[maybe_unused]] const auto &e : std::filesystem::directory_iterator("/proc/self/fd"))
        ++n;
    return n;
}

// With the daemon's fsync queue, a write is in place when the store returns
// (a read sees it at once); the flushes run on the queue's thread and close
// what they held; a full queue flushes in the writer instead of growing.
TEST_F(NvEfsTest, WritesWithAnFsyncQueueAreVisibleAtOnceAndReleaseTheirDescriptors)
{
    for (size_t max_pending : {size_t(64), size_t(0)}) {
        SCOPED_TRACE(max_pending);
        FsyncQueue q(max_pending);
        h.store.set_fsync_queue(&q);
        const size_t before = open_fds();
        for (uint16_t i = 0; i < 20; ++i) {
            std::string err;
            ASSERT_TRUE(h.store.efs_put(0, "/q/f" + std::to_string(i % 4), pattern(1000, uint8_t(i)), &err)) << err;
            ASSERT_EQ(pattern(1000, uint8_t(i)), h.store.efs_read(0, "/q/f" + std::to_string(i % 4), 0, 2000));
            ASSERT_TRUE(h.store.nv_set(1, 550, pattern(10, uint8_t(i)), &err)) << err;
            ASSERT_EQ(pattern(10, uint8_t(i)), h.store.nv_get(1, 550));
        }
        q.drain();
        EXPECT_EQ(before, open_fds());
        for (int twice = 0; twice < 2; ++twice) // the NV directory stays open: listing it must start over
            EXPECT_EQ(std::vector<uint16_t>{550}, h.store.nv_list(1));
        EXPECT_EQ(max_pending ? 40u : 0u, q.queued());
        EXPECT_EQ(max_pending ? 0u : 40u, q.ran_inline());
        h.store.set_fsync_queue(nullptr);
    }
}

TEST(Scenario, UnknownKeysAreNamedAndNothingChanges)
{
    std::string big(1402, 'a'), huge(2002, 'a'), seventeen;
    for (int i = 0; i < 17; ++i)
        seventeen += std::string(i ? "," : "") + R"({"sub": 0, "id": 1, "data": "01"})";
    const std::pair<std::string, const char *> cases[] = {
        {R"({"nv":{"0":{"10":"01"}},"bogus":1})", "\"bogus\""},
        {R"({"nv":{"2":{"10":"01"}}})", "\"nv.2\""},
        {R"({"nv":{"0":{"ten":"01"}}})", "\"nv.0.ten\""},
        {R"({"nv":{"0":{"10":{"base64":"AA=="}}}})", "\"nv.0.10.base64\""},
        {R"({"efs":{"1":{"/a":{"hex":"01","x":1}}}})", "\"efs.1./a.x\""},
        {R"({"extend_replies":{"4":{"result":0,"dta":"00"}}})", "\"extend_replies.4.dta\""},
        {R"({"faults":[{"service":"extend","msg":2,"kind":"drop","cnt":1}]})", "\"faults[0].cnt\""},
        {R"({"faults":[{"service":"extend","msg":2,"kind":"explode"}]})", "\"faults[0].kind\""},
        {R"({"efs":{"0":{"/a/../b":"01"}}})", "\"efs.0./a/../b\""},
        {R"({"efs_read_chunk":425})", "\"efs_read_chunk\""},
        {R"({"properties":{"a.key.that.is.longer.than.sixty.four.bytes.and.so.refused.by.the.store":"v"}})", "a.key.that.is.longer.than.sixty.four.bytes.and.so.refused.by.the.store"},
        {R"({"uim": {"slots": {"1": {"cardd": "present"}}}})", "unknown key \"uim.slots.1.cardd\""},
        {R"({"uim": {"slot": {}}})", "unknown key \"uim.slot\""},
        {R"({"uim": {"slots": {"2": {}}}})", "\"uim.slots\" needs slot \"1\""},
        {R"({"uim": {"slots": {"1": {}, "3": {}}}})", "unknown key \"uim.slots.3\""},
        {R"({"uim": {"slots": {"1": {"selected": "euicc"}}}})", "\"uim.slots.1.selected\" is \"euicc\""},
        {R"({"uim": {"slots": {"1": {"euicc": {"eid": "89"}}}}})", "\"uim.slots.1.euicc.eid\" must be 32 hex"},
        {R"({"uim": {"slots": {"1": {"euicc": {"profiles": 1}}}}})", "\"uim.slots.1.euicc\" needs \"eid\""},
        {R"({"uim": {"slots": {"1": {"power": "off"}}}})", "\"uim.slots.1.power\" must be one of down, up"},
        {R"({"uim": {"extended_card_status": 1}})", "\"uim.extended_card_status\" must be true or false"},
        {R"({"vs_stats": {"2": {"82": "01"}}})", "\"vs_stats.2\""},
        {R"({"vs_stats": {"0": {"0x52": "01"}}})", "\"vs_stats.0.0x52\""},
        {R"({"vs_stats": {"0": {"82": ""}}})", "\"vs_stats.0.82\""},
        {R"({"vs_stats": {"0": {"82": ")" + big + R"("}}})", "\"vs_stats.0.82\""},
        {R"({"vs_stats": {"0": {"82": {"records": [)" + seventeen + "]}}}}", "\"vs_stats.0.82.records\""},
        {R"({"vs_stats": {"0": {"82": {"records": [{"sub": 0, "id": 1, "data": ")" + huge + R"("}]}}}})",
         "\"vs_stats.0.82.records[0].data\""},
        {R"({"vs_stats": {"0": {"82": {"records": [{"sub": 0, "data": "01"}]}}}})", "\"vs_stats.0.82.records[0]\""},
        {R"({"vs_stats": {"0": {"82": {"records": [{"sub": 0, "id": 1, "data": "", "x": 1}]}}}})",
         "\"vs_stats.0.82.records[0].x\""},
        {R"({"vs_stats": {"0": {"82": {"records": [{"sub": 65536, "id": 1, "data": ""}]}}}})",
         "\"vs_stats.0.82.records[0].sub\""},
        {R"({"sar_dsi": "seven"})", "\"sar_dsi\""},
        {R"({"sar_dsi": -1})", "\"sar_dsi\""},
    };
    for (const auto &[text, names] : cases) {
        kvn_test::TempDir dir;
        Handset h(dir.path());
        std::string err;
        ASSERT_TRUE(h.init(&err));
        // Every case also carries a valid NV item that must not be written.
        auto doc = nlohmann::json::parse(text);
        if (!doc.contains("nv"))
            doc["nv"] = {{"0", {{"10", "01"}}}};
        EXPECT_FALSE(apply_scenario(h, doc, &err)) << text;
        EXPECT_NE(err.find(names), std::string::npos) << text << " -> " << err;
        EXPECT_FALSE(h.store.nv_get(0, 10)) << text;
        EXPECT_TRUE(h.faults.all().empty());
        EXPECT_EQ(h.uim.count(), 2u) << text;
    }
}

TEST(Scenario, AppliesEveryKind)
{
    kvn_test::TempDir dir;
    Handset h(dir.path());
    register_all_services(h);
    std::string err;
    ASSERT_TRUE(h.init(&err));
    auto doc = nlohmann::json::parse(R"({
      "nv": {"1": {"0x10": {"text": "ab"}, "550": {"imei": "490154203237518"}}},
      "efs": {"0": {"/a/b": "01 02 03"}},
      "efs_read_chunk": 16,
      "extend_replies": {"7": {"result": 0, "data": "cafe"}},
      "faults": [{"service": "uim", "msg": "0x2f", "kind": "delay=50", "count": 2}],
      "properties": {"persist.vendor.x": "1", "y": "2"}
    })");
    ASSERT_TRUE(apply_scenario(h, doc, &err)) << err;
    EXPECT_EQ(h.store.nv_get(1, 16), (Bytes{'a', 'b'}));
    EXPECT_EQ(h.store.nv_get(1, 550), (Bytes{0x08, 0x4A, 0x09, 0x51, 0x24, 0x30, 0x32, 0x57, 0x81}));
    EXPECT_EQ(h.store.efs_read(0, "/a/b", 0, 10), (Bytes{1, 2, 3}));
    EXPECT_EQ(h.nvefs.read_chunk(), 16u);
    EXPECT_EQ(h.extend_replies.at(7).data, (Bytes{0xca, 0xfe}));
    ASSERT_EQ(h.faults.all().size(), 1u);
    EXPECT_EQ(h.faults.all()[0].service, kServiceUim);
    EXPECT_EQ(h.faults.all()[0].msg_id, 0x2f);
    EXPECT_EQ(h.faults.all()[0].count, 2u);
    EXPECT_EQ(h.props.get("y"), "2");
}

TEST(Imei, PackingAndRefusals)
{
    EXPECT_EQ(encode_imei("358240051111110"), kDefaultImei);
    EXPECT_EQ(encode_imei("000000000000000"), (Bytes{0x08, 0x0A, 0, 0, 0, 0, 0, 0, 0}));
    for (const char *bad : {"35824005111111", "3582400511111100", "35824005111111a"})
        EXPECT_FALSE(encode_imei(bad)) << bad;
}

/* ---- parsers ---- */

TEST(Parsers, HexNumbersAndTlvs)
{
    EXPECT_EQ(from_hex("0a0B ff:00"), (Bytes{0x0a, 0x0b, 0xff, 0x00}));
    EXPECT_EQ(from_hex("0x0102"), (Bytes{1, 2}));
    EXPECT_EQ(from_hex(""), Bytes{});
    for (const char *bad : {"abc", "a b", "zz"})
        EXPECT_FALSE(from_hex(bad)) << bad;
    EXPECT_EQ(parse_number("0x1F"), 31u);
    EXPECT_EQ(parse_number("65535", 0xFFFF), 65535u);
    const std::pair<const char *, uint64_t> refused[] = {
        {"65536", 0xFFFF}, {"2", 1}, {"0xF", 9}, {"18446744073709551616", UINT64_MAX},
        {"-1", UINT64_MAX}, {"0x", UINT64_MAX}, {"", UINT64_MAX},
    };
    for (const auto &[text, max] : refused)
        EXPECT_FALSE(parse_number(text, max)) << text;

    auto t = parse_tlvs(Bytes{0x01, 0x01, 0x00, 0xAA, 0x02, 0x00, 0x00});
    ASSERT_TRUE(t);
    ASSERT_EQ(t->size(), 2u);
    EXPECT_EQ((*t)[0].value.size(), 1u);
    EXPECT_EQ((*t)[1].type, 0x02);
    EXPECT_FALSE(parse_tlvs(Bytes{0x01, 0x02, 0x00, 0xAA}));
    EXPECT_FALSE(parse_tlvs(Bytes{0x01, 0x00}));
    EXPECT_FALSE(parse_tlvs(Bytes{0x01, 0xFF, 0xFF}));
}

} // namespace
