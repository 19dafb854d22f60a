// sim_daemon_test.cpp - kvn-sim as a process over its socket, its command line, and its store after a SIGKILL.
#include <numeric>
#include <random>

#include "sim_test.h"

using namespace sim_test;

namespace {

const std::string kImeiText = "08 3a 85 42 00 15 11 11 01\n";
NvEfsRequest nv_read(uint16_t id, uint8_t sub = 0) { return {1, sub, id}; }
const Bytes kReadImei = extend_record(2, nv_read(550).encode());
// The standard failure (result 1, error 0x47) a message without a handler gets.
Bytes failure_reply(uint8_t txn, uint8_t msg) { return {2, txn, 0, msg, 0, 7, 0, 0x02, 4, 0, 1, 0, 0x47, 0}; }

bool extend_answers(const SimHandset &sim)
{
    RawClient c(sim.socket());
    return c.bind(kExtend) && nvefs(c, nv_read(550)).has_value();
}

TEST(SimDaemon, ExtendCannedRepliesStubServicesAndTheJournal)
{
    SimHandset sim(R"({"nv": {"0": {"550": {"imei": "358240051111110"}}},
                       "extend_replies": {"4": {"result": 0, "data": "01020304"}}})");
    ASSERT_TRUE(sim.started());
    RawClient c(sim.socket());
    ASSERT_TRUE(c.bind(kExtend));
    EXPECT_EQ(nvefs(c, nv_read(550)), (NvEfsReply{9, 9, 0, {0x08, 0x3A, 0x85, 0x42, 0x00, 0x15, 0x11, 0x11, 0x01}}));
    ASSERT_TRUE(nvefs(c, {2, 0, 7000, "", 2, 0, 0, {0xbe, 0xef}}));
    EXPECT_EQ(sim.ctl({"nv", "get", "0", "7000"}).out, "be ef\n");
    EXPECT_EQ(sim.ctl({"nv", "set", "1", "7001", "0a0b0c"}).exit_code, 0);
    EXPECT_EQ(nvefs(c, nv_read(7001, 1)), (NvEfsReply{3, 3, 0, {0x0a, 0x0b, 0x0c}}));

    Bytes canned(512, 0);
    std::iota(canned.begin(), canned.begin() + 4, 1);
    EXPECT_EQ(c.ask(1, extend_record(4, Bytes(512, 0))), (ExtendResponse{0, 4, canned}));
    uint16_t txn = 0; // an unknown command id is refused; TLV 0x10 still carries 512 bytes
    EXPECT_EQ(c.ask(9, extend_record(77, {1, 2, 3}), &txn), (ExtendResponse{1, 0, Bytes(512, 0)}));
    EXPECT_EQ(txn, 9);
    ASSERT_TRUE(c.request(3, 10, {}));
    EXPECT_EQ(c.read().value_or(kvn_wire::Packet{}).payload, failure_reply(10, 3));
    for (uint32_t svc : {11u, 0xE4u, 0x11u, 3u}) {
        RawClient u(sim.socket());
        ASSERT_TRUE(u.bind(svc) && u.request(0x20, 5, {})) << svc;
        auto q = u.read().value_or(kvn_wire::Packet{});
        EXPECT_EQ(std::pair(q.hdr.service, q.payload), std::pair(svc, failure_reply(5, 0x20))) << svc;
    }
    RawClient absent(sim.socket());
    ASSERT_TRUE(absent.send(Kind::Connect, 0x1234));
    auto f = absent.read().value_or(kvn_wire::Packet{});
    EXPECT_EQ(std::pair(f.hdr.kind, f.hdr.status), std::pair(Kind::ConnectFail, uint16_t(1)));
    EXPECT_TRUE(absent.closed_by_peer());

