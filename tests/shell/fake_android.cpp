// fake_android.cpp - recording __android_log_print and in-memory properties
// for the unit tests of the print-flag library and of the traces.
#include "fake_android.h"

#include <android/log.h>
#include <cutils/properties.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace fake_android {

std::vector<LogLine> &log_lines()
{
    static std::vector<LogLine> lines;
    return lines;
}

std::map<std::string, std::string> &properties()
{
    static std::map<std::string, std::string> props;
    return props;
}

void clear()
{
    log_lines().clear();
    properties().clear();
}

} // namespace fake_android

extern "C" int __android_log_print(int prio, const char *tag, const char *fmt, ...)
{
    char text[8192];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    fake_android::log_lines().push_back({prio, tag ? tag : "", text});
    return 1;
}

extern "C" int property_get(const char *key, char *value, const char *default_value)
{
    auto it = fake_android::properties().find(key);
    std::string v = it != fake_android::properties().end() ? it->second : (default_value ? default_value : "");
    v.resize(std::min(v.size(), static_cast<size_t>(PROPERTY_VALUE_MAX - 1)));
    std::memcpy(value, v.c_str(), v.size() + 1);
    return static_cast<int>(v.size());
}

extern "C" int property_set(const char *key, const char *value)
{
    fake_android::properties()[key] = value;
    return 0;
}
