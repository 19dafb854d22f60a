// router.cpp - the poll() loop and packet routing of kvn-sim.
#include "router.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kvn_sim {

using kvn_wire::Header;
using kvn_wire::Kind;

namespace {
constexpr size_t kMaxConnections = 512;
constexpr size_t kMaxPendingOutput = 16u << 20; // a client that stops reading is dropped beyond this
constexpr size_t kReadChunk = 65536;
constexpr int kAndroidLogVerbose = 2, kAndroidLogSilent = 8;
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
    int fd = -1;
    Role role = Role::Fresh;
    uint32_t service = 0; // bound or watched service
    uint16_t instance = 0;
    uint16_t client = 0;
    std::vector<uint8_t> in;
    std::vector<uint8_t> out;
    size_t out_off = 0;
    bool closing = false; // no more input; closed once `out` is written
    bool dead = false;    // close now

    ~Conn()
    {
        if (fd >= 0)
            close(fd);
    }
};

Router::Router(Handset &h, int listen_fd, int signal_fd) : h_(h), listen_fd_(listen_fd), signal_fd_(signal_fd) {}

Router::~Router() = default;

void Router::queue_bytes(Conn &c, const std::vector<uint8_t> &bytes)
{
    if (c.dead)
        return;
    c.out.insert(c.out.end(), bytes.begin(), bytes.end());
    if (c.out.size() - c.out_off > kMaxPendingOutput)
        drop(c, "client does not read its replies");
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
    if (!why.empty())
        h_.note(kLogWarn, "client " + std::to_string(c.id) + " dropped: " + why);
    c.dead = true;
}

void Router::accept_clients()
{
    for (int i = 0; i < 64; ++i) {
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0)
            return;
        if (conns_.size() >= kMaxConnections) {
            close(fd);
            h_.note(kLogWarn, "too many clients, connection refused");
            continue;
        }
        auto c = std::make_unique<Conn>();
        c->id = next_conn_id_++;
        c->fd = fd;
        conns_.emplace(c->id, std::move(c));
    }
}

void Router::read_from(Conn &c)
{
    size_t old = c.in.size();
    c.in.resize(old + kReadChunk);
    ssize_t n = recv(c.fd, c.in.data() + old, kReadChunk, 0);
    if (n < 0) {
        c.in.resize(old);
        if (errno != EAGAIN && errno != EINTR)
            drop(c, "");
        return;
    }
    c.in.resize(old + static_cast<size_t>(n));
    if (n == 0) {
        // The client went away; an incomplete packet it left is just discarded.
        c.dead = true;
        return;
    }
    size_t pos = 0;
    while (!c.dead && !c.closing && c.in.size() - pos >= kvn_wire::kHeaderSize) {
        auto hd = kvn_wire::decode_header(c.in.data() + pos);
        if (!hd) {
            drop(c, "bad packet header (version, kind or length)");
            break;
        }
        if (c.in.size() - pos - kvn_wire::kHeaderSize < hd->length)
            break;
        on_packet(c, *hd, c.in.data() + pos + kvn_wire::kHeaderSize, hd->length);
        pos += kvn_wire::kHeaderSize + hd->length;
    }
    c.in.erase(c.in.begin(), c.in.begin() + static_cast<std::ptrdiff_t>(std::min(pos, c.in.size())));
}

void Router::flush(Conn &c)
{
    while (c.out_off < c.out.size()) {
        ssize_t n = ::send(c.fd, c.out.data() + c.out_off, c.out.size() - c.out_off, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno != EAGAIN)
                c.dead = true;
            return;
        }
        c.out_off += static_cast<size_t>(n);
    }
    c.out.clear();
    c.out_off = 0;
    if (c.closing)
        c.dead = true;
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
        it = conns_.erase(it);
    }
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

// Cuts a response's TLV area inside its last TLV, so the message frame stays
// consistent but a TLV claims more bytes than follow.
static std::vector<uint8_t> truncate_inside_tlv(const std::vector<uint8_t> &area)
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
    std::span<const uint8_t> tlvs(p + kvn_wire::kQmiHeaderSize, q->tlv_len);
    h_.journal.record(c.service, q->msg_id, q->txn, tlvs);
    auto *e = h_.services.find(c.service);
    if (!e || !e->up)
        return;
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
        return;
    }
    queue_bytes(c, bytes);
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
    h_.note(kLogInfo, "modem restart, services back in " + std::to_string(down_for.count()) + " ms");
    for (auto &e : h_.services.entries())
        set_service(e, false);
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
    return n;
}

/* ---- loop ---- */

void Router::run()
{
    std::vector<pollfd> fds;
    std::vector<Conn *> order;
    while (!stopping_) {
        fds.clear();
        order.clear();
        fds.push_back({listen_fd_, POLLIN, 0});
        fds.push_back({signal_fd_, POLLIN, 0});
        for (auto &[id, c] : conns_) {
            short ev = c->closing ? 0 : POLLIN;
            if (c->out.size() > c->out_off)
                ev |= POLLOUT;
            fds.push_back({c->fd, ev, 0});
            order.push_back(c.get());
        }
        size_t first_watched = fds.size();
        for (auto &[fd, w] : watched_)
            fds.push_back({fd, w.events, 0});
        int n = poll(fds.data(), fds.size(), timers_.timeout_ms());
        if (n < 0 && errno != EINTR)
            break;
        timers_.run_due();
        if (n <= 0)
            continue;
        if (fds[1].revents & POLLIN) {
            signalfd_siginfo si;
            if (read(signal_fd_, &si, sizeof si) > 0) {
                h_.note(kLogInfo, "stopping on signal " + std::to_string(si.ssi_signo));
                stopping_ = true;
            }
        }
        for (size_t i = 0; i < order.size(); ++i) {
            Conn &c = *order[i];
            short re = fds[i + 2].revents;
            if (!c.dead && (re & POLLIN))
                read_from(c);
            else if (!c.dead && (re & (POLLHUP | POLLERR)) && !(re & POLLOUT))
                c.dead = true;
            if (!c.dead && c.out.size() > c.out_off)
                flush(c);
            else if (c.closing && c.out.size() == c.out_off)
                c.dead = true;
        }
        for (size_t i = first_watched; i < fds.size(); ++i) {
            // A handler may unwatch any descriptor, so look each one up again.
            auto it = watched_.find(fds[i].fd);
            if (fds[i].revents && it != watched_.end()) {
                FdHandler fn = it->second.fn; // the handler may unwatch itself
                fn(fds[i].revents);
            }
        }
        if (fds[0].revents & POLLIN)
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
