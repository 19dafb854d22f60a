// router.cpp - the epoll loop and packet routing of kvn-sim.
#include "router.h"
#include "peer.h"

#include <malloc.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kvn_sim {

using kvn_wire::Header;
using kvn_wire::Kind;

namespace {
constexpr size_t kReadChunk = 65536;
constexpr size_t kKeepBuffer = 64u << 10; // buffers larger than this are freed once empty
constexpr size_t kTrimAfter = 4u << 20;   // freed bytes after which memory is handed back
constexpr int kAndroidLogVerbose = 2, kAndroidLogSilent = 8;
using Clock = std::chrono::steady_clock;
// What an epoll event's data says: a connection's id (below kTagWatched),
// a watched descriptor (kTagWatched | fd), the listener or the stop signal.
constexpr uint64_t kTagWatched = 1ull << 62, kTagListen = ~0ull, kTagSignal = ~0ull - 1;
constexpr uint32_t kNotAdded = ~0u; // interest of a descriptor not in the list yet
} // namespace

/* ---- timers ---- */

void TimerQueue::add(std::chrono::milliseconds after, std::function<void()> fn)
{
    q_.emplace(Clock::now() + after, std::move(fn));
}

int TimerQueue::timeout_ms() const
{
    if (q_.empty())
        return -1;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(q_.begin()->first - Clock::now()).count();
    return left <= 0 ? 0 : static_cast<int>(std::min<long long>(left + 1, 60000));
}

void TimerQueue::run_due()
{
    auto now = Clock::now();
    while (!q_.empty() && q_.begin()->first <= now) {
        auto fn = std::move(q_.begin()->second);
        q_.erase(q_.begin());
        fn();
    }
}

/* ---- connections ---- */

struct Router::Conn {
    enum class Role { Fresh, Bound, Watcher };
    uint64_t id = 0;
    int fd = -1;   // -1 for an in-process connection
    pid_t pid = 0; // the peer process, 0 when unknown
    Role role = Role::Fresh;
    uint32_t service = 0; // bound or watched service
    uint16_t instance = 0;
    uint16_t client = 0;
    std::vector<uint8_t> in;
    std::vector<uint8_t> out;
    size_t out_off = 0;
    bool closing = false;     // no more input; closed once `out` is written
    bool dead = false;        // close now
    bool got_packet = false;  // a whole packet has arrived
    Clock::time_point opened; // accepted
    Clock::time_point active; // last byte read or written
    uint32_t events = ~0u;    // the loop's interest in fd now (~0: not added yet)

    size_t pending() const { return out.size() - out_off; }
    size_t buffered() const { return in.capacity() + out.capacity(); }
    ~Conn()
    {
        if (fd >= 0)
            close(fd);
    }
};

Router::Router(Handset &h, int listen_fd, int signal_fd, RouterLimits limits)
    : h_(h), listen_fd_(listen_fd), signal_fd_(signal_fd), limits_(limits),
      epoll_fd_(epoll_create1(EPOLL_CLOEXEC)), rbuf_(kReadChunk)
{
}

Router::~Router()
{
    conns_.clear(); // their descriptors close before the loop's
    if (epoll_fd_ >= 0)
        close(epoll_fd_);
}

// Puts fd in the loop's interest list, or changes its events, when what it
// needs differs from *current (kNotAdded until it is first added).
void Router::set_interest(int fd, uint64_t tag, uint32_t events, uint32_t *current)
{
    if (fd < 0 || events == *current)
        return;
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = tag;
    epoll_ctl(epoll_fd_, *current == kNotAdded ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &ev);
    *current = events;
}

void Router::watch(int fd, short events, FdHandler fn)
{
    auto &w = watched_[fd];
    w.fn = std::move(fn);
    if (w.events == events)
        return;
    epoll_event ev{};
    ev.events = static_cast<uint16_t>(events); // poll and epoll share the bits of both
    ev.data.u64 = kTagWatched | static_cast<uint32_t>(fd);
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, fd, &ev) != 0)
        epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev);
    w.events = events;
}

void Router::unwatch(int fd)
{
    if (watched_.erase(fd))
        epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, nullptr);
}

