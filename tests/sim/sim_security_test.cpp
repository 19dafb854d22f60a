// sim_security_test.cpp - kvn-sim left running as root on a shared machine:
// modes, planted links, peer credentials both ways, no host file opened for a
// client, all-or-nothing bounded loads, starts that fail cleanly.
#include <gtest/gtest.h>

#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "control.h"
#include "daemon.h"
#include "handset.h"
#include "kvn_wire.h"
#include "peer.h"
#include "process.h"
#include "router.h"
#include "scenario.h"
#include "sim_handset.h"

using namespace kvn_sim;
namespace fs = std::filesystem;
using nlohmann::json;

namespace {

mode_t mode_of(const fs::path &p)
{
    struct stat st {};
    lstat(p.c_str(), &st);
    return st.st_mode & 07777;
}

// The unprivileged user privilege tests switch to (setuid in a child).
#define NEED_NOBODY(pw)                                                                                             \
    const passwd *pw = geteuid() == 0 ? getpwnam("nobody") : nullptr;                                              \
    if (!pw)                                                                                                        \
        GTEST_SKIP() << "needs root and a user \"nobody\" to switch to (setuid in a child)";

int listen_at(const std::string &path)
{
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    listen(fd, 4);
    return fd;
}

struct Bench {
    kvn_test::TempDir dir;
    Handset h{dir.path() + "/state"};
    Router r{h, -1, -1};
    Router::ControlHandler ctl;
    Bench()
    {
        std::string err;
        EXPECT_TRUE(h.init(&err)) << err;
        ctl = make_control_handler(h, r, DaemonInfo{});
    }
    json call(const json &req, bool want_ok)
    {
        bool ok = !want_ok;
        json reply = ctl(req, &ok);
        EXPECT_EQ(ok, want_ok) << req.dump().substr(0, 200) << " -> " << reply;
        return reply;
    }
    std::string error(const json &req) { return call(req, false).value("error", ""); }
};

} // namespace

