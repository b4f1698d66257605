// Unreachable reads as unreachable: with no network (an empty namespace, root only), where Linux
// tells a failed connect to the call alone, and for 0.0.0.0, which Linux would connect to this machine.
#include <gtest/gtest.h>

#include <sched.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "detect_reports.h"
#include "os_adapter/morl_os.h"
#include "peers.h"
#include "zeph_nettools/media_socket.h"
#include "zeph_nettools/net_tools.h"

using namespace zeph_test;

namespace {

// Moves the process into a new network namespace: loopback down, no route anywhere.
#define REQUIRE_OFFLINE()                                    \
    if (::geteuid() != 0 || ::unshare(CLONE_NEWNET) != 0) \
    GTEST_SKIP() << "needs root to make a network namespace without network"

MORL_SockAddrIn to(const char* ip, uint16_t port) {
    MORL_SockAddrIn a{};
    a.sin_family = MORL_AF_INET;
    a.sin_port = static_cast<uint16_t>((port >> 8) | (port << 8));
    a.sin_addr = ipv4_be(ip);
    return a;
}

MORL_SOCKET nonblocking_socket(int type) {
    MORL_SOCKET s = MORL_Socket(MORL_AF_INET, type, 0);
    uint32_t on = 1;
    if (s >= 0) MORL_IoctlSocket(s, MORL_FIONBIO, &on);
    return s;
}

int so_error(MORL_SOCKET s) {
    int err = -1, len = sizeof err;
    return MORL_GetSockOpt(s, MORL_SOL_SOCKET, MORL_SO_ERROR, &err, &len) == 0 ? err : -1;
}

// Whether s is in select's error set (or, with a wait, its write set).
int in_set(MORL_SOCKET s, bool write_set, int wait_ms = 0) {
    MORL_FdSet set;
    MORL_FD_ZERO(&set);
    MORL_FD_SET(s, &set);
    MORL_TimeVal tv{0, wait_ms * 1000L};
    MORL_Select(s + 1, nullptr, write_set ? &set : nullptr, write_set ? nullptr : &set, &tv);
    return MORL_FD_ISSET(s, &set);
}

// A waiting caller sees a failed connect: not writable, in the error set, ERR|HUP polled, SO_ERROR = wsa.
void expect_failed_connect(MORL_SOCKET s, int wsa) {
    EXPECT_TRUE(in_set(s, true, 30) == 0 && in_set(s, false) == 1) << "writable, or not in the error set";
    MORL_PollFd pfd{s, MORL_POLLWRNORM, 0};
    MORL_Poll(&pfd, 1, 30);
    EXPECT_EQ(pfd.revents & (MORL_POLLWRNORM | MORL_POLLERR | MORL_POLLHUP), MORL_POLLERR | MORL_POLLHUP);
    EXPECT_EQ(so_error(s), wsa);
}

// Records of the detections' callbacks; each test's own serial numbers pick its.
DetectReports<AnyPortResult>& g_any = *new DetectReports<AnyPortResult>;
DetectReports<NetDetectResult>& g_net = *new DetectReports<NetDetectResult>;
void on_any(void* p) { g_any.add(*static_cast<AnyPortResult*>(p)); }
void on_net(NetDetectResult* r) { g_net.add(*r); }

// Waits for the record of serial number num.
template <class Record>
bool result_of(const DetectReports<Record>& reports, uint32_t num, Record* out) {
    const auto pick = [num](const Record& r) { return r.num == num; };
    if (!reports.wait_for(1, 10000, pick)) return false;
    *out = reports.all(pick)[0].value;
    return true;
}

} // namespace