void Router::queue_bytes(Conn &c, const std::vector<uint8_t> &bytes)
{
    if (c.dead)
        return;
    c.out.insert(c.out.end(), bytes.begin(), bytes.end());
    stats_.output_bytes += bytes.size();
    if (c.pending() > limits_.output_max) {
        ++stats_.backlog_drops;
        drop(c, "client does not read its replies");
        return;
    }
    if (stats_.output_bytes <= limits_.output_total)
        return;
    // Over the total: the connection holding the most unsent bytes goes.
    Conn *worst = &c;
    for (auto &[id, o] : conns_)
        if (!o->dead && o->pending() > worst->pending())
            worst = o.get();
    ++stats_.backlog_drops;
    drop(*worst, "too many unsent replies held for all clients");
}

void Router::send(Conn &c, Kind kind, uint32_t service, uint16_t instance, uint16_t client, uint16_t status,
                  const std::vector<uint8_t> &payload)
{
    Header hd;
    hd.kind = kind;
    hd.service = service;
    hd.instance = instance;
    hd.client = client;
    hd.status = status;
    queue_bytes(c, kvn_wire::encode_packet(hd, payload));
}

void Router::drop(Conn &c, const std::string &why)
{
    if (!why.empty() && !c.dead)
        h_.note(kLogWarn, "client " + std::to_string(c.id) + " dropped: " + why);
    c.dead = true;
    // Closed now: what it was never sent no longer counts.
    stats_.output_bytes -= c.pending();
    c.out_off = c.out.size();
}

Router::Conn *Router::longest_idle()
{
    Conn *oldest = nullptr;
    for (auto &[id, c] : conns_)
        if (!c->dead && c->fd >= 0 && (!oldest || c->active < oldest->active))
            oldest = c.get();
    return oldest;
}

void Router::accept_clients()
{
    for (int i = 0; i < 64; ++i) {
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            pid_t pid = 0;
            if (admit_peer(fd, h_, &pid))
                admit(fd, pid);
            continue;
        }
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            // Out of descriptors: the listener stays readable, so polling it
            // now would spin. Pause it; closed connections make room meanwhile.
            if (stats_.accept_errors++ == 0 || Clock::now() >= accept_paused_until_ + std::chrono::seconds(10))
                h_.note(kLogWarn, std::string("cannot accept clients: ") + strerror(errno));
            accept_paused_until_ = Clock::now() + limits_.accept_backoff;
        }
        return;
    }
}

void Router::admit(int fd, pid_t pid)
{
    auto c = std::make_unique<Conn>();
    c->pid = pid;
    if (c->pid > 0) {
        size_t same = 0;
        for (auto &[id, o] : conns_)
            same += !o->dead && o->pid == c->pid;
        if (same >= limits_.max_per_process) {
            close(fd);
            if (stats_.refused++ % 1000 == 0)
                h_.note(kLogWarn, "process " + std::to_string(c->pid) + " has " + std::to_string(same) +
                                      " connections; more refused");
            return;
        }
    }
    size_t live = 0;
    for (auto &[id, o] : conns_)
        live += !o->dead;
    if (live >= limits_.max_connections) {
        if (Conn *victim = longest_idle()) {
            ++stats_.evicted;
            drop(*victim, "longest idle while the connection table is full");
        }
    }
    c->id = next_conn_id_++;
    c->fd = fd;
    c->opened = c->active = Clock::now();
    conns_.emplace(c->id, std::move(c));
}

bool Router::wants_input(const Conn &c) const
{
    return !c.dead && !c.closing && c.pending() < limits_.output_high &&
           c.in.size() < kvn_wire::kHeaderSize + kvn_wire::kMaxPayload;
}

// Reads what the client has sent, every packet of it while the buffer
// fills, and handles the whole packets.
void Router::read_from(Conn &c)
{
    for (;;) {
        ssize_t n = recv(c.fd, rbuf_.data(), rbuf_.size(), 0);
        if (n < 0) {
            if (errno != EAGAIN && errno != EINTR)
                drop(c, "");
            return;
        }
        if (n == 0) {
            // The client went away; an incomplete packet it left is just discarded.
            c.dead = true;
            return;
        }
        c.in.insert(c.in.end(), rbuf_.data(), rbuf_.data() + n);
        c.active = Clock::now();
        process_input(c);
        if (static_cast<size_t>(n) < rbuf_.size() || !wants_input(c))
            return;
    }
}

