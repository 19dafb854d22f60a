// router.h - the server side of the kvn-sim socket: one poll() loop that
// accepts clients, reads packets into per-connection buffers, routes QMI
// requests to the handset's services (applying faults), answers the device
// requests (service list, watch, properties, log, control), and tells bound
// clients and watchers when services go down or come up. Single-threaded:
// sockets are non-blocking, so a slow or hostile client never holds up others.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "handset.h"
#include "kvn_wire.h"

namespace kvn_sim {

// Timers of the event loop, fired in deadline order on the loop's thread.
class TimerQueue {
public:
    using Clock = std::chrono::steady_clock;
    void add(std::chrono::milliseconds after, std::function<void()> fn);
    // Milliseconds until the next deadline (0 when due), -1 when empty.
    int timeout_ms() const;
    void run_due();

private:
    std::multimap<Clock::time_point, std::function<void()>> q_;
};

class Router {
public:
    // Returns the reply object; sets *ok false for a failed command.
    using ControlHandler = std::function<nlohmann::json(const nlohmann::json &req, bool *ok)>;

    // listen_fd: a listening Unix socket; signal_fd: readable when the daemon
    // is asked to stop (signalfd), or -1. Both stay owned by the caller.
    Router(Handset &h, int listen_fd, int signal_fd);
    ~Router();
    Router(const Router &) = delete;
    Router &operator=(const Router &) = delete;

    void set_control(ControlHandler fn) { control_ = std::move(fn); }
    // Serves until stop() is called or the stop signal arrives.
    void run();
    void stop() { stopping_ = true; }

    // Takes one service down (bound clients get SERVICE_DOWN and are closed,
    // watchers SERVICE_GONE) or brings it up (watchers get SERVICE_UP).
    void set_service(ServiceRegistry::Entry &e, bool up);
    // Modem restart: every service down, back up after `down_for`.
    void restart_modem(std::chrono::milliseconds down_for);
    size_t client_count() const { return conns_.size(); }
    // Sends one indication (flags 0x04, transaction 0) with the TLV area as
    // given to every client bound to the service; returns how many it reached.
    size_t indicate(uint32_t service, uint16_t msg_id, const std::vector<uint8_t> &tlvs);
    // Extra descriptors served by the loop (a pseudo-terminal of the handset,
    // say): `fn` runs on the loop's thread with the revents of `fd`. The
    // caller keeps owning `fd` and unwatches it before closing it.
    using FdHandler = std::function<void(short revents)>;
    void watch(int fd, short events, FdHandler fn) { watched_[fd] = {events, std::move(fn)}; }
    void unwatch(int fd) { watched_.erase(fd); }
    TimerQueue &timers() { return timers_; }

private:
    struct Conn;
    void accept_clients();
    void read_from(Conn &c);
    void flush(Conn &c);
    void on_packet(Conn &c, const kvn_wire::Header &h, const uint8_t *payload, size_t len);
    void on_qmi(Conn &c, const kvn_wire::Header &h, const uint8_t *payload, size_t len);
    void on_control(Conn &c, const uint8_t *payload, size_t len);
    void send(Conn &c, kvn_wire::Kind kind, uint32_t service, uint16_t instance, uint16_t client, uint16_t status,
              const std::vector<uint8_t> &payload = {});
    void queue_bytes(Conn &c, const std::vector<uint8_t> &bytes);
    void drop(Conn &c, const std::string &why);
    void reap();

    Handset &h_;
    int listen_fd_;
    int signal_fd_;
    bool stopping_ = false;
    uint64_t next_conn_id_ = 1;
    uint16_t next_client_id_ = 1;
    uint64_t restart_generation_ = 0;
    std::map<uint64_t, std::unique_ptr<Conn>> conns_;
    TimerQueue timers_;
    ControlHandler control_;
    struct Watched {
        short events = 0;
        FdHandler fn;
    };
    std::map<int, Watched> watched_;
};

} // namespace kvn_sim
