// Tests of the packet framing shared by the platform libraries and kvn-sim:
// what a peer may send is checked before it is trusted.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

#include "kvn_wire.h"

using namespace kvn_wire;

namespace {

struct SocketPair {
    int fd[2];
    SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0); }
    ~SocketPair()
    {
        close(fd[0]);
        if (fd[1] >= 0)
            close(fd[1]);
    }
};

TEST(WireHeader, RoundTripKeepsEveryField)
{
    Header h{Kind::ConnectOk, 0xFFFF, 0xFFE4, 7, 1, 123};
    uint8_t b[kHeaderSize];
    encode_header(h, b);
    EXPECT_EQ(b[0], 0x81);
    EXPECT_EQ(b[1], kVersion);
    EXPECT_EQ(b[4], 0xE4); // little-endian service id
    EXPECT_EQ(b[5], 0xFF);
    auto d = decode_header(b);
    ASSERT_TRUE(d);
    EXPECT_EQ(d->kind, Kind::ConnectOk);
    EXPECT_EQ(d->instance, 0xFFFF);
    EXPECT_EQ(d->service, 0xFFE4u);
    EXPECT_EQ(d->client, 7);
    EXPECT_EQ(d->status, 1);
    EXPECT_EQ(d->length, 123u);
}

TEST(WireHeader, RejectsWrongVersionUnknownKindAndOversizeLength)
{
    uint8_t b[kHeaderSize];
    encode_header(Header{Kind::Qmi, 0, 11, 0, 0, 10}, b);
    uint8_t bad = b[1];
    b[1] = 2;
    EXPECT_FALSE(decode_header(b));
    b[1] = bad;
    b[0] = 0x42;
    EXPECT_FALSE(decode_header(b));
    encode_header(Header{Kind::Qmi, 0, 11, 0, 0, kMaxPayload + 1}, b);
    EXPECT_FALSE(decode_header(b));
    encode_header(Header{Kind::Qmi, 0, 11, 0, 0, kMaxPayload}, b);
    EXPECT_TRUE(decode_header(b));
}

TEST(WireQmi, HeaderLengthMustMatchTheBytesThatFollow)
{
    const uint8_t tlvs[] = {0x01, 0x01, 0x00, 0x02};
    auto m = encode_qmi(QmiHeader{kQmiResponse, 0x1234, 0x0030, 0}, tlvs, sizeof tlvs);
    ASSERT_EQ(m.size(), kQmiHeaderSize + sizeof tlvs);
    auto h = decode_qmi(m.data(), m.size());
    ASSERT_TRUE(h);
    EXPECT_EQ(h->flags, kQmiResponse);
    EXPECT_EQ(h->txn, 0x1234);
    EXPECT_EQ(h->msg_id, 0x0030);
    EXPECT_EQ(h->tlv_len, sizeof tlvs);
    EXPECT_FALSE(decode_qmi(m.data(), m.size() - 1)); // one byte missing
    m.push_back(0);
    EXPECT_FALSE(decode_qmi(m.data(), m.size())); // one byte too many
    EXPECT_FALSE(decode_qmi(m.data(), 6));        // shorter than the header
}

TEST(WireSocket, PacketCrossesAStreamSocketWhole)
{
    SocketPair sp;
    std::vector<uint8_t> payload(70000 - 4400, 0xA5);
    ASSERT_TRUE(write_packet(sp.fd[1], Header{Kind::Qmi, 0, 3, 2, 0, 0}, payload));
    auto p = read_packet(sp.fd[0], 1000);
    ASSERT_TRUE(p);
    EXPECT_EQ(p->hdr.service, 3u);
    EXPECT_EQ(p->hdr.length, payload.size());
    EXPECT_EQ(p->payload, payload);
}

TEST(WireSocket, PacketCutShortOrSilentPeerGivesNothing)
{
    {
        SocketPair sp;
        auto bytes = encode_packet(Header{Kind::Qmi, 0, 3, 0, 0, 0}, std::vector<uint8_t>(20, 1));
        ASSERT_TRUE(write_all(sp.fd[1], bytes.data(), bytes.size() - 5));
        close(sp.fd[1]);
        sp.fd[1] = -1;
        EXPECT_FALSE(read_packet(sp.fd[0], 1000)); // closed in the middle
    }
    {
        SocketPair sp;
        EXPECT_FALSE(read_packet(sp.fd[0], 50)); // nothing arrives: timeout
    }
}

TEST(WireSocket, DefaultSocketPathFollowsTheEnvironment)
{
    std::string keep_sock = getenv("KVN_SIM_SOCKET") ? getenv("KVN_SIM_SOCKET") : "";
    std::string keep_rt = getenv("XDG_RUNTIME_DIR") ? getenv("XDG_RUNTIME_DIR") : "";
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
    setenv("KVN_SIM_SOCKET", keep_sock.c_str(), 1);
    if (!keep_rt.empty())
        setenv("XDG_RUNTIME_DIR", keep_rt.c_str(), 1);
}

} // namespace