void Router::process_input(Conn &c)
{
    size_t pos = 0;
    while (!c.dead && !c.closing && c.pending() < limits_.output_high && c.in.size() - pos >= kvn_wire::kHeaderSize) {
        auto hd = kvn_wire::decode_header(c.in.data() + pos);
        if (!hd) {
            drop(c, "bad packet header (version, kind or length)");
            break;
        }
        if (c.in.size() - pos - kvn_wire::kHeaderSize < hd->length)
            break;
        c.got_packet = true;
        on_packet(c, *hd, c.in.data() + pos + kvn_wire::kHeaderSize, hd->length);
        pos += kvn_wire::kHeaderSize + hd->length;
    }
    c.in.erase(c.in.begin(), c.in.begin() + static_cast<std::ptrdiff_t>(std::min(pos, c.in.size())));
    if (c.in.empty() && c.in.capacity() > kKeepBuffer) {
        released_since_trim_ += c.in.capacity();
        std::vector<uint8_t>().swap(c.in);
    }
}

void Router::note_written(Conn &c, size_t n)
{
    c.out_off += n;
    stats_.output_bytes -= n;
    c.active = Clock::now();
}

void Router::flush(Conn &c)
{
    while (c.fd >= 0 && c.pending() > 0) {
        ssize_t n = ::send(c.fd, c.out.data() + c.out_off, c.pending(), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno != EAGAIN)
                c.dead = true;
            return;
        }
        note_written(c, static_cast<size_t>(n));
    }
    if (c.pending() > 0)
        return;
    if (c.out.capacity() > kKeepBuffer) {
        released_since_trim_ += c.out.capacity();
        std::vector<uint8_t>().swap(c.out);
    }
    c.out.clear();
    c.out_off = 0;
    if (c.closing)
        c.dead = true;
}

void Router::expire_idle()
{
    auto now = Clock::now();
    for (auto &[id, cp] : conns_) {
        Conn &c = *cp;
        if (c.dead || c.fd < 0)
            continue;
        if (!c.got_packet && now - c.opened > limits_.handshake) {
            ++stats_.evicted;
            drop(c, "no request within " + std::to_string(limits_.handshake.count()) + " ms");
        } else if ((c.role == Conn::Role::Fresh && now - c.active > limits_.fresh_idle) ||
                   (c.role == Conn::Role::Bound && now - c.active > limits_.bound_idle)) {
            ++stats_.evicted;
            drop(c, "idle too long");
        }
    }
}

void Router::reap()
{
    for (auto it = conns_.begin(); it != conns_.end();) {
        Conn &c = *it->second;
        if (!c.dead) {
            ++it;
            continue;
        }
        if (c.role == Conn::Role::Bound)
            if (auto *e = h_.services.find(c.service))
                e->service->connection_closed(c.id);
        stats_.output_bytes -= c.pending();
        released_since_trim_ += c.buffered();
        it = conns_.erase(it);
    }
    // Freed buffers of a burst stay with the allocator unless handed back.
    if (released_since_trim_ >= kTrimAfter) {
        malloc_trim(0);
        released_since_trim_ = 0;
    }
}

/* ---- in-process connections ---- */

uint64_t Router::open_local()
{
    auto c = std::make_unique<Conn>();
    c->id = next_conn_id_++;
    c->opened = c->active = Clock::now();
    uint64_t id = c->id;
    conns_.emplace(id, std::move(c));
    return id;
}

bool Router::feed_local(uint64_t id, const uint8_t *p, size_t len)
{
    auto it = conns_.find(id);
    if (it == conns_.end())
        return false;
    Conn &c = *it->second;
    if (!c.dead && !c.closing)
        c.in.insert(c.in.end(), p, p + len);
    process_input(c);
    bool alive = !c.dead;
    reap();
    return alive;
}

