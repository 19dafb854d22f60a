// prop_area.cpp - the daemon's side of the property area.
#include "prop_area.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "prop_area_layout.h"

namespace kvn_sim {

namespace pa = prop_area;

namespace {

struct Fd {
    int fd;
    ~Fd()
    {
        if (fd >= 0)
            close(fd);
    }
};

// Marks an area left at path by an earlier daemon of this user as dead. A
// link, another user's file or anything that is not an area is left alone.
void mark_dead(const std::string &path)
{
    Fd f{open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK)};
    struct stat st {};
    if (f.fd < 0 || fstat(f.fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid() ||
        static_cast<size_t>(st.st_size) != pa::kFileSize)
        return;
    void *base = mmap(nullptr, pa::kFileSize, PROT_READ | PROT_WRITE, MAP_SHARED, f.fd, 0);
    if (base == MAP_FAILED)
        return;
    auto *h = static_cast<pa::Header *>(base);
    if (std::memcmp(h->magic, pa::kMagic, sizeof pa::kMagic) == 0)
        pa::store(h->dead, 1u, std::memory_order_release);
    munmap(base, pa::kFileSize);
}

} // namespace

PropArea::PropArea(std::string path, int fd, void *base, dev_t dev, ino_t ino)
    : path_(std::move(path)), fd_(fd), base_(base), dev_(dev), ino_(ino)
{
}

std::unique_ptr<PropArea> PropArea::create(const std::string &path, std::string *err)
{
    std::string tmp = path + ".XXXXXX";
    // mkostemp creates the file exclusively (never through a link), mode 0600.
    Fd f{mkostemp(tmp.data(), O_CLOEXEC)};
    auto fail = [&](const char *what) {
        *err = path + ": " + what + ": " + strerror(errno);
        if (f.fd >= 0)
            unlink(tmp.c_str());
        return nullptr;
    };
    if (f.fd < 0)
        return fail("cannot create");
    struct stat st {};
    if (flock(f.fd, LOCK_EX) != 0 || fchmod(f.fd, 0600) != 0 || ftruncate(f.fd, static_cast<off_t>(pa::kFileSize)) != 0 || fstat(f.fd, &st) != 0)
        return fail("cannot size");
    void *base = mmap(nullptr, pa::kFileSize, PROT_READ | PROT_WRITE, MAP_SHARED, f.fd, 0);
    if (base == MAP_FAILED)
        return fail("cannot map");
    auto *h = static_cast<pa::Header *>(base);
    std::memcpy(h->magic, pa::kMagic, sizeof pa::kMagic);
    h->slot_count = pa::kSlots;
    mark_dead(path);
    if (rename(tmp.c_str(), path.c_str()) != 0) {
        munmap(base, pa::kFileSize);
        return fail("cannot publish");
    }
    int fd = f.fd;
    f.fd = -1;
    return std::unique_ptr<PropArea>(new PropArea(path, fd, base, st.st_dev, st.st_ino));
}

PropArea::~PropArea()
{
    pa::store(static_cast<pa::Header *>(base_)->dead, 1u, std::memory_order_release);
    struct stat st {};
    if (lstat(path_.c_str(), &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_)
        unlink(path_.c_str());
    munmap(base_, pa::kFileSize);
    close(fd_);
}

void PropArea::set(const std::string &key, const std::string &value)
{
    auto *h = static_cast<pa::Header *>(base_);
    pa::Slot *slots = pa::slots(base_);
    auto it = index_.find(key);
    if (it != index_.end()) {
        pa::write_value(slots[it->second], value.data(), value.size());
        return;
    }
    uint32_t n = static_cast<uint32_t>(index_.size());
    if (n >= pa::kSlots || key.size() > pa::kKeyBytes) {
        pa::store(h->overflow, 1u, std::memory_order_release);
        return;
    }
    pa::Slot &s = slots[n];
    std::memcpy(s.key, key.data(), key.size());
    s.key_len = static_cast<uint32_t>(key.size());
    pa::write_value(s, value.data(), value.size());
    index_.emplace(key, n);
    pa::store(h->used, n + 1, std::memory_order_release);
}

} // namespace kvn_sim
