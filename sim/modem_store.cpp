// modem_store.cpp - NV items and EFS files of the simulated modem on disk.
// Layout under the state directory: nv/sub<N>/<id> (one file per item),
// efs/sub<N>/<path> (the EFS tree as directories), kvn-sim-tmp/ (files being
// written). Directories are opened with openat(O_NOFOLLOW) component by
// component and files with O_NOFOLLOW, so a link planted anywhere in the
// store is refused instead of followed.
#include "modem_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kvn_sim {
namespace fs = std::filesystem;

namespace {

// Names in the directory `fd` (not "." or "..").
std::vector<std::string> names_in(int fd)
{
    std::vector<std::string> out;
    int dup_fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    DIR *d = dup_fd >= 0 ? fdopendir(dup_fd) : nullptr;
    if (!d) {
        if (dup_fd >= 0)
            close(dup_fd);
        return out;
    }
    rewinddir(d); // the duplicate shares its position with fd, which is kept open and listed again
    while (dirent *e = readdir(d)) {
        std::string n = e->d_name;
        if (n != "." && n != "..")
            out.push_back(std::move(n));
    }
    closedir(d);
    return out;
}

// lstat of `name` in `dir`: the file itself, never what a link points at.
bool stat_at(int dir, const std::string &name, struct stat *st)
{
    return fstatat(dir, name.c_str(), st, AT_SYMLINK_NOFOLLOW) == 0;
}

constexpr int kMaxEfsDepth = 40; // deeper trees were not made by EFS writes

} // namespace

ModemStore::ModemStore(fs::path root) : root_(std::move(root)), tmp_(root_ / kTempDir) {}

bool ModemStore::init(std::string *err)
{
    auto fail = [&](const std::string &what) {
        if (err)
            *err = (root_ / what).string() + ": " + strerror(errno);
        return false;
    };
    // The state directory must be this user's alone: whoever else could
    // write in it could plant links or files for the daemon to trip over.
    root_fd_ = open_private_dir(root_, true, err);
    if (!root_fd_)
        return false;
    for (unsigned s = 0; s < kSubs; ++s) {
        for (const std::string &rel : {nv_dir(s), "efs/sub" + std::to_string(s)})
            if (!dir(rel, true))
                return fail(rel);
        // NV items are read and written one by one and often: their
        // directories stay open instead of being looked up per request.
        nv_fd_[s] = dir(nv_dir(s), false);
        if (!nv_fd_[s])
            return fail(nv_dir(s));
        // EFS files are read a chunk per request: their root stays open too.
        efs_fd_[s] = dir("efs/sub" + std::to_string(s), false);
        if (!efs_fd_[s])
            return fail("efs/sub" + std::to_string(s));
    }
    tmp_fd_ = dir(kTempDir, true);
    if (!tmp_fd_)
        return fail(kTempDir);
    // Leftovers of writes cut short by a crash never became visible; drop
    // them. Only kvn-sim's own temp files: nothing else there is touched.
    for (const auto &name : names_in(tmp_fd_.get())) {
        struct stat st;
        if (name.rfind(kTempPrefix, 0) == 0 && stat_at(tmp_fd_.get(), name, &st) && S_ISREG(st.st_mode))
            unlinkat(tmp_fd_.get(), name.c_str(), 0);
    }
    return true;
}

UniqueFd ModemStore::open_beneath(const std::string &rel, bool create) const { return dir(rel, create); }

UniqueFd ModemStore::dir(const std::string &rel, bool create) const
{
    return open_dir_beneath(root_fd_.get(), rel, create);
}