    sim.clear_journal();
    ASSERT_TRUE(nvefs(c, nv_read(550), 0x1234));
    ASSERT_TRUE(c.request(0x55, 0x22, {0x01, 0x02, 0x00, 0xAB, 0xCD, 0x10, 0x00, 0x00}) && c.read());
    auto lines = sim.journal();
    ASSERT_EQ(lines.size(), 2u);
    auto first = json::parse(lines[0]), second = json::parse(lines[1]);
    EXPECT_GT(second["seq"].get<int>(), first["seq"].get<int>());
    first.erase("seq");
    second.erase("seq");
    EXPECT_EQ(first, json::parse(R"({"service":65508,"msg_id":2,"txn":4660,"via":"socket","tlvs":[
        {"type":1,"hex":"02000000"},{"type":2,"hex":"00020000"},{"type":16,"hex":"01002602)" +
                                 std::string(1016, '0') + R"("}]})"));
    EXPECT_EQ(second, json::parse(R"({"service":65508,"msg_id":85,"txn":34,"via":"socket",
        "tlvs":[{"type":1,"hex":"abcd"},{"type":16,"hex":""}]})"));

    auto cleared = sim.ctl({"journal", "--clear"});
    EXPECT_EQ(cleared.exit_code, 0);
    EXPECT_NE(cleared.out.find("\"msg_id\":85"), std::string::npos) << "--clear prints what it clears";
    EXPECT_TRUE(sim.journal().empty());
}

TEST(SimDaemon, FaultsAtThePacketLevel)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    RawClient c(sim.socket());
    ASSERT_TRUE(c.bind(kExtend));
    auto fault = [&](std::vector<std::string> args) {
        args.insert(args.begin(), "fault");
        return sim.ctl(args).exit_code == 0;
    };
    auto replied_txn = [&](int timeout_ms) {
        uint16_t txn = 0;
        auto p = c.read(timeout_ms);
        return p && parse_extend(*p, &txn) ? int(txn) : -1;
    };
    ASSERT_TRUE(fault({"extend", "2", "no-reply", "--count", "2"}));
    for (uint16_t t : {1, 2, 3})
        ASSERT_TRUE(c.request(2, t, kReadImei));
    EXPECT_EQ(replied_txn(3000), 3) << "no reply to the first two";
    ASSERT_TRUE(fault({"0xffe4", "0x2", "delay=700"}));
    ASSERT_TRUE(c.request(2, 4, kReadImei));
    EXPECT_EQ(replied_txn(200), -1) << "answered before the delay";
    EXPECT_EQ(replied_txn(5000), 4);
    ASSERT_TRUE(fault({"extend", "2", "qmi-error=26"}));
    EXPECT_EQ(c.ask(5, kReadImei), (ExtendResponse{26, 0, {}}));
    // truncate: a consistent frame whose last TLV claims more than follows.
    ASSERT_TRUE(fault({"extend", "2", "truncate"}));
    auto p = c.request(2, 6, kReadImei) ? c.read() : std::nullopt;
    ASSERT_TRUE(p && kvn_wire::decode_qmi(p->payload.data(), p->payload.size()));
    EXPECT_FALSE(parse_extend(*p));
    EXPECT_LT(p->payload.size(), 7u + 7 + 7 + 515);

    // Faults on another service do not touch extend; drop closes the connection instead of answering.
    ASSERT_TRUE(fault({"uim", "2", "drop"}));
    ASSERT_TRUE(nvefs(c, nv_read(550), 7));
    ASSERT_TRUE(fault({"extend", "2", "drop"}));
    ASSERT_TRUE(c.request(2, 8, kReadImei));
    EXPECT_TRUE(c.closed_by_peer());

    EXPECT_NE(sim.ctl({"status"}).out.find("faults 1"), std::string::npos);
    EXPECT_TRUE(fault({"clear"}));
    EXPECT_NE(sim.ctl({"status"}).out.find("faults 0"), std::string::npos);
}