std::vector<uint8_t> Router::take_output(uint64_t id)
{
    auto it = conns_.find(id);
    if (it == conns_.end())
        return {};
    Conn &c = *it->second;
    std::vector<uint8_t> out(c.out.begin() + static_cast<std::ptrdiff_t>(c.out_off), c.out.end());
    note_written(c, out.size());
    c.out.clear();
    c.out_off = 0;
    process_input(c); // input held back by a full output goes on
    return out;
}

void Router::close_local(uint64_t id)
{
    if (auto it = conns_.find(id); it != conns_.end())
        it->second->dead = true;
    reap();
}

/* ---- packets ---- */

void Router::on_packet(Conn &c, const Header &hd, const uint8_t *p, size_t len)
{
    switch (hd.kind) {
    case Kind::Connect: {
        auto *e = h_.services.find(hd.service);
        if (c.role != Conn::Role::Fresh) {
            drop(c, "CONNECT on a connection already in use");
            return;
        }
        bool instance_ok = e && (hd.instance == 0xFFFF || hd.instance == e->instance);
        if (!instance_ok || !e->up) {
            send(c, Kind::ConnectFail, hd.service, hd.instance, 0, 1);
            c.closing = true;
            return;
        }
        c.role = Conn::Role::Bound;
        c.service = e->id;
        c.instance = e->instance;
        c.client = next_client_id_++;
        if (next_client_id_ == 0)
            next_client_id_ = 1;
        send(c, Kind::ConnectOk, e->id, e->instance, c.client, 0);
        return;
    }
    case Kind::Qmi:
        on_qmi(c, hd, p, len);
        return;
    case Kind::List: {
        std::vector<uint8_t> out(4);
        uint32_t n = 0;
        for (const auto &e : h_.services.entries()) {
            if (e.id != hd.service || !e.up)
                continue;
            uint8_t rec[8];
            kvn_wire::put_u32(rec, e.id);
            kvn_wire::put_u32(rec + 4, e.instance);
            out.insert(out.end(), rec, rec + 8);
            ++n;
        }
        kvn_wire::put_u32(out.data(), n);
        send(c, Kind::ListReply, hd.service, 0, 0, 0, out);
        return;
    }
    case Kind::Watch: {
        if (c.role != Conn::Role::Fresh) {
            drop(c, "WATCH on a connection already in use");
            return;
        }
        c.role = Conn::Role::Watcher;
        c.service = hd.service;
        if (auto *e = h_.services.find(hd.service); e && e->up)
            send(c, Kind::ServiceUp, e->id, e->instance, 0, 0);
        return;
    }
    case Kind::PropGet: {
        std::string key(reinterpret_cast<const char *>(p), len);
        auto v = key.size() <= Properties::kMaxKey ? h_.props.get(key) : std::nullopt;
        send(c, Kind::PropValue, 0, 0, 0, v ? 0 : 1, v ? std::vector<uint8_t>(v->begin(), v->end()) : std::vector<uint8_t>{});
        return;
    }
    case Kind::PropSet: {
        const uint8_t *nul = static_cast<const uint8_t *>(memchr(p, 0, len));
        if (!nul) {
            drop(c, "PROP_SET without a separator");
            return;
        }
        std::string key(reinterpret_cast<const char *>(p), static_cast<size_t>(nul - p));
        std::string value(reinterpret_cast<const char *>(nul + 1), len - key.size() - 1);
        std::string err;
        bool ok = h_.props.set(key, value, &err);
        if (!ok)
            h_.note(kLogInfo, "property refused: " + err);
        send(c, Kind::PropSetResult, 0, 0, 0, ok ? 0 : 1);
        return;
    }
    case Kind::Log: {
        const uint8_t *nul = len ? static_cast<const uint8_t *>(memchr(p + 1, 0, len - 1)) : nullptr;
        if (!nul) {
            drop(c, "malformed LOG packet");
            return;
        }
        int prio = p[0];
        if (prio < kAndroidLogVerbose || prio > kAndroidLogSilent)
            prio = kLogInfo;
        std::string tag(reinterpret_cast<const char *>(p + 1), static_cast<size_t>(nul - p - 1));
        std::string text(reinterpret_cast<const char *>(nul + 1), static_cast<size_t>(p + len - nul - 1));
        h_.log.add(prio, tag, text);
        return;
    }
    case Kind::Control:
        on_control(c, p, len);
        return;
    case Kind::DevicePath:
    case Kind::Diag:
        on_device(c, hd, p, len);
        return;
    case Kind::DevicePathReply:
    case Kind::DiagReply:
    case Kind::ConnectOk:
    case Kind::ConnectFail:
    case Kind::ServiceDown:
    case Kind::ListReply:
    case Kind::ServiceUp:
    case Kind::ServiceGone:
    case Kind::PropValue:
    case Kind::PropSetResult:
    case Kind::ControlReply:
        drop(c, "a packet kind only the handset sends");
        return;
    }
}

