// The event-driven runtime end to end: start and stop, packets, timers, name
// answers, descriptor reuse. Runs on the test's thread; the runtime's threads call back.
#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "dns/ravn_dns.h"
#include "dns_responder.h"
#include "inc/detect_socket.h"
#include "inc/net_tools_msg.h"
#include "peers.h"
#include "zeph_nettools/net_tools.h"
#include "zeph_nettools/settings.h"

using namespace zeph_test;

namespace {

int threads_named(const std::string& name) {
    int n = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream f(task.path() / "comm");
        std::string comm;
        n += std::getline(f, comm) && comm == name;
    }
    return n;
}

uint32_t host_order(const std::string& ip) { return ntohl(ipv4_be(ip)); }

// A detection of the test's own: records what reaches it and on which thread.
class TinyDetect : public DetectBase {
public:
    uint32_t get_recv_msg_id() override { return NET_TOOLS_MSG_CONNECTIVITY_RECV; }
    void recv_pkt(const uint8_t* data, uint32_t len, std::shared_ptr<DetectSocket>,
                  std::shared_ptr<DetectBase>) override {
        note(packets, std::string(reinterpret_cast<const char*>(data), len));
    }
    void recv_timeout(uint64_t timer) override {
        note(timeouts, std::to_string(timer));
        if (on_timeout) on_timeout(timer);
    }
    void recv_dns(const char* host, uint32_t) override { note(answers, host); }
    // How many times `what` came in `list`, or how many came at all.
    size_t count(const std::vector<std::string>& list, const std::string& what = "") {
        std::lock_guard<std::mutex> g(mu);
        return what.empty() ? list.size() : size_t(std::count(list.begin(), list.end(), what));
    }
    size_t count_timeouts(uint64_t t) { return count(timeouts, std::to_string(t)); }

    std::mutex mu;
    std::vector<std::string> packets, timeouts, answers;
    int off_thread = 0;
    std::function<void(uint64_t)> on_timeout;

private:
    void note(std::vector<std::string>& list, const std::string& what) {
        std::lock_guard<std::mutex> g(mu);
        list.push_back(what);
        off_thread += !NetToolsMsg::on_message_thread();
    }
};

// A UDP socket connected to the peer, not yet in the table.
std::shared_ptr<DetectSocket> open_udp(const UdpSocket& peer) {
    std::shared_ptr<DetectSocket> sock = SocketFactory<DetectSocket>::instance().get_socket(DETECT_SOCKET_KEY_UDP);
    if (sock) sock->set_dest_addr(host_order("127.0.0.1"), peer.port());
    return sock && sock->create() ? sock : nullptr;
}

// Enters the socket in the table as a detection does: kept pointers and a create message.
bool register_sock(std::shared_ptr<DetectBase>& det, std::shared_ptr<DetectSocket>& sock, const UdpSocket& peer) {
    DetectSocketBody body{};
    body.dest_ip = host_order("127.0.0.1");
    body.dest_port = peer.port();
    body.sock_key = reinterpret_cast<uint64_t>(&sock);
    body.detect_key = reinterpret_cast<uint64_t>(&det);
    DetectPtrKeeper::keep_ptr(&sock);
    DetectPtrKeeper::keep_ptr(&det);
    EXPECT_EQ(0u, post_detect_msg(NET_TOOLS_MSG_CREATE_SOCKET, 0, 0, &body, sizeof body));
    // The message thread takes the kept pointers before the keys go stale.
    return wait_until([&] { return g_net_tools_msg.is_registered(sock->get_fd(), sock.get()); }, 3000);
}

std::shared_ptr<DetectSocket> open_registered(std::shared_ptr<DetectBase>& det, const UdpSocket& peer) {
    std::shared_ptr<DetectSocket> sock = open_udp(peer);
    if (!sock || !register_sock(det, sock, peer)) return nullptr;
    return sock;
}

// Our socket's port, learnt by the peer from a first datagram.
bool learn_port(DetectSocket& sock, UdpSocket& peer, uint16_t* port) {
    const char hello[] = "hi";
    sock.send(hello, sizeof hello);
    char buf[64];
    return peer.recv(buf, sizeof buf, 2000, nullptr, port) > 0;
}

class Runtime : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, zeph_net_tools_init()); }
    void TearDown() override { zeph_net_tools_uninit(); }
};

constexpr const char* kRecvThread = "detect_recv";
constexpr const char* kMsgThread = "net_tools_detec"; // the module's name, cut to 15
constexpr const char* kDnsThread = "zeph_dns";

} // namespace

