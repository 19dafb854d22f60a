// sim_daemon_test.cpp - kvn-sim as a process, seen over its socket: the
// extend service and NV/EFS store over QMI, faults at the packet level,
// modem restart and service up/down notifications, the journal, properties
// across restarts, robustness against broken clients, and the command line.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <signal.h>
#include <sys/socket.h>

#include <filesystem>
#include <thread>

#include "kvn_wire.h"
#include "sim_client.h"
#include "sim_handset.h"

using kvn_wire::Kind;
using namespace sim_test;
using kvn_test::SimHandset;

namespace {

constexpr uint32_t kExtend = 0xFFE4;

NvEfsRequest nv_read(uint16_t id, uint8_t sub = 0) { return {1, sub, id}; }

// Binds an extend client and checks one NV read answers.
bool extend_answers(const SimHandset &sim)
{
    RawClient c(sim.socket());
    if (!c.bind(kExtend))
        return false;
    return nvefs(c, nv_read(550)).has_value();
}

TEST(SimDaemon, ExtendServiceOverQmi)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    RawClient c(sim.socket());
    ASSERT_TRUE(c.bind(kExtend));

    auto r = nvefs(c, nv_read(550));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->result, 0);
    EXPECT_EQ(r->data, (Bytes{0x08, 0x3A, 0x85, 0x42, 0x00, 0x15, 0x11, 0x11, 0x01}));

    // Written over QMI, visible to the control command, and the other way round.
    ASSERT_TRUE(nvefs(c, {2, 0, 7000, "", 2, 0, 0, {0xbe, 0xef}}));
    auto out = sim.ctl({"nv", "get", "0", "7000"});
    EXPECT_EQ(out.exit_code, 0);
    EXPECT_EQ(out.out, "be ef\n");
    EXPECT_EQ(sim.ctl({"nv", "set", "1", "7001", "0a0b0c"}).exit_code, 0);
    r = nvefs(c, nv_read(7001, 1));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->data, (Bytes{0x0a, 0x0b, 0x0c}));

    // Unknown command ids are refused with a non-zero result, no data.
    ASSERT_TRUE(c.request(2, 9, extend_record(77, {1, 2, 3})));
    auto p = c.read();
    ASSERT_TRUE(p);
    uint16_t txn = 0;
    auto e = parse_extend(*p, &txn);
    ASSERT_TRUE(e);
    EXPECT_EQ(txn, 9);
    EXPECT_NE(e->result, 0u);
    EXPECT_EQ(e->data.size(), 512u) << "TLV 0x10 always carries 512 bytes";

    // Other messages of the service get the standard failure result.
    ASSERT_TRUE(c.request(3, 10, {}));
    p = c.read();
    ASSERT_TRUE(p);
    EXPECT_EQ(p->payload, (Bytes{2, 10, 0, 3, 0, 7, 0, 0x02, 4, 0, 1, 0, 0x47, 0}));
}

TEST(SimDaemon, CannedRepliesAndStubServices)
{
    SimHandset sim(R"({"extend_replies": {"4": {"result": 0, "data": "01020304"}}})");
    ASSERT_TRUE(sim.started());
    RawClient c(sim.socket());
    ASSERT_TRUE(c.bind(kExtend));
    ASSERT_TRUE(c.request(2, 1, extend_record(4, Bytes(512, 0))));
    auto p = c.read();
    ASSERT_TRUE(p);
    auto e = parse_extend(*p);
    ASSERT_TRUE(e);
    EXPECT_EQ(e->result, 0u);
    EXPECT_EQ(e->data_len, 4u);
    EXPECT_EQ(Bytes(e->data.begin(), e->data.begin() + 4), (Bytes{1, 2, 3, 4}));

    for (uint32_t svc : {11u, 0xE4u, 0x11u, 3u}) {
        RawClient u(sim.socket());
        ASSERT_TRUE(u.bind(svc)) << svc;
        ASSERT_TRUE(u.request(0x20, 5, {}));
        auto q = u.read();
        ASSERT_TRUE(q) << svc;
        EXPECT_EQ(q->hdr.service, svc);
        EXPECT_EQ(q->payload, (Bytes{2, 5, 0, 0x20, 0, 7, 0, 0x02, 4, 0, 1, 0, 0x47, 0})) << svc;
    }
    RawClient absent(sim.socket());
    ASSERT_TRUE(absent.send(Kind::Connect, 0x1234));
    auto f = absent.read();
    ASSERT_TRUE(f);
    EXPECT_EQ(f->hdr.kind, Kind::ConnectFail);
    EXPECT_EQ(f->hdr.status, 1);
    EXPECT_TRUE(absent.closed_by_peer());
}

