// The host platform's system properties and Android log against a kvn-sim, an overlong answer, and nobody.
#include <android/log.h>
#include <cutils/properties.h>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "kvn_wire.h"
#include "sim_handset.h"

namespace {

TEST(Properties, SetGetLengthLimitsAndTheLog)
{
    kvn_test::SimHandset sim;
    setenv("KVN_SIM_SOCKET", sim.socket().c_str(), 1);
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(0, property_set("persist.vendor.radio.x", "42"));
    EXPECT_EQ("42\n", sim.ctl({"prop", "get", "persist.vendor.radio.x"}).out);
    EXPECT_EQ(2, property_get("persist.vendor.radio.x", value, "d"));
    EXPECT_STREQ("42", value);
    EXPECT_EQ(1, property_get("unset.key", value, "d"));
    EXPECT_STREQ("d", value);
    EXPECT_EQ(0, property_get("unset.key", value, nullptr));
    EXPECT_STREQ("", value);

    // Keys up to 64 and values up to 91 characters; longer ones are refused before anything is sent.
    const std::string key64(64, 'k'), value91(91, 'v');
    EXPECT_EQ(0, property_set(key64.c_str(), value91.c_str()));
    EXPECT_GT(0, property_set(std::string(65, 'k').c_str(), "1"));
    EXPECT_GT(0, property_set("k", std::string(92, 'v').c_str()));
    EXPECT_NE(0, sim.ctl({"prop", "get", "k"}).exit_code);
    EXPECT_EQ(91, property_get(key64.c_str(), value, ""));
    EXPECT_EQ(value91, value);

    __android_log_print(ANDROID_LOG_INFO, "HYDRA", "value %d %s", 7, "x");
    EXPECT_NE(std::string::npos, sim.ctl({"logcat"}).out.find(" I HYDRA: value 7 x\n"));

    // With no handset, reads get the default, writes fail, and log lines are dropped without blocking or printing.
    setenv("KVN_SIM_SOCKET", (sim.dir() + "/nobody.sock").c_str(), 1);
    EXPECT_EQ(7, property_get("persist.radio.ssr_wait_s", value, "default"));
    EXPECT_STREQ("default", value);
    EXPECT_EQ(-1, property_set("persist.radio.ssr_wait_s", "5"));
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    __android_log_print(ANDROID_LOG_ERROR, "shell", "dropped");
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

// A handset answering a property read with 92 bytes, one more than a value holds: the default, nothing past it.
TEST(Properties, OverlongValueFromTheHandsetGivesTheDefault)
{
    kvn_test::TempDir dir;
    const std::string path = dir.path() + "/h.sock";
    int lfd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{AF_UNIX, {}};
    path.copy(a.sun_path, sizeof(a.sun_path) - 1);
    ASSERT_EQ(0, bind(lfd, reinterpret_cast<sockaddr *>(&a), sizeof(a)));
    ASSERT_EQ(0, listen(lfd, 1));
    std::thread handset([lfd] {
        int fd = accept(lfd, nullptr, nullptr);
        if (fd >= 0 && kvn_wire::read_packet(fd, 3000))
            kvn_wire::write_packet(fd, {kvn_wire::Kind::PropValue}, std::vector<uint8_t>(92, 'v'));
        close(fd); // -1 when accept failed: harmless
    });
    setenv("KVN_SIM_SOCKET", path.c_str(), 1);
    char value[PROPERTY_VALUE_MAX + 8];
    std::memset(value, 'x', sizeof(value));
    EXPECT_EQ(3, property_get("long", value, "def"));
    EXPECT_STREQ("def", value);
    EXPECT_EQ('x', value[PROPERTY_VALUE_MAX]);
    handset.join();
    close(lfd);
}

} // namespace
