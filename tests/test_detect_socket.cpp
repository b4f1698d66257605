// The detections' probe sockets judged by what they put on the wire and read
// back. Runs on the test's thread.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "inc/detect_socket.h"
#include "peers.h"
#include "zeph_nettools/stun.h"

namespace {

using zeph_test::UdpSocket;
using zeph_test::wait_until;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kLoopback = 0x7F000001; // 127.0.0.1, host byte order
constexpr int kRecvWaitMs = 2000;
constexpr int kSilenceMs = 200;

uint32_t be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }
uint16_t be16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }

template <class T>
std::shared_ptr<T> made(const char* key) {
    auto sock = std::dynamic_pointer_cast<T>(SocketFactory<DetectSocket>::instance().get_socket(key));
    EXPECT_TRUE(sock) << key;
    return sock;
}

// A UDP probe socket of `type` opened towards the peer.
std::shared_ptr<DetectSocketUDP> udp_probe(uint32_t type, const UdpSocket& peer) {
    auto sock = made<DetectSocketUDP>("udp");
    sock->set_detect_type(type);
    sock->set_dest_addr(kLoopback, peer.port());
    EXPECT_TRUE(sock->create());
    return sock;
}

// One datagram the peer received, empty on time-out.
Bytes capture(UdpSocket& peer, int wait_ms = kRecvWaitMs) {
    Bytes buf(2048);
    const int n = peer.recv(buf.data(), buf.size(), wait_ms);
    buf.resize(n > 0 ? size_t(n) : 0);
    return buf;
}

// Sends `answer` back to the probe and reads it through the probe's socket.
Bytes answer_through(DetectSocket& sock, UdpSocket& peer, const Bytes& answer) {
    MORL_SockAddrIn local = {};
    int len = sizeof local;
    EXPECT_EQ(MORL_GetSockName(sock.get_fd(), &local, &len), 0);
    EXPECT_TRUE(peer.send_to(answer.data(), answer.size(), "127.0.0.1", MORL_Htons(local.sin_port)));
    Bytes buf(2048);
    int n = -1;
    wait_until([&] { return (n = MORL_Recv(sock.get_fd(), buf.data(), int(buf.size()), 0)) > 0; }, kRecvWaitMs);
    buf.resize(n > 0 ? size_t(n) : 0);
    return buf;
}

TEST(DetectSocketCreate, EachTransportByItsKeyNeedsAnAddressAndPortAndClosesWithTheLastHolder) {
    auto udp = made<DetectSocketUDP>("udp");
    ASSERT_TRUE(udp && made<DetectSocketTCP>("tcp") && made<DetectSocketICMP>("icmp"));
    EXPECT_NE(SocketFactory<DetectSocket>::instance().get_socket("udp"), udp) << "a new socket per call";
    EXPECT_FALSE(SocketFactory<DetectSocket>::instance().get_socket("UDP"));
    for (const char* key : {"udp", "tcp", "icmp"}) {
        auto sock = SocketFactory<DetectSocket>::instance().get_socket(key);
        EXPECT_FALSE(sock->create()) << key;
        sock->set_dest_addr(kLoopback, 0);
        EXPECT_FALSE(sock->create()) << key;
        EXPECT_EQ(sock->get_fd(), MORL_INVALID_SOCKET) << key;
    }

    UdpSocket peer;
    ASSERT_TRUE(peer.ok());
    auto sock = udp_probe(DETECT_PROTO_STUN, peer);
    DetectSockPtr holder = sock->m_sock; // as the message core's table holds it
    const MORL_SOCKET fd = sock->get_fd();
    uint8_t byte = 0;
    EXPECT_EQ(MORL_Recv(fd, &byte, 1, 0), -1);
    EXPECT_EQ(MORL_GetLastSocketErr(), MORL_WSAEWOULDBLOCK) << "non-blocking from the start";
    sock.reset();
    int type = 0, len = sizeof type;
    EXPECT_EQ(MORL_GetSockOpt(fd, MORL_SOL_SOCKET, MORL_SO_TYPE, &type, &len), 0) << "closed too early";
    holder.reset();
    EXPECT_EQ(MORL_GetSockOpt(fd, MORL_SOL_SOCKET, MORL_SO_TYPE, &type, &len), -1) << "still open";
}

