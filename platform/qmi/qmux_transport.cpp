// qmux_transport.cpp - the QMUX transports: the modem's character device
// named by $KVN_QMI_DEVICE, opened by this process, or the same device
// through libqmi's qmi-proxy ($KVN_QMI_PROXY=1), which owns the device and
// shares it among its clients (ModemManager, qmicli, us).
//
// One Device per process carries every client: it allocates a client id per
// client handle with CTL Allocate Client Id and gives it back with CTL
// Release Client Id when the handle's channel goes, or at exit for those
// still held. Its reader thread cuts frames (qmux_frame.h) and hands each to
// the channel of its service and client id (an indication with the
// broadcast id to every channel of the service); a frame for an id this
// process does not hold is dropped. The device hanging up, a read error or
// the modem's CTL Sync indication (a modem restart forgets every client id)
// loses every channel: the client handles then fail their pending requests
// and run their error callbacks, and the notifiers report the service gone
// and look for it again.
#include "channel.h"
#include "qmux_frame.h"
#include "transport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace kvn_qmi {
namespace {

using Got = Channel::Got;
using namespace std::chrono_literals;

constexpr uint16_t kCtlGetVersionInfo = 0x0021, kCtlAllocateCid = 0x0022, kCtlReleaseCid = 0x0023,
                   kCtlSync = 0x0027, kCtlProxyOpen = 0xFF00;
constexpr auto kCtlReplyTime = 1000ms;  // a CTL request's answer
constexpr auto kExitReleaseTime = 300ms; // each release at exit, when the modem is slow to answer
constexpr size_t kMaxQueued = 256;       // packets a channel keeps unread; older indications are dropped

class QmuxChannel;

class Device : public std::enable_shared_from_this<Device> {
public:
    // socket: the proxy's connection, written without SIGPIPE when it closed.
    Device(int fd, bool socket) : fd_(fd), socket_(socket) {}
    ~Device() { ::close(fd_); }
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;

    void start() { std::thread([self = shared_from_this()] { self->run(); }).detach(); }
    // Ends the reader (which holds the device) of a device not taken into use.
    void abandon() { ::shutdown(fd_, SHUT_RDWR); }
    bool alive()
    {
        std::lock_guard<std::mutex> lock(mu_);
        return !lost_;
    }

    // One CTL exchange: the response's TLV area, or nothing when no answer
    // with this transaction and message came in time.
    std::optional<std::vector<uint8_t>> ctl(uint16_t msg_id, const std::vector<uint8_t> &tlvs,
                                            std::chrono::milliseconds wait = kCtlReplyTime);
    bool write_frame(const std::vector<uint8_t> &frame);

    // A channel starts or stops receiving the frames of (service, cid); a
    // watcher (cid < 0) receives only the loss of the device.
    void attach(QmuxChannel *ch);
    void detach(QmuxChannel *ch);
    // Gives back the client id (when the modem still knows it).
    void release_cid(uint8_t service, uint8_t cid, std::chrono::milliseconds wait);
    void release_all_at_exit();

private:
    void run();
    void dispatch(qmux::Frame &f);
    void lose_all(bool device_gone);

    const int fd_;
    const bool socket_;
    std::mutex write_mu_;
    std::mutex mu_; // guards what follows
    std::condition_variable cv_;
    bool lost_ = false;
    uint8_t next_txn_ = 1;
    struct CtlWait {
        uint16_t msg_id;
        bool done = false;
        std::vector<uint8_t> tlvs;
    };
    std::map<uint8_t, CtlWait *> ctl_pending_;
    std::multimap<uint8_t, QmuxChannel *> channels_; // by service
};

// One client id of a service on the device, or a notifier's watch of it.
class QmuxChannel final : public Channel {
public:
    QmuxChannel(std::shared_ptr<Device> dev, uint32_t service, int cid, size_t max_sdu)
        : dev_(std::move(dev)), service_(service), cid_(cid), max_sdu_(max_sdu),
          event_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
    }
    ~QmuxChannel() override
    {
        if (dev_) {
            dev_->detach(this);
            bool forgotten;
            {
                std::lock_guard<std::mutex> lock(mu_);
                forgotten = forgotten_;
            }
            if (cid_ >= 0 && !forgotten)
                dev_->release_cid(static_cast<uint8_t>(service_), static_cast<uint8_t>(cid_), kCtlReplyTime);
        }
        if (event_fd_ >= 0)
            ::close(event_fd_);
    }

