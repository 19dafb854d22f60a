// properties.h - the handset's property service: keys up to 64 bytes, values
// up to 91 bytes; `persist.*` properties are kept in a file of the state
// directory (rewritten atomically on every change) and survive a restart,
// the others live only as long as the daemon.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace kvn_sim {

class Properties {
public:
    static constexpr size_t kMaxKey = 64;
    static constexpr size_t kMaxValue = 91;

    Properties(std::filesystem::path file, std::filesystem::path tmp_dir);
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
};

} // namespace kvn_sim
