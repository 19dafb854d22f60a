// util.cpp - hex text, numbers, UTF-8 checks, descriptors, link-free paths
// beneath a root and crash-safe file replacement for kvn-sim.
#include "util.h"

#include "fsync_queue.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace kvn_sim {
namespace fs = std::filesystem;

std::string to_hex(const uint8_t *p, size_t n, char sep)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(n * 3);
    for (size_t i = 0; i < n; ++i) {
        if (sep && i)
            out.push_back(sep);
        out.push_back(digits[p[i] >> 4]);
        out.push_back(digits[p[i] & 0xF]);
    }
    return out;
}

static int hex_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::optional<Bytes> from_hex(std::string_view text)
{
    if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        text.remove_prefix(2);
    Bytes out;
    int high = -1;
    for (char c : text) {
        if (c == ' ' || c == ':' || c == '-' || c == '\t' || c == '\n') {
            if (high >= 0)
                return std::nullopt; // a separator inside a byte
            continue;
        }
        int v = hex_value(c);
        if (v < 0)
            return std::nullopt;
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    if (high >= 0)
        return std::nullopt;
    return out;
}

std::optional<uint64_t> parse_number(std::string_view text, uint64_t max)
{
    unsigned base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty())
        return std::nullopt;
    uint64_t v = 0;
    for (char c : text) {
        int d = hex_value(c);
        if (d < 0 || static_cast<unsigned>(d) >= base || static_cast<uint64_t>(d) > max)
            return std::nullopt;
        if (v > (max - static_cast<uint64_t>(d)) / base)
            return std::nullopt;
        v = v * base + static_cast<uint64_t>(d);
    }
    return v;
}

bool is_utf8(std::string_view text)
{
    size_t i = 0;
    while (i < text.size()) {
        auto b = static_cast<uint8_t>(text[i]);
        size_t n = b < 0x80 ? 0 : (b & 0xE0) == 0xC0 ? 1 : (b & 0xF0) == 0xE0 ? 2 : (b & 0xF8) == 0xF0 ? 3 : 4;
        if (n == 4 || text.size() - i - 1 < n)
            return false; // not a lead byte, or the sequence is cut short
        uint32_t cp = n == 0 ? b : b & (0x3F >> n);
        for (size_t k = 1; k <= n; ++k) {
            auto c = static_cast<uint8_t>(text[i + k]);
            if ((c & 0xC0) != 0x80)
                return false;
            cp = cp << 6 | (c & 0x3F);
        }
        static const uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
        if (cp < kMin[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false; // overlong, out of range, or a surrogate
        i += n + 1;
    }
    return true;
}

/* ---- descriptors ---- */

UniqueFd &UniqueFd::operator=(UniqueFd &&o) noexcept
{
    if (this != &o) {
        reset(o.fd_);
        o.fd_ = -1;
    }
    return *this;
}

void UniqueFd::reset(int fd)
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = fd;
}

/* ---- reading ---- */

namespace {

std::optional<Bytes> read_open_file(int fd, const std::string &name, size_t max_size, std::string *err)
{
    UniqueFd owned(fd);
    auto fail = [&](const std::string &why) -> std::optional<Bytes> {
        if (err)
            *err = name + ": " + why;
        return std::nullopt;
    };
    if (fd < 0)
        return fail(errno == ELOOP ? "is a symbolic link" : strerror(errno));
    struct stat st;
    if (fstat(fd, &st) != 0)
        return fail(strerror(errno));
    if (!S_ISREG(st.st_mode))
        return fail("not a regular file");
    if (static_cast<uint64_t>(st.st_size) > max_size)
        return fail("larger than " + std::to_string(max_size) + " bytes");
    Bytes out;
    uint8_t buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return fail(strerror(errno));
        if (n == 0)
            break;
        if (out.size() + static_cast<size_t>(n) > max_size)
            return fail("larger than " + std::to_string(max_size) + " bytes");
        out.insert(out.end(), buf, buf + n);
        // The stores replace files whole (rename), never append to them: once
        // the size fstat gave is in, the read that would find the end is saved.
        if (st.st_size > 0 && out.size() >= static_cast<uint64_t>(st.st_size))
            break;
    }
    return out;
}

constexpr int kReadFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

} // namespace

std::optional<Bytes> read_file(const fs::path &p, size_t max_size, std::string *err, bool nofollow)
{
    return read_open_file(open(p.c_str(), kReadFlags | (nofollow ? O_NOFOLLOW : 0)), p.string(), max_size, err);
}

std::optional<Bytes> read_file_at(int dir, const std::string &name, size_t max_size, std::string *err)
{
    return read_open_file(openat(dir, name.c_str(), kReadFlags | O_NOFOLLOW), name, max_size, err);
}

