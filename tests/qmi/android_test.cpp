// android_test.cpp - system properties and the Android log of the host
// platform against the fake handset, and with nothing listening.
#include "fake_handset.h"

#include <android/log.h>
#include <cutils/properties.h>

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Properties, SetGetAndLengthLimits)
{
    fake::Handset sim;
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(0, property_set("persist.vendor.radio.x", "42"));
    EXPECT_EQ("42", sim.properties()["persist.vendor.radio.x"]);
    EXPECT_EQ(2, property_get("persist.vendor.radio.x", value, "d"));
    EXPECT_STREQ("42", value);
    EXPECT_EQ(1, property_get("unset.key", value, "d"));
    EXPECT_STREQ("d", value);
    EXPECT_EQ(0, property_get("unset.key", value, nullptr));
    EXPECT_STREQ("", value);

    // Keys up to 64 and values up to 91 characters; longer ones are refused.
    const std::string key64(64, 'k'), value91(91, 'v'), value92(92, 'v');
    EXPECT_EQ(0, property_set(key64.c_str(), value91.c_str()));
    EXPECT_GT(0, property_set(std::string(65, 'k').c_str(), "1"));
    EXPECT_GT(0, property_set("k", value92.c_str()));
    EXPECT_EQ(2u, sim.properties().size());
    EXPECT_EQ(91, property_get(key64.c_str(), value, ""));
    EXPECT_EQ(value91, value);
    // A value the handset should never hold is not copied past the buffer.
    sim.set_property("long", value92);
    EXPECT_EQ(3, property_get("long", value, "def"));
    EXPECT_STREQ("def", value);
}

TEST(AndroidLog, LineGoesToTheHandset)
{
    fake::Handset sim;
    __android_log_print(ANDROID_LOG_INFO, "HYDRA", "value %d %s", 7, "x");
    ASSERT_TRUE(sim.wait_until([&] { return sim.log().size() == 1; }));
    auto line = sim.log()[0];
    EXPECT_EQ(ANDROID_LOG_INFO, line.prio);
    EXPECT_EQ("HYDRA", line.tag);
    EXPECT_EQ("value 7 x", line.msg);
}

// With no handset, reads get the default, writes fail, and log lines are
// dropped without blocking or printing.
TEST(NothingListening, DefaultsFailuresAndDroppedLines)
{
    fake::socket_path();
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(7, property_get("persist.radio.ssr_wait_s", value, "default"));
    EXPECT_STREQ("default", value);
    EXPECT_EQ(-1, property_set("persist.radio.ssr_wait_s", "5"));
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    __android_log_print(ANDROID_LOG_ERROR, "shell", "dropped");
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

} // namespace