TEST(SimDaemon, ServiceDownAndModemRestart)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    RawClient watch(sim.socket());
    ASSERT_TRUE(watch.send(Kind::Watch, kExtend));
    EXPECT_EQ(watch.next_kind(), Kind::ServiceUp) << "an instance already up is announced";

    // A bound client's request is waiting when the service goes down.
    RawClient bound(sim.socket());
    ASSERT_TRUE(bound.bind(kExtend));
    ASSERT_EQ(sim.ctl({"fault", "extend", "2", "no-reply"}).exit_code, 0);
    ASSERT_TRUE(bound.request(2, 1, kReadImei));
    ASSERT_EQ(sim.ctl({"service", "extend", "down"}).exit_code, 0);
    auto p = bound.read().value_or(kvn_wire::Packet{});
    EXPECT_EQ(std::pair(p.hdr.kind, p.hdr.service), std::pair(Kind::ServiceDown, kExtend));
    EXPECT_TRUE(bound.closed_by_peer());
    EXPECT_EQ(watch.next_kind(), Kind::ServiceGone);

    RawClient lister(sim.socket()), refused(sim.socket());
    ASSERT_TRUE(lister.send(Kind::List, kExtend) && refused.send(Kind::Connect, kExtend));
    EXPECT_EQ(lister.read().value_or(kvn_wire::Packet{}).payload, (Bytes{0, 0, 0, 0})) << "listed while down";
    EXPECT_EQ(refused.next_kind(), Kind::ConnectFail);

    ASSERT_EQ(sim.ctl({"service", "extend", "up"}).exit_code, 0);
    EXPECT_EQ(watch.next_kind(), Kind::ServiceUp);
    EXPECT_TRUE(extend_answers(sim));

    // Modem restart: everything down, back after the delay.
    RawClient uim_watch(sim.socket());
    ASSERT_TRUE(uim_watch.send(Kind::Watch, 11) && uim_watch.read());
    auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(sim.ctl({"ssr", "600"}).exit_code, 0);
    EXPECT_EQ(watch.next_kind(), Kind::ServiceGone);
    EXPECT_EQ(uim_watch.next_kind(), Kind::ServiceGone);
    EXPECT_NE(sim.ctl({"status"}).out.find("service nas 0x3 instance 0: down"), std::string::npos);
    EXPECT_EQ(watch.next_kind(5000), Kind::ServiceUp);
    EXPECT_EQ(uim_watch.next_kind(5000), Kind::ServiceUp);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(550));
    EXPECT_TRUE(extend_answers(sim));
}

// Keys of up to 64 bytes, values of up to 91, not UTF-8 kept as is; only persist.* ones survive a restart.
TEST(SimDaemon, PersistentPropertiesSurviveARestartOthersDoNot)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    EXPECT_NE(sim.ctl({"prop", "get", "persist.vendor.pelmox.shell_print_flag"}).exit_code, 0);
    const std::string long_key = "persist." + std::string(56, 'k'), too_long = long_key + "k";
    // Kept as they are: neither UTF-8, both UTF-8, a value cut inside a character, an encoded surrogate.
    const std::pair<std::string, std::string> kept[] = {{"persist.vendor.a", "on"}, {"persist.\xff\xfe", "\x80\x81 ok"},
        {"persist.ok", "caf\xc3\xa9"}, {"persist.half", "\xc3"}, {"persist.surrogate", "\xed\xa0\x80"}};
    std::vector<std::tuple<std::string, std::string, int>> sets = {
        {"persist.vendor.a", "off", 0}, {"", "v", 1}, {too_long, "v", 1}};
    for (const auto &[key, value] : kept)
        sets.emplace_back(key, value, 0);
    for (const auto &[key, value, status] : sets) {
        auto r = exchange_text(sim.socket(), Kind::PropSet, key + '\0' + value);
        ASSERT_TRUE(r && r->hdr.kind == Kind::PropSetResult) << key;
        EXPECT_EQ(r->hdr.status, status) << key;
    }
    EXPECT_EQ(sim.ctl({"prop", "set", long_key, std::string(91, 'x')}).exit_code, 0);
    EXPECT_EQ(sim.ctl({"prop", "set", too_long, "v"}).exit_code, 1);
    EXPECT_EQ(count(sim.ctl({"logcat"}).out, "property refused: property key longer than 64 bytes"), 2u);
    EXPECT_NE(sim.ctl({"prop", "set", "vendor.c", std::string(92, 'x')}).exit_code, 0);
    EXPECT_EQ(sim.ctl({"prop", "set", "vendor.b", "off"}).exit_code, 0);
    EXPECT_EQ(sim.ctl({"prop", "get", "vendor.b"}).out, "off\n");
    auto cli = sim.ctl({"prop", "set", "persist.x", "\xff"});
    EXPECT_EQ(cli.exit_code, 1) << "not an abort";
    EXPECT_NE(cli.err.find("not valid UTF-8"), std::string::npos) << cli.err;

    ASSERT_TRUE(sim.restart()) << "the daemon survived, and its properties file loads again";
    for (const auto &[key, value] : kept) {
        auto get = exchange_text(sim.socket(), Kind::PropGet, key);
        ASSERT_TRUE(get && get->hdr.status == 0) << key;
        EXPECT_EQ(std::string(get->payload.begin(), get->payload.end()), value);
    }
    EXPECT_EQ(sim.ctl({"prop", "get", long_key}).out, std::string(91, 'x') + "\n");
    EXPECT_NE(sim.ctl({"prop", "get", "vendor.b"}).exit_code, 0);
    EXPECT_EQ(sim.ctl({"nv", "get", "0", "550"}).out, kImeiText) << "the NV store survives too";
}

