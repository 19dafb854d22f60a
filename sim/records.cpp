// records.cpp - the journal and log buffer of kvn-sim.
#include "records.h"

#include <sys/time.h>

#include <cstdio>
#include <ctime>
#include <fstream>

#include <nlohmann/json.hpp>

#include "tlv.h"
#include "util.h"

namespace kvn_sim {

uint64_t SeqRing::push(std::string line)
{
    uint64_t seq = next_++;
    lines_.emplace_back(seq, std::move(line));
    while (lines_.size() > capacity_)
        lines_.pop_front();
    return seq;
}

std::vector<std::string> SeqRing::page(uint64_t after, size_t max_bytes, uint64_t *last, bool *more) const
{
    std::vector<std::string> out;
    size_t bytes = 0;
    *last = after;
    *more = false;
    for (const auto &[seq, line] : lines_) {
        if (seq <= after)
            continue;
        if (!out.empty() && bytes + line.size() > max_bytes) {
            *more = true;
            break;
        }
        bytes += line.size() + 8;
        out.push_back(line);
        *last = seq;
    }
    return out;
}

void SeqRing::clear_upto(uint64_t seq)
{
    while (!lines_.empty() && lines_.front().first <= seq)
        lines_.pop_front();
}

void Journal::record(uint32_t service, uint16_t msg_id, uint16_t txn, std::span<const uint8_t> area)
{
    nlohmann::ordered_json j;
    j["seq"] = ring_.last_seq() + 1;
    j["service"] = service;
    j["msg_id"] = msg_id;
    j["txn"] = txn;
    j["tlvs"] = nlohmann::json::array();
    // Walk the TLVs as far as they are well formed; whatever follows a broken
    // one is kept as raw bytes so the journal still shows what arrived.
    size_t pos = 0;
    while (area.size() - pos >= 3) {
        size_t len = static_cast<size_t>(area[pos + 1]) | static_cast<size_t>(area[pos + 2]) << 8;
        if (area.size() - pos - 3 < len)
            break;
        j["tlvs"].push_back({{"type", area[pos]}, {"hex", to_hex(&area[pos + 3], len)}});
        pos += 3 + len;
    }
    if (pos < area.size())
        j["malformed"] = to_hex(&area[pos], area.size() - pos);
    ring_.push(j.dump());
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
    std::ofstream(file_, std::ios::app) << line << '\n';
    ring_.push(std::move(line));
}

} // namespace kvn_sim
