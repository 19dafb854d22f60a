// connection.h - one stream connection to the simulated handset, carrying the
// packets of PROTOCOL.md. Writes from several threads are serialised so that
// packets never interleave; reads belong to one thread at a time.
#pragma once

#include "kvn_wire.h"

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace kvn_qmi {

class Connection {
public:
    // Connects to the handset's socket, located afresh at every call; null
    // when nothing listens there.
    static std::unique_ptr<Connection> open();

    ~Connection();
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    int fd() const { return fd_; }

    // Sends one whole packet; false when the connection is broken.
    bool send(const kvn_wire::Header &h, const std::vector<uint8_t> &payload);

    // Reads one whole packet, waiting at most timeout_ms; nullopt on close,
    // timeout, error or a malformed header.
    std::optional<kvn_wire::Packet> receive(int timeout_ms);

    // Stops both directions, so that a thread blocked in receive() returns.
    void shutdown();

private:
    explicit Connection(int fd) : fd_(fd) {}

    int fd_;
    std::mutex write_mu_;
};

} // namespace kvn_qmi
