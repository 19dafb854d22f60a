// daemon.cpp - bringing up and tearing down a kvn-sim daemon. The state
// directory is locked for the daemon's lifetime (one handset per directory);
// the default scenario is applied once, to a new directory started without a
// scenario; a scenario named at start is applied on every start. The socket
// path is claimed by a lock file beside it ("<socket>.lock"), so of two
// daemons started at once on one socket only one serves; the socket and its
// lock file are removed when the daemon stops. A stale socket is removed only
// when it is a socket: any other file in its place is left alone.
#include "daemon.h"
#include "fsync_queue.h"

#include <fcntl.h>
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

int listen_unix(const std::string &path, std::string *err)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        *err = "socket path too long: " + path;
        return -1;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 128) != 0) {
        *err = "cannot listen on " + path + ": " + strerror(errno);
        if (fd >= 0)
            close(fd);
        return -1;
    }
    return fd;
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
    std::string err;
    std::error_code ec;
    UniqueFd socket_claim = claim_socket(opt.socket, &err);
    if (!socket_claim) {
        report(ready_fd, "ERR " + err);
        return 1;
    }
    if (daemon_answers(opt.socket)) {
        report(ready_fd, "ERR a kvn-sim already answers on " + opt.socket);
        return 1;
    }
    fs::create_directories(opt.state_dir, ec);
    // One daemon per state directory. A daemon that was just told to stop may
    // still hold the lock for a moment, hence the short wait.
    Fd lock(open((fs::path(opt.state_dir) / "lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    bool locked = false;
    for (int i = 0; i < 100 && lock.get() >= 0 && !(locked = flock(lock.get(), LOCK_EX | LOCK_NB) == 0); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (!locked) {
        report(ready_fd, "ERR state directory " + opt.state_dir + " is in use by another kvn-sim");
        return 1;
    }

    // Declared before the handset, so it outlives every write of the store.
    FsyncQueue flusher;
    Handset h(opt.state_dir);
    if (!h.init(&err)) {
        report(ready_fd, "ERR " + err);
        return 1;
    }
    register_all_services(h);
    fs::path marker = fs::path(opt.state_dir) / "initialized";
    if (!fs::exists(marker, ec)) {
        if (opt.scenario.empty() && !apply_scenario(h, nlohmann::json::parse(kDefaultScenario), &err)) {
            report(ready_fd, "ERR default scenario: " + err);
            return 1;
        }
        const char text[] = "1\n";
        write_file_atomic(marker, h.store.tmp_dir(), reinterpret_cast<const uint8_t *>(text), 2);
    }
    if (!opt.scenario.empty() && !apply_scenario_file(h, opt.scenario, &err)) {
        report(ready_fd, "ERR scenario " + err);
        return 1;
    }

    if (!remove_stale_socket(opt.socket, &err)) {
        report(ready_fd, "ERR " + err);
        return 1;
    }
    // Clients read properties from the area beside the socket, without a request.
    if (!h.props.publish(opt.socket + ".props", &err)) {
        report(ready_fd, "ERR " + err);
        return 1;
    }
    Fd listener(listen_unix(opt.socket, &err));
    if (listener.get() < 0) {
        report(ready_fd, "ERR " + err);
        return 1;
    }
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
    report(ready_fd, "OK");
    router.run();
    flusher.drain(); // everything acknowledged is on the disk before `stop` returns

    h.note(kLogInfo, "kvn-sim stopped");
    listener.reset();
    lock.reset();
    // The lock file goes first: once the socket is gone a new daemon may start.
    unlink((opt.socket + ".lock").c_str());
    unlink(opt.socket.c_str());
    socket_claim.reset();
    return 0;
}

} // namespace kvn_sim
