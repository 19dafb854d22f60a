// fake_android.h - recording stand-ins for the Android log and the system
// properties, linked instead of the host library's versions so tests can see
// every log line and choose every property value.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace fake_android {

struct LogLine {
    int prio;
    std::string tag, text;
};

std::vector<LogLine> &log_lines();                 // every __android_log_print since clear()
std::map<std::string, std::string> &properties(); // answers property_get; a missing key gets the default
void clear();

} // namespace fake_android