TEST(SimDaemon, BrokenClientsDoNotHurtOthers)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    RawClient good(sim.socket());
    ASSERT_TRUE(good.bind(kExtend));

    const Bytes garbage[] = {
        Bytes(16, 0xFF),                                                            // unknown kind
        {0x02, 0x09, 0, 0, 0xE4, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},               // bad version
        {0x02, 0x01, 0, 0, 0xE4, 0xFF, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF},   // length beyond the limit
        {0x81, 0x01, 0, 0, 0xE4, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},               // a kind only the sim sends
        {0x02, 0x01, 0, 0, 0xE4, 0xFF, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 1, 0},      // QMI without CONNECT
    };
    for (const auto &g : garbage) {
        RawClient bad(sim.socket());
        ASSERT_TRUE(bad.send_raw(g));
        EXPECT_TRUE(bad.closed_by_peer()) << "garbage must close the connection";
    }
    RawClient lying(sim.socket()), past(sim.socket());
    ASSERT_TRUE(lying.bind(kExtend) && past.bind(kExtend));
    // A QMI message that lies about its TLV length is dropped; TLVs that run past it are refused, not a crash.
    ASSERT_TRUE(lying.send(Kind::Qmi, kExtend, {0, 1, 0, 2, 0, 0x50, 0, 1, 2}));
    EXPECT_TRUE(lying.closed_by_peer());
    EXPECT_NE(past.ask(3, {0x01, 0x40, 0x00, 0x02}).value_or(ExtendResponse{}).result, 0u);
    { // disconnecting in the middle of a request
        RawClient gone(sim.socket());
        Bytes whole = packet(Kind::Qmi, kExtend, kvn_wire::encode_qmi({0, 1, 2, 0}, nullptr, 0));
        ASSERT_TRUE(gone.bind(kExtend) && gone.send_raw(Bytes(whole.begin(), whole.begin() + 10)));
    }
    { // a flood it never reads, while others are served promptly
        RawClient flood(sim.socket());
        ASSERT_TRUE(flood.bind(kExtend));
        Bytes one = packet(Kind::Qmi, kExtend, kvn_wire::encode_qmi({0, 1, 2, 0}, kReadImei.data(), kReadImei.size()));
        Bytes many;
        for (int i = 0; i < 2000; ++i)
            many.insert(many.end(), one.begin(), one.end());
        std::thread writer([&] { flood.send_raw(many); });
        for (int i = 0; i < 5; ++i)
            EXPECT_TRUE(nvefs(good, nv_read(550), static_cast<uint16_t>(i + 1)));
        shutdown(flood.fd(), SHUT_RDWR);
        writer.join();
    }
    EXPECT_TRUE(nvefs(good, nv_read(550), 99));

    // LOG packets have no reply; a later request orders after them.
    std::string line = std::string("\x03") + "pelmox" + '\0' + "hello there\n";
    RawClient logger(sim.socket());
    ASSERT_TRUE(logger.send(Kind::Log, 0, Bytes(line.begin(), line.end())));
    EXPECT_EQ(sim.ctl({"status"}).exit_code, 0);
    auto log = sim.ctl({"logcat"}).out;
    EXPECT_NE(log.find(" D pelmox: hello there\n"), std::string::npos) << log;
    EXPECT_NE(log.find("dropped"), std::string::npos) << "protocol errors are logged";
}

