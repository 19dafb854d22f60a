// qmux_port.cpp - QMUX on a pseudo-terminal: frame reassembly and checks, the
// CTL service, and the hand-over of service requests to the handset's
// services (journalled as the socket's are). Layouts: libqmi's
// qmi-message.c / qmi-enums-private.h for the QMUX and QMI headers, libqmi's
// data/qmi-service-ctl.json and the Gobi 1.0.40 database for CTL.
#include "qmux_port.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "faults.h"
#include "kvn_wire.h"
#include "tlv.h"

namespace kvn_sim {
namespace {

constexpr uint8_t kMarker = 0x01;
constexpr size_t kQmuxHeader = 5;    // length u16, control flags, service, client id
constexpr size_t kCtlHeader = 6;     // flags, u8 transaction, u16 message, u16 TLV length
constexpr size_t kServiceHeader = 7; // flags, u16 transaction, u16 message, u16 TLV length
constexpr uint8_t kFromControlPoint = 0x00, kFromService = 0x80;
constexpr uint8_t kCtlResponse = 0x01, kCtlIndication = 0x02, kServiceResponse = 0x02, kServiceIndication = 0x04;
constexpr uint8_t kServiceCtl = 0x00;
constexpr uint8_t kBroadcastCid = 0xFF; // never handed out

constexpr uint16_t kCtlGetVersionInfo = 0x0021, kCtlAllocateCid = 0x0022, kCtlReleaseCid = 0x0023,
                   kCtlSync = 0x0027;

// QMI errors (libqmi qmi-errors.h).
constexpr uint16_t kErrMalformedMessage = 1, kErrClientIdsExhausted = 5, kErrMissingArgument = 0x11,
                   kErrInvalidServiceType = 31, kErrInvalidClientId = 34;

// Versions the modem reports for its services (CTL Get Version Info); a
// service not listed reports 1.0.
struct ServiceVersion {
    uint8_t service;
    uint16_t major, minor;
};
constexpr ServiceVersion kVersions[] = {
    {kServiceCtl, 1, 5}, {kServiceNas, 1, 25}, {kServiceUim, 1, 46}, {kServiceSar, 1, 0}, {kServiceVs, 1, 0},
};

void put_u16(std::vector<uint8_t> &b, uint16_t v)
{
    b.push_back(static_cast<uint8_t>(v));
    b.push_back(static_cast<uint8_t>(v >> 8));
}

std::vector<uint8_t> failure(uint16_t error)
{
    TlvWriter w;
    w.add_result(1, error);
    return w.take();
}

} // namespace

uint64_t qmux_conn_id(uint8_t service, uint8_t cid) { return (uint64_t{1} << 62) | (uint64_t{service} << 8) | cid; }

/* ---- the terminal ---- */

std::unique_ptr<QmuxPort> QmuxPort::open(Handset &h, Router &r, std::string *err)
{
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
        *err = std::string("no pseudo-terminal: ") + strerror(errno);
        if (master >= 0)
            close(master);
        return nullptr;
    }
    char name[128];
    if (ptsname_r(master, name, sizeof name) != 0) {
        *err = std::string("no pseudo-terminal name: ") + strerror(errno);
        close(master);
        return nullptr;
    }
    // Raw mode on the slave: QMUX bytes pass untouched (no echo, no line
    // editing, no CR/LF mapping). Holding the slave open keeps the master
    // from reporting a hang-up while no client has the device open.
    int slave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios t{};
    if (slave < 0 || tcgetattr(slave, &t) != 0 || (cfmakeraw(&t), tcsetattr(slave, TCSANOW, &t) != 0)) {
        *err = std::string("cannot set up ") + name + ": " + strerror(errno);
        if (slave >= 0)
            close(slave);
        close(master);
        return nullptr;
    }
    return std::unique_ptr<QmuxPort>(new QmuxPort(h, r, master, slave, name));
}

QmuxPort::QmuxPort(Handset &h, Router &r, int master, int slave, std::string path)
    : h_(h), r_(r), master_(master), slave_(slave), path_(std::move(path))
{
    r_.set_peer({[this](uint32_t service, uint16_t msg, const std::vector<uint8_t> &tlvs) {
                     return indicate(service, msg, tlvs);
                 },
                 [this] { modem_restarted(); }});
    rewatch();
}

QmuxPort::~QmuxPort()
{
    r_.set_peer({});
    r_.unwatch(master_);
    close(master_);
    close(slave_);
    h_.counters.qmux_cids = h_.counters.qmux_queued = 0;
}

void QmuxPort::rewatch()
{
    // No reading while the replies back up: the writer's requests wait in
    // the terminal, which blocks the writer once full.
    const short ev = static_cast<short>((out_bytes_ < kOutputHigh ? POLLIN : 0) | (out_.empty() ? 0 : POLLOUT));
    r_.watch(master_, ev, [this](short revents) { on_ready(revents); });
}