    bool usable() const { return event_fd_ >= 0; }
    uint32_t service() const { return service_; }
    int cid() const { return cid_; }

    int fd() const override { return event_fd_; }
    using Channel::send;
    bool send(const kvn_wire::Header &h, const uint8_t *payload, size_t len) override
    {
        (void)h;
        if (cid_ < 0 || len > qmux::kMaxLength - qmux::kQmuxHeader || !dev_)
            return false;
        {
            std::lock_guard<std::mutex> lock(mu_);
            if (lost_)
                return false;
        }
        return dev_->write_frame(
            qmux::encode(static_cast<uint8_t>(service_), static_cast<uint8_t>(cid_), payload, len));
    }
    Got receive(kvn_wire::Packet *out, int first_ms, int rest_ms) override
    {
        (void)rest_ms; // packets come whole
        std::unique_lock<std::mutex> lock(mu_);
        auto ready = [&] { return !queue_.empty() || lost_; };
        if (first_ms < 0)
            cv_.wait(lock, ready);
        else
            cv_.wait_for(lock, std::chrono::milliseconds(first_ms), ready);
        if (queue_.empty())
            return lost_ ? Got::Lost : Got::Nothing;
        *out = std::move(queue_.front());
        queue_.pop_front();
        if (queue_.empty() && !lost_) {
            uint64_t v;
            ssize_t n = ::read(event_fd_, &v, sizeof v); // readable again only with news
            (void)n;
        }
        return Got::Packet;
    }
    bool has_packet() const override
    {
        std::lock_guard<std::mutex> lock(mu_);
        return !queue_.empty();
    }
    void shutdown() override { lose(false); }

    // From the device's reader: a service message for this client.
    void deliver(const qmux::Frame &f)
    {
        if (f.sdu.size() > max_sdu_)
            return; // longer than any message of the service
        kvn_wire::Packet p;
        p.hdr.kind = kvn_wire::Kind::Qmi;
        p.hdr.service = service_;
        p.hdr.client = static_cast<uint16_t>(f.cid);
        p.payload = f.sdu;
        push(std::move(p));
    }
    void push(kvn_wire::Packet p)
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (lost_)
            return;
        if (queue_.size() >= kMaxQueued)
            queue_.pop_front();
        queue_.push_back(std::move(p));
        signal();
    }
    // The channel ends; forgotten: the modem no longer knows its client id.
    void lose(bool forgotten)
    {
        std::lock_guard<std::mutex> lock(mu_);
        lost_ = true;
        forgotten_ = forgotten_ || forgotten;
        signal();
    }
    // At exit: the id is given back by the exit handler. The channel itself
    // stays as it is: its client sees nothing of it.
    void mark_released()
    {
        std::lock_guard<std::mutex> lock(mu_);
        forgotten_ = true;
    }

private:
    void signal()
    {
        uint64_t one = 1;
        ssize_t n = ::write(event_fd_, &one, sizeof one);
        (void)n;
        cv_.notify_all();
    }

    const std::shared_ptr<Device> dev_;
    const uint32_t service_;
    const int cid_; // -1: a watcher
    const size_t max_sdu_;
    const int event_fd_;
    mutable std::mutex mu_;
    std::condition_variable cv_;
    std::deque<kvn_wire::Packet> queue_;
    bool lost_ = false;
    bool forgotten_ = false;
};

