// replay.cpp - reading recorded requests, responses and indications, and
// answering requests from them.
#include "replay.h"

#include <optional>

#include "util.h"

namespace kvn_sim {
namespace {

using nlohmann::json;

struct Record {
    std::string dir;
    uint32_t service = 0;
    uint16_t msg_id = 0, txn = 0;
    std::vector<uint8_t> tlvs; // the TLV area as it went over the wire
};

std::optional<uint16_t> u16_of(const json &r, const char *key)
{
    auto it = r.find(key);
    if (it == r.end() || !it->is_number_unsigned() || it->get<uint64_t>() > 0xFFFF)
        return std::nullopt;
    return static_cast<uint16_t>(it->get<uint64_t>());
}

// One record, strictly: the five keys and nothing else; why on failure.
std::optional<Record> record_of(const json &r, std::string *why)
{
    static const char *const kKeys[] = {"dir", "service", "msg_id", "txn", "tlvs"};
    if (!r.is_object()) {
        *why = "is not a JSON object";
        return std::nullopt;
    }
    for (auto &[k, v] : r.items()) {
        bool known = false;
        for (const char *key : kKeys)
            known = known || k == key;
        if (!known) {
            *why = "has an unknown key \"" + k + "\"";
            return std::nullopt;
        }
    }
    Record out;
    auto dir = r.find("dir");
    auto service = u16_of(r, "service"), msg = u16_of(r, "msg_id"), txn = u16_of(r, "txn");
    auto tlvs = r.find("tlvs");
    if (dir == r.end() || !dir->is_string() ||
        (*dir != "req" && *dir != "resp" && *dir != "ind") || !service || !msg || !txn || tlvs == r.end() ||
        !tlvs->is_array()) {
        *why = "needs \"dir\" (req, resp or ind), \"service\", \"msg_id\" and \"txn\" (0 to 65535) and \"tlvs\"";
        return std::nullopt;
    }
    out.dir = dir->get<std::string>();
    out.service = *service;
    out.msg_id = *msg;
    out.txn = *txn;
    for (const auto &t : *tlvs) {
        const uint16_t type = t.is_object() && t.size() == 2 ? u16_of(t, "type").value_or(0x100) : 0x100;
        auto hex = t.is_object() ? t.find("hex") : t.end();
        auto value = hex != t.end() && hex->is_string() ? from_hex(hex->get<std::string>()) : std::nullopt;
        if (type > 0xFF || !value || out.tlvs.size() + 3 + value->size() > 0xFFFF) {
            *why = "has a TLV that is not {\"type\": 0 to 255, \"hex\": HEX} within 65535 bytes";
            return std::nullopt;
        }
        out.tlvs.push_back(static_cast<uint8_t>(type));
        out.tlvs.push_back(static_cast<uint8_t>(value->size()));
        out.tlvs.push_back(static_cast<uint8_t>(value->size() >> 8));
        out.tlvs.insert(out.tlvs.end(), value->begin(), value->end());
    }
    return out;
}

} // namespace

bool Replay::parse(const json &records, std::string *err)
{
    if (!records.is_array()) {
        *err = "must be an array of records";
        return false;
    }
    std::map<Key, Answers> requests;
    std::vector<std::pair<Key, uint16_t>> open;   // requests not answered yet, with their transactions
    ReplayAnswer *last = nullptr;                 // where indications go: the latest answer
    size_t index = 0;
    for (const auto &r : records) {
        std::string why;
        auto rec = record_of(r, &why);
        if (!rec) {
            *err = "record " + std::to_string(index) + " " + why;
            return false;
        }
        ++index;
        if (rec->dir == "req") {
            open.emplace_back(Key{rec->service, rec->msg_id, std::move(rec->tlvs)}, rec->txn);
            last = nullptr;
        } else if (rec->dir == "ind") {
            if (last)
                last->indications.push_back({rec->service, rec->msg_id, std::move(rec->tlvs)});
        } else {
            // The response goes with the latest open request of its service,
            // message and transaction.
            for (auto it = open.rbegin(); it != open.rend(); ++it) {
                if (std::get<0>(it->first) != rec->service || std::get<1>(it->first) != rec->msg_id ||
                    it->second != rec->txn)
                    continue;
                auto &list = requests[it->first].list;
                list.push_back({std::move(rec->tlvs), {}});
                last = &list.back();
                open.erase(std::next(it).base());
                break;
            }
        }
    }
    requests_ = std::move(requests);
    return true;
}

const ReplayAnswer *Replay::answer(uint32_t service, uint16_t msg_id, std::span<const uint8_t> tlvs)
{
    if (requests_.empty())
        return nullptr;
    auto it = requests_.find(Key{service, msg_id, std::vector<uint8_t>(tlvs.begin(), tlvs.end())});
    if (it == requests_.end())
        return nullptr;
    Answers &a = it->second;
    const ReplayAnswer *out = &a.list[a.next];
    a.next = (a.next + 1) % a.list.size();
    return out;
}

} // namespace kvn_sim
