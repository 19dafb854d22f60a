// client.cpp - the client API of qmi_client.h over connections to the
// simulated handset. Each client handle owns one connection; a synchronous
// sender reads its own response on its own thread. The handle's library
// thread (the reader) starts only when it has work: a client's when an error
// callback is registered (the caller wants to hear of the service going away
// while it is idle, so someone must watch the connection) or when a request
// meets an indication; a notifier's on its first wait or callback
// registration. A client with only an indication callback therefore has no
// thread until its first indication: an indication that arrives while such a
// client is idle waits in the connection until the next request meets it,
// then it is delivered, in order, and the reader watches from then on. A
// command that makes one request and exits (most of the tool's) so never
// starts a thread, which costs more than the request itself on a small
// machine. The reader matches responses to waiting senders by transaction id
// and runs every callback of the handle (indications, the service-down error,
// service events of a notifier), so callbacks always run on the library's
// thread. Releasing a handle stops and joins its reader, which is what makes
// "no callback after release returns" hold.
#include <qmi_client.h>

#include "channel.h"
#include "idl_internal.h"
#include "kvn_wire.h"
#include "os_signal.h"
#include "record.h"
#include "transport.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace kvn_qmi {
namespace {

using clock_type = kvn_wire::MonoClock;
using kvn_wire::Kind;
using Got = Channel::Got;

/* ---- timing ---- */

constexpr int kPacketRestMs = 2000;   // rest of a packet once its first byte arrived
constexpr int kInitRetryMs = 20;      // init_instance: pause between attempts
constexpr int kWatchRetryMs = 100;    // notifier: pause between connection attempts

/* ---- one handle ---- */

// A request waiting for its response; lives on the sender's stack and is
// reachable from the reader through Handle::pending_ while the sender waits.
struct Pending {
    uint16_t msg_id = 0;
    bool done = false;
    int status = QMI_NO_ERR;
    std::vector<uint8_t> payload; // the whole QMI service message
};

class Handle : public std::enable_shared_from_this<Handle> {
public:
    enum class Role { Client, Notifier };

    Handle(Role role, qmi_idl_service_object_type svc, std::unique_ptr<Channel> conn, qmi_client_ind_cb ind_cb,
           void *ind_data, qmi_client_os_params *os)
        : role_(role), svc_(svc), ind_cb_(ind_cb), ind_data_(ind_data), os_params_(os), conn_(std::move(conn))
    {
    }
    ~Handle()
    {
        if (wake_fd_ >= 0)
            ::close(wake_fd_);
    }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;

    qmi_idl_service_object_type service() const { return svc_; }
    qmi_client_os_params *os_params() const { return os_params_; }

    // Binds the caller's handle, which callbacks receive. No reader starts
    // here: see the top of this file for when one does.
    void bind(qmi_client_type user)
    {
        std::lock_guard<std::mutex> lock(mu_);
        user_ = user;
    }
    // Starts the reader if it does not run yet (a notifier's first wait).
    void want_reader()
    {
        std::lock_guard<std::mutex> lock(mu_);
        start_reader();
    }

    int send_sync(unsigned msg_id, const void *req, unsigned req_len, void *resp, unsigned resp_len,
                  unsigned timeout_ms);
    void release();
    void set_error_cb(qmi_client_error_cb cb, void *data);
    void set_notify_cb(qmi_client_notify_cb cb, void *data);

private:
    bool start_reader();
    void run();
    void run_client();
    void read_packets(int wait_ms);
    void deliver_indications();
    // The error callback is registered and due (mu_ held).
    bool error_due() const { return dead_ && !err_reported_ && err_cb_; }
    void run_notifier();
    bool wait_readable(int fd, int timeout_ms, bool *readable);
    void wake();
    bool released();
    void connection_lost();
    void on_client_packet(kvn_wire::Packet &p);
    void on_notifier_packet(const kvn_wire::Packet &p);
    void deliver_deferred();
    void service_event(uint16_t instance, qmi_client_notify_event_type ev);
    void notify_initial();
    bool watch_connect();

    const Role role_;
    const qmi_idl_service_object_type svc_;
    const qmi_client_ind_cb ind_cb_;
    void *const ind_data_;
    qmi_client_os_params *const os_params_; // notifier: signalled when the service comes up
    std::unique_ptr<Channel> conn_; // client: fixed; notifier: replaced by the reader under mu_

