// devices.h - the handset's device channels besides the QMI services: the AT
// channel (a pseudo-terminal, served by the router's loop) and the diag
// responder (DIAG packets on the socket). The daemon creates them after the
// router; each registers itself in the handset's device table while it lives.
#pragma once

#include <string>

#include "handset.h"
#include "router.h"

namespace kvn_sim {

// The AT channel: a raw pseudo-terminal (no echo, no translation). Every line
// ended by a carriage return is journalled as {"seq":n,"at":"<hex>"} (line
// feeds dropped, empty lines skipped) and answered "OK" (a line starting with
// "AT", any case) or "ERROR". A slave descriptor stays open so that writers
// may come and go without the terminal hanging up.
class AtChannel : public DeviceChannel {
public:
    static constexpr size_t kMaxLine = 4096; // longer lines are journalled in pieces

    AtChannel(Handset &h, Router &r);
    ~AtChannel() override;
    AtChannel(const AtChannel &) = delete;
    AtChannel &operator=(const AtChannel &) = delete;

    bool up() const override { return master_ >= 0; }
    void set_up(bool up) override;
    std::string handset_path() const override { return "/dev/smd8"; }
    std::string host_path() const override { return up() ? slave_path_ : std::string(); }
    // Bytes as if a writer had written them to the terminal (fuzzing).
    void feed(const uint8_t *p, size_t n);

private:
    bool open_pty(std::string *err);
    void close_pty();
    void on_readable(short revents);
    void on_line();

    Handset &h_;
    Router &r_;
    int master_ = -1;
    int slave_ = -1; // held open: reads of other writers never see a hang-up
    std::string slave_path_;
    std::string line_;
};

// The diag responder. A DIAG payload is u8 mode (0 callback, 1 DCI), u8 flags
// (bit 0: a result is wanted), then the request (1 to kMaxRequest bytes).
// Every request is journalled as {"seq":n,"diag":"<hex>","mode":"callback"|
// "dci"}; the answer is the scenario's `diag_replies` entry for the request,
// else a built-in one (see diag_responder.cpp). Faults of service "diag" are
// keyed by the request's first byte (no-reply and delay).
class DiagResponder : public DeviceChannel {
public:
    static constexpr size_t kMaxRequest = 16384;

    DiagResponder(Handset &h, Router &r);
    ~DiagResponder() override;
    DiagResponder(const DiagResponder &) = delete;
    DiagResponder &operator=(const DiagResponder &) = delete;

    bool up() const override { return up_; }
    void set_up(bool up) override;
    void handle(const uint8_t *payload, size_t len, const Router::Answer &answer);

private:
    Handset &h_;
    Router &r_;
    bool up_ = true;
};

// The built-in answer to a diag request.
Bytes diag_builtin_answer(const Bytes &request);

} // namespace kvn_sim
