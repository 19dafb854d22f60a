// The packet framing shared by the platform libraries and kvn-sim: what a peer sends is checked before it is trusted.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <thread>
#include <tuple>

#include "kvn_wire.h"

using namespace kvn_wire;

namespace {

auto fields(const Header &h) { return std::tuple(uint8_t(h.kind), h.instance, h.service, h.client, h.status, h.length); }

// The packet and the QMI headers round-trip little-endian; a wrong version, kind or length is refused.
TEST(WireHeaders, RoundTripAndRefusals)
{
    const Header h{Kind::ConnectOk, 0xFFFF, 0xFFE4, 7, 1, 123};
    uint8_t b[kHeaderSize];
    encode_header(h, b);
    EXPECT_EQ((std::vector<uint8_t>{0x81, kVersion, 0xFF, 0xFF, 0xE4, 0xFF}), std::vector<uint8_t>(b, b + 6));
    EXPECT_EQ(fields(h), fields(decode_header(b).value()));

    b[1] = 2; // another version
    EXPECT_FALSE(decode_header(b));
    encode_header(h, b);
    b[0] = 0x42; // no such kind
    EXPECT_FALSE(decode_header(b));
    encode_header(Header{Kind::Qmi, 0, 11, 0, 0, kMaxPayload + 1}, b);
    EXPECT_FALSE(decode_header(b));
    encode_header(Header{Kind::Qmi, 0, 11, 0, 0, kMaxPayload}, b);
    EXPECT_TRUE(decode_header(b));

    const uint8_t tlvs[] = {0x01, 0x01, 0x00, 0x02};
    auto m = encode_qmi(QmiHeader{kQmiResponse, 0x1234, 0x0030, 0}, tlvs, sizeof tlvs);
    EXPECT_EQ((std::vector<uint8_t>{2, 0x34, 0x12, 0x30, 0, 4, 0, 1, 1, 0, 2}), m);
    const QmiHeader q = decode_qmi(m.data(), m.size()).value();
    EXPECT_EQ(std::tuple(kQmiResponse, 0x1234, 0x0030, 4), std::tuple(q.flags, q.txn, q.msg_id, q.tlv_len));
    EXPECT_FALSE(decode_qmi(m.data(), m.size() - 1)); // one byte missing
    m.push_back(0);
    EXPECT_FALSE(decode_qmi(m.data(), m.size())); // one byte too many
    EXPECT_FALSE(decode_qmi(m.data(), 6));        // shorter than the header
}

// A packet crosses a stream socket whole; one cut short by a close, or none at all (timeout), gives nothing.
TEST(WireSocket, WholePacketsOnly)
{
    for (size_t keep : {SIZE_MAX, size_t(31), size_t(0)}) {
        SCOPED_TRACE(keep);
        int fd[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fd));
        const std::vector<uint8_t> payload(kMaxPayload, 0xA5);
        const auto bytes = encode_packet(Header{Kind::Qmi, 0, 3, 2, 0, 0}, payload);
        keep = std::min(keep, bytes.size());
        std::thread writer([&] {
            write_all(fd[1], bytes.data(), keep);
            if (keep && keep < bytes.size())
                shutdown(fd[1], SHUT_WR);
        });
        auto p = read_packet(fd[0], keep ? 5000 : 50);
        writer.join();
        ASSERT_EQ(keep == bytes.size(), bool(p));
        if (p) {
            EXPECT_EQ(std::tuple(3u, 2, payload), std::tuple(p->hdr.service, p->hdr.client, p->payload));
        }
        close(fd[0]);
        close(fd[1]);
    }
}

TEST(WireSocket, DefaultSocketPathFollowsTheEnvironment)
{
    setenv("KVN_SIM_SOCKET", "/x/y.sock", 1);
    setenv("XDG_RUNTIME_DIR", "/run/user/5", 1);
    EXPECT_EQ(default_socket_path(), "/x/y.sock");
    setenv("KVN_SIM_SOCKET", "", 1);
    EXPECT_EQ(default_socket_path(), "/run/user/5/kvn-sim.sock");
    unsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(default_socket_path(), geteuid() == 0 ? std::string("/run/kvn-sim/kvn-sim.sock")
                                                    : "/tmp/kvn-sim-" + std::to_string(geteuid()) + "/kvn-sim.sock");
    EXPECT_EQ(connect_unix("/nonexistent/dir/sock"), -1);
    EXPECT_EQ(connect_unix(std::string(200, 'a')), -1); // longer than sun_path
}

} // namespace
