// qmux_port.h - the handset's QMI control device as a modem's USB port offers
// it: a pseudo-terminal speaking QMUX frames (marker 0x01, length, control
// flags, service, client id), with the CTL service (client ids, version info,
// sync) and every registered service whose id fits in QMUX's one service byte.
// Independent QMI clients (libqmi's qmicli) talk to the same handset as kvn.
#pragma once

#include <bitset>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "handset.h"
#include "router.h"

namespace kvn_sim {

class QmuxPort {
public:
    // Opens a pseudo-terminal in raw mode and serves it on the router's loop.
    // nullptr with *err set when the system gives no pseudo-terminal.
    static std::unique_ptr<QmuxPort> open(Handset &h, Router &r, std::string *err);
    ~QmuxPort(); // leaves the loop, closes both ends
    QmuxPort(const QmuxPort &) = delete;
    QmuxPort &operator=(const QmuxPort &) = delete;

    // The device a client opens (/dev/pts/N).
    const std::string &path() const { return path_; }

    // Frames longer than this (the QMUX length field) are refused; a modem's
    // control messages stay well under it.
    static constexpr size_t kMaxQmuxLength = 8192;

private:
    QmuxPort(Handset &h, Router &r, int master, int slave, std::string path);
    void on_ready(short revents);
    void take_frames();
    void on_frame(uint8_t service, uint8_t cid, std::span<const uint8_t> sdu);
    void on_ctl(std::span<const uint8_t> sdu);
    void on_service(uint8_t service, uint8_t cid, std::span<const uint8_t> sdu);
    void release(uint8_t service, uint8_t cid);
    void send(uint8_t service, uint8_t cid, std::vector<uint8_t> sdu);
    void flush();
    void rewatch();

    Handset &h_;
    Router &r_;
    int master_;            // our end: frames are read and written here
    int slave_;             // held open so the master never reports a hang-up
    std::string path_;      // the slave's name
    std::vector<uint8_t> in_;  // bytes read, not yet a whole frame
    std::vector<uint8_t> out_; // frames the terminal did not take yet
    std::map<uint8_t, std::bitset<256>> cids_; // client ids handed out, per service
};

// The request's connection id as services see it: one per (service, client
// id) of the port, far above the socket connections' ids.
uint64_t qmux_conn_id(uint8_t service, uint8_t cid);

} // namespace kvn_sim
