// connection.cpp - a socket connection to the simulated handset (see
// connection.h).
#include "connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace kvn_qmi {

namespace {
constexpr size_t kInitialBuffer = 2048; // the usual packet; grown for larger ones

using Clock = kvn_wire::MonoClock;

// Milliseconds left until deadline for poll(), -1 for no deadline.
int left_ms(const std::optional<Clock::time_point> &deadline)
{
    if (!deadline)
        return -1;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - Clock::now()).count();
    return left <= 0 ? 0 : static_cast<int>(left);
}
} // namespace

std::unique_ptr<Connection> Connection::open() { return open(kvn_wire::default_socket_path()); }

std::unique_ptr<Connection> Connection::open(const std::string &path, std::string *why)
{
    int fd = kvn_wire::connect_unix(path, why);
    if (fd < 0)
        return nullptr;
    return std::unique_ptr<Connection>(new Connection(fd));
}

Connection::~Connection() { ::close(fd_); }

bool Connection::send(const kvn_wire::Header &h, const uint8_t *payload, size_t len)
{
    kvn_wire::Header hd = h;
    hd.length = static_cast<uint32_t>(len);
    uint8_t head[kvn_wire::kHeaderSize];
    kvn_wire::encode_header(hd, head);
    iovec iov[2] = {{head, sizeof head}, {const_cast<uint8_t *>(payload), len}};
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = len ? 2 : 1;
    std::lock_guard<std::mutex> lock(write_mu_);
    ssize_t n;
    do {
        n = ::sendmsg(fd_, &msg, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    if (n < 0)
        return false;
    // A short write (a full socket buffer): the rest the plain way.
    size_t sent = static_cast<size_t>(n);
    if (sent < sizeof head) {
        if (!kvn_wire::write_all(fd_, head + sent, sizeof head - sent))
            return false;
        sent = sizeof head;
    }
    sent -= sizeof head;
    just_sent_.store(true, std::memory_order_relaxed);
    return sent == len || kvn_wire::write_all(fd_, payload + sent, len - sent);
}

bool Connection::has_packet() const
{
    const size_t have = end_ - begin_;
    if (have < kvn_wire::kHeaderSize)
        return false;
    return have - kvn_wire::kHeaderSize >= kvn_wire::get_u32(buf_.get() + begin_ + 12);
}

// Makes room for `need` bytes from begin_ on: moves what is buffered to the
// front, and grows the buffer when it is smaller than need.
void Connection::make_room(size_t need)
{
    if (cap_ - begin_ >= need && end_ < cap_)
        return;
    const size_t have = end_ - begin_;
    if (cap_ < need || !buf_) {
        size_t cap = std::max({need, kInitialBuffer, cap_ * 2});
        auto bigger = std::make_unique_for_overwrite<uint8_t[]>(cap);
        if (have)
            std::memcpy(bigger.get(), buf_.get() + begin_, have);
        buf_ = std::move(bigger);
        cap_ = cap;
    } else if (begin_) {
        std::memmove(buf_.get(), buf_.get() + begin_, have);
    }
    begin_ = 0;
    end_ = have;
}

Channel::Got Connection::receive(kvn_wire::Packet *out, int first_ms, int rest_ms)
{
    std::optional<Clock::time_point> first_deadline, rest_deadline;
    for (;;) {
        const size_t have = end_ - begin_;
        size_t need = kvn_wire::kHeaderSize;
        if (have >= kvn_wire::kHeaderSize) {
            auto h = kvn_wire::decode_header(buf_.get() + begin_);
            if (!h)
                return Got::Lost; // the stream cannot be trusted past a bad header
            need += h->length;
            if (have >= need) {
                out->hdr = *h;
                const uint8_t *p = buf_.get() + begin_ + kvn_wire::kHeaderSize;
                out->payload.assign(p, p + h->length);
                begin_ += need;
                if (begin_ == end_)
                    begin_ = end_ = 0;
                return Got::Packet;
            }
        }
        make_room(need);
        if (!just_sent_.exchange(false, std::memory_order_relaxed)) {
            ssize_t n = ::recv(fd_, buf_.get() + end_, cap_ - end_, MSG_DONTWAIT);
            if (n > 0) {
                end_ += static_cast<size_t>(n);
                continue;
            }
            if (n == 0)
                return Got::Lost;
            if (errno == EINTR)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                return Got::Lost;
        }
        // Nothing there yet: wait for it, as long as this part of the packet may take.
        const bool started = end_ > begin_;
        auto &deadline = started ? rest_deadline : first_deadline;
        const int limit = started ? rest_ms : first_ms;
        if (!deadline && limit >= 0)
            deadline = Clock::now() + std::chrono::milliseconds(limit);
        pollfd pfd{fd_, POLLIN, 0};
        int rc = ::poll(&pfd, 1, limit < 0 ? -1 : left_ms(deadline));
        if (rc < 0 && errno != EINTR)
            return Got::Lost;
        if (rc == 0)
            return started ? Got::Lost : Got::Nothing;
    }
}

void Connection::shutdown() { ::shutdown(fd_, SHUT_RDWR); }

} // namespace kvn_qmi