TEST(SimCli, StartFailuresUsageFilesAndSigterm)
{
    kvn_test::TempDir dir;
    std::string scen = dir.path() + "/bad.json", sock = dir.path() + "/s.sock";
    std::ofstream(scen) << R"({"nv": {"0": {"550": "01"}}, "efs": {"0": {"/x": {"hex": "01", "mode": 1}}}})";
    auto r = sim_bin({"start", "--state", dir.path() + "/st", "--scenario", scen, "--socket", sock});
    EXPECT_NE(r.exit_code, 0);
    EXPECT_NE(r.err.find("efs.0./x.mode"), std::string::npos) << r.err;
    EXPECT_NE(sim_bin({"status", "--socket", sock}).exit_code, 0);

    SimHandset sim;
    ASSERT_TRUE(sim.started());
    auto again = sim_bin({"start", "--state", dir.path() + "/other", "--socket", sim.socket()});
    EXPECT_EQ(again.exit_code, 1);
    EXPECT_NE(again.err.find("already"), std::string::npos);
    EXPECT_NE(sim.ctl({"load", scen}).exit_code, 0);
    EXPECT_EQ(sim.ctl({"nv", "get", "0", "550"}).out, kImeiText) << "a refused load changes nothing";
    const std::string fifo = dir.path() + "/fifo"; // named as a scenario or an EFS source: refused, never waited on
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (std::vector<std::string> args : {std::vector<std::string>{"load", fifo}, {"efs", "put", "0", "/f", fifo}}) {
        auto res = sim.ctl(args);
        EXPECT_EQ(res.exit_code, 1) << args[0];
        EXPECT_NE(res.err.find("not a regular file"), std::string::npos) << res.err;
    }

    const std::vector<std::vector<std::string>> usage = {
        {"bogus"}, {"ssr", "soon"}, {"service", "modem", "down"}, {"fault", "extend", "2", "explode"},
        {"nv", "get", "2", "550"}, {"nv", "set", "0", "1", "xyz"}, {"efs", "frob", "0", "/x"}, {"prop", "get"},
    };
    for (const auto &u : usage) {
        auto res = sim.ctl(u);
        EXPECT_EQ(std::pair(res.exit_code, res.err.empty()), std::pair(2, false)) << u[0];
    }
    EXPECT_EQ(sim.ctl({"efs", "get", "0", "/no/such"}).exit_code, 1);
    EXPECT_EQ(sim.ctl({"nv", "rm", "0", "6999"}).exit_code, 1);

    // efs put / get / ls / rm through files, larger than one control page.
    std::string src = dir.path() + "/src.bin", content(60000, '\0');
    std::iota(content.begin(), content.end(), '\0'); // every byte value
    std::ofstream(src, std::ios::binary) << content;
    EXPECT_EQ(sim.ctl({"efs", "put", "1", "/data/blob", src}).exit_code, 0);
    EXPECT_EQ(sim.ctl({"efs", "get", "1", "/data/blob"}).out, content);
    EXPECT_EQ(sim.ctl({"efs", "ls", "1", "/data"}).out, "60000 /data/blob\n");
    EXPECT_EQ(sim.ctl({"efs", "rm", "1", "/data/blob"}).exit_code, 0);
    EXPECT_EQ(sim.ctl({"efs", "ls", "1", "/data"}).out, "");

    // SIGTERM stops it cleanly: the socket is removed and its lock released.
    int pid = daemon_pid(sim);
    ASSERT_GT(pid, 0);
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_TRUE(kvn_test::wait_until([&] { return !fs::exists(sim.socket()); }, std::chrono::seconds(5)));
    auto status = sim.ctl({"status"});
    EXPECT_EQ(status.exit_code, 1);
    EXPECT_NE(status.err.find("no kvn-sim answers"), std::string::npos);
    EXPECT_TRUE(sim.start());
}

