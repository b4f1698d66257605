// The connectivity detection through its two exports against real peers on
// loopback. Runs on the test's thread; the callbacks come on the message thread.
#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "detect/connectivity_detect.h"
#include "detect_reports.h"
#include "dns_responder.h"
#include "peers.h"
#include "quality_peers.h"
#include "zeph_nettools/net_tools.h"
#include "zeph_nettools/settings.h"
#include "zeph_nettools/stun.h"

using namespace zeph_test;

namespace {

DetectReports<ConnectivityResult> g_reports;
using Seen = DetectReports<ConnectivityResult>::Report;
std::mutex g_hooks_mu;
std::map<uint32_t, std::function<void()>> g_hooks; // run inside the callback of that num

void on_result(ConnectivityResult* r) {
    g_reports.add(*r);
    std::function<void()> hook;
    {
        std::lock_guard<std::mutex> g(g_hooks_mu);
        auto it = g_hooks.find(r->num);
        if (it != g_hooks.end()) hook = it->second;
    }
    if (hook) hook();
}

DetectReports<ConnectivityResult>::Pick num_is(uint32_t num) {
    return [num](const ConnectivityResult& r) { return r.num == num; };
}
size_t reports_of(uint32_t num) { return g_reports.count(num_is(num)); }

// The first report of num, waiting up to timeout_ms for it.
bool wait_report(uint32_t num, Seen& out, int timeout_ms = 8000) {
    if (!g_reports.wait_for(1, timeout_ms, num_is(num))) return false;
    out = g_reports.all(num_is(num)).front();
    return true;
}

ConnectivitySite site(const std::string& addr, uint16_t port, uint8_t protocol, uint8_t detect_type = 0,
                      uint8_t no_proxy = 0) {
    return ConnectivitySite{port, protocol, no_proxy, detect_type, 0, 0, addr};
}

ConnectivityDetectInfo info_of(uint32_t num, std::vector<ConnectivitySite> sites) {
    return ConnectivityDetectInfo{num, on_result, std::move(sites)};
}

std::string opens(const ConnectivityResult& r) {
    std::string s;
    for (const auto& row : r.sites) s += row.open ? '1' : '0';
    return s;
}

// Everything a finished detection held is given back.
bool runtime_idle(int timeout_ms = 3000) {
    return wait_until([] { return DetectConnectivity::instances() == 0; }, timeout_ms) && runtime_released(timeout_ms);
}

uint32_t be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }

// Whether the independent STUN decoder finds USERNAME, MESSAGE-INTEGRITY and
// FINGERPRINT, in that order, with a digest and a checksum that hold.
bool stun_check_holds(const uint8_t* msg, size_t len) {
    std::string cmd = "python3 " ZEPH_SOURCE_DIR "/tests/stun_decode.py ";
    char hex[3];
    for (size_t i = 0; i < len; ++i) cmd += (std::snprintf(hex, sizeof hex, "%02x", msg[i]), hex);
    std::string verdict;
    if (FILE* pipe = popen(cmd.c_str(), "r")) {
        char line[1024];
        while (std::fgets(line, sizeof line, pipe) != nullptr) verdict += line;
        pclose(pipe);
    }
    for (const char* word : {"attrs=USERNAME,MESSAGE-INTEGRITY,FINGERPRINT ", "errors=0 ", "fingerprint=1 ",
                             "integrity=1 "})
        if (verdict.find(word) == std::string::npos) return false;
    return true;
}

class Connectivity : public ::testing::Test {
protected:
    void SetUp() override {
        g_reports.clear();
        zeph_settings_set_http_proxy(nullptr, 0, nullptr, nullptr);
        ASSERT_TRUE(stun.start());
        ASSERT_EQ(0, zeph_net_tools_init());
    }
    void TearDown() override {
        zeph_net_tools_uninit();
        zeph_settings_set_http_proxy(nullptr, 0, nullptr, nullptr);
    }
    zeph_peers::StunResponder stun; // answers every STUN probe
};

constexpr uint16_t kIcmpPort = 1; // an echo has no port; the record needs one

} // namespace

