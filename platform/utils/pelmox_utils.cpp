/*
 * pelmox_utils.cpp - host build of the maker's utility library: the shell and
 * log print flags, and the two system-log helpers. Flags are looked up afresh
 * at every call so that a change of environment or property takes effect on
 * the next trace without restarting anything.
 */
#include "pelmox_utils.h"

#include <android/log.h>
#include <cutils/properties.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <optional>

int g_pelmox_shell_print_flag = -1;
int g_pelmox_print_flag = -1;

namespace {

/* Where one flag comes from, in order of precedence after its override. */
struct FlagSource {
    const int &override_value; /* writable global; wins while >= 0 */
    const char *env;           /* environment variable */
    const char *property;      /* system property */
    int fallback;              /* value when nothing is set */
};

const FlagSource k_shell_flag{g_pelmox_shell_print_flag, "PELMOX_SHELL_PRINT_FLAG",
                              "persist.vendor.pelmox.shell_print_flag", 1};
const FlagSource k_log_flag{g_pelmox_print_flag, "PELMOX_PRINT_FLAG", "persist.vendor.pelmox.print_flag", 0};

/* Longest log line handed on; the Android logger cuts longer ones anyway. */
constexpr size_t k_log_line_max = 4096;

/*
 * Reads a flag value written as decimal ("257") or as hexadecimal with a 0x /
 * 0X prefix ("0x101"), optionally signed. Anything else (empty text, trailing
 * garbage, out of int range) is treated as not set, so a typo in a property
 * falls back to the next source instead of silently meaning 0.
 */
std::optional<int> parse_flag(const char *text)
{
    if (text == nullptr || *text == '\0')
        return std::nullopt;
    const char *p = text;
    bool negative = false;
    if (*p == '+' || *p == '-') {
        negative = (*p == '-');
        ++p;
    }
    int base = 10;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        base = 16;
        p += 2;
    }
    if (!std::isxdigit(static_cast<unsigned char>(*p)))
        return std::nullopt;
    char *end = nullptr;
    errno = 0;
    long long v = std::strtoll(p, &end, base);
    if (errno != 0 || end == p || *end != '\0')
        return std::nullopt;
    if (negative)
        v = -v;
    if (v < INT32_MIN || v > INT32_MAX)
        return std::nullopt;
    return static_cast<int>(v);
}

int read_flag(const FlagSource &src)
{
    if (src.override_value >= 0)
        return src.override_value;
    if (auto v = parse_flag(std::getenv(src.env)))
        return *v;
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(src.property, value, "");
    if (auto v = parse_flag(value))
        return *v;
    return src.fallback;
}

void vsyslog(int prio, const char *fmt, va_list ap)
{
    char line[k_log_line_max];
    if (std::vsnprintf(line, sizeof(line), fmt, ap) < 0)
        line[0] = '\0';
    __android_log_print(prio, "pelmox", "%s", line);
}

} // namespace

extern "C" int pelmox_utils_get_shell_print_flag(void) { return read_flag(k_shell_flag); }

extern "C" int pelmox_utils_get_print_flag(void) { return read_flag(k_log_flag); }

extern "C" void pelmox_utils_syslog_dbg(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsyslog(ANDROID_LOG_DEBUG, fmt, ap);
    va_end(ap);
}

extern "C" void pelmox_utils_syslog_err(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsyslog(ANDROID_LOG_ERROR, fmt, ap);
    va_end(ap);
}