void QmuxPort::on_ready(short revents)
{
    if (revents & POLLOUT)
        flush();
    if (!in_.empty())
        take_frames(); // frames held back while the queue was full
    uint8_t buf[4096];
    while ((revents & POLLIN) && out_bytes_ < kOutputHigh) {
        ssize_t n = read(master_, buf, sizeof buf);
        if (n <= 0)
            break;
        in_.insert(in_.end(), buf, buf + n);
        take_frames();
    }
    rewatch();
}

void QmuxPort::feed(std::span<const uint8_t> bytes)
{
    flush();
    in_.insert(in_.end(), bytes.begin(), bytes.end());
    take_frames();
}

// Cuts whole frames off the front of what was read, while the replies do not
// back up. A byte that cannot start a frame (not the marker, or a length out
// of bounds) is skipped, so the reader finds the next frame after line noise.
void QmuxPort::take_frames()
{
    size_t pos = 0, skipped = 0;
    while (out_bytes_ < kOutputHigh && in_.size() - pos >= 1 + kQmuxHeader) {
        const uint8_t *f = in_.data() + pos;
        size_t len = kvn_wire::get_u16(f + 1);
        if (f[0] != kMarker || len < kQmuxHeader + kCtlHeader || len > kMaxQmuxLength) {
            ++pos;
            ++skipped;
            continue;
        }
        if (in_.size() - pos < 1 + len)
            break;
        if (f[3] != kFromControlPoint)
            h_.note(kLogWarn, "qmux: frame with control flags " + std::to_string(f[3]) + " ignored");
        else
            on_frame(f[4], f[5], std::span<const uint8_t>(f + 1 + kQmuxHeader, len - kQmuxHeader));
        pos += 1 + len;
    }
    if (skipped)
        h_.note(kLogWarn, "qmux: " + std::to_string(skipped) + " bytes outside a frame skipped");
    in_.erase(in_.begin(), in_.begin() + static_cast<std::ptrdiff_t>(pos));
    consumed_ += pos;
    if (in_.empty() && in_.capacity() > 2 * kMaxQmuxLength)
        in_.shrink_to_fit();
    // What is left is a frame begun and not whole (unless the queue holds it
    // back): it gets a deadline, counted from its first byte.
    if (!in_.empty() && out_bytes_ < kOutputHigh && partial_armed_ != consumed_) {
        partial_armed_ = consumed_;
        r_.timers().add(kPartialFrame, [this, alive = std::weak_ptr<bool>(alive_), start = consumed_] {
            if (alive.lock())
                expire_partial(start);
        });
    }
}

void QmuxPort::expire_partial(uint64_t start)
{
    if (consumed_ != start || in_.empty())
        return; // that frame was completed meanwhile
    partial_armed_ = UINT64_MAX;
    if (out_bytes_ >= kOutputHigh)
        return; // held back, not partial; re-armed once the queue drains
    h_.note(kLogWarn, "qmux: frame incomplete after " + std::to_string(kPartialFrame.count()) + " ms (" +
                          std::to_string(in_.size()) + " bytes) dropped");
    // Skip its marker and look for the next frame in what followed.
    in_.erase(in_.begin());
    ++consumed_;
    take_frames();
    rewatch();
}

void QmuxPort::send(uint8_t service, uint8_t cid, const std::vector<uint8_t> &sdu)
{
    const size_t size = 1 + kQmuxHeader + sdu.size();
    if (size - 1 > 0xFFFF) {
        h_.note(kLogWarn, "qmux: a reply of " + std::to_string(sdu.size()) + " bytes does not fit a frame; dropped");
        return;
    }
    if (out_bytes_ + size > kOutputMax) {
        ++h_.counters.qmux_dropped;
        if (!dropping_)
            h_.note(kLogWarn, "qmux: terminal not read, " + std::to_string(out_bytes_) +
                                  " bytes waiting; replies dropped until it drains");
        dropping_ = true;
        return;
    }
    std::vector<uint8_t> frame;
    frame.reserve(size);
    frame.push_back(kMarker);
    put_u16(frame, static_cast<uint16_t>(kQmuxHeader + sdu.size()));
    frame.insert(frame.end(), {kFromService, service, cid});
    frame.insert(frame.end(), sdu.begin(), sdu.end());
    out_bytes_ += frame.size();
    out_.push_back(std::move(frame));
    flush();
    rewatch();
}

