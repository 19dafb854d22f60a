// daemon.cpp - bringing up and tearing down a kvn-sim daemon. The state
// directory is locked for the daemon's lifetime (one handset per directory);
// the default scenario is applied once, to a new directory started without a
// scenario; a scenario named at start is applied on every start. The socket
// path is claimed by a lock file beside it ("<socket>.lock"), so of two
// daemons started at once on one socket only one serves; the socket and its
// lock file are removed when the daemon stops. A stale socket is removed only
// when it is a socket: any other file in its place is left alone.
// Everything a start can check (socket path, state directory, scenario) is
// checked before anything is created, and a start that fails anyway leaves
// no lock file and no state directory marked initialised behind. The socket
// is owner-only (or opened to one group) whatever the umask, and everything
// in the state directory is opened without following links.
#include "daemon.h"
#include "fsync_queue.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

#include "control.h"
#include "devices.h"
#include "handset.h"
#include "kvn_wire.h"
#include "peer.h"
#include "qmux_port.h"
#include "router.h"
#include "scenario.h"
#include "services/services.h"
#include "util.h"

namespace kvn_sim {
namespace fs = std::filesystem;

namespace {

// An owned descriptor.
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

void report(int &ready_fd, const std::string &msg)
{
    if (ready_fd < 0)
        return;
    std::string line = msg + "\n";
    (void)!write(ready_fd, line.data(), line.size());
    close(ready_fd);
    ready_fd = -1;
}

// The socket file is made owner-only (0600), or 0660 and given to `group`,
// by the umask in force while it is bound, whatever the caller's umask was.
int listen_unix(const std::string &path, std::optional<gid_t> group, std::string *err)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        *err = "socket path too long: " + path;
        return -1;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    mode_t old_mask = umask(group ? 0117 : 0177);
    bool bound = fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    int saved = errno;
    umask(old_mask);
    errno = saved;
    if (!bound || (group && lchown(path.c_str(), static_cast<uid_t>(-1), *group) != 0) || listen(fd, 128) != 0) {
        *err = "cannot listen on " + path + ": " + strerror(errno);
        if (bound)
            unlink(path.c_str());
        if (fd >= 0)
            close(fd);
        return -1;
    }
    return fd;
}

std::optional<gid_t> group_id(const std::string &name, std::string *err)
{
    std::vector<char> buf(16384);
    group g{}, *gp = nullptr;
    if (getgrnam_r(name.c_str(), &g, buf.data(), buf.size(), &gp) != 0 || !gp) {
        *err = "no group " + name;
        return std::nullopt;
    }
    return g.gr_gid;
}

// The default socket's private directory (when the socket is to be there):
// created owner-only (group-searchable with a group), and refused when a
// link, not this user's, or open to others.
bool prepare_socket_dir(const std::string &socket, std::optional<gid_t> group, std::string *err)
{
    std::string dir = fs::path(socket).parent_path().string();
    if (dir != kvn_wire::private_socket_dir())
        return true;
    const mode_t want = group ? 0710 : 0700;
    bool made = mkdir(dir.c_str(), want) == 0;
    UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st;
    if (!fd || fstat(fd.get(), &st) != 0) {
        *err = dir + ": " + (errno == ELOOP || errno == ENOTDIR ? "not a directory of kvn-sim's" : strerror(errno));
        return false;
    }
    if (st.st_uid != geteuid() || (!made && (st.st_mode & (S_IRWXO | S_IWGRP)))) {
        *err = dir + ": " + (st.st_uid != geteuid() ? "owned by uid " + std::to_string(st.st_uid) : "open to others") +
               "; refused as the socket's directory";
        return false;
    }
    if ((group && fchown(fd.get(), static_cast<uid_t>(-1), *group) != 0) || fchmod(fd.get(), want) != 0) {
        *err = dir + ": " + strerror(errno);
        return false;
    }
    return true;
}

// Removes the lock file claiming the socket unless disarmed: a start that
// fails leaves no claim behind. Runs while the claim is still held.
struct ClaimRemover {
    std::string path;
    bool armed = true;
    ~ClaimRemover()
    {
        if (armed)
            unlink(path.c_str());
    }
};

// check_start, keeping the scenario text it read.
bool check_start_text(const DaemonOptions &opt, std::string *err, std::string *scenario_text)
{
    if (opt.socket.empty() || opt.socket.size() >= sizeof(sockaddr_un{}.sun_path)) {
        *err = "socket path is " + std::to_string(opt.socket.size()) + " bytes long, at most " +
               std::to_string(sizeof(sockaddr_un{}.sun_path) - 1) + ": " + opt.socket;
        return false;
    }
    fs::path sdir = fs::path(opt.socket).parent_path();
    struct stat st{};
    if (sdir.string() != kvn_wire::private_socket_dir()) {
        bool is_dir = stat(sdir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
        if (!is_dir) {
            *err = "socket directory " + sdir.string() + ": " + (st.st_mode ? "not a directory" : strerror(errno));
            return false;
        }
    }
    if (!opt.group.empty() && !group_id(opt.group, err))
        return false;
    errno = 0;
    if (stat(opt.state_dir.c_str(), &st) == 0) {
        if (!open_private_dir(opt.state_dir, false, err)) {
            *err = "state directory " + *err;
            return false;
        }
    } else if (errno != ENOENT) {
        *err = "state directory " + opt.state_dir + ": " + strerror(errno);
        return false;
    }
    if (!opt.scenario.empty()) {
        auto text = read_scenario_file(opt.scenario, err);
        if (!text) {
            *err = "scenario " + *err;
            return false;
        }
        *scenario_text = std::move(*text);
    }
    return true;
}

// Claims `socket` for this daemon: an exclusive lock on "<socket>.lock",
// held for the daemon's life. A daemon that was just told to stop may still
// hold it for a moment, hence the short wait. The lock file is checked to be
// the one at the path after locking, since a stopping daemon removes it.
UniqueFd claim_socket(const std::string &socket, std::string *err)
{
    std::string path = socket + ".lock";
    for (int i = 0; i < 100; ++i) {
        UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!fd) {
            *err = "cannot claim socket " + socket + ": " + path + ": " + strerror(errno);
            return UniqueFd();
        }
        if (flock(fd.get(), LOCK_EX | LOCK_NB) == 0) {
            struct stat held, named;
            if (fstat(fd.get(), &held) == 0 && stat(path.c_str(), &named) == 0 && held.st_dev == named.st_dev &&
                held.st_ino == named.st_ino)
                return fd;
            continue; // removed by a daemon that stopped meanwhile: take the new one
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    *err = "socket " + socket + " is claimed by another kvn-sim";
    return UniqueFd();
}

// Removes a socket file left by a daemon that died. False (err set) when
// something other than a socket is in its place: that is not kvn-sim's.
bool remove_stale_socket(const std::string &socket, std::string *err)
{
    struct stat st;
    if (lstat(socket.c_str(), &st) != 0)
        return true;
    if (!S_ISSOCK(st.st_mode)) {
        *err = socket + " exists and is not a socket; not replaced";
        return false;
    }
    unlink(socket.c_str());
    return true;
}

} // namespace

bool check_start(const DaemonOptions &opt, std::string *err)
{
    std::string unused;
    return check_start_text(opt, err, &unused);
}

int open_daemon_log(const std::string &state_dir, std::string *err)
{
    UniqueFd dir = open_private_dir(state_dir, true, err);
    if (!dir)
        return -1;
    int fd = open_append_at(dir.get(), "kvn-sim.log");
    if (fd < 0)
        *err = state_dir + "/kvn-sim.log: " + (errno == ELOOP ? "is a symbolic link" : strerror(errno));
    return fd;
}

bool daemon_answers(const std::string &socket)
{
    kvn_wire::Header h;
    h.kind = kvn_wire::Kind::Control;
    std::string req = R"({"op":"status"})";
    auto reply = kvn_wire::exchange(socket, h, std::vector<uint8_t>(req.begin(), req.end()), 2000);
    return reply && reply->hdr.kind == kvn_wire::Kind::ControlReply;
}

int run_daemon(const DaemonOptions &opt, int ready_fd)
{
    signal(SIGPIPE, SIG_IGN);
    std::string err, scenario;
    auto failed = [&](const std::string &why) {
        report(ready_fd, "ERR " + why);
        return 1;
    };
    if (!check_start_text(opt, &err, &scenario))
        return failed(err);
    std::optional<gid_t> group;
    if (!opt.group.empty() && !(group = group_id(opt.group, &err)))
        return failed(err);
    if (!prepare_socket_dir(opt.socket, group, &err))
        return failed(err);
    UniqueFd socket_claim = claim_socket(opt.socket, &err);
    if (!socket_claim)
        return failed(err);
    ClaimRemover unclaim{opt.socket + ".lock"};
    if (daemon_answers(opt.socket))
        return failed("a kvn-sim already answers on " + opt.socket);
    UniqueFd state = open_private_dir(opt.state_dir, true, &err);
    if (!state)
        return failed("state directory " + err);
    // One daemon per state directory. A daemon that was just told to stop may
    // still hold the lock for a moment, hence the short wait.
    UniqueFd lock(openat(state.get(), "lock", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600));
    if (!lock)
        return failed(opt.state_dir + "/lock: " + (errno == ELOOP ? "is a symbolic link" : strerror(errno)));
    fchmod(lock.get(), 0600);
    bool locked = false;
    for (int i = 0; i < 100 && !(locked = flock(lock.get(), LOCK_EX | LOCK_NB) == 0); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (!locked)
        return failed("state directory " + opt.state_dir + " is in use by another kvn-sim");

    // Declared before the handset, so it outlives every write of the store.
    FsyncQueue flusher;
    Handset h(opt.state_dir);
    if (!h.init(&err))
        return failed(err);
    register_all_services(h);
    // The default scenario goes to a new directory started without one; the
    // directory is marked initialised only once its scenario is in.
    struct stat st;
    bool initialised = fstatat(state.get(), "initialized", &st, AT_SYMLINK_NOFOLLOW) == 0;
    if (!initialised && opt.scenario.empty() &&
        !apply_scenario(h, nlohmann::json::parse(kDefaultScenario), &err))
        return failed("default scenario: " + err);
    if (!opt.scenario.empty() && !apply_scenario_text(h, scenario, &err))
        return failed("scenario " + opt.scenario + ": " + err);
    if (!initialised) {
        const char text[] = "1\n";
        if (!write_file_atomic_at(state.get(), "initialized", h.store.tmp_fd(), reinterpret_cast<const uint8_t *>(text), 2, &err))
            return failed(opt.state_dir + "/initialized: " + err);
    }

    if (!remove_stale_socket(opt.socket, &err))
        return failed(err);
    // Clients read properties from the area beside the socket, without a request.
    if (!h.props.publish(opt.socket + ".props", &err))
        return failed(err);
    allow_peer_group(group);
    Fd listener(listen_unix(opt.socket, group, &err));
    if (listener.get() < 0)
        return failed(err);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGHUP);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    Fd sigfd(signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK));

    Router router(h, listener.get(), sigfd.get());
    // The QMUX control device for independent QMI clients; kvn-sim serves
    // kvn without it when the system has no pseudo-terminal.
    auto qmux = QmuxPort::open(h, router, &err);
    if (!qmux)
        h.note(kLogWarn, "qmux: " + err);
    router.set_control(
        make_control_handler(h, router, DaemonInfo{opt.socket, opt.state_dir, qmux ? qmux->path() : ""}));
    AtChannel at(h, router);
    DiagResponder diag(h, router);
    h.restart_modem = [&router](std::chrono::milliseconds ms) { router.restart_modem(ms); };
    h.note(kLogInfo, "kvn-sim " + std::to_string(getpid()) + " serving on " + opt.socket);
    h.store.set_fsync_queue(&flusher);
    unclaim.armed = false; // from here on the stop below removes it
    report(ready_fd, "OK");
    if (opt.on_serving)
        opt.on_serving();
    router.run();
    flusher.drain(); // everything acknowledged is on the disk before `stop` returns

    h.note(kLogInfo, "kvn-sim stopped");
    listener.reset();
    lock.reset();
    state.reset();
    // The lock file goes first: once the socket is gone a new daemon may start.
    unlink((opt.socket + ".lock").c_str());
    unlink(opt.socket.c_str());
    socket_claim.reset();
    return 0;
}

} // namespace kvn_sim