TEST_F(Connectivity, RefusedArgumentsReturnOneAndNeverCallBack) {
    const uint16_t p = stun.port();
    const uint32_t before = DetectConnectivity::instances();
    EXPECT_EQ(1, zeph_single_port_detect(1, nullptr, p, ZEPH_TRANS_UDP, on_result));
    EXPECT_EQ(1, zeph_single_port_detect(4, "127.0.0.1", p, ZEPH_TRANS_UDP, nullptr));
    EXPECT_EQ(1, zeph_any_port_detect_new(nullptr));
    ConnectivityDetectInfo no_notify = info_of(5, {site("127.0.0.1", p, ZEPH_TRANS_UDP)});
    no_notify.notify = nullptr;
    // A bad second site refuses the whole call.
    for (const ConnectivityDetectInfo& bad :
         {no_notify, info_of(6, {site("127.0.0.1", p, ZEPH_TRANS_UDP), site("127.0.0.1", 0, ZEPH_TRANS_UDP)}),
          info_of(7, {site("", p, ZEPH_TRANS_UDP)})})
        EXPECT_EQ(1, zeph_any_port_detect_new(&bad)) << bad.num;

    // Without the runtime nothing could ever answer: refused too.
    zeph_net_tools_uninit();
    const ConnectivityDetectInfo good = info_of(8, {site("127.0.0.1", p, ZEPH_TRANS_UDP)});
    EXPECT_EQ(1, zeph_any_port_detect_new(&good));
    EXPECT_EQ(1, zeph_single_port_detect(9, "127.0.0.1", p, ZEPH_TRANS_UDP, on_result));

    EXPECT_EQ(before, DetectConnectivity::instances()) << "a refused call made an object";
    sleep_ms(200);
    EXPECT_EQ(0u, stun.answered()) << "a refused call probed";
    EXPECT_EQ(0u, g_reports.count());
}

TEST_F(Connectivity, LiteralUdpTargetIsReportedOpenRightAfterItsAnswerAndIcmpAsRoot) {
    LogCapture log;
    const uint64_t t0 = now_ms();
    ASSERT_EQ(0, zeph_single_port_detect(11, "127.0.0.1", stun.port(), ZEPH_TRANS_UDP, on_result));
    Seen rep;
    ASSERT_TRUE(wait_report(11, rep)) << log.dump();
    // The report follows the answer, not the first 300 ms timer.
    EXPECT_LT(rep.at_ms - t0, 250u) << log.dump();
    EXPECT_TRUE(rep.on_message_thread);
    EXPECT_EQ("1", opens(rep.value));
    const ConnectivitySite& row = rep.value.sites[0];
    EXPECT_EQ("127.0.0.1", row.addr);
    EXPECT_GE(row.delay, 1u) << "a measured delay is never 0";
    EXPECT_LT(row.delay, 250u);
    EXPECT_EQ(std::make_pair(11u, ConnectivityNotify(nullptr)), std::make_pair(rep.value.num, rep.value.notify));
    EXPECT_EQ(1u, stun.answered());
    // A literal address needs no resolver.
    EXPECT_FALSE(log.contains("start dns(")) << log.dump();
    EXPECT_TRUE(runtime_idle());
    sleep_ms(400);
    EXPECT_EQ(1u, reports_of(11));

    if (!zeph_peers::raw_icmp_permitted()) {
        std::printf("ICMP target not probed: an echo needs root or CAP_NET_RAW\n");
        return;
    }
    ASSERT_EQ(0, zeph_single_port_detect(91, "127.0.0.1", kIcmpPort, ZEPH_TRANS_ICMP, on_result));
    ASSERT_TRUE(wait_report(91, rep));
    EXPECT_EQ("1", opens(rep.value));
    EXPECT_EQ(ZEPH_TRANS_ICMP, rep.value.sites[0].protocol);
    EXPECT_TRUE(runtime_idle());
}

