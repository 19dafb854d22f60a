// replay.h - a recorded modem played back: the requests a QMI client sent,
// each with the response it got and the indications that came after it
// (JSON records {"dir":"req"|"resp"|"ind","service","msg_id","txn","tlvs"}).
// A request matching a recorded one (service, message and TLVs, byte for
// byte) gets the recorded answer instead of the handset's own.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

namespace kvn_sim {

struct ReplayIndication {
    uint32_t service = 0;
    uint16_t msg_id = 0;
    std::vector<uint8_t> tlvs;
};

struct ReplayAnswer {
    std::vector<uint8_t> response; // TLV area; the transaction is the request's
    std::vector<ReplayIndication> indications;
};

class Replay {
public:
    // Reads a list of records; false with *err naming the first bad one. A
    // request whose response was never recorded is left out.
    bool parse(const nlohmann::json &records, std::string *err);
    // The recorded answer to a request; nullptr when none was recorded. A
    // request recorded several times gets its answers in turn, starting
    // over after the last, so a replayed run can be played again.
    const ReplayAnswer *answer(uint32_t service, uint16_t msg_id, std::span<const uint8_t> tlvs);
    size_t size() const { return requests_.size(); }

private:
    using Key = std::tuple<uint32_t, uint16_t, std::vector<uint8_t>>;
    struct Answers {
        std::vector<ReplayAnswer> list;
        size_t next = 0;
    };
    std::map<Key, Answers> requests_;
};

} // namespace kvn_sim
