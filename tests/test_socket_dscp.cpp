// Traffic class marks read back from real loopback sockets. Runs on the test's thread.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "os_adapter/morl_os.h"
#include "support/peers.h"
#include "zeph_nettools/socket_dscp.h"

namespace {

int tos_of(int fd) {
    int tos = -1;
    socklen_t len = sizeof(tos);
    return getsockopt(fd, IPPROTO_IP, IP_TOS, &tos, &len) == 0 ? tos : -1;
}

// Every step changes the byte, so a mark that did nothing shows as stale; a
// destination with a zero port or address still marks the socket.
TEST(SocketDscp, EachLevelSetsItsByteOnTcpAndUdpSockets) {
    zeph_test::TcpListener listener;
    struct Fd { int fd; ~Fd() { close(fd); } } c{zeph_test::tcp_connect("127.0.0.1", listener.port())};
    ASSERT_GE(c.fd, 0);
    const struct {
        uint32_t level;
        int tos;
    } cases[] = {{4, 184}, {3, 136}, {5, 224}, {1, 0}, {4, 184}, {2, 0}, {5, 224}, {99, 0}, {3, 136}, {0, 0}};
    for (const auto& k : cases) {
        zeph_set_socket_dscp(static_cast<uint32_t>(c.fd), k.level, nullptr);
        EXPECT_EQ(tos_of(c.fd), k.tos) << "level " << k.level;
    }

    zeph_test::UdpSocket udp;
    ASSERT_TRUE(udp.ok());
    const struct {
        uint32_t addr, port, level;
        int tos;
    } dests[] = {{htonl(INADDR_LOOPBACK), 4000, 4, 184}, {htonl(INADDR_LOOPBACK), 0, 3, 136}, {0, 4000, 5, 224}};
    for (const auto& d : dests) {
        sockaddr_in a{};
        a.sin_family = AF_INET, a.sin_port = htons(uint16_t(d.port)), a.sin_addr.s_addr = d.addr;
        zeph_set_socket_dscp(static_cast<uint32_t>(udp.fd()), d.level, reinterpret_cast<const sockaddr*>(&a));
        EXPECT_EQ(tos_of(udp.fd()), d.tos) << std::hex << d.addr << ":" << d.port;
    }

    // -1 as an unsigned fd is refused; a handle that failed to open (0) marks nothing.
    zeph_set_socket_dscp(0xFFFFFFFFu, 3, nullptr);
    uint32_t flow = 0;
    EXPECT_EQ(MORL_QOSAddSocketToFlow(0, udp.fd(), nullptr, 4, MORL_QOS_NON_ADAPTIVE_FLOW, &flow), 0);
    EXPECT_EQ(tos_of(udp.fd()), 224);
}

} // namespace