// A server that accepts and hangs up at once still accepted: its port is
// open, whether the hang-up reaches us before or after the handshake is seen.
TEST_F(Connectivity, MixedTargetsReportOneSecondAfterTheFirstAnswer) {
    TcpListener listener;
    TcpListener closer(TcpListener::Mode::Close);
    const uint16_t refusing = closed_tcp_port();
    const uint16_t silent_udp = closed_udp_port();
    const int fds_before = open_fds();
    const ConnectivityDetectInfo info =
        info_of(21, {site("127.0.0.1", stun.port(), ZEPH_TRANS_UDP), site("127.0.0.1", listener.port(), ZEPH_TRANS_TCP),
                     site("127.0.0.1", refusing, ZEPH_TRANS_TCP), site("127.0.0.1", silent_udp, ZEPH_TRANS_UDP),
                     site("127.0.0.1", closer.port(), ZEPH_TRANS_TCP), site("127.0.0.1", closer.port(), ZEPH_TRANS_TCP),
                     site("127.0.0.1", closer.port(), ZEPH_TRANS_TCP)});
    const uint64_t t0 = now_ms();
    ASSERT_EQ(0, zeph_any_port_detect_new(&info));
    Seen rep;
    ASSERT_TRUE(wait_report(21, rep));
    const uint64_t took = rep.at_ms - t0;
    EXPECT_GE(took, 950u) << "the grace after the first answer is 1 s";
    EXPECT_LT(took, 3000u);
    EXPECT_EQ("1100111", opens(rep.value));
    for (size_t i = 0; i < info.sites.size(); ++i) {
        EXPECT_EQ(info.sites[i].port, rep.value.sites[i].port) << i;
        EXPECT_EQ(info.sites[i].protocol, rep.value.sites[i].protocol) << i;
        // Every row tells the time from its socket's opening to the report.
        EXPECT_GE(rep.value.sites[i].delay + 300, took) << i;
        EXPECT_LE(rep.value.sites[i].delay, took) << i;
    }
    EXPECT_EQ(1, listener.accepts());
    EXPECT_TRUE(runtime_idle());
    listener.close_connections(); // the listener's side of the accepted connection
    // A receive pass may hold a finished socket until it ends.
    EXPECT_TRUE(wait_until([&] { return open_fds() == fds_before; }, 2000)) << open_fds() << " vs " << fds_before;
}

TEST_F(Connectivity, EachUdpProbeFormIsAnsweredByItsOwnServer) {
    CoturnServer coturn;
    ASSERT_TRUE(coturn.start());
    QualityServerOn nps("127.0.65.1"); // our quality server answers the NPS probe
    ASSERT_TRUE(nps.ok());
    const StunIceInfo local{"connL", "local-secret"}, remote{"connR", "remote-secret"};
    ASSERT_EQ(0u, MORL_StunSetLocalIceInfo("stun_audio_conn", &local));
    ASSERT_EQ(0u, MORL_StunSetRemoteIceInfo("stun_audio_conn", &remote));
    // Answers only an ICE check (private head of type 129 and the whole length)
    // whose USERNAME is "remote:local" and whose MESSAGE-INTEGRITY and
    // FINGERPRINT hold.
    UdpStandIn ice("127.0.0.1", 0, [](std::vector<uint8_t>& p, const UdpStandIn::Got&) {
        constexpr size_t kHead = 16, kUser = kHead + 24; // head, STUN header, attribute header
        const std::string user = "connR:connL";
        if (p.size() < kUser + user.size() || p[0] != 0xFF || p[2] != 129 || (p[12] << 8 | p[13]) != int(p.size()) ||
            std::string(p.begin() + kUser, p.begin() + kUser + user.size()) != user ||
            !stun_check_holds(p.data() + kHead, p.size() - kHead))
            return false;
        p[16] = p[17] = 0x01; // a Binding Success behind the same head
        return true;
    });

    const ConnectivityDetectInfo info =
        info_of(41, {site("127.0.0.1", coturn.port(), ZEPH_TRANS_UDP, DETECT_PROTO_STUN),
                     site("127.0.65.1", kQualityServerPort, ZEPH_TRANS_UDP, DETECT_PROTO_STUN_CUSTOM),
                     site("127.0.0.1", ice.port(), ZEPH_TRANS_UDP, DETECT_PROTO_ICE)});
    const uint64_t t0 = now_ms();
    ASSERT_EQ(0, zeph_any_port_detect_new(&info));
    Seen rep;
    const bool got = wait_report(41, rep);
    zeph_settings_set_local_addr(nullptr);
    MORL_StunClearIceInfo("stun_audio_conn");
    ASSERT_TRUE(got);
    EXPECT_EQ("111", opens(rep.value));
    // All open: no grace period to wait out.
    EXPECT_LT(rep.at_ms - t0, 900u);
    EXPECT_EQ(DETECT_PROTO_ICE, rep.value.sites[2].detect_type);
}

