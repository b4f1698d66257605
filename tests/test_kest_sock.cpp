// The tunnel socket shim against a UDP endpoint on loopback: wire bytes, refusals,
// descriptor sets and pass-through calls. Runs on the test's thread.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <vector>

#include <gtest/gtest.h>

#include "support/peers.h"
#include "zeph_nettools/kest_sock.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr int kWaitMs = 2000;

sockaddr_in loopback(uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

// A UDP socket made and bound on 127.0.0.1 through the shim, closed through it.
struct KestSocket {
    KestSocket() {
        fd = kest_socket(KEST_AF_INET, KEST_SOCK_DGRAM, KEST_IPPROTO_UDP);
        sockaddr_in a = loopback(0);
        if (fd < 0 || kest_bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof(a)) != 0) return;
        socklen_t len = sizeof(a);
        if (getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0) port = ntohs(a.sin_port);
    }
    ~KestSocket() {
        if (fd >= 0) kest_close_socket(fd);
    }
    bool ok() const { return fd >= 0 && port != 0; }
    // Waits for a datagram, then reads it through the shim into a buffer of cap bytes.
    int32_t recv(Bytes& out, size_t cap, sockaddr_in* from) {
        kest_fdset rd{1, {fd}};
        kest_timeval wait{kWaitMs / 1000, 0};
        if (kest_select(0, &rd, nullptr, nullptr, &wait) != 1) return -2;
        out.assign(cap, 0xAA);
        int32_t from_len = sizeof(*from);
        return kest_recvfrom(fd, out.data(), static_cast<int32_t>(cap), 0, reinterpret_cast<sockaddr*>(from),
                             from ? &from_len : nullptr);
    }
    int32_t fd = -1;
    uint16_t port = 0;
};

Bytes received(zeph_test::UdpSocket& endpoint, uint16_t* from_port = nullptr) {
    uint8_t buf[2048];
    const int n = endpoint.recv(buf, sizeof buf, kWaitMs, nullptr, from_port);
    return n < 0 ? Bytes{} : Bytes(buf, buf + n);
}

const Bytes kPayload = {'m', 'e', 'd', 'i', 'a', 0x00, 0xFF};

// Any destination port goes in the head to the tunnel port; the result counts the head.
TEST(KestShim, BothHeadsOnTheWireAndRefusalsOnReceipt) {
    KestSocket s;
    zeph_test::UdpSocket tunnel;
    ASSERT_TRUE(s.ok() && tunnel.ok());
    kest_set_port(tunnel.port());
    EXPECT_EQ(kest_get_port(), tunnel.port());
    const sockaddr_in dest = loopback(80);
    const auto* to = reinterpret_cast<const sockaddr*>(&dest);
    const int32_t len = static_cast<int32_t>(kPayload.size());

    kest_set_ssrc_flag(0);
    EXPECT_EQ(kest_sendto(s.fd, kPayload.data(), len, 0, to, sizeof dest), len + 4);
    uint16_t from_port = 0;
    EXPECT_EQ(received(tunnel, &from_port), (Bytes{0xFF, 0x01, 0x00, 0x50, 'm', 'e', 'd', 'i', 'a', 0x00, 0xFF}));
    EXPECT_EQ(from_port, s.port);

    kest_set_ssrc_flag(7);
    EXPECT_EQ(kest_get_ssrc_flag(), 7u);
    EXPECT_EQ(kest_sendto(s.fd, kPayload.data(), len, 0, to, sizeof dest), len + 8);
    EXPECT_EQ(received(tunnel), (Bytes{0xFF, 0x01, 0x00, 0x50, 0xFF, 0x02, 0xEC, 0xEC, 'm', 'e', 'd', 'i', 'a', 0x00, 0xFF}));

    // A high port keeps both of its bytes; an empty payload still sends its head.
    const sockaddr_in high = loopback(0xBEEF);
    kest_set_ssrc_flag(0);
    EXPECT_EQ(kest_sendto(s.fd, nullptr, 0, 0, reinterpret_cast<const sockaddr*>(&high), sizeof high), 4);
    EXPECT_EQ(received(tunnel), (Bytes{0xFF, 0x01, 0xBE, 0xEF}));

    // No destination, a length that cannot be framed, a closed socket: -1.
    EXPECT_EQ(kest_sendto(s.fd, kPayload.data(), len, 0, nullptr, sizeof dest), -1);
    EXPECT_EQ(kest_sendto(s.fd, kPayload.data(), 0x7FFFFFFF, 0, to, sizeof dest), -1);
    EXPECT_EQ(kest_sendto(-1, kPayload.data(), len, 0, to, sizeof dest), -1);

    // Short and foreign datagrams are refused with a line each, a flood with a bounded few.
    Bytes buf;
    sockaddr_in from{};
    zeph_test::LogCapture log;
    const struct {
        Bytes datagram;
        const char* line;
    } cases[] = {
        {{0xFF, 0x01, 0x00, 0x50}, "recv is not kest"},
        {{}, "recv is not kest"},
        {{0xFE, 0x01, 0x00, 0x50, 1, 2, 3, 4, 5, 6}, "recv is not kest len=6"},
        {{0xFF, 0x02, 0x00, 0x50, 1}, "recv is not kest len=1"},
    };
    for (const auto& c : cases) {
        log.clear();
        ASSERT_TRUE(tunnel.send_to(c.datagram.data(), c.datagram.size(), "127.0.0.1", s.port));
        EXPECT_EQ(s.recv(buf, 32, &from), KEST_ERR_NOT_TUNNEL) << c.line;
        EXPECT_EQ(ntohs(from.sin_port), tunnel.port()) << "the socket's own source stays";
        EXPECT_EQ(buf, Bytes(32, 0xAA)) << "nothing delivered";
        EXPECT_TRUE(log.contains(c.line)) << log.dump();
    }
    EXPECT_EQ(kest_get_last_error(), 0);

    log.clear();
    const Bytes foreign = {0x00, 0x01, 0x00, 0x50, 0x01};
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(tunnel.send_to(foreign.data(), foreign.size(), "127.0.0.1", s.port));
        ASSERT_EQ(s.recv(buf, 16, nullptr), KEST_ERR_NOT_TUNNEL);
    }
    const int lines = log.count("recv is not kest len=1");
    EXPECT_TRUE(lines >= 1 && lines <= 20) << log.dump();
}