void QmuxPort::flush()
{
    while (!out_.empty()) {
        const auto &f = out_.front();
        ssize_t n = write(master_, f.data() + out_offset_, f.size() - out_offset_);
        if (n <= 0)
            break;
        out_offset_ += static_cast<size_t>(n);
        out_bytes_ -= static_cast<size_t>(n);
        if (out_offset_ == f.size()) {
            out_.pop_front();
            out_offset_ = 0;
        }
    }
    if (out_.empty()) {
        out_.shrink_to_fit(); // a backlog's memory goes back once it is written
        dropping_ = false;
    }
    h_.counters.qmux_queued = out_bytes_;
}

size_t QmuxPort::cid_count() const
{
    size_t n = 0;
    for (const auto &[service, used] : cids_)
        n += used.count();
    return n;
}

size_t QmuxPort::indicate(uint32_t service, uint16_t msg_id, const std::vector<uint8_t> &tlvs)
{
    auto it = service <= 0xFF ? cids_.find(static_cast<uint8_t>(service)) : cids_.end();
    if (it == cids_.end() || it->second.none())
        return 0;
    send_qmi(it->first, kBroadcastCid, kServiceIndication, 0, msg_id, tlvs);
    return it->second.count();
}

void QmuxPort::modem_restarted()
{
    if (cid_count() == 0)
        return; // nobody to tell
    for (auto &[service, used] : cids_)
        for (unsigned cid = 1; cid < kBroadcastCid; ++cid)
            if (used.test(cid))
                release(service, static_cast<uint8_t>(cid));
    h_.note(kLogInfo, "qmux: modem restart, every client id forgotten");
    std::vector<uint8_t> sync{kCtlIndication, 0};
    put_u16(sync, kCtlSync);
    put_u16(sync, 0);
    send(kServiceCtl, 0, sync); // CTL frames carry client id 0
}

/* ---- routing ---- */

// `sdu` is the QMI header and TLVs. A frame whose QMI header disagrees with
// the QMUX length, or that is not a request, is noted and ignored, as a
// modem drops it.
void QmuxPort::on_frame(uint8_t service, uint8_t cid, std::span<const uint8_t> sdu)
{
    const size_t header = service == kServiceCtl ? kCtlHeader : kServiceHeader;
    if (sdu.size() < header || kvn_wire::get_u16(&sdu[header - 2]) != sdu.size() - header || sdu[0] != 0) {
        h_.note(kLogWarn, "qmux: malformed request to service " + std::to_string(service) + " ignored");
        return;
    }
    if (service == kServiceCtl)
        on_ctl(sdu);
    else
        on_service(service, cid, sdu);
}

void QmuxPort::on_service(uint8_t service, uint8_t cid, std::span<const uint8_t> sdu)
{
    auto it = cids_.find(service);
    if (it == cids_.end() || !it->second.test(cid)) {
        h_.note(kLogWarn, "qmux: request to service " + std::to_string(service) + " from client id " +
                              std::to_string(cid) + ", which it was not given, ignored");
        return;
    }
    const uint16_t txn = kvn_wire::get_u16(&sdu[1]);
    const uint16_t msg = kvn_wire::get_u16(&sdu[3]);
    auto tlvs = sdu.subspan(kServiceHeader);
    h_.journal.record(service, msg, txn, tlvs, Via::Qmux);
    auto *e = h_.services.find(service);
    if (!e || !e->up)
        return; // a service that went down does not answer
    if (const auto *a = h_.replay.answer(service, msg, tlvs)) {
        send_qmi(service, cid, kServiceResponse, txn, msg, a->response);
        // Recorded indications go to this client, or to every client of
        // another service.
        for (const auto &ind : a->indications)
            ind.service == service ? send_qmi(service, cid, kServiceIndication, 0, ind.msg_id, ind.tlvs)
                                   : (void)r_.indicate(ind.service, ind.msg_id, ind.tlvs);
        return;
    }
    // Faults act on the terminal's requests as on the socket's; a terminal
    // cannot be dropped, so Drop leaves the request unanswered like NoReply.
    auto fault = h_.faults.take(service, msg);
    if (fault && (fault->kind == FaultKind::NoReply || fault->kind == FaultKind::Drop))
        return;
    std::vector<uint8_t> area = fault && fault->kind == FaultKind::QmiError
                                    ? e->service->error_reply(msg, static_cast<uint16_t>(fault->value))
                                    : e->service->handle(QmiRequest{qmux_conn_id(service, cid), msg, txn, tlvs});
    if (fault && fault->kind == FaultKind::Truncate)
        area = truncate_inside_tlv(area);
    if (fault && fault->kind == FaultKind::Delay) {
        // Answered later only if the client id is still held then.
        r_.timers().add(std::chrono::milliseconds(fault->value), [this, service, cid, txn, msg, area] {
            auto held = cids_.find(service);
            if (held != cids_.end() && held->second.test(cid))
                send_qmi(service, cid, kServiceResponse, txn, msg, area);
        });
    } else {
        send_qmi(service, cid, kServiceResponse, txn, msg, area);
    }
    h_.run_after_reply();
}

