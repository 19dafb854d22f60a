// util.cpp - hex text, numbers and crash-safe file replacement for kvn-sim.
#include "util.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
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

std::optional<Bytes> read_file(const fs::path &p, size_t max_size, std::string *err)
{
    int fd = open(p.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (err)
            *err = p.string() + ": " + strerror(errno);
        return std::nullopt;
    }
    Bytes out;
    uint8_t buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            if (err)
                *err = p.string() + ": " + strerror(errno);
            close(fd);
            return std::nullopt;
        }
        if (n == 0)
            break;
        if (out.size() + static_cast<size_t>(n) > max_size) {
            if (err)
                *err = p.string() + ": larger than " + std::to_string(max_size) + " bytes";
            close(fd);
            return std::nullopt;
        }
        out.insert(out.end(), buf, buf + n);
    }
    close(fd);
    return out;
}

static bool fsync_dir(const fs::path &dir)
{
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    bool ok = fsync(fd) == 0;
    close(fd);
    return ok;
}

bool write_file_atomic(const fs::path &target, const fs::path &tmp_dir, const uint8_t *data, size_t len,
                       std::string *err)
{
    static std::atomic<unsigned> counter{0};
    auto fail = [&](const std::string &what) {
        if (err)
            *err = what + ": " + strerror(errno);
        return false;
    };
    fs::path tmp = tmp_dir / ("w" + std::to_string(getpid()) + "-" + std::to_string(counter++));
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return fail(tmp.string());
    size_t done = 0;
    while (done < len) {
        ssize_t n = write(fd, data + done, len - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            close(fd);
            unlink(tmp.c_str());
            return fail(tmp.string());
        }
        done += static_cast<size_t>(n);
    }
    if (fsync(fd) != 0) {
        close(fd);
        unlink(tmp.c_str());
        return fail(tmp.string());
    }
    close(fd);
    if (rename(tmp.c_str(), target.c_str()) != 0) {
        unlink(tmp.c_str());
        return fail(target.string());
    }
    fsync_dir(target.parent_path());
    return true;
}

} // namespace kvn_sim
