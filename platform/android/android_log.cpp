// android_log.cpp - host build of the Android log writer. Each line is
// formatted here and sent to the simulated handset's log buffer as one LOG
// packet; no reply is awaited and, with nothing listening, the line is
// dropped. Nothing ever goes to the terminal. A process keeps one connection
// for its lines (as a handset's logger keeps its socket), opened at the first
// line and again when the handset has closed it, its socket path changed or
// the process is a fork of the one that opened it. Kept apart from the
// property code so a test can link its own recording __android_log_print
// instead.
#include <android/log.h>

#include "kvn_wire.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

// Longest formatted message kept; longer lines are cut, as the handset's
// logger cuts them.
constexpr size_t kMaxMessage = 4068;

// The process's connection for log lines. A fork must not write on its
// parent's connection: the child drops it (fork handlers, so that no line
// costs a getpid call) and opens its own at its first line.
struct LogConnection {
    std::mutex mutex;
    int fd = -1;
    std::string path;
    std::once_flag fork_handlers;

    void reset()
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
    // Sends one packet, on the kept connection when it still takes it, else
    // on a new one.
    bool send(const kvn_wire::Header &h, const std::vector<uint8_t> &payload);
};

LogConnection g_log;

bool LogConnection::send(const kvn_wire::Header &h, const std::vector<uint8_t> &payload)
{
    std::call_once(fork_handlers, [] {
        pthread_atfork([] { g_log.mutex.lock(); }, [] { g_log.mutex.unlock(); },
                       [] {
                           g_log.reset();
                           g_log.mutex.unlock();
                       });
    });
    std::lock_guard<std::mutex> lock(mutex);
    std::string now = kvn_wire::default_socket_path();
    if (fd >= 0 && path != now)
        reset();
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (fd < 0) {
            fd = kvn_wire::connect_unix(now);
            if (fd < 0)
                return false;
            // A handset that stops reading never holds up the tool: a
            // full socket counts as closed.
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
            path = now;
        }
        if (kvn_wire::write_packet(fd, h, payload))
            return true;
        reset(); // the handset closed it (idle, restarted): once more on a new one
    }
    return false;
}

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

    kvn_wire::Header h;
    h.kind = kvn_wire::Kind::Log;
    return g_log.send(h, payload) ? static_cast<int>(mlen) : 0;
}
