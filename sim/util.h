// util.h - small helpers of kvn-sim: hex text, number parsing, whole-file reads
// and crash-safe file replacement (temp file, fsync, rename, fsync of the
// directory), used by every store that keeps state on disk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvn_sim {

using Bytes = std::vector<uint8_t>;

// Lower-case hex, two digits per byte; `sep` between bytes when not '\0'.
std::string to_hex(const uint8_t *p, size_t n, char sep = '\0');
inline std::string to_hex(const Bytes &b, char sep = '\0') { return to_hex(b.data(), b.size(), sep); }

// Parses hex digits, ignoring blanks, ':' and '-' between bytes, and an optional
// leading "0x". nullopt on an odd digit count or any other character.
std::optional<Bytes> from_hex(std::string_view text);

// Decimal or 0x-hexadecimal, no sign, the whole text; nullopt otherwise or
// when the value exceeds max.
std::optional<uint64_t> parse_number(std::string_view text, uint64_t max = UINT64_MAX);

// Reads a whole file of at most max_size bytes. nullopt when it cannot be
// read or is larger (err says why).
std::optional<Bytes> read_file(const std::filesystem::path &p, size_t max_size, std::string *err = nullptr);

// Replaces `target` with `data` so that a crash at any moment leaves either
// the old content or the new one: the bytes go to a fresh file in `tmp_dir`
// (same file system), are fsynced, renamed over the target, and the target's
// directory is fsynced. False with err set on failure (the target unchanged).
bool write_file_atomic(const std::filesystem::path &target, const std::filesystem::path &tmp_dir,
                       const uint8_t *data, size_t len, std::string *err = nullptr);

} // namespace kvn_sim
