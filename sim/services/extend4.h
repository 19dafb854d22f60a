// extend4.h - extend command 4, the modem-side handler of the tool's typed
// requests. Its payload starts with a u32 request type; request type 2 (the
// common message) carries a u32 message type at offset 8, a u32 value length
// at offset 12 and the value from offset 16. Each feature of the handset
// registers its request types or message types here from its own file, so
// command 4 grows by rows, not by editing one switch.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>

#include "util.h"

namespace kvn_sim {

// What an extend command answers: TLV 0x01 (the extend result, 0 success)
// and the reply data (at most 512 bytes).
struct ExtendReply {
    uint32_t result = 0;
    Bytes data;
};

// The answer of one common-message type: the result word of the reply data
// (0 done, 1 refused) and the answer bytes that follow the header.
struct CommonAnswer {
    uint32_t result = 0;
    Bytes answer;
};

class Extend4Table {
public:
    // A whole request type: sees the full payload (len bytes, at most 512).
    using RequestHandler = std::function<ExtendReply(const uint8_t *payload, size_t len, uint64_t conn)>;
    // One common-message type: sees the value (value_len bytes; the declared
    // length, already checked to lie inside the payload).
    using MessageHandler = std::function<CommonAnswer(const uint8_t *value, size_t value_len, uint64_t conn)>;

    static constexpr uint32_t kCommonMessage = 2;
    static constexpr uint32_t kRefused = 1;

    void add_request(uint32_t request_type, RequestHandler h) { requests_[request_type] = std::move(h); }
    void add_message(uint32_t msg_type, MessageHandler h) { messages_[msg_type] = std::move(h); }

    // Runs command 4 on a payload. A request type without a row is refused
    // with extend result 1; a common message with an unknown type, or whose
    // value length runs past the payload, is answered with reply data
    // {2, 1 (refused), T, 0}.
    ExtendReply dispatch(const uint8_t *payload, size_t len, uint64_t conn) const;

private:
    ExtendReply common_message(const uint8_t *payload, size_t len, uint64_t conn) const;

    std::map<uint32_t, RequestHandler> requests_;
    std::map<uint32_t, MessageHandler> messages_;
};

} // namespace kvn_sim
