// sim_hardening_test.cpp - kvn-sim against hostile input in-process: control, loads, the store, the router.
#include "sim_test.h"

using namespace sim_test;

TEST(Hardening, ControlFieldsAreTypeAndRangeChecked)
{
    Bench b;
    const std::pair<const char *, const char *> cases[] = {
        {R"({"op":5})", "\"op\""}, {R"({"id":1})", "\"op\""}, {R"({"op":"nv_get","sub":0,"id":1e300})", "\"id\""},
        {R"({"op":"nv_get","sub":0,"id":1.5})", "\"id\""}, {R"({"op":"nv_get","sub":0,"id":-1})", "\"id\""},
        {R"({"op":"nv_get","sub":0,"id":65536})", "\"id\""}, {R"({"op":"nv_get","sub":"0","id":1})", "\"sub\""},
        {R"({"op":"nv_get","sub":2,"id":1})", "\"sub\""}, {R"({"op":"nv_get","sub":0})", "missing field \"id\""},
        {R"({"op":"fault","service":"extend","kind":"drop","msg":70000})", "\"msg\""},
        {R"({"op":"fault","service":"extend","kind":"drop","msg":2,"count":-1})", "\"count\""},
        {R"({"op":"fault","service":"extend","kind":"drop","msg":2,"count":0})", "\"count\""},
        {R"({"op":"fault","service":5,"kind":"drop","msg":2})", "\"service\""}, {R"({"op":"ssr","ms":-1})", "\"ms\""},
        {R"({"op":"ssr","ms":3600001})", "\"ms\""}, {R"({"op":"service","name":"all","up":"no"})", "\"up\""},
        {R"({"op":"journal","after":-5})", "\"after\""}, {R"({"op":"prop_set","key":"a","value":7})", "\"value\""},
        {R"({"op":"efs_get","sub":0,"path":"/a","offset":1e20})", "\"offset\""},
        {R"({"op":"efs_ls","sub":0,"path":["/"]})", "\"path\""}, {R"({"op":"load"})", "\"document\""},
    };
    for (const auto &[text, names] : cases)
        b.expect_refused(json::parse(text), names);
    EXPECT_TRUE(b.h.faults.all().empty()) << "no refused fault was added";
    for (auto &e : b.h.services.entries())
        EXPECT_TRUE(e.up) << "the refused ssr took nothing down";

    b.call(json::parse(R"({"op":"fault","service":"extend","kind":"drop","msg":65535,"count":4294967295})"), true);
    const Fault &f = b.h.faults.all().at(0);
    EXPECT_EQ(std::pair(f.msg_id, f.count), std::pair(uint16_t(65535), 4294967295u));
    // A request that is not JSON, or whose op is not a string, through the router.
    uint64_t c = b.router->open_local();
    for (std::string body : {"{\"op\":5}", "[1]", "{\"op\":"}) {
        ASSERT_TRUE(b.router->feed_local(c, packet(kvn_wire::Kind::Control, 0, Bytes(body.begin(), body.end())).data(),
                                         16 + body.size()));
        auto out = b.router->take_output(c);
        ASSERT_GE(out.size(), 16u);
        EXPECT_EQ(kvn_wire::decode_header(out.data())->status, 1) << body;
    }
}

