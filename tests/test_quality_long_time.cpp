// The long-time detections through their exports: 10 s rounds from two sockets in turn,
// through the relay to our server beside its truth, in the STUN form against a stand-in,
// refusals, and `zeph-nettools monitor`. Clients bind 64100/64101 under a resource lock.
#include <gtest/gtest.h>
#include <signal.h>

#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "peers.h"
#include "quality_peers.h"
#include "tool_run.h"

using zeph_test::now_ms;
using zeph_test::Report;
using zeph_test::wait_until;

namespace {

constexpr uint16_t kServerPort = zeph_test::kQualityServerPort;
constexpr uint16_t kFirstClientPort = 64100;
constexpr int kRoundMs = 10000;
// A report comes about a second after its round (the late replies' wait);
// the bounds leave room for a loaded machine, the bench has the figures.
constexpr uint64_t kFirstReportMinMs = 9000, kFirstReportMaxMs = 20000;
constexpr uint64_t kGapMinMs = 7000, kGapMaxMs = 17000;

std::string test_ip(int host) { return "127.0.66." + std::to_string(host); }

// Waits for `n` reports and checks what every long run shows: one record
// each, code 0, the sockets in turn, about one round apart.
std::vector<Report> expect_rounds(size_t n, uint64_t started) {
    const std::vector<Report> got = zeph_test::reports(n, int(n) * kRoundMs + 20000);
    EXPECT_EQ(got.size(), n);
    for (size_t i = 0; i < got.size(); ++i) {
        SCOPED_TRACE("report " + std::to_string(i));
        const auto& r = got[i].results;
        EXPECT_TRUE(got[i].code == 0 && r.size() == 1 && r[0].index == int16_t(i % 2) && r[0].is_pre == 0)
            << got[i].code << ", " << r.size() << " results";
        const uint64_t gap = got[i].at_ms - (i == 0 ? started : got[i - 1].at_ms);
        EXPECT_TRUE(i == 0 ? gap >= kFirstReportMinMs && gap <= kFirstReportMaxMs : gap >= kGapMinMs && gap <= kGapMaxMs)
            << gap;
    }
    return got;
}

bool more_reports_than(size_t n, int within_ms) {
    return wait_until([&] { return zeph_test::reports().size() > n; }, within_ms);
}

DetectSiteInfo Site(const std::string& ip, uint16_t port, const std::string& token = "",
                    const std::string& para = "") {
    DetectSiteInfo s;
    s.index = 7, s.ip = ip, s.port = port, s.auth_token = token, s.auth_para = para;
    return s;
}

// Every export refuses before it starts anything: the code, and no callback.
TEST(LongTime, RefusalsCarryTheirCodesAndStartNothing) {
    using Start = uint32_t (*)(const DetectSiteInfo*, DetectBwConfig*);
    const std::string ip = test_ip(9);
    for (Start start : {zeph_detect_start_long_time_bw, zeph_detect_start_stun_long_time}) {
        SCOPED_TRACE(start == zeph_detect_start_long_time_bw ? "site" : "stun");
        DetectBwConfig plain{0, 1, 10, zeph_test::record_report}, auth{1, 1, 10, zeph_test::record_report},
            no_callback{0, 1, 10, nullptr};
        const DetectSiteInfo good = Site(ip, kServerPort, "token", "para"), no_address = Site("", kServerPort),
                             no_token = Site(ip, kServerPort, "", "para");
        // Missing site, callback or address; a missing token (its bounds are the token check's).
        EXPECT_EQ(std::vector<uint32_t>({start(nullptr, &plain), start(&good, &no_callback), start(&no_address, &plain),
                                         start(&no_token, &auth)}),
                  std::vector<uint32_t>({26, 26, 26, 31}));
    }
    EXPECT_FALSE(more_reports_than(0, 300));
}

// Three rounds through a relay of known delay, jitter and loss, each direction beside
// its truth. With is_auth every packet carries the token, which our server must answer
// as data or nothing is measured. Level 7 runs at 1: 500 packets a round, the last thrice more.
TEST(LongTime, TokenStreamsThroughTheRelayFollowTheTruth) {
    const std::string ip = test_ip(1);
    zeph_test::QualityServerOn server(ip);
    ASSERT_TRUE(server.ok());
    auto relay = zeph_test::relay_to_server(ip, ip, {20, 3, 0.03}, {15, 0, 0.01}, 11);
    ASSERT_TRUE(relay);
    DetectSiteInfo site = Site(relay->listen_ip(), relay->port(), "token-of-the-site", "parameter");
    DetectBwConfig config{1, 7, 30, zeph_test::record_report};
    const uint64_t started = now_ms();
    ASSERT_EQ(zeph_detect_start_long_time_bw(&site, &config), 0u);
    const std::vector<Report> got = expect_rounds(3, started);
    ASSERT_EQ(got.size(), 3u);

    constexpr uint32_t kPerRound = 500;
    const zeph_relay::UdpRelayStats rs = relay->stats();
    EXPECT_EQ(rs.to_server_forwarded + rs.to_server_dropped, 3u * (kPerRound + 3));
    const double up_truth = 1000.0 * rs.to_server_dropped / (rs.to_server_forwarded + rs.to_server_dropped);
    const double down_truth = 1000.0 * rs.to_client_dropped / (rs.to_client_forwarded + rs.to_client_dropped);
    // Binomial spread of the per-round rates around the counted truth.
    const double up_slack = 3 + 3 * std::sqrt(up_truth * (1000 - up_truth) / kPerRound);
    const double down_slack = 3 + 3 * std::sqrt(down_truth * (1000 - down_truth) / kPerRound);
    for (const Report& r : got) {
        const DetectQosResult& q = r.results[0];
        SCOPED_TRACE("index " + std::to_string(q.index));
        // A starved relay (sanitizers, a loaded machine) only ever adds.
        EXPECT_TRUE(q.a_delay >= 35 - 2 && q.a_delay <= 35 + 10) << q.a_delay;
        EXPECT_TRUE(q.a_s_jitter >= 1 && q.a_s_jitter <= 2 + 4) << q.a_s_jitter; // 2J/3 for a spread of +-3 ms
        EXPECT_LE(q.a_r_jitter, 4);
        EXPECT_NEAR(q.a_s_loss, up_truth, up_slack);
        EXPECT_NEAR(q.a_r_loss, down_truth, down_slack);
        EXPECT_GT(q.score, 0);
    }
}

// A STUN server's answer: a Binding Success with the request's id and an XOR-MAPPED-ADDRESS.
bool answer_stun(std::vector<uint8_t>& p, const zeph_test::UdpStandIn::Got& g) {
    constexpr size_t kHead = 20;
    if (p.size() < kHead) return false;
    p.resize(kHead);
    p[0] = 0x01, p[1] = 0x01, p[2] = 0, p[3] = 12;
    const uint16_t xport = uint16_t(g.from_port ^ 0x2112);
    const uint32_t xaddr = g.from_ip ^ 0x2112A442u;
    p.insert(p.end(), {0x00, 0x20, 0x00, 0x08, 0x00, 0x01, uint8_t(xport >> 8), uint8_t(xport), uint8_t(xaddr >> 24),
                       uint8_t(xaddr >> 16), uint8_t(xaddr >> 8), uint8_t(xaddr)});
    return true;
}

// The STUN form: level 0 whatever was asked (the caller's record says so), 1400-byte
// Binding Requests with the sequence number in the id, one round for a time_len of 9,
// and the detection freed by its own thread at its end.
TEST(LongTime, StunFormRunsAtLevelZeroAgainstAStunServer) {
    zeph_test::UdpStandIn stun(test_ip(3), 0, answer_stun);
    ASSERT_TRUE(stun.ok());
    zeph_test::LogCapture log(2);
    DetectSiteInfo site = Site(test_ip(3), stun.port());
    DetectBwConfig config{0, 5, 9, zeph_test::record_report};
    const uint64_t started = now_ms();
    ASSERT_EQ(zeph_detect_start_stun_long_time(&site, &config), 0u);
    EXPECT_EQ(config.level, 0);
    const std::vector<Report> got = expect_rounds(1, started);
    ASSERT_EQ(got.size(), 1u);
    const DetectQosResult& q = got[0].results[0];
    EXPECT_TRUE(q.a_delay < 20 && q.a_s_loss == 0 && q.a_r_loss <= 5) << q.a_delay << " " << q.a_r_loss;
    EXPECT_TRUE(log.wait_for("destory", 2000)) << "the detection outlives its thread";
    EXPECT_FALSE(more_reports_than(1, 500));

    // Level 0: 25 packets a second for 10 s, and the last one thrice more.
    const std::vector<zeph_test::UdpStandIn::Got> pkts = stun.got();
    ASSERT_EQ(pkts.size(), 250u + 3u);
    for (size_t i = 0; i < pkts.size(); ++i) {
        const std::vector<uint8_t>& p = pkts[i].bytes;
        SCOPED_TRACE("packet " + std::to_string(i));
        ASSERT_EQ(p.size(), 1400u);
        EXPECT_EQ(pkts[i].from_port, kFirstClientPort);
        const std::vector<uint8_t> head(p.begin(), p.begin() + 8);
        EXPECT_EQ(head, (std::vector<uint8_t>{0x00, 0x01, 0x04, 0x98, 0x21, 0x12, 0xA4, 0x42}));
        EXPECT_EQ(std::string(p.begin() + 12, p.begin() + 16), "1234");
        const uint32_t seq = uint32_t(p[16]) << 24 | uint32_t(p[17]) << 16 | uint32_t(p[18]) << 8 | p[19];
        EXPECT_EQ(seq, std::min<uint32_t>(uint32_t(i), 249));
        if (HasFailure()) break;
    }
}

// `zeph-nettools monitor`: a JSON object per report; on SIGINT a summary and a clean exit at
// once. Beside it a run of 20 s (the next free client ports) ends by itself after two
// reports, one from each socket, about a round apart.
TEST(LongTime, MonitorPrintsReportsUntilInterruptedOrDone) {
    const std::string ip = test_ip(4);
    zeph_test::QualityServerOn server(ip);
    ASSERT_TRUE(server.ok());
    zeph_test::Process tool, done;
    ASSERT_TRUE(tool.start({zeph_test::tool_path("zeph-nettools"), "monitor", ip, "--minutes", "2", "--level", "2",
                            "--json"}))
        << tool.error();
    ASSERT_TRUE(done.start({zeph_test::tool_path("zeph-nettools"), "monitor", ip, "--minutes", "0.34", "--json"}))
        << done.error();
    ASSERT_TRUE(wait_until([&] { return tool.stdout_text().find("\"report\"") != std::string::npos; }, 20000))
        << tool.stdout_text() << tool.stderr_text();
    ASSERT_EQ(kill(tool.pid(), SIGINT), 0);
    const uint64_t interrupted = now_ms();
    ASSERT_TRUE(wait_until([&] { return !tool.running(); }, 3000)) << tool.stderr_text();
    EXPECT_LT(now_ms() - interrupted, 3000u);
    EXPECT_EQ(tool.stop(), 0) << tool.stderr_text();

    const std::string out = tool.stdout_text();
    const std::map<std::string, std::string> j = zeph_test::parse_json_lines(out);
    std::string row;
    for (const char* key : {"0:report", "0:index", "0:a_s_loss", "1:summary.reports", "1:summary.stopped"})
        row += zeph_test::at(j, key) + " ";
    EXPECT_EQ(row, "1 0 0 1 true ") << out;

    ASSERT_TRUE(wait_until([&] { return !done.running(); }, 2 * kRoundMs + 20000)) << done.stdout_text();
    EXPECT_EQ(done.stop(), 0) << done.stderr_text();
    const std::map<std::string, std::string> d = zeph_test::parse_json_lines(done.stdout_text());
    row.clear();
    for (const char* key : {"0:index", "1:index", "2:summary.reports", "2:summary.stopped", "3:report"})
        row += zeph_test::at(d, key) + " ";
    EXPECT_EQ(row, "0 1 2 false <missing 3:report> ") << done.stdout_text();
    const double gap = std::stod(zeph_test::at(d, "1:t")) - std::stod(zeph_test::at(d, "0:t"));
    EXPECT_TRUE(gap * 1000 >= kGapMinMs && gap * 1000 <= kGapMaxMs) << gap;
}

} // namespace