    std::mutex mu_; // guards everything below
    qmi_client_type user_ = nullptr;    // the caller's handle, passed to callbacks
    int wake_fd_ = -1;                  // eventfd that wakes the reader from its poll; made with the reader
    std::thread reader_;                // started by start_reader(), at most once
    std::thread::id reader_id_;         // set before the reader runs
    std::condition_variable cv_;        // senders: response in, read token free
    std::condition_variable reader_cv_; // reader: something to deliver, senders gone, or released
    bool released_ = false;
    bool dead_ = false;         // client: the service went away or the connection broke
    bool err_reported_ = false; // the error callback has run (it runs once)
    qmi_client_error_cb err_cb_ = nullptr;
    void *err_data_ = nullptr;
    qmi_client_notify_cb notify_cb_ = nullptr;
    void *notify_data_ = nullptr;
    bool initial_notify_ = false; // notifier: the service was up when the callback was registered
    std::set<uint16_t> up_;       // notifier: instances that are up
    std::map<uint16_t, Pending *> pending_;
    int senders_ = 0;                   // synchronous senders waiting for a response
    bool reading_ = false;              // someone holds the read token of the connection
    std::deque<kvn_wire::Packet> inds_; // indications waiting for the reader to deliver them
    uint16_t next_txn_ = 1;
};

// Starts the reader (mu_ held); false when the wake descriptor cannot be made.
// Nothing starts once the handle is released.
bool Handle::start_reader()
{
    if (reader_.joinable() || released_)
        return true;
    if (wake_fd_ < 0)
        wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake_fd_ < 0)
        return false;
    // The reader's first step takes mu_, which the caller holds until
    // reader_id_ is written.
    reader_ = std::thread([self = shared_from_this()] {
        {
            std::lock_guard<std::mutex> lock(self->mu_);
        }
        self->run();
    });
    reader_id_ = reader_.get_id();
    return true;
}

// Wakes the reader from its poll (mu_ held).
void Handle::wake()
{
    if (wake_fd_ < 0)
        return;
    uint64_t one = 1;
    ssize_t n = ::write(wake_fd_, &one, sizeof(one));
    (void)n; // a full counter already means "wake up"
}

bool Handle::released()
{
    std::lock_guard<std::mutex> lock(mu_);
    return released_;
}

// Polls fd (when >= 0) and the wake descriptor (reader only). Returns false
// on a poll error; *readable tells whether fd has data (or hung up).
bool Handle::wait_readable(int fd, int timeout_ms, bool *readable)
{
    pollfd fds[2] = {{wake_fd_, POLLIN, 0}, {fd, POLLIN, 0}};
    const nfds_t n = fd >= 0 ? 2 : 1;
    *readable = false;
    int rc = ::poll(fds, n, timeout_ms);
    if (rc < 0)
        return errno == EINTR;
    if (fds[0].revents) {
        uint64_t v;
        ssize_t r = ::read(wake_fd_, &v, sizeof(v));
        (void)r;
    }
    if (n == 2 && fds[1].revents)
        *readable = true;
    return true;
}

void Handle::run()
{
    if (role_ == Role::Client)
        run_client();
    else
        run_notifier();
}

/* ---- client reader ---- */

// The reader waits for the connection and reads what arrives, except while
// synchronous senders are at work: they read the connection themselves (one
// at a time, holding the read token), saving a thread hop on every request,
// and hand any indication they meet over to the reader, which alone runs
// callbacks. The last sender to leave wakes the reader, which then watches
// the connection again.
void Handle::run_client()
{
    for (;;) {
        bool dead;
        {
            std::unique_lock<std::mutex> lock(mu_);
            reader_cv_.wait(lock, [&] { return released_ || senders_ == 0 || !inds_.empty() || error_due(); });
            if (released_)
                return;
            dead = dead_;
        }
        deliver_deferred();
        deliver_indications();
        {
            std::lock_guard<std::mutex> lock(mu_);
            if (released_)
                return;
            if (senders_ > 0 || !inds_.empty() || error_due())
                continue; // the senders read; or more came while delivering
        }
        bool readable = false;
        wait_readable(dead ? -1 : conn_->fd(), -1, &readable);
        if (!readable)
            continue;
        {
            std::lock_guard<std::mutex> lock(mu_);
            if (released_)
                return;
            if (reading_ || senders_ > 0)
                continue; // a sender reads: the loop top waits until senders are gone
            reading_ = true;
        }
        read_packets(0);
    }
}