std::vector<uint8_t> truncate_inside_tlv(const std::vector<uint8_t> &area)
{
    size_t pos = 0, last = 0, last_len = 0;
    while (area.size() - pos >= 3) {
        size_t len = kvn_wire::get_u16(&area[pos + 1]);
        if (area.size() - pos - 3 < len)
            break;
        last = pos;
        last_len = len;
        pos += 3 + len;
    }
    size_t cut = last_len ? last + 3 + last_len / 2 : last + 2;
    return std::vector<uint8_t>(area.begin(), area.begin() + static_cast<std::ptrdiff_t>(std::min(cut, area.size())));
}

void Router::on_qmi(Conn &c, const Header &hd, const uint8_t *p, size_t len)
{
    if (c.role != Conn::Role::Bound || hd.service != c.service) {
        drop(c, "QMI request without CONNECT to that service");
        return;
    }
    auto q = kvn_wire::decode_qmi(p, len);
    if (!q || q->flags != kvn_wire::kQmiRequest) {
        drop(c, "malformed QMI message");
        return;
    }
    if (q->txn == 0) {
        drop(c, "QMI request with transaction id 0");
        return;
    }
    std::span<const uint8_t> tlvs(p + kvn_wire::kQmiHeaderSize, q->tlv_len);
    h_.journal.record(c.service, q->msg_id, q->txn, tlvs, Via::Socket);
    auto *e = h_.services.find(c.service);
    if (!e || !e->up)
        return;
    if (const auto *a = h_.replay.answer(c.service, q->msg_id, tlvs)) {
        auto qmi = [&](uint8_t flags, uint16_t txn, uint16_t msg, const std::vector<uint8_t> &area) {
            kvn_wire::QmiHeader rh{flags, txn, msg, static_cast<uint16_t>(area.size())};
            send(c, Kind::Qmi, c.service, c.instance, c.client, 0, kvn_wire::encode_qmi(rh, area.data(), area.size()));
        };
        qmi(kvn_wire::kQmiResponse, q->txn, q->msg_id, a->response);
        for (const auto &ind : a->indications)
            ind.service == c.service ? qmi(kvn_wire::kQmiIndication, 0, ind.msg_id, ind.tlvs)
                                     : (void)indicate(ind.service, ind.msg_id, ind.tlvs);
        return;
    }
    auto fault = h_.faults.take(c.service, q->msg_id);
    if (fault && fault->kind == FaultKind::NoReply)
        return;
    if (fault && fault->kind == FaultKind::Drop) {
        drop(c, "");
        return;
    }
    QmiRequest rq{c.id, q->msg_id, q->txn, tlvs};
    std::vector<uint8_t> area = fault && fault->kind == FaultKind::QmiError
                                    ? e->service->error_reply(q->msg_id, static_cast<uint16_t>(fault->value))
                                    : e->service->handle(rq);
    if (fault && fault->kind == FaultKind::Truncate)
        area = truncate_inside_tlv(area);
    kvn_wire::QmiHeader rh{kvn_wire::kQmiResponse, q->txn, q->msg_id, static_cast<uint16_t>(area.size())};
    Header out;
    out.kind = Kind::Qmi;
    out.service = c.service;
    out.instance = c.instance;
    out.client = c.client;
    auto bytes = kvn_wire::encode_packet(out, kvn_wire::encode_qmi(rh, area.data(), area.size()));
    if (fault && fault->kind == FaultKind::Delay) {
        timers_.add(std::chrono::milliseconds(fault->value), [this, id = c.id, bytes] {
            auto it = conns_.find(id);
            if (it != conns_.end() && !it->second->closing)
                queue_bytes(*it->second, bytes);
        });
        h_.run_after_reply();
        return;
    }
    queue_bytes(c, bytes);
    h_.run_after_reply();
}

