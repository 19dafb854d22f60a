// sim_qmux_test.cpp - kvn-sim's QMUX terminal under misuse and loss, recorded answers played back, the AT terminal.
#include <termios.h>

#include <regex>

#include "qmux_client.h"
#include "replay.h"
#include "sim_test.h"

namespace {

using namespace sim_test;
using interop::RawQmux;
using interop::unhex;

std::string frame(const char *text) { return interop::hex(unhex(text)); }

constexpr const char *kAllocUim = "01 0f00 00 00 00 | 00 01 2200 0400 | 01 0100 0b";
constexpr const char *kUimIs1 = "01 1700 80 00 00 | 01 01 2200 0c00 | 02 0400 0000 0000 | 01 0200 0b 01";

TEST(QmuxPort, RepliesNobodyReadsStayBoundedAndTheSocketIsServed)
{
    // Ids 1 to 5, 16 records of 700 bytes each: one request's reply is ~57 KB.
    json ids;
    for (int id = 1; id <= 5; ++id)
        ids[std::to_string(id)]["records"] = json(16, json{{"sub", 0}, {"id", id}, {"data", std::string(1400, 'a')}});
    SimHandset sim(json{{"vs_stats", {{"0", ids}}}}.dump());
    ASSERT_TRUE(sim.started());
    const std::string pty = interop::pty_of(sim);
    RawQmux c(pty);
    c.write_hex("01 0f00 00 00 00 | 00 01 2200 0400 | 01 0100 e4");
    ASSERT_EQ(c.read_frame(), frame("01 1700 80 00 00 | 01 01 2200 0c00 | 02 0400 0000 0000 | 01 0200 e4 01"));

    // Statistics of 255 ids, written as fast as the terminal takes them, never read.
    auto rq = unhex("01 1604 00 e4 01 | 00 0100 0702 0a04 | 01 0200 0000 | 02 0200 0500 | 03 fd03 ff");
    for (uint8_t i = 1; i != 0; ++i)
        rq.insert(rq.end(), {i, 0, 0, 0});
    UniqueFd fd{open(pty.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)};
    const int w = fd.get();
    ASSERT_GE(w, 0);
    size_t off = 0, written = 0;
    auto feed = [&](bool to_a_whole_request) {
        for (int i = 0; to_a_whole_request ? off != 0 : i < 3000; ++i) {
            ssize_t n = write(w, rq.data() + off, rq.size() - off);
            if (n > 0)
                off = (off + size_t(n)) % rq.size(), written += size_t(n);
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    feed(false);
    EXPECT_LT(written, 1u << 20) << "the writer was not held back";
    json s = control(sim.socket());
    ASSERT_TRUE(s.is_object()) << "a socket request goes unanswered";
    EXPECT_GT(s["qmux_queued"], 0u);
    EXPECT_LT(s["qmux_queued"], 128u << 10) << "more than one reply past the 64 KiB mark";
    EXPECT_EQ(s["qmux_dropped"], 0u) << "requests were read while their replies backed up";

    // Indications come regardless: beyond the hard cap they are dropped.
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(sim.ctl({"indicate", "vs", "1", std::string(60000, 'b')}).exit_code, 0);
    s = control(sim.socket());
    EXPECT_LE(s["qmux_queued"], 1u << 20);
    EXPECT_GT(s["qmux_dropped"], 0u);

    // Read it all: the queue empties and the terminal serves again.
    auto drain = [&] {
        uint8_t buf[65536];
        pollfd p{w, POLLIN, 0};
        while (poll(&p, 1, 1000) == 1 && read(w, buf, sizeof buf) > 0) {
        }
    };
    drain();
    feed(true); // the last request, finished now the daemon reads again
    drain();
    EXPECT_EQ(control(sim.socket())["qmux_queued"], 0u);
    c.write_hex(kAllocUim);
    EXPECT_EQ(c.read_frame(), frame(kUimIs1));
}

// A writer that dies mid-frame does not hold up the next; indications and a modem restart as the terminal sees them.
TEST(QmuxPort, AWriterDyingMidFrameIndicationsAndAModemRestart)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    const std::string pty = interop::pty_of(sim);
    RawQmux(pty).write_hex("01 0020 00 00 00 | 00 01"); // announces 8192 bytes, then goes
    RawQmux c(pty);
    c.write_hex(kAllocUim);
    ASSERT_EQ(c.read_frame(), frame(kUimIs1));
    EXPECT_EQ(control(sim.socket())["qmux_cids"], 1);
    sim.ctl({"indicate", "uim", "50", "010100ab"});
    EXPECT_EQ(c.read_frame(), frame("01 1000 80 0b ff | 04 0000 3200 0400 | 01 0100 ab"));
    sim.ctl({"indicate", "sar", "50", "010100ab"}); // no client of SAR here: nothing comes

    sim.ctl({"ssr", "5000"});
    EXPECT_EQ(c.read_frame(), frame("01 0b00 80 00 00 | 02 00 2700 0000"));
    EXPECT_EQ(control(sim.socket())["qmux_cids"], 0);
    // Until the services are back, version info lists CTL alone.
    c.write_hex("01 0b00 00 00 00 | 00 02 2100 0000");
    EXPECT_EQ(c.read_frame(),
              frame("01 1b00 80 00 00 | 01 02 2100 1000 | 02 0400 0000 0000 | 01 0600 01 00 0100 0500"));
}

// Recorded: UIM 0x7fff with TLV 1 = aa answered with TLV 0x10 = beef, then indication 0x32; then another service.
// The record answers both ways, other requests are served as usual; malformed records are refused.
constexpr const char *kReplay = R"({"replay": [
  {"dir":"req","service":11,"msg_id":32767,"txn":5,"tlvs":[{"type":1,"hex":"aa"}]},
  {"dir":"ind","service":11,"msg_id":49,"txn":0,"tlvs":[]},
  {"dir":"resp","service":11,"msg_id":32767,"txn":5,"tlvs":[{"type":2,"hex":"00000000"},{"type":16,"hex":"beef"}]},
  {"dir":"ind","service":11,"msg_id":50,"txn":0,"tlvs":[{"type":1,"hex":"01"}]},
  {"dir":"req","service":3,"msg_id":1,"txn":6,"tlvs":[]}]})";