// Reads the next packet if one comes within wait_ms, and every whole packet
// buffered behind it, and dispatches them in order; the caller holds the read
// token, which this gives back.
void Handle::read_packets(int wait_ms)
{
    kvn_wire::Packet p;
    Got got = conn_->receive(&p, wait_ms, kPacketRestMs);
    while (got == Got::Packet) {
        on_client_packet(p);
        got = conn_->has_packet() ? conn_->receive(&p, 0, 0) : Got::Nothing;
    }
    if (got == Got::Lost)
        connection_lost();
    std::lock_guard<std::mutex> lock(mu_);
    reading_ = false;
    cv_.notify_all();
}

// Runs the indication callback for every indication read so far, in order.
void Handle::deliver_indications()
{
    for (;;) {
        kvn_wire::Packet p;
        {
            std::lock_guard<std::mutex> lock(mu_);
            if (released_ || inds_.empty())
                return;
            p = std::move(inds_.front());
            inds_.pop_front();
        }
        ind_cb_(user_, kvn_wire::get_u16(p.payload.data() + 3), p.payload.data() + kvn_wire::kQmiHeaderSize,
                static_cast<unsigned>(p.payload.size() - kvn_wire::kQmiHeaderSize), ind_data_);
    }
}

// Marks the client dead and fails every request still waiting with
// QMI_SERVICE_ERR.
// The error callback follows from deliver_deferred() on the reader, which
// runs whenever an error callback is registered.
void Handle::connection_lost()
{
    std::lock_guard<std::mutex> lock(mu_);
    dead_ = true;
    if (std::this_thread::get_id() != reader_id_) {
        reader_cv_.notify_one();
        wake();
    }
    // A response read before the loss (a reply followed at once by
    // SERVICE_DOWN, as when the request itself restarts the modem) stands.
    for (auto &kv : pending_) {
        if (kv.second->done)
            continue;
        kv.second->done = true;
        kv.second->status = QMI_SERVICE_ERR;
    }
    cv_.notify_all();
}

// Runs the error callback once after the service went away, also when it was
// registered only after that.
void Handle::deliver_deferred()
{
    qmi_client_error_cb cb = nullptr;
    void *data = nullptr;
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (released_ || !error_due())
            return;
        err_reported_ = true;
        cb = err_cb_;
        data = err_data_;
    }
    cb(user_, QMI_SERVICE_ERR, data);
}

void Handle::on_client_packet(kvn_wire::Packet &p)
{
    switch (p.hdr.kind) {
    case Kind::ServiceDown:
        connection_lost();
        return;
    case Kind::Qmi:
        break;
    case Kind::Connect:
    case Kind::ConnectOk:
    case Kind::ConnectFail:
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
        return; // not meant for a client connection: ignored
    }
    auto q = kvn_wire::decode_qmi(p.payload.data(), p.payload.size());
    if (!q) {
        connection_lost(); // a payload that does not parse ends the connection
        return;
    }
    record_message(q->flags == kvn_wire::kQmiResponse ? "resp" : "ind", svc_->service_id, p.payload);
    std::lock_guard<std::mutex> lock(mu_);
    if (q->flags == kvn_wire::kQmiResponse) {
        auto it = pending_.find(q->txn);
        if (it == pending_.end() || it->second->msg_id != q->msg_id || it->second->done)
            return; // late (timed out), stray or repeated response: the first one stands
        it->second->payload = std::move(p.payload);
        it->second->done = true;
        cv_.notify_all();
        return;
    }
    if (q->flags != kvn_wire::kQmiIndication || !ind_cb_ || released_)
        return;
    inds_.push_back(std::move(p));
    // Delivered from the top of the reader's loop only, never from here: a
    // callback that sends a request reads on the reader thread, and must not
    // find itself called again from inside that request.
    if (std::this_thread::get_id() != reader_id_) {
        start_reader();
        reader_cv_.notify_one();
        wake();
    }
}

