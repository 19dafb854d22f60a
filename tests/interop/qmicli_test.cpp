// libqmi's qmicli, an independent implementation of the published QMI layouts, against kvn-sim's QMUX terminal.
#include "qmux_client.h"

namespace {

// qmicli reads the handset's state, kvn what qmicli set; CTL lists 0xE4, not 0xFFE4 (2 bytes) nor a service taken down.
TEST(Qmicli, AgreesWithTheHandsetAndWithKvn)
{
    if (!interop::have_qmicli())
        GTEST_SKIP() << "qmicli not installed";
    kvn_test::SimHandset sim;
    const std::string pty = interop::pty_of(sim), versions = "[" + pty + "] Supported versions:\n\tctl (1.5)\n"
                                                                      "\tuim (1.46)\n\tunknown [0xe4] (1.0)\n";
    struct Case {
        std::vector<std::string> args;
        std::vector<std::string> expected; // texts the output must hold
    } const cases[] = {
        {{"--uim-get-card-status"}, {"Slot [1]:\n\tCard state: 'present'", "Slot [2]:\n\tCard state: 'present'"}},
        {{"--uim-sim-power-off=1"}, {"Successfully performed SIM power off"}},
        {{"--uim-get-slot-status"},
         {"Physical slot 1:\n     Card status: present\n     Slot status: inactive",
          "Is eUICC: yes\n             EID: 89049032123451234512345678901235"}},
        {{"--uim-sim-power-on=1"}, {"Successfully performed SIM power on"}},
        {{"--uim-get-slot-status"}, {"Physical slot 1:\n     Card status: present\n     Slot status: active"}},
        {{"--sar-rf-set-state=7"}, {"RF state set successfully"}},
        {{"--sar-rf-get-state"}, {"Successfully got SAR RF state: 7"}},
        {{"--get-service-version-info"}, {versions + "\tsar (1.0)\n\tnas (1.25)\n"}},
    };
    for (const auto &c : cases) {
        auto r = interop::qmicli(pty, c.args);
        EXPECT_EQ(r.exit_code, 0) << c.args[0] << "\n" << r.err;
        for (const auto &e : c.expected)
            EXPECT_NE(r.out.find(e), std::string::npos) << c.args[0] << " lacks " << e << " in\n" << r.out;
    }
    EXPECT_NE(sim.kvn({"5", "5"}).out.find("SAR DSI: 7\n"), std::string::npos);
    sim.ctl({"service", "sar", "down"});
    EXPECT_EQ(versions + "\tnas (1.25)\n", interop::qmicli(pty, {"--get-service-version-info"}).out);
    auto r = interop::qmicli(pty, {"--sar-rf-get-state"});
    EXPECT_NE(r.exit_code, 0);
    EXPECT_NE(r.err.find("InvalidServiceType"), std::string::npos) << r.err;
}

// The journalled TLVs of each request of service/msg_id, a line each.
std::string request_tlvs(const kvn_test::SimHandset &sim, int service, int msg_id)
{
    const std::string key = "\"service\":" + std::to_string(service) + ",\"msg_id\":" + std::to_string(msg_id) + ",";
    std::string out;
    for (const auto &line : sim.journal())
        if (line.find(key) != std::string::npos) {
            const size_t at = line.find("\"tlvs\":") + 7;
            out += line.substr(at, line.find(",\"via\"") - at) + "\n";
        }
    return out;
}

// The TLVs kvn and qmicli send for each operation, side by side from the journal; both act on slot 2.
TEST(Qmicli, RequestTlvsMatchKvnsOrDifferOnPurpose)
{
    if (!interop::have_qmicli())
        GTEST_SKIP() << "qmicli not installed";
    kvn_test::SimHandset sim;
    const std::string pty = interop::pty_of(sim), slot2 = R"({"type":1,"hex":"02"})";
    struct Row {
        const char *operation;
        std::vector<std::string> kvn_args;
        const char *kvn_says; // a text of kvn's output showing the operation ran
        std::vector<std::string> qmicli_args;
        int service, msg_id;
        std::string kvn_tlvs, qmicli_tlvs;
    } const rows[] = {
        // kvn asks for the extended card status (TLV 0x10 = 1, answered in 0x13); libqmi defines neither.
        {"UIM Get Card Status", {"5", "10", "4", "1"}, "PRESENT,PRESENT\n", {"--uim-get-card-status"}, 11, 0x2F,
         R"([{"type":16,"hex":"01"}])", "[]"},
        {"UIM Power Off", {"5", "10", "1", "1"}, "eID=", {"--uim-sim-power-off=2"}, 11, 0x30, "[" + slot2 + "]",
         "[" + slot2 + "]"},
        // To the eUICC kvn ignores the hot-swap switch (0x10 = 1), names a telecom card (0x11 = 0); qmicli: slot only.
        {"UIM Power On to the eUICC", {"5", "10", "1", "1"}, "eID=", {"--uim-sim-power-on=2"}, 11, 0x31,
         "[" + slot2 + R"(,{"type":16,"hex":"01"},{"type":17,"hex":"00"}])", "[" + slot2 + "]"},
        // Back on the physical card the switch is honoured (TLV 0x10 = 0).
        {"UIM Power On to the card", {"5", "10", "2", "1"}, "value=SUCCEED\n", {"--uim-sim-power-on=2"}, 11, 0x31,
         "[" + slot2 + R"(,{"type":16,"hex":"00"},{"type":17,"hex":"00"}])", "[" + slot2 + "]"},
        {"SAR RF Get State", {"5", "5"}, "SAR DSI: 0\n", {"--sar-rf-get-state"}, 0x11, 0x02, "[]", "[]"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.operation);
        sim.clear_journal();
        auto k = sim.kvn(row.kvn_args);
        EXPECT_NE(k.out.find(row.kvn_says), std::string::npos) << k.out;
        EXPECT_EQ(row.kvn_tlvs + "\n", request_tlvs(sim, row.service, row.msg_id)) << "kvn";
        sim.clear_journal();
        auto q = interop::qmicli(pty, row.qmicli_args);
        EXPECT_EQ(q.exit_code, 0) << q.err;
        EXPECT_EQ(row.qmicli_tlvs + "\n", request_tlvs(sim, row.service, row.msg_id)) << "qmicli";
    }
}

} // namespace