bool Device::write_frame(const std::vector<uint8_t> &frame)
{
    std::lock_guard<std::mutex> lock(write_mu_);
    size_t done = 0;
    while (done < frame.size()) {
        const uint8_t *p = frame.data() + done;
        const size_t left = frame.size() - done;
        ssize_t n = socket_ ? ::send(fd_, p, left, MSG_NOSIGNAL) : ::write(fd_, p, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno == EAGAIN) {
            pollfd p{fd_, POLLOUT, 0};
            if (::poll(&p, 1, static_cast<int>(kCtlReplyTime.count())) <= 0)
                return false;
            continue;
        }
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

std::optional<std::vector<uint8_t>> Device::ctl(uint16_t msg_id, const std::vector<uint8_t> &tlvs,
                                                std::chrono::milliseconds wait)
{
    CtlWait w{msg_id};
    uint8_t txn;
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (lost_)
            return std::nullopt;
        do {
            txn = next_txn_++;
        } while (txn == 0 || ctl_pending_.count(txn));
        ctl_pending_[txn] = &w;
    }
    const bool sent = write_frame(qmux::encode_ctl(txn, msg_id, tlvs));
    std::unique_lock<std::mutex> lock(mu_);
    if (sent)
        cv_.wait_for(lock, wait, [&] { return w.done || lost_; });
    ctl_pending_.erase(txn);
    if (!w.done)
        return std::nullopt;
    return std::move(w.tlvs);
}

void Device::attach(QmuxChannel *ch)
{
    std::lock_guard<std::mutex> lock(mu_);
    if (lost_)
        ch->lose(true);
    channels_.emplace(static_cast<uint8_t>(ch->service()), ch);
}

void Device::detach(QmuxChannel *ch)
{
    std::lock_guard<std::mutex> lock(mu_);
    for (auto it = channels_.begin(); it != channels_.end(); ++it)
        if (it->second == ch) {
            channels_.erase(it);
            return;
        }
}

void Device::release_cid(uint8_t service, uint8_t cid, std::chrono::milliseconds wait)
{
    const std::vector<uint8_t> tlv{0x01, 0x02, 0x00, service, cid};
    (void)ctl(kCtlReleaseCid, tlv, wait);
}

// The client ids still held when the process exits (a path that never
// released its handles): given back, so a one-shot tool leaks none.
void Device::release_all_at_exit()
{
    std::vector<std::pair<uint8_t, uint8_t>> held;
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (lost_)
            return;
        for (auto &[service, ch] : channels_)
            if (ch->cid() >= 0) {
                held.emplace_back(service, static_cast<uint8_t>(ch->cid()));
                ch->mark_released();
            }
    }
    for (auto [service, cid] : held)
        release_cid(service, cid, kExitReleaseTime);
}

void Device::run()
{
    qmux::Reader reader;
    uint8_t buf[4096];
    for (;;) {
        pollfd p{fd_, POLLIN, 0};
        int rc = ::poll(&p, 1, -1);
        if (rc < 0 && errno == EINTR)
            continue;
        ssize_t n = rc > 0 ? ::read(fd_, buf, sizeof buf) : -1;
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (n <= 0)
            break; // hung up or broken
        reader.feed(buf, static_cast<size_t>(n));
        while (auto f = reader.next())
            dispatch(*f);
    }
    lose_all(true);
}

void Device::dispatch(qmux::Frame &f)
{
    if (f.service == qmux::kCtl && f.flags == qmux::kCtlIndication) {
        if (f.msg_id == kCtlSync)
            lose_all(false);
        return;
    }
    std::lock_guard<std::mutex> lock(mu_);
    if (f.service == qmux::kCtl) {
        auto it = ctl_pending_.find(static_cast<uint8_t>(f.txn));
        if (it == ctl_pending_.end() || it->second->msg_id != f.msg_id)
            return;
        it->second->tlvs.assign(f.sdu.begin() + qmux::kCtlHeader, f.sdu.end());
        it->second->done = true;
        cv_.notify_all();
        return;
    }
    auto [first, last] = channels_.equal_range(f.service);
    for (auto it = first; it != last; ++it) {
        QmuxChannel *ch = it->second;
        if (ch->cid() < 0)
            continue;
        if (ch->cid() == f.cid || (f.cid == qmux::kBroadcast && f.flags == qmux::kIndication))
            ch->deliver(f);
    }
}