TEST(DetectSocketWire, EachUdpProbeFormOnTheWireAndItsAnswer) {
    UdpSocket peer;
    ASSERT_TRUE(peer.ok());
    auto sock = udp_probe(DETECT_PROTO_STUN, peer);

    sock->send_buf(0xA1B2C3D4);
    const Bytes first = capture(peer);
    sock->send_buf(2);
    const Bytes second = capture(peer);
    for (const Bytes& p : {first, second}) {
        ASSERT_EQ(p.size(), 20u);
        EXPECT_EQ(be32(&p[0]), 0x00010000u) << "binding request, no attributes";
        EXPECT_EQ(be32(&p[4]), 0x2112A442u);
        EXPECT_EQ(be32(&p[12]), be32(&p[8]) + 236u);
    }
    EXPECT_EQ(be32(&first[16]), 0xA1B2C3D4u);
    EXPECT_EQ(be32(&second[16]), 2u);
    EXPECT_NE(be32(&second[8]), be32(&first[8])) << "each probe draws its own transaction id";

    // A server's success response echoes the transaction id, and so the seq.
    Bytes response = second;
    response[0] = 0x01;
    response[1] = 0x01;
    const Bytes got = answer_through(*sock, peer, response);
    EXPECT_EQ(sock->get_recv_seq(got.data(), int32_t(got.size())), 2u);
    // Too short to hold the word: no seq, and no read beyond the packet.
    EXPECT_EQ(sock->get_recv_seq(got.data(), 19), 0u);

    // A protocol the socket does not know sends nothing and reads no seq.
    auto unknown = udp_probe(3, peer);
    unknown->send_buf(1);
    EXPECT_TRUE(capture(peer, kSilenceMs).empty());
    EXPECT_EQ(unknown->get_recv_seq(Bytes(20, 0xAB).data(), 20), 0u);

    // The NPS probe: the private head, then zeros.
    sock = udp_probe(DETECT_PROTO_STUN_CUSTOM, peer);
    const int64_t before = sock->get_runtime_current();
    sock->send_buf(77);
    Bytes p = capture(peer);
    const int64_t after = sock->get_runtime_current();
    ASSERT_EQ(p.size(), 1200u);
    EXPECT_GE(be32(&p[24]), uint32_t(before));
    EXPECT_LE(be32(&p[24]), uint32_t(after));
    const uint16_t nonce = be16(&p[2]);
    const uint32_t session = be32(&p[20]);
    // Nonce (2..3), session (20..23) and time (24..27) vary; the rest is fixed.
    const Bytes fixed = {0xFF, 0x01, 0, 0, 0x80, 0x70, 0xEC, 0xEC, 16, 0, 0, 2, 0x21, 0x12, 0xA4, 0x42,
                         0, 0, 0, 77, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0x05, 0x78};
    for (size_t i : {2, 3, 20, 21, 22, 23, 24, 25, 26, 27}) p[i] = 0;
    EXPECT_EQ(Bytes(p.begin(), p.begin() + 32), fixed);
    for (size_t i = 32; i < p.size(); ++i) ASSERT_EQ(p[i], 0) << "byte " << i;

    sock->send_buf(78);
    const Bytes q = capture(peer);
    ASSERT_EQ(q.size(), 1200u);
    EXPECT_FALSE(be16(&q[2]) == nonce && be32(&q[20]) == session)
        << "nonce and session are drawn afresh for each probe";

    const Bytes echoed = answer_through(*sock, peer, q);
    EXPECT_EQ(sock->get_recv_seq(echoed.data(), int32_t(echoed.size())), 78u);

    // The ICE check: the STUN service's packet for the audio key, nothing without it.
    MORL_StunClearIceInfo("stun_audio_7");
    const StunIceInfo local{"locU", "local-secret"}, remote{"remUF", "remote-secret"};
    ASSERT_EQ(MORL_StunSetLocalIceInfo("stun_audio_7", &local), 0u);
    ASSERT_EQ(MORL_StunSetRemoteIceInfo("stun_audio_7", &remote), 0u);
    ASSERT_EQ(MORL_StunSetChannelId("stun_audio_7", 0x01020304), 0u);

    sock = udp_probe(DETECT_PROTO_ICE, peer);
    sock->send_buf(5);
    const Bytes ice = capture(peer);
    MORL_StunClearIceInfo("stun_audio_7");
    // No ICE information under any audio key: the build fails, nothing leaves.
    sock->send_buf(6);
    EXPECT_TRUE(capture(peer, kSilenceMs).empty());
    ASSERT_GE(ice.size(), 16u + 20u);
    ASSERT_LE(ice.size(), 287u);

    // The private head in front: tag, version, type, media, channel, seq 0, length.
    EXPECT_EQ(Bytes(ice.begin(), ice.begin() + 12), Bytes({0xFF, 3, 129, 1, 1, 2, 3, 4, 0, 0, 0, 0}));
    EXPECT_EQ(be16(&ice[12]), ice.size());

    // The request behind it: USERNAME "remote:local" first, FINGERPRINT last.
    const Bytes m(ice.begin() + 16, ice.end());
    ASSERT_EQ(be16(&m[0]), 0x0001);
    ASSERT_EQ(be16(&m[2]) + 20u, m.size());
    const std::string user = "remUF:locU";
    ASSERT_EQ(be16(&m[20]), 0x0006);
    ASSERT_EQ(be16(&m[22]), user.size());
    EXPECT_EQ(std::string(m.begin() + 24, m.begin() + 24 + long(user.size())), user);
    EXPECT_EQ(be16(&m[m.size() - 8]), 0x8028);
}

