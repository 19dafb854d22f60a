// properties.cpp - host build of Android system properties. Values live in
// the simulated handset's property service; each call is one PROP_GET or
// PROP_SET exchange on a fresh connection to its socket.
#include <cutils/properties.h>

#include "kvn_wire.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

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

// Asks the handset for key. Anything other than a well-formed "found" reply
// (no listener, timeout, not set, over-long key or value) yields the default,
// as an unset property does on a handset.
extern "C" int property_get(const char *key, char *value, const char *default_value)
{
    if (!value)
        return 0;
    if (!key)
        return copy_default(value, default_value);
    size_t klen = std::strlen(key);
    if (klen == 0 || klen > PROPERTY_KEY_MAX - 1)
        return copy_default(value, default_value);

    kvn_wire::Header h;
    h.kind = kvn_wire::Kind::PropGet;
    std::vector<uint8_t> payload(key, key + klen);
    auto reply = kvn_wire::exchange(kvn_wire::default_socket_path(), h, payload, kReplyTimeoutMs);
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