TEST(SimDaemon, FaultsAtThePacketLevel)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    RawClient c(sim.socket());
    ASSERT_TRUE(c.bind(kExtend));
    auto req = extend_record(2, nv_read(550).encode());

    // no-reply twice, then normal again.
    ASSERT_EQ(sim.ctl({"fault", "extend", "2", "no-reply", "--count", "2"}).exit_code, 0);
    ASSERT_TRUE(c.request(2, 1, req));
    EXPECT_FALSE(c.read(300));
    ASSERT_TRUE(c.request(2, 2, req));
    EXPECT_FALSE(c.read(300));
    ASSERT_TRUE(c.request(2, 3, req));
    auto p = c.read();
    ASSERT_TRUE(p);
    uint16_t txn = 0;
    ASSERT_TRUE(parse_extend(*p, &txn));
    EXPECT_EQ(txn, 3);

    // delay: nothing within the first part of the delay, then the answer.
    ASSERT_EQ(sim.ctl({"fault", "0xffe4", "0x2", "delay=700"}).exit_code, 0);
    ASSERT_TRUE(c.request(2, 4, req));
    EXPECT_FALSE(c.read(200));
    p = c.read(5000);
    ASSERT_TRUE(p);
    ASSERT_TRUE(parse_extend(*p, &txn));
    EXPECT_EQ(txn, 4);

    // qmi-error: the extend record's result carries the error, no data.
    ASSERT_EQ(sim.ctl({"fault", "extend", "2", "qmi-error=26"}).exit_code, 0);
    ASSERT_TRUE(c.request(2, 5, req));
    p = c.read();
    ASSERT_TRUE(p);
    auto e = parse_extend(*p);
    ASSERT_TRUE(e);
    EXPECT_EQ(e->result, 26u);
    EXPECT_EQ(e->data_len, 0u);
    EXPECT_TRUE(e->data.empty());

    // truncate: a consistent frame whose last TLV claims more than follows.
    ASSERT_EQ(sim.ctl({"fault", "extend", "2", "truncate"}).exit_code, 0);
    ASSERT_TRUE(c.request(2, 6, req));
    p = c.read();
    ASSERT_TRUE(p);
    ASSERT_TRUE(kvn_wire::decode_qmi(p->payload.data(), p->payload.size()));
    EXPECT_FALSE(parse_extend(*p));
    EXPECT_LT(p->payload.size(), 7u + 7 + 7 + 515);

    // Faults on another service do not touch extend.
    ASSERT_EQ(sim.ctl({"fault", "uim", "2", "drop"}).exit_code, 0);
    ASSERT_TRUE(nvefs(c, nv_read(550), 7));
    // drop: the connection is closed instead of answered.
    ASSERT_EQ(sim.ctl({"fault", "extend", "2", "drop"}).exit_code, 0);
    ASSERT_TRUE(c.request(2, 8, req));
    EXPECT_TRUE(c.closed_by_peer());

    // fault clear removes what is left (the uim one).
    EXPECT_NE(sim.ctl({"status"}).out.find("faults 1"), std::string::npos);
    EXPECT_EQ(sim.ctl({"fault", "clear"}).exit_code, 0);
    EXPECT_NE(sim.ctl({"status"}).out.find("faults 0"), std::string::npos);
}

