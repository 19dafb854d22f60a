// record.cpp - the $KVN_QMI_RECORD file (see record.h). Each line goes out in
// one write() on a descriptor opened for appending, so lines of concurrent
// threads (and processes) never interleave.
#include "record.h"

#include "kvn_wire.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace kvn_qmi {
namespace {

// The record file's descriptor, opened on first use; -1 when not recording
// or the file cannot be opened (said once on standard error).
int record_fd()
{
    static const int fd = [] {
        const char *path = std::getenv("KVN_QMI_RECORD");
        if (!path || !*path)
            return -1;
        int f = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (f < 0)
            std::fprintf(stderr, "KVN_QMI_RECORD: cannot open %s: %s\n", path, std::strerror(errno));
        return f;
    }();
    return fd;
}

} // namespace

std::string record_line(const char *dir, uint32_t service, const std::vector<uint8_t> &msg)
{
    auto q = kvn_wire::decode_qmi(msg.data(), msg.size());
    if (!q)
        return "";
    static const char digits[] = "0123456789abcdef";
    std::string line = std::string("{\"dir\":\"") + dir + "\",\"service\":" + std::to_string(service) +
                       ",\"msg_id\":" + std::to_string(q->msg_id) + ",\"txn\":" + std::to_string(q->txn) +
                       ",\"tlvs\":[";
    size_t pos = kvn_wire::kQmiHeaderSize;
    bool first = true;
    // TLVs as far as they parse; a cut one ends the list.
    while (msg.size() - pos >= 3) {
        const size_t len = kvn_wire::get_u16(&msg[pos + 1]);
        if (msg.size() - pos - 3 < len)
            break;
        line += first ? "" : ",";
        first = false;
        line += "{\"type\":" + std::to_string(msg[pos]) + ",\"hex\":\"";
        for (size_t i = 0; i < len; ++i) {
            line += digits[msg[pos + 3 + i] >> 4];
            line += digits[msg[pos + 3 + i] & 15];
        }
        line += "\"}";
        pos += 3 + len;
    }
    return line + "]}\n";
}

void record_message(const char *dir, uint32_t service, const std::vector<uint8_t> &msg)
{
    const int fd = record_fd();
    if (fd < 0)
        return;
    const std::string line = record_line(dir, service, msg);
    if (line.empty())
        return;
    ssize_t n;
    do {
        n = ::write(fd, line.data(), line.size()); // one write: appended whole
    } while (n < 0 && errno == EINTR);
}

} // namespace kvn_qmi
