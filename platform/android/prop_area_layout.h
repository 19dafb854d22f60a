// prop_area_layout.h - the layout of the property area kvn-sim publishes beside its
// socket ("<socket>.props") and the sequence-lock copy both sides use. The
// daemon is the only writer; clients map the file read-only and read values
// without talking to the daemon.
//
// A slot's key is written once, before the header's `used` count is raised
// past it (release), so a reader that loads `used` (acquire) sees whole keys.
// A value changes under the slot's sequence number: odd while it is being
// written. A reader copies the value between two loads of the number and
// retries when they differ or the first is odd, so it never returns a value
// half old and half new. Every byte of a value is accessed atomically, which
// keeps the copy free of data races for the language and for TSan. The
// ordering comes from the accesses themselves (no standalone fences): the
// writer stores each value word with release, so a reader that loads one of
// them (acquire) also sees the odd number stored before it; the reader's
// acquire loads of the words keep its second load of the number after them.
#pragma once

#include <sched.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace prop_area {

constexpr char kMagic[8] = {'K', 'V', 'N', 'P', 'R', 'O', 'P', '1'};
constexpr uint32_t kSlots = 1024;
constexpr size_t kKeyBytes = 80;   // keys up to 64 bytes
constexpr size_t kValueWords = 24; // values up to 91 bytes (96 bytes of room)

struct Slot {
    uint32_t seq;       // odd while the value is being written
    uint32_t key_len;   // set before the slot is published, then fixed
    uint32_t value_len; // under seq
    uint32_t reserved;
    char key[kKeyBytes];
    uint32_t value[kValueWords]; // under seq, bytes in memory order
};

struct Header {
    char magic[8];
    uint32_t slot_count;
    uint32_t used;     // slots published, raised with release
    uint32_t dead;     // 1 once the daemon that wrote the area has stopped or been replaced
    uint32_t overflow; // 1 when a property did not fit: readers ask the daemon for keys not found
    uint64_t reserved;
};

constexpr size_t kFileSize = sizeof(Header) + kSlots * sizeof(Slot);

inline Slot *slots(void *base) { return reinterpret_cast<Slot *>(static_cast<char *>(base) + sizeof(Header)); }
inline const Slot *slots(const void *base)
{
    return reinterpret_cast<const Slot *>(static_cast<const char *>(base) + sizeof(Header));
}

template <class T> T load(const T &v, std::memory_order o) { return std::atomic_ref<T>(const_cast<T &>(v)).load(o); }
template <class T> void store(T &v, T x, std::memory_order o) { std::atomic_ref<T>(v).store(x, o); }

// Writes value (len <= 91) into a published slot.
inline void write_value(Slot &s, const char *value, size_t len)
{
    uint32_t words[kValueWords] = {};
    std::memcpy(words, value, len);
    uint32_t seq = load(s.seq, std::memory_order_relaxed);
    store(s.seq, seq + 1, std::memory_order_relaxed);
    store(s.value_len, static_cast<uint32_t>(len), std::memory_order_release);
    for (size_t i = 0; i < kValueWords; ++i)
        store(s.value[i], words[i], std::memory_order_release);
    store(s.seq, seq + 2, std::memory_order_release);
}

constexpr size_t kBadValue = static_cast<size_t>(-1);

// How long a slot may stay mid-write before its writer is taken for dead
// (a writer descheduled mid-write comes back well within it).
constexpr auto kStuckLimit = std::chrono::milliseconds(500);

// Copies a consistent value of the slot into out (room for 92 bytes, the
// terminator included) and returns its length. Retries while the writer makes
// progress, yielding the processor when it seems descheduled mid-write;
// kBadValue when the slot stays mid-write past kStuckLimit (its writer died
// there) or holds an impossible length.
inline size_t read_value(const Slot &s, char *out)
{
    uint32_t words[kValueWords];
    uint32_t stuck_at = 0;
    int spins = 0;
    std::chrono::steady_clock::time_point since;
    for (;;) {
        uint32_t before = load(s.seq, std::memory_order_acquire);
        if (before & 1u) {
            spins = before == stuck_at ? spins + 1 : 0;
            stuck_at = before;
            if (spins == 1000)
                since = std::chrono::steady_clock::now();
            if (spins > 1000) {
                if (std::chrono::steady_clock::now() - since > kStuckLimit)
                    return kBadValue;
                sched_yield();
            }
            continue;
        }
        uint32_t len = load(s.value_len, std::memory_order_acquire);
        for (size_t i = 0; i < kValueWords; ++i)
            words[i] = load(s.value[i], std::memory_order_acquire);
        if (load(s.seq, std::memory_order_relaxed) != before)
            continue;
        if (len > 91)
            return kBadValue;
        std::memcpy(out, words, len);
        out[len] = '\0';
        return len;
    }
}

} // namespace prop_area
