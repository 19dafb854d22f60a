// kvn-sim's QMUX terminal byte by byte: framing, resync after noise, CTL client ids, unknown clients, the journal.
#include <gtest/gtest.h>

#include <algorithm>

#include "qmux_client.h"

namespace {

using interop::RawQmux;

std::string frame(const char *text) { return interop::hex(interop::unhex(text)); }

// Bytes written, frame expected back ("": none, the next reply shows it) as `marker length flags svc cid | QMI | TLVs`.
const struct Step {
    const char *what, *request, *reply;
} kSteps[] = {
    {"allocate uim -> 1", "01 0f00 00 00 00 | 00 01 2200 0400 | 01 0100 0b",
     "01 1700 80 00 00 | 01 01 2200 0c00 | 02 0400 0000 0000 | 01 0200 0b 01"},
    {"allocate uim -> 2", "01 0f00 00 00 00 | 00 02 2200 0400 | 01 0100 0b",
     "01 1700 80 00 00 | 01 02 2200 0c00 | 02 0400 0000 0000 | 01 0200 0b 02"},
    {"release uim 1", "01 1000 00 00 00 | 00 03 2300 0500 | 01 0200 0b 01",
     "01 1700 80 00 00 | 01 03 2300 0c00 | 02 0400 0000 0000 | 01 0200 0b 01"},
    {"release uim 1 again: invalid client id", "01 1000 00 00 00 | 00 04 2300 0500 | 01 0200 0b 01",
     "01 1200 80 00 00 | 01 04 2300 0700 | 02 0400 0100 2200"},
    {"allocate for a service the modem lacks", "01 0f00 00 00 00 | 00 05 2200 0400 | 01 0100 42",
     "01 1200 80 00 00 | 01 05 2200 0700 | 02 0400 0100 1f00"},
    {"allocate without TLV 0x01: missing argument", "01 0b00 00 00 00 | 00 06 2200 0000",
     "01 1200 80 00 00 | 01 06 2200 0700 | 02 0400 0100 1100"},
    {"allocate with a 2-byte TLV 0x01: malformed", "01 1000 00 00 00 | 00 07 2200 0500 | 01 0200 0b 0b",
     "01 1200 80 00 00 | 01 07 2200 0700 | 02 0400 0100 0100"},
    {"allocate uim -> 1, freed above", "01 0f00 00 00 00 | 00 08 2200 0400 | 01 0100 0b",
     "01 1700 80 00 00 | 01 08 2200 0c00 | 02 0400 0000 0000 | 01 0200 0b 01"},
    {"uim message from client 1: the service answers", "01 0c00 00 0b 01 | 00 0201 ff7f 0000",
     "01 1300 80 0b 01 | 02 0201 ff7f 0700 | 02 0400 0100 4700"},
    {"uim message from client 9, never given out: ignored", "01 0c00 00 0b 09 | 00 0301 ff7f 0000", ""},
    {"a frame marked as from the service: ignored", "01 0c00 80 0b 01 | 00 0401 ff7f 0000", ""},
    {"QMI length beyond the frame: ignored", "01 0c00 00 0b 01 | 00 0501 ff7f 0100", ""},
    {"a response flag on a request: ignored", "01 0c00 00 0b 01 | 02 0601 ff7f 0000", ""},
    {"noise, a length past the bound, then a frame", "aa 00 01 ffff 01 0b00 00 00 00 | 00 09 ff00 0000",
     "01 1200 80 00 00 | 01 09 ff00 0700 | 02 0400 0100 4700"},
    {"sync forgets every client id", "01 0b00 00 00 00 | 00 0a 2700 0000",
     "01 1200 80 00 00 | 01 0a 2700 0700 | 02 0400 0000 0000"},
    {"uim message from client 1 after sync: ignored", "01 0c00 00 0b 01 | 00 0701 ff7f 0000", ""},
    {"release after sync: invalid client id", "01 1000 00 00 00 | 00 0b 2300 0500 | 01 0200 0b 02",
     "01 1200 80 00 00 | 01 0b 2300 0700 | 02 0400 0100 2200"},
};

TEST(Qmux, CtlClientIdsFramingForeignClientsAndRunningOut)
{
    kvn_test::SimHandset sim;
    RawQmux c(interop::pty_of(sim));
    ASSERT_TRUE(c.ok());
    sim.clear_journal();
    for (const auto &s : kSteps) {
        c.write_hex(s.request);
        if (*s.reply) {
            EXPECT_EQ(c.read_frame(), frame(s.reply)) << s.what;
        }
    }
    // A frame cut in two writes is answered once whole.
    c.write_hex("01 0f00 00 00 00 | 00 0c");
    c.write_hex("2200 0400 | 01 0100 11");
    EXPECT_EQ(c.read_frame(), frame("01 1700 80 00 00 | 01 0c 2200 0c00 | 02 0400 0000 0000 | 01 0200 11 01"));

    // The journal has every CTL request and the one service request the modem accepted; not the ignored ones.
    const auto j = sim.journal();
    EXPECT_EQ(1, std::count_if(j.begin(), j.end(), [](auto &l) { return l.find("\"service\":11,") != l.npos; }));
    EXPECT_NE(j.back().find(R"("service":0,"msg_id":34,"txn":12,"tlvs":[{"type":1,"hex":"11"}])"), std::string::npos)
        << j.back();

    // Client ids run out at 254 (0xFF is the broadcast id), per service.
    std::string last;
    for (int id = 2; id <= 254; ++id) {
        c.write_hex("01 0f00 00 00 00 | 00 0d 2200 0400 | 01 0100 11");
        last = c.read_frame();
    }
    EXPECT_EQ(last, frame("01 1700 80 00 00 | 01 0d 2200 0c00 | 02 0400 0000 0000 | 01 0200 11 fe"));
    c.write_hex("01 0f00 00 00 00 | 00 0e 2200 0400 | 01 0100 11");
    EXPECT_EQ(c.read_frame(), frame("01 1200 80 00 00 | 01 0e 2200 0700 | 02 0400 0100 0500"));
    c.write_hex("01 0f00 00 00 00 | 00 0f 2200 0400 | 01 0100 0b"); // another service still has its own
    EXPECT_EQ(c.read_frame(), frame("01 1700 80 00 00 | 01 0f 2200 0c00 | 02 0400 0000 0000 | 01 0200 0b 01"));
}

} // namespace
