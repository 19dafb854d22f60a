// nvefs_command.cpp - NV and EFS operations of extend command 2.
//
// Request payload: 0 operation (1..6), 1 sub, 2 u16 NV id or transfer
// instance, 4 path length, 5 path (<= 71 bytes), 76 u32 total length,
// 80 u32 chunk length, 84 u32 position, 88 data (<= 424 bytes).
// Reply: 4 u32 data_len_all, 8 u32 data_len_send, 16 i32 result, 20 data.
#include "nvefs_command.h"

#include "kvn_wire.h"

namespace kvn_sim {

using kvn_wire::get_u16;
using kvn_wire::get_u32;
using kvn_wire::put_u32;

namespace {
constexpr size_t kPayloadLen = 512;
constexpr size_t kDataOffset = 88;
constexpr size_t kReplyData = 20;

enum Op : uint8_t { NvRead = 1, NvWrite = 2, NvDelete = 3, EfsRead = 4, EfsWrite = 5, EfsDelete = 6 };

void set_result(Bytes &r, int32_t v) { put_u32(&r[16], static_cast<uint32_t>(v)); }
} // namespace

struct NvEfsCommand::Request {
    uint8_t op = 0;
    unsigned sub = 0;
    uint16_t id = 0; // NV id or transfer instance
    std::string path;
    uint32_t total = 0, chunk = 0, position = 0;
    const uint8_t *data = nullptr; // kMaxChunk bytes available
};

NvEfsCommand::NvEfsCommand(ModemStore &store, std::function<void(const std::string &)> log)
    : store_(store), log_(std::move(log))
{
}

int32_t NvEfsCommand::refuse(const std::string &why)
{
    log_("command 2 refused: " + why);
    return kBadRequest;
}

Bytes NvEfsCommand::handle(const uint8_t *payload, size_t len, uint64_t conn, Clock::time_point now)
{
    Bytes reply(kReplyLen, 0);
    // Transfers idle for too long are abandoned.
    for (auto it = transfers_.begin(); it != transfers_.end();)
        it = now - it->second.last > kTransferIdle ? transfers_.erase(it) : std::next(it);

    if (len < kPayloadLen) {
        set_result(reply, refuse("payload of " + std::to_string(len) + " bytes, 512 expected"));
        return reply;
    }
    Request rq;
    rq.op = payload[0];
    rq.sub = payload[1];
    rq.id = get_u16(payload + 2);
    size_t path_len = payload[4];
    rq.total = get_u32(payload + 76);
    rq.chunk = get_u32(payload + 80);
    rq.position = get_u32(payload + 84);
    rq.data = payload + kDataOffset;
    if (rq.sub >= ModemStore::kSubs) {
        set_result(reply, refuse("subscription " + std::to_string(rq.sub)));
        return reply;
    }
    if (rq.op >= EfsRead && rq.op <= EfsDelete) {
        if (path_len == 0 || path_len > ModemStore::kMaxEfsPath) {
            set_result(reply, refuse("path length " + std::to_string(path_len)));
            return reply;
        }
        rq.path.assign(reinterpret_cast<const char *>(payload + 5), path_len);
        std::string why;
        if (!ModemStore::efs_path_ok(rq.path, &why)) {
            set_result(reply, refuse(why));
            return reply;
        }
    }
    switch (rq.op) {
    case NvRead: nv_read(rq, reply); break;
    case NvWrite: nv_write(rq, reply); break;
    case NvDelete: nv_delete(rq, reply); break;
    case EfsRead: efs_read(rq, reply); break;
    case EfsWrite: efs_write(rq, reply, conn, now); break;
    case EfsDelete: efs_delete(rq, reply); break;
    default: set_result(reply, refuse("operation " + std::to_string(rq.op))); break;
    }
    return reply;
}

void NvEfsCommand::nv_read(const Request &rq, Bytes &reply)
{
    auto item = store_.nv_get(rq.sub, rq.id);
    if (!item) {
        set_result(reply, kNotActive);
        return;
    }
    put_u32(&reply[4], static_cast<uint32_t>(item->size()));
    put_u32(&reply[8], static_cast<uint32_t>(item->size()));
    std::copy(item->begin(), item->end(), reply.begin() + kReplyData);
}

void NvEfsCommand::nv_write(const Request &rq, Bytes &reply)
{
    if (rq.total == 0 || rq.total > kMaxChunk) {
        set_result(reply, refuse("NV write of " + std::to_string(rq.total) + " bytes"));
        return;
    }
    std::string err;
    if (!store_.nv_set(rq.sub, rq.id, Bytes(rq.data, rq.data + rq.total), &err)) {
        log_("NV write failed: " + err);
        set_result(reply, kIoError);
    }
}

void NvEfsCommand::nv_delete(const Request &rq, Bytes &reply)
{
    if (!store_.nv_rm(rq.sub, rq.id))
        set_result(reply, kNotActive);
}

void NvEfsCommand::efs_read(const Request &rq, Bytes &reply)
{
    uint64_t size = 0;
    auto chunk = store_.efs_read(rq.sub, rq.path, rq.position, read_chunk_, &size);
    if (!chunk) {
        set_result(reply, kNoFile);
        return;
    }
    if (rq.position > size) {
        log_("EFS read of " + rq.path + " at " + std::to_string(rq.position) + " past its end");
        set_result(reply, kBadPosition);
        return;
    }
    put_u32(&reply[4], static_cast<uint32_t>(size));
    put_u32(&reply[8], static_cast<uint32_t>(chunk->size()));
    std::copy(chunk->begin(), chunk->end(), reply.begin() + kReplyData);
}

int NvEfsCommand::next_instance()
{
    for (int i = 0; i < 255; ++i) {
        int id = (next_id_ + i) % 255;
        if (!transfers_.count(id)) {
            next_id_ = (id + 1) % 255;
            return id;
        }
    }
    return -1;
}

void NvEfsCommand::efs_write(const Request &rq, Bytes &reply, uint64_t conn, Clock::time_point now)
{
    // The modem has no empty EFS write: a file of 0 bytes is refused like kvn refuses it.
    if (rq.chunk > kMaxChunk || rq.total == 0 || rq.total > ModemStore::kMaxEfsFile || rq.chunk > rq.total) {
        // Another connection's transfer is never touched by a bad chunk naming it.
        if (auto it = transfers_.find(rq.id); it != transfers_.end() && it->second.conn == conn)
            transfers_.erase(it);
        set_result(reply, refuse("EFS write chunk " + std::to_string(rq.chunk) + " of " + std::to_string(rq.total)));
        return;
    }
    int instance;
    if (rq.id == 255) {
        if (rq.position != 0) {
            set_result(reply, refuse("first EFS write chunk at position " + std::to_string(rq.position)));
            return;
        }
        // A new transfer of the same file by the same client abandons the old one.
        for (auto it = transfers_.begin(); it != transfers_.end();)
            it = it->second.conn == conn && it->second.path == rq.path && it->second.sub == rq.sub
                     ? transfers_.erase(it)
                     : std::next(it);
        size_t mine = 0;
        for (const auto &[id, t] : transfers_)
            mine += t.conn == conn;
        if (mine >= kMaxTransfersPerConnection) {
            log_("EFS write: connection already has " + std::to_string(mine) + " open transfers");
            set_result(reply, kBusy);
            return;
        }
        instance = next_instance();
        if (instance < 0) {
            set_result(reply, kBusy);
            return;
        }
        transfers_[instance] = Transfer{conn, rq.sub, rq.path, rq.total, {}, now};
    } else {
        instance = rq.id;
        auto it = transfers_.find(instance);
        if (it == transfers_.end()) {
            log_("EFS write with unknown transfer " + std::to_string(instance));
            set_result(reply, kBadTransfer);
            return;
        }
        const Transfer &t = it->second;
        if (t.conn != conn) {
            log_("EFS write: transfer " + std::to_string(instance) + " belongs to another connection");
            set_result(reply, kBadTransfer);
            return;
        }
        if (t.sub != rq.sub || t.path != rq.path || t.total != rq.total) {
            log_("EFS write: transfer " + std::to_string(instance) + " does not match its first chunk");
            transfers_.erase(it);
            set_result(reply, kBadTransfer);
            return;
        }
        if (rq.position != t.data.size()) {
            log_("EFS write: transfer " + std::to_string(instance) + " expected position " +
                 std::to_string(t.data.size()) + ", got " + std::to_string(rq.position));
            transfers_.erase(it);
            set_result(reply, kBadPosition);
            return;
        }
    }
    Transfer &t = transfers_[instance];
    if (t.data.size() + rq.chunk > t.total) {
        transfers_.erase(instance);
        set_result(reply, refuse("EFS write runs past its total length"));
        return;
    }
    t.data.insert(t.data.end(), rq.data, rq.data + rq.chunk);
    t.last = now;
    if (t.data.size() == t.total) {
        std::string err;
        bool ok = store_.efs_put(t.sub, t.path, t.data, &err);
        transfers_.erase(instance);
        if (!ok) {
            log_("EFS write of " + rq.path + " failed: " + err);
            set_result(reply, kIoError);
            return;
        }
    } else if (rq.chunk == 0) {
        // A chunk that carries nothing cannot make progress.
        transfers_.erase(instance);
        set_result(reply, refuse("empty EFS write chunk"));
        return;
    }
    set_result(reply, instance);
}

void NvEfsCommand::efs_delete(const Request &rq, Bytes &reply)
{
    if (!store_.efs_rm(rq.sub, rq.path))
        set_result(reply, kNoFile);
}

void NvEfsCommand::connection_closed(uint64_t conn)
{
    for (auto it = transfers_.begin(); it != transfers_.end();)
        it = it->second.conn == conn ? transfers_.erase(it) : std::next(it);
}

} // namespace kvn_sim
