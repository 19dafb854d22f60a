// diag_responder.cpp - the diag side of the simulated modem. Built-in
// answers: 0x00 (version information) and 0x7C (extended build id) answer with
// the handset's values, 0x4B (subsystem dispatch) by the subsystem id in byte
// 1, and any other code with 0x13 ("bad command") followed by the request, as
// a modem answers a command it does not know.
#include <algorithm>
#include <string>

#include <nlohmann/json.hpp>

#include "devices.h"
#include "kvn_wire.h"

namespace kvn_sim {
namespace {

constexpr uint8_t kCmdVersion = 0x00;
constexpr uint8_t kCmdExtBuildId = 0x7C;
constexpr uint8_t kCmdSubsystem = 0x4B;
constexpr uint8_t kCmdBadCommand = 0x13;
constexpr uint16_t kStatusUp = 0, kStatusDown = 1, kStatusRefused = 2;

void append_u32(std::string &b, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        b.push_back(static_cast<char>(v >> (8 * i)));
}

Bytes bytes_of(const std::string &s) { return Bytes(s.begin(), s.end()); }

// Version information: compile date and time, release date and time (11 and
// 8 characters each), an 8-character version directory, then station class,
// CAI revision, model, firmware revision (u16), slot cycle index, hardware
// major and minor version.
Bytes version_answer()
{
    std::string b(1, static_cast<char>(kCmdVersion));
    b += "Nov 23 2026" "10:00:00" "Nov 23 2026" "10:00:00" "kvnsim01";
    b += std::string("\x02\x06\xFE\x01\x00\x00\x01\x00", 8);
    return bytes_of(b);
}

// Extended build id: code, version, two reserved bytes, the chip's hardware
// version and the model id (u32 each), then the build id and the model name,
// each ended by a zero byte.
Bytes ext_build_id_answer()
{
    std::string b(1, static_cast<char>(kCmdExtBuildId));
    b += std::string("\x02\x00\x00", 3);
    append_u32(b, 0x000E10E1);
    append_u32(b, 0x0000F00D);
    b += std::string("KVN-SIM.MPSS.1.0", 17); // with its zero byte
    b += std::string("kvn-sim", 8);
    return bytes_of(b);
}

Bytes bad_command(const Bytes &rq)
{
    std::string b(1, static_cast<char>(kCmdBadCommand));
    b.append(rq.begin(), rq.end());
    return bytes_of(b);
}

// Subsystems the modem answers: the request's 4-byte header (code, subsystem,
// u16 subsystem command) comes back followed by a u32 status 0.
constexpr uint8_t kSubsystems[] = {
    0x12, // diag service
    0x13, // file system
};

Bytes subsystem_answer(const Bytes &rq)
{
    if (rq.size() < 4 || std::find(std::begin(kSubsystems), std::end(kSubsystems), rq[1]) == std::end(kSubsystems))
        return bad_command(rq);
    std::string b(rq.begin(), rq.begin() + 4);
    append_u32(b, 0);
    return bytes_of(b);
}

} // namespace

Bytes diag_builtin_answer(const Bytes &rq)
{
    if (rq.empty())
        return bad_command(rq);
    switch (rq[0]) {
    case kCmdVersion: return version_answer();
    case kCmdExtBuildId: return ext_build_id_answer();
    case kCmdSubsystem: return subsystem_answer(rq);
    default: return bad_command(rq); // a byte, not one of the project's enums
    }
}

DiagResponder::DiagResponder(Handset &h, Router &r) : h_(h), r_(r)
{
    h_.devices["diag"] = this;
    r_.set_diag([this](const uint8_t *p, size_t len, Router::Answer answer) { handle(p, len, answer); });
}

DiagResponder::~DiagResponder()
{
    r_.set_diag(nullptr);
    h_.devices.erase("diag");
}

void DiagResponder::set_up(bool up)
{
    if (up == up_)
        return;
    up_ = up;
    h_.note(kLogInfo, std::string("service diag ") + (up ? "up" : "down"));
}

void DiagResponder::handle(const uint8_t *p, size_t len, const Router::Answer &answer)
{
    if (len < 3 || len - 2 > kMaxRequest || p[0] > 1) {
        h_.note(kLogWarn, "diag: malformed request of " + std::to_string(len) + " bytes refused");
        answer(kStatusRefused, {});
        return;
    }
    Bytes rq(p + 2, p + len);
    nlohmann::ordered_json j;
    j["seq"] = h_.journal.ring().last_seq() + 1;
    j["diag"] = to_hex(rq);
    j["mode"] = p[0] == 0 ? "callback" : "dci";
    h_.journal.record_line(j.dump());
    if (!up_) {
        answer(kStatusDown, {});
        return;
    }
    auto fault = h_.faults.take(kServiceDiag, rq[0]);
    if (fault && fault->kind == FaultKind::NoReply)
        return;
    auto canned = h_.diag_replies.find(rq);
    Bytes reply = canned != h_.diag_replies.end() ? canned->second : diag_builtin_answer(rq);
    if (fault && fault->kind == FaultKind::Delay) {
        r_.timers().add(std::chrono::milliseconds(fault->value), [answer, reply] { answer(kStatusUp, reply); });
        return;
    }
    answer(kStatusUp, reply);
}

} // namespace kvn_sim