// SIGKILLs amid rewrites of NV items (1 + b bytes of b) and chunked files (500 + 3b) leave each one whole pattern.
bool whole_pattern(const Bytes &data, size_t base, size_t per)
{
    return !data.empty() && data.size() == base + per * data[0] &&
           std::all_of(data.begin(), data.end(), [&](uint8_t x) { return x == data[0]; });
}

// Writes a file in chunks of 414 bytes as the tool does; false once the daemon stops answering.
bool write_file(RawClient &c, const std::string &path, const Bytes &data, uint16_t &txn)
{
    uint16_t inst = 255;
    for (uint32_t pos = 0, n; pos < data.size(); pos += n) {
        n = std::min<uint32_t>(414, uint32_t(data.size()) - pos);
        auto r = nvefs(c, {5, 0, inst, path, uint32_t(data.size()), n, pos, Bytes(&data[pos], &data[pos] + n)}, ++txn);
        if (!r || r->result < 0)
            return false;
        inst = static_cast<uint16_t>(r->result);
    }
    return true;
}

TEST(SimDurability, SigkillDuringWritesLeavesWholeFiles)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    std::mt19937 rng(12345);
    uint8_t b = 1;
    for (int round = 0; round < 6; ++round) {
        SCOPED_TRACE(round);
        ASSERT_TRUE(round == 0 || sim.start()) << "restart after SIGKILL";
        const int pid = daemon_pid(sim);
        RawClient c(sim.socket());
        ASSERT_TRUE(pid > 0 && c.bind(kExtend));
        for (int i = 0; i < 4; ++i) {
            auto nv = nvefs(c, {1, 0, static_cast<uint16_t>(6000 + i)});
            ASSERT_TRUE(nv);
            EXPECT_TRUE(nv->result != 0 || whole_pattern(nv->data, 1, 1)) << "NV " << 6000 + i;
            auto got = sim.ctl({"efs", "get", "0", "/dur/f" + std::to_string(i)});
            EXPECT_TRUE(got.exit_code != 0 || whole_pattern(Bytes(got.out.begin(), got.out.end()), 500, 3))
                << "file " << i << " size " << got.out.size();
        }
        // The kill comes a random while after the first whole write, so a slow machine still kills mid-stream.
        std::atomic<int> writes{0};
        std::atomic<bool> stopped{false};
        int delay_ms = std::uniform_int_distribution<int>(30, 250)(rng);
        std::thread killer([&] {
            kvn_test::wait_until([&] { return writes > 0 || stopped; });
            std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
            kill(pid, SIGKILL);
        });
        uint16_t txn = 0;
        for (int i = 0, alive = 1; alive; i = (i + 1) % 4) {
            b = static_cast<uint8_t>(b % 250 + 1);
            NvEfsRequest nv{2, 0, static_cast<uint16_t>(6000 + i), "", 1u + b, 0, 0, Bytes(1 + b, b)};
            alive = nvefs(c, nv, ++txn) && write_file(c, "/dur/f" + std::to_string(i), Bytes(500 + 3 * b, b), txn);
            writes += alive;
        }
        stopped = true;
        killer.join();
        EXPECT_GT(writes, 0);
    }
    ASSERT_TRUE(sim.start());
}

} // namespace
