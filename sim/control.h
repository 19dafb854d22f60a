// control.h - the daemon side of kvn-sim's control commands: CONTROL
// requests are JSON objects {"op": name, ...}, answered by one handler per
// op from a table; the command line builds them (cli.cpp).
#pragma once

#include <string>

#include "handset.h"
#include "router.h"

namespace kvn_sim {

struct DaemonInfo {
    std::string socket;
    std::string state_dir;
    std::string pty; // the QMUX pseudo-terminal, empty when there is none
};

Router::ControlHandler make_control_handler(Handset &h, Router &r, DaemonInfo info);

// Largest payload of file or journal bytes put in one control reply; readers
// page through bigger ones.
inline constexpr size_t kControlPageBytes = 24000;

} // namespace kvn_sim
