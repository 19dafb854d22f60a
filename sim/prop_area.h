// prop_area.h - the writing side of the property area: a file beside the
// socket ("<socket>.props") that clients map read-only to read properties
// without a request to the daemon. Only the daemon writes it.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>

namespace kvn_sim {

class PropArea {
public:
    // Publishes an empty area at `path`: a new owner-only file, filled and
    // renamed over whatever is there (a link planted at the path is replaced,
    // never followed). An area a previous daemon left there is marked dead
    // first, so clients that still map it open the new one. nullptr (err set)
    // when the file cannot be made.
    static std::unique_ptr<PropArea> create(const std::string &path, std::string *err);
    // The writer holds an exclusive lock on the file while it lives, so
    // readers can tell an area whose daemon died from a live one.
    // Marks the area dead and removes its file (when it is still this one).
    ~PropArea();
    PropArea(const PropArea &) = delete;
    PropArea &operator=(const PropArea &) = delete;

    // Key up to 64 bytes, value up to 91 (the property service checks both).
    void set(const std::string &key, const std::string &value);

private:
    PropArea(std::string path, int fd, void *base, dev_t dev, ino_t ino);
    std::string path_;
    int fd_; // holds the lock
    void *base_;
    dev_t dev_;
    ino_t ino_;
    std::map<std::string, uint32_t> index_; // key -> slot
};

} // namespace kvn_sim
