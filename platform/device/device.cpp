// device.cpp - host build of the device-path seam. The simulated handset
// offers its character devices (the AT channel) as pseudo-terminals whose
// names change from run to run; a DEVICE_PATH exchange with it
// (platform/qmi/PROTOCOL.md) asks where one is now. With no handset, the
// device down, or an answer that is not a plain absolute path, the caller gets
// a path below /dev/null: nobody, root included, can create a file there, so
// a write fails and nothing appears on the host.
#include <pelmox_device.h>

#include <cstring>
#include <string>
#include <vector>

#include "kvn_wire.h"

namespace {

constexpr int kReplyTimeoutMs = 1000;

// Letters, digits and "/._-" only, absolute, no ".." component: a path that
// can go into a shell command line unquoted and names what it seems to.
bool plain_path(const std::string &p)
{
    if (p.empty() || p[0] != '/' || p.find("/../") != std::string::npos ||
        (p.size() >= 3 && p.compare(p.size() - 3, 3, "/..") == 0))
        return false;
    for (char c : p) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
                  c == '.' || c == '_' || c == '-';
        if (!ok)
            return false;
    }
    return true;
}

bool copy_out(const std::string &p, char *out, size_t out_len)
{
    if (p.size() + 1 > out_len)
        return false;
    std::memcpy(out, p.c_str(), p.size() + 1);
    return true;
}

// The path that cannot be created: /dev/null is not a directory.
void absent(const char *dev, char *out, size_t out_len)
{
    std::string name = "absent";
    if (dev) {
        const char *slash = std::strrchr(dev, '/');
        std::string base = slash ? slash + 1 : dev;
        if (!base.empty() && base != "." && base != ".." && plain_path("/" + base))
            name = base;
    }
    if (!copy_out("/dev/null/" + name, out, out_len) && out_len > 0)
        out[0] = '\0';
}

} // namespace

extern "C" int pelmox_device_path(const char *dev, char *out, size_t out_len)
{
    if (!out || out_len == 0)
        return -1;
    if (!dev || !*dev) {
        absent(dev, out, out_len);
        return -1;
    }
    kvn_wire::Header h;
    h.kind = kvn_wire::Kind::DevicePath;
    std::vector<uint8_t> payload(dev, dev + std::strlen(dev));
    auto reply = kvn_wire::exchange(kvn_wire::default_socket_path(), h, payload, kReplyTimeoutMs);
    if (reply && reply->hdr.kind == kvn_wire::Kind::DevicePathReply && reply->hdr.status == 0) {
        std::string p(reply->payload.begin(), reply->payload.end());
        if (plain_path(p) && copy_out(p, out, out_len))
            return 0;
    }
    absent(dev, out, out_len);
    return -1;
}
