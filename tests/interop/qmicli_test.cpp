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

} // namespace