TEST(Replay, RecordedAnswersOnBothWaysAndStrictRecords)
{
    SimHandset sim(kReplay);
    ASSERT_TRUE(sim.started());
    RawQmux q(interop::pty_of(sim));
    q.write_hex(kAllocUim);
    ASSERT_EQ(q.read_frame(), frame(kUimIs1));
    q.write_hex("01 1000 00 0b 01 | 00 0900 ff7f 0400 | 01 0100 aa");
    EXPECT_EQ(q.read_frame(), frame("01 1800 80 0b 01 | 02 0900 ff7f 0c00 | 02 0400 00000000 | 10 0200 beef"));
    EXPECT_EQ(q.read_frame(), frame("01 1000 80 0b 01 | 04 0000 3200 0400 | 01 0100 01"));
    q.write_hex("01 1000 00 0b 01 | 00 0a00 ff7f 0400 | 01 0100 ab");
    EXPECT_EQ(q.read_frame(), frame("01 1300 80 0b 01 | 02 0a00 ff7f 0700 | 02 0400 0100 4700"));

    RawClient s(sim.socket());
    ASSERT_TRUE(s.bind(11));
    auto payload = [&] {
        auto p = s.read();
        return p ? interop::hex(p->payload) : "";
    };
    s.request(0x7fff, 7, unhex("01 0100 aa"));
    EXPECT_EQ(payload(), frame("02 0700 ff7f 0c00 | 02 0400 00000000 | 10 0200 beef"));
    EXPECT_EQ(payload(), frame("04 0000 3200 0400 | 01 0100 01"));
    s.request(0x7fff, 8, unhex("01 0100 ab"));
    EXPECT_EQ(payload(), frame("02 0800 ff7f 0700 | 02 0400 0100 4700"));

    std::string via;
    for (const auto &line : sim.journal())
        if (line.find("\"service\":11,") != std::string::npos)
            via += json::parse(line)["via"].get<std::string>() + " ";
    EXPECT_EQ(via, "qmux qmux socket socket ");
    const char *const bad[] = {
        R"([{"dir":"req","service":11,"msg_id":1,"txn":1,"tlvs":[],"seq":1}])",
        R"([{"dir":"rsp","service":11,"msg_id":1,"txn":1,"tlvs":[]}])",
        R"([{"dir":"req","service":65536,"msg_id":1,"txn":1,"tlvs":[]}])",
        R"([{"dir":"req","service":11,"msg_id":1,"txn":1,"tlvs":[{"type":256,"hex":""}]}])",
        R"([{"dir":"req","service":11,"msg_id":1,"txn":1,"tlvs":[{"type":1,"hex":"a"}]}])",
        R"({"dir":"req"})",
    };
    for (const char *doc : bad) {
        kvn_sim::Replay r;
        std::string err;
        EXPECT_FALSE(r.parse(json::parse(doc), &err)) << doc;
    }
}

