// The simple QoS detection through its exports against servers on loopback,
// each test on its own 127.91.N.0/24 (the ports are fixed). Runs on the test's thread.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "detect_reports.h"
#include "dns_responder.h"
#include "inc/net_detect.h"
#include "peers.h"
#include "quality_peers.h"
#include "tool_run.h"
#include "zeph_nettools/net_tools.h"
#include "zeph_nettools/settings.h"

using namespace zeph_test;

namespace {

constexpr uint16_t kTcpPort = 443;
constexpr uint16_t kUdpPort = 10002;
constexpr int kAllDoneMs = 8000; // 1 s of names + 3 s of probing, with slack
// A request this long after the one before was sent by the 300 ms resend timer.
constexpr uint64_t kTimerGapMs = 290;
constexpr int32_t kPercentPerProbe = 20; // five probes per server

std::string addr(int test, int server) { return "127.91." + std::to_string(test) + "." + std::to_string(server + 1); }

DetectReports<NetDetectResult> g_reports;
void on_record(NetDetectResult* r) { g_reports.add(*r); }
using Got = DetectReports<NetDetectResult>::Report;

uint32_t seq_of(const UdpStandIn::Got& g) {
    const std::vector<uint8_t>& p = g.bytes;
    return p.size() < 20 ? 0 : uint32_t(p[16]) << 24 | uint32_t(p[17]) << 16 | uint32_t(p[18]) << 8 | p[19];
}
std::vector<uint32_t> seqs(const UdpStandIn& s) {
    std::vector<uint32_t> out;
    for (const auto& g : s.got()) out.push_back(seq_of(g));
    return out;
}
// Requests the resend timer sent rather than an answer.
int timer_sent(const UdpStandIn& s) {
    const auto req = s.got();
    int n = 0;
    for (size_t i = 1; i < req.size(); ++i) n += req[i].at_ms - req[i - 1].at_ms >= kTimerGapMs;
    return n;
}

// Binding Successes keeping the transaction id; at `stale_seq` the answer before once more.
UdpStandIn::Answer stun_answers(uint32_t stale_seq = 0) {
    auto last = std::make_shared<std::vector<uint8_t>>(); // the stand-in's thread only
    return [=](std::vector<uint8_t>& p, const UdpStandIn::Got& g) {
        if (p.size() < 20) return false;
        if (seq_of(g) == stale_seq) {
            p = *last;
            return !p.empty();
        }
        p.resize(20);
        p[0] = 0x01; // Binding Success Response, no attributes
        p[1] = 0x01;
        p[2] = p[3] = 0;
        *last = p;
        return true;
    };
}

class SimpleQos : public ::testing::Test {
protected:
    void SetUp() override {
        g_reports.clear();
        ASSERT_EQ(0, zeph_net_tools_init());
    }
    void TearDown() override {
        zeph_settings_set_http_proxy(nullptr, 0, nullptr, nullptr);
        zeph_net_tools_uninit();
    }
    // Starts a detection over `servers` and returns its six records by place.
    std::map<uint32_t, Got> run(const std::vector<std::string>& servers, uint32_t num = 1, uint64_t context = 0) {
        EXPECT_EQ(0, zeph_set_simple_qos_srvs(servers));
        t0_ = now_ms();
        EXPECT_EQ(0, zeph_simple_qos_detect(num, on_record, context));
        EXPECT_TRUE(g_reports.wait_for(6, kAllDoneMs)) << log_.dump();
        std::map<uint32_t, Got> levels;
        for (const Got& g : g_reports.all()) levels.emplace(g.value.level, g);
        EXPECT_EQ(6u, levels.size()) << "each place reported once";
        return levels;
    }
    std::vector<std::string> places(int test) const {
        std::vector<std::string> s;
        for (int i = 0; i < 6; ++i) s.push_back(addr(test, i));
        return s;
    }
    // Nothing more comes, and the detection left nothing behind.
    void expect_ended() {
        sleep_ms(400);
        EXPECT_EQ(6u, g_reports.count());
        EXPECT_TRUE(runtime_released());
    }
    // discard, qos, average, max, min of a server that never answered
    static void expect_no_answer(const NetDetectResult& r) {
        EXPECT_EQ(std::make_tuple(100, 3u, 3000, 3000, 3000), std::make_tuple(r.discard, r.qos, r.average, r.max, r.min));
    }
    LogCapture log_;
    uint64_t t0_ = 0;
};

} // namespace