int Handle::send_sync(unsigned msg_id, const void *req, unsigned req_len, void *resp, unsigned resp_len,
                      unsigned timeout_ms)
{
    if (msg_id > 0xFFFF)
        return QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND;
    const auto id = static_cast<uint16_t>(msg_id);
    const auto *entry = qmi_idl_find_message(svc_, QMI_IDL_REQUEST, id);
    if (!entry)
        return QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND;

    Pending p;
    p.msg_id = id;
    std::vector<uint8_t> msg(kvn_wire::kQmiHeaderSize + entry->max_msg_len);
    uint32_t tlv_len = 0;
    int rc = qmi_idl_message_encode(svc_, QMI_IDL_REQUEST, id, req, req_len,
                                    msg.data() + kvn_wire::kQmiHeaderSize, entry->max_msg_len, &tlv_len);
    if (rc != QMI_IDL_LIB_NO_ERR)
        return rc;
    msg.resize(kvn_wire::kQmiHeaderSize + tlv_len);

    uint16_t txn;
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (dead_ || released_)
            return QMI_SERVICE_ERR;
        do {
            txn = next_txn_++;
        } while (txn == 0 || pending_.count(txn));
        pending_[txn] = &p;
        ++senders_;
    }
    msg[0] = kvn_wire::kQmiRequest;
    kvn_wire::put_u16(&msg[1], txn);
    kvn_wire::put_u16(&msg[3], id);
    kvn_wire::put_u16(&msg[5], static_cast<uint16_t>(tlv_len));

    kvn_wire::Header h;
    h.kind = Kind::Qmi;
    h.service = svc_->service_id;
    record_message("req", svc_->service_id, msg);
    bool sent = conn_->send(h, msg);

    const auto deadline = clock_type::now() + std::chrono::milliseconds(timeout_ms);
    std::unique_lock<std::mutex> lock(mu_);
    while (sent && !p.done && !released_) {
        const auto now = clock_type::now();
        if (now >= deadline)
            break;
        if (reading_) {
            cv_.wait_until(lock, deadline, [&] { return p.done || !reading_; });
            continue;
        }
        reading_ = true;
        lock.unlock();
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count() + 1;
        read_packets(static_cast<int>(left));
        lock.lock();
    }
    pending_.erase(txn);
    if (--senders_ == 0)
        reader_cv_.notify_one(); // the reader watches the connection again
    if (!sent)
        return QMI_SERVICE_ERR;
    if (!p.done)
        return QMI_TIMEOUT_ERR;
    if (p.status != QMI_NO_ERR)
        return p.status;
    lock.unlock();

    const size_t body = p.payload.size() - kvn_wire::kQmiHeaderSize;
    return qmi_idl_message_decode(svc_, QMI_IDL_RESPONSE, id, p.payload.data() + kvn_wire::kQmiHeaderSize,
                                  static_cast<uint32_t>(body), resp, resp_len);
}

/* ---- notifier reader ---- */

// Starts watching the service; on success conn_ holds the channel.
bool Handle::watch_connect()
{
    auto c = transport().watch(svc_->service_id);
    if (!c)
        return false;
    std::lock_guard<std::mutex> lock(mu_);
    conn_ = std::move(c);
    return true;
}

// Records a service event and runs the notify callback for it. The instance
// set and the callback are read under one lock, so that a callback registered
// at the same moment sees the event either here or as its initial one, never
// both.
void Handle::service_event(uint16_t instance, qmi_client_notify_event_type ev)
{
    qmi_client_notify_cb cb = nullptr;
    void *data = nullptr;
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (ev == QMI_CLIENT_SERVICE_COUNT_INC)
            up_.insert(instance);
        else
            up_.erase(instance);
        if (!released_) {
            cb = notify_cb_;
            data = notify_data_;
        }
    }
    if (ev == QMI_CLIENT_SERVICE_COUNT_INC)
        os_signal_set(os_params_);
    if (cb)
        cb(user_, svc_, ev, data);
}

void Handle::notify_initial()
{
    qmi_client_notify_cb cb = nullptr;
    void *data = nullptr;
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (released_ || !initial_notify_)
            return;
        initial_notify_ = false;
        cb = notify_cb_;
        data = notify_data_;
    }
    if (cb)
        cb(user_, svc_, QMI_CLIENT_SERVICE_COUNT_INC, data);
}

