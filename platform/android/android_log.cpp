// android_log.cpp - host build of the Android log writer. Each line is
// formatted here and sent to the simulated handset's log buffer as one LOG
// packet; no reply is awaited and, with nothing listening, the line is
// dropped. Nothing ever goes to the terminal. Kept apart from the property
// code so a test can link its own recording __android_log_print instead.
#include <android/log.h>

#include "kvn_wire.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

// Longest formatted message kept; longer lines are cut, as the handset's
// logger cuts them.
constexpr size_t kMaxMessage = 4068;

} // namespace

extern "C" int __android_log_print(int prio, const char *tag, const char *fmt, ...)
{
    char msg[kMaxMessage + 1];
    msg[0] = '\0';
    if (fmt) {
        va_list ap;
        va_start(ap, fmt);
        int n = std::vsnprintf(msg, sizeof(msg), fmt, ap);
        va_end(ap);
        if (n < 0)
            msg[0] = '\0';
    }
    if (!tag)
        tag = "";
    size_t tlen = std::strlen(tag);
    size_t mlen = std::strlen(msg);

    std::vector<uint8_t> payload;
    payload.reserve(1 + tlen + 1 + mlen);
    payload.push_back(static_cast<uint8_t>(prio));
    payload.insert(payload.end(), tag, tag + tlen);
    payload.push_back(0);
    payload.insert(payload.end(), msg, msg + mlen);
    if (payload.size() > kvn_wire::kMaxPayload)
        payload.resize(kvn_wire::kMaxPayload);

    int fd = kvn_wire::connect_unix(kvn_wire::default_socket_path());
    if (fd < 0)
        return 0;
    kvn_wire::Header h;
    h.kind = kvn_wire::Kind::Log;
    bool ok = kvn_wire::write_packet(fd, h, payload);
    close(fd);
    return ok ? static_cast<int>(mlen) : 0;
}
