// properties.cpp - host build of Android system properties. Values live in
// the simulated handset's property service. As on a handset, reading costs no
// request: property_get reads the property area the service publishes beside
// its socket, mapped read-only once per process; only when there is no area it
// can trust does it ask over the socket (one PROP_GET exchange). property_set
// is one PROP_SET exchange; the service updates the area before it answers, so
// once property_set returns every reader sees the new value.
#include <cutils/properties.h>

#include "kvn_wire.h"
#include "prop_area_layout.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

namespace pa = prop_area;

// The area this process has mapped, for the socket path it belongs to.
struct Mapping {
    std::string path;
    int fd = -1;
    const void *base = nullptr;
    ~Mapping()
    {
        if (base)
            munmap(const_cast<void *>(base), pa::kFileSize);
        if (fd >= 0)
            close(fd);
    }
    // The daemon holds an exclusive lock on its area while it lives: an area
    // that can be locked was left by one that died or stopped. A daemon that
    // stops marks its area dead, which every lookup reads; only a crash needs
    // the lock, so it is tried on the first lookup and then on every 32nd,
    // not at every trace line.
    unsigned lookups = 0;
    bool writer_alive()
    {
        if (lookups++ % 32 != 0 || flock(fd, LOCK_SH | LOCK_NB) != 0)
            return true;
        flock(fd, LOCK_UN);
        return false;
    }
    const pa::Header &header() const { return *static_cast<const pa::Header *>(base); }
};

std::mutex g_mutex;
// Guarded by g_mutex. Never destroyed: unmapping at exit is work the kernel
// does anyway when the process ends.
std::unique_ptr<Mapping> &g_area = *new std::unique_ptr<Mapping>;

// Maps the area at path when it is trustworthy: a regular file (a link is not
// followed), owned by root or this user, writable by nobody else, with the
// area's size and magic. Null otherwise.
std::unique_ptr<Mapping> map_area(const std::string &path)
{
    int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return nullptr;
    struct stat st {};
    void *base = MAP_FAILED;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && (st.st_uid == 0 || st.st_uid == geteuid()) &&
        !(st.st_mode & (S_IWGRP | S_IWOTH)) && static_cast<size_t>(st.st_size) == pa::kFileSize)
        base = mmap(nullptr, pa::kFileSize, PROT_READ, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED) {
        close(fd);
        return nullptr;
    }
    auto m = std::make_unique<Mapping>();
    m->fd = fd;
    m->base = base;
    m->path = path;
    if (std::memcmp(m->header().magic, pa::kMagic, sizeof pa::kMagic) != 0 || m->header().slot_count != pa::kSlots)
        return nullptr;
    return m;
}

constexpr int kAskService = -2, kUnset = -1;

// Looks key up in the area of the socket at socket_path: the value's length
// (value filled), kUnset, or kAskService when there is no trustworthy area or
// it cannot answer for this key. An area whose daemon has stopped or been
// replaced is dropped and the path opened again; one whose daemon died is
// not trusted.
int area_lookup(const std::string &socket_path, const char *key, size_t klen, char *value)
{
    std::string path = socket_path + ".props";
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_area || g_area->path != path || pa::load(g_area->header().dead, std::memory_order_acquire))
        g_area = map_area(path);
    if (!g_area || !g_area->writer_alive()) {
        g_area.reset();
        return kAskService;
    }
    const pa::Header &h = g_area->header();
    uint32_t used = pa::load(h.used, std::memory_order_acquire);
    const pa::Slot *slots = pa::slots(g_area->base);
    for (uint32_t i = 0; i < used && i < pa::kSlots; ++i) {
        if (slots[i].key_len != klen || std::memcmp(slots[i].key, key, klen) != 0)
            continue;
        size_t len = pa::read_value(slots[i], value);
        return len == pa::kBadValue ? kAskService : static_cast<int>(len);
    }
    return pa::load(h.overflow, std::memory_order_acquire) ? kAskService : kUnset;
}

// How long a property call waits for the handset's reply.
constexpr int kReplyTimeoutMs = 1000;

// Copies src (at most PROPERTY_VALUE_MAX - 1 bytes) into value with a
// terminator and returns the number of bytes copied.
int copy_value(char *value, const char *src, size_t len)
{
    if (len > PROPERTY_VALUE_MAX - 1)
        len = PROPERTY_VALUE_MAX - 1;
    if (len)
        std::memcpy(value, src, len);
    value[len] = '\0';
    return static_cast<int>(len);
}

int copy_default(char *value, const char *default_value)
{
    if (!default_value)
        return copy_value(value, "", 0);
    return copy_value(value, default_value, std::strlen(default_value));
}

} // namespace

// Reads key from the handset's property area, or asks the handset when there
// is none. Anything other than a value found (no handset, timeout, not set,
// over-long key or value) yields the default, as an unset property does on a
// handset.
extern "C" int property_get(const char *key, char *value, const char *default_value)
{
    if (!value)
        return 0;
    if (!key)
        return copy_default(value, default_value);
    size_t klen = std::strlen(key);
    if (klen == 0 || klen > PROPERTY_KEY_MAX - 1)
        return copy_default(value, default_value);

    std::string socket = kvn_wire::default_socket_path();
    char found[PROPERTY_VALUE_MAX];
    int len = area_lookup(socket, key, klen, found);
    if (len == kUnset)
        return copy_default(value, default_value);
    if (len >= 0)
        return copy_value(value, found, static_cast<size_t>(len));

    kvn_wire::Header h;
    h.kind = kvn_wire::Kind::PropGet;
    std::vector<uint8_t> payload(key, key + klen);
    auto reply = kvn_wire::exchange(socket, h, payload, kReplyTimeoutMs);
    if (!reply || reply->hdr.kind != kvn_wire::Kind::PropValue || reply->hdr.status != 0 ||
        reply->payload.size() > PROPERTY_VALUE_MAX - 1)
        return copy_default(value, default_value);
    return copy_value(value, reinterpret_cast<const char *>(reply->payload.data()), reply->payload.size());
}

// Sets key to value on the handset: 0 when it confirms, -1 when nothing
// listens, the reply does not come, the handset refuses, or the key or value
// is too long to be a property.
extern "C" int property_set(const char *key, const char *value)
{
    if (!key)
        return -1;
    if (!value)
        value = "";
    size_t klen = std::strlen(key);
    size_t vlen = std::strlen(value);
    if (klen == 0 || klen > PROPERTY_KEY_MAX - 1 || vlen > PROPERTY_VALUE_MAX - 1)
        return -1;

    std::vector<uint8_t> payload;
    payload.reserve(klen + 1 + vlen);
    payload.insert(payload.end(), key, key + klen);
    payload.push_back(0);
    payload.insert(payload.end(), value, value + vlen);

    kvn_wire::Header h;
    h.kind = kvn_wire::Kind::PropSet;
    auto reply = kvn_wire::exchange(kvn_wire::default_socket_path(), h, payload, kReplyTimeoutMs);
    if (!reply || reply->hdr.kind != kvn_wire::Kind::PropSetResult || reply->hdr.status != 0)
        return -1;
    return 0;
}
