// kvn_wire.cpp - packet framing and socket helpers shared by the platform
// libraries and kvn-sim.
#include "kvn_wire.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

namespace kvn_wire {

MonoClock::time_point MonoClock::now() noexcept
{
    // A process that goes on reading the clock (a file moved in hundreds of
    // requests) moves to the vDSO after the first reads: by then its two
    // faults cost less than the system calls they save.
    constexpr unsigned kSyscallReads = 32;
    static std::atomic<unsigned> reads{0};
    if (reads.load(std::memory_order_relaxed) >= kSyscallReads)
        return std::chrono::steady_clock::now();
    reads.fetch_add(1, std::memory_order_relaxed);
    timespec ts{};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &ts);
    return time_point(std::chrono::duration_cast<duration>(std::chrono::seconds(ts.tv_sec) +
                                                           std::chrono::nanoseconds(ts.tv_nsec)));
}

bool kind_known(uint8_t k)
{
    switch (static_cast<Kind>(k)) {
    case Kind::Connect:
    case Kind::ConnectOk:
    case Kind::ConnectFail:
    case Kind::Qmi:
    case Kind::ServiceDown:
    case Kind::List:
    case Kind::ListReply:
    case Kind::Watch:
    case Kind::ServiceUp:
    case Kind::ServiceGone:
    case Kind::PropGet:
    case Kind::PropValue:
    case Kind::PropSet:
    case Kind::PropSetResult:
    case Kind::Log:
    case Kind::DevicePath:
    case Kind::DevicePathReply:
    case Kind::Diag:
    case Kind::DiagReply:
    case Kind::Control:
    case Kind::ControlReply:
        return true;
    }
    return false;
}

void encode_header(const Header &h, uint8_t out[kHeaderSize])
{
    out[0] = static_cast<uint8_t>(h.kind);
    out[1] = kVersion;
    put_u16(out + 2, h.instance);
    put_u32(out + 4, h.service);
    put_u16(out + 8, h.client);
    put_u16(out + 10, h.status);
    put_u32(out + 12, h.length);
}

std::optional<Header> decode_header(const uint8_t in[kHeaderSize])
{
    if (in[1] != kVersion || !kind_known(in[0]))
        return std::nullopt;
    Header h;
    h.kind = static_cast<Kind>(in[0]);
    h.instance = get_u16(in + 2);
    h.service = get_u32(in + 4);
    h.client = get_u16(in + 8);
    h.status = get_u16(in + 10);
    h.length = get_u32(in + 12);
    if (h.length > kMaxPayload)
        return std::nullopt;
    return h;
}

std::vector<uint8_t> encode_packet(Header h, const std::vector<uint8_t> &payload)
{
    h.length = static_cast<uint32_t>(payload.size());
    std::vector<uint8_t> out(kHeaderSize + payload.size());
    encode_header(h, out.data());
    if (!payload.empty())
        std::memcpy(out.data() + kHeaderSize, payload.data(), payload.size());
    return out;
}

std::vector<uint8_t> encode_qmi(const QmiHeader &h, const uint8_t *tlvs, size_t tlv_len)
{
    std::vector<uint8_t> out(kQmiHeaderSize + tlv_len);
    out[0] = h.flags;
    put_u16(&out[1], h.txn);
    put_u16(&out[3], h.msg_id);
    put_u16(&out[5], static_cast<uint16_t>(tlv_len));
    if (tlv_len)
        std::memcpy(out.data() + kQmiHeaderSize, tlvs, tlv_len);
    return out;
}

std::optional<QmiHeader> decode_qmi(const uint8_t *payload, size_t len)
{
    if (len < kQmiHeaderSize)
        return std::nullopt;
    QmiHeader h;
    h.flags = payload[0];
    h.txn = get_u16(payload + 1);
    h.msg_id = get_u16(payload + 3);
    h.tlv_len = get_u16(payload + 5);
    if (static_cast<size_t>(h.tlv_len) != len - kQmiHeaderSize)
        return std::nullopt;
    return h;
}

