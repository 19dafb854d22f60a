// kvn_wire.h - the packet framing shared by the host platform libraries and
// kvn-sim (see platform/qmi/PROTOCOL.md): the 16-byte header, the packet
// kinds, where the simulated handset's socket is, and whole-packet reads and
// writes on a stream socket.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kvn_wire {

inline constexpr uint8_t kVersion = 1;
inline constexpr size_t kHeaderSize = 16;
inline constexpr uint32_t kMaxPayload = 65600;
inline constexpr size_t kQmiHeaderSize = 7;

enum class Kind : uint8_t {
    Connect = 0x01,
    ConnectOk = 0x81,
    ConnectFail = 0x82,
    Qmi = 0x02,
    ServiceDown = 0x03,
    List = 0x04,
    ListReply = 0x84,
    Watch = 0x05,
    ServiceUp = 0x85,
    ServiceGone = 0x86,
    PropGet = 0x06,
    PropValue = 0x87,
    PropSet = 0x07,
    PropSetResult = 0x88,
    Log = 0x08,
    DevicePath = 0x09,
    DevicePathReply = 0x89,
    Diag = 0x0A,
    DiagReply = 0x8A,
    Control = 0x10,
    ControlReply = 0x90,
};

// True for the kinds listed above.
bool kind_known(uint8_t kind);

struct Header {
    Kind kind = Kind::Qmi;
    uint16_t instance = 0;
    uint32_t service = 0;
    uint16_t client = 0;
    uint16_t status = 0;
    uint32_t length = 0; // payload bytes that follow
};

struct Packet {
    Header hdr;
    std::vector<uint8_t> payload;
};

// QMI service message flags.
inline constexpr uint8_t kQmiRequest = 0x00;
inline constexpr uint8_t kQmiResponse = 0x02;
inline constexpr uint8_t kQmiIndication = 0x04;

// Header of a QMI service message (the payload of a Qmi packet).
struct QmiHeader {
    uint8_t flags = 0;
    uint16_t txn = 0;
    uint16_t msg_id = 0;
    uint16_t tlv_len = 0;
};

void encode_header(const Header &h, uint8_t out[kHeaderSize]);

// Parses a header; nullopt on a wrong version, unknown kind or a length above
// kMaxPayload.
std::optional<Header> decode_header(const uint8_t in[kHeaderSize]);

// A whole packet (header + payload) as bytes; hdr.length is taken from payload.
std::vector<uint8_t> encode_packet(Header h, const std::vector<uint8_t> &payload);

// QMI service message = 7-byte header + TLVs.
std::vector<uint8_t> encode_qmi(const QmiHeader &h, const uint8_t *tlvs, size_t tlv_len);
// Parses the 7-byte header; nullopt when the payload is shorter than 7 bytes
// or its TLV length does not equal the bytes that follow.
std::optional<QmiHeader> decode_qmi(const uint8_t *payload, size_t len);

// Where the simulated handset listens: $KVN_SIM_SOCKET, else
// $XDG_RUNTIME_DIR/kvn-sim.sock, else kvn-sim.sock in private_socket_dir().
std::string default_socket_path();

// The private directory of the default socket when there is no
// $XDG_RUNTIME_DIR: /run/kvn-sim for root, /tmp/kvn-sim-<uid> for others.
// The daemon creates it owner-only and refuses one that is not.
std::string private_socket_dir();

// Connects a stream socket to path; -1 when nothing listens there or the
// listener is neither root nor this process's user (SO_PEERCRED), which
// could be someone else impersonating the handset. The descriptor is
// close-on-exec.
int connect_unix(const std::string &path);
// The same; on -1, *why (when not null) is a one-line reason ("nothing
// listens at P", "P belongs to uid N, not root or you", ...).
int connect_unix(const std::string &path, std::string *why);

// Writes all of buf (retrying short writes and EINTR, no SIGPIPE). False on
// error.
bool write_all(int fd, const void *buf, size_t len);
bool write_packet(int fd, const Header &h, const std::vector<uint8_t> &payload);

// Reads exactly len bytes, waiting at most timeout_ms in total (-1: no limit).
// Returns len, 0 on orderly close before any byte, -1 on error, timeout or a
// close in the middle.
long read_exact(int fd, void *buf, size_t len, int timeout_ms);

// Reads one whole packet; nullopt on close, timeout, error or a bad header.
std::optional<Packet> read_packet(int fd, int timeout_ms);

// One request/reply exchange on a fresh connection to the handset at path:
// nullopt when nothing listens or no well-formed reply comes in timeout_ms.
std::optional<Packet> exchange(const std::string &path, const Header &h,
                               const std::vector<uint8_t> &payload, int timeout_ms);

// The monotonic clock, read by a plain system call for a process's first
// reads. Clients of the handset mostly run for milliseconds and read the clock
// a few times; the vDSO's faster read would first fault in two pages, each
// costing more than all those calls. Its time points are steady_clock's, so
// they serve wait_until as they are.
struct MonoClock {
    using duration = std::chrono::steady_clock::duration;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::steady_clock::time_point;
    static constexpr bool is_steady = true;
    static time_point now() noexcept;
};

// Little-endian helpers.
inline void put_u16(uint8_t *p, uint16_t v) { p[0] = uint8_t(v); p[1] = uint8_t(v >> 8); }
inline void put_u32(uint8_t *p, uint32_t v) { for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (8 * i)); }
inline uint16_t get_u16(const uint8_t *p) { return uint16_t(p[0] | (p[1] << 8)); }
inline uint32_t get_u32(const uint8_t *p)
{
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}

} // namespace kvn_wire