TEST(AtTerminal, AWriterTurningEchoOnDoesNotMakeTheDaemonAnswerItself)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    const std::string out = sim.ctl({"status"}).out;
    const auto pos = out.find("device at: up ") + 14;
    const UniqueFd at{open(out.substr(pos, out.find('\n', pos) - pos).c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)};
    termios t{};
    ASSERT_EQ(tcgetattr(at.get(), &t), 0) << out;
    t.c_lflag |= ECHO | ICANON, t.c_iflag |= ICRNL, t.c_oflag |= OPOST | ONLCR; // a terminal program's modes
    ASSERT_EQ(tcsetattr(at.get(), TCSANOW, &t), 0);
    sim.clear_journal();
    ASSERT_EQ(write(at.get(), "AT\r", 3), 3);
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    EXPECT_EQ(sim.journal().size(), 1u) << "the echoed line came back as a request";
}

// Handle numbers and the UIM client's address differ from run to run.
std::string masked(const ProcessResult &r)
{
    static const std::regex pointer("0x[0-9a-f]+");
    return std::regex_replace(kvn_test::masked_out(r), pointer, "0xP");
}

TEST(ReplayE2e, ARecordedRunPrintsTheSameOnAnotherHandset)
{
    const std::vector<std::vector<std::string>> runs = {{"5", "10", "4", "1"}, {"9", "0", "0"}};
    const auto differs = json::parse(R"({"vs_stats": {"0": {"82": "01"}}})");
    SimHandset a;
    ASSERT_TRUE(a.started());
    kvn_test::ProcessOptions rec;
    rec.env["KVN_QMI_RECORD"] = a.dir() + "/record.jsonl";
    std::vector<std::string> recorded;
    for (const auto &r : runs)
        recorded.push_back(masked(a.kvn(r, rec)));
    auto doc = differs;
    std::ifstream in(*rec.env["KVN_QMI_RECORD"]);
    for (std::string line; std::getline(in, line);)
        doc["replay"].push_back(json::parse(line));
    if (!doc.contains("replay"))
        GTEST_SKIP() << "kvn wrote no record: its host library does not support KVN_QMI_RECORD";
    SimHandset own(differs.dump()), b(doc.dump());
    ASSERT_TRUE(own.started() && b.started());
    EXPECT_NE(masked(own.kvn(runs[1])), recorded[1]) << "the handsets do not differ";
    for (size_t i = 0; i < runs.size(); ++i)
        EXPECT_EQ(masked(b.kvn(runs[i])), recorded[i]) << runs[i][0];
}

} // namespace
