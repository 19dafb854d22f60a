// records.h - the bounded, numbered line buffers of kvn-sim: the request
// journal and the log buffer. Each keeps the newest lines within a count and a
// byte budget, numbers them from 1 in arrival order, and hands them out in
// pages so a reader can fetch them over size-limited control replies. The
// journal keeps requests as received and turns them into JSON only when read.
#pragma once

#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace kvn_sim {

class SeqRing {
public:
    // How a stored entry reads as a line; none: the entry is the line.
    using Format = std::function<std::string(uint64_t seq, const std::string &entry)>;

    SeqRing(size_t capacity, size_t max_bytes, Format format = {})
        : capacity_(capacity), max_bytes_(max_bytes), format_(std::move(format))
    {
    }
    uint64_t push(std::string entry);
    // Lines numbered above `after`, oldest first, until max_bytes of text;
    // `last` gets the number of the last line returned (or `after`), `more`
    // whether lines were left out.
    std::vector<std::string> page(uint64_t after, size_t max_bytes, uint64_t *last, bool *more) const;
    void clear_upto(uint64_t seq);
    uint64_t last_seq() const { return next_ - 1; }
    size_t size() const { return entries_.size(); }
    size_t bytes() const { return bytes_; }
    size_t capacity() const { return capacity_; }

private:
    void pop_front();

    size_t capacity_;  // entries kept at most
    size_t max_bytes_; // entry bytes kept at most (the newest entry always stays)
    Format format_;
    uint64_t next_ = 1;
    size_t bytes_ = 0; // sum of the kept entries' sizes
    std::deque<std::pair<uint64_t, std::string>> entries_;
};

// Which way a QMI request came: kvn-sim's socket or the QMUX terminal.
enum class Via : uint8_t { Socket, Qmux };

// Every QMI request received, read as one JSON line each:
// {"seq":n,"service":n,"msg_id":n,"txn":n,"tlvs":[{"type":n,"hex":"..."}],"via":"socket"|"qmux"}.
// A TLV value longer than kTlvKeep bytes keeps its first kTlvKeep bytes and
// adds "len" (its whole length); so does a malformed rest ("malformed_len").
// Keeps the last kCapacity requests within kMaxBytes of stored requests.
class Journal {
public:
    static constexpr size_t kCapacity = 10000;
    static constexpr size_t kMaxBytes = 8u << 20;
    static constexpr size_t kTlvKeep = 1024;
    Journal();
    void record(uint32_t service, uint16_t msg_id, uint16_t txn, std::span<const uint8_t> tlv_area, Via via);
    // A request of another channel (AT, diag), already a JSON line carrying
    // its "seq" (ring().last_seq() + 1).
    void record_line(std::string line);
    SeqRing &ring() { return ring_; }

private:
    SeqRing ring_;
};

// The handset's log buffer: lines "MM-DD HH:MM:SS.mmm P tag: text", the
// newest 5000 kept in memory, every line also appended to a file, which is
// renamed to <file>.1 (replacing the one before) once it passes kMaxFile.
class LogBuffer {
public:
    static constexpr size_t kCapacity = 5000;
    static constexpr size_t kMaxLineBytes = 4096;
    static constexpr uint64_t kMaxFile = 8u << 20;
    explicit LogBuffer(std::filesystem::path file);
    ~LogBuffer();
    LogBuffer(const LogBuffer &) = delete;
    LogBuffer &operator=(const LogBuffer &) = delete;
    // priority: android_LogPriority (2 verbose ... 7 fatal).
    void add(int priority, std::string_view tag, std::string_view text);
    SeqRing &ring() { return ring_; }

private:
    void append_to_file(const std::string &line);

    std::filesystem::path file_;
    int fd_ = -1;            // file_ opened for appending; -1 until the first line
    uint64_t file_size_ = 0; // bytes in file_
    SeqRing ring_{kCapacity, kCapacity * kMaxLineBytes};
};

} // namespace kvn_sim
