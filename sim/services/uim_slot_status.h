// uim_slot_status.h - the answer of UIM Get Slot Status (0x47): the
// physical slots of the handset as one parallel array per TLV.
#pragma once

#include <cstdint>
#include <vector>

#include "uim_slots.h"

namespace kvn_sim {

// The TLV area of a successful Get Slot Status over `slots`.
std::vector<uint8_t> uim_slot_status_reply(const UimSlots &slots);

} // namespace kvn_sim