TEST(RuntimeLife, InitTwiceUninitReinitKeepsOneReceiveThread) {
    EXPECT_EQ(0, zeph_net_tools_uninit()); // without an init
    ASSERT_EQ(0, zeph_net_tools_init());
    ASSERT_EQ(0, zeph_net_tools_init());
    EXPECT_EQ(1, threads_named(kRecvThread));
    EXPECT_EQ(1, threads_named(kMsgThread));
    // A look-up starts the resolver thread; the stop ends it with the others.
    ASSERT_EQ(0u, RAVN_NETB_DnsGetIpByAsynResolve(
                      "127.0.0.1", 0, 0, [](uint32_t, const char*, const RAVN_DnsAddrRecord*, int32_t, uint32_t, uint64_t) {},
                      1, 0));
    EXPECT_TRUE(wait_until([] { return threads_named(kDnsThread) == 1; }, 3000));
    EXPECT_EQ(0, zeph_net_tools_uninit());
    for (const char* name : {kRecvThread, kMsgThread, kDnsThread})
        EXPECT_EQ(0, threads_named(name)) << name; // joined, not left running
    EXPECT_EQ(0, zeph_net_tools_uninit());
    ASSERT_EQ(0, zeph_net_tools_init());
    EXPECT_EQ(1, threads_named(kRecvThread));
    // The new runtime works: a packet goes through.
    UdpSocket peer;
    auto det = std::make_shared<TinyDetect>();
    std::shared_ptr<DetectBase> base = det;
    auto sock = open_registered(base, peer);
    ASSERT_TRUE(sock);
    uint16_t port = 0;
    ASSERT_TRUE(learn_port(*sock, peer, &port));
    peer.send_to("x", 1, "127.0.0.1", port);
    EXPECT_TRUE(wait_until([&] { return det->count(det->packets) == 1; }, 3000));
    EXPECT_EQ(0, zeph_net_tools_uninit());
    EXPECT_EQ(0, threads_named(kRecvThread));
    EXPECT_EQ(0u, g_net_tools_msg.table_size()); // the stop released the table
}

TEST_F(Runtime, TimerFiresOnceStoppedNeverStaleArmingDropped) {
    auto det = std::make_shared<TinyDetect>();
    std::weak_ptr<DetectBase> weak = det;
    auto timer = [](const char* name) { return MORL_CreateRelTimerM(NetToolsTimerSave::timeout, MORL_TIMER_OWNED, name); };
    const MORL_TimerHandle once = timer("once"), stopped = timer("stopped"), driver = timer("driver"), rearmed = timer("rearmed");
    ASSERT_NE(0u, once);
    // Set before any expiry can arrive; the message thread reads it.
    std::atomic<uint64_t> driver_done{0};
    det->on_timeout = [&](uint64_t t) {
        if (t != driver) return;
        g_timer_save.start_timer(rearmed, 1, weak);
        sleep_ms(100);
        g_timer_save.start_timer(rearmed, 600, weak);
        driver_done = now_ms();
    };

    EXPECT_EQ(0u, g_timer_save.start_timer(once, 0, weak)); // registered before armed: a 0 delay fires too
    EXPECT_EQ(0u, g_timer_save.start_timer(stopped, 50, weak));
    g_timer_save.stop_timer(stopped);
    ASSERT_TRUE(wait_until([&] { return det->count_timeouts(once) == 1; }, 3000));

    // `rearmed` expires while the message thread is busy, then is armed again:
    // the queued expiry of the old arming must not arrive.
    EXPECT_EQ(0u, g_timer_save.start_timer(driver, 1, weak));
    ASSERT_TRUE(wait_until([&] { return driver_done.load() != 0; }, 3000));
    sleep_ms(300);
    EXPECT_EQ(0u, det->count_timeouts(rearmed));
    ASSERT_TRUE(wait_until([&] { return det->count_timeouts(rearmed) == 1; }, 3000));
    sleep_ms(200);
    EXPECT_EQ(1u, det->count_timeouts(once));
    EXPECT_EQ(0u, det->count_timeouts(stopped));
    EXPECT_EQ(1u, det->count_timeouts(rearmed));
    EXPECT_EQ(0, det->off_thread);

    // An expiry after its detection ended reaches nobody.
    EXPECT_EQ(0u, g_timer_save.start_timer(once, 20, weak));
    det.reset();
    EXPECT_TRUE(weak.expired());
    sleep_ms(150);
    for (MORL_TimerHandle t : {once, stopped, driver, rearmed}) {
        g_timer_save.stop_timer(t);
        MORL_FreeRelTimer(t);
    }
}

