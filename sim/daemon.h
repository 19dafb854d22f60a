// daemon.h - the life of one kvn-sim daemon: state directory, services,
// scenario, listening socket, serving until stopped, and the clean-up.
#pragma once

#include <functional>
#include <string>

namespace kvn_sim {

struct DaemonOptions {
    std::string state_dir; // absolute
    std::string socket;    // absolute
    std::string scenario;  // absolute, or empty
    // A group whose members may use the socket too (mode 0660, that group),
    // or empty: owner-only (0600). Peers are checked to match either way.
    std::string group;
    // Called once the daemon serves clients (say, to print that it runs).
    std::function<void()> on_serving;
};

// What a start can check before it creates anything: the socket path (its
// length, its directory), the state directory (a directory of this user's,
// not writable by others, or a missing one), the group, and the scenario
// (read and checked whole). False with err set to the reason.
bool check_start(const DaemonOptions &opt, std::string *err);

// Opens the daemon's log, kvn-sim.log in the state directory (created
// owner-only), for appending: mode 0600, never through a link. -1 with err set.
int open_daemon_log(const std::string &state_dir, std::string *err);

// Runs a daemon in this process until it is stopped. When ready_fd >= 0,
// writes "OK\n" to it once clients are accepted, or "ERR <reason>\n" when it
// cannot start, and closes it. Returns the process exit status.
int run_daemon(const DaemonOptions &opt, int ready_fd);

// True when a kvn-sim answers a status request on the socket.
bool daemon_answers(const std::string &socket);

} // namespace kvn_sim
