// uim_card_messages.cpp - the card commands the modem's vendor service
// answers as common messages of extend command 4: eSIM selection of slot 2,
// card status query/get/set (the card-detect line), card type query and the
// hot-swap test of slot 1. Each acts on the handset's slot model and answers
// {result, answer}; a value too short for its parameters is refused. These
// are the vendor's own messages, with no published layout: their form is the
// one the tool's card commands send.
#include "kvn_wire.h"
#include "services.h"
#include "uim_slots.h"

namespace kvn_sim {
namespace {

constexpr uint32_t kEsimSelect = 0x54;
constexpr uint32_t kCardStatusQuery = 0x27;
constexpr uint32_t kCardStatusGet = 0x37;
constexpr uint32_t kCardStatusSet = 0x39;
constexpr uint32_t kCardTypeQuery = 0x38;
constexpr uint32_t kHotSwapTest = 0x50;

constexpr CommonAnswer kRefusedAnswer{Extend4Table::kRefused, {}};

CommonAnswer u32_answer(uint32_t v)
{
    Bytes b(4);
    kvn_wire::put_u32(b.data(), v);
    return {0, b};
}

// The i-th u32 parameter of a value of n bytes, nullopt past its end.
std::optional<uint32_t> param(const uint8_t *v, size_t n, size_t i)
{
    if (n / 4 <= i)
        return std::nullopt;
    return kvn_wire::get_u32(v + 4 * i);
}

bool holds_card(const UimSlots &u, uint32_t slot) { return u.physical_card(slot) != CardPresence::Absent; }

} // namespace

void register_uim_card_messages(Handset &h)
{
    UimSlots &u = h.uim;

    // 8 bytes, first 0 the eUICC, 1 the physical card: what slot 2 runs on
    // from its next power up.
    h.extend4.add_message(kEsimSelect, [&u](const uint8_t *v, size_t n, uint64_t) {
        UimSlot *s = u.slot(2);
        if (n < 8 || !s || v[0] > 1 || (v[0] == 0 && !s->euicc))
            return kRefusedAnswer;
        s->selected = v[0] == 0 ? SlotMedium::Euicc : SlotMedium::Physical;
        return CommonAnswer{};
    });

    h.extend4.add_message(kCardStatusQuery,
                          [&u](const uint8_t *, size_t, uint64_t) { return u32_answer(holds_card(u, 1) ? 1 : 0); });

    h.extend4.add_message(kCardStatusGet, [&u](const uint8_t *v, size_t n, uint64_t) {
        auto sub = param(v, n, 0);
        if (!sub || *sub > 1 || !u.slot(*sub + 1))
            return kRefusedAnswer;
        return u32_answer(holds_card(u, *sub + 1) ? 1 : 0);
    });

    // sub, mode, set_val: set_val 0 takes the card out, 1 puts it in.
    h.extend4.add_message(kCardStatusSet, [&u](const uint8_t *v, size_t n, uint64_t) {
        auto sub = param(v, n, 0);
        auto set_val = param(v, n, 2);
        if (!sub || !set_val || *sub > 1 || !u.slot(*sub + 1) || *set_val > 1)
            return kRefusedAnswer;
        u.set_card_detect(*sub + 1, *set_val == 1);
        return CommonAnswer{};
    });

    h.extend4.add_message(kCardTypeQuery, [&u](const uint8_t *, size_t, uint64_t) {
        return u32_answer(u.count() == 1 ? 1 : 2);
    });

    // opt 0 stops; otherwise seconds_after_push, seconds_after_pull, count.
    h.extend4.add_message(kHotSwapTest, [&u](const uint8_t *v, size_t n, uint64_t) {
        auto opt = param(v, n, 0);
        if (!opt)
            return kRefusedAnswer;
        if (*opt == 0) {
            u.stop_hotswap();
            return CommonAnswer{};
        }
        auto after_push = param(v, n, 1);
        auto after_pull = param(v, n, 2);
        auto count = param(v, n, 3);
        if (!after_push || !after_pull || !count)
            return kRefusedAnswer;
        u.start_hotswap(*after_push, *after_pull, *count);
        return CommonAnswer{};
    });
}

} // namespace kvn_sim
