// fake_android.h - recording stand-ins for the Android log and the system
// properties, linked instead of the host library's versions so tests can see
// every log line and choose every property value.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace fake_android {

struct LogLine {
    int prio;         // Android log priority
    std::string tag;  // log tag
    std::string text; // formatted message
};

// Every __android_log_print call since the last clear().
std::vector<LogLine> &log_lines();

// Property values answered by property_get; a missing key gets the default.
std::map<std::string, std::string> &properties();

// Forgets the recorded lines and the properties.
void clear();

} // namespace fake_android
