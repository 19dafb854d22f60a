// modem_store.h - the modem's non-volatile memory as kept in the state
// directory: NV items and an EFS tree per subscription (0 and 1). Every write
// replaces the old content atomically, so a crash never leaves a mix. Every
// path is resolved beneath the state directory one component at a time
// without following symbolic links, so nothing planted there leads outside.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "util.h"

namespace kvn_sim {

class ModemStore {
public:
    static constexpr unsigned kSubs = 2;
    static constexpr size_t kMaxNvItem = 424;
    static constexpr size_t kMaxEfsFile = 102410;
    static constexpr size_t kMaxEfsPath = 71;

    // The temp area beneath the state directory (a name of kvn-sim's own).
    static constexpr const char *kTempDir = "kvn-sim-tmp";

    // root: the state directory; init() creates nv/, efs/ and kvn-sim-tmp/
    // under it and clears kvn-sim's leftover temp files there.
    explicit ModemStore(std::filesystem::path root);
    bool init(std::string *err);

    std::optional<Bytes> nv_get(unsigned sub, uint16_t id) const;
    bool nv_set(unsigned sub, uint16_t id, const Bytes &data, std::string *err);
    // False when the item does not exist.
    bool nv_rm(unsigned sub, uint16_t id);
    std::vector<uint16_t> nv_list(unsigned sub) const;

    // An EFS path is usable when it is absolute, at most 71 bytes, has no "."
    // or ".." component, no NUL, and names something below the root.
    static bool efs_path_ok(const std::string &path, std::string *why = nullptr);
    std::optional<uint64_t> efs_size(unsigned sub, const std::string &path) const;
    // Up to `len` bytes from `offset` (none when `offset` is at or past the
    // end) and the file's size in *size; nullopt when the file is missing.
    std::optional<Bytes> efs_read(unsigned sub, const std::string &path, uint64_t offset, size_t len,
                                  uint64_t *size = nullptr) const;
    bool efs_put(unsigned sub, const std::string &path, const Bytes &data, std::string *err);
    bool efs_rm(unsigned sub, const std::string &path);
    // Files at or below `path`, as EFS paths with their sizes, sorted.
    std::vector<std::pair<std::string, uint64_t>> efs_ls(unsigned sub, const std::string &path) const;

    const std::filesystem::path &tmp_dir() const { return tmp_; }
    int tmp_fd() const { return tmp_fd_.get(); }
    // The directory `rel` beneath the state directory, opened without
    // following links (created, owner-only, with `create`).
    UniqueFd open_beneath(const std::string &rel, bool create) const;
    // Whether efs_put(sub, path, ...) would find its place: no file where a
    // directory of the path goes, no directory or link in the file's place.
    bool efs_can_put(unsigned sub, const std::string &path, std::string *err) const;
    // Leaves the fsyncs of NV and EFS writes to `q` (the daemon's), or does
    // them in the writer when null (the default).
    void set_fsync_queue(FsyncQueue *q) { later_ = q; }

    // Called after an EFS file was written (data) or deleted (null).
    std::function<void(unsigned sub, const std::string &path, const Bytes *data)> on_efs_change;

private:
    // The directory `rel` beneath the state directory (no links); invalid
    // when it is missing and `create` is false.
    UniqueFd dir(const std::string &rel, bool create) const;
    static std::string nv_dir(unsigned sub) { return "nv/sub" + std::to_string(sub); }
    // The directory part of an EFS path (beneath the state directory) and its file name.
    static std::pair<std::string, std::string> efs_split(unsigned sub, const std::string &path);
    // The directory holding an existing EFS path's file, opened from the
    // subscription's EFS root down (no links), and the file's name in *name.
    UniqueFd efs_parent(unsigned sub, const std::string &path, std::string *name) const;

    std::filesystem::path root_, tmp_;
    UniqueFd root_fd_, tmp_fd_;
    UniqueFd nv_fd_[kSubs]; // nv/sub0, nv/sub1, open from init() on
    UniqueFd efs_fd_[kSubs]; // efs/sub0, efs/sub1: an EFS read of a chunk walks only the path's own directories
    // NV items as last read or written (nullopt: known absent). Every NV
    // change goes through this store, so the copy stays true; it is dropped
    // whole when it holds kNvCacheMax items.
    static constexpr size_t kNvCacheMax = 4096;
    mutable std::map<std::pair<unsigned, uint16_t>, std::optional<Bytes>> nv_cache_;
    // The EFS file last read, kept open with its size for the next chunk of
    // the same read (a file moves in 424-byte chunks). Every EFS change goes
    // through efs_put or efs_rm, which drop it.
    struct OpenEfsFile {
        unsigned sub = 0;
        std::string path;
        UniqueFd fd;
        uint64_t size = 0;
    };
    mutable OpenEfsFile last_read_;
    FsyncQueue *later_ = nullptr;
};

} // namespace kvn_sim
