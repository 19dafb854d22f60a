// modem_store.cpp - NV items and EFS files of the simulated modem on disk.
// Layout under the state directory: nv/sub<N>/<id> (one file per item),
// efs/sub<N>/<path> (the EFS tree as directories), tmp/ (files being written).
#include "modem_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

namespace kvn_sim {
namespace fs = std::filesystem;

ModemStore::ModemStore(fs::path root) : root_(std::move(root)), tmp_(root_ / "tmp") {}

bool ModemStore::init(std::string *err)
{
    std::error_code ec;
    for (unsigned s = 0; s < kSubs; ++s) {
        fs::create_directories(root_ / "nv" / ("sub" + std::to_string(s)), ec);
        if (!ec)
            fs::create_directories(root_ / "efs" / ("sub" + std::to_string(s)), ec);
        if (ec)
            break;
    }
    // Leftovers of writes cut short by a crash never became visible; drop them.
    if (!ec) {
        fs::remove_all(tmp_, ec);
        fs::create_directories(tmp_, ec);
    }
    if (ec && err)
        *err = root_.string() + ": " + ec.message();
    return !ec;
}

fs::path ModemStore::nv_file(unsigned sub, uint16_t id) const
{
    return root_ / "nv" / ("sub" + std::to_string(sub)) / std::to_string(id);
}

std::optional<Bytes> ModemStore::nv_get(unsigned sub, uint16_t id) const
{
    if (sub >= kSubs)
        return std::nullopt;
    return read_file(nv_file(sub, id), kMaxNvItem);
}

bool ModemStore::nv_set(unsigned sub, uint16_t id, const Bytes &data, std::string *err)
{
    if (sub >= kSubs || data.empty() || data.size() > kMaxNvItem) {
        if (err)
            *err = "NV item must be 1 to 424 bytes on subscription 0 or 1";
        return false;
    }
    return write_file_atomic(nv_file(sub, id), tmp_, data.data(), data.size(), err);
}

bool ModemStore::nv_rm(unsigned sub, uint16_t id)
{
    if (sub >= kSubs)
        return false;
    std::error_code ec;
    return fs::remove(nv_file(sub, id), ec);
}

std::vector<uint16_t> ModemStore::nv_list(unsigned sub) const
{
    std::vector<uint16_t> out;
    std::error_code ec;
    for (const auto &e : fs::directory_iterator(root_ / "nv" / ("sub" + std::to_string(sub)), ec))
        if (auto n = parse_number(e.path().filename().string(), 0xFFFF))
            out.push_back(static_cast<uint16_t>(*n));
    std::sort(out.begin(), out.end());
    return out;
}

bool ModemStore::efs_path_ok(const std::string &path, std::string *why)
{
    auto bad = [&](const char *w) {
        if (why)
            *why = w;
        return false;
    };
    if (path.empty() || path.size() > kMaxEfsPath)
        return bad("path length must be 1 to 71 bytes");
    if (path[0] != '/')
        return bad("path is not absolute");
    if (path.find('\0') != std::string::npos)
        return bad("path holds a NUL byte");
    bool has_name = false;
    size_t pos = 1;
    while (pos <= path.size()) {
        size_t end = path.find('/', pos);
        if (end == std::string::npos)
            end = path.size();
        std::string_view comp(path.data() + pos, end - pos);
        if (comp == "." || comp == "..")
            return bad("path has a '.' or '..' component");
        if (!comp.empty())
            has_name = true;
        pos = end + 1;
    }
    if (!has_name)
        return bad("path names the root");
    return true;
}

fs::path ModemStore::efs_file(unsigned sub, const std::string &path) const
{
    fs::path p = root_ / "efs" / ("sub" + std::to_string(sub));
    size_t pos = 1;
    while (pos <= path.size()) {
        size_t end = path.find('/', pos);
        if (end == std::string::npos)
            end = path.size();
        if (end > pos)
            p /= path.substr(pos, end - pos);
        pos = end + 1;
    }
    return p;
}

std::optional<uint64_t> ModemStore::efs_size(unsigned sub, const std::string &path) const
{
    if (sub >= kSubs || !efs_path_ok(path))
        return std::nullopt;
    std::error_code ec;
    auto p = efs_file(sub, path);
    if (!fs::is_regular_file(p, ec))
        return std::nullopt;
    auto n = fs::file_size(p, ec);
    if (ec)
        return std::nullopt;
    return n;
}

std::optional<Bytes> ModemStore::efs_read(unsigned sub, const std::string &path, uint64_t offset, size_t len) const
{
    if (sub >= kSubs || !efs_path_ok(path))
        return std::nullopt;
    auto p = efs_file(sub, path);
    std::error_code ec;
    if (!fs::is_regular_file(p, ec))
        return std::nullopt;
    int fd = open(p.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    Bytes out(len);
    size_t got = 0;
    while (got < len) {
        ssize_t n = pread(fd, out.data() + got, len - got, static_cast<off_t>(offset + got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    close(fd);
    out.resize(got);
    return out;
}

bool ModemStore::efs_put(unsigned sub, const std::string &path, const Bytes &data, std::string *err)
{
    std::string why;
    if (sub >= kSubs || !efs_path_ok(path, &why) || data.size() > kMaxEfsFile) {
        if (err)
            *err = sub >= kSubs ? "subscription must be 0 or 1"
                   : why.empty() ? "file larger than 102410 bytes"
                                 : why;
        return false;
    }
    auto p = efs_file(sub, path);
    std::error_code ec;
    fs::create_directories(p.parent_path(), ec);
    if (ec || fs::is_directory(p, ec)) {
        if (err)
            *err = path + ": " + (ec ? ec.message() : "is a directory");
        return false;
    }
    bool ok = write_file_atomic(p, tmp_, data.data(), data.size(), err);
    if (ok && on_efs_change)
        on_efs_change(sub, path, &data);
    return ok;
}

bool ModemStore::efs_rm(unsigned sub, const std::string &path)
{
    if (sub >= kSubs || !efs_path_ok(path))
        return false;
    auto p = efs_file(sub, path);
    std::error_code ec;
    if (!fs::is_regular_file(p, ec))
        return false;
    bool ok = fs::remove(p, ec);
    if (ok && on_efs_change)
        on_efs_change(sub, path, nullptr);
    return ok;
}

std::vector<std::pair<std::string, uint64_t>> ModemStore::efs_ls(unsigned sub, const std::string &path) const
{
    std::vector<std::pair<std::string, uint64_t>> out;
    if (sub >= kSubs)
        return out;
    fs::path base = root_ / "efs" / ("sub" + std::to_string(sub));
    fs::path start = path == "/" || path.empty() ? base : efs_file(sub, path);
    std::error_code ec;
    auto add = [&](const fs::path &p) {
        std::error_code e2;
        out.emplace_back("/" + fs::relative(p, base, e2).generic_string(), fs::file_size(p, e2));
    };
    if (path != "/" && !path.empty() && !efs_path_ok(path))
        return out;
    if (fs::is_regular_file(start, ec)) {
        add(start);
        return out;
    }
    for (auto it = fs::recursive_directory_iterator(start, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec))
        if (it->is_regular_file(ec))
            add(it->path());
    std::sort(out.begin(), out.end());
    return out;
}

} // namespace kvn_sim