std::optional<Bytes> ModemStore::nv_get(unsigned sub, uint16_t id) const
{
    if (sub >= kSubs)
        return std::nullopt;
    const auto key = std::make_pair(sub, id);
    if (auto it = nv_cache_.find(key); it != nv_cache_.end())
        return it->second;
    auto data = read_file_at(nv_fd_[sub].get(), std::to_string(id), kMaxNvItem);
    if (nv_cache_.size() >= kNvCacheMax)
        nv_cache_.clear();
    // Only a missing item is remembered as absent: an unreadable one (say,
    // too large, planted by hand) is read again and refused again.
    struct stat st;
    if (data || (fstatat(nv_fd_[sub].get(), std::to_string(id).c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT))
        nv_cache_[key] = data;
    return data;
}

bool ModemStore::nv_set(unsigned sub, uint16_t id, const Bytes &data, std::string *err)
{
    if (sub >= kSubs || data.empty() || data.size() > kMaxNvItem) {
        if (err)
            *err = "NV item must be 1 to 424 bytes on subscription 0 or 1";
        return false;
    }
    nv_cache_.erase({sub, id}); // whatever happens below, the next read goes to the file
    return write_file_atomic_at(nv_fd_[sub].get(), std::to_string(id), tmp_fd_.get(), data.data(), data.size(), err,
                                later_);
}

bool ModemStore::nv_rm(unsigned sub, uint16_t id)
{
    if (sub >= kSubs)
        return false;
    nv_cache_.erase({sub, id});
    return unlinkat(nv_fd_[sub].get(), std::to_string(id).c_str(), 0) == 0;
}

std::vector<uint16_t> ModemStore::nv_list(unsigned sub) const
{
    std::vector<uint16_t> out;
    if (sub >= kSubs)
        return out;
    for (const auto &name : names_in(nv_fd_[sub].get()))
        if (auto n = parse_number(name, 0xFFFF))
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

namespace {

// An EFS path's directory part (from the EFS root, "" for a file at the root)
// and its file name; the path is one efs_path_ok() accepts.
std::pair<std::string_view, std::string> split_efs_path(const std::string &path)
{
    size_t end = path.find_last_not_of('/');
    size_t slash = path.rfind('/', end);
    return {std::string_view(path).substr(0, slash), path.substr(slash + 1, end - slash)};
}

} // namespace

std::pair<std::string, std::string> ModemStore::efs_split(unsigned sub, const std::string &path)
{
    auto [dir, name] = split_efs_path(path);
    return {"efs/sub" + std::to_string(sub) + std::string(dir), name};
}

UniqueFd ModemStore::efs_parent(unsigned sub, const std::string &path, std::string *name) const
{
    if (sub >= kSubs || !efs_path_ok(path))
        return UniqueFd();
    auto [dir, file] = split_efs_path(path);
    *name = std::move(file);
    return open_dir_beneath(efs_fd_[sub].get(), dir, false);
}

std::optional<uint64_t> ModemStore::efs_size(unsigned sub, const std::string &path) const
{
    std::string name;
    auto d = efs_parent(sub, path, &name);
    struct stat st;
    if (!d || !stat_at(d.get(), name, &st) || !S_ISREG(st.st_mode))
        return std::nullopt;
    return static_cast<uint64_t>(st.st_size);
}

std::optional<Bytes> ModemStore::efs_read(unsigned sub, const std::string &path, uint64_t offset, size_t len,
                                          uint64_t *size) const
{
    if (!last_read_.fd || last_read_.sub != sub || last_read_.path != path) {
        last_read_.fd.reset();
        std::string name;
        auto d = efs_parent(sub, path, &name);
        UniqueFd fd(d ? openat(d.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC) : -1);
        struct stat st;
        if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))
            return std::nullopt;
        last_read_ = {sub, path, std::move(fd), static_cast<uint64_t>(st.st_size)};
    }
    const uint64_t file_size = last_read_.size;
    if (size)
        *size = file_size;
    Bytes out(offset < file_size ? static_cast<size_t>(std::min<uint64_t>(len, file_size - offset)) : 0);
    size_t got = 0;
    while (got < out.size()) {
        ssize_t n = pread(last_read_.fd.get(), out.data() + got, out.size() - got, static_cast<off_t>(offset + got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    out.resize(got);
    return out;
}

bool ModemStore::efs_put(unsigned sub, const std::string &path, const Bytes &data, std::string *err)
{
    last_read_.fd.reset(); // whatever happens below, the next read opens the file again
    std::string why;
    if (sub >= kSubs || !efs_path_ok(path, &why) || data.size() > kMaxEfsFile) {
        if (err)
            *err = sub >= kSubs ? "subscription must be 0 or 1"
                   : why.empty() ? "file larger than 102410 bytes"
                                 : why;
        return false;
    }
    auto [rel, name] = efs_split(sub, path);
    auto d = dir(rel, true);
    struct stat st;
    if (!d || (stat_at(d.get(), name, &st) && S_ISDIR(st.st_mode))) {
        if (err)
            *err = path + ": " + (d ? "is a directory" : errno == ELOOP ? "a directory on the way is a link" : strerror(errno));
        return false;
    }
    bool ok = write_file_atomic_at(d.get(), name, tmp_fd_.get(), data.data(), data.size(), err, later_);
    if (ok && on_efs_change)
        on_efs_change(sub, path, &data);
    return ok;
}

bool ModemStore::efs_can_put(unsigned sub, const std::string &path, std::string *err) const
{
    std::string why;
    if (sub >= kSubs || !efs_path_ok(path, &why)) {
        *err = sub >= kSubs ? "subscription must be 0 or 1" : path + ": " + why;
        return false;
    }
    auto [rel, name] = efs_split(sub, path);
    // Down the existing part of the directory path; what is missing is made by the write.
    UniqueFd cur(fcntl(root_fd_.get(), F_DUPFD_CLOEXEC, 0));
    size_t pos = 0;
    while (pos < rel.size()) {
        size_t end = std::min(rel.find('/', pos), rel.size());
        std::string comp = rel.substr(pos, end - pos);
        pos = end + 1;
        if (comp.empty())
            continue;
        struct stat st;
        if (!stat_at(cur.get(), comp, &st))
            return true;
        if (!S_ISDIR(st.st_mode)) {
            *err = path + ": " + (S_ISLNK(st.st_mode) ? "a directory on the way is a link" : "a directory on the way is a file");
            return false;
        }
        cur.reset(openat(cur.get(), comp.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!cur) {
            *err = path + ": " + strerror(errno);
            return false;
        }
    }
    struct stat st;
    if (stat_at(cur.get(), name, &st) && S_ISDIR(st.st_mode)) {
        *err = path + ": is a directory";
        return false;
    }
    return true;
}

bool ModemStore::efs_rm(unsigned sub, const std::string &path)
{
    last_read_.fd.reset();
    if (sub >= kSubs || !efs_path_ok(path))
        return false;
    auto [rel, name] = efs_split(sub, path);
    auto d = dir(rel, false);
    struct stat st;
    if (!d || !stat_at(d.get(), name, &st) || !S_ISREG(st.st_mode))
        return false;
    bool ok = unlinkat(d.get(), name.c_str(), 0) == 0;
    if (ok && on_efs_change)
        on_efs_change(sub, path, nullptr);
    return ok;
}

std::vector<std::pair<std::string, uint64_t>> ModemStore::efs_ls(unsigned sub, const std::string &path) const
{
    std::vector<std::pair<std::string, uint64_t>> out;
    bool whole = path == "/" || path.empty();
    if (sub >= kSubs || (!whole && !efs_path_ok(path)))
        return out;
    std::string base = "/";
    if (!whole) {
        auto [rel, name] = efs_split(sub, path);
        auto d = dir(rel, false);
        struct stat st;
        if (!d || !stat_at(d.get(), name, &st))
            return out;
        base = path.substr(0, path.find_last_not_of('/') + 1);
        if (S_ISREG(st.st_mode)) {
            out.emplace_back(base, static_cast<uint64_t>(st.st_size));
            return out;
        }
        base += "/";
    }
    // Walks the tree without following links: links and other non-regular
    // files are not listed, directories are entered through O_NOFOLLOW.
    auto walk = [&](auto &self, int fd, const std::string &prefix, int depth) -> void {
        for (const auto &name : names_in(fd)) {
            struct stat st;
            if (!stat_at(fd, name, &st))
                continue;
            if (S_ISREG(st.st_mode)) {
                out.emplace_back(prefix + name, static_cast<uint64_t>(st.st_size));
            } else if (S_ISDIR(st.st_mode) && depth < kMaxEfsDepth) {
                UniqueFd sub_fd(openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
                if (sub_fd)
                    self(self, sub_fd.get(), prefix + name + "/", depth + 1);
            }
        }
    };
    auto start = dir("efs/sub" + std::to_string(sub) + (whole ? "" : path), false);
    if (start)
        walk(walk, start.get(), base, 0);
    std::sort(out.begin(), out.end());
    return out;
}

} // namespace kvn_sim
