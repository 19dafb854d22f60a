// handset.h - everything one simulated handset is: its state directory, the
// modem's NV/EFS store, properties, log buffer, journal, faults, canned
// replies and the registry of modem services. The router and the control
// commands act on this object; nothing else holds handset state.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "device.h"
#include "faults.h"
#include "modem_store.h"
#include "nvefs_command.h"
#include "properties.h"
#include "radio_state.h"
#include "records.h"
#include "replay.h"
#include "service.h"
#include "services/extend4.h"
#include "uim_slots.h"
#include "services/modem_stats.h"

namespace kvn_sim {

// A scenario-set answer of the extend service for one command id.
struct CannedReply {
    uint32_t result = 0;
    Bytes data; // at most 512 bytes
};

class Handset {
public:
    explicit Handset(const std::filesystem::path &state_dir);
    Handset(const Handset &) = delete;
    Handset &operator=(const Handset &) = delete;

    // Creates the directory layout and loads the persistent properties.
    bool init(std::string *err);
    // A line of kvn-sim's own in the handset log (tag "kvn-sim").
    void note(int priority, const std::string &text) { log.add(priority, "kvn-sim", text); }

    std::filesystem::path state_dir;
    ModemStore store;
    Properties props;
    LogBuffer log;
    Journal journal;
    Faults faults;
    NvEfsCommand nvefs;
    std::map<uint32_t, CannedReply> extend_replies;
    Extend4Table extend4; // command 4 request and common-message types
    UimSlots uim;         // SIM card slots (memory only: every start begins with the default slots)
    RadioState radio;     // statistics values, feature switches, SAR DSI
    ModemStatsAnswers modem_stats; // answers of command 4 request types 20 and 27
    ServiceRegistry services;
    Replay replay; // recorded answers that take precedence over the services' own (scenario "replay")

    // The handset's device channels by name ("at", "diag"); each registers
    // itself while it exists (owned by the daemon).
    std::map<std::string, DeviceChannel *> devices;
    std::map<Bytes, Bytes> diag_replies; // scenario: request bytes -> reply bytes
    DeviceCounters counters;

    // Modem restart as `kvn-sim ssr` does it; set by the daemon (empty when no
    // router runs, as in in-process tests).
    std::function<void(std::chrono::milliseconds)> restart_modem;
    // Work to do once the reply to the request being handled is queued (a
    // restart the request asked for must not overtake its reply).
    void after_reply(std::function<void()> fn) { after_reply_.push_back(std::move(fn)); }
    void run_after_reply()
    {
        auto fns = std::move(after_reply_);
        after_reply_.clear();
        for (auto &fn : fns)
            fn();
    }

private:
    std::vector<std::function<void()>> after_reply_;
};

inline constexpr int kLogDebug = 3, kLogInfo = 4, kLogWarn = 5, kLogError = 6;

} // namespace kvn_sim
