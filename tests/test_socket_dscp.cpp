// Marking sockets with a traffic class: the type-of-service byte read back
// from real loopback sockets, and the log lines that report each outcome.
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

using zeph_test::LogCapture;

constexpr const char* kSuccess = "QOSAddSocketToFlow success.";
constexpr const char* kFailed = "QOSAddSocketToFlow failed.";
constexpr const char* kZeroAddr = "QOSAddSocketToFlow para error. srv_addr isn't nullptr, but addr is zero";

int tos_of(int fd) {
    int tos = -1;
    socklen_t len = sizeof(tos);
    if (getsockopt(fd, IPPROTO_IP, IP_TOS, &tos, &len) != 0) {
        return -1;
    }
    return tos;
}

sockaddr_in ipv4(const char* ip, uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = inet_addr(ip);
    return a;
}

const sockaddr* as_sa(const sockaddr_in& a) { return reinterpret_cast<const sockaddr*>(&a); }

// A TCP connection to a loopback listener, closed at the end of the test.
struct Connected {
    zeph_test::TcpListener listener;
    int fd = zeph_test::tcp_connect("127.0.0.1", listener.port());
    ~Connected() {
        if (fd >= 0) {
            close(fd);
        }
    }
};

TEST(SocketDscp, EachLevelSetsItsTypeOfServiceByte) {
    Connected c;
    ASSERT_GE(c.fd, 0);
    LogCapture log;
    // Levels are applied in an order where every step changes the byte, so a
    // mark that silently did nothing shows up as a stale value.
    const struct {
        uint32_t level;
        int tos;
    } cases[] = {{4, 184}, {3, 136}, {5, 224}, {1, 0}, {4, 184}, {2, 0}, {5, 224}, {99, 0}, {3, 136}, {0, 0}};
    for (const auto& k : cases) {
        zeph_set_socket_dscp(static_cast<uint32_t>(c.fd), k.level, nullptr);
        EXPECT_EQ(tos_of(c.fd), k.tos) << "level " << k.level;
    }
    EXPECT_EQ(log.count(kSuccess), 10) << log.dump();
    EXPECT_FALSE(log.contains(kZeroAddr)) << log.dump();
    EXPECT_FALSE(log.contains(kFailed)) << log.dump();
    EXPECT_TRUE(log.contains("fd(" + std::to_string(c.fd) + ") level(4)")) << log.dump();
}

TEST(SocketDscp, DestinationAddressIsCheckedAndZeroOnesFallBackToThePeer) {
    zeph_test::UdpSocket udp;
    ASSERT_TRUE(udp.ok());
    LogCapture log;

    // A full IPv4 destination is accepted without a warning.
    const sockaddr_in good = ipv4("127.0.0.1", 4000);
    zeph_set_socket_dscp(static_cast<uint32_t>(udp.fd()), 4, as_sa(good));
    EXPECT_EQ(tos_of(udp.fd()), 184);
    EXPECT_FALSE(log.contains(kZeroAddr)) << log.dump();

    // Port 0 or address 0: one warning each, and the socket is still marked.
    const sockaddr_in no_port = ipv4("127.0.0.1", 0);
    zeph_set_socket_dscp(static_cast<uint32_t>(udp.fd()), 3, as_sa(no_port));
    EXPECT_EQ(tos_of(udp.fd()), 136);
    const sockaddr_in no_addr = ipv4("0.0.0.0", 4000);
    zeph_set_socket_dscp(static_cast<uint32_t>(udp.fd()), 5, as_sa(no_addr));
    EXPECT_EQ(tos_of(udp.fd()), 224);

    EXPECT_EQ(log.count(kZeroAddr), 2) << log.dump();
    EXPECT_EQ(log.count(kSuccess), 3) << log.dump();
    EXPECT_FALSE(log.contains(kFailed)) << log.dump();
}

TEST(SocketDscp, BadSocketIsLoggedAndHarmless) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    close(fd);
    LogCapture log;
    zeph_set_socket_dscp(static_cast<uint32_t>(fd), 4, nullptr);
    zeph_set_socket_dscp(0xFFFFFFFFu, 3, nullptr); // -1 as the caller's unsigned fd
    EXPECT_EQ(log.count(kFailed), 2) << log.dump();
    EXPECT_TRUE(log.contains("err(10009)")) << log.dump();
    EXPECT_TRUE(log.contains("fd(-1) level(3), flow_id(0)")) << log.dump();
    EXPECT_FALSE(log.contains(kSuccess)) << log.dump();
}

TEST(QosAdapter, HandlesVersionsAndArgumentsFailWithWsaCodes) {
    Connected c;
    ASSERT_GE(c.fd, 0);
    uint64_t handle = 0;
    const MORL_QosVersion bad = {2, 0};
    EXPECT_EQ(MORL_QOSCreateHandle(&bad, &handle), 0);
    EXPECT_EQ(MORL_GetLastSocketErr(), MORL_WSAEINVAL);

    const MORL_QosVersion v10 = {1, 0};
    ASSERT_EQ(MORL_QOSCreateHandle(&v10, &handle), 1);
    ASSERT_NE(handle, 0u);

    uint32_t flow1 = 0;
    uint32_t flow2 = 0;
    ASSERT_EQ(MORL_QOSAddSocketToFlow(handle, c.fd, nullptr, 4, MORL_QOS_NON_ADAPTIVE_FLOW, &flow1), 1);
    ASSERT_EQ(MORL_QOSAddSocketToFlow(handle, c.fd, nullptr, 3, 0, &flow2), 1);
    EXPECT_NE(flow1, 0u);
    EXPECT_NE(flow1, flow2);

    // A destination that is not IPv4 is refused, and the byte stays as it was.
    MORL_SockAddrIn v6{};
    v6.sin_family = 23;
    v6.sin_addr = 0x0100007F;
    uint32_t flow = 0;
    EXPECT_EQ(MORL_QOSAddSocketToFlow(handle, c.fd, &v6, 5, 0, &flow), 0);
    EXPECT_EQ(MORL_GetLastSocketErr(), MORL_WSAEAFNOSUPPORT);
    EXPECT_EQ(tos_of(c.fd), 136);

    // Handle 0 (a failed open) and a closed handle are invalid.
    EXPECT_EQ(MORL_QOSAddSocketToFlow(0, c.fd, nullptr, 4, 0, &flow), 0);
    EXPECT_EQ(MORL_GetLastSocketErr(), MORL_WSA_INVALID_HANDLE);
    EXPECT_EQ(MORL_QOSCloseHandle(handle), 1);
    EXPECT_EQ(MORL_QOSAddSocketToFlow(handle, c.fd, nullptr, 4, 0, &flow), 0);
    EXPECT_EQ(MORL_GetLastSocketErr(), MORL_WSA_INVALID_HANDLE);
    EXPECT_EQ(MORL_QOSCloseHandle(handle), 0);
    EXPECT_EQ(tos_of(c.fd), 136);
}

} // namespace
