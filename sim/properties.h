// properties.h - the handset's property service: keys up to 64 bytes, values
// up to 91 bytes; `persist.*` properties are kept in a file of the state
// directory (rewritten atomically on every change) and survive a restart,
// the others live only as long as the daemon. Once published, every value
// is also in the property area clients read without asking (prop_area.h),
// updated before set() returns.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "prop_area.h"

namespace kvn_sim {

class Properties {
public:
    static constexpr size_t kMaxKey = 64;
    static constexpr size_t kMaxValue = 91;

    Properties(std::filesystem::path file, std::filesystem::path tmp_dir);
    ~Properties();
    // Publishes every property, and every later change, in a property area
    // at `path`; false (err set) when it cannot be created.
    // The area is marked dead and removed with the Properties.
    bool publish(const std::string &path, std::string *err);
    // Loads the persistent properties; false (err set) when the file exists
    // but cannot be parsed.
    bool load(std::string *err);
    std::optional<std::string> get(const std::string &key) const;
    // False (err says why) for a key or value out of bounds, or when a
    // persistent property cannot be saved (then nothing changes).
    bool set(const std::string &key, const std::string &value, std::string *err = nullptr);
    const std::map<std::string, std::string> &all() const { return props_; }
    static bool valid(const std::string &key, const std::string &value, std::string *err);

private:
    bool save(const std::map<std::string, std::string> &props, std::string *err) const;
    std::filesystem::path file_, tmp_dir_;
    std::map<std::string, std::string> props_;
    std::unique_ptr<PropArea> area_;
};

} // namespace kvn_sim
