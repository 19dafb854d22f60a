// qmux_frame.h - QMUX framing as a modem sends it: a reader that cuts whole,
// checked frames out of a byte stream, and the encoder of the frames a client
// sends. Layout (all integers little-endian):
//   u8 marker 0x01, u16 length (bytes after the marker), u8 control flags
//   (0x00 from the client, 0x80 from the modem), u8 service, u8 client id,
//   then the service data unit: CTL (service 0) u8 flags, u8 transaction,
//   u16 message, u16 TLV length; other services u8 flags, u16 transaction,
//   u16 message, u16 TLV length; then the TLVs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace kvn_qmi::qmux {

inline constexpr uint8_t kMarker = 0x01;
inline constexpr size_t kQmuxHeader = 6;    // marker, length, control flags, service, client id
inline constexpr size_t kCtlHeader = 6;     // flags, u8 transaction, message, TLV length
inline constexpr size_t kServiceHeader = 7; // flags, u16 transaction, message, TLV length
inline constexpr uint8_t kFromClient = 0x00, kFromModem = 0x80;
inline constexpr uint8_t kCtl = 0x00;
inline constexpr uint8_t kBroadcast = 0xFF; // client id of an indication for every client
// CTL flags: 0x00 request, 0x01 response, 0x02 indication. Other services:
// 0x00 request, 0x02 response, 0x04 indication.
inline constexpr uint8_t kCtlResponse = 0x01, kCtlIndication = 0x02;
inline constexpr uint8_t kResponse = 0x02, kIndication = 0x04;
// A QMUX length beyond which no frame of a modem goes: the largest message
// of any service the tool speaks (a statistics indication, some 10 KiB) with
// room to spare. Per service the client checks its own, smaller bound.
inline constexpr size_t kMaxLength = 16384;

struct Frame {
    uint8_t service = 0;
    uint8_t cid = 0;
    uint8_t flags = 0;
    uint16_t txn = 0;
    uint16_t msg_id = 0;
    std::vector<uint8_t> sdu; // the QMI header and the TLVs
};

// Cuts frames out of what a modem sends. A byte that cannot start a frame
// (not the marker, a length out of bounds, control flags or a message flag a
// modem does not send) is dropped, so the reader finds the next frame after
// noise; a whole frame that fails a check (the QMI length against the QMUX
// length, a CTL frame with a client id) is dropped whole. What it keeps never exceeds one
// frame of the largest length plus what one feed brought.
class Reader {
public:
    void feed(const uint8_t *data, size_t len);
    // The next good frame, if a whole one is there.
    std::optional<Frame> next();
    size_t buffered() const { return buf_.size() - pos_; }
    size_t dropped_bytes() const { return dropped_bytes_; }
    size_t dropped_frames() const { return dropped_frames_; }

private:
    std::vector<uint8_t> buf_;
    size_t pos_ = 0;
    size_t dropped_bytes_ = 0, dropped_frames_ = 0;
};

// A client's frame: sdu is the whole service data unit.
std::vector<uint8_t> encode(uint8_t service, uint8_t cid, const uint8_t *sdu, size_t len);
// A CTL request with the TLVs (each: type, length, value already laid out).
std::vector<uint8_t> encode_ctl(uint8_t txn, uint16_t msg_id, const std::vector<uint8_t> &tlvs);

// The value of TLV `type` in a TLV area, if the area parses and has it.
std::optional<std::vector<uint8_t>> find_tlv(const uint8_t *tlvs, size_t len, uint8_t type);
// The QMI result of a response's TLV area: true for success (TLV 0x02 with
// result 0).
bool result_ok(const uint8_t *tlvs, size_t len);

} // namespace kvn_qmi::qmux
