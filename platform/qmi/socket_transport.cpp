// socket_transport.cpp - the socket transport: one connection to kvn-sim per
// client handle and notifier, and short exchanges (the service list) on a
// spare connection kept for the next exchange or CONNECT.
#include "connection.h"
#include "transport.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

namespace kvn_qmi {
namespace {

using kvn_wire::Kind;
using Got = Channel::Got;

constexpr int kConnectReplyMs = 1000; // CONNECT -> CONNECT_OK / CONNECT_FAIL
constexpr int kListReplyMs = 1000;    // LIST -> LIST_REPLY
constexpr int kPacketRestMs = 2000;   // rest of a packet once its first byte arrived

// Says once per process, on standard error, that no kvn-sim answered at the
// socket: without it a missing daemon looks like a modem without services.
void say_nobody_answers(const std::string &why)
{
    static std::once_flag once;
    std::call_once(once, [&] { std::fprintf(stderr, "no kvn-sim answers: %s\n", why.c_str()); });
}

std::unique_ptr<Connection> open_connection(const std::string &path)
{
    std::string why;
    auto c = Connection::open(path, &why);
    if (!c)
        say_nobody_answers(why.empty() ? "nothing listens at " + path : why);
    return c;
}

// The connection of the last short request, kept open for the next short
// request or CONNECT to the same socket, so that finding a service and
// connecting to it take one connection instead of one each.
class SpareConnection {
public:
    std::unique_ptr<Connection> take(const std::string &path)
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (path_ != path)
            conn_.reset();
        return std::move(conn_);
    }
    void put(std::unique_ptr<Connection> c, const std::string &path)
    {
        std::lock_guard<std::mutex> lock(mu_);
        conn_ = std::move(c);
        path_ = path;
    }

private:
    std::mutex mu_;
    std::unique_ptr<Connection> conn_;
    std::string path_;
};

SpareConnection &spare()
{
    static SpareConnection *s = new SpareConnection; // never destroyed: the process's exit closes it
    return *s;
}

// Sends one request and reads its first reply, on the spare connection when
// there is one, else (or when the spare turns out closed by the handset) on a
// fresh one. *used gets the connection the exchange went over, reply or not.
std::optional<kvn_wire::Packet> exchange(const kvn_wire::Header &h, int timeout_ms, const std::string &path,
                                         std::unique_ptr<Connection> *used)
{
    for (auto c = spare().take(path);; c = nullptr) {
        const bool reused = c != nullptr;
        if (!c)
            c = open_connection(path);
        if (!c)
            return std::nullopt;
        kvn_wire::Packet p;
        Got got = c->send(h, nullptr, 0) ? c->receive(&p, timeout_ms, kPacketRestMs) : Got::Lost;
        if (got == Got::Lost && reused)
            continue; // a handset that restarted since: once more on a new connection
        *used = std::move(c);
        if (got != Got::Packet)
            return std::nullopt;
        return p;
    }
}

// One CONNECT exchange. QMI_SERVICE_ERR when nothing listens, the service is
// absent or no well-formed answer comes.
int socket_connect(qmi_idl_service_object_type svc, uint16_t instance, std::unique_ptr<Channel> *out)
{
    kvn_wire::Header h;
    h.kind = Kind::Connect;
    h.service = svc->service_id;
    h.instance = instance;
    std::unique_ptr<Connection> c;
    auto reply = exchange(h, kConnectReplyMs, kvn_wire::default_socket_path(), &c);
    if (!reply || reply->hdr.kind != Kind::ConnectOk || reply->hdr.service != svc->service_id)
        return QMI_SERVICE_ERR;
    *out = std::move(c);
    return QMI_NO_ERR;
}

std::vector<qmi_service_info> socket_list(uint32_t service_id)
{
    kvn_wire::Header h;
    h.kind = Kind::List;
    h.service = service_id;
    const std::string path = kvn_wire::default_socket_path();
    std::unique_ptr<Connection> conn;
    auto reply = exchange(h, kListReplyMs, path, &conn);
    std::vector<qmi_service_info> found;
    if (!reply || reply->hdr.kind != Kind::ListReply || reply->payload.size() < 4)
        return found;
    // Only a connection whose reply came as expected serves again.
    spare().put(std::move(conn), path);
    const uint8_t *p = reply->payload.data();
    const size_t n = kvn_wire::get_u32(p);
    if (n > (reply->payload.size() - 4) / 8 || reply->payload.size() != 4 + 8 * n)
        return found;
    for (size_t i = 0; i < n; ++i) {
        qmi_service_info info{};
        info.service_id = kvn_wire::get_u32(p + 4 + 8 * i);
        info.instance = kvn_wire::get_u32(p + 8 + 8 * i);
        if (info.service_id == service_id)
            found.push_back(info);
    }
    return found;
}

std::unique_ptr<Channel> socket_watch(uint32_t service_id)
{
    auto c = open_connection(kvn_wire::default_socket_path());
    if (!c)
        return nullptr;
    kvn_wire::Header h;
    h.kind = Kind::Watch;
    h.service = service_id;
    if (!c->send(h, {}))
        return nullptr;
    return c;
}

} // namespace

const Transport &socket_transport()
{
    static const Transport t{"socket", socket_connect, socket_list, socket_watch};
    return t;
}

} // namespace kvn_qmi