// The handset's device channels: where one is on the host (DEVICE_PATH), and
// diag requests, answered by the diag handler now or later.
void Router::on_device(Conn &c, const Header &hd, const uint8_t *p, size_t len)
{
    if (hd.kind == Kind::DevicePath) {
        std::string name(reinterpret_cast<const char *>(p), len), where;
        for (auto &[n, d] : h_.devices)
            if (d->handset_path() == name && d->up())
                where = d->host_path();
        send(c, Kind::DevicePathReply, 0, 0, 0, where.empty() ? 1 : 0, std::vector<uint8_t>(where.begin(), where.end()));
        return;
    }
    if (!diag_) {
        send(c, Kind::DiagReply, 0, 0, 0, 1);
        return;
    }
    diag_(p, len, [this, id = c.id](uint16_t status, const std::vector<uint8_t> &reply) {
        auto it = conns_.find(id);
        if (it != conns_.end() && !it->second->closing)
            send(*it->second, Kind::DiagReply, 0, 0, 0, status, reply);
    });
}

void Router::on_control(Conn &c, const uint8_t *p, size_t len)
{
    auto req = nlohmann::json::parse(p, p + len, nullptr, false);
    nlohmann::json reply;
    bool ok = false;
    if (!req.is_object() || !control_)
        reply = {{"error", "control request is not a JSON object"}};
    else
        reply = control_(req, &ok);
    std::string text = reply.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    if (text.size() > kvn_wire::kMaxPayload) {
        ok = false;
        text = R"({"error":"reply too large"})";
    }
    send(c, Kind::ControlReply, 0, 0, 0, ok ? 0 : 1, std::vector<uint8_t>(text.begin(), text.end()));
}

/* ---- service state ---- */

void Router::set_service(ServiceRegistry::Entry &e, bool up)
{
    if (e.up == up)
        return;
    e.up = up;
    h_.note(kLogInfo, "service " + e.name + (up ? " up" : " down"));
    e.service->availability_changed(up);
    for (auto &[id, cp] : conns_) {
        Conn &c = *cp;
        if (c.dead || c.closing || c.service != e.id)
            continue;
        if (c.role == Conn::Role::Watcher) {
            send(c, up ? Kind::ServiceUp : Kind::ServiceGone, e.id, e.instance, 0, 0);
        } else if (c.role == Conn::Role::Bound && !up) {
            send(c, Kind::ServiceDown, e.id, e.instance, c.client, 0);
            c.closing = true;
        }
    }
}

void Router::restart_modem(std::chrono::milliseconds down_for)
{
    uint64_t gen = ++restart_generation_;
    ++h_.counters.restarts;
    h_.note(kLogInfo, "modem restart, services back in " + std::to_string(down_for.count()) + " ms");
    for (auto &e : h_.services.entries())
        set_service(e, false);
    if (peer_.modem_restarted)
        peer_.modem_restarted();
    timers_.add(down_for, [this, gen] {
        if (gen != restart_generation_)
            return; // a later restart owns the timing now
        for (auto &e : h_.services.entries())
            set_service(e, true);
    });
}

/* ---- indications ---- */

size_t Router::indicate(uint32_t service, uint16_t msg_id, const std::vector<uint8_t> &tlvs)
{
    kvn_wire::QmiHeader qh{kvn_wire::kQmiIndication, 0, msg_id, static_cast<uint16_t>(tlvs.size())};
    auto qmi = kvn_wire::encode_qmi(qh, tlvs.data(), tlvs.size());
    size_t n = 0;
    for (auto &[id, cp] : conns_) {
        Conn &c = *cp;
        if (c.dead || c.closing || c.role != Conn::Role::Bound || c.service != service)
            continue;
        send(c, Kind::Qmi, c.service, c.instance, c.client, 0, qmi);
        ++n;
    }
    return peer_.indicate ? n + peer_.indicate(service, msg_id, tlvs) : n;
}