TEST(SimDaemon, ServiceDownAndModemRestart)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    RawClient watch(sim.socket());
    ASSERT_TRUE(watch.send(Kind::Watch, kExtend));
    auto p = watch.read();
    ASSERT_TRUE(p);
    EXPECT_EQ(p->hdr.kind, Kind::ServiceUp) << "an instance already up is announced";

    RawClient bound(sim.socket());
    ASSERT_TRUE(bound.bind(kExtend));
    // A request is waiting (no reply) when the service goes down.
    ASSERT_EQ(sim.ctl({"fault", "extend", "2", "no-reply"}).exit_code, 0);
    ASSERT_TRUE(bound.request(2, 1, extend_record(2, nv_read(550).encode())));
    ASSERT_EQ(sim.ctl({"service", "extend", "down"}).exit_code, 0);
    p = bound.read();
    ASSERT_TRUE(p);
    EXPECT_EQ(p->hdr.kind, Kind::ServiceDown);
    EXPECT_EQ(p->hdr.service, kExtend);
    EXPECT_TRUE(bound.closed_by_peer());
    p = watch.read();
    ASSERT_TRUE(p);
    EXPECT_EQ(p->hdr.kind, Kind::ServiceGone);

    // While down: not listed, CONNECT fails.
    RawClient lister(sim.socket());
    ASSERT_TRUE(lister.send(Kind::List, kExtend));
    p = lister.read();
    ASSERT_TRUE(p);
    EXPECT_EQ(p->payload, (Bytes{0, 0, 0, 0}));
    RawClient refused(sim.socket());
    ASSERT_TRUE(refused.send(Kind::Connect, kExtend));
    p = refused.read();
    ASSERT_TRUE(p);
    EXPECT_EQ(p->hdr.kind, Kind::ConnectFail);

    ASSERT_EQ(sim.ctl({"service", "extend", "up"}).exit_code, 0);
    p = watch.read();
    ASSERT_TRUE(p);
    EXPECT_EQ(p->hdr.kind, Kind::ServiceUp);
    EXPECT_TRUE(extend_answers(sim));

    // Modem restart: everything down, back after the delay.
    RawClient uim_watch(sim.socket());
    ASSERT_TRUE(uim_watch.send(Kind::Watch, 11));
    ASSERT_TRUE(uim_watch.read());
    auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(sim.ctl({"ssr", "600"}).exit_code, 0);
    for (RawClient *w : {&watch, &uim_watch}) {
        p = w->read();
        ASSERT_TRUE(p);
        EXPECT_EQ(p->hdr.kind, Kind::ServiceGone);
    }
    EXPECT_NE(sim.ctl({"status"}).out.find("service nas 0x3 instance 0: down"), std::string::npos);
    for (RawClient *w : {&watch, &uim_watch}) {
        p = w->read(5000);
        ASSERT_TRUE(p);
        EXPECT_EQ(p->hdr.kind, Kind::ServiceUp);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(550));
    EXPECT_TRUE(extend_answers(sim));
}

TEST(SimDaemon, JournalRecordsRequestsInOrder)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    sim.clear_journal();
    RawClient c(sim.socket());
    ASSERT_TRUE(c.bind(kExtend));
    ASSERT_TRUE(nvefs(c, nv_read(550), 0x1234));
    ASSERT_TRUE(c.request(0x55, 0x22, {0x01, 0x02, 0x00, 0xAB, 0xCD, 0x10, 0x00, 0x00}));
    ASSERT_TRUE(c.read());

    auto lines = sim.journal();
    ASSERT_EQ(lines.size(), 2u);
    auto first = nlohmann::json::parse(lines[0]);
    EXPECT_EQ(first["service"], 0xFFE4);
    EXPECT_EQ(first["msg_id"], 2);
    EXPECT_EQ(first["txn"], 0x1234);
    ASSERT_EQ(first["tlvs"].size(), 3u);
    EXPECT_EQ(first["tlvs"][0]["type"], 1);
    EXPECT_EQ(first["tlvs"][0]["hex"], "02000000");
    EXPECT_EQ(first["tlvs"][2]["type"], 0x10);
    EXPECT_EQ(first["tlvs"][2]["hex"].get<std::string>().substr(0, 8), "01002602");
    auto second = nlohmann::json::parse(lines[1]);
    EXPECT_GT(second["seq"].get<int>(), first["seq"].get<int>());
    EXPECT_EQ(second["msg_id"], 0x55);
    EXPECT_EQ(second["tlvs"], nlohmann::json::parse(R"([{"type":1,"hex":"abcd"},{"type":16,"hex":""}])"));

    auto cleared = sim.ctl({"journal", "--clear"});
    EXPECT_EQ(cleared.exit_code, 0);
    EXPECT_NE(cleared.out.find("\"msg_id\":85"), std::string::npos) << "--clear prints what it clears";
    EXPECT_TRUE(sim.journal().empty());
}