TEST(SimSecurity, StateDirectoryIsOwnerOnlyWhateverTheUmaskAndMustBeOurs)
{
    kvn_test::TempDir dir;
    mode_t old = umask(0);
    {
        Handset h(dir.path() + "/state");
        std::string err;
        ASSERT_TRUE(h.init(&err)) << err;
        ASSERT_TRUE(h.store.efs_put(0, "/a/b", {1}, &err)) << err;
        ASSERT_TRUE(h.store.nv_set(0, 550, {1}, &err)) << err;
        h.note(kLogInfo, "x");
    }
    umask(old);
    const fs::path st = dir.path() + "/state";
    for (const char *d : {"", "/nv/sub0", "/efs/sub0/a", "/kvn-sim-tmp"})
        EXPECT_EQ(mode_of(st.string() + d), 0700u) << d;
    for (const char *f : {"/efs/sub0/a/b", "/nv/sub0/550", "/logcat.txt"})
        EXPECT_EQ(mode_of(st.string() + f), 0600u) << f;

    std::string err;
    fs::create_directory(dir.path() + "/wide");
    chmod((dir.path() + "/wide").c_str(), 0755);
    EXPECT_TRUE(open_private_dir(dir.path() + "/wide", false, &err)) << err;
    EXPECT_EQ(mode_of(dir.path() + "/wide"), 0700u) << "narrowed to owner-only";
    chmod((dir.path() + "/wide").c_str(), 0777);
    EXPECT_FALSE(open_private_dir(dir.path() + "/wide", false, &err));
    EXPECT_NE(err.find("writable by group or others"), std::string::npos) << err;
    if (geteuid() == 0) {
        chmod((dir.path() + "/wide").c_str(), 0700);
        ASSERT_EQ(chown((dir.path() + "/wide").c_str(), 65534, 65534), 0);
        EXPECT_FALSE(open_private_dir(dir.path() + "/wide", false, &err));
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

TEST(SimSecurity, SocketIsOwnerOnlyWhateverTheUmask)
{
    mode_t old = umask(0);
    kvn_test::SimHandset sim;
    umask(old);
    ASSERT_TRUE(sim.started());
    EXPECT_EQ(mode_of(sim.socket()), 0600u);
    EXPECT_EQ(mode_of(sim.state_dir()), 0700u);
    EXPECT_EQ(mode_of(sim.state_dir() + "/kvn-sim.log"), 0600u);
}

TEST(SimSecurity, AGroupOptionOpensTheSocketToThatGroupOnly)
{
    NEED_NOBODY(pw);
    kvn_test::TempDir dir;
    DaemonOptions opt{dir.path() + "/st", dir.path() + "/s.sock", "", getgrgid(pw->pw_gid)->gr_name, {}};
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t pid = fork();
    if (pid == 0)
        _exit(run_daemon(opt, ready[1]));
    close(ready[1]);
    char buf[256] = {};
    EXPECT_EQ(read(ready[0], buf, sizeof buf - 1), 3) << buf;
    struct stat st {};
    EXPECT_EQ(lstat(opt.socket.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0660u);
    EXPECT_EQ(st.st_gid, pw->pw_gid);
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    close(ready[0]);
}

TEST(SimSecurity, PeersNeitherRootNorTheDaemonsUserAreRefused)
{
    NEED_NOBODY(pw);
    kvn_test::TempDir dir;
    chmod(dir.path().c_str(), 0777);
    const std::string path = dir.path() + "/p.sock";
    int lfd = listen_at(path);
    chmod(path.c_str(), 0777);
    auto peer_of = [&](bool switch_user) {
        pid_t pid = fork();
        if (pid == 0) {
            if (switch_user && (setgid(pw->pw_gid) != 0 || setuid(pw->pw_uid) != 0))
                _exit(99);
            _exit(kvn_wire::connect_unix(path) >= 0 ? 0 : 1);
        }
        int fd = accept(lfd, nullptr, nullptr);
        waitpid(pid, nullptr, 0);
        std::string why;
        bool ok = peer_trusted(fd, &why);
        close(fd);
        return std::make_pair(ok, why);
    };
    EXPECT_TRUE(peer_of(false).first) << "root";
    auto [ok, why] = peer_of(true);
    EXPECT_FALSE(ok);
    EXPECT_NE(why.find("uid " + std::to_string(pw->pw_uid)), std::string::npos) << why;
    allow_peer_group(pw->pw_gid);
    EXPECT_TRUE(peer_of(true).first) << "a member of the group the socket is opened to";
    allow_peer_group(std::nullopt);
    close(lfd);
}

TEST(SimSecurity, ClientsTrustOnlyAListenerOfRootOrTheirOwn)
{
    NEED_NOBODY(pw);
    kvn_test::TempDir dir;
    chmod(dir.path().c_str(), 0777);
    const std::string path = dir.path() + "/squat.sock";
    std::string why;
    EXPECT_EQ(kvn_wire::connect_unix(path, &why), -1);
    EXPECT_EQ(why, "nothing listens at " + path);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t pid = fork();
    if (pid == 0) {
        if (setgid(pw->pw_gid) != 0 || setuid(pw->pw_uid) != 0)
            _exit(99);
        int fd = listen_at(path);
        (void)!write(ready[1], "x", 1);
        int c = accept(fd, nullptr, nullptr);
        char b;
        (void)!read(c, &b, 1); // until the client hangs up
        _exit(0);
    }
    char b;
    ASSERT_EQ(read(ready[0], &b, 1), 1);
    int fd = kvn_wire::connect_unix(path, &why);
    EXPECT_EQ(fd, -1);
    if (fd >= 0)
        close(fd); // lets the listener go
    EXPECT_EQ(why, path + " belongs to uid " + std::to_string(pw->pw_uid) + ", not root or you");
    waitpid(pid, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
}

TEST(SimSecurity, ControlOpensNoHostFileAndStagedUploadsAreBounded)
{
    Bench b;
    const std::string secret = b.dir.path() + "/secret";
    std::ofstream(secret) << "root only";
    for (json req : {json{{"op", "load"}, {"file", secret}}, json{{"op", "efs_put"}, {"sub", 0}, {"path", "/s"}, {"file", secret}}})
        EXPECT_NE(b.error(req).find("opens no host file"), std::string::npos);
    EXPECT_FALSE(b.h.store.efs_size(0, "/s"));

    // A document in two chunks, loaded by its upload id, consumed.
    std::string doc = R"({"properties": {"persist.a": ")" + std::string(80, 'v') + R"("}})";
    auto first = b.call({{"op", "upload"}, {"hex", to_hex(reinterpret_cast<const uint8_t *>(doc.data()), 10)}}, true);
    b.call({{"op", "upload"}, {"upload", first["upload"]}, {"hex", to_hex(reinterpret_cast<const uint8_t *>(doc.data()) + 10, doc.size() - 10)}}, true);
    b.call({{"op", "load"}, {"upload", first["upload"]}}, true);
    EXPECT_EQ(b.h.props.get("persist.a"), std::string(80, 'v'));
    EXPECT_NE(b.error({{"op", "load"}, {"upload", first["upload"]}}).find("no upload"), std::string::npos);
    b.call({{"op", "load"}, {"document", R"({"properties": {"persist.b": "1"}})"}}, true);
    EXPECT_EQ(b.h.props.get("persist.b"), "1");

    // At most 4 live: a fifth drops the oldest.
    std::vector<json> ids;
    for (int i = 0; i < 5; ++i)
        ids.push_back(b.call({{"op", "upload"}, {"hex", "01"}}, true)["upload"]);
    EXPECT_NE(b.error({{"op", "efs_put"}, {"sub", 0}, {"path", "/o"}, {"upload", ids[0]}}).find("no upload"), std::string::npos);
    b.call({{"op", "efs_put"}, {"sub", 0}, {"path", "/o"}, {"upload", ids[4]}}, true);
    EXPECT_EQ(b.h.store.efs_size(0, "/o"), 1u);

    // Bounds: a chunk, an EFS file, a whole upload.
    EXPECT_NE(b.error({{"op", "upload"}, {"hex", std::string(48002, '0')}}).find("more than 24000 bytes"), std::string::npos);
    json big = b.call({{"op", "upload"}, {"hex", std::string(48000, '0')}}, true)["upload"];
    for (int i = 0; i < 4; ++i)
        b.call({{"op", "upload"}, {"upload", big}, {"hex", std::string(48000, '0')}}, true);
    EXPECT_NE(b.error({{"op", "efs_put"}, {"sub", 0}, {"path", "/z"}, {"upload", big}}).find("over the bound of 102410"), std::string::npos);
    big = b.call({{"op", "upload"}, {"hex", std::string(48000, '0')}}, true)["upload"];
    std::string err;
    for (size_t n = 24000; n <= kMaxScenarioBytes && err.empty(); n += 24000) {
        bool ok = true;
        err = b.ctl({{"op", "upload"}, {"upload", big}, {"hex", std::string(48000, '0')}}, &ok).value("error", "");
    }
    EXPECT_NE(err.find("over the bound of 4194304 bytes"), std::string::npos) << err;
}

TEST(SimSecurity, ALoadIsAllOrNothing)
{
    Bench b;
    std::string err;
    ASSERT_TRUE(b.h.store.efs_put(0, "/nv/x", {1}, &err)) << err;
    ASSERT_TRUE(b.h.store.efs_put(0, "/f", {1}, &err)) << err;
    const char *docs[] = {
        R"({"efs": {"0": {"/aaa_first": "01", "/nv": "02"}}})",         // a directory in the way
        R"({"efs": {"0": {"/aaa_first": "01", "/f/under": "02"}}})",    // a file where a directory goes
        R"({"efs": {"0": {"/aaa_first": "01", "/d": "02", "/d/e": "03"}}})", // within the document
        R"({"efs": {"0": {"/aaa_first": "01", "//g/h": "02", "/g": "03"}}})",
    };
    for (const char *doc : docs) {
        EXPECT_FALSE(apply_scenario_text(b.h, doc, &err)) << doc;
        EXPECT_FALSE(b.h.store.efs_size(0, "/aaa_first")) << doc << ": " << err;
    }
    for (int i = 0; i < 10; ++i) {
        json many = {{"faults", json::array()}};
        for (int k = 0; k < 1000; ++k)
            many["faults"].push_back({{"service", "extend"}, {"msg", 1u}, {"kind", "drop"}});
        ASSERT_TRUE(apply_scenario(b.h, many, &err)) << err;
    }
    EXPECT_FALSE(apply_scenario(b.h, json::parse(R"({"faults": [{"service": "extend", "msg": 1, "kind": "drop"}],
                                                    "properties": {"persist.c": "1"}})"), &err));
    EXPECT_NE(err.find("the bound on faults"), std::string::npos) << err;
    EXPECT_FALSE(b.h.props.get("persist.c"));
    EXPECT_NE(b.error({{"op", "fault"}, {"service", "extend"}, {"kind", "drop"}, {"msg", 1}}).find("bound on faults"), std::string::npos);
    b.call({{"op", "fault_clear"}}, true);
    EXPECT_EQ(b.h.faults.all().capacity(), 0u) << "the memory is given back";
}

TEST(SimSecurity, ScenarioDocumentsAreBoundedAndStrict)
{
    // A document with n entries at `at`, made by row(i).
    using Row = std::function<std::pair<std::string, json>(size_t)>;
    auto many = [](const std::vector<std::string> &at, size_t n, const Row &row) {
        json doc, *o = &doc;
        for (const auto &k : at)
            o = &(*o)[k];
        for (size_t i = 0; i < n; ++i) {
            auto [k, v] = row(i);
            (*o)[k] = v;
        }
        return doc;
    };
    auto num = [](const char *prefix) { return [prefix](size_t i) { return std::pair{prefix + std::to_string(i), json("01")}; }; };
    const std::pair<json, std::string> cases[] = {
        {many({"properties"}, 101, num("persist.p")), "100 properties"},
        {many({"nv", "0"}, 2001, num("")), "2000 NV items"},
        {many({"efs", "0"}, 1001, num("/f")), "1000 EFS files"},
        {many({"diag_replies"}, 1001, [](size_t i) { return std::pair{to_hex(Bytes{uint8_t(i), uint8_t(i >> 8)}), json("01")}; }), "1000 diag replies"},
        {many({"extend_replies"}, 1001, [](size_t i) { return std::pair{std::to_string(i), json{{"result", 0u}}}; }), "1000 extend replies"},
        {many({"vs_stats", "0"}, 1001, num("")), "1000 statistics"},
        {json{{"efs_read_chunk", 0}}, "from 1 to 424"},
        {json{{"efs_read_chunk", 425}}, "from 1 to 424"},
    };
    std::string err;
    for (const auto &[doc, bound] : cases) {
        EXPECT_FALSE(check_scenario(doc, &err)) << bound;
        EXPECT_NE(err.find(bound), std::string::npos) << err;
    }
    json faults = {{"faults", json::array()}};
    for (int i = 0; i < 1001; ++i)
        faults["faults"].push_back({{"service", "extend"}, {"msg", 1u}, {"kind", "drop"}});
    EXPECT_FALSE(check_scenario(faults, &err));
    EXPECT_NE(err.find("1000 faults"), std::string::npos) << err;

    EXPECT_FALSE(parse_scenario_text(std::string(kMaxScenarioBytes + 1, ' '), &err));
    EXPECT_NE(err.find("over the bound of 4194304 bytes"), std::string::npos) << err;
    EXPECT_FALSE(parse_scenario_text("{\n  \"nv\": {\n    \"0\": x}}", &err));
    EXPECT_EQ(err.rfind("line 3, column 10: not valid JSON (syntax error", 0), 0u) << err;
    EXPECT_FALSE(parse_scenario_text(R"({"efs": {"0": {"/a": "01", "/b": "02", "/a": "03"}}, "x": 1})", &err));
    EXPECT_EQ(err, "duplicate key \"efs.0./a\"");
    EXPECT_TRUE(parse_scenario_text(R"({"a": {"k": 1}, "b": {"k": 1}})", &err)) << "the same key in two objects";
}