// Late name answers reach neither a detection that stopped its request nor one that ended.
TEST_F(Runtime, DnsAnswersAfterAStopOrTheDetectionsEndReachNobody) {
    DnsResponder dns;
    ASSERT_TRUE(dns.ok());
    dns.add("slow.zeph.test", DnsResponder::address("10.1.2.4", 300));
    ASSERT_EQ(0, zeph_settings_set_dns_servers(dns.server().c_str()));
    LogCapture log;
    auto stopped = std::make_shared<TinyDetect>();
    auto ended = std::make_shared<TinyDetect>();
    std::weak_ptr<DetectBase> ended_weak = ended;
    g_asyn_dns.start_asyn_dns({"slow.zeph.test"}, stopped);
    g_asyn_dns.start_asyn_dns({"slow.zeph.test"}, ended);
    g_asyn_dns.stop_asyn_dns(stopped.get());
    ended.reset();
    EXPECT_TRUE(ended_weak.expired());
    EXPECT_TRUE(wait_until([&] { return log.count("No detect found for") >= 2; }, 5000)) << log.dump();
    EXPECT_EQ(0u, stopped->count(stopped->answers));
    g_asyn_dns.stop_asyn_dns(stopped.get());
    EXPECT_EQ(0u, g_asyn_dns.size());
}

// Packets arrive in order until the socket is freed; a late free of a reused
// descriptor number leaves the new owner's entry alone.
TEST_F(Runtime, PacketsInOrderUntilFreedAndALateFreeLeavesTheEntryOfAReusedDescriptor) {
    LogCapture log;
    UdpSocket peer;
    auto a = std::make_shared<TinyDetect>();
    auto b = std::make_shared<TinyDetect>();
    std::shared_ptr<DetectBase> a_base = a, b_base = b;
    auto sock_a = open_registered(a_base, peer);
    ASSERT_TRUE(sock_a);
    EXPECT_EQ(0u, DetectPtrKeeper::size());
    uint16_t port = 0;
    ASSERT_TRUE(learn_port(*sock_a, peer, &port));
    peer.send_to("", 0, "127.0.0.1", port); // an empty datagram is no packet
    peer.send_to("a", 1, "127.0.0.1", port);
    peer.send_to("bb", 2, "127.0.0.1", port);
    peer.send_to("ccc", 3, "127.0.0.1", port);
    ASSERT_TRUE(wait_until([&] { return a->count(a->packets) >= 3; }, 3000)) << log.dump();
    sleep_ms(50);
    {
        std::lock_guard<std::mutex> g(a->mu);
        EXPECT_EQ((std::vector<std::string>{"a", "bb", "ccc"}), a->packets);
        EXPECT_EQ(0, a->off_thread);
    }
    const int32_t fd = sock_a->get_fd();
    ASSERT_EQ(0u, post_free_sockets(a.get(), &fd, 1));
    ASSERT_TRUE(wait_until([&] { return g_net_tools_msg.table_size() == 0; }, 3000));
    peer.send_to("late", 4, "127.0.0.1", port);
    sleep_ms(100);
    EXPECT_EQ(3u, a->count(a->packets));
    EXPECT_EQ(1, sock_a.use_count()) << "the table let go of the socket";
    EXPECT_EQ(2, a_base.use_count()) << "and of the detection";
    sock_a.reset(); // the last holder closes the descriptor: its number is free again
    // (the receive thread may hold the socket for the rest of its pass)
    ASSERT_TRUE(wait_until([&] { return ::fcntl(fd, F_GETFD) == -1; }, 3000)) << "descriptor " << fd << " stays open";

    // B opens sockets until one gets the number again.
    std::vector<std::shared_ptr<DetectSocket>> others;
    std::shared_ptr<DetectSocket> sock_b;
    for (int i = 0; i < 64 && !sock_b; ++i) {
        auto s = open_udp(peer);
        ASSERT_TRUE(s);
        if (s->get_fd() == fd) sock_b = s;
        else others.push_back(s);
    }
    others.clear();
    ASSERT_TRUE(sock_b) << "descriptor " << fd << " never came back";
    ASSERT_TRUE(register_sock(b_base, sock_b, peer));

    // A's finishing free, with the number it remembers.
    ASSERT_EQ(0u, post_free_sockets(a.get(), &fd, 1));
    ASSERT_TRUE(learn_port(*sock_b, peer, &port));
    peer.send_to("b", 1, "127.0.0.1", port);
    EXPECT_TRUE(wait_until([&] { return b->count(b->packets) == 1; }, 3000));
    EXPECT_EQ(1u, g_net_tools_msg.table_size());
    EXPECT_EQ(3u, a->count(a->packets));
    ASSERT_EQ(0u, post_free_sockets(b.get(), &fd, 1));
    EXPECT_TRUE(wait_until([&] { return g_net_tools_msg.table_size() == 0; }, 3000));
}
