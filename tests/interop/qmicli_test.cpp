// qmicli_test.cpp - libqmi's qmicli, an independent implementation of the
// published QMI layouts, run against kvn-sim's QMUX terminal: it must read
// the handset's state as kvn-sim holds it.
#include <gtest/gtest.h>

#include "qmux_client.h"

namespace {

// The services CTL lists follow the handset: a service taken down is gone
// from the list, the vendor service 0xE4 is listed, the extend service
// (0xFFE4, two bytes) cannot be.
TEST(Qmicli, ServiceVersionInfoFollowsTheHandset)
{
    if (!interop::have_qmicli())
        GTEST_SKIP() << "qmicli not installed";
    kvn_test::SimHandset sim;
    ASSERT_TRUE(sim.started());
    const std::string pty = interop::pty_of(sim);
    auto r = interop::qmicli(pty, {"--get-service-version-info"});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(r.out, "[" + pty + "] Supported versions:\n\tctl (1.5)\n\tuim (1.46)\n\tunknown [0xe4] (1.0)\n"
                                 "\tsar (1.0)\n\tnas (1.25)\n");
    sim.ctl({"service", "sar", "down"});
    r = interop::qmicli(pty, {"--get-service-version-info"});
    EXPECT_EQ(r.out, "[" + pty + "] Supported versions:\n\tctl (1.5)\n\tuim (1.46)\n\tunknown [0xe4] (1.0)\n"
                                 "\tnas (1.25)\n");
    // A client for a service that is down is refused.
    r = interop::qmicli(pty, {"--sar-rf-get-state"});
    EXPECT_NE(r.exit_code, 0);
    EXPECT_NE(r.err.find("InvalidServiceType"), std::string::npos) << r.err;
}

// Card status, power off/on, slot status (the eUICC's EID) and SAR as
// qmicli reads them; what qmicli sets kvn reads back, and the SAR Get State
// request qmicli sends carries the same TLVs as kvn's.
TEST(Qmicli, UimAndSarAgreeWithTheHandsetAndWithKvn)
{
    if (!interop::have_qmicli())
        GTEST_SKIP() << "qmicli not installed";
    kvn_test::SimHandset sim;
    ASSERT_TRUE(sim.started());
    const std::string pty = interop::pty_of(sim);
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
    };
    for (const auto &c : cases) {
        auto r = interop::qmicli(pty, c.args);
        EXPECT_EQ(r.exit_code, 0) << c.args[0] << "\n" << r.err;
        for (const auto &e : c.expected)
            EXPECT_NE(r.out.find(e), std::string::npos) << c.args[0] << " lacks " << e << " in\n" << r.out;
    }
    // kvn reads the state qmicli set, with the same request TLVs.
    sim.clear_journal();
    EXPECT_NE(sim.kvn({"5", "5"}).out.find("SAR DSI: 7\n"), std::string::npos);
    auto kvn_journal = sim.journal();
    sim.clear_journal();
    interop::qmicli(pty, {"--sar-rf-get-state"});
    auto qmicli_journal = sim.journal();
    auto tlvs_of = [](const std::vector<std::string> &j) {
        for (const auto &l : j)
            if (l.find(R"("service":17,"msg_id":2,)") != std::string::npos)
                return l.substr(l.find("\"tlvs\""));
        return std::string("none");
    };
    EXPECT_EQ(tlvs_of(kvn_journal), "\"tlvs\":[]}");
    EXPECT_EQ(tlvs_of(qmicli_journal), tlvs_of(kvn_journal));
}

} // namespace
