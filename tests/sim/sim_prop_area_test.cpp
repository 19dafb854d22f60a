// sim_prop_area_test.cpp - the property area (writer against property_get) and the client's one log connection.
#include <android/log.h>
#include <cutils/properties.h>

#include <atomic>

#include "prop_area.h"
#include "prop_area_layout.h"
#include "sim_test.h"

namespace {

class PropAreaTest : public testing::Test {
protected:
    void SetUp() override { setenv("KVN_SIM_SOCKET", socket.c_str(), 1); }
    void TearDown() override { unsetenv("KVN_SIM_SOCKET"); }
    std::string get(const char *key) { char v[PROPERTY_VALUE_MAX]; return property_get(key, v, "unset"), v; }
    std::unique_ptr<kvn_sim::PropArea> make(const std::string &path)
    {
        std::string err;
        auto w = kvn_sim::PropArea::create(path, &err);
        EXPECT_TRUE(w) << err;
        return w;
    }
    kvn_test::TempDir dir;
    std::string socket = dir.path() + "/s.sock", area = socket + ".props";
};

// Readers racing a writer that flips between a short and a long value only ever see one of the two whole.
TEST_F(PropAreaTest, ReadersSeeEveryValueWholeAndAtTheNextRead)
{
    auto w = make(area);
    const std::string a = "a", b(91, 'b');
    w->set("k", a);
    std::atomic<bool> done{false};
    std::atomic<int> bad{0}, seen_b{0};
    auto reader = [&] {
        for (std::string v; !done; bad += v != a && v != b, seen_b += v == b)
            v = get("k");
    };
    std::thread readers[] = {std::thread(reader), std::thread(reader)};
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    for (int i = 0; std::chrono::steady_clock::now() < end; ++i)
        w->set("k", i % 2 ? b : a);
    done = true;
    for (auto &r : readers)
        r.join();
    EXPECT_EQ(0, bad.load());
    EXPECT_GT(seen_b.load(), 0);
    // Every change shows at the next read, across a replaced area too; once the area is gone the value is unset again.
    for (const char *v : {"1", "two", ""}) {
        w->set("p", v);
        EXPECT_EQ(v, get("p"));
    }
    auto second = make(area);
    second->set("p", "new");
    EXPECT_EQ("new", get("p"));
    second.reset();
    EXPECT_EQ("unset", get("p"));
}

// Readers trust neither a link nor a file others may write; the writer replaces a planted link, not writing through.
TEST_F(PropAreaTest, FileIsOwnerOnlyAndLinksAreNotFollowed)
{
    std::string real = dir.path() + "/real.props";
    auto other = make(real);
    other->set("p", "v");
    ASSERT_EQ(0, symlink(real.c_str(), area.c_str()));
    EXPECT_EQ("unset", get("p")) << "read through a link";
    ASSERT_EQ(0, unlink(area.c_str()));
    ASSERT_EQ(0, link(real.c_str(), area.c_str()));
    ASSERT_EQ(0, chmod(area.c_str(), 0620));
    EXPECT_EQ("unset", get("p")) << "trusted a file others may write";
    ASSERT_EQ(0, chmod(area.c_str(), 0600));
    EXPECT_EQ("v", get("p"));
    ASSERT_EQ(0, unlink(area.c_str()));
    ASSERT_EQ(0, symlink(real.c_str(), area.c_str()));
    auto w = make(area);
    struct stat st {};
    ASSERT_EQ(0, lstat(area.c_str(), &st));
    EXPECT_EQ(S_IFREG | 0600u, st.st_mode);
    prop_area::Header h{};
    std::ifstream(real).read(reinterpret_cast<char *>(&h), sizeof h);
    EXPECT_EQ(0u, h.dead) << "marked the linked area dead";
}

// property_set returns once readers see the value; the area of a daemon that died is not trusted.
TEST(PropAreaDaemon, ChangesShowAtOnceAndADeadDaemonIsNotTrusted)
{
    kvn_test::SimHandset sim;
    ASSERT_TRUE(sim.started());
    setenv("KVN_SIM_SOCKET", sim.socket().c_str(), 1);
    char v[PROPERTY_VALUE_MAX];
    EXPECT_EQ(0, property_set("persist.t", "one"));
    EXPECT_EQ(3, property_get("persist.t", v, ""));
    sim.ctl({"prop", "set", "persist.t", "second"});
    EXPECT_EQ(6, property_get("persist.t", v, ""));
    ASSERT_EQ(0, kill(sim_test::daemon_pid(sim), SIGKILL));
    EXPECT_TRUE(kvn_test::wait_until([&] { return property_get("persist.t", v, "") == 0; }, std::chrono::seconds(5)));
    EXPECT_STREQ("", v);
}

// Log lines share one connection per process, and a closed one is replaced.
TEST_F(PropAreaTest, LogLinesShareOneConnection)
{
    const kvn_sim::UniqueFd listener{sim_test::listen_at(socket, SOCK_NONBLOCK)};
    const int l = listener.get();
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 3; ++i)
            ASSERT_EQ(4, __android_log_print(ANDROID_LOG_INFO, "t", "line"));
        const kvn_sim::UniqueFd c{accept(l, nullptr, nullptr)};
        EXPECT_GT(0, accept(l, nullptr, nullptr)) << "a connection per line";
        char buf[256];
        EXPECT_EQ(3 * (16 + 7), recv(c.get(), buf, sizeof buf, MSG_DONTWAIT));
    }
    // A fork opens a connection of its own instead of writing on its parent's.
    ASSERT_EQ(4, __android_log_print(ANDROID_LOG_INFO, "t", "line"));
    const kvn_sim::UniqueFd parent{accept(l, nullptr, nullptr)};
    pid_t pid = fork();
    if (pid == 0)
        _exit(__android_log_print(ANDROID_LOG_INFO, "t", "kid") == 3 ? 0 : 1);
    int status = -1;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_TRUE(kvn_sim::UniqueFd(accept(l, nullptr, nullptr))) << "the fork wrote on its parent's connection";
}

} // namespace
