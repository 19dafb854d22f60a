// records.cpp - the journal and log buffer of kvn-sim.
//
// The journal stores each request as a compact record (header fields, then
// the TLVs with long values cut) and builds its JSON line when the journal is
// read: requests come far more often than anyone reads them, and formatting
// them as they come was a tenth of kvn-sim's time per request.
#include "records.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

#include <nlohmann/json.hpp>

#include "kvn_wire.h"
#include "tlv.h"
#include "util.h"

namespace kvn_sim {

/* ---- numbered lines ---- */

uint64_t SeqRing::push(std::string entry)
{
    uint64_t seq = next_++;
    bytes_ += entry.size();
    entries_.emplace_back(seq, std::move(entry));
    while (entries_.size() > capacity_ || (bytes_ > max_bytes_ && entries_.size() > 1))
        pop_front();
    return seq;
}

void SeqRing::pop_front()
{
    bytes_ -= entries_.front().second.size();
    entries_.pop_front();
}

std::vector<std::string> SeqRing::page(uint64_t after, size_t max_bytes, uint64_t *last, bool *more) const
{
    std::vector<std::string> out;
    size_t bytes = 0;
    *last = after;
    *more = false;
    // Numbers are consecutive, so the first line wanted is found by arithmetic.
    size_t start = 0;
    if (!entries_.empty() && after >= entries_.front().first)
        start = static_cast<size_t>(std::min<uint64_t>(after - entries_.front().first + 1, entries_.size()));
    for (size_t i = start; i < entries_.size(); ++i) {
        const auto &[seq, entry] = entries_[i];
        std::string line = format_ ? format_(seq, entry) : entry;
        if (!out.empty() && bytes + line.size() > max_bytes) {
            *more = true;
            break;
        }
        bytes += line.size() + 8;
        out.push_back(std::move(line));
        *last = seq;
    }
    return out;
}

void SeqRing::clear_upto(uint64_t seq)
{
    while (!entries_.empty() && entries_.front().first <= seq)
        pop_front();
}

/* ---- journal ---- */

// A stored entry starts with its kind: kLine, a ready JSON line, or kRequest,
// then a QMI request stored as u8 Via, u32 service, u16 msg_id, u16 txn, u32 bytes of TLVs
// that follow, the TLVs (u8 type, u16 whole length, at most kTlvKeep bytes of
// value), then u32 whole length of a malformed rest and at most kTlvKeep of
// its bytes.
namespace {

constexpr char kRequest = 'Q', kLine = 'L';

void put(std::string &s, uint64_t v, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        s.push_back(static_cast<char>(v >> (8 * i)));
}

uint64_t get(const std::string &s, size_t &pos, int bytes)
{
    uint64_t v = 0;
    for (int i = 0; i < bytes && pos < s.size(); ++i)
        v |= uint64_t(static_cast<uint8_t>(s[pos++])) << (8 * i);
    return v;
}

const uint8_t *bytes_at(const std::string &s, size_t pos) { return reinterpret_cast<const uint8_t *>(s.data() + pos); }

std::string format_request(uint64_t seq, const std::string &e)
{
    if (!e.empty() && e[0] == kLine)
        return e.substr(1);
    size_t pos = 1;
    const auto via = static_cast<Via>(get(e, pos, 1));
    nlohmann::ordered_json j;
    j["seq"] = seq;
    j["service"] = get(e, pos, 4);
    j["msg_id"] = get(e, pos, 2);
    j["txn"] = get(e, pos, 2);
    j["tlvs"] = nlohmann::json::array();
    const size_t tlv_bytes = get(e, pos, 4);
    const size_t tlv_end = pos + tlv_bytes;
    while (pos < tlv_end) {
        const auto type = static_cast<uint8_t>(get(e, pos, 1));
        const size_t len = get(e, pos, 2);
        const size_t kept = std::min(len, Journal::kTlvKeep);
        nlohmann::ordered_json t = {{"type", type}, {"hex", to_hex(bytes_at(e, pos), kept)}};
        if (kept < len)
            t["len"] = len;
        j["tlvs"].push_back(std::move(t));
        pos += kept;
    }
    const size_t rest = get(e, pos, 4);
    if (rest) {
        j["malformed"] = to_hex(bytes_at(e, pos), std::min(rest, Journal::kTlvKeep));
        if (rest > Journal::kTlvKeep)
            j["malformed_len"] = rest;
    }
    j["via"] = via == Via::Qmux ? "qmux" : "socket";
    return j.dump();
}

} // namespace

Journal::Journal() : ring_(kCapacity, kMaxBytes, format_request) {}

void Journal::record(uint32_t service, uint16_t msg_id, uint16_t txn, std::span<const uint8_t> area, Via via)
{
    std::string e(1, kRequest);
    e.reserve(18 + std::min(area.size(), 4 * kTlvKeep));
    put(e, static_cast<uint8_t>(via), 1);
    put(e, service, 4);
    put(e, msg_id, 2);
    put(e, txn, 2);
    const size_t size_at = e.size();
    put(e, 0, 4);
    // Walk the TLVs as far as they are well formed; whatever follows a broken
    // one is kept as raw bytes so the journal still shows what arrived.
    size_t pos = 0;
    while (area.size() - pos >= 3) {
        const size_t len = kvn_wire::get_u16(&area[pos + 1]);
        if (area.size() - pos - 3 < len)
            break;
        e.push_back(static_cast<char>(area[pos]));
        put(e, len, 2);
        e.append(reinterpret_cast<const char *>(&area[pos + 3]), std::min(len, kTlvKeep));
        pos += 3 + len;
    }
    const size_t tlv_bytes = e.size() - size_at - 4;
    for (int i = 0; i < 4; ++i)
        e[size_at + size_t(i)] = static_cast<char>(tlv_bytes >> (8 * i));
    const size_t rest = area.size() - pos;
    put(e, rest, 4);
    e.append(reinterpret_cast<const char *>(area.data() + pos), std::min(rest, kTlvKeep));
    ring_.push(std::move(e));
}

void Journal::record_line(std::string line)
{
    line.insert(line.begin(), kLine);
    ring_.push(std::move(line));
}

/* ---- log buffer ---- */

LogBuffer::LogBuffer(std::filesystem::path file) : file_(std::move(file)) {}

LogBuffer::~LogBuffer()
{
    if (fd_ >= 0)
        close(fd_);
}

// Appends a line to the file, moving a full file aside first. A file that
// cannot be written only costs the copy on disk: the line stays in memory.
void LogBuffer::append_to_file(const std::string &line)
{
    if (fd_ >= 0 && file_size_ + line.size() > kMaxFile) {
        close(fd_);
        fd_ = -1;
        std::string old = file_.string() + ".1";
        (void)rename(file_.c_str(), old.c_str());
    }
    if (fd_ < 0) {
        fd_ = open(file_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        struct stat st{};
        if (fd_ >= 0)
            fchmod(fd_, 0600); // owner-only whatever the umask
        file_size_ = fd_ >= 0 && fstat(fd_, &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
        if (fd_ < 0)
            return;
    }
    ssize_t n = write(fd_, line.data(), line.size());
    if (n > 0)
        file_size_ += static_cast<uint64_t>(n);
}

void LogBuffer::add(int priority, std::string_view tag, std::string_view text)
{
    static const char letters[] = "??VDIWEFS";
    char letter = priority >= 0 && priority <= 8 ? letters[priority] : '?';
    timeval tv{};
    gettimeofday(&tv, nullptr);
    tm t{};
    localtime_r(&tv.tv_sec, &t);
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "%02d-%02d %02d:%02d:%02d.%03d", t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min,
                  t.tm_sec, static_cast<int>(tv.tv_usec / 1000));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.remove_suffix(1);
    std::string line = std::string(stamp) + " " + letter + " " + std::string(tag) + ": ";
    for (char c : text)
        line.push_back(c == '\n' || c == '\0' ? ' ' : c);
    line.push_back('\n');
    append_to_file(line);
    line.pop_back();
    ring_.push(std::move(line));
}

} // namespace kvn_sim
