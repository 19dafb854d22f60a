// records.h - the bounded, numbered line buffers of kvn-sim: the request
// journal and the log buffer. Each keeps the newest `capacity` lines, numbers
// them from 1 in arrival order, and hands them out in pages so a reader can
// fetch them over size-limited control replies.
#pragma once

#include <cstdint>
#include <deque>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace kvn_sim {

class SeqRing {
public:
    explicit SeqRing(size_t capacity) : capacity_(capacity) {}
    uint64_t push(std::string line);
    // Lines numbered above `after`, oldest first, until max_bytes of text;
    // `last` gets the number of the last line returned (or `after`), `more`
    // whether lines were left out.
    std::vector<std::string> page(uint64_t after, size_t max_bytes, uint64_t *last, bool *more) const;
    void clear_upto(uint64_t seq);
    uint64_t last_seq() const { return next_ - 1; }
    size_t size() const { return lines_.size(); }
    size_t capacity() const { return capacity_; }

private:
    size_t capacity_;
    uint64_t next_ = 1;
    std::deque<std::pair<uint64_t, std::string>> lines_;
};

// Every QMI request received, as one JSON line each:
// {"seq":n,"service":n,"msg_id":n,"txn":n,"tlvs":[{"type":n,"hex":"..."}]}.
// Keeps the last 10000 requests.
class Journal {
public:
    static constexpr size_t kCapacity = 10000;
    void record(uint32_t service, uint16_t msg_id, uint16_t txn, std::span<const uint8_t> tlv_area);
    SeqRing &ring() { return ring_; }

private:
    SeqRing ring_{kCapacity};
};

// The handset's log buffer: lines "MM-DD HH:MM:SS.mmm P tag: text", the
// newest 5000 kept in memory, every line also appended to a file.
class LogBuffer {
public:
    static constexpr size_t kCapacity = 5000;
    explicit LogBuffer(std::filesystem::path file) : file_(std::move(file)) {}
    // priority: android_LogPriority (2 verbose ... 7 fatal).
    void add(int priority, std::string_view tag, std::string_view text);
    SeqRing &ring() { return ring_; }

private:
    std::filesystem::path file_;
    SeqRing ring_{kCapacity};
};

} // namespace kvn_sim