UniqueFd open_dir_beneath(int base, std::string_view rel, bool create)
{
    UniqueFd cur; // invalid while still at `base`
    size_t pos = 0;
    while (pos < rel.size()) {
        size_t end = std::min(rel.find('/', pos), rel.size());
        std::string name(rel.substr(pos, end - pos));
        pos = end + 1;
        if (name.empty())
            continue;
        if (name == "." || name == "..") {
            errno = EINVAL;
            return UniqueFd();
        }
        const int at = cur ? cur.get() : base;
        const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
        int fd = openat(at, name.c_str(), flags);
        if (fd < 0 && errno == ENOENT && create) {
            bool made = mkdirat(at, name.c_str(), 0700) == 0;
            if (!made && errno != EEXIST)
                return UniqueFd();
            fd = openat(at, name.c_str(), flags);
            if (made && fd >= 0)
                fchmod(fd, 0700); // the umask may have taken owner bits away
        }
        if (fd < 0)
            return UniqueFd();
        cur.reset(fd);
    }
    // No component: the base itself, as a descriptor of the caller's own.
    return cur ? std::move(cur) : UniqueFd(fcntl(base, F_DUPFD_CLOEXEC, 0));
}

UniqueFd open_private_dir(const fs::path &path, bool create, std::string *err)
{
    auto fail = [&](const std::string &why) {
        *err = path.string() + ": " + why;
        return UniqueFd();
    };
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd && errno == ENOENT && create) {
        std::error_code ec;
        if (path.has_parent_path())
            fs::create_directories(path.parent_path(), ec);
        if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
            return fail(strerror(errno));
        fd.reset(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    if (!fd)
        return fail(errno == ENOTDIR ? "not a directory" : strerror(errno));
    struct stat st;
    if (fstat(fd.get(), &st) != 0)
        return fail(strerror(errno));
    if (st.st_uid != geteuid())
        return fail("owned by uid " + std::to_string(st.st_uid) + ", not by this user (uid " +
                    std::to_string(geteuid()) + "); refused");
    if (st.st_mode & (S_IWGRP | S_IWOTH))
        return fail("writable by group or others; refused (make it owner-only, chmod 700)");
    if ((st.st_mode & 07777) != 0700 && fchmod(fd.get(), 0700) != 0)
        return fail(std::string("cannot make it owner-only: ") + strerror(errno));
    return fd;
}

int open_append_at(int dir, const std::string &name)
{
    int fd = openat(dir, name.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600);
    struct stat st;
    if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
        close(fd);
        errno = EINVAL;
        return -1;
    }
    if (fd >= 0 && (st.st_mode & 07777) != 0600)
        fchmod(fd, 0600);
    return fd;
}

/* ---- crash-safe replacement ---- */

// A temp name nobody can guess ahead of time.
static std::string temp_name()
{
    uint8_t r[12];
    if (getrandom(r, sizeof r, 0) != static_cast<ssize_t>(sizeof r)) {
        static std::atomic<uint64_t> counter{0};
        uint64_t v = static_cast<uint64_t>(getpid()) << 40 ^ counter++ ^
                     static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
        std::memcpy(r, &v, sizeof v);
    }
    return std::string(kTempPrefix) + to_hex(r, sizeof r);
}

bool write_file_atomic_at(int dir, const std::string &name, int tmp_dir, const uint8_t *data, size_t len,
                          std::string *err, FsyncQueue *later)
{
    auto fail = [&](const std::string &what) {
        if (err)
            *err = what + ": " + strerror(errno);
        return false;
    };
    std::string tmp = temp_name();
    UniqueFd fd(openat(tmp_dir, tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd)
        return fail("temp file " + tmp);
    fchmod(fd.get(), 0600); // owner-only whatever the umask
    auto discard = [&](const std::string &what) {
        int saved = errno;
        unlinkat(tmp_dir, tmp.c_str(), 0);
        errno = saved;
        return fail(what);
    };
    size_t done = 0;
    while (done < len) {
        ssize_t n = write(fd.get(), data + done, len - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return discard("temp file " + tmp);
        done += static_cast<size_t>(n);
    }
    if (!later && fsync(fd.get()) != 0)
        return discard("temp file " + tmp);
    if (renameat(tmp_dir, tmp.c_str(), dir, name.c_str()) != 0)
        return discard(name);
    if (later) {
        later->push(std::move(fd), UniqueFd(fcntl(dir, F_DUPFD_CLOEXEC, 0)));
        return true;
    }
    fd.reset();
    fsync(dir);
    return true;
}

bool write_file_atomic(const fs::path &target, const fs::path &tmp_dir, const uint8_t *data, size_t len,
                       std::string *err)
{
    fs::path parent = target.parent_path().empty() ? fs::path(".") : target.parent_path();
    UniqueFd dir(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    UniqueFd tmp(open(tmp_dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dir || !tmp) {
        if (err)
            *err = (dir ? tmp_dir : parent).string() + ": " + strerror(errno);
        return false;
    }
    return write_file_atomic_at(dir.get(), target.filename().string(), tmp.get(), data, len, err);
}

} // namespace kvn_sim