std::string default_socket_path()
{
    const char *s = getenv("KVN_SIM_SOCKET");
    if (s && *s)
        return s;
    const char *rt = getenv("XDG_RUNTIME_DIR");
    if (rt && *rt)
        return std::string(rt) + "/kvn-sim.sock";
    return private_socket_dir() + "/kvn-sim.sock";
}

std::string private_socket_dir()
{
    uid_t uid = geteuid();
    return uid == 0 ? "/run/kvn-sim" : "/tmp/kvn-sim-" + std::to_string(uid);
}

int connect_unix(const std::string &path) { return connect_unix(path, nullptr); }

int connect_unix(const std::string &path, std::string *why)
{
    auto fail = [&](const std::string &reason, int fd) {
        int saved = errno;
        if (fd >= 0)
            close(fd);
        if (why)
            *why = reason;
        errno = saved;
        return -1;
    };
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(addr.sun_path))
        return fail(path.empty() ? "no socket path" : "socket path too long: " + path, -1);
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return fail(std::string("no socket: ") + strerror(errno), -1);
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0)
        return fail(errno == ENOENT || errno == ECONNREFUSED ? "nothing listens at " + path
                                                             : path + ": " + strerror(errno),
                    fd);
    // Only root or this user may stand for the handset: a socket someone
    // else made could answer in its place.
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0)
        return fail(path + ": cannot read the listener's credentials: " + strerror(errno), fd);
    if (cred.uid != 0 && cred.uid != geteuid()) {
        errno = EPERM;
        return fail(path + " belongs to uid " + std::to_string(cred.uid) + ", not root or you", fd);
    }
    return fd;
}

bool write_all(int fd, const void *buf, size_t len)
{
    const auto *p = static_cast<const uint8_t *>(buf);
    while (len > 0) {
        ssize_t n = send(fd, p, len, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool write_packet(int fd, const Header &h, const std::vector<uint8_t> &payload)
{
    auto bytes = encode_packet(h, payload);
    return write_all(fd, bytes.data(), bytes.size());
}

long read_exact(int fd, void *buf, size_t len, int timeout_ms)
{
    using clock = MonoClock;
    auto deadline = clock::now() + std::chrono::milliseconds(timeout_ms < 0 ? 0 : timeout_ms);
    auto *p = static_cast<uint8_t *>(buf);
    size_t got = 0;
    while (got < len) {
        int wait = -1;
        if (timeout_ms >= 0) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now()).count();
            if (left <= 0)
                return -1;
            wait = static_cast<int>(left);
        }
        pollfd pfd{fd, POLLIN, 0};
        int pr = poll(&pfd, 1, wait);
        if (pr < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        if (pr == 0)
            return -1;
        ssize_t n = recv(fd, p + got, len - got, 0);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            return -1;
        }
        if (n == 0)
            return got == 0 ? 0 : -1;
        got += static_cast<size_t>(n);
    }
    return static_cast<long>(len);
}

std::optional<Packet> read_packet(int fd, int timeout_ms)
{
    uint8_t hb[kHeaderSize];
    if (read_exact(fd, hb, kHeaderSize, timeout_ms) != static_cast<long>(kHeaderSize))
        return std::nullopt;
    auto h = decode_header(hb);
    if (!h)
        return std::nullopt;
    Packet p;
    p.hdr = *h;
    p.payload.resize(h->length);
    if (h->length && read_exact(fd, p.payload.data(), h->length, timeout_ms) != static_cast<long>(h->length))
        return std::nullopt;
    return p;
}

std::optional<Packet> exchange(const std::string &path, const Header &h,
                               const std::vector<uint8_t> &payload, int timeout_ms)
{
    int fd = connect_unix(path);
    if (fd < 0)
        return std::nullopt;
    std::optional<Packet> reply;
    if (write_packet(fd, h, payload))
        reply = read_packet(fd, timeout_ms);
    close(fd);
    return reply;
}

} // namespace kvn_wire