// Every channel ends. device_gone: the device itself (its reader stops and
// CTL requests fail); otherwise a modem restart, after which the device
// still works but knows no client id.
void Device::lose_all(bool device_gone)
{
    forget_service_list();
    std::lock_guard<std::mutex> lock(mu_);
    if (device_gone)
        lost_ = true;
    for (auto &[service, ch] : channels_)
        ch->lose(true);
    channels_.clear();
    cv_.notify_all();
}

/* ---- opening the device ---- */

struct Config {
    std::string device;
    bool proxy = false;
};

const Config &config()
{
    static const Config c = [] {
        Config k;
        const char *d = std::getenv("KVN_QMI_DEVICE");
        const char *p = std::getenv("KVN_QMI_PROXY");
        k.device = d ? d : "";
        k.proxy = p && std::strcmp(p, "1") == 0;
        return k;
    }();
    return c;
}

// Says once per process why the device cannot be used.
void say_unusable(const std::string &why)
{
    static std::once_flag once;
    std::call_once(once, [&] { std::fprintf(stderr, "%s: %s\n", config().device.c_str(), why.c_str()); });
}

int open_direct(const std::string &path, std::string *why)
{
    int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        *why = std::strerror(errno);
        return -1;
    }
    termios t{};
    if (::isatty(fd) && ::tcgetattr(fd, &t) == 0) {
        ::cfmakeraw(&t);
        if (::tcsetattr(fd, TCSANOW, &t) != 0) {
            *why = std::string("cannot set raw mode: ") + std::strerror(errno);
            ::close(fd);
            return -1;
        }
    }
    return fd;
}

// Connects to qmi-proxy's abstract socket; the open request follows once
// the reader runs.
int open_proxy(std::string *why)
{
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *why = std::strerror(errno);
        return -1;
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    static const char name[] = "qmi-proxy";
    std::memcpy(addr.sun_path + 1, name, sizeof name - 1);
    const auto len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + sizeof name - 1);
    if (::connect(fd, reinterpret_cast<sockaddr *>(&addr), len) != 0) {
        *why = std::string("qmi-proxy: ") + std::strerror(errno);
        ::close(fd);
        return -1;
    }
    return fd;
}

// The device of the process, opened (again, after a loss) when needed; null
// when it cannot be used.
std::shared_ptr<Device> device()
{
    static std::mutex mu;
    static auto *current = new std::shared_ptr<Device>; // never destroyed: the exit handler uses it
    std::lock_guard<std::mutex> lock(mu);
    if (*current && (*current)->alive())
        return *current;
    const Config &c = config();
    if (c.device.empty()) {
        say_unusable("KVN_QMI_DEVICE names no device");
        return nullptr;
    }
    std::string why;
    const int fd = c.proxy ? open_proxy(&why) : open_direct(c.device, &why);
    if (fd < 0) {
        say_unusable(why);
        return nullptr;
    }
    auto dev = std::make_shared<Device>(fd, c.proxy);
    dev->start();
    if (c.proxy) {
        // Internal Proxy Open: TLV 0x01, the device path (no terminator).
        std::vector<uint8_t> tlv(3 + c.device.size());
        tlv[0] = 0x01;
        kvn_wire::put_u16(&tlv[1], static_cast<uint16_t>(c.device.size()));
        std::memcpy(tlv.data() + 3, c.device.data(), c.device.size());
        auto r = dev->ctl(kCtlProxyOpen, tlv);
        if (!r || !qmux::result_ok(r->data(), r->size())) {
            // The proxy answers a device it cannot open with a failure or by
            // closing the connection.
            say_unusable(r || !dev->alive() ? "qmi-proxy cannot open it" : "qmi-proxy does not answer");
            dev->abandon();
            return nullptr;
        }
    }
    static std::once_flag at_exit;
    std::call_once(at_exit, [] {
        std::atexit([] {
            if (*current)
                (*current)->release_all_at_exit();
        });
    });
    *current = dev;
    return dev;
}

