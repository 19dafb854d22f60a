// faults.h - deliberate misbehaviour of the simulated modem: for a service and
// message id, the next N requests get no reply, a late reply, a QMI error, a
// closed connection, or a reply cut inside a TLV.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kvn_sim {

enum class FaultKind { NoReply, Delay, QmiError, Drop, Truncate };

// Cuts a response's TLV area inside its last TLV, so the message frame stays
// consistent but a TLV claims more bytes than follow (the Truncate fault).
std::vector<uint8_t> truncate_inside_tlv(const std::vector<uint8_t> &area);

struct Fault {
    uint32_t service = 0;
    uint16_t msg_id = 0;
    FaultKind kind = FaultKind::NoReply;
    uint32_t value = 0; // delay in ms, or the QMI error number
    uint32_t count = 1; // requests it still applies to
    uint32_t after = 0; // matching requests still to serve normally before it applies
};

// Parses "no-reply", "delay=MS", "qmi-error=N", "drop", "truncate".
std::optional<Fault> parse_fault_kind(const std::string &text);
std::string fault_kind_text(const Fault &f);

class Faults {
public:
    // The most faults held at once; adding past it is refused by the callers.
    static constexpr size_t kMaxFaults = 10000;

    void add(const Fault &f) { faults_.push_back(f); }
    void clear() { std::vector<Fault>().swap(faults_); } // the memory too, not only the entries
    // The fault that applies to this request, counting it used; nullopt when
    // none. A matching request first counts down the `after` of every fault
    // still waiting; the first fault of the message not waiting applies.
    std::optional<Fault> take(uint32_t service, uint16_t msg_id);
    const std::vector<Fault> &all() const { return faults_; }

private:
    std::vector<Fault> faults_;
};

} // namespace kvn_sim
