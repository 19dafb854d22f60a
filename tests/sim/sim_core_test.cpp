// sim_core_test.cpp - kvn-sim's modem side in-process: NV/EFS command, scenarios, radio services, parsers.
#include <set>

#include "fsync_queue.h"
#include "sim_test.h"

using namespace sim_test;

namespace {

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
    Bench b;
    Handset &h = b.h;
    std::vector<std::string> logged;
    NvEfsCommand cmd{h.store, [this](const std::string &t) { logged.push_back(t); }};
    NvEfsCommand::Clock::time_point now = NvEfsCommand::Clock::now();

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
};

// A never-written item is not active; subscriptions are separate stores; a write stores exactly the declared length.
TEST_F(NvEfsTest, NvReadWriteDeleteAndNotActive)
{
    const NvEfsReply not_active{0, 0, NvEfsCommand::kNotActive, {}};
    EXPECT_EQ(run({1, 0, 550}), not_active);
    Bytes item = pattern(424, 3);
    EXPECT_EQ(run({2, 1, 550, "", 424, 0, 0, item}).result, 0);
    EXPECT_EQ(run({1, 1, 550}), (NvEfsReply{424, 424, 0, item}));
    EXPECT_EQ(run({1, 0, 550}), not_active);
    EXPECT_EQ(run({2, 1, 550, "", 3, 0, 0, item}).result, 0);
    EXPECT_EQ(run({1, 1, 550}).data, slice(item, 0, 3));
    EXPECT_EQ(run({3, 1, 550}).result, 0);
    EXPECT_EQ(run({1, 1, 550}), not_active);
    EXPECT_EQ(run({3, 1, 550}), not_active);
}

