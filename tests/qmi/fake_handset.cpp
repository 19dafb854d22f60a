// fake_handset.cpp - the test stand-in for kvn-sim (see fake_handset.h).
#include "fake_handset.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace fake {

using kvn_wire::Kind;

const std::string &socket_path()
{
    static const std::string path = [] {
        std::string p = "/tmp/kvn-qmi-test-" + std::to_string(getpid()) + ".sock";
        setenv("KVN_SIM_SOCKET", p.c_str(), 1);
        return p;
    }();
    return path;
}

Handset::Handset()
{
    const std::string &path = socket_path();
    ::unlink(path.c_str());
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 ||
        listen(listen_fd_, 64) != 0)
        throw std::runtime_error("fake handset: cannot listen on " + path);
    acceptor_ = std::thread([this] { accept_loop(); });
}

Handset::~Handset()
{
    {
        std::lock_guard<std::mutex> lock(mu_);
        stopping_ = true;
        for (auto &c : conns_)
            ::shutdown(c->fd, SHUT_RDWR);
    }
    ::shutdown(listen_fd_, SHUT_RDWR);
    acceptor_.join();
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(mu_);
        threads.swap(threads_);
    }
    for (auto &t : threads)
        t.join();
    ::close(listen_fd_);
    ::unlink(socket_path().c_str());
}

void Handset::accept_loop()
{
    for (;;) {
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        std::lock_guard<std::mutex> lock(mu_);
        if (fd < 0 || stopping_) {
            if (fd >= 0)
                ::close(fd);
            return;
        }
        auto c = std::make_shared<Conn>();
        c->fd = fd;
        conns_.push_back(c);
        threads_.emplace_back([this, c] { serve(c); });
    }
}

bool Handset::send(Conn &c, const kvn_wire::Header &h, const Bytes &payload)
{
    std::lock_guard<std::mutex> lock(c.write_mu);
    return c.fd >= 0 && kvn_wire::write_packet(c.fd, h, payload);
}

// Each request is looked at under the lock; every answer is sent after it is
// dropped, so a slow reader or a handler that calls back in cannot stall the
// other connections.
void Handset::serve(std::shared_ptr<Conn> c)
{
    while (auto p = kvn_wire::read_packet(c->fd, -1)) {
        kvn_wire::Header r;
        r.service = p->hdr.service;
        r.instance = p->hdr.instance;
        auto answer = [&](Kind kind, uint16_t status, const Bytes &payload) {
            r.kind = kind;
            r.status = status;
            send(*c, r, payload);
        };
        std::unique_lock<std::mutex> lock(mu_);
        const bool up = up_.count(p->hdr.service) > 0;
        switch (p->hdr.kind) {
        case Kind::List: {
            lock.unlock();
            Bytes out(up ? 12 : 4);
            kvn_wire::put_u32(out.data(), up ? 1 : 0);
            if (up) {
                kvn_wire::put_u32(&out[4], p->hdr.service);
                kvn_wire::put_u32(&out[8], 1);
            }
            answer(Kind::ListReply, 0, out);
            break;
        }
        case Kind::Connect:
            if (up) {
                c->role = Conn::Client;
                c->service = p->hdr.service;
                r.client = next_client_++;
            }
            lock.unlock();
            r.instance = 1;
            answer(up ? Kind::ConnectOk : Kind::ConnectFail, up ? 0 : 1, {});
            if (!up)
                ::shutdown(c->fd, SHUT_RDWR);
            break;
        case Kind::Watch:
            c->role = Conn::Watcher;
            c->service = p->hdr.service;
            lock.unlock();
            r.instance = 1;
            if (up)
                answer(Kind::ServiceUp, 0, {});
            break;
        case Kind::Qmi: {
            Handler handler = handler_;
            lock.unlock();
            auto q = kvn_wire::decode_qmi(p->payload.data(), p->payload.size());
            if (!q)
                break;
            Bytes tlvs(p->payload.begin() + kvn_wire::kQmiHeaderSize, p->payload.end());
            auto resp = handler ? handler(p->hdr.service, q->msg_id, tlvs)
                                : std::optional<Bytes>(Bytes{0x02, 0x04, 0x00, 0x00, 0x00, 0x00, 0x00});
            kvn_wire::QmiHeader qh{kvn_wire::kQmiResponse, q->txn, q->msg_id, 0};
            r.client = p->hdr.client;
            if (resp)
                answer(Kind::Qmi, 0, kvn_wire::encode_qmi(qh, resp->data(), resp->size()));
            break;
        }
        case Kind::PropGet: {
            auto it = props_.find(std::string(p->payload.begin(), p->payload.end()));
            const bool found = it != props_.end();
            const Bytes value = found ? Bytes(it->second.begin(), it->second.end()) : Bytes{};
            lock.unlock();
            answer(Kind::PropValue, found ? 0 : 1, value);
            break;
        }
        case Kind::PropSet: {
            auto zero = std::find(p->payload.begin(), p->payload.end(), 0);
            if (zero != p->payload.end())
                props_[std::string(p->payload.begin(), zero)] = std::string(zero + 1, p->payload.end());
            lock.unlock();
            answer(Kind::PropSetResult, zero == p->payload.end(), {});
            break;
        }
        case Kind::Log:
            if (!p->payload.empty()) {
                auto zero = std::find(p->payload.begin() + 1, p->payload.end(), 0);
                log_.push_back({p->payload[0], std::string(p->payload.begin() + 1, zero),
                                zero == p->payload.end() ? "" : std::string(zero + 1, p->payload.end())});
            }
            break;
        case Kind::ConnectOk:
        case Kind::ConnectFail:
        case Kind::ServiceDown:
        case Kind::ListReply:
        case Kind::ServiceUp:
        case Kind::ServiceGone:
        case Kind::PropValue:
        case Kind::PropSetResult:
        case Kind::DevicePath:
        case Kind::DevicePathReply:
        case Kind::Diag:
        case Kind::DiagReply:
        case Kind::Control:
        case Kind::ControlReply:
            break; // not asked of a handset, or not this fake's business
        }
    }
    std::lock_guard<std::mutex> lock(mu_);
    conns_.erase(std::find(conns_.begin(), conns_.end(), c));
    std::lock_guard<std::mutex> wlock(c->write_mu); // no send may use the number once it is closed
    ::close(c->fd);
    c->fd = -1;
}

