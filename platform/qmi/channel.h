// channel.h - what a client handle or a notifier talks through, whatever the
// transport: packets in kvn-sim's socket form (PROTOCOL.md) both ways. On the
// socket a channel is a connection; on QMUX it is one client id of a shared
// device (the device's reader hands it the frames that carry its id, turned
// into QMI packets). fd() becomes readable when receive() has something
// (a packet or the loss of the channel) to return.
#pragma once

#include "kvn_wire.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace kvn_qmi {

class Channel {
public:
    virtual ~Channel() = default;
    Channel() = default;
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;

    enum class Got {
        Packet,  // *out holds the next packet
        Nothing, // no byte of a packet came within first_ms
        Lost,    // closed, broken, malformed, or a packet cut off by rest_ms
    };

    virtual int fd() const = 0;
    // Sends one packet; false when the channel is broken.
    virtual bool send(const kvn_wire::Header &h, const uint8_t *payload, size_t len) = 0;
    bool send(const kvn_wire::Header &h, const std::vector<uint8_t> &payload)
    {
        return send(h, payload.data(), payload.size());
    }
    // The next packet: waits at most first_ms (-1: no limit) for it to start
    // and rest_ms for the rest of it.
    virtual Got receive(kvn_wire::Packet *out, int first_ms, int rest_ms) = 0;
    std::optional<kvn_wire::Packet> receive(int timeout_ms)
    {
        kvn_wire::Packet p;
        if (receive(&p, timeout_ms, timeout_ms) != Got::Packet)
            return std::nullopt;
        return p;
    }
    // A whole packet is already there: receive() returns it at once.
    virtual bool has_packet() const = 0;
    // Makes a thread blocked in receive() return.
    virtual void shutdown() = 0;
};

} // namespace kvn_qmi
