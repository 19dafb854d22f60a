// faults.cpp - the fault table of kvn-sim.
#include "faults.h"

#include "util.h"

namespace kvn_sim {

std::optional<Fault> parse_fault_kind(const std::string &text)
{
    Fault f;
    auto valued = [&](const char *prefix, FaultKind k, uint64_t max) -> bool {
        std::string p(prefix);
        if (text.rfind(p, 0) != 0)
            return false;
        auto v = parse_number(text.substr(p.size()), max);
        if (!v)
            return false;
        f.kind = k;
        f.value = static_cast<uint32_t>(*v);
        return true;
    };
    if (text == "no-reply")
        f.kind = FaultKind::NoReply;
    else if (text == "drop")
        f.kind = FaultKind::Drop;
    else if (text == "truncate")
        f.kind = FaultKind::Truncate;
    else if (!valued("delay=", FaultKind::Delay, 600000) && !valued("qmi-error=", FaultKind::QmiError, 0xFFFF))
        return std::nullopt;
    return f;
}

std::string fault_kind_text(const Fault &f)
{
    switch (f.kind) {
    case FaultKind::NoReply: return "no-reply";
    case FaultKind::Delay: return "delay=" + std::to_string(f.value);
    case FaultKind::QmiError: return "qmi-error=" + std::to_string(f.value);
    case FaultKind::Drop: return "drop";
    case FaultKind::Truncate: return "truncate";
    }
    return "?";
}

std::optional<Fault> Faults::take(uint32_t service, uint16_t msg_id)
{
    std::optional<Fault> hit;
    for (auto it = faults_.begin(); it != faults_.end();) {
        if (it->service != service || it->msg_id != msg_id) {
            ++it;
        } else if (it->after > 0) {
            --it->after;
            ++it;
        } else if (!hit) {
            hit = *it;
            it = --it->count == 0 ? faults_.erase(it) : it + 1;
        } else {
            ++it;
        }
    }
    return hit;
}

} // namespace kvn_sim