TEST_F(NvEfsTest, MalformedRequestsAreRefusedAndLogged)
{
    const std::pair<const char *, NvEfsRequest> cases[] = {
        {"sub 2", {1, 2, 550}}, {"unknown operation", {9, 0, 1}}, {"NV write of 0 bytes", {2, 0, 1, "", 0, 0, 0, {1}}},
        {"NV write of 425 bytes", {2, 0, 1, "", 425, 0, 0, {1}}}, {"empty path", {4, 0, 0, ""}},
        {"relative path", {4, 0, 0, "nv/x"}}, {"dot-dot component", {6, 0, 0, "/nv/../../etc/passwd"}},
        {"dot component", {5, 0, 255, "/nv/./x", 1, 1, 0, {1}}}, {"root", {4, 0, 0, "/"}},
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
    EXPECT_EQ(write_chunk("/empty", 255, 0, 0, {}).result, NvEfsCommand::kBadRequest) << "no empty file";
    EXPECT_FALSE(h.store.efs_size(0, "/empty"));
    // A path length byte above 71 (the path would run into the length fields), and a short record.
    Bytes p = NvEfsRequest{4, 0, 0, "/x"}.encode();
    p[4] = 72;
    EXPECT_LT(decode_nvefs(cmd.handle(p.data(), p.size(), 1, now)).result, 0);
    EXPECT_LT(decode_nvefs(cmd.handle(p.data(), 100, 1, now)).result, 0);
    EXPECT_FALSE(fs::exists(b.state() / "efs/x")) << "nothing escaped the EFS tree";
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
    EXPECT_EQ(run({4, 0, 0, path, 0, 0, 0}), (NvEfsReply{1000, 424, 0, slice(file, 0, 424)}));
    EXPECT_EQ(run({4, 0, 0, path, 0, 0, 424}), (NvEfsReply{1000, 424, 0, slice(file, 424, 848)}));
    EXPECT_EQ(run({4, 0, 0, path, 0, 0, 848}), (NvEfsReply{1000, 152, 0, slice(file, 848, 1000)}));
    EXPECT_EQ(run({4, 0, 0, path, 0, 0, 1000}), (NvEfsReply{1000, 0, 0, {}})) << "at the end: nothing left";
    EXPECT_EQ(run({4, 0, 0, path, 0, 0, 1001}).result, NvEfsCommand::kBadPosition) << "position past the end";
    cmd.set_read_chunk(100);
    EXPECT_EQ(run({4, 0, 0, path, 0, 0, 0}).len_send, 100u) << "a scenario's smaller read chunk";
    cmd.set_read_chunk(424);

    ASSERT_GE(write_chunk(path, 255, 5, 0, pattern(5, 1)).result, 0);
    EXPECT_EQ(run({4, 0, 0, path}), (NvEfsReply{5, 5, 0, pattern(5, 1)}));
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

    // Abandoned: a new transfer of the same file by the same connection, its connection closing, 30 s of silence.
    a = start();
    uint16_t b2 = start();
    EXPECT_NE(a, b2);
    EXPECT_LT(write_chunk(path, a, 900, 400, next).result, 0);
    EXPECT_EQ(write_chunk(path, b2, 900, 400, next).result, b2);
    cmd.connection_closed(1);
    EXPECT_LT(write_chunk(path, b2, 900, 800, slice(file, 800, 900)).result, 0);
    a = start();
    now += std::chrono::seconds(31);
    EXPECT_LT(write_chunk(path, a, 900, 400, next).result, 0);
    EXPECT_EQ(cmd.open_transfers(), 0u);
    EXPECT_FALSE(h.store.efs_size(0, path)) << "no abandoned transfer may produce the file";
    // Another connection's chunks naming a transfer, good or bad, are refused and leave it as it was.
    a = start(7);
    EXPECT_EQ(write_chunk(path, a, 900, 400, next, 8).result, NvEfsCommand::kBadTransfer);
    EXPECT_LT(write_chunk(path, a, 900, 400, Bytes(500, 1), 8).result, 0) << "an oversized chunk";
    EXPECT_LT(write_chunk(path, a, 0, 0, {}, 8).result, 0) << "a zero total";
    EXPECT_EQ(write_chunk(path, a, 900, 400, next, 7).result, a) << "the owner's transfer survived";
    cmd.connection_closed(7);

    // Instance 255 opens one: at most 8 per connection; 255 at once get distinct instances, the next is refused.
    const size_t per = NvEfsCommand::kMaxTransfersPerConnection;
    std::set<int> seen;
    for (size_t i = 0; i < 255; ++i) {
        auto r = write_chunk("/f" + std::to_string(i), 255, 10, 0, pattern(4, 1), 100 + i / per);
        ASSERT_GE(r.result, 0);
        ASSERT_LT(r.result, 255);
        seen.insert(r.result);
    }
    EXPECT_EQ(seen.size(), 255u);
    EXPECT_EQ(write_chunk("/full", 255, 10, 0, pattern(4, 1), 999).result, NvEfsCommand::kBusy) << "all in use";
    cmd.connection_closed(101);
    EXPECT_EQ(write_chunk("/mine", 255, 10, 0, pattern(4, 1), 100).result, NvEfsCommand::kBusy) << "share used up";
    EXPECT_GE(write_chunk("/mine", 255, 10, 0, pattern(4, 1), 999).result, 0) << "freed by its connection";
}

size_t open_fds()
{
    auto it = fs::directory_iterator("/proc/self/fd");
    return static_cast<size_t>(std::distance(it, fs::directory_iterator()));
}

// Queued or not (a full queue flushes in the writer), a write is in place at once and its descriptors are released.
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
        EXPECT_FALSE(h.store.efs_read(0, "/q/none", 0, 1)); // lets go of the file last read, kept open until now
        EXPECT_EQ(before, open_fds());
        for (int twice = 0; twice < 2; ++twice) // the NV directory stays open: listing it must start over
            EXPECT_EQ(std::vector<uint16_t>{550}, h.store.nv_list(1));
        EXPECT_EQ(max_pending ? 40u : 0u, q.queued());
        EXPECT_EQ(max_pending ? 0u : 40u, q.ran_inline());
        h.store.set_fsync_queue(nullptr);
    }
}

// A document with n entries at `at`, entry i made by row(i).
json many(const std::vector<std::string> &at, size_t n, const std::function<std::pair<std::string, json>(size_t)> &row)
{
    json doc, *o = &doc;
    for (const auto &k : at)
        o = &(*o)[k];
    for (size_t i = 0; i < n; ++i)
        o->operator[](row(i).first) = row(i).second;
    return doc;
}
auto numbered(const char *prefix, const json &value = "01")
{
    return [prefix, value](size_t i) { return std::pair{prefix + std::to_string(i), value}; };
}

