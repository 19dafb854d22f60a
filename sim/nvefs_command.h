// nvefs_command.h - the modem side of extend command 2: NV item and EFS file
// operations carried in the 512-byte request payload, answered with the
// 444-byte reply record. EFS writes of several chunks run as transfers
// numbered 0..254, each owned by the connection that started it; a file
// appears only when its last chunk arrives.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "modem_store.h"
#include "util.h"

namespace kvn_sim {

class NvEfsCommand {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr size_t kReplyLen = 444;
    static constexpr size_t kMaxChunk = 424;
    static constexpr std::chrono::seconds kTransferIdle{30};
    // Open EFS write transfers one connection may hold; the 255 instances are
    // shared, so one client cannot take them all.
    static constexpr size_t kMaxTransfersPerConnection = 8;

    // Result codes of the reply record (offset 16).
    static constexpr int32_t kNotActive = 5;   // NV item never written
    static constexpr int32_t kBadRequest = -22; // malformed payload or bad path
    static constexpr int32_t kNoFile = -2;      // EFS file missing
    static constexpr int32_t kBadPosition = -29; // read past the end, write out of order
    static constexpr int32_t kBadTransfer = -9;  // unknown transfer instance or mismatch
    static constexpr int32_t kIoError = -5;      // the store could not be written
    static constexpr int32_t kBusy = -16;        // every transfer instance, or the connection's share, in use

    // log(text): a line for the handset's log when a request is refused.
    NvEfsCommand(ModemStore &store, std::function<void(const std::string &)> log);

    // Handles one request payload (the meaningful bytes of the extend data)
    // from connection `conn`; returns the reply data (always 444 bytes).
    Bytes handle(const uint8_t *payload, size_t len, uint64_t conn, Clock::time_point now = Clock::now());

    // Drops the transfers the connection left unfinished.
    void connection_closed(uint64_t conn);
    void set_read_chunk(size_t n) { read_chunk_ = n; }
    size_t read_chunk() const { return read_chunk_; }
    size_t open_transfers() const { return transfers_.size(); }

private:
    struct Transfer {
        uint64_t conn = 0;
        unsigned sub = 0;
        std::string path;
        uint32_t total = 0;
        Bytes data; // bytes received so far
        Clock::time_point last;
    };
    struct Request; // the decoded payload fields

    void nv_read(const Request &rq, Bytes &reply);
    void nv_write(const Request &rq, Bytes &reply);
    void nv_delete(const Request &rq, Bytes &reply);
    void efs_read(const Request &rq, Bytes &reply);
    void efs_write(const Request &rq, Bytes &reply, uint64_t conn, Clock::time_point now);
    void efs_delete(const Request &rq, Bytes &reply);
    int32_t refuse(const std::string &why);
    int next_instance();

    ModemStore &store_;
    std::function<void(const std::string &)> log_;
    size_t read_chunk_ = kMaxChunk;
    std::map<int, Transfer> transfers_;
    int next_id_ = 0;
};

} // namespace kvn_sim
