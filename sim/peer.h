// peer.h - who may talk to the daemon: every accepted connection's
// credentials (SO_PEERCRED) are checked, and only root, the daemon's own user
// and, when the socket was opened to a group, that group's members are
// served. Anyone else is refused with one log line.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace kvn_sim {

class Handset;

// Opens the peer check to the members of `gid` (the daemon's --group).
void allow_peer_group(std::optional<gid_t> gid);

// Whether the connected peer on `fd` may be served; `why` says who it is
// when not. `pid`, when given, gets the peer's process id.
bool peer_trusted(int fd, std::string *why, pid_t *pid = nullptr);

// peer_trusted for a freshly accepted connection: a refused peer's
// descriptor is closed and the refusal noted in the handset log.
bool admit_peer(int fd, Handset &h, pid_t *pid = nullptr);

} // namespace kvn_sim
