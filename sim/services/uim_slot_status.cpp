// uim_slot_status.cpp - UIM Get Slot Status (0x47), answered from the
// handset's slots. Layout: libqmi data/qmi-service-uim.json "Get Slot Status"
// (TLVs 0x10, 0x11, 0x12; EID TLV since libqmi 1.32) and Hermes
// hermes/uim_cmd.qmi, which agree: every array has a u8 count and element i
// describes physical slot i+1; card state, slot state and card protocol are
// u32 on the wire.
#include "services/uim_slot_status.h"

#include "tlv.h"

namespace kvn_sim {
namespace {

// Physical card state, slot state and card protocol values.
constexpr uint32_t kCardUnknown = 0, kCardAbsent = 1, kCardPresent = 2;
constexpr uint32_t kSlotInactive = 0, kSlotActive = 1;
constexpr uint32_t kProtocolUnknown = 0, kProtocolUicc = 2;

void put_u32(std::vector<uint8_t> &b, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// What the slot holds: an eUICC is soldered in and always there; otherwise
// the physical card, the hot-swap cycle applied.
uint32_t card_state(const UimSlots &slots, uint32_t n)
{
    if (slots.slot(n)->euicc)
        return kCardPresent;
    switch (slots.physical_card(n)) {
    case CardPresence::Present:
        return kCardPresent;
    case CardPresence::Absent:
        return kCardAbsent;
    case CardPresence::Error:
        return kCardUnknown;
    }
    return kCardUnknown;
}

} // namespace

std::vector<uint8_t> uim_slot_status_reply(const UimSlots &slots)
{
    const auto count = static_cast<uint8_t>(slots.count());
    std::vector<uint8_t> status{count}, info{count}, eid{count};
    for (uint32_t n = 1; n <= count; ++n) {
        const UimSlot &s = *slots.slot(n);
        const uint32_t card = card_state(slots, n);
        // 0x10: card state, slot state, logical slot, ICCID (none kept: 0 bytes).
        put_u32(status, card);
        put_u32(status, s.powered ? kSlotActive : kSlotInactive);
        status.insert(status.end(), {static_cast<uint8_t>(n), 0});
        // 0x11: card protocol, valid applications, ATR (none kept: 0 bytes), is eUICC.
        put_u32(info, card == kCardPresent ? kProtocolUicc : kProtocolUnknown);
        info.insert(info.end(), {static_cast<uint8_t>(slots.reported(n).state == 1 ? 1 : 0), 0,
                                 static_cast<uint8_t>(s.euicc ? 1 : 0)});
        // 0x12: the EID, 16 bytes with the first digit in the high nibble; none for a plain slot.
        if (s.euicc) {
            eid.push_back(static_cast<uint8_t>(s.euicc->eid.size()));
            eid.insert(eid.end(), s.euicc->eid.begin(), s.euicc->eid.end());
        } else {
            eid.push_back(0);
        }
    }
    TlvWriter w;
    w.add_result(0, 0);
    w.add(0x10, status.data(), status.size());
    w.add(0x11, info.data(), info.size());
    w.add(0x12, eid.data(), eid.size());
    return w.take();
}

} // namespace kvn_sim