// A refused document names what is wrong and changes nothing (each carries a valid NV item); "" rows are bounds taken.
TEST(Scenario, DocumentsAreCheckedWholeBeforeAnythingChanges)
{
    std::string ids249, big(1402, 'a'), huge(2002, 'a'), seventeen;
    for (int i = 0; i < 249; ++i)
        ids249 += std::string(i ? "," : "") + std::to_string(i);
    for (int i = 0; i < 17; ++i)
        seventeen += std::string(i ? "," : "") + R"({"sub": 0, "id": 1, "data": "01"})";
    const json faults = {{"faults", json(1001, json{{"service", "extend"}, {"msg", 1u}, {"kind", "drop"}})}};
    auto ms = [](const std::string &v) { return R"({"modem_stats": )" + v + "}"; };
    auto recs = [](const std::string &v) { return R"({"vs_stats": {"0": {"82": {"records": [)" + v + "]}}}}"; };
    const std::pair<json, std::string> cases[] = {
        {R"({"nv":{"0":{"10":"01"}},"bogus":1})", "\"bogus\""}, {R"({"nv":{"2":{"10":"01"}}})", "\"nv.2\""},
        {R"({"nv":{"0":{"ten":"01"}}})", "\"nv.0.ten\""},
        {R"({"nv":{"0":{"10":{"base64":"AA=="}}}})", "\"nv.0.10.base64\""},
        {R"({"efs":{"1":{"/a":{"hex":"01","x":1}}}})", "\"efs.1./a.x\""},
        {R"({"extend_replies":{"4":{"result":0,"dta":"00"}}})", "\"extend_replies.4.dta\""},
        {R"({"faults":[{"service":"extend","msg":2,"kind":"drop","cnt":1}]})", "\"faults[0].cnt\""},
        {R"({"faults":[{"service":"extend","msg":2,"kind":"explode"}]})", "\"faults[0].kind\""},
        {R"({"efs":{"0":{"/a/../b":"01"}}})", "\"efs.0./a/../b\""},
        {R"({"efs_read_chunk":425})", "\"efs_read_chunk\" must be a number from 1 to 424"},
        {R"({"efs_read_chunk":0})", "\"efs_read_chunk\" must be a number from 1 to 424"},
        {R"({"properties":{"a.key.that.is.longer.than.sixty.four.bytes.and.so.refused.by.the.store":"v"}})",
         "a.key.that.is.longer.than.sixty.four.bytes.and.so.refused.by.the.store"},
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
        {recs(seventeen), "\"vs_stats.0.82.records\""},
        {recs(R"({"sub": 0, "id": 1, "data": ")" + huge + R"("})"), "\"vs_stats.0.82.records[0].data\""},
        {recs(R"({"sub": 0, "data": "01"})"), "\"vs_stats.0.82.records[0]\""},
        {recs(R"({"sub": 0, "id": 1, "data": "", "x": 1})"), "\"vs_stats.0.82.records[0].x\""},
        {recs(R"({"sub": 65536, "id": 1, "data": ""})"), "\"vs_stats.0.82.records[0].sub\""},
        {R"({"sar_dsi": "seven"})", "\"sar_dsi\""}, {R"({"sar_dsi": -1})", "\"sar_dsi\""},
        {ms("{\"debug_info\": \"" + std::string(1000, 'a') + "\"}"), ""},
        {ms("{\"debug_info\": \"" + std::string(1002, 'a') + "\"}"), "\"modem_stats.debug_info\""},
        {ms(R"({"debug_info": ""})"), "\"modem_stats.debug_info\""},
        {ms(R"({"unsupported_log_ids": [)" + ids249 + "]}"), ""},
        {ms(R"({"unsupported_log_ids": [0,)" + ids249 + "]}"), "\"modem_stats.unsupported_log_ids\""},
        {ms(R"({"unsupported_log_ids": [65536]})"), "\"modem_stats.unsupported_log_ids[0]\""},
        {ms(R"({"debug_info_result": -2147483648, "unsupported_log_ids_result": 2147483647})"), ""},
        {ms(R"({"debug_info_result": 2147483648})"), "\"modem_stats.debug_info_result\""},
        {ms(R"({"unsupported_log_ids_result": "1"})"), "\"modem_stats.unsupported_log_ids_result\""},
        {ms(R"({"debug": "00"})"), "\"modem_stats.debug\""},
        {many({"properties"}, 101, numbered("persist.p")), "100 properties"},
        {many({"nv", "0"}, 2001, numbered("")), "2000 NV items"},
        {many({"efs", "0"}, 1001, numbered("/f")), "1000 EFS files"},
        {many({"diag_replies"}, 1001,
              [](size_t i) { return std::pair{to_hex(Bytes{uint8_t(i), uint8_t(i >> 8)}), json("01")}; }),
         "1000 diag replies"},
        {many({"extend_replies"}, 1001, numbered("", {{"result", 0u}})), "1000 extend replies"},
        {many({"vs_stats", "0"}, 1001, numbered("")), "1000 statistics"},
        {faults, "1000 faults"},
    };
    Bytes type20(512, 0);
    type20[0] = 20;
    for (const auto &[row, names] : cases) {
        json doc = row.is_string() ? json::parse(row.get<std::string>()) : row;
        SCOPED_TRACE(doc.dump().substr(0, 100));
        Bench s;
        std::string err;
        if (!doc.contains("nv"))
            doc["nv"] = {{"0", {{"10", "01"}}}};
        EXPECT_EQ(apply_scenario(s.h, doc, &err), names.empty());
        EXPECT_NE(err.find(names), std::string::npos) << err;
        if (names.empty())
            continue;
        EXPECT_FALSE(s.h.store.nv_get(0, 10));
        EXPECT_TRUE(s.h.faults.all().empty());
        EXPECT_EQ(s.h.uim.count(), 2u);
        EXPECT_EQ(s.h.extend4.dispatch(type20.data(), 512, 1).data.size(), 8u + 221u);
    }
    std::string err;
    EXPECT_FALSE(parse_scenario_text(std::string(kMaxScenarioBytes + 1, ' '), &err));
    EXPECT_NE(err.find("over the bound of 4194304 bytes"), std::string::npos) << err;
    EXPECT_FALSE(parse_scenario_text("{\n  \"nv\": {\n    \"0\": x}}", &err));
    EXPECT_EQ(err.rfind("line 3, column 10: not valid JSON (syntax error", 0), 0u) << err;
    EXPECT_FALSE(parse_scenario_text(R"({"efs": {"0": {"/a": "01", "/b": "02", "/a": "03"}}, "x": 1})", &err));
    EXPECT_EQ(err, "duplicate key \"efs.0./a\"");
    EXPECT_TRUE(parse_scenario_text(R"({"a": {"k": 1}, "b": {"k": 1}})", &err)) << "the same key in two objects";
}