std::vector<std::shared_ptr<Handset::Conn>> Handset::conns_of(uint32_t service, bool clients_only)
{
    std::vector<std::shared_ptr<Conn>> out;
    for (auto &c : conns_)
        if (c->service == service && (!clients_only || c->role == Conn::Client))
            out.push_back(c);
    return out;
}

void Handset::set_handler(Handler h)
{
    std::lock_guard<std::mutex> lock(mu_);
    handler_ = std::move(h);
}

void Handset::set_up(uint32_t service, bool up)
{
    std::vector<std::shared_ptr<Conn>> targets;
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (up)
            up_.insert(service);
        else
            up_.erase(service);
        targets = conns_of(service, false);
    }
    kvn_wire::Header h;
    h.service = service;
    h.instance = 1;
    for (auto &c : targets) {
        if (c->role == Conn::Watcher) {
            h.kind = up ? Kind::ServiceUp : Kind::ServiceGone;
            send(*c, h, {});
        } else if (c->role == Conn::Client && !up) {
            h.kind = Kind::ServiceDown;
            send(*c, h, {});
            std::lock_guard<std::mutex> lock(mu_);
            ::shutdown(c->fd, SHUT_RDWR);
        }
    }
}

void Handset::drop_clients(uint32_t service)
{
    std::lock_guard<std::mutex> lock(mu_);
    for (auto &c : conns_of(service, true))
        ::shutdown(c->fd, SHUT_RDWR);
}

void Handset::indicate(uint32_t service, uint16_t msg_id, const Bytes &tlvs)
{
    std::vector<std::shared_ptr<Conn>> targets;
    {
        std::lock_guard<std::mutex> lock(mu_);
        targets = conns_of(service, true);
    }
    kvn_wire::QmiHeader qh{kvn_wire::kQmiIndication, 0, msg_id, 0};
    kvn_wire::Header h;
    h.kind = Kind::Qmi;
    h.service = service;
    for (auto &c : targets)
        send(*c, h, kvn_wire::encode_qmi(qh, tlvs.data(), tlvs.size()));
}

size_t Handset::clients(uint32_t service)
{
    std::lock_guard<std::mutex> lock(mu_);
    return conns_of(service, true).size();
}

std::map<std::string, std::string> Handset::properties()
{
    std::lock_guard<std::mutex> lock(mu_);
    return props_;
}

void Handset::set_property(const std::string &key, const std::string &value)
{
    std::lock_guard<std::mutex> lock(mu_);
    props_[key] = value;
}

std::vector<Handset::LogLine> Handset::log()
{
    std::lock_guard<std::mutex> lock(mu_);
    return log_;
}

bool Handset::wait_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace fake
