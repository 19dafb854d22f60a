// router.h - the server side of the kvn-sim socket: one epoll loop that
// accepts clients, reads packets into per-connection buffers, routes QMI
// requests to the handset's services (applying faults), answers the device
// requests (service list, watch, properties, log, control), and tells bound
// clients and watchers when services go down or come up. Single-threaded:
// sockets are non-blocking, so a slow or hostile client never holds up others.
// Connections are bounded (RouterLimits): a total and a per-process count,
// the longest-idle one evicted when full, a deadline for the first packet,
// idle timeouts, and back-pressure on clients that do not read their replies.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

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

// The bounds a Router keeps. The defaults are the daemon's; tests shrink them.
struct RouterLimits {
    size_t max_connections = 512; // when full, the longest-idle connection is evicted for a new one
    size_t max_per_process = 64;  // connections of one peer process (SO_PEERCRED); more are refused
    std::chrono::milliseconds handshake{5000};       // a connection's first whole packet must come by then
    std::chrono::milliseconds fresh_idle{60000};     // a connection neither bound nor watching, quiet this long
    std::chrono::milliseconds bound_idle{3600000};   // a bound client, quiet this long (watchers never time out)
    size_t output_high = 64u << 10;  // unsent bytes at which a connection's input stops being read
    size_t output_max = 1u << 20;    // unsent bytes at which it is closed (delayed replies, notifications)
    size_t output_total = 32u << 20; // all connections' unsent bytes; beyond, the largest backlog is closed
    std::chrono::milliseconds accept_backoff{100}; // pause of the listener when accept runs out of descriptors
};

class Router {
public:
    // Returns the reply object; sets *ok false for a failed command.
    using ControlHandler = std::function<nlohmann::json(const nlohmann::json &req, bool *ok)>;

    // listen_fd: a listening Unix socket; signal_fd: readable when the daemon
    // is asked to stop (signalfd), or -1. Both stay owned by the caller.
    Router(Handset &h, int listen_fd, int signal_fd, RouterLimits limits = {});
    ~Router();
    Router(const Router &) = delete;
    Router &operator=(const Router &) = delete;

    void set_control(ControlHandler fn) { control_ = std::move(fn); }
    // DIAG requests go to `fn` with a way to answer (status, reply bytes) now
    // or later; the answer is dropped when the client has gone meanwhile.
    using Answer = std::function<void(uint16_t status, const std::vector<uint8_t> &reply)>;
    using DiagHandler = std::function<void(const uint8_t *payload, size_t len, Answer answer)>;
    void set_diag(DiagHandler fn) { diag_ = std::move(fn); }
    // Serves until stop() is called or the stop signal arrives.
    void run();
    void stop() { stopping_ = true; }

    // Takes one service down (bound clients get SERVICE_DOWN and are closed,
    // watchers SERVICE_GONE) or brings it up (watchers get SERVICE_UP).
    void set_service(ServiceRegistry::Entry &e, bool up);
    // Modem restart: every service down, back up after `down_for`.
    void restart_modem(std::chrono::milliseconds down_for);
    size_t client_count() const { return conns_.size(); }

    // What the loop has had to do to keep its bounds, for `status` and tests.
    struct Stats {
        uint64_t accept_errors = 0; // accept() failures (descriptors ran out...)
        uint64_t refused = 0;       // connections refused: too many of one process
        uint64_t evicted = 0;       // closed to make room, or idle past a timeout
        uint64_t backlog_drops = 0; // closed for holding too many unsent bytes
        size_t output_bytes = 0;    // unsent bytes of all connections now
    };
    const Stats &stats() const { return stats_; }

    // Connections without a socket, driven in-process (fuzzing, tests): bytes
    // fed are handled as if read from a client, and replies collect until
    // taken. Their input stops being handled while the output is backed up.
    uint64_t open_local();
    // False when the connection is gone (closed by what it sent).
    bool feed_local(uint64_t id, const uint8_t *p, size_t len);
    std::vector<uint8_t> take_output(uint64_t id);
    void close_local(uint64_t id);
    // Sends one indication (flags 0x04, transaction 0) with the TLV area as
    // given to every client bound to the service; returns how many it reached.
    size_t indicate(uint32_t service, uint16_t msg_id, const std::vector<uint8_t> &tlvs);
    // Extra descriptors served by the loop (a pseudo-terminal of the handset,
    // say): `fn` runs on the loop's thread with the revents of `fd`. The
    // caller keeps owning `fd` and unwatches it before closing it.
    using FdHandler = std::function<void(short revents)>;
    // `events` are poll(2) bits (POLLIN, POLLOUT); watching a watched
    // descriptor again replaces its events and handler.
    void watch(int fd, short events, FdHandler fn);
    void unwatch(int fd);
    TimerQueue &timers() { return timers_; }
    // Another way in to the handset's services (the QMUX terminal), told of
    // indications and modem restarts as the socket's clients are.
    struct Peer {
        std::function<size_t(uint32_t service, uint16_t msg_id, const std::vector<uint8_t> &tlvs)> indicate;
        std::function<void()> modem_restarted;
    };
    void set_peer(Peer p) { peer_ = std::move(p); }

private:
    struct Conn;
    void accept_clients();
    void admit(int fd, pid_t pid); // pid: the peer's, from its credentials (0 when unknown)
    void read_from(Conn &c);
    // Sets the loop's interest in each descriptor to what it now needs.
    void update_interest();
    void set_interest(int fd, uint64_t tag, uint32_t events, uint32_t *current);
    // Handles the whole packets buffered, while the output is not backed up.
    void process_input(Conn &c);
    bool wants_input(const Conn &c) const;
    void flush(Conn &c);
    void note_written(Conn &c, size_t n);
    void expire_idle();
    Conn *longest_idle();
    void on_packet(Conn &c, const kvn_wire::Header &h, const uint8_t *payload, size_t len);
    void on_qmi(Conn &c, const kvn_wire::Header &h, const uint8_t *payload, size_t len);
    void on_control(Conn &c, const uint8_t *payload, size_t len);
    void on_device(Conn &c, const kvn_wire::Header &h, const uint8_t *payload, size_t len);
    void send(Conn &c, kvn_wire::Kind kind, uint32_t service, uint16_t instance, uint16_t client, uint16_t status,
              const std::vector<uint8_t> &payload = {});
    void queue_bytes(Conn &c, const std::vector<uint8_t> &bytes);
    void drop(Conn &c, const std::string &why);
    void reap();

    Handset &h_;
    int listen_fd_;
    int signal_fd_;
    RouterLimits limits_;
    Stats stats_;
    std::chrono::steady_clock::time_point accept_paused_until_{};
    size_t released_since_trim_ = 0; // freed buffer bytes not yet handed back to the system
    bool stopping_ = false;
    uint64_t next_conn_id_ = 1;
    uint16_t next_client_id_ = 1;
    uint64_t restart_generation_ = 0;
    std::map<uint64_t, std::unique_ptr<Conn>> conns_;
    TimerQueue timers_;
    ControlHandler control_;
    DiagHandler diag_;
    struct Watched {
        short events = 0;
        FdHandler fn;
    };
    std::map<int, Watched> watched_;
    int epoll_fd_ = -1;
    uint32_t listen_events_ = ~0u, signal_events_ = ~0u; // interest now (~0: not added yet)
    std::vector<uint8_t> rbuf_; // every receive lands here first: sized once, never zero-filled again
    Peer peer_;
};

} // namespace kvn_sim