void QmuxPort::send_qmi(uint8_t service, uint8_t cid, uint8_t flags, uint16_t txn, uint16_t msg,
                        const std::vector<uint8_t> &tlvs)
{
    std::vector<uint8_t> out{flags};
    out.reserve(kServiceHeader + tlvs.size());
    put_u16(out, txn);
    put_u16(out, msg);
    put_u16(out, static_cast<uint16_t>(tlvs.size()));
    out.insert(out.end(), tlvs.begin(), tlvs.end());
    send(service, cid, out);
}

void QmuxPort::release(uint8_t service, uint8_t cid)
{
    cids_[service].reset(cid);
    h_.counters.qmux_cids = cid_count();
    if (auto *e = h_.services.find(service))
        e->service->connection_closed(qmux_conn_id(service, cid));
}

/* ---- CTL ---- */

void QmuxPort::on_ctl(std::span<const uint8_t> sdu)
{
    const uint8_t txn = sdu[1];
    const uint16_t msg = kvn_wire::get_u16(&sdu[2]);
    auto area = sdu.subspan(kCtlHeader);
    h_.journal.record(kServiceCtl, msg, txn, area, Via::Qmux);
    auto tlvs = parse_tlvs(area);
    const Tlv *arg = tlvs ? find_tlv(*tlvs, 0x01) : nullptr;
    std::vector<uint8_t> reply;
    TlvWriter ok;
    ok.add_result(0, 0);

    switch (msg) {
    case kCtlGetVersionInfo: {
        // TLV 0x01: u8 count, then {u8 service, u16 major, u16 minor} for CTL
        // and every service that is up and fits QMUX's service byte.
        std::vector<uint8_t> list{0};
        auto add = [&](uint32_t id) {
            ServiceVersion v{static_cast<uint8_t>(id), 1, 0};
            for (const auto &k : kVersions)
                if (k.service == id)
                    v = k;
            list.push_back(v.service);
            put_u16(list, v.major);
            put_u16(list, v.minor);
            ++list[0];
        };
        add(kServiceCtl);
        for (const auto &e : h_.services.entries())
            if (e.id <= 0xFF && e.up)
                add(e.id);
        ok.add(0x01, list.data(), list.size());
        reply = ok.take();
        break;
    }
    case kCtlAllocateCid: {
        // Request TLV 0x01 u8 service; response TLV 0x01 {u8 service, u8 cid}.
        if (!tlvs || (arg && arg->value.size() != 1)) {
            reply = failure(kErrMalformedMessage);
            break;
        }
        if (!arg) {
            reply = failure(kErrMissingArgument);
            break;
        }
        const uint8_t service = arg->value[0];
        auto *e = h_.services.find(service);
        if (service == kServiceCtl || !e || !e->up) {
            reply = failure(kErrInvalidServiceType);
            break;
        }
        auto &used = cids_[service];
        uint8_t cid = 1;
        while (cid < kBroadcastCid && used.test(cid))
            ++cid;
        if (cid == kBroadcastCid) {
            reply = failure(kErrClientIdsExhausted);
            break;
        }
        used.set(cid);
        h_.counters.qmux_cids = cid_count();
        const uint8_t info[2] = {service, cid};
        ok.add(0x01, info, 2);
        reply = ok.take();
        break;
    }
    case kCtlReleaseCid: {
        // Request and response TLV 0x01 {u8 service, u8 cid}.
        if (!tlvs || (arg && arg->value.size() != 2)) {
            reply = failure(kErrMalformedMessage);
            break;
        }
        if (!arg) {
            reply = failure(kErrMissingArgument);
            break;
        }
        auto it = cids_.find(arg->value[0]);
        if (it == cids_.end() || !it->second.test(arg->value[1])) {
            reply = failure(kErrInvalidClientId);
            break;
        }
        release(arg->value[0], arg->value[1]);
        ok.add(0x01, arg->value.data(), 2);
        reply = ok.take();
        break;
    }
    case kCtlSync:
        // Sync: the modem forgets every client id it handed out.
        for (auto &[service, used] : cids_)
            for (unsigned cid = 1; cid < kBroadcastCid; ++cid)
                if (used.test(cid))
                    release(service, static_cast<uint8_t>(cid));
        reply = ok.take();
        break;
    default:
        reply = failure(kQmiErrInvalidQmiCommand);
        break;
    }
    std::vector<uint8_t> out{kCtlResponse, txn};
    put_u16(out, msg);
    put_u16(out, static_cast<uint16_t>(reply.size()));
    out.insert(out.end(), reply.begin(), reply.end());
    send(kServiceCtl, 0, out);
}

} // namespace kvn_sim
