// sim_client.h - a raw packet-level client of kvn-sim for its tests: binds to
// a service, sends QMI requests built by hand, and reads what comes back,
// so faults and notifications are seen exactly as they go over the socket.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kvn_wire.h"

namespace sim_test {

using Bytes = std::vector<uint8_t>;

class RawClient {
public:
    explicit RawClient(const std::string &socket);
    ~RawClient();
    RawClient(const RawClient &) = delete;
    RawClient &operator=(const RawClient &) = delete;

    bool connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    bool send(kvn_wire::Kind kind, uint32_t service, const Bytes &payload = {}, uint16_t instance = 0);
    bool send_raw(const Bytes &bytes);
    std::optional<kvn_wire::Packet> read(int timeout_ms = 3000);
    // CONNECT to a service; true on CONNECT_OK.
    bool bind(uint32_t service);
    // Sends one QMI request (flags 0) with the TLV area.
    bool request(uint16_t msg_id, uint16_t txn, const Bytes &tlvs);
    // True when the peer closed the connection (within timeout_ms).
    bool closed_by_peer(int timeout_ms = 3000);

private:
    int fd_ = -1;
    uint32_t service_ = 0;
};

// The extend request record: TLV 0x01 cmd_id, TLV 0x02 data_len, TLV 0x10
// with all 512 data bytes.
Bytes extend_record(uint32_t cmd_id, const Bytes &data);

struct ExtendResponse {
    uint32_t result = 0;
    uint32_t data_len = 0;
    Bytes data; // TLV 0x10 as carried (512 bytes), empty when absent
};
// Parses a QMI packet carrying an extend response; nullopt when malformed.
std::optional<ExtendResponse> parse_extend(const kvn_wire::Packet &p, uint16_t *txn = nullptr);

// A command-2 (NV/EFS) payload of 512 bytes.
struct NvEfsRequest {
    uint8_t op = 0;
    uint8_t sub = 0;
    uint16_t id = 0; // NV id or transfer instance
    std::string path;
    uint32_t total = 0, chunk = 0, position = 0;
    Bytes data;
    Bytes encode() const;
};

struct NvEfsReply {
    uint32_t len_all = 0, len_send = 0;
    int32_t result = 0;
    Bytes data; // len_send bytes (bounded by 424)
};
NvEfsReply decode_nvefs(const Bytes &reply_data);

// One command-2 exchange on a bound extend client; nullopt when no well-formed reply came.
std::optional<NvEfsReply> nvefs(RawClient &c, const NvEfsRequest &rq, uint16_t txn = 1);

} // namespace sim_test