TEST_F(SimpleQos, SixRecordsByPlaceHealthyServersMeasuredProxyPlaceNeverEndsItEarly) {
    const int T = 1;
    TcpListener tcp2(addr(T, 2), kTcpPort), tcp3(addr(T, 3), kTcpPort);
    UdpStandIn udp4(addr(T, 4), kUdpPort, stun_answers());
    UdpStandIn udp5(addr(T, 5), kUdpPort, stun_answers());
    ASSERT_TRUE(tcp2.ok() && tcp3.ok() && udp4.ok() && udp5.ok());
    const auto levels = run(places(T), 0x5151, 77);
    ASSERT_EQ(6u, levels.size());

    const std::vector<Got> all = g_reports.all();
    for (const Got& g : all) {
        const NetDetectResult& v = g.value;
        EXPECT_EQ(std::make_tuple(0x5151u, 6u, 77u, 1u, 0u, true),
                  std::make_tuple(v.num, v.level_num, v.context, v.ready, v.is_proxy, g.on_message_thread));
    }
    // Probes the timer resent (a loaded machine only) count as lost, by the detection's own rule.
    const std::map<uint32_t, int> resent = {{0, 0}, {2, 0}, {3, 0}, {4, timer_sent(udp4)}, {5, timer_sent(udp5)}};
    for (const auto& lv : resent) {
        if (lv.first == 0 && geteuid() != 0) continue; // echo requests need a raw socket
        const NetDetectResult& r = levels.at(lv.first).value;
        SCOPED_TRACE("level " + std::to_string(lv.first));
        EXPECT_EQ(lv.second * kPercentPerProbe, r.discard);
        EXPECT_EQ(net_detect_qos(lv.second * kPercentPerProbe, r.average), r.qos);
        EXPECT_LE(1, r.min);
        EXPECT_LE(r.min, r.average);
        EXPECT_LE(r.average, r.max);
        EXPECT_GT(100, r.max);
        // A healthy server is reported at its fifth answer, long before the end.
        EXPECT_LT(levels.at(lv.first).at_ms - t0_, 1500u);
    }
    // Without a proxy the second place has nothing to probe: its record comes last.
    expect_no_answer(levels.at(1).value);
    EXPECT_EQ(1u, all.back().value.level);
    EXPECT_GE(all.back().at_ms - t0_, 2900u);
    // Five requests in order, one connection per TCP server.
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 3, 4, 5}), seqs(udp4));
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 3, 4, 5}), seqs(udp5));
    EXPECT_EQ(1, tcp2.accepts());
    expect_ended();
}

// Through a proxy its place reaches the proxy and the TCP places are not probed.
TEST_F(SimpleQos, LostRepeatedAndSilentAnswersThroughAProxyThenRefusedStarts) {
    const int T = 2;
    // Place 4 repeats the first answer for the second probe; place 5 never answers.
    UdpStandIn udp4(addr(T, 4), kUdpPort, stun_answers(2));
    UdpStandIn udp5(addr(T, 5), kUdpPort, nullptr);
    TcpListener proxy(addr(T, 1), 0);
    TcpListener tcp2(addr(T, 2), kTcpPort);
    ASSERT_TRUE(udp4.ok() && udp5.ok() && proxy.ok() && tcp2.ok());
    ASSERT_EQ(0, zeph_settings_set_http_proxy(addr(T, 1).c_str(), proxy.port(), nullptr, nullptr));
    const auto levels = run(places(T));
    ASSERT_EQ(6u, levels.size());

    const auto req = udp4.got();
    ASSERT_EQ(5u, req.size());
    EXPECT_LT(req[1].at_ms - req[0].at_ms, 250u) << "an answer sends the next probe at once";
    const uint64_t resend = req[2].at_ms - req[1].at_ms;
    EXPECT_GE(resend, 280u) << "the lost answer is covered 300 ms later";
    EXPECT_LT(resend, 1500u);
    // The repeat of the first answer is no answer to the second probe.
    EXPECT_EQ(20, levels.at(4).value.discard);
    EXPECT_EQ(1u, levels.at(4).value.qos);
    EXPECT_TRUE(log_.contains("re-recv one response(1)")) << log_.dump();
    // A server silent from the first probe on gets no second one.
    EXPECT_EQ((std::vector<uint32_t>{1}), seqs(udp5));
    expect_no_answer(levels.at(5).value);
    EXPECT_EQ(0, levels.at(1).value.discard);
    EXPECT_EQ(1u, levels.at(1).value.is_proxy);
    expect_no_answer(levels.at(2).value);
    EXPECT_EQ(0, tcp2.accepts());
    expect_ended();

    // Refused starts never call back: no callback, a name too long, no runtime.
    EXPECT_EQ(1, zeph_simple_qos_detect(1, nullptr, 0));
    EXPECT_EQ(1, zeph_set_simple_qos_srvs({"a", std::string(254, 'b')}));
    EXPECT_EQ(0, zeph_set_simple_qos_srvs({std::string(253, 'c')}));
    zeph_net_tools_uninit();
    EXPECT_EQ(1, zeph_simple_qos_detect(1, on_record, 0));
    sleep_ms(300);
    EXPECT_EQ(6u, g_reports.count());
}