/* ---- the table ---- */

// The services that are up, from CTL Get Version Info (TLV 0x01: u8 count,
// then count x {u8 service, u16 major, u16 minor}); nothing when the device
// or its answer is unusable.
std::optional<std::set<uint8_t>> services_up(Device &dev)
{
    auto r = dev.ctl(kCtlGetVersionInfo, {});
    if (!r || !qmux::result_ok(r->data(), r->size()))
        return std::nullopt;
    auto list = qmux::find_tlv(r->data(), r->size(), 0x01);
    if (!list || list->empty() || list->size() != 1 + 5 * size_t((*list)[0]))
        return std::nullopt;
    std::set<uint8_t> up;
    for (size_t i = 0; i < (*list)[0]; ++i)
        up.insert((*list)[1 + 5 * i]);
    return up;
}

int qmux_connect(qmi_idl_service_object_type svc, uint16_t instance, std::unique_ptr<Channel> *out)
{
    if (svc->service_id > 0xFF || svc->service_id == qmux::kCtl || (instance != 0 && instance != 0xFFFF))
        return QMI_SERVICE_ERR; // no such service on QMUX
    auto dev = device();
    if (!dev)
        return QMI_SERVICE_ERR;
    const auto service = static_cast<uint8_t>(svc->service_id);
    auto r = dev->ctl(kCtlAllocateCid, {0x01, 0x01, 0x00, service});
    if (!r || !qmux::result_ok(r->data(), r->size()))
        return QMI_SERVICE_ERR;
    auto id = qmux::find_tlv(r->data(), r->size(), 0x01);
    if (!id || id->size() != 2 || (*id)[0] != service || (*id)[1] == qmux::kBroadcast)
        return QMI_SERVICE_ERR;
    auto ch = std::make_unique<QmuxChannel>(dev, service, (*id)[1], qmux::kServiceHeader + svc->max_msg_len);
    if (!ch->usable())
        return QMI_SERVICE_ERR; // its destructor gives the id back
    dev->attach(ch.get());
    *out = std::move(ch);
    return QMI_NO_ERR;
}

std::vector<qmi_service_info> qmux_list(uint32_t service_id)
{
    std::vector<qmi_service_info> found;
    if (service_id > 0xFF || service_id == qmux::kCtl)
        return found;
    auto dev = device();
    auto up = dev ? services_up(*dev) : std::nullopt;
    if (up && up->count(static_cast<uint8_t>(service_id)))
        found.push_back(qmi_service_info{service_id, 0, {}});
    return found;
}

// A notifier's watch: SERVICE_UP at once when the service is up; lost with
// the device or at a modem restart, after which the notifier asks again.
// Null while the service is not up, so the notifier asks again later.
std::unique_ptr<Channel> qmux_watch(uint32_t service_id)
{
    if (service_id > 0xFF || service_id == qmux::kCtl)
        return nullptr;
    auto dev = device();
    auto up = dev ? services_up(*dev) : std::nullopt;
    if (!up || !up->count(static_cast<uint8_t>(service_id)))
        return nullptr;
    auto ch = std::make_unique<QmuxChannel>(dev, service_id, -1, 0);
    if (!ch->usable())
        return nullptr;
    dev->attach(ch.get());
    kvn_wire::Packet p;
    p.hdr.kind = kvn_wire::Kind::ServiceUp;
    p.hdr.service = service_id;
    p.hdr.instance = 0;
    ch->push(std::move(p));
    return ch;
}

} // namespace

const Transport &qmux_transport(bool proxy)
{
    static const Transport direct{"qmux", qmux_connect, qmux_list, qmux_watch};
    static const Transport via_proxy{"qmi-proxy", qmux_connect, qmux_list, qmux_watch};
    return proxy ? via_proxy : direct;
}

const Transport &transport()
{
    static const Transport &t = config().device.empty() ? socket_transport() : qmux_transport(config().proxy);
    return t;
}

} // namespace kvn_qmi
