// util.h - small helpers of kvn-sim: hex text, number parsing, owned
// descriptors, whole-file reads, directories opened beneath a root without
// following symbolic links, and crash-safe file replacement (temp file, fsync,
// rename, fsync of the directory), used by every store that keeps state on disk.
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

// True when `text` is well-formed UTF-8 (what a JSON string may carry).
bool is_utf8(std::string_view text);

// An owned file descriptor, closed when the object goes away.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd &&o) noexcept : fd_(o.fd_) { o.fd_ = -1; }
    UniqueFd &operator=(UniqueFd &&o) noexcept;
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void reset(int fd = -1);

private:
    int fd_;
};

// Reads a whole regular file of at most max_size bytes. The file is opened
// without blocking (a FIFO or device is refused, never waited on); with
// `nofollow` a symbolic link in the last component is refused too. nullopt
// when it cannot be read, is not a regular file or is larger (err says why).
std::optional<Bytes> read_file(const std::filesystem::path &p, size_t max_size, std::string *err = nullptr,
                               bool nofollow = false);
// The same for `name` in the directory `dir`, never following a link.
std::optional<Bytes> read_file_at(int dir, const std::string &name, size_t max_size, std::string *err = nullptr);

// Opens the directory `rel` ("a/b/c", relative) beneath the directory `base`
// one component at a time, refusing "." and "..", and never following a
// symbolic link; with `create`, missing components are made. An invalid
// UniqueFd with errno set on failure.
UniqueFd open_dir_beneath(int base, std::string_view rel, bool create);

// Opens the directory at `path` (creating it, mode 0700, when missing and
// `create` is set; its parents are made as needed) and checks that it is
// this process's own: a directory owned by the effective uid and not
// writable by group or others. Anything more than owner-only is then taken
// away (0700). An invalid UniqueFd with err set to the reason otherwise.
UniqueFd open_private_dir(const std::filesystem::path &path, bool create, std::string *err);

// Opens `name` in the directory `dir` for appending, never through a link,
// creating it with mode 0600 whatever the umask. -1 with errno set on failure.
int open_append_at(int dir, const std::string &name);

// Prefix of kvn-sim's temp file names; only such files are cleared at start.
inline constexpr std::string_view kTempPrefix = "kvn-sim-w-";

class FsyncQueue;

// Replaces `name` in the directory `dir` with `data` so that a crash at any
// moment leaves either the old content or the new one: the bytes go to a new
// file of an unpredictable name in `tmp_dir` (created with O_EXCL|O_NOFOLLOW,
// same file system), are fsynced, renamed over the target (a link there is
// replaced, never followed), and the directory is fsynced. False with err set
// on failure (the target unchanged).
// With `later`, the two fsyncs are left to that queue: the new content is in
// place when this returns (a killed process leaves it whole), and on the disk
// once the queue has flushed it; the file system's ordering of a rename over
// a written file (ext4's default, for one) keeps old-or-new across a power
// loss in between.
bool write_file_atomic_at(int dir, const std::string &name, int tmp_dir, const uint8_t *data, size_t len,
                          std::string *err = nullptr, FsyncQueue *later = nullptr);
// The same for a path: its directory is opened as named (the state directory
// itself may be reached through a link), `tmp_dir` beneath nothing.
bool write_file_atomic(const std::filesystem::path &target, const std::filesystem::path &tmp_dir,
                       const uint8_t *data, size_t len, std::string *err = nullptr);

} // namespace kvn_sim
