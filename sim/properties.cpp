// properties.cpp - the property service of kvn-sim.
#include "properties.h"

#include <nlohmann/json.hpp>

#include "util.h"

namespace kvn_sim {

static bool is_persistent(const std::string &key) { return key.rfind("persist.", 0) == 0; }

Properties::Properties(std::filesystem::path file, std::filesystem::path tmp_dir)
    : file_(std::move(file)), tmp_dir_(std::move(tmp_dir))
{
}

bool Properties::load(std::string *err)
{
    std::error_code ec;
    if (!std::filesystem::exists(file_, ec))
        return true;
    auto data = read_file(file_, 1 << 20, err);
    if (!data)
        return false;
    auto j = nlohmann::json::parse(data->begin(), data->end(), nullptr, false);
    if (!j.is_object()) {
        *err = file_.string() + ": not a JSON object";
        return false;
    }
    for (auto &[k, v] : j.items())
        if (v.is_string() && valid(k, v.get<std::string>(), nullptr) && is_persistent(k))
            props_[k] = v.get<std::string>();
    return true;
}

std::optional<std::string> Properties::get(const std::string &key) const
{
    auto it = props_.find(key);
    if (it == props_.end())
        return std::nullopt;
    return it->second;
}

bool Properties::valid(const std::string &key, const std::string &value, std::string *err)
{
    std::string why;
    if (key.empty())
        why = "empty property key";
    else if (key.size() > kMaxKey)
        why = "property key longer than 64 bytes: " + key;
    else if (value.size() > kMaxValue)
        why = "property value longer than 91 bytes for " + key;
    else if (key.find('\0') != std::string::npos || value.find('\0') != std::string::npos)
        why = "property with a NUL byte";
    if (err)
        *err = why;
    return why.empty();
}

bool Properties::set(const std::string &key, const std::string &value, std::string *err)
{
    if (!valid(key, value, err))
        return false;
    if (is_persistent(key)) {
        auto next = props_;
        next[key] = value;
        if (!save(next, err))
            return false;
    }
    props_[key] = value;
    return true;
}

bool Properties::save(const std::map<std::string, std::string> &props, std::string *err) const
{
    nlohmann::json j = nlohmann::json::object();
    for (const auto &[k, v] : props)
        if (is_persistent(k))
            j[k] = v;
    std::string text = j.dump(1) + "\n";
    return write_file_atomic(file_, tmp_dir_, reinterpret_cast<const uint8_t *>(text.data()), text.size(), err);
}

} // namespace kvn_sim