TEST(Scenario, AppliesEveryKind)
{
    Bench s;
    ASSERT_TRUE(s.load(R"({
      "nv": {"1": {"0x10": {"text": "ab"}, "550": {"imei": "490154203237518"}}},
      "efs": {"0": {"/a/b": "01 02 03"}},
      "efs_read_chunk": 16,
      "extend_replies": {"7": {"result": 0, "data": "cafe"}},
      "faults": [{"service": "uim", "msg": "0x2f", "kind": "delay=50", "count": 2, "after": 3}],
      "properties": {"persist.vendor.x": "1", "y": "2"}
    })"));
    EXPECT_EQ(s.h.store.nv_get(1, 16), (Bytes{'a', 'b'}));
    EXPECT_EQ(s.h.store.nv_get(1, 550), (Bytes{0x08, 0x4A, 0x09, 0x51, 0x24, 0x30, 0x32, 0x57, 0x81}));
    EXPECT_EQ(s.h.store.efs_read(0, "/a/b", 0, 10), (Bytes{1, 2, 3}));
    EXPECT_EQ(s.h.nvefs.read_chunk(), 16u);
    EXPECT_EQ(s.h.extend_replies.at(7).data, (Bytes{0xca, 0xfe}));
    const Fault &f = s.h.faults.all().at(0);
    EXPECT_EQ(std::tuple(f.service, f.msg_id, f.count, f.after), std::tuple(kServiceUim, 0x2f, 2u, 3u));
    EXPECT_EQ(s.h.props.get("y"), "2");
}

// Every matching request counts down each waiting `after`; the first fault not waiting applies for its count.
TEST(Faults, AfterServesTheFirstMatchingRequests)
{
    Faults f;
    f.add({kServiceExtend, 2, FaultKind::Drop, 0, 2, 1});
    f.add({kServiceExtend, 2, FaultKind::NoReply, 0, 1, 4});
    std::string seen;
    for (int i = 0; i < 6; ++i) {
        EXPECT_FALSE(f.take(kServiceExtend, 3)) << "another message does not count";
        auto hit = f.take(kServiceExtend, 2);
        seen += hit ? fault_kind_text(*hit) + " " : "- ";
    }
    EXPECT_EQ(seen, "- drop drop - no-reply - ");
    EXPECT_TRUE(f.all().empty());
}

