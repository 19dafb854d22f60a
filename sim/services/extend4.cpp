// extend4.cpp - dispatch of extend command 4 by request type, and of the
// common message (request type 2) by message type.
#include "extend4.h"

#include "kvn_wire.h"

namespace kvn_sim {

namespace {

void put_u32(Bytes &b, uint32_t v)
{
    uint8_t w[4];
    kvn_wire::put_u32(w, v);
    b.insert(b.end(), w, w + 4);
}

} // namespace

ExtendReply Extend4Table::dispatch(const uint8_t *payload, size_t len, uint64_t conn) const
{
    if (!payload || len < 4)
        return {kRefused, {}};
    uint32_t type = kvn_wire::get_u32(payload);
    if (type == kCommonMessage && !requests_.count(kCommonMessage))
        return common_message(payload, len, conn);
    auto it = requests_.find(type);
    if (it == requests_.end())
        return {kRefused, {}};
    return it->second(payload, len, conn);
}

// Reply data of the common message: u32 2, u32 result, u32 T, u32 A, A bytes.
ExtendReply Extend4Table::common_message(const uint8_t *payload, size_t len, uint64_t conn) const
{
    uint32_t msg_type = len >= 12 ? kvn_wire::get_u32(payload + 8) : 0;
    uint32_t value_len = len >= 16 ? kvn_wire::get_u32(payload + 12) : 0;
    CommonAnswer a{kRefused, {}};
    auto it = messages_.find(msg_type);
    if (len >= 16 && value_len <= len - 16 && it != messages_.end())
        a = it->second(payload + 16, value_len, conn);
    if (a.answer.size() > 512 - 16)
        a.answer.resize(512 - 16);
    ExtendReply r;
    put_u32(r.data, kCommonMessage);
    put_u32(r.data, a.result);
    put_u32(r.data, msg_type);
    put_u32(r.data, static_cast<uint32_t>(a.answer.size()));
    r.data.insert(r.data.end(), a.answer.begin(), a.answer.end());
    return r;
}

} // namespace kvn_sim
