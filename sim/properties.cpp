// properties.cpp - the property service of kvn-sim. The file is a JSON
// object of key → value; a property whose key or value is not UTF-8 (JSON
// cannot carry those bytes) is kept faithfully as hex under "#hex".
#include "properties.h"

#include <nlohmann/json.hpp>

#include "util.h"

namespace kvn_sim {

static bool is_persistent(const std::string &key) { return key.rfind("persist.", 0) == 0; }

// Member of the file holding the properties that are not UTF-8, hex-encoded;
// it cannot clash with a saved property, which starts with "persist.".
static constexpr const char *kHexMember = "#hex";

Properties::Properties(std::filesystem::path file, std::filesystem::path tmp_dir)
    : file_(std::move(file)), tmp_dir_(std::move(tmp_dir))
{
}

Properties::~Properties() = default;

bool Properties::publish(const std::string &path, std::string *err)
{
    auto area = PropArea::create(path, err);
    if (!area)
        return false;
    for (const auto &[k, v] : props_)
        area->set(k, v);
    area_ = std::move(area);
    return true;
}

bool Properties::load(std::string *err)
{
    std::error_code ec;
    if (!std::filesystem::exists(file_, ec))
        return true;
    auto data = read_file(file_, 1 << 20, err, true);
    if (!data)
        return false;
    auto j = nlohmann::json::parse(data->begin(), data->end(), nullptr, false);
    if (!j.is_object()) {
        *err = file_.string() + ": not a JSON object";
        return false;
    }
    auto take = [&](const std::string &k, const std::string &v) {
        if (valid(k, v, nullptr) && is_persistent(k))
            props_[k] = v;
    };
    for (auto &[k, v] : j.items())
        if (v.is_string())
            take(k, v.get<std::string>());
    if (auto hex = j.find(kHexMember); hex != j.end() && hex->is_object())
        for (auto &[k, v] : hex->items()) {
            auto key = from_hex(k);
            auto value = v.is_string() ? from_hex(v.get<std::string>()) : std::nullopt;
            if (key && value)
                take(std::string(key->begin(), key->end()), std::string(value->begin(), value->end()));
        }
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
    if (area_)
        area_->set(key, value);
    return true;
}

bool Properties::save(const std::map<std::string, std::string> &props, std::string *err) const
{
    nlohmann::json j = nlohmann::json::object();
    for (const auto &[k, v] : props) {
        if (!is_persistent(k))
            continue;
        if (is_utf8(k) && is_utf8(v))
            j[k] = v;
        else
            j[kHexMember][to_hex(reinterpret_cast<const uint8_t *>(k.data()), k.size())] =
                to_hex(reinterpret_cast<const uint8_t *>(v.data()), v.size());
    }
    std::string text = j.dump(1) + "\n";
    return write_file_atomic(file_, tmp_dir_, reinterpret_cast<const uint8_t *>(text.data()), text.size(), err);
}

} // namespace kvn_sim
