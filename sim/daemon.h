// daemon.h - the life of one kvn-sim daemon: state directory, services,
// scenario, listening socket, serving until stopped, and the clean-up.
#pragma once

#include <string>

namespace kvn_sim {

struct DaemonOptions {
    std::string state_dir; // absolute
    std::string socket;    // absolute
    std::string scenario;  // absolute, or empty
};

// Runs a daemon in this process until it is stopped. When ready_fd >= 0,
// writes "OK\n" to it once clients are accepted, or "ERR <reason>\n" when it
// cannot start, and closes it. Returns the process exit status.
int run_daemon(const DaemonOptions &opt, int ready_fd);

// True when a kvn-sim answers a status request on the socket.
bool daemon_answers(const std::string &socket);

} // namespace kvn_sim