void Handle::on_notifier_packet(const kvn_wire::Packet &p)
{
    if (p.hdr.service != svc_->service_id)
        return;
    if (p.hdr.kind == Kind::ServiceUp)
        service_event(p.hdr.instance, QMI_CLIENT_SERVICE_COUNT_INC);
    else if (p.hdr.kind == Kind::ServiceGone)
        service_event(p.hdr.instance, QMI_CLIENT_SERVICE_COUNT_DEC);
}

// Keeps a WATCH connection open for as long as the notifier lives: when the
// handset is not there yet, or goes away, it tries again every
// kWatchRetryMs, so a handset started later is still noticed.
void Handle::run_notifier()
{
    for (;;) {
        int fd = -1;
        {
            std::lock_guard<std::mutex> lock(mu_);
            if (released_)
                return;
            if (conn_)
                fd = conn_->fd();
        }
        notify_initial();
        if (fd < 0) {
            if (!watch_connect()) {
                bool readable;
                wait_readable(-1, kWatchRetryMs, &readable);
            }
            continue;
        }
        bool readable = false;
        wait_readable(fd, -1, &readable);
        if (!readable || released())
            continue;
        auto p = conn_->receive(kPacketRestMs);
        if (p) {
            on_notifier_packet(*p);
            continue;
        }
        // The handset went away: every instance it had is gone with it.
        std::set<uint16_t> gone;
        {
            std::lock_guard<std::mutex> lock(mu_);
            gone = up_;
            conn_.reset();
        }
        for (uint16_t instance : gone)
            service_event(instance, QMI_CLIENT_SERVICE_COUNT_DEC);
    }
}

/* ---- registration and release ---- */

// Registering an error callback starts a client's reader: the service may go
// away while the caller is idle, and the report must not wait for a request.
void Handle::set_error_cb(qmi_client_error_cb cb, void *data)
{
    std::lock_guard<std::mutex> lock(mu_);
    err_cb_ = cb;
    err_data_ = data;
    if (cb)
        start_reader();
    reader_cv_.notify_one();
    wake();
}

void Handle::set_notify_cb(qmi_client_notify_cb cb, void *data)
{
    std::lock_guard<std::mutex> lock(mu_);
    notify_cb_ = cb;
    notify_data_ = data;
    initial_notify_ = cb && !up_.empty();
    if (cb)
        start_reader();
    wake();
}

// Stops the reader and waits for it, so no callback runs once this returns.
// Called from one of the handle's own callbacks, it cannot wait for itself:
// the reader is detached instead and ends after that callback returns
// without starting another.
void Handle::release()
{
    std::thread reader;
    {
        std::lock_guard<std::mutex> lock(mu_);
        released_ = true;
        dead_ = true;
        for (auto &kv : pending_) {
            kv.second->done = true;
            kv.second->status = QMI_SERVICE_ERR;
        }
        cv_.notify_all();
        reader_cv_.notify_one();
        if (conn_)
            conn_->shutdown();
        wake();
        reader = std::move(reader_); // no reader starts once released_ is set
    }
    if (!reader.joinable())
        return;
    if (reader.get_id() == std::this_thread::get_id())
        reader.detach();
    else
        reader.join();
}

/* ---- notifiers waiting to be started ---- */

// The notifiers of the process by their OS parameter block, so that a wait on
// a block starts the notifiers that signal it.
class NotifierTable {
public:
    void add(const std::shared_ptr<Handle> &h)
    {
        if (!h->os_params())
            return;
        std::lock_guard<std::mutex> lock(mu_);
        table_.emplace(h->os_params(), h);
    }
    void remove(const Handle *h)
    {
        std::lock_guard<std::mutex> lock(mu_);
        for (auto it = table_.begin(); it != table_.end();)
            it = it->second.lock().get() == h || it->second.expired() ? table_.erase(it) : std::next(it);
    }
    void start(qmi_client_os_params *os)
    {
        std::vector<std::shared_ptr<Handle>> found;
        {
            std::lock_guard<std::mutex> lock(mu_);
            auto [first, last] = table_.equal_range(os);
            for (auto it = first; it != last; ++it)
                if (auto h = it->second.lock())
                    found.push_back(std::move(h));
        }
        for (auto &h : found)
            h->want_reader();
    }

private:
    std::mutex mu_;
    std::multimap<qmi_client_os_params *, std::weak_ptr<Handle>> table_;
};

NotifierTable &notifiers()
{
    static NotifierTable *table = new NotifierTable; // never destroyed: waits may run during exit
    return *table;
}

