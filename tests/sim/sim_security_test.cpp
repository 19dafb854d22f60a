// sim_security_test.cpp - kvn-sim running as root on a shared machine: modes, links, peers, failed starts.
#include <grp.h>
#include <pwd.h>

#include "peer.h"
#include "sim_test.h"

using namespace sim_test;

#define NEED_NOBODY(pw)                                                                                             \
    const passwd *pw = geteuid() == 0 ? getpwnam("nobody") : nullptr;                                              \
    if (!pw)                                                                                                        \
        GTEST_SKIP() << "needs root and a user \"nobody\" to switch to (setuid in a child)";

// What kvn-sim makes is owner-only whatever the umask; a private directory found wider is narrowed, and must be ours.
TEST(SimSecurity, StateAndSocketAreOwnerOnly)
{
    mode_t old = umask(0);
    SimHandset sim(R"({"efs": {"0": {"/a/b": "01"}}})");
    umask(old);
    ASSERT_TRUE(sim.started());
    ASSERT_EQ(sim.ctl({"nv", "set", "0", "550", "01"}).exit_code, 0);
    for (const char *d : {"", "/nv/sub0", "/efs/sub0/a", "/kvn-sim-tmp"})
        EXPECT_EQ(mode_of(sim.state_dir() + d), 0700u) << d;
    for (const char *f : {"/efs/sub0/a/b", "/nv/sub0/550", "/logcat.txt", "/kvn-sim.log"})
        EXPECT_EQ(mode_of(sim.state_dir() + f), 0600u) << f;
    EXPECT_EQ(mode_of(sim.socket()), 0600u);
    const std::string wide = sim.dir() + "/wide";
    std::string err;
    fs::create_directory(wide);
    chmod(wide.c_str(), 0755);
    EXPECT_TRUE(open_private_dir(wide, false, &err)) << err;
    EXPECT_EQ(mode_of(wide), 0700u) << "narrowed to owner-only";
    chmod(wide.c_str(), 0777);
    EXPECT_FALSE(open_private_dir(wide, false, &err));
    EXPECT_NE(err.find("writable by group or others"), std::string::npos) << err;
    if (geteuid() == 0) {
        chmod(wide.c_str(), 0700);
        ASSERT_EQ(chown(wide.c_str(), 65534, 65534), 0);
        EXPECT_FALSE(open_private_dir(wide, false, &err));
        EXPECT_NE(err.find("owned by uid 65534"), std::string::npos) << err;
    }
}

TEST(SimSecurity, LinksPlantedInTheStateDirectoryAreNeverFollowed)
{
    kvn_test::TempDir dir;
    const std::string st = dir.path() + "/st", victim = dir.path() + "/victim";
    fs::create_directory(st);
    fs::create_symlink(victim, st + "/kvn-sim.log");
    std::string err;
    EXPECT_LT(open_daemon_log(st, &err), 0);
    EXPECT_NE(err.find("symbolic link"), std::string::npos) << err;
    fs::remove(st + "/kvn-sim.log");
    fs::create_symlink(victim, st + "/lock");
    auto r = kvn_test::run_process({kvn_test::kvn_sim_bin(), "run", "--state", st, "--socket", dir.path() + "/s"});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_NE(r.err.find("lock: is a symbolic link"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(victim)) << "nothing created through the link";
    EXPECT_FALSE(fs::exists(dir.path() + "/s.lock")) << "the socket's claim is dropped";
    EXPECT_EQ(r.out.find("running"), std::string::npos) << "\"running\" only once it serves: " << r.out;
}

TEST(SimSecurity, FailedStartsGiveTheRealReasonAndLeaveNothingBehind)
{
    kvn_test::TempDir dir;
    const std::string d = dir.path(), sock = d + "/s.sock";
    std::ofstream(d + "/plain") << "x";
    std::ofstream(d + "/bad.json") << R"({"nv": {"0": {"550": "zz"}}})";
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--state", "/dev/null"}, "/dev/null: not a directory"},
        {{"--state", d + "/plain"}, "not a directory"},
        {{"--state", d + "/" + std::string(5000, 'x')}, "File name too long"},
        {{"--state", d + "/new", "--socket", d + "/" + std::string(120, 'y')}, "at most 107"},
        {{"--state", d + "/new", "--scenario", d + "/bad.json"}, "\"nv.0.550\" is not hex"},
    };
    for (const auto &[args, reason] : cases) {
        std::vector<std::string> argv = {kvn_test::kvn_sim_bin(), "run"};
        argv.insert(argv.end(), args.begin(), args.end());
        if (args.size() == 2)
            argv.insert(argv.end(), {"--socket", sock});
        auto r = kvn_test::run_process(argv);
        EXPECT_EQ(r.exit_code, 1) << reason;
        EXPECT_NE(r.err.find(reason), std::string::npos) << r.err;
        EXPECT_EQ(r.out.find("running"), std::string::npos) << "\"running\" only once it serves: " << r.out;
        for (const auto &e : fs::directory_iterator(d))
            EXPECT_EQ(e.path().string().find(".lock"), std::string::npos) << e.path();
        EXPECT_FALSE(fs::exists(d + "/new")) << reason << ": checked before anything is created";
    }
}