// Non-blocking through ioctl; FIONREAD and select see a waiting datagram; bounded fd sets.
TEST(KestPassThrough, IoctlSelectOptionsAndDescriptorSets) {
    KestSocket s;
    zeph_test::UdpSocket peer;
    ASSERT_TRUE(s.ok() && peer.ok());
    uint32_t on = 1;
    ASSERT_EQ(kest_ioctl(s.fd, KEST_FIONBIO, &on), 0);
    zeph_test::LogCapture log;
    uint8_t buf[16];
    EXPECT_EQ(kest_recvfrom(s.fd, buf, sizeof buf, 0, nullptr, nullptr), -1);
    EXPECT_TRUE(log.contains("recvfrom error, ret=-1, errno=10035")) << log.dump();

    kest_fdset rd, wr;
    const auto only = [&](kest_fdset& set) {
        kest_fd_zero(&set);
        kest_fd_set(s.fd, &set);
        return &set;
    };
    kest_timeval none{0, 0}, wait{kWaitMs / 1000, 0};
    EXPECT_TRUE(kest_select(0, only(rd), nullptr, nullptr, &none) == 0 && kest_fd_isset(s.fd, &rd) == 0);
    const uint8_t datagram[] = {0xFF, 0x01, 0x00, 0x07, 'x'};
    ASSERT_TRUE(peer.send_to(datagram, sizeof datagram, "127.0.0.1", s.port));
    EXPECT_EQ(kest_select(0, only(rd), only(wr), nullptr, &wait), 2);
    EXPECT_TRUE(kest_fd_isset(s.fd, &rd) == 1 && kest_fd_isset(s.fd, &wr) == 1);
    uint32_t waiting = 0;
    EXPECT_TRUE(kest_ioctl(s.fd, KEST_FIONREAD, &waiting) == 0 && waiting == sizeof datagram) << waiting;
    EXPECT_EQ(kest_recvfrom(s.fd, buf, sizeof buf, 0, nullptr, nullptr), 1);

    // Windows option numbers become the kernel's.
    int32_t size = 96 * 1024, read_back = 0, read_len = sizeof read_back;
    ASSERT_EQ(kest_set_sock_opt(s.fd, KEST_SOL_SOCKET, KEST_SO_RCVBUF, &size, sizeof size), 0);
    ASSERT_EQ(kest_get_sock_opt(s.fd, KEST_SOL_SOCKET, KEST_SO_RCVBUF, &read_back, &read_len), 0);
    EXPECT_TRUE(read_back >= size && read_len == 4) << read_back << " " << read_len;

    // A set holds no duplicates and at most 64; a count beyond the array reads as full; null is empty.
    kest_fdset set;
    kest_fd_zero(&set);
    for (int i = 0; i < 2; ++i) kest_fd_set(5, &set);
    EXPECT_EQ(set.fd_count, 1u);
    for (int32_t fd = 100; fd < 200; ++fd) kest_fd_set(fd, &set);
    EXPECT_EQ(set.fd_count, 64u);
    EXPECT_TRUE(kest_fd_isset(5, &set) == 1 && kest_fd_isset(162, &set) == 1);
    EXPECT_EQ(kest_fd_isset(163, &set), 0) << "the 65th was not added";

    set.fd_count = 0xFFFFFFFFu;
    EXPECT_EQ(kest_fd_isset(-7, &set), 0);
    kest_fd_set(-7, &set);
    EXPECT_EQ(set.fd_count, 0xFFFFFFFFu);

    kest_fd_zero(nullptr);
    kest_fd_set(5, nullptr);
    EXPECT_EQ(kest_fd_isset(5, nullptr), 0);
}

} // namespace