// The echo's bytes are the shared codec's (golden-checked elsewhere); here the sequence numbers.
TEST(DetectSocketIcmp, EchoRequestsOnTheWireAndTheirRepliesAsRoot) {
    auto sock = made<DetectSocketICMP>("icmp");
    sock->set_dest_addr(kLoopback, 1); // ICMP has no port, but an address needs one here
    if (!sock->create()) GTEST_SKIP() << "no raw ICMP socket (needs root or CAP_NET_RAW)";
    for (uint32_t seq : {0u, 0u, 7u, 0u}) sock->send_buf(seq); // 7 is given, and leaves the own count alone
    // The raw socket reads our requests and the kernel's replies (and maybe other tests').
    std::vector<uint16_t> request_seqs;
    std::vector<uint32_t> reply_seqs;
    uint8_t buf[2048];
    wait_until(
        [&] {
            const int n = MORL_Recv(sock->get_fd(), buf, sizeof buf, 0);
            const size_t ihl = n > 0 ? size_t(buf[0] & 0x0F) * 4 : 0;
            if (n <= 0 || size_t(n) < ihl + 8 || be16(&buf[ihl + 4]) != 0) return false;
            if (buf[ihl] == 8 && size_t(n) - ihl == 44) request_seqs.push_back(be16(&buf[ihl + 6]));
            if (buf[ihl] == 0) reply_seqs.push_back(sock->get_recv_seq(buf, n));
            return request_seqs.size() == 4 && reply_seqs.size() == 4;
        },
        kRecvWaitMs, 1);
    EXPECT_EQ(request_seqs, (std::vector<uint16_t>{0, 1, 7, 2}));
    EXPECT_EQ(reply_seqs, (std::vector<uint32_t>{0, 1, 7, 2}));
}

// Poll events of fd within `wait_ms`, 0 when none came.
int16_t poll_write(MORL_SOCKET fd, int wait_ms) {
    MORL_PollFd p = {fd, MORL_POLLOUT, 0};
    return MORL_Poll(&p, 1, wait_ms) > 0 ? p.revents : 0;
}

TEST(DetectSocketTcp, TheConnectIsTheProbeAndARefusalStaysAnError) {
    zeph_test::TcpListener listener;
    ASSERT_TRUE(listener.ok());
    auto reached = made<DetectSocketTCP>("tcp");
    reached->set_dest_addr(kLoopback, listener.port());
    ASSERT_TRUE(reached->create());
    EXPECT_FALSE(listener.wait_accepts(1, kSilenceMs)) << "no connect before its probe";
    reached->send_buf(1);
    EXPECT_EQ(poll_write(reached->get_fd(), kRecvWaitMs), MORL_POLLOUT);
    EXPECT_TRUE(listener.wait_accepts(1, kRecvWaitMs));
    EXPECT_EQ(reached->get_recv_seq(Bytes(20, 1).data(), 20), 0u);

    // A refused connect is never "writable and nothing else" (a reached port's sign).
    auto refused = made<DetectSocketTCP>("tcp");
    refused->set_dest_addr(kLoopback, zeph_test::closed_tcp_port());
    ASSERT_TRUE(refused->create());
    refused->send_buf(1);
    int16_t ev = 0;
    wait_until([&] { return (ev = poll_write(refused->get_fd(), 10)) != 0; }, kRecvWaitMs);
    EXPECT_NE(ev, MORL_POLLOUT);
    EXPECT_TRUE(ev & MORL_POLLERR) << ev;
    int err = 0, len = sizeof err;
    EXPECT_EQ(MORL_GetSockOpt(refused->get_fd(), MORL_SOL_SOCKET, MORL_SO_ERROR, &err, &len), 0);
    EXPECT_EQ(err, MORL_WSAECONNREFUSED);
}

std::shared_ptr<DetectSocketTCP> bound_tcp(int start = -1) {
    auto sock = made<DetectSocketTCP>("tcp");
    sock->set_dest_addr(kLoopback, 9);
    sock->set_local_ip(MORL_InetAddr("127.0.0.1"));
    EXPECT_TRUE(sock->create());
    if (start >= 0) sock->set_start_port(uint16_t(start));
    sock->bind();
    return sock;
}

TEST(DetectSocketBind, WalkSkipsTakenPortsGivesUpAfterSixteenAndWrapsAtTheLimit) {
    const uint16_t start = 61230;
    std::vector<std::shared_ptr<DetectSocketTCP>> takers;
    for (int i = 0; i < 16; ++i) {
        takers.push_back(bound_tcp(i == 0 ? start : -1));
        ASSERT_EQ(takers.back()->get_local_port(), start + i) << "successive sockets take successive ports";
    }
    auto late = bound_tcp(start);
    EXPECT_EQ(late->get_local_port(), 0) << "sixteen taken ports leave it unbound";
    EXPECT_EQ(late->get_start_port(), start + 16);
    takers.pop_back(); // frees start + 15
    EXPECT_EQ(bound_tcp(start + 1)->get_local_port(), start + 15);

    auto high = bound_tcp(64999);
    EXPECT_EQ(high->get_local_port(), 64999);
    EXPECT_EQ(high->get_start_port(), DETECT_SOCKET_START_PORT);
    // ICMP always starts from the bottom.
    auto icmp = made<DetectSocketICMP>("icmp");
    icmp->set_start_port(61000);
    EXPECT_EQ(icmp->get_start_port(), DETECT_SOCKET_START_PORT);
}

} // namespace