TEST(Parsers, ImeiHexNumbersTlvsAndUtf8)
{
    EXPECT_FALSE(is_utf8("\xf4\x90\x80\x80")) << "beyond U+10FFFF";
    EXPECT_FALSE(is_utf8("\xc0\xaf")) << "overlong";
    EXPECT_TRUE(is_utf8("\xf0\x9f\x93\xb1"));
    EXPECT_EQ(encode_imei("358240051111110"), (Bytes{0x08, 0x3A, 0x85, 0x42, 0x00, 0x15, 0x11, 0x11, 0x01}));
    EXPECT_EQ(encode_imei("000000000000000"), (Bytes{0x08, 0x0A, 0, 0, 0, 0, 0, 0, 0}));
    for (const char *bad : {"35824005111111", "3582400511111100", "35824005111111a"})
        EXPECT_FALSE(encode_imei(bad)) << bad;
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
    EXPECT_EQ(std::tuple((*t)[0].type, (*t)[0].value.size(), (*t)[1].type), std::tuple(0x01, 1u, 0x02));
    for (const Bytes &bad : {Bytes{0x01, 0x02, 0x00, 0xAA}, Bytes{0x01, 0x00}, Bytes{0x01, 0xFF, 0xFF}})
        EXPECT_FALSE(parse_tlvs(bad));
}

/* ---- the radio services ---- */