/* ---- the service list ---- */

// The reply of the last service-list exchange, kept for the one call that
// follows it when that call is the second half of the count-then-list
// pattern (same service object, now with an array): the two calls then make
// one exchange. Another list call, a wait or the loss of the modem (QMUX)
// in between drops it, so a list never outlives the moment it describes.
struct ListCache {
    std::mutex mu;
    qmi_idl_service_object_type svc = nullptr; // null: nothing kept
    std::vector<qmi_service_info> found;
};

ListCache &list_cache()
{
    static ListCache *c = new ListCache; // never destroyed: waits may run during exit
    return *c;
}

} // namespace

void forget_service_list()
{
    auto &c = list_cache();
    std::lock_guard<std::mutex> lock(c.mu);
    c.svc = nullptr;
}

std::vector<qmi_service_info> service_list(qmi_idl_service_object_type svc, bool with_array)
{
    auto &c = list_cache();
    {
        std::lock_guard<std::mutex> lock(c.mu);
        const bool hit = with_array && c.svc == svc;
        c.svc = nullptr;
        if (hit)
            return std::move(c.found);
    }
    auto found = transport().list(svc->service_id);
    if (!with_array) {
        std::lock_guard<std::mutex> lock(c.mu);
        c.svc = svc;
        c.found = found;
    }
    return found;
}

void notifiers_wanted(qmi_client_os_params *os)
{
    if (os)
        notifiers().start(os);
}

} // namespace kvn_qmi

// The opaque handle of qmi_client.h.
struct qmi_client_struct {
    std::shared_ptr<kvn_qmi::Handle> h;
};

namespace {

int make_handle(kvn_qmi::Handle::Role role, qmi_idl_service_object_type svc,
                std::unique_ptr<kvn_qmi::Channel> conn, qmi_client_ind_cb ind_cb, void *ind_data,
                qmi_client_os_params *os, qmi_client_type *out)
{
    auto h = std::make_shared<kvn_qmi::Handle>(role, svc, std::move(conn), ind_cb, ind_data, os);
    auto user = std::make_unique<qmi_client_struct>(qmi_client_struct{h});
    h->bind(user.get());
    if (role == kvn_qmi::Handle::Role::Notifier)
        kvn_qmi::notifiers().add(h);
    *out = user.release();
    return QMI_NO_ERR;
}

} // namespace

/* ---- public interface ---- */

// The notifier connects (and keeps reconnecting) on its own thread, which
// starts on the first wait on os_params or callback registration; a handset
// that is not running yet is not an error for a notifier.
extern "C" qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type service_obj,
                                                          qmi_client_os_params *os_params,
                                                          qmi_client_type *user_handle)
{
    if (!service_obj || !user_handle)
        return QMI_INTERNAL_ERR;
    return make_handle(kvn_qmi::Handle::Role::Notifier, service_obj, nullptr, nullptr, nullptr, os_params,
                       user_handle);
}

extern "C" qmi_client_error_type qmi_client_get_service_list(qmi_idl_service_object_type service_obj,
                                                             qmi_service_info *service_info_array,
                                                             unsigned int *num_entries,
                                                             unsigned int *num_services)
{
    if (!service_obj || !num_services || (service_info_array && !num_entries))
        return QMI_INTERNAL_ERR;
    *num_services = 0;
    const std::vector<qmi_service_info> found = kvn_qmi::service_list(service_obj, service_info_array != nullptr);
    *num_services = static_cast<unsigned>(found.size());
    if (service_info_array) {
        const size_t n = std::min<size_t>(*num_entries, found.size());
        for (size_t i = 0; i < n; ++i)
            service_info_array[i] = found[i];
        *num_entries = static_cast<unsigned>(n);
    }
    return found.empty() ? QMI_SERVICE_ERR : QMI_NO_ERR;
}

