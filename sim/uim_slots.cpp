// uim_slots.cpp - the SIM card slots of the simulated handset and the
// scenario key that sets them.
#include "uim_slots.h"

namespace kvn_sim {

namespace {

// EID 89049032123451234512345678901235, first digit in the high nibble.
constexpr std::array<uint8_t, 16> kDefaultEid = {0x89, 0x04, 0x90, 0x32, 0x12, 0x34, 0x51, 0x23,
                                                 0x45, 0x12, 0x34, 0x56, 0x78, 0x90, 0x12, 0x35};

constexpr uint8_t kCardErrorPowerDown = 1;
constexpr uint8_t kCardErrorNoAtr = 3;

// A slot that has just been powered up (or loaded powered): it runs on what
// is selected, its EID count and channels start afresh.
void fresh_power_up(UimSlot &s)
{
    s.powered = true;
    s.running = s.selected == SlotMedium::Euicc && s.euicc ? SlotMedium::Euicc : SlotMedium::Physical;
    s.eid_requests = 0;
    s.channels = {};
}

} // namespace

UimSlots::UimSlots()
{
    UimSlot one;
    UimSlot two;
    Euicc e;
    e.eid = kDefaultEid;
    two.euicc = e;
    slots_ = {one, two};
}

UimSlot *UimSlots::slot(uint32_t n) { return n >= 1 && n <= slots_.size() ? &slots_[n - 1] : nullptr; }

const UimSlot *UimSlots::slot(uint32_t n) const { return n >= 1 && n <= slots_.size() ? &slots_[n - 1] : nullptr; }

void UimSlots::replace(std::vector<UimSlot> slots)
{
    slots_ = std::move(slots);
    hotswap_.reset();
    for (auto &s : slots_) {
        s.channels = {};
        if (s.powered)
            fresh_power_up(s);
    }
}

/* ---- card state ---- */

std::optional<bool> UimSlots::hotswap_pulled() const
{
    if (!hotswap_)
        return std::nullopt;
    using namespace std::chrono;
    uint64_t elapsed = static_cast<uint64_t>(
        duration_cast<milliseconds>(steady_clock::now() - hotswap_->start).count());
    uint64_t pull_ms = uint64_t(hotswap_->after_pull) * 1000;
    uint64_t period = pull_ms + uint64_t(hotswap_->after_push) * 1000;
    if (period == 0 || elapsed / period >= hotswap_->count)
        return std::nullopt; // every pull done and pushed back
    return elapsed % period < pull_ms;
}

CardPresence UimSlots::physical_card(uint32_t n) const
{
    const UimSlot *s = slot(n);
    if (!s)
        return CardPresence::Absent;
    if (n == 1)
        if (auto pulled = hotswap_pulled(); pulled && *pulled)
            return CardPresence::Absent;
    return s->card;
}

ReportedCard UimSlots::reported(uint32_t n) const
{
    const UimSlot *s = slot(n);
    if (!s || !s->powered)
        return {2, kCardErrorPowerDown};
    if (s->running == SlotMedium::Euicc)
        return {1, 0};
    switch (physical_card(n)) {
    case CardPresence::Absent:
        return {0, 0};
    case CardPresence::Present:
        return {1, 0};
    case CardPresence::Error:
        return {2, kCardErrorNoAtr};
    }
    return {2, kCardErrorNoAtr};
}

void UimSlots::set_card_detect(uint32_t n, bool in)
{
    if (UimSlot *s = slot(n)) {
        s->card = in ? CardPresence::Present : CardPresence::Absent;
        if (n == 1)
            hotswap_.reset();
    }
}

/* ---- power and channels ---- */

void UimSlots::power_down(uint32_t n)
{
    if (UimSlot *s = slot(n)) {
        s->powered = false;
        s->channels = {};
    }
}

void UimSlots::power_up(uint32_t n)
{
    if (UimSlot *s = slot(n))
        fresh_power_up(*s);
}

uint8_t UimSlots::open_channel(uint32_t n)
{
    UimSlot *s = slot(n);
    if (!s)
        return 0;
    for (uint8_t i = 0; i < kChannels; ++i) {
        if (!s->channels[i]) {
            s->channels[i] = true;
            return static_cast<uint8_t>(i + 1);
        }
    }
    return 0;
}

bool UimSlots::channel_open(uint32_t n, uint8_t channel) const
{
    const UimSlot *s = slot(n);
    return s && channel >= 1 && channel <= kChannels && s->channels[channel - 1];
}

bool UimSlots::close_channel(uint32_t n, uint8_t channel)
{
    if (!channel_open(n, channel))
        return false;
    slot(n)->channels[channel - 1] = false;
    return true;
}

void UimSlots::close_all_channels()
{
    for (auto &s : slots_)
        s.channels = {};
}

/* ---- hot swap ---- */

void UimSlots::start_hotswap(uint32_t after_push, uint32_t after_pull, uint32_t count)
{
    if (slots_.empty())
        return;
    slots_[0].card = CardPresence::Present; // what is pushed back in
    hotswap_ = HotSwap{std::chrono::steady_clock::now(), after_push, after_pull, count};
}

void UimSlots::stop_hotswap()
{
    if (hotswap_ && !slots_.empty())
        slots_[0].card = CardPresence::Present;
    hotswap_.reset();
}

/* ---- the scenario key ---- */

namespace {

using nlohmann::json;

struct ParseError {
    std::string text;
};

[[noreturn]] void fail(const std::string &text) { throw ParseError{text}; }

void check_object(const json &v, const std::string &where)
{
    if (!v.is_object())
        fail("\"" + where + "\" must be a JSON object");
}

// One of the names, by its index in `names`.
template <size_t N> size_t choice(const json &v, const std::string &where, const char *const (&names)[N])
{
    if (v.is_string())
        for (size_t i = 0; i < N; ++i)
            if (v.get<std::string>() == names[i])
                return i;
    std::string list;
    for (size_t i = 0; i < N; ++i)
        list += std::string(i ? ", " : "") + names[i];
    fail("\"" + where + "\" must be one of " + list);
}

uint32_t count_value(const json &v, const std::string &where)
{
    if (!v.is_number_unsigned() || v.get<uint64_t>() > UINT32_MAX)
        fail("\"" + where + "\" must be a number from 0 to " + std::to_string(UINT32_MAX));
    return static_cast<uint32_t>(v.get<uint64_t>());
}

Euicc parse_euicc(const json &v, const std::string &where)
{
    check_object(v, where);
    Euicc e;
    bool have_eid = false;
    for (auto &[k, val] : v.items()) {
        std::string at = where + "." + k;
        if (k == "eid") {
            auto bytes = val.is_string() ? from_hex(val.get<std::string>()) : std::nullopt;
            if (!bytes || bytes->size() != 16 || val.get<std::string>().size() != 32)
                fail("\"" + at + "\" must be 32 hex digits");
            std::copy(bytes->begin(), bytes->end(), e.eid.begin());
            have_eid = true;
        } else if (k == "profiles") {
            e.profiles = count_value(val, at);
        } else if (k == "eid_ready_after") {
            e.eid_ready_after = count_value(val, at);
        } else {
            fail("unknown key \"" + at + "\"");
        }
    }
    if (!have_eid)
        fail("\"" + where + "\" needs \"eid\"");
    return e;
}

UimSlot parse_slot(const json &v, const std::string &where)
{
    static const char *const kCards[] = {"absent", "present", "error"};
    static const char *const kPower[] = {"down", "up"};
    static const char *const kMedia[] = {"physical", "euicc"};
    check_object(v, where);
    UimSlot s;
    for (auto &[k, val] : v.items()) {
        std::string at = where + "." + k;
        if (k == "card") {
            static constexpr CardPresence kMap[] = {CardPresence::Absent, CardPresence::Present, CardPresence::Error};
            s.card = kMap[choice(val, at, kCards)];
        } else if (k == "power") {
            s.powered = choice(val, at, kPower) == 1;
        } else if (k == "selected") {
            s.selected = choice(val, at, kMedia) == 1 ? SlotMedium::Euicc : SlotMedium::Physical;
        } else if (k == "euicc") {
            s.euicc = parse_euicc(val, at);
        } else {
            fail("unknown key \"" + at + "\"");
        }
    }
    if (s.selected == SlotMedium::Euicc && !s.euicc)
        fail("\"" + where + ".selected\" is \"euicc\" but the slot has no \"euicc\"");
    return s;
}

std::vector<UimSlot> parse_slots(const json &v, const std::string &where)
{
    check_object(v, where);
    for (auto &[k, val] : v.items())
        if (k != "1" && k != "2")
            fail("unknown key \"" + where + "." + k + "\" (slots are \"1\" and \"2\")");
    if (!v.contains("1"))
        fail("\"" + where + "\" needs slot \"1\"");
    std::vector<UimSlot> slots;
    slots.push_back(parse_slot(v["1"], where + ".1"));
    if (v.contains("2"))
        slots.push_back(parse_slot(v["2"], where + ".2"));
    return slots;
}

} // namespace

std::optional<std::function<void(UimSlots &)>> parse_uim_scenario(const json &v, const std::string &where,
                                                                  std::string *err)
{
    try {
        check_object(v, where);
        std::optional<std::vector<UimSlot>> slots;
        std::optional<bool> extended;
        for (auto &[k, val] : v.items()) {
            std::string at = where + "." + k;
            if (k == "slots") {
                slots = parse_slots(val, at);
            } else if (k == "extended_card_status") {
                if (!val.is_boolean())
                    fail("\"" + at + "\" must be true or false");
                extended = val.get<bool>();
            } else {
                fail("unknown key \"" + at + "\"");
            }
        }
        return [slots, extended](UimSlots &u) {
            if (slots)
                u.replace(*slots);
            if (extended)
                u.extended_card_status = *extended;
        };
    } catch (const ParseError &e) {
        *err = e.text;
        return std::nullopt;
    }
}

} // namespace kvn_sim