// A TCP server's delay is its connect's: here one held back by a full accept
// queue until its SYN is sent again after a second. The probes sent while it
// waits and the one after it find the connection under way or open; the
// answers they get a pass later are no delays of the path.
TEST_F(SimpleQos, TcpDelayIsTheConnectsNotTheAnswersOfTheConnectionUnderWay) {
    const int T = 6;
    const int lfd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(kTcpPort);
    ASSERT_EQ(1, inet_pton(AF_INET, addr(T, 2).c_str(), &sa.sin_addr));
    const int one = 1; // the last run's connections may linger
    ASSERT_TRUE(lfd >= 0 && ::setsockopt(lfd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == 0 && ::bind(lfd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 && ::listen(lfd, 0) == 0);
    const int filler = tcp_connect(addr(T, 2), kTcpPort); // the queue holds one: it is full now
    ASSERT_GE(filler, 0);
    std::thread room([lfd] {
        sleep_ms(400); // the detection's first SYN has been dropped by then
        const int c = ::accept(lfd, nullptr, nullptr);
        if (c >= 0) ::close(c);
    });
    const auto levels = run(places(T));
    room.join();
    ::close(filler);
    ::close(lfd);
    ASSERT_EQ(6u, levels.size());
    const NetDetectResult& r = levels.at(2).value;
    EXPECT_TRUE(r.min >= 900 && r.min < 2000 && r.min == r.average && r.max == r.average)
        << r.min << "/" << r.average << "/" << r.max << " discard " << r.discard;
    EXPECT_LT(r.discard, 100);
    expect_ended();
}

TEST_F(SimpleQos, NamesResolvedWithinTheirPhaseTheRestReportedWithoutAnswer) {
    const int T = 3;
    DnsResponder dns;
    ASSERT_TRUE(dns.ok());
    dns.add("udp.qos.test", DnsResponder::address(addr(T, 4)));
    dns.add("gone.qos.test", DnsResponder::nxdomain());
    dns.add("mute.qos.test", DnsResponder::silent());
    ASSERT_EQ(0, zeph_settings_set_dns_servers(dns.server().c_str()));
    UdpStandIn udp4(addr(T, 4), kUdpPort, stun_answers());
    ASSERT_TRUE(udp4.ok());
    const auto levels =
        run({"mute.qos.test", "", "gone.qos.test", "gone.qos.test", "udp.qos.test", "mute.qos.test"});
    ASSERT_EQ(6u, levels.size());
    const std::vector<Got> all = g_reports.all();
    // The silent name holds the name phase its full second; the rest have no address.
    EXPECT_EQ(0, levels.at(4).value.discard);
    EXPECT_GE(levels.at(4).at_ms - t0_, 950u);
    EXPECT_EQ(4u, all.front().value.level);
    for (uint32_t level : {0u, 1u, 2u, 3u, 5u}) expect_no_answer(levels.at(level).value);
    EXPECT_GE(all.back().at_ms - t0_, 3900u);
    EXPECT_TRUE(log_.contains("addr is null domain(gone.qos.test)")) << log_.dump();
    expect_ended();
}

TEST(SimpleQosCli, JsonRunGivesSixRecordsAndBadInputExitsTwo) {
    const int T = 5;
    UdpStandIn udp4(addr(T, 4), kUdpPort, stun_answers());
    TcpListener tcp2(addr(T, 2), kTcpPort);
    ASSERT_TRUE(udp4.ok() && tcp2.ok());
    const std::string list = addr(T, 0) + ",," + addr(T, 2) + "," + addr(T, 3) + "," + addr(T, 4) + ",";
    ToolRun r = run_tool({"qos", "--json", "--context", "9", list}, 15000);
    ASSERT_EQ(0, r.code()) << r.what();
    ASSERT_EQ(6u, r.lines()) << r.what();
    const auto m = parse_json_lines(r.out);
    std::map<std::string, std::string> discard_of_level; // the ICMP place's depends on root
    for (int i = 0; i < 6; ++i) {
        const std::string p = std::to_string(i) + ":";
        EXPECT_EQ("9 6", at(m, p + "context") + " " + at(m, p + "level_num"));
        if (at(m, p + "level") == "4") { EXPECT_EQ("\"udp " + addr(T, 4) + ":10002\"", at(m, p + "what")); }
        if (at(m, p + "level") != "0") discard_of_level[at(m, p + "level")] = at(m, p + "discard");
    }
    EXPECT_EQ((std::map<std::string, std::string>{{"1", "100"}, {"2", "0"}, {"3", "100"}, {"4", "0"}, {"5", "100"}}),
              discard_of_level)
        << r.out;

    expect_usage_errors({{"qos"}, {"qos", "a,b,c,d,e"}, {"qos", "a,b c,c,d,e,f"}, {"qos", "a,b,c,d,e,f", "x,y,z,u,v,w"},
                         {"qos", "--context", "-1", "a,b,c,d,e,f"}});
    expect_help("qos");
}