TEST(Hardening, ControlOpensNoHostFileAndStagedUploadsAreBounded)
{
    Bench b;
    const std::string secret = b.dir.path() + "/secret";
    std::ofstream(secret) << "root only";
    b.expect_refused({{"op", "load"}, {"file", secret}}, "opens no host file");
    b.expect_refused({{"op", "efs_put"}, {"sub", 0}, {"path", "/s"}, {"file", secret}}, "opens no host file");
    EXPECT_FALSE(b.h.store.efs_size(0, "/s"));

    // A document in two chunks, loaded by its upload id, consumed.
    const std::string doc = R"({"properties": {"persist.a": ")" + std::string(80, 'v') + R"("}})";
    const Bytes bytes(doc.begin(), doc.end());
    auto first = b.call({{"op", "upload"}, {"hex", to_hex(bytes.data(), 10)}}, true)["upload"];
    b.call({{"op", "upload"}, {"upload", first}, {"hex", to_hex(bytes.data() + 10, bytes.size() - 10)}}, true);
    b.call({{"op", "load"}, {"upload", first}}, true);
    EXPECT_EQ(b.h.props.get("persist.a"), std::string(80, 'v'));
    b.expect_refused({{"op", "load"}, {"upload", first}}, "no upload");
    b.call({{"op", "load"}, {"document", R"({"properties": {"persist.b": "1"}})"}}, true);
    EXPECT_EQ(b.h.props.get("persist.b"), "1");

    // At most 4 live: a fifth drops the oldest.
    std::vector<json> ids;
    for (int i = 0; i < 5; ++i)
        ids.push_back(b.call({{"op", "upload"}, {"hex", "01"}}, true)["upload"]);
    b.expect_refused({{"op", "efs_put"}, {"sub", 0}, {"path", "/o"}, {"upload", ids[0]}}, "no upload");
    b.call({{"op", "efs_put"}, {"sub", 0}, {"path", "/o"}, {"upload", ids[4]}}, true);
    EXPECT_EQ(b.h.store.efs_size(0, "/o"), 1u);

    // Bounds: a chunk, an EFS file, a whole upload.
    b.expect_refused({{"op", "upload"}, {"hex", std::string(48002, '0')}}, "more than 24000 bytes");
    json big = b.call({{"op", "upload"}, {"hex", std::string(48000, '0')}}, true)["upload"];
    for (int i = 0; i < 4; ++i)
        b.call({{"op", "upload"}, {"upload", big}, {"hex", std::string(48000, '0')}}, true);
    b.expect_refused({{"op", "efs_put"}, {"sub", 0}, {"path", "/z"}, {"upload", big}}, "over the bound of 102410");
    big = b.call({{"op", "upload"}, {"hex", std::string(48000, '0')}}, true)["upload"];
    std::string err;
    for (size_t n = 24000; n <= kMaxScenarioBytes && err.empty(); n += 24000) {
        bool ok = true;
        err = b.ctl({{"op", "upload"}, {"upload", big}, {"hex", std::string(48000, '0')}}, &ok).value("error", "");
    }
    EXPECT_NE(err.find("over the bound of 4194304 bytes"), std::string::npos) << err;
}

