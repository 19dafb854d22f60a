// diag.cpp - host build of the maker's diag library. Each send is one DIAG
// exchange with the simulated handset's diag responder on a fresh connection
// to its socket (platform/qmi/PROTOCOL.md): the mode, whether a result is
// wanted, and the request bytes go out; the responder's DIAG_REPLY comes back.
#include <pelmox_diag.h>

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include "kvn_wire.h"

namespace {

// How long the forms without a result wait for the responder to take the
// request; they have no time-out argument of their own.
constexpr int kAcceptTimeoutMs = 2000;

enum class Mode : uint8_t { Callback = 0, Dci = 1 };

constexpr uint8_t kWithResult = 0x01;

// Sends one request; copies the reply into rsp (capacity *rsp_len) when rsp is
// not null. timeout_ms bounds the wait for the reply.
int send_diag(Mode mode, const uint8_t *cmd, uint32_t cmd_len, int timeout_ms, uint8_t *rsp, uint32_t *rsp_len)
{
    if (!cmd || cmd_len == 0 || cmd_len > kvn_wire::kMaxPayload - 2)
        return PELMOX_DIAG_ERR_PARAM;
    if ((rsp == nullptr) != (rsp_len == nullptr))
        return PELMOX_DIAG_ERR_PARAM;
    std::vector<uint8_t> payload;
    payload.reserve(cmd_len + 2);
    payload.push_back(static_cast<uint8_t>(mode));
    payload.push_back(rsp ? kWithResult : 0);
    payload.insert(payload.end(), cmd, cmd + cmd_len);

    int fd = kvn_wire::connect_unix(kvn_wire::default_socket_path());
    if (fd < 0)
        return PELMOX_DIAG_ERR_UNAVAILABLE;
    kvn_wire::Header h;
    h.kind = kvn_wire::Kind::Diag;
    std::optional<kvn_wire::Packet> reply;
    bool written = kvn_wire::write_packet(fd, h, payload);
    if (written)
        reply = kvn_wire::read_packet(fd, timeout_ms);
    close(fd);
    if (!written)
        return PELMOX_DIAG_ERR_UNAVAILABLE;
    if (!reply)
        return PELMOX_DIAG_ERR_TIMEOUT;
    if (reply->hdr.kind != kvn_wire::Kind::DiagReply || reply->hdr.status == 1)
        return PELMOX_DIAG_ERR_UNAVAILABLE;
    if (reply->hdr.status != 0)
        return PELMOX_DIAG_ERR_REFUSED;
    if (rsp) {
        size_t n = std::min<size_t>(reply->payload.size(), *rsp_len);
        if (n)
            std::memcpy(rsp, reply->payload.data(), n);
        *rsp_len = static_cast<uint32_t>(n);
    }
    return 0;
}

int with_result(Mode mode, const uint8_t *cmd, uint32_t cmd_len, uint32_t time_out_ms, uint8_t *rsp,
                uint32_t *rsp_len)
{
    if (!rsp || !rsp_len)
        return PELMOX_DIAG_ERR_PARAM;
    // A time-out beyond INT_MAX ms is as good as none.
    int t = time_out_ms > 0x7FFFFFFFu ? 0x7FFFFFFF : static_cast<int>(time_out_ms);
    return send_diag(mode, cmd, cmd_len, t, rsp, rsp_len);
}

} // namespace

extern "C" int pelmox_diag_cmd_send_with_result_by_callback_mode(const uint8_t *cmd, uint32_t cmd_len,
                                                                 uint32_t time_out_ms, uint8_t *rsp,
                                                                 uint32_t *rsp_len)
{
    return with_result(Mode::Callback, cmd, cmd_len, time_out_ms, rsp, rsp_len);
}

extern "C" int pelmox_diag_cmd_send_without_result_by_callback_mode(const uint8_t *cmd, uint32_t cmd_len)
{
    return send_diag(Mode::Callback, cmd, cmd_len, kAcceptTimeoutMs, nullptr, nullptr);
}

extern "C" int pelmox_diag_cmd_send_with_result_by_dci_mode(const uint8_t *cmd, uint32_t cmd_len,
                                                            uint32_t time_out_ms, uint8_t *rsp, uint32_t *rsp_len)
{
    return with_result(Mode::Dci, cmd, cmd_len, time_out_ms, rsp, rsp_len);
}

extern "C" int pelmox_diag_cmd_send_without_result_by_dci_mode(const uint8_t *cmd, uint32_t cmd_len)
{
    return send_diag(Mode::Dci, cmd, cmd_len, kAcceptTimeoutMs, nullptr, nullptr);
}
