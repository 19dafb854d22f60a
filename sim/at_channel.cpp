// at_channel.cpp - the AT channel of kvn-sim: a pseudo-terminal whose slave
// side stands in for the handset's AT device. Writers open the slave, write a
// command line and close it; the router's loop reads the master side.
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <nlohmann/json.hpp>

#include "devices.h"

namespace kvn_sim {

AtChannel::AtChannel(Handset &h, Router &r) : h_(h), r_(r)
{
    std::string err;
    if (!open_pty(&err))
        h_.note(kLogError, "AT channel not available: " + err);
    h_.devices["at"] = this;
}

AtChannel::~AtChannel()
{
    h_.devices.erase("at");
    close_pty();
}

void AtChannel::set_up(bool up)
{
    if (up == this->up())
        return;
    std::string err;
    if (!up)
        close_pty();
    else if (!open_pty(&err))
        h_.note(kLogError, "AT channel not available: " + err);
    h_.note(kLogInfo, std::string("service at ") + (this->up() ? "up" : "down"));
}

bool AtChannel::open_pty(std::string *err)
{
    int m = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    char name[128];
    if (m < 0 || grantpt(m) != 0 || unlockpt(m) != 0 || ptsname_r(m, name, sizeof name) != 0) {
        *err = std::string("pseudo-terminal: ") + strerror(errno);
        if (m >= 0)
            close(m);
        return false;
    }
    int s = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    termios t{};
    if (s < 0 || tcgetattr(s, &t) != 0) {
        *err = std::string(name) + ": " + strerror(errno);
        if (s >= 0)
            close(s);
        close(m);
        return false;
    }
    cfmakeraw(&t);
    tcsetattr(s, TCSANOW, &t);
    master_ = m;
    slave_ = s;
    slave_path_ = name;
    line_.clear();
    r_.watch(master_, POLLIN, [this](short revents) { on_readable(revents); });
    return true;
}

void AtChannel::close_pty()
{
    if (master_ < 0)
        return;
    r_.unwatch(master_);
    close(slave_);
    close(master_);
    master_ = slave_ = -1;
    slave_path_.clear();
    line_.clear();
}

namespace {

// A writer may change the shared terminal's modes; with echo on, the replies
// the daemon writes would come back to it as input and be answered again. The
// modes are put back to raw before every read and every reply.
void keep_raw(int fd)
{
    termios t{};
    if (fd < 0 || tcgetattr(fd, &t) != 0)
        return;
    termios raw = t;
    cfmakeraw(&raw);
    if (t.c_iflag != raw.c_iflag || t.c_oflag != raw.c_oflag || t.c_lflag != raw.c_lflag ||
        t.c_cflag != raw.c_cflag)
        tcsetattr(fd, TCSANOW, &raw);
}

} // namespace

void AtChannel::on_readable(short revents)
{
    keep_raw(slave_);
    uint8_t buf[4096];
    ssize_t n = read(master_, buf, sizeof buf);
    if (n <= 0) {
        // With a slave held open the master never hangs up; if it does all
        // the same, start over on a fresh terminal rather than spin.
        if ((revents & (POLLHUP | POLLERR)) && !(n < 0 && errno == EAGAIN)) {
            h_.note(kLogWarn, "AT channel hung up; reopened");
            set_up(false);
            set_up(true);
        }
        return;
    }
    feed(buf, static_cast<size_t>(n));
}

void AtChannel::feed(const uint8_t *buf, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        char c = static_cast<char>(buf[i]);
        if (c == '\n')
            continue;
        if (c == '\r') {
            on_line();
            continue;
        }
        line_.push_back(c);
        if (line_.size() >= kMaxLine)
            on_line();
    }
}

void AtChannel::on_line()
{
    if (line_.empty())
        return;
    nlohmann::ordered_json j;
    j["seq"] = h_.journal.ring().last_seq() + 1;
    j["at"] = to_hex(reinterpret_cast<const uint8_t *>(line_.data()), line_.size());
    h_.journal.record_line(j.dump());
    // The log shows each line too (bytes outside printable ASCII as \xNN).
    std::string shown;
    for (unsigned char ch : line_) {
        char esc[5];
        std::snprintf(esc, sizeof esc, "\\x%02X", ch);
        shown += ch >= 0x20 && ch < 0x7F ? std::string(1, static_cast<char>(ch)) : std::string(esc);
    }
    h_.note(kLogInfo, "AT line received: " + shown);
    bool at = line_.size() >= 2 && (line_[0] == 'A' || line_[0] == 'a') && (line_[1] == 'T' || line_[1] == 't');
    line_.clear();
    const char *reply = at ? "\r\nOK\r\n" : "\r\nERROR\r\n";
    size_t len = std::strlen(reply);
    keep_raw(slave_);
    // Nobody may be reading the replies: when the terminal's buffer is full,
    // drop what waits there rather than block the handset.
    if (write(master_, reply, len) < 0 && errno == EAGAIN) {
        tcflush(slave_, TCIFLUSH);
        (void)!write(master_, reply, len);
    }
}

} // namespace kvn_sim
