// connection.h - one stream connection to the simulated handset, carrying the
// packets of PROTOCOL.md. Writes from several threads are serialised so that
// packets never interleave; reads belong to one thread at a time. Reads go
// through a buffer: one recv() usually brings a whole packet (header and
// payload), and what it brings beyond that packet waits for the next read.
#pragma once

#include "channel.h"
#include "kvn_wire.h"

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kvn_qmi {

class Connection final : public Channel {
public:
    // Connects to the handset's socket at path (default: located afresh by
    // the usual rules); null when nothing listens there or the listener is
    // not to be trusted, with *why (when given) saying which.
    static std::unique_ptr<Connection> open();
    static std::unique_ptr<Connection> open(const std::string &path, std::string *why = nullptr);

    ~Connection() override;
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    int fd() const override { return fd_; }

    // Sends one whole packet in one system call; false when the connection is
    // broken.
    using Channel::send;
    bool send(const kvn_wire::Header &h, const uint8_t *payload, size_t len) override;

    // Reads the next packet: waits at most first_ms (-1: no limit) for its
    // first byte, then rest_ms for the rest. Reads what is there before it
    // waits, except right after a send: the reply cannot be there yet, so it
    // waits first rather than make a read that finds nothing.
    using Channel::receive;
    Got receive(kvn_wire::Packet *out, int first_ms, int rest_ms) override;
    bool has_packet() const override;

    // Stops both directions, so that a thread blocked in receive() returns.
    void shutdown() override;

private:
    explicit Connection(int fd) : fd_(fd) {}
    void make_room(size_t need);

    int fd_;
    std::mutex write_mu_;
    std::atomic<bool> just_sent_{false}; // a packet went out since the last wait
    std::unique_ptr<uint8_t[]> buf_; // bytes read and not yet handed out: [begin_, end_)
    size_t cap_ = 0, begin_ = 0, end_ = 0;
};

} // namespace kvn_qmi