/* ---- loop ---- */

void Router::update_interest()
{
    bool accepting = Clock::now() >= accept_paused_until_;
    set_interest(listen_fd_, kTagListen, accepting ? uint32_t{EPOLLIN} : 0u, &listen_events_);
    set_interest(signal_fd_, kTagSignal, EPOLLIN, &signal_events_);
    for (auto &[id, c] : conns_) {
        if (c->fd < 0 || c->dead)
            continue;
        // A connection whose replies back up is not read (back-pressure).
        uint32_t ev = (wants_input(*c) ? uint32_t{EPOLLIN} : 0u) | (c->pending() > 0 ? uint32_t{EPOLLOUT} : 0u);
        set_interest(c->fd, id, ev, &c->events);
    }
}

void Router::run()
{
    epoll_event evs[64];
    std::vector<std::pair<uint64_t, uint32_t>> ready;
    while (!stopping_) {
        update_interest();
        bool accepting = Clock::now() >= accept_paused_until_;
        // Wake at least once a second while clients are connected (idle
        // timeouts), and when a paused listener may accept again.
        int timeout = timers_.timeout_ms();
        auto cap = [&](int ms) { timeout = timeout < 0 ? ms : std::min(timeout, ms); };
        if (!conns_.empty())
            cap(1000);
        if (!accepting)
            cap(static_cast<int>(limits_.accept_backoff.count()) + 1);
        int n = epoll_wait(epoll_fd_, evs, 64, timeout);
        if (n < 0 && errno != EINTR)
            break;
        timers_.run_due();
        expire_idle();
        if (n <= 0) {
            reap();
            continue;
        }
        ready.clear();
        bool accept_now = false;
        for (int i = 0; i < n; ++i) {
            uint64_t tag = evs[i].data.u64;
            if (tag == kTagListen) {
                accept_now = true;
            } else if (tag == kTagSignal) {
                signalfd_siginfo si;
                if (read(signal_fd_, &si, sizeof si) > 0) {
                    h_.note(kLogInfo, "stopping on signal " + std::to_string(si.ssi_signo));
                    stopping_ = true;
                }
            } else {
                ready.emplace_back(tag, static_cast<uint32_t>(evs[i].events));
            }
        }
        for (auto [tag, re] : ready) {
            if (tag & kTagWatched) {
                // A handler may unwatch any descriptor, so look each one up again.
                auto it = watched_.find(static_cast<int>(tag & 0xFFFFFFFFu));
                if (it != watched_.end()) {
                    FdHandler fn = it->second.fn; // the handler may unwatch itself
                    fn(static_cast<short>(re));
                }
                continue;
            }
            auto it = conns_.find(tag);
            if (it == conns_.end())
                continue;
            Conn &c = *it->second;
            if (!c.dead && (re & EPOLLIN))
                read_from(c);
            else if (!c.dead && (re & (EPOLLHUP | EPOLLERR)) && !(re & EPOLLOUT))
                c.dead = true;
            if (!c.dead && c.pending() > 0) {
                flush(c);
                // Input held back while the output was full goes on now.
                if (!c.dead && !c.in.empty())
                    process_input(c);
            } else if (c.closing && c.pending() == 0) {
                c.dead = true;
            }
        }
        // Replies queued for other connections (notifications, indications)
        // go out now rather than after another wait.
        for (auto &[id, c] : conns_) {
            if (c->dead || c->fd < 0)
                continue;
            if (c->pending() > 0)
                flush(*c);
            else if (c->closing)
                c->dead = true;
        }
        if (accept_now)
            accept_clients();
        reap();
    }
    // Last words: hand out what is already queued (the reply to "stop").
    for (auto &[id, c] : conns_)
        if (!c->dead)
            flush(*c);
    conns_.clear();
}

} // namespace kvn_sim
