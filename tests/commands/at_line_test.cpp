// at_line_test.cpp - the AT test's shell line: plain commands keep the echo form, anything the shell or echo would
// interpret switches to printf with single quotes, and a line that does not fit is refused, never cut.
#include <gtest/gtest.h>

#include <string>

#include "pelmox_test_at_cmd.h"

namespace {

std::string build(const std::string &cmd, const std::string &path, size_t cap = 501, int *len = nullptr)
{
    std::string line(cap, 'X');
    int n = pelmox_test_at_cmd_build_line(cmd.c_str(), path.c_str(), line.data(), cap);
    if (len)
        *len = n;
    return n < 0 ? "(refused)" : std::string(line.c_str());
}

TEST(AtLine, FormsByContentAndTheBound)
{
    const struct {
        const char *cmd, *line;
    } cases[] = {
        {"AT+CGMI", "echo \"AT+CGMI\r\" > /dev/smd8"},
        {"AT'x';|&<>()", "echo \"AT'x';|&<>()\r\" > /dev/smd8"},
        {"AT\"", "printf '%s\\r\\n' 'AT\"' > /dev/smd8"},
        {"AT$X", "printf '%s\\r\\n' 'AT$X' > /dev/smd8"},
        {"AT`x`", "printf '%s\\r\\n' 'AT`x`' > /dev/smd8"},
        {"AT\\c", "printf '%s\\r\\n' 'AT\\c' > /dev/smd8"},
        {"'$'", "printf '%s\\r\\n' ''\\''$'\\''' > /dev/smd8"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(build(c.cmd, "/dev/smd8"), c.line) << c.cmd;

    // 100 hostile bytes with the longest device path fit the 501 bytes; a byte less refuses rather than cutting an
    // escape. The plain form is cut by its bounded appends.
    const std::string quotes = "$" + std::string(99, '\'');
    const std::string path = "/" + std::string(62, 'p');
    int len = 0;
    std::string line = build(quotes, path, 501, &len);
    EXPECT_EQ(line.size(), 17u + 1u + 99u * 4u + 4u + path.size());
    EXPECT_EQ(len, static_cast<int>(line.size()));
    EXPECT_EQ(build(quotes, path, line.size() + 1), line);
    EXPECT_EQ(build(quotes, path, line.size()), "(refused)");
    EXPECT_EQ(build("AT", "/dev/smd8", 8), "echo \"A");
}

} // namespace