TEST(Hardening, ALoadIsAllOrNothing)
{
    Bench b;
    std::string err;
    ASSERT_TRUE(b.h.store.efs_put(0, "/nv/x", {1}, &err)) << err;
    ASSERT_TRUE(b.h.store.efs_put(0, "/f", {1}, &err)) << err;
    const char *docs[] = {
        R"({"efs": {"0": {"/aaa_first": "01", "/nv": "02"}}})",         // a directory in the way
        R"({"efs": {"0": {"/aaa_first": "01", "/f/under": "02"}}})",    // a file where a directory goes
        R"({"efs": {"0": {"/aaa_first": "01", "/d": "02", "/d/e": "03"}}})", // within the document
        R"({"efs": {"0": {"/aaa_first": "01", "//g/h": "02", "/g": "03"}}})",
    };
    for (const char *doc : docs) {
        EXPECT_FALSE(apply_scenario_text(b.h, doc, &err)) << doc;
        EXPECT_FALSE(b.h.store.efs_size(0, "/aaa_first")) << doc << ": " << err;
    }
    const json many = {{"faults", json(1000, json{{"service", "extend"}, {"msg", 1u}, {"kind", "drop"}})}};
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(apply_scenario(b.h, many, &err)) << err;
    b.expect_refused({{"op", "load"}, {"document", R"({"faults": [{"service": "extend", "msg": 1, "kind": "drop"}],
                                                      "properties": {"persist.c": "1"}})"}}, "the bound on faults");
    EXPECT_FALSE(b.h.props.get("persist.c"));
    b.expect_refused({{"op", "fault"}, {"service", "extend"}, {"kind", "drop"}, {"msg", 1}}, "bound on faults");
    b.call({{"op", "fault_clear"}}, true);
    EXPECT_EQ(b.h.faults.all().capacity(), 0u) << "the memory is given back";
}

// Links planted in the state directory lead nowhere: nothing outside it is read, written or deleted through them.
TEST(Hardening, LinksPlantedInTheStoreAreNotFollowed)
{
    Bench b;
    kvn_test::TempDir outside;
    const fs::path o = outside.path();
    std::ofstream(o / "secret") << "keep";
    fs::create_directory_symlink(o, b.state() / "efs/sub0/dirlink");
    fs::create_symlink(o / "secret", b.state() / "efs/sub0/filelink");
    fs::create_symlink(o / "secret", b.state() / "nv/sub0/550");
    fs::remove_all(b.state() / "nv/sub1");
    fs::create_directory_symlink(o, b.state() / "nv/sub1");
    ModemStore &s = b.h.store;
    std::string err;
    const Bytes data = {1, 2, 3};

    EXPECT_FALSE(s.efs_put(0, "/dirlink/new", data, &err)) << "a directory link on the way";
    for (const char *p : {"/dirlink/secret", "/filelink"})
        EXPECT_FALSE(s.efs_size(0, p) || s.efs_read(0, p, 0, 10) || s.efs_rm(0, p)) << p;
    EXPECT_TRUE(s.efs_ls(0, "/").empty() && s.efs_ls(0, "/dirlink").empty()) << "links are not listed";
    EXPECT_FALSE(s.nv_get(0, 550) || s.nv_get(1, 1) || s.nv_set(1, 7, data, &err));
    // Writing over a link replaces the link, never what it points at.
    EXPECT_TRUE(s.efs_put(0, "/filelink", data, &err)) << err;
    EXPECT_TRUE(s.nv_set(0, 550, data, &err)) << err;
    EXPECT_EQ(s.nv_get(0, 550), data);
    EXPECT_EQ(slurp(o / "secret"), "keep");
    EXPECT_EQ(std::distance(fs::directory_iterator(o), fs::directory_iterator()), 1) << "nothing created outside";
}

// Only kvn-sim's own temp files in its own temp area are cleared at start; files that are not regular are refused.
TEST(Hardening, TempAreaAndNonRegularFiles)
{
    kvn_test::TempDir dir;
    const fs::path st = dir.path();
    fs::create_directories(st / "tmp/keep");
    fs::create_directories(st / ModemStore::kTempDir);
    std::ofstream(st / "tmp/keep/file") << "mine";
    std::ofstream(st / ModemStore::kTempDir / "foreign") << "x";
    std::ofstream(st / ModemStore::kTempDir / (std::string(kTempPrefix) + "0011")) << "half-written";
    Handset h(st);
    std::string err;
    ASSERT_TRUE(h.init(&err)) << err;
    EXPECT_EQ(slurp(st / "tmp/keep/file"), "mine");
    EXPECT_TRUE(fs::exists(st / ModemStore::kTempDir / "foreign"));
    EXPECT_FALSE(fs::exists(st / ModemStore::kTempDir / (std::string(kTempPrefix) + "0011")));

    // A FIFO with no writer would block open() for good; a directory is no file either.
    ASSERT_EQ(mkfifo((st / "fifo").c_str(), 0600), 0);
    for (const char *name : {"fifo", "tmp"}) {
        EXPECT_FALSE(read_file(st / name, 1000, &err)) << name;
        EXPECT_NE(err.find("not a regular file"), std::string::npos) << err;
    }
    std::ofstream(st / "big") << std::string(1001, 'x');
    EXPECT_FALSE(read_file(st / "big", 1000, &err));
}

TEST(Hardening, RouterRefusesTxnZeroAndHoldsBackInputWhileOutputIsFull)
{
    RouterLimits lim;
    lim.output_high = 1000;
    lim.output_total = 1500;
    Bench b(lim);
    Router &r = *b.router;

    for (uint16_t txn : {0, 1}) { // a request with transaction id 0 is malformed: the connection is closed
        const uint64_t c = r.open_local();
        const Bytes bind = packet(Kind::Connect, kExtend);
        const Bytes rq = packet(Kind::Qmi, kExtend, {0, uint8_t(txn), 0, 2, 0, 0, 0});
        ASSERT_TRUE(r.feed_local(c, bind.data(), bind.size()));
        EXPECT_EQ(r.feed_local(c, rq.data(), rq.size()), txn == 1);
        EXPECT_TRUE(txn == 0 || !r.take_output(c).empty()) << "answered";
    }

    // 200 LIST requests at once: replies pile up only to the high mark, the rest waits until output is taken.
    Bytes many, list = packet(Kind::List, kExtend);
    for (int i = 0; i < 200; ++i)
        many.insert(many.end(), list.begin(), list.end());
    uint64_t a = r.open_local();
    ASSERT_TRUE(r.feed_local(a, many.data(), many.size()));
    EXPECT_LE(r.stats().output_bytes, lim.output_high + 100);
    size_t replies = 0;
    for (Bytes out; !(out = r.take_output(a)).empty();)
        replies += out.size() / 28; // a LIST_REPLY with one service record
    EXPECT_EQ(replies, 200u);

    // Two connections that never read: past the total, the one holding the most unsent bytes is closed.
    uint64_t big = r.open_local(), small = r.open_local();
    ASSERT_TRUE(r.feed_local(big, many.data(), many.size()));
    EXPECT_TRUE(r.feed_local(small, many.data(), many.size() / 2));
    EXPECT_TRUE(r.feed_local(small, many.data() + many.size() / 2, many.size() / 2));
    EXPECT_FALSE(r.feed_local(big, many.data(), 16)) << "the largest backlog was closed";
    EXPECT_EQ(r.stats().backlog_drops, 1u);
    EXPECT_LE(r.stats().output_bytes, lim.output_total);
}

// A Router serving a listening socket on a thread of its own; stopped and joined when the object goes away.
struct LiveRouter {
    explicit LiveRouter(RouterLimits lim) : bench(lim), path(bench.dir.path() + "/s.sock")
    {
        int p[2] = {-1, -1};
        EXPECT_EQ(pipe2(p, O_CLOEXEC | O_NONBLOCK), 0);
        stop_r.reset(p[0]);
        stop_w.reset(p[1]);
        router = std::make_unique<Router>(bench.h, listen_fd.get(), stop_r.get(), lim);
        thread = std::thread([this] { router->run(); });
    }
    ~LiveRouter()
    {
        char buf[128] = {};
        (void)!write(stop_w.get(), buf, sizeof buf); // read as a stop signal
        thread.join();
    }
    Bench bench;
    std::string path;
    UniqueFd listen_fd{listen_at(path, SOCK_NONBLOCK)}, stop_r, stop_w;
    std::unique_ptr<Router> router;
    std::thread thread;
};

bool answers(RawClient &c) { return c.send(Kind::List, kExtend) && c.next_kind(10000) == Kind::ListReply; }

TEST(Hardening, RouterConnectionLimits)
{
    // Four clients, the 4th silent; which one is closed, every other one answering.
    const std::tuple<const char *, size_t, size_t, int, int> cases[] = {
        {"the 4th of one process is refused", 100, 3, 60000, 3},
        {"full: the longest idle makes room", 3, 100, 60000, 0},
        {"silent past the first packet deadline", 100, 100, 200, 3}};
    for (const auto &[what, total, per_process, handshake_ms, closed] : cases) {
        SCOPED_TRACE(what);
        RouterLimits lim;
        lim.max_connections = total;
        lim.max_per_process = per_process;
        lim.handshake = std::chrono::milliseconds(handshake_ms);
        LiveRouter r(lim);
        std::vector<std::unique_ptr<RawClient>> c;
        for (int i = 0; i < 4; ++i) {
            c.push_back(std::make_unique<RawClient>(r.path));
            EXPECT_TRUE(i == 3 || answers(*c.back())) << "no LIST_REPLY";
            std::this_thread::sleep_for(std::chrono::milliseconds(5)); // distinct idle times
        }
        EXPECT_TRUE(c[closed]->closed_by_peer(10000));
        for (int i = 0; i < 4; ++i)
            EXPECT_TRUE(i == closed || answers(*c[i])) << i;
    }
}
