// qmux_port.h - the handset's QMI control device as a modem's USB port offers
// it: a pseudo-terminal speaking QMUX frames (marker 0x01, length, control
// flags, service, client id), with the CTL service (client ids, version info,
// sync) and every registered service whose id fits in QMUX's one service byte.
// Independent QMI clients (libqmi's qmicli) talk to the same handset as kvn.
#pragma once

#include <bitset>
#include <chrono>
#include <cstdint>
#include <deque>
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
    // Replies the terminal has not taken: above kOutputHigh bytes no request
    // is read (the writer's terminal fills up and blocks it); a reply that
    // would pass kOutputMax (indications, which come regardless) is dropped.
    static constexpr size_t kOutputHigh = 64u << 10;
    static constexpr size_t kOutputMax = 1u << 20;
    // A frame begun but not completed within this is dropped, and reading
    // starts again at the next marker: a writer that died mid-frame does not
    // hold up the next one (the held-open terminal never hangs up).
    static constexpr std::chrono::milliseconds kPartialFrame{1500};

    // Bytes as if read from the terminal (fuzzing).
    void feed(std::span<const uint8_t> bytes);
    // An indication to every client of `service` (one frame, broadcast
    // client id); returns how many clients the service has here.
    size_t indicate(uint32_t service, uint16_t msg_id, const std::vector<uint8_t> &tlvs);
    // The modem restarted: every client id is forgotten and the terminal is
    // told so with a broadcast CTL sync indication.
    void modem_restarted();

private:
    QmuxPort(Handset &h, Router &r, int master, int slave, std::string path);
    void on_ready(short revents);
    void take_frames();
    void expire_partial(uint64_t start);
    void on_frame(uint8_t service, uint8_t cid, std::span<const uint8_t> sdu);
    void on_ctl(std::span<const uint8_t> sdu);
    void on_service(uint8_t service, uint8_t cid, std::span<const uint8_t> sdu);
    void send_qmi(uint8_t service, uint8_t cid, uint8_t flags, uint16_t txn, uint16_t msg,
                  const std::vector<uint8_t> &tlvs);
    void release(uint8_t service, uint8_t cid);
    void send(uint8_t service, uint8_t cid, const std::vector<uint8_t> &sdu);
    void flush();
    void rewatch();
    size_t cid_count() const;

    Handset &h_;
    Router &r_;
    int master_;           // our end: frames are read and written here
    int slave_;            // held open so the master never reports a hang-up
    std::string path_;     // the slave's name
    std::vector<uint8_t> in_; // bytes read, not yet a whole frame (or held back by a full queue)
    uint64_t consumed_ = 0;   // bytes ever taken off the front of in_
    uint64_t partial_armed_ = UINT64_MAX; // the partial frame (its start in consumed_ terms) a timer watches
    std::deque<std::vector<uint8_t>> out_; // frames the terminal did not take yet
    size_t out_offset_ = 0;   // bytes of out_.front() already written
    size_t out_bytes_ = 0;    // unwritten bytes in out_
    bool dropping_ = false;   // replies dropped since the queue was last empty (logged once)
    std::map<uint8_t, std::bitset<256>> cids_; // client ids handed out, per service
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true); // for timers that outlive the port
};

// The request's connection id as services see it: one per (service, client
// id) of the port, far above the socket connections' ids.
uint64_t qmux_conn_id(uint8_t service, uint8_t cid);

} // namespace kvn_sim