// Statistics in the order asked (a load replaces only the pairs it names); the SAR DSI, left out when null; stats.
TEST(Radio, StatisticsSarAndModemStatsAnswers)
{
    Bench s;
    ASSERT_TRUE(s.load(R"({"vs_stats": {"1": {
        "82": "a1a2", "7": {"records": [{"sub": 0, "id": 9, "data": ""}, {"sub": 5, "id": 7, "data": "ff"}]}}}})"));
    EXPECT_EQ(s.h.radio.vs_stats[0].at(82)[0].data.size(), 75u); // the other subscription kept its default
    // Subscription 1, ids 7, 4242 (unknown), 82.
    auto t = s.ask(0xE4, 0x0207, "01 0200 0100" "02 0200 0500" "03 0d00 03 07000000 92100000 52000000");
    EXPECT_EQ(Bench::tlv_hex(t, 0x02), "00000000");
    EXPECT_EQ(Bench::tlv_hex(t, 0x10), "03" "0000" "0000" "09000000" "0000"
                                       "0500" "0000" "07000000" "0100" "ff"
                                       "0100" "0000" "52000000" "0200" "a1a2");
    // Subscription 2 (the handset has none): no records.
    EXPECT_EQ(Bench::tlv_hex(s.ask(0xE4, 0x0207, "01 0200 0200" "02 0200 0500" "03 0500 01 52000000"), 0x10), "00");
    EXPECT_EQ(s.result(0xE4, 0x0003, "01 0400 02000000" "02 0100 01" "10 0100 00"), "00000000");
    EXPECT_EQ(s.h.radio.vs_features.at(2).enable, 1); // throws when the feature was not recorded
    EXPECT_EQ(s.h.radio.vs_features.at(2).extra, 0);

    EXPECT_EQ(s.result(0x11, 0x0001, "01 0400 08000000"), "00000000");
    EXPECT_EQ(Bench::tlv_hex(s.ask(0x11, 0x0002, ""), 0x10), "08000000");
    ASSERT_TRUE(s.load(R"({"sar_dsi": null})"));
    t = s.ask(0x11, 0x0002, "");
    EXPECT_EQ(Bench::tlv_hex(t, 0x02) + Bench::tlv_hex(t, 0x10), "00000000none");

    // Command 4 request types 20 and 27: defaults, then two loads merged sub-key by sub-key.
    auto request = [&](uint8_t type) {
        Bytes payload(512, 0);
        payload[0] = type;
        ExtendReply r = s.h.extend4.dispatch(payload.data(), payload.size(), 1);
        EXPECT_EQ(r.result, 0u);
        return r.data;
    };
    Bytes block = request(20);
    ASSERT_EQ(block.size(), 8u + 221u);
    EXPECT_EQ(Bytes(block.begin(), block.begin() + 11), (Bytes{20, 0, 0, 0, 0, 0, 0, 0, 4, 1, 0}));
    EXPECT_EQ(request(27), (Bytes{27, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    ASSERT_TRUE(s.load(R"({"modem_stats": {"unsupported_log_ids": [45248, 4981], "debug_info_result": -5}})"));
    ASSERT_TRUE(s.load(R"({"modem_stats": {"debug_info": "02 01", "unsupported_log_ids_result": 7}})"));
    EXPECT_EQ(request(20), (Bytes{20, 0, 0, 0, 0xfb, 0xff, 0xff, 0xff, 2, 1}));
    EXPECT_EQ(request(27), (Bytes{27, 0, 0, 0, 7, 0, 0, 0, 2, 0, 0xc0, 0xb0, 0x75, 0x13}));
}

// Malformed requests are refused; a malformed UIM one (an eUICC reset APDU whose length disagrees) changes nothing.
TEST(Radio, ResultsOfGoodAndMalformedRequests)
{
    Bench s;
    ASSERT_TRUE(s.load(R"({"uim": {"slots": {"1": {}, "2": {"selected": "euicc",
        "euicc": {"eid": "89049032123451234512345678901234", "profiles": 2}}}}})"));
    const std::string isdr = "10 1100 10 a0000005591010ffffffff8900000100", reset = "80e29100 03 bf3400";
    ASSERT_EQ(s.result(11, 0x42, "01 0100 02" + isdr), "00000000");
    const std::string ok = "00000000", malformed = "01000100";
    const std::tuple<uint32_t, uint16_t, std::string, std::string> cases[] = {
        {0xE4, 0x0207, "01 0200 0000" "02 0200 0100" "03 0500 02 52000000", malformed}, // count 2, one id
        {0xE4, 0x0207, "01 0200 0000" "03 0500 01 52000000", malformed},                // no request number
        {0xE4, 0x0207, "01 0100 00" "02 0200 0100" "03 0500 01 52000000", malformed},   // one-byte subscription
        {0xE4, 0x0003, "01 0400 02000000", malformed},                                  // no TLV 0x02
        {0xE4, 0x0003, "01 0400 02000000" "02 0200 0101", malformed},                   // two-byte TLV 0x02
        {0xE4, 0x0207, "01 0900 00", malformed},                                        // TLV runs past the end
        {0xE4, 0x0100, "", "01004700"},
        {0x11, 0x0001, "01 0100 08", malformed},
        {3, 0x0045, "01 0100 01", ok},
        {3, 0x0045, "01 0400 01000000", malformed},
        {3, 0x0045, "01 0100 03", "01003000"},
        {3, 0x0003, "13 0100 00", ok},
        {3, 0x0020, "", "01004700"},
        {11, 0x3B, "01 0100 02" "10 0100 01" "02 0a00 0900" + reset, malformed},   // claims 9, carries 8
        {11, 0x3B, "01 0100 02" "10 0100 01" "02 0a00 0700" + reset, malformed},   // claims 7, carries 8
        {11, 0x3B, "01 0100 02" "10 0100 01" "02 0100 08", malformed},             // no room for the length
        {11, 0x3B, "01 0100 02" "10 0200 0100" "02 0a00 0800" + reset, malformed}, // two-byte channel
        {11, 0x3B, "01 0200 0200" "10 0100 01" "02 0a00 0800" + reset, malformed}, // two-byte slot
        {11, 0x30, "01 0200 0100", malformed},                                     // power off, two-byte slot
        {11, 0x31, "01 0100 01" "10 0200 0000", malformed},                        // two-byte hot-swap flag
        {11, 0x42, "01 0100 02" "10 1100 11 a0000005591010ffffffff8900000100", malformed}, // AID count past it
        {11, 0x3F, "01 0100 02" "11 0200 0100", malformed},                        // close, two-byte channel
        {11, 0x2F, "10 0200 0100", malformed},                                     // two-byte extended flag
        {11, 0x3B, "01 0100 02" "10 0100 01" "02 0a00 0800 80e29100", malformed},  // TLV runs past the end
    };
    for (const auto &[service, msg, hex, result] : cases) {
        SCOPED_TRACE(hex);
        EXPECT_EQ(s.result(service, msg, hex), result);
        EXPECT_EQ(s.h.uim.slot(2)->euicc->profiles, 2u);
        EXPECT_TRUE(s.h.uim.slot(1)->powered && s.h.uim.slot(2)->powered);
        EXPECT_TRUE(s.h.uim.channel_open(2, 1));
        EXPECT_FALSE(s.h.uim.channel_open(2, 2));
    }
    EXPECT_EQ(s.result(11, 0x3B, "01 0100 02" "10 0100 01" "02 0a00 0800" + reset), ok);
    EXPECT_EQ(s.h.uim.slot(2)->euicc->profiles, 0u);
}

} // namespace