TEST(SimDaemon, PersistentPropertiesSurviveARestartOthersDoNot)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    EXPECT_NE(sim.ctl({"prop", "get", "persist.vendor.pelmox.shell_print_flag"}).exit_code, 0);
    // Over the wire: PROP_SET / PROP_GET.
    std::string kv = std::string("persist.vendor.a") + '\0' + "on";
    auto set = kvn_wire::exchange(sim.socket(), {Kind::PropSet}, Bytes(kv.begin(), kv.end()), 3000);
    ASSERT_TRUE(set);
    EXPECT_EQ(set->hdr.kind, Kind::PropSetResult);
    EXPECT_EQ(set->hdr.status, 0);
    std::string long_key(32, 'k');
    std::string bad = long_key + '\0' + "v";
    set = kvn_wire::exchange(sim.socket(), {Kind::PropSet}, Bytes(bad.begin(), bad.end()), 3000);
    ASSERT_TRUE(set);
    EXPECT_EQ(set->hdr.status, 1);
    EXPECT_EQ(sim.ctl({"prop", "set", "vendor.b", "off"}).exit_code, 0);
    EXPECT_NE(sim.ctl({"prop", "set", "vendor.c", std::string(92, 'x')}).exit_code, 0);

    ASSERT_TRUE(sim.restart());
    std::string key = "persist.vendor.a";
    auto get = kvn_wire::exchange(sim.socket(), {Kind::PropGet}, Bytes(key.begin(), key.end()), 3000);
    ASSERT_TRUE(get);
    EXPECT_EQ(get->hdr.status, 0);
    EXPECT_EQ(std::string(get->payload.begin(), get->payload.end()), "on");
    EXPECT_EQ(sim.ctl({"prop", "get", "persist.vendor.a"}).out, "on\n");
    EXPECT_NE(sim.ctl({"prop", "get", "vendor.b"}).exit_code, 0);
    // NV written before the restart is still there.
    EXPECT_EQ(sim.ctl({"nv", "get", "0", "550"}).out, "08 3a 85 42 00 15 11 11 01\n");
}

TEST(SimDaemon, TwoHandsetsSideBySide)
{
    SimHandset a, b;
    ASSERT_TRUE(a.started());
    ASSERT_TRUE(b.started());
    EXPECT_EQ(a.ctl({"nv", "set", "0", "550", "01"}).exit_code, 0);
    EXPECT_EQ(a.ctl({"nv", "get", "0", "550"}).out, "01\n");
    EXPECT_EQ(b.ctl({"nv", "get", "0", "550"}).out, "08 3a 85 42 00 15 11 11 01\n");
    EXPECT_EQ(a.ctl({"service", "all", "down"}).exit_code, 0);
    EXPECT_TRUE(extend_answers(b));
    EXPECT_FALSE(extend_answers(a));
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
    // A bound client whose QMI message lies about its TLV length.
    {
        RawClient bad(sim.socket());
        ASSERT_TRUE(bad.bind(kExtend));
        ASSERT_TRUE(bad.send(Kind::Qmi, kExtend, {0, 1, 0, 2, 0, 0x50, 0, 1, 2}));
        EXPECT_TRUE(bad.closed_by_peer());
    }
    // A bound client sending TLVs that run past the message: refused, not a crash.
    {
        RawClient bad(sim.socket());
        ASSERT_TRUE(bad.bind(kExtend));
        ASSERT_TRUE(bad.request(2, 3, {0x01, 0x40, 0x00, 0x02}));
        auto p = bad.read();
        ASSERT_TRUE(p);
        auto e = parse_extend(*p);
        ASSERT_TRUE(e);
        EXPECT_NE(e->result, 0u);
    }
    // Disconnecting in the middle of a request, and a flood it never reads.
    {
        RawClient gone(sim.socket());
        ASSERT_TRUE(gone.bind(kExtend));
        auto whole = kvn_wire::encode_packet({Kind::Qmi, 0, kExtend}, kvn_wire::encode_qmi({0, 1, 2, 0}, nullptr, 0));
        ASSERT_TRUE(gone.send_raw(Bytes(whole.begin(), whole.begin() + 10)));
    }
    {
        RawClient flood(sim.socket());
        ASSERT_TRUE(flood.bind(kExtend));
        auto one = kvn_wire::encode_packet(
            {Kind::Qmi, 0, kExtend},
            [] {
                auto tlvs = extend_record(2, nv_read(550).encode());
                return kvn_wire::encode_qmi({0, 1, 2, 0}, tlvs.data(), tlvs.size());
            }());
        Bytes many;
        for (int i = 0; i < 2000; ++i)
            many.insert(many.end(), one.begin(), one.end());
        std::thread writer([&] { flood.send_raw(many); });
        // Meanwhile others are served promptly.
        for (int i = 0; i < 5; ++i)
            EXPECT_TRUE(nvefs(good, nv_read(550), static_cast<uint16_t>(i + 1)));
        shutdown(flood.fd(), SHUT_RDWR);
        writer.join();
    }
    EXPECT_TRUE(nvefs(good, nv_read(550), 99));
    EXPECT_EQ(sim.ctl({"status"}).exit_code, 0);
    auto log = sim.ctl({"logcat"}).out;
    EXPECT_NE(log.find("dropped"), std::string::npos) << "protocol errors are logged";
}

