// extend_service.cpp - the vendor "extend" service 0xFFE4 of the simulated
// modem. Message 0x0002 carries a request record (TLV 0x01 u32 command id,
// TLV 0x02 u32 data length, optional TLV 0x10 of exactly 512 data bytes) and
// answers with the same record, TLV 0x01 then being the result (0 success).
// Commands are dispatched by id from a table (command 4 further by request
// type, see extend4.h); the scenario can pin a canned
// reply per command id, and unknown commands are refused with result 1.
#include <functional>
#include <map>

#include "extend4.h"
#include "kvn_wire.h"
#include "services.h"
#include "tlv.h"

namespace kvn_sim {
namespace {

constexpr uint16_t kMsgExtend = 0x0002;
constexpr size_t kDataSize = 512;
constexpr uint32_t kResultRefused = 1;   // unknown command id
constexpr uint32_t kResultMalformed = 2; // the request record does not parse

// The response record: always TLV 0x10 with all 512 bytes, data_len saying
// how many of them mean something.
std::vector<uint8_t> encode_record(uint32_t result, const Bytes &data)
{
    uint8_t block[kDataSize] = {};
    size_t n = std::min(data.size(), kDataSize);
    std::copy(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(n), block);
    TlvWriter w;
    w.add_u32(0x01, result);
    w.add_u32(0x02, static_cast<uint32_t>(n));
    w.add(0x10, block, kDataSize);
    return w.take();
}

class ExtendService : public Service {
public:
    using Command = std::function<ExtendReply(const uint8_t *data, size_t len, uint64_t conn)>;

    explicit ExtendService(Handset &h) : h_(h)
    {
        commands_[2] = [this](const uint8_t *d, size_t n, uint64_t conn) {
            return ExtendReply{0, h_.nvefs.handle(d, n, conn)};
        };
        commands_[4] = [this](const uint8_t *d, size_t n, uint64_t conn) { return h_.extend4.dispatch(d, n, conn); };
    }

    std::vector<uint8_t> handle(const QmiRequest &rq) override
    {
        if (rq.msg_id != kMsgExtend)
            return Service::error_reply(rq.msg_id, kQmiErrInvalidQmiCommand);
        auto tlvs = parse_tlvs(rq.tlvs);
        if (!tlvs)
            return malformed("TLVs run past the end of the message");
        const Tlv *cmd = find_tlv(*tlvs, 0x01);
        const Tlv *len = find_tlv(*tlvs, 0x02);
        const Tlv *data = find_tlv(*tlvs, 0x10);
        if (!cmd || cmd->value.size() != 4 || !len || len->value.size() != 4)
            return malformed("TLV 0x01 or 0x02 missing or not 4 bytes");
        if (data && data->value.size() != kDataSize)
            return malformed("TLV 0x10 of " + std::to_string(data->value.size()) + " bytes");
        uint32_t cmd_id = kvn_wire::get_u32(cmd->value.data());
        uint32_t data_len = kvn_wire::get_u32(len->value.data());
        if (data_len > (data ? kDataSize : 0))
            return malformed("data_len " + std::to_string(data_len) + " beyond the data carried");

        if (auto c = h_.extend_replies.find(cmd_id); c != h_.extend_replies.end())
            return encode_record(c->second.result, c->second.data);
        auto it = commands_.find(cmd_id);
        if (it == commands_.end()) {
            h_.note(kLogWarn, "extend: command " + std::to_string(cmd_id) + " not supported");
            return encode_record(kResultRefused, {});
        }
        ExtendReply r = it->second(data ? data->value.data() : nullptr, data_len, rq.conn);
        return encode_record(r.result, r.data);
    }

    // The extend record has no standard result TLV: its TLV 0x01 is the
    // result, so a QMI error is sent as that result, with no data.
    std::vector<uint8_t> error_reply(uint16_t msg_id, uint16_t error) override
    {
        if (msg_id != kMsgExtend)
            return Service::error_reply(msg_id, error);
        TlvWriter w;
        w.add_u32(0x01, error);
        w.add_u32(0x02, 0);
        return w.take();
    }

    void connection_closed(uint64_t conn) override { h_.nvefs.connection_closed(conn); }

private:
    std::vector<uint8_t> malformed(const std::string &why)
    {
        h_.note(kLogWarn, "extend: malformed request: " + why);
        return encode_record(kResultMalformed, {});
    }

    Handset &h_;
    std::map<uint32_t, Command> commands_;
};

} // namespace

void register_extend_service(Handset &h) { h.services.add("extend", kServiceExtend, std::make_unique<ExtendService>(h)); }

} // namespace kvn_sim
