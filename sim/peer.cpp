// peer.cpp - the credential check of accepted connections.
#include "peer.h"

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "handset.h"

namespace kvn_sim {

namespace {

std::optional<gid_t> g_group; // set once at start, before any connection

// Whether `uid` (primary group `gid`) belongs to the group `group`.
bool member_of(uid_t uid, gid_t gid, gid_t group)
{
    if (gid == group)
        return true;
    std::vector<char> buf(16384);
    passwd pw{}, *pwp = nullptr;
    if (getpwuid_r(uid, &pw, buf.data(), buf.size(), &pwp) != 0 || !pwp)
        return false;
    int n = 64;
    std::vector<gid_t> groups(static_cast<size_t>(n));
    if (getgrouplist(pw.pw_name, pw.pw_gid, groups.data(), &n) < 0) {
        groups.resize(static_cast<size_t>(n));
        if (getgrouplist(pw.pw_name, pw.pw_gid, groups.data(), &n) < 0)
            return false;
    }
    for (int i = 0; i < n; ++i)
        if (groups[static_cast<size_t>(i)] == group)
            return true;
    return false;
}

} // namespace

void allow_peer_group(std::optional<gid_t> gid) { g_group = gid; }

bool peer_trusted(int fd, std::string *why, pid_t *pid)
{
    static const uid_t self = geteuid(); // the daemon never changes user
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
        *why = std::string("no credentials: ") + strerror(errno);
        return false;
    }
    if (pid)
        *pid = cred.pid;
    if (cred.uid == 0 || cred.uid == self || (g_group && member_of(cred.uid, cred.gid, *g_group)))
        return true;
    *why = "uid " + std::to_string(cred.uid) + " (pid " + std::to_string(cred.pid) + ")";
    return false;
}

bool admit_peer(int fd, Handset &h, pid_t *pid)
{
    std::string why;
    if (peer_trusted(fd, &why, pid))
        return true;
    close(fd);
    h.note(kLogWarn, "connection refused: " + why + " is neither root nor the daemon's user");
    return false;
}

} // namespace kvn_sim