TEST(SimSecurity, AGroupOptionOpensTheSocketToThatGroupOnly)
{
    NEED_NOBODY(pw);
    kvn_test::TempDir dir;
    const std::string sock = dir.path() + "/s.sock", group = getgrgid(pw->pw_gid)->gr_name;
    auto r = sim_bin({"start", "--state", dir.path() + "/st", "--socket", sock, "--group", group});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    struct stat st {};
    EXPECT_EQ(lstat(sock.c_str(), &st), 0);
    EXPECT_EQ(std::pair(st.st_mode & 07777, st.st_gid), std::pair(0660u, pw->pw_gid));
    EXPECT_EQ(sim_bin({"stop", "--socket", sock}).exit_code, 0);
}

// Runs fn in a child, switched to pw's user when pw is set; the child's pid.
pid_t child(const passwd *pw, const std::function<int()> &fn)
{
    pid_t pid = fork();
    if (pid == 0)
        _exit(!pw || (setgid(pw->pw_gid) == 0 && setuid(pw->pw_uid) == 0) ? fn() : 99);
    return pid;
}

// The daemon trusts root, its own user or the socket's group; a client trusts only a listener of root or its own.
TEST(SimSecurity, PeerCredentialsAreCheckedBothWays)
{
    NEED_NOBODY(pw);
    kvn_test::TempDir dir;
    chmod(dir.path().c_str(), 0777);
    const std::string path = dir.path() + "/p.sock", squat = dir.path() + "/squat.sock";
    UniqueFd lfd{listen_at(path)};
    chmod(path.c_str(), 0777);
    auto peer_of = [&](const passwd *user) {
        pid_t pid = child(user, [&] { return kvn_wire::connect_unix(path) >= 0 ? 0 : 1; });
        UniqueFd fd{accept(lfd.get(), nullptr, nullptr)};
        waitpid(pid, nullptr, 0);
        std::string why;
        bool ok = peer_trusted(fd.get(), &why);
        return std::make_pair(ok, why);
    };
    EXPECT_TRUE(peer_of(nullptr).first) << "root";
    auto [ok, why] = peer_of(pw);
    EXPECT_FALSE(ok);
    EXPECT_NE(why.find("uid " + std::to_string(pw->pw_uid)), std::string::npos) << why;
    allow_peer_group(pw->pw_gid);
    EXPECT_TRUE(peer_of(pw).first) << "a member of the group the socket is opened to";
    allow_peer_group(std::nullopt);

    EXPECT_EQ(kvn_wire::connect_unix(squat, &why), -1);
    EXPECT_EQ(why, "nothing listens at " + squat);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t pid = child(pw, [&] {
        int l = listen_at(squat);
        (void)!write(ready[1], "x", 1);
        int c = accept(l, nullptr, nullptr);
        char b;
        return int(read(c, &b, 1)); // until the client hangs up
    });
    char b;
    ASSERT_EQ(read(ready[0], &b, 1), 1);
    EXPECT_FALSE(UniqueFd(kvn_wire::connect_unix(squat, &why))) << "connected to a squatter";
    EXPECT_EQ(why, squat + " belongs to uid " + std::to_string(pw->pw_uid) + ", not root or you");
    waitpid(pid, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
}