TEST(SimDaemon, LogPacketsReachLogcat)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    std::string line = std::string("\x03") + "pelmox" + '\0' + "hello there\n";
    RawClient c(sim.socket());
    ASSERT_TRUE(c.send(Kind::Log, 0, Bytes(line.begin(), line.end())));
    // LOG has no reply; a later request on the same daemon orders after it.
    EXPECT_EQ(sim.ctl({"status"}).exit_code, 0);
    auto out = sim.ctl({"logcat"}).out;
    EXPECT_NE(out.find(" D pelmox: hello there\n"), std::string::npos) << out;
}

TEST(SimCli, StartFailuresAndUsage)
{
    kvn_test::TempDir dir;
    std::string scen = dir.path() + "/bad.json";
    FILE *f = fopen(scen.c_str(), "w");
    ASSERT_TRUE(f);
    fputs(R"({"nv": {"0": {"550": "01"}}, "efs": {"0": {"/x": {"hex": "01", "mode": 1}}}})", f);
    fclose(f);
    std::string sock = dir.path() + "/s.sock";
    auto r = kvn_test::run_process({kvn_test::kvn_sim_bin(), "start", "--state", dir.path() + "/st", "--scenario", scen,
                                    "--socket", sock});
    EXPECT_NE(r.exit_code, 0);
    EXPECT_NE(r.err.find("efs.0./x.mode"), std::string::npos) << r.err;
    EXPECT_NE(kvn_test::run_process({kvn_test::kvn_sim_bin(), "status", "--socket", sock}).exit_code, 0);

    SimHandset sim;
    ASSERT_TRUE(sim.started());
    auto again = kvn_test::run_process({kvn_test::kvn_sim_bin(), "start", "--state", dir.path() + "/other",
                                        "--socket", sim.socket()});
    EXPECT_EQ(again.exit_code, 1);
    EXPECT_NE(again.err.find("already"), std::string::npos);
    // load with an unknown key fails and changes nothing.
    EXPECT_NE(sim.ctl({"load", scen}).exit_code, 0);
    EXPECT_EQ(sim.ctl({"nv", "get", "0", "550"}).out, "08 3a 85 42 00 15 11 11 01\n");

    const std::vector<std::vector<std::string>> usage = {
        {"bogus"}, {"ssr", "soon"}, {"service", "modem", "down"}, {"fault", "extend", "2", "explode"},
        {"nv", "get", "2", "550"}, {"nv", "set", "0", "1", "xyz"}, {"efs", "frob", "0", "/x"}, {"prop", "get"},
    };
    for (const auto &u : usage) {
        auto res = sim.ctl(u);
        EXPECT_EQ(res.exit_code, 2) << u[0];
        EXPECT_FALSE(res.err.empty()) << u[0];
    }
    EXPECT_EQ(sim.ctl({"efs", "get", "0", "/no/such"}).exit_code, 1);
    EXPECT_EQ(sim.ctl({"nv", "rm", "0", "6999"}).exit_code, 1);

    // efs put / get / ls / rm round trip through files, larger than one control page.
    std::string src = dir.path() + "/src.bin", dst = dir.path() + "/dst.bin";
    std::string content(60000, '\0');
    for (size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<char>(i * 31);
    f = fopen(src.c_str(), "wb");
    fwrite(content.data(), 1, content.size(), f);
    fclose(f);
    EXPECT_EQ(sim.ctl({"efs", "put", "1", "/data/blob", src}).exit_code, 0);
    EXPECT_EQ(sim.ctl({"efs", "get", "1", "/data/blob", dst}).exit_code, 0);
    EXPECT_EQ(sim.ctl({"efs", "get", "1", "/data/blob"}).out, content);
    EXPECT_EQ(sim.ctl({"efs", "ls", "1", "/data"}).out, "60000 /data/blob\n");
    EXPECT_EQ(sim.ctl({"efs", "rm", "1", "/data/blob"}).exit_code, 0);
    EXPECT_EQ(sim.ctl({"efs", "ls", "1", "/data"}).out, "");
}

} // namespace

namespace {

TEST(SimCli, SigtermStopsCleanlyAndRemovesTheSocket)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    auto out = sim.ctl({"status"}).out;
    auto at = out.find("pid ");
    ASSERT_NE(at, std::string::npos);
    ASSERT_EQ(kill(std::atoi(out.c_str() + at + 4), SIGTERM), 0);
    bool gone = false;
    for (int i = 0; i < 250 && !gone; ++i) {
        gone = !std::filesystem::exists(sim.socket());
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_TRUE(gone);
    auto status = sim.ctl({"status"});
    EXPECT_EQ(status.exit_code, 1);
    EXPECT_NE(status.err.find("no kvn-sim answers"), std::string::npos);
    // The same state directory starts again (its lock was released).
    EXPECT_TRUE(sim.start());
}

} // namespace