TEST_F(Connectivity, TcpThroughTheProxyOpenOnlyWhereTheProxyConnects) {
    TcpListener allowed, denied;
    TinyProxy proxy;
    ASSERT_TRUE(proxy.start({allowed.port()}));
    ASSERT_EQ(0, zeph_settings_set_http_proxy("127.0.0.1", proxy.port(), nullptr, nullptr));
    // Alone, so that no other answer starts the last second before the proxy's.
    ASSERT_EQ(0, zeph_single_port_detect(50, "127.0.0.1", allowed.port(), ZEPH_TRANS_TCP, on_result));
    Seen rep;
    ASSERT_TRUE(wait_report(50, rep));
    EXPECT_EQ("1", opens(rep.value));
    EXPECT_EQ(1, allowed.accepts());
    const std::string plog = proxy.log_text();
    EXPECT_NE(std::string::npos, plog.find("CONNECT")) << plog;
    EXPECT_TRUE(runtime_idle());
    EXPECT_EQ(1u, reports_of(50)) << "the tunnel's result is taken once";

    // The proxy refuses the port (403); the same port without the proxy answers.
    const ConnectivityDetectInfo info =
        info_of(51, {site("127.0.0.1", denied.port(), ZEPH_TRANS_TCP),
                     site("127.0.0.1", denied.port(), ZEPH_TRANS_TCP, 0, /*no_proxy=*/1)});
    ASSERT_EQ(0, zeph_any_port_detect_new(&info));
    ASSERT_TRUE(wait_report(51, rep));
    EXPECT_EQ("01", opens(rep.value));
    EXPECT_EQ(1, denied.accepts()) << "only the direct connect reaches it";
    EXPECT_TRUE(runtime_idle());

    // A proxy that wants credentials we do not have (407): closed.
    TinyProxy auth;
    ASSERT_TRUE(auth.start({}, "user", "secret"));
    ASSERT_EQ(0, zeph_settings_set_http_proxy("127.0.0.1", auth.port(), nullptr, nullptr));
    ASSERT_EQ(0, zeph_single_port_detect(52, "127.0.0.1", allowed.port(), ZEPH_TRANS_TCP, on_result));
    ASSERT_TRUE(wait_report(52, rep));
    EXPECT_EQ("0", opens(rep.value));
    EXPECT_EQ(1, allowed.accepts());
    EXPECT_TRUE(runtime_idle());
}

TEST_F(Connectivity, NamesResolveAndALateAnswerReachesNobody) {
    LogCapture log;
    DnsResponder dns;
    ASSERT_TRUE(dns.ok());
    dns.add("fast.conn.test", DnsResponder::address("127.0.0.1"));
    dns.add("late.conn.test", DnsResponder::address("127.0.0.1", 1400));
    ASSERT_EQ(0, zeph_settings_set_dns_servers(dns.server().c_str()));
    const ConnectivityDetectInfo info = info_of(
        61, {site("fast.conn.test", stun.port(), ZEPH_TRANS_UDP), site("late.conn.test", stun.port(), ZEPH_TRANS_UDP)});
    const uint64_t t0 = now_ms();
    ASSERT_EQ(0, zeph_any_port_detect_new(&info));
    Seen rep;
    ASSERT_TRUE(wait_report(61, rep)) << log.dump();
    // 1 s of resolving, then the answer of the resolved target and 1 s of grace.
    EXPECT_GE(rep.at_ms - t0, 1900u);
    EXPECT_LT(rep.at_ms - t0, 3000u);
    EXPECT_EQ("10", opens(rep.value));
    EXPECT_EQ("fast.conn.test", rep.value.sites[0].addr);
    EXPECT_EQ(0u, rep.value.sites[1].delay) << "never opened, never measured";
    // The late answer came after the resolving phase and found nobody.
    EXPECT_TRUE(log.wait_for("No detect found for", 2000)) << log.dump();
    EXPECT_EQ(1u, stun.answered());
    EXPECT_TRUE(runtime_idle());
}

// A silent target and an empty list both report after 4 s: 3 s without an
// answer, then 1 s of grace.
TEST_F(Connectivity, SilentTargetProbedWithRisingSequenceUntilFourSecondsAndSeventeenSitesGiveSixteenRows) {
    UdpSocket silent;
    ASSERT_TRUE(silent.ok());
    std::vector<ConnectivitySite> sites(17, site("127.0.0.1", stun.port(), ZEPH_TRANS_UDP));
    sites[16].port = 9; // the dropped one
    const ConnectivityDetectInfo many = info_of(71, sites);
    const ConnectivityDetectInfo none = info_of(72, {});
    const uint64_t t0 = now_ms();
    ASSERT_EQ(0, zeph_single_port_detect(31, "127.0.0.1", silent.port(), ZEPH_TRANS_UDP, on_result));
    ASSERT_EQ(0, zeph_any_port_detect_new(&many));
    ASSERT_EQ(0, zeph_any_port_detect_new(&none));
    std::vector<uint32_t> seqs;
    uint8_t buf[2048];
    while (reports_of(31) == 0 && now_ms() - t0 < 8000) {
        const int n = silent.recv(buf, sizeof buf, 50);
        if (n == 20 && be32(&buf[4]) == 0x2112A442u) seqs.push_back(be32(&buf[16]));
    }
    Seen rep;
    ASSERT_TRUE(wait_report(31, rep, 100));
    EXPECT_GE(rep.at_ms - t0, 3950u);
    EXPECT_LT(rep.at_ms - t0, 4800u);
    EXPECT_EQ("0", opens(rep.value));
    // A probe every 300 ms for 4 s (a slow machine loses a few).
    EXPECT_GE(seqs.size(), 10u);
    EXPECT_LE(seqs.size(), 15u);
    for (size_t i = 1; i < seqs.size(); ++i) EXPECT_EQ(seqs[i - 1] + 1, seqs[i]) << i;

    ASSERT_TRUE(wait_report(71, rep));
    EXPECT_EQ(std::string(16, '1'), opens(rep.value));
    ASSERT_TRUE(wait_report(72, rep));
    EXPECT_TRUE(rep.value.sites.empty());
    EXPECT_GE(rep.at_ms - t0, 3950u);
    EXPECT_LT(rep.at_ms - t0, 4800u);
    EXPECT_TRUE(runtime_idle());
}