extern "C" qmi_client_error_type qmi_client_init(qmi_service_info *service_info,
                                                 qmi_idl_service_object_type service_obj,
                                                 qmi_client_ind_cb ind_cb, void *ind_cb_data,
                                                 qmi_client_os_params *os_params,
                                                 qmi_client_type *user_handle)
{
    (void)os_params; // the reader thread does the waiting a handset's library uses it for
    if (!service_info || !service_obj || !user_handle)
        return QMI_INTERNAL_ERR;
    std::unique_ptr<kvn_qmi::Channel> conn;
    int rc = kvn_qmi::transport().connect(service_obj, static_cast<uint16_t>(service_info->instance), &conn);
    if (rc != QMI_NO_ERR)
        return rc;
    return make_handle(kvn_qmi::Handle::Role::Client, service_obj, std::move(conn), ind_cb, ind_cb_data,
                       nullptr, user_handle);
}

// Tries to connect until the service is there or timeout_ms has passed (at
// least once). Ends in QMI_TIMEOUT_ERR when the time ran out, or in
// QMI_SERVICE_ERR when timeout_ms was 0 and the one attempt failed.
extern "C" qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type service_obj,
                                                          qmi_service_instance instance_id,
                                                          qmi_client_ind_cb ind_cb, void *ind_cb_data,
                                                          qmi_client_os_params *os_params, uint32_t timeout_ms,
                                                          qmi_client_type *user_handle)
{
    (void)os_params;
    if (!service_obj || !user_handle)
        return QMI_INTERNAL_ERR;
    const auto deadline = kvn_qmi::clock_type::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        std::unique_ptr<kvn_qmi::Channel> conn;
        if (kvn_qmi::transport().connect(service_obj, instance_id, &conn) == QMI_NO_ERR)
            return make_handle(kvn_qmi::Handle::Role::Client, service_obj, std::move(conn), ind_cb, ind_cb_data,
                               nullptr, user_handle);
        const auto now = kvn_qmi::clock_type::now();
        if (now >= deadline)
            return timeout_ms ? QMI_TIMEOUT_ERR : QMI_SERVICE_ERR;
        std::this_thread::sleep_for(
            std::min<kvn_qmi::clock_type::duration>(deadline - now, std::chrono::milliseconds(kvn_qmi::kInitRetryMs)));
    }
}

extern "C" qmi_client_error_type qmi_client_send_msg_sync(qmi_client_type user_handle, unsigned int msg_id,
                                                          void *req_c_struct, unsigned int req_c_struct_len,
                                                          void *resp_c_struct, unsigned int resp_c_struct_len,
                                                          unsigned int timeout_msecs)
{
    if (!user_handle)
        return QMI_INTERNAL_ERR;
    return user_handle->h->send_sync(msg_id, req_c_struct, req_c_struct_len, resp_c_struct, resp_c_struct_len,
                                     timeout_msecs);
}

extern "C" qmi_client_error_type qmi_client_release(qmi_client_type user_handle)
{
    if (!user_handle)
        return QMI_INTERNAL_ERR;
    // The reader is stopped and joined before the caller's handle goes: a
    // callback still running may use that handle (to decode, say).
    user_handle->h->release();
    kvn_qmi::notifiers().remove(user_handle->h.get());
    delete user_handle;
    return QMI_NO_ERR;
}

extern "C" qmi_client_error_type qmi_client_register_error_cb(qmi_client_type user_handle,
                                                              qmi_client_error_cb err_cb, void *err_cb_data)
{
    if (!user_handle)
        return QMI_INTERNAL_ERR;
    user_handle->h->set_error_cb(err_cb, err_cb_data);
    return QMI_NO_ERR;
}

extern "C" qmi_client_error_type qmi_client_register_notify_cb(qmi_client_type user_handle,
                                                               qmi_client_notify_cb notify_cb,
                                                               void *notify_cb_data)
{
    if (!user_handle)
        return QMI_INTERNAL_ERR;
    user_handle->h->set_notify_cb(notify_cb, notify_cb_data);
    return QMI_NO_ERR;
}

extern "C" qmi_client_error_type qmi_client_message_decode(qmi_client_type user_handle,
                                                           qmi_idl_type_of_message_type req_resp_ind,
                                                           unsigned int message_id, const void *msg_buf,
                                                           unsigned int msg_buf_len, void *msg_c_struct,
                                                           unsigned int msg_c_struct_len)
{
    if (!user_handle)
        return QMI_INTERNAL_ERR;
    if (message_id > 0xFFFF)
        return QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND;
    return qmi_idl_message_decode(user_handle->h->service(), req_resp_ind, static_cast<uint16_t>(message_id),
                                  msg_buf, msg_buf_len, msg_c_struct, msg_c_struct_len);
}
