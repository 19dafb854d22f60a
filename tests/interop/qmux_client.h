// What the interoperability tests share: a handset's QMUX terminal, a byte-level client of it, qmicli against it.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "sim_handset.h"

namespace interop {

// The pseudo-terminal `kvn-sim status` names on its "pty " line.
inline std::string pty_of(const kvn_test::SimHandset &sim)
{
    std::istringstream in(sim.ctl({"status"}).out);
    for (std::string line; std::getline(in, line);)
        if (line.rfind("pty ", 0) == 0)
            return line.substr(4);
    return "";
}

inline std::vector<uint8_t> unhex(const std::string &text)
{
    std::vector<uint8_t> out;
    std::string digits;
    for (char c : text)
        if (!isspace(static_cast<unsigned char>(c)) && c != '|')
            digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return out;
}

inline std::string hex(const std::vector<uint8_t> &b)
{
    static const char d[] = "0123456789abcdef";
    std::string s;
    for (uint8_t x : b)
        s += {d[x >> 4], d[x & 15], ' '};
    return s;
}

// A client that writes raw bytes to the terminal and reads whole QMUX frames.
class RawQmux {
public:
    explicit RawQmux(const std::string &path) : fd_(open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)) {}
    ~RawQmux()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    bool ok() const { return fd_ >= 0; }
    void write_hex(const std::string &text)
    {
        auto b = unhex(text);
        EXPECT_EQ(write(fd_, b.data(), b.size()), static_cast<ssize_t>(b.size()));
    }
    // The next frame from the modem, as hex; "" when none comes in 10 s (a guard against a hung modem).
    std::string read_frame()
    {
        std::vector<uint8_t> f;
        while (f.size() < 3 || f.size() < 1 + size_t(f[1] | f[2] << 8)) {
            pollfd p{fd_, POLLIN, 0};
            uint8_t c;
            if (poll(&p, 1, 10000) != 1 || read(fd_, &c, 1) != 1)
                return "";
            f.push_back(c);
        }
        return hex(f);
    }

private:
    int fd_;
};

// Whether a libqmi tool is there; when it is not, its tests skip, unless $KVN_TEST_REQUIRE_QMICLI is set (CI).
inline bool have_tool(const char *path, const char *package)
{
    if (access(path, X_OK) == 0)
        return true;
    const char *req = getenv("KVN_TEST_REQUIRE_QMICLI");
    if (req && *req)
        ADD_FAILURE() << path << " is missing (scripts/deps --all installs " << package << ")";
    return false;
}
inline bool have_qmicli() { return have_tool("/usr/bin/qmicli", "libqmi-utils"); }
inline bool have_qmi_proxy() { return have_tool("/usr/libexec/qmi-proxy", "libqmi-proxy"); }

inline kvn_test::ProcessResult qmicli(const std::string &pty, const std::vector<std::string> &args)
{
    std::vector<std::string> argv = {"/usr/bin/qmicli", "-d", pty, "--device-open-qmi"};
    argv.insert(argv.end(), args.begin(), args.end());
    kvn_test::ProcessOptions opt;
    opt.timeout = std::chrono::milliseconds(30000);
    return kvn_test::run_process(argv, opt);
}

} // namespace interop