TEST_F(Connectivity, ThirtyDetectionsFromFourThreadsCallBackOnceEachAndFreeEverything) {
    // Keeps what it accepts: one closed at once can read as a hang-up first.
    TcpListener listener;
    UdpSocket silent;
    const int fds_before = open_fds();
    constexpr int kThreads = 4;
    constexpr uint32_t kTotal = 30;
    std::atomic<uint32_t> next{100};
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (uint32_t num; (num = next++) < 100 + kTotal;) {
                std::vector<ConnectivitySite> sites = {site("127.0.0.1", stun.port(), ZEPH_TRANS_UDP),
                                                       site("127.0.0.1", listener.port(), ZEPH_TRANS_TCP)};
                // Every fifth waits out its silent target.
                if (num % 5 == 0) sites.push_back(site("127.0.0.1", silent.port(), ZEPH_TRANS_UDP));
                const ConnectivityDetectInfo info = info_of(num, sites);
                if (zeph_any_port_detect_new(&info) != 0) ++refused;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(0, refused.load());
    EXPECT_TRUE(g_reports.wait_for(kTotal, 10000));
    EXPECT_TRUE(runtime_idle(5000));
    sleep_ms(300);
    for (uint32_t n = 100; n < 100 + kTotal; ++n) {
        EXPECT_EQ(1u, reports_of(n)) << n;
        Seen rep;
        ASSERT_TRUE(wait_report(n, rep, 0));
        EXPECT_EQ(n % 5 == 0 ? "110" : "11", opens(rep.value)) << n;
    }
    listener.close_connections();
    EXPECT_TRUE(wait_until([&] { return open_fds() == fds_before; }, 2000)) << open_fds() << " vs " << fds_before;
}

TEST_F(Connectivity, CallbackMayStartAnotherDetectionOrStopTheRuntime) {
    const uint16_t port = stun.port();
    std::atomic<int> second_rc{-1};
    {
        std::lock_guard<std::mutex> g(g_hooks_mu);
        g_hooks[81] = [&] { second_rc = zeph_single_port_detect(82, "127.0.0.1", port, ZEPH_TRANS_UDP, on_result); };
        g_hooks[83] = [] { zeph_net_tools_uninit(); };
    }
    ASSERT_EQ(0, zeph_single_port_detect(81, "127.0.0.1", port, ZEPH_TRANS_UDP, on_result));
    Seen rep;
    ASSERT_TRUE(wait_report(82, rep));
    EXPECT_EQ(0, second_rc.load());
    EXPECT_EQ("1", opens(rep.value));
    EXPECT_TRUE(runtime_idle());

    // Stopping the runtime inside the callback neither hangs nor leaks; a new start works.
    ASSERT_EQ(0, zeph_single_port_detect(83, "127.0.0.1", port, ZEPH_TRANS_UDP, on_result));
    ASSERT_TRUE(wait_report(83, rep));
    EXPECT_TRUE(wait_until([] { return DetectConnectivity::instances() == 0; }, 3000));
    ASSERT_EQ(0, zeph_net_tools_init());
    ASSERT_EQ(0, zeph_single_port_detect(84, "127.0.0.1", port, ZEPH_TRANS_UDP, on_result));
    ASSERT_TRUE(wait_report(84, rep));
    EXPECT_EQ("1", opens(rep.value));
    EXPECT_TRUE(runtime_idle());
    EXPECT_EQ(1u, reports_of(81));
    EXPECT_EQ(1u, reports_of(83));
}
