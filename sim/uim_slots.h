// uim_slots.h - the handset's SIM card slots: what card each holds, its
// power, what it runs on (its physical card or an eUICC behind it), the
// eUICC's EID and profiles, its open logical channels, and the card-detect
// hot-swap cycle of slot 1. The UIM service, the card commands of extend
// command 4 and anything else that looks at the cards read and drive this one
// object (Handset::uim); it lives in memory only.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "util.h"

namespace kvn_sim {

class Handset;

// The physical card in a slot.
enum class CardPresence { Absent, Present, Error };
// What a slot runs on.
enum class SlotMedium { Physical, Euicc };

struct Euicc {
    std::array<uint8_t, 16> eid{};
    uint32_t profiles = 1;
    uint32_t eid_ready_after = 0; // Get EID requests answered "not ready" after each power up
};

struct UimSlot {
    CardPresence card = CardPresence::Present;
    bool powered = true;
    SlotMedium selected = SlotMedium::Physical; // what it runs on from its next power up
    SlotMedium running = SlotMedium::Physical;  // what it runs on now (meaningful while powered)
    std::optional<Euicc> euicc;
    uint32_t eid_requests = 0;        // Get EID requests since the last power up
    std::array<bool, 3> channels{};   // logical channels 1..3 open
};

// Card state as Get Card Status reports it (0 absent, 1 present, 2 error) and
// the card error code beside it (1 power down).
struct ReportedCard {
    uint8_t state = 0;
    uint8_t error_code = 0;
};

class UimSlots {
public:
    static constexpr uint8_t kChannels = 3;

    UimSlots(); // the default handset's slots

    // Slots are numbered from 1; nullptr for a slot the handset lacks.
    UimSlot *slot(uint32_t n);
    const UimSlot *slot(uint32_t n) const;
    size_t count() const { return slots_.size(); }
    // Replaces every slot; powered slots count as just powered up.
    void replace(std::vector<UimSlot> slots);

    bool extended_card_status = true; // Get Card Status may answer TLV 0x13

    // What Get Card Status says of slot n (n must exist).
    ReportedCard reported(uint32_t n) const;
    // The physical card slot n holds now, the hot-swap cycle applied.
    CardPresence physical_card(uint32_t n) const;
    // Drives slot n's card-detect line: the card out or in. Stops a running
    // hot-swap cycle of that slot.
    void set_card_detect(uint32_t n, bool in);

    void power_down(uint32_t n);
    // Powers up on what is selected now; the EID readiness count restarts.
    void power_up(uint32_t n);
    // Lowest free channel of slot n (1..3), opened; 0 when all are open.
    uint8_t open_channel(uint32_t n);
    // False when the channel is not open on slot n.
    bool close_channel(uint32_t n, uint8_t channel);
    bool channel_open(uint32_t n, uint8_t channel) const;
    // Every logical channel of every slot closes (a modem restart).
    void close_all_channels();

    // Hot-swap test of slot 1: the card is pulled at once, pushed
    // `after_pull` seconds later, pulled again `after_push` seconds after
    // that, `count` pulls in all. A new start replaces a running one.
    void start_hotswap(uint32_t after_push, uint32_t after_pull, uint32_t count);
    // Stops a running cycle; the card is left present.
    void stop_hotswap();

private:
    struct HotSwap {
        std::chrono::steady_clock::time_point start;
        uint32_t after_push = 0;
        uint32_t after_pull = 0;
        uint32_t count = 0;
    };
    // Whether the running cycle has the card out now; nullopt when it is over.
    std::optional<bool> hotswap_pulled() const;

    std::vector<UimSlot> slots_;
    std::optional<HotSwap> hotswap_;
};

// Checks the scenario key "uim" (`where` is its path) and returns the change
// it stands for; err names the offending key or value.
std::optional<std::function<void(UimSlots &)>> parse_uim_scenario(const nlohmann::json &v, const std::string &where,
                                                                  std::string *err);

// The card commands of extend command 4 (common-message types 0x54, 0x27,
// 0x37, 0x39, 0x38, 0x50), registered on the handset's command-4 table.
void register_uim_card_messages(Handset &h);

} // namespace kvn_sim