// A failed connect's error stays with the socket until it is closed, as on Windows; no
// detection reaches anything; the media channel does not come up.
TEST(OfflineMachine, NothingConnectsAndNoDetectionReachesAnything) {
    REQUIRE_OFFLINE();
    MORL_SOCKET s = nonblocking_socket(MORL_SOCK_STREAM);
    ASSERT_GE(s, 0);
    MORL_SockAddrIn dst = to("127.0.0.1", 443);
    EXPECT_TRUE(MORL_Connect(s, &dst, sizeof dst) == -1 && MORL_GetLastSocketErr() == MORL_WSAENETUNREACH);
    expect_failed_connect(s, MORL_WSAENETUNREACH);
    EXPECT_EQ(so_error(s), MORL_WSAENETUNREACH) << "reading SO_ERROR cleared it";
    ASSERT_EQ(MORL_CloseSocket(s), 0);

    // The number comes again for the next socket, which owes nothing to the old one.
    MORL_SOCKET again = nonblocking_socket(MORL_SOCK_STREAM);
    ASSERT_EQ(again, s);
    EXPECT_TRUE(so_error(again) == 0 && in_set(again, false) == 0);
    MORL_CloseSocket(again);

    // Port detection: TCP, UDP and ICMP to this machine's own address.
    PortDetectInfo info;
    std::memset(&info, 0, sizeof info);
    info.group_num = 1;
    info.groups[0].detect_num = 3;
    const std::pair<uint16_t, uint8_t> targets[] = {{443, ZEPH_TRANS_TCP}, {3478, ZEPH_TRANS_UDP}, {1, ZEPH_TRANS_ICMP}};
    for (int i = 0; i < 3; ++i) {
        PortDetectEntry& e = info.groups[0].entries[i];
        e.addr = ipv4_be("127.0.0.1"), e.port = targets[i].first, e.protocol = targets[i].second;
    }
    ASSERT_EQ(zeph_any_port_detect(0x0FF1, &info, on_any), 0);
    AnyPortResult any{};
    ASSERT_TRUE(result_of(g_any, 0x0FF1, &any));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(any.groups[0].open[i], 0u) << "entry " << i << " read as open with no network";

    // Net detection, one destination per transport: the failure record.
    for (uint8_t t : {ZEPH_TRANS_TCP, ZEPH_TRANS_UDP}) {
        const uint32_t num = 0x0FF10 + t;
        ASSERT_EQ(zeph_single_net_detect(num, "127.0.0.1", 443, t, on_net), 0);
        NetDetectResult r{};
        ASSERT_TRUE(result_of(g_net, num, &r)) << "transport " << int(t);
        EXPECT_TRUE(r.qos == 3u && r.discard == 100 && r.average == 1000) << "transport " << int(t) << ": " << r.qos;
    }

    const uint32_t session = 0x0FF1;
    ASSERT_EQ(MORL_MediaCreateSocket(session, ZEPH_MEDIA_AUDIO, 2), 0);
    EXPECT_NE(MORL_MediaCreateChannel(session, ZEPH_MEDIA_AUDIO, "127.0.0.1", 443, nullptr), 0);
    EXPECT_EQ(MORL_MediaSend(session, ZEPH_MEDIA_PKT_RTP, ZEPH_MEDIA_AUDIO, reinterpret_cast<const uint8_t*>("x"), 1, 0),
              MEDIA_SOCKET_ERRCODE_NO_SOCKET);
    EXPECT_EQ(MORL_MediaCloseSocket(session, ZEPH_MEDIA_AUDIO), 0);
}

// Linux would connect 0.0.0.0 to a listener of this machine.
TEST(ZeroAddress, IsRefusedAndNeverProbesThisMachine) {
    TcpListener local("127.0.0.1");
    ASSERT_TRUE(local.ok());

    MORL_SOCKET s = nonblocking_socket(MORL_SOCK_STREAM);
    ASSERT_GE(s, 0);
    MORL_SockAddrIn any = to("0.0.0.0", local.port());
    EXPECT_TRUE(MORL_Connect(s, &any, sizeof any) == -1 && MORL_GetLastSocketErr() == MORL_WSAEADDRNOTAVAIL);
    expect_failed_connect(s, MORL_WSAEADDRNOTAVAIL);
    MORL_CloseSocket(s);

    MORL_SOCKET u = nonblocking_socket(MORL_SOCK_DGRAM);
    ASSERT_GE(u, 0);
    EXPECT_TRUE(MORL_Sendto(u, "x", 1, 0, &any, sizeof any) == -1 && MORL_GetLastSocketErr() == MORL_WSAEADDRNOTAVAIL);
    MORL_CloseSocket(u);
    EXPECT_FALSE(local.wait_accepts(1, 100));
}
