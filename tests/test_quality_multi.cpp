// The multi-site quality detection and the score table through the exports, against
// our server (through the relay where delay matters) or a stand-in for wire bytes and
// refusals. Each test has its 127.0.72.x; the fixed client ports take a resource lock.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "bwdetect/detect_multi_site.h"
#include "bwdetect/detect_qos_score.h"
#include "peers.h"
#include "quality_peers.h"

namespace q = zeph::quality;
using zeph_test::now_ms;
using zeph_test::Report;
using zeph_test::reports;
using ServerOn = zeph_test::QualityServerOn;

namespace {

constexpr uint16_t kServerPort = zeph_test::kQualityServerPort;
constexpr uint32_t kStreamSeconds = 3;
constexpr int kReportMs = 15000; // a stream and its scoring on a loaded machine
constexpr size_t kLastRepeats = 3; // a stream's last packet goes out up to this many times more

std::string test_ip(int host) { return "127.0.72." + std::to_string(host); }

DetectSiteInfo site(const std::string& ip, uint16_t port, int16_t index, uint32_t delaybase = 0) {
    DetectSiteInfo s;
    s.ip = ip, s.port = port, s.index = index, s.delaybase = delaybase;
    s.auth_token = "token-" + std::to_string(index), s.auth_para = "para";
    return s;
}

uint32_t start(const std::vector<DetectSiteInfo>& sites) {
    return zeph_detect_start_mult_site_client(sites, zeph_test::record_report);
}

// A stand-in server answering data packets (no pairs) with `status`.
struct StandIn : zeph_test::UdpStandIn {
    StandIn(const std::string& ip, uint32_t status)
        : UdpStandIn(ip, 0, [status](std::vector<uint8_t>& p, const Got&) {
              return zeph_test::answer_quality_data(p, status);
          }) {}
};

DetectPktStat stat_of(int32_t delay, int32_t s_jitter, int32_t r_jitter, int32_t s_loss, int32_t r_loss) {
    DetectPktStat s = {};
    s.avg_delay = delay, s.avg_s_jitter = s_jitter, s.avg_r_jitter = r_jitter;
    s.avg_s_loss_rate = s_loss, s.avg_r_loss_rate = r_loss;
    return s;
}

int32_t score(const DetectPktStat& s, uint32_t delaybase = 0) {
    return DetectQosScore::get_instance()->get_qos_score(s, delaybase);
}


struct BudgetCase {
    uint32_t sites;
    uint8_t level; // what the site count leaves each
    size_t pkt_len;
};

void PrintTo(const BudgetCase& c, std::ostream* os) { *os << c.sites << " sites"; }

class SiteBudget : public ::testing::TestWithParam<BudgetCase> {};

// Each site streams its share from its own port, session and token: its first packet
// but for sequence number (in order, none beyond) and time, in bursts spread over the stream.
TEST_P(SiteBudget, EverySiteStreamsItsShareFromASocketOfItsOwn) {
    const BudgetCase c = GetParam();
    StandIn server(test_ip(c.sites), q::kStatusOk);
    ASSERT_TRUE(server.ok());
    std::vector<DetectSiteInfo> sites;
    for (uint32_t i = 0; i < c.sites; ++i) sites.push_back(site(test_ip(c.sites), server.port(), int16_t(100 + i)));
    ASSERT_EQ(start(sites), 0u);
    const std::vector<Report> got = reports(1, kReportMs);
    ASSERT_TRUE(got.size() == 1 && got[0].code == 0 && got[0].results.size() == c.sites);

    std::map<uint16_t, std::vector<StandIn::Got>> ports;
    for (const StandIn::Got& g : server.got()) ports[g.from_port].push_back(g);
    ASSERT_EQ(ports.size(), c.sites);
    const q::LevelRow& row = q::level_row(c.level);
    const uint32_t per_site = row.pkts_per_sec * kStreamSeconds;
    std::set<uint32_t> sessions;
    std::set<std::string> tokens;
    for (const auto& [port, pkts] : ports) {
        SCOPED_TRACE("port " + std::to_string(port));
        EXPECT_GE(port, DETECT_FIRST_CLIENT_PORT);
        ASSERT_GE(pkts.size(), per_site);
        EXPECT_LE(pkts.size(), per_site + kLastRepeats);
        const std::vector<uint8_t>& first = pkts[0].bytes;
        ASSERT_EQ(first.size(), c.pkt_len);
        EXPECT_EQ(q::get_type(first.data(), first.size(), false), q::kTypeData);
        EXPECT_EQ(q::get_level(first.data(), first.size(), false), c.level);
        EXPECT_EQ(q::get_len(first.data(), first.size(), false), c.pkt_len - q::kHeadRegionSize);
        sessions.insert(q::get_session(first.data(), first.size(), false));
        tokens.emplace(reinterpret_cast<const char*>(&first[q::kOffAuthToken]), 9);
        uint32_t last_time = 0;
        for (size_t i = 0; i < pkts.size(); ++i) {
            std::vector<uint8_t> p = pkts[i].bytes;
            ASSERT_EQ(p.size(), first.size());
            EXPECT_EQ(q::get_seq(p.data(), p.size()), std::min<uint32_t>(uint32_t(i), per_site - 1));
            const uint32_t t = q::get_time(p.data(), p.size(), false);
            EXPECT_GE(t, last_time);
            last_time = t;
            q::set_seq(p.data(), p.size(), 0);
            q::set_time(p.data(), p.size(), q::get_time(first.data(), first.size(), false));
            ASSERT_EQ(p, first) << "packet " << i;
        }
        const uint64_t span = pkts[per_site - 1].at_ms - pkts[0].at_ms;
        const uint64_t planned = uint64_t(kStreamSeconds) * 1000 - row.burst_interval;
        EXPECT_GE(span + 20, planned);
        EXPECT_LE(span, planned + 300);
        EXPECT_TRUE(row.pkts_per_burst == 1 || pkts[1].at_ms - pkts[0].at_ms <= 1u) << "a burst leaves at once";
    }
    EXPECT_EQ(sessions.size(), c.sites);
    EXPECT_EQ(tokens.size(), c.sites);
    EXPECT_EQ(tokens.count("token-100"), 1u);
}

INSTANTIATE_TEST_SUITE_P(Counts, SiteBudget,
                         ::testing::Values(BudgetCase{1, 5, 1310}, BudgetCase{3, 3, 873}, BudgetCase{8, 1, 1310},
                                           BudgetCase{10, 1, 1047}),
                         [](const ::testing::TestParamInfo<BudgetCase>& i) {
                             return std::to_string(i.param.sites) + "Sites";
                         });


// Silent sites score the limit without disturbing the live ones; a delaybase
// lowers a site; the best is the first of the highest.
TEST(MultiSite, LiveSilentAndDelaybasedSitesAreRankedFromTheirFigures) {
    const std::string ip = test_ip(20);
    ServerOn server(ip);
    ASSERT_TRUE(server.ok());
    const uint16_t silent = zeph_test::closed_udp_port(test_ip(26));
    const uint64_t t0 = now_ms();
    ASSERT_EQ(start({site(test_ip(26), silent, 1), site(ip, kServerPort, 2, 100), site(ip, kServerPort, 3),
                     site(ip, kServerPort, 4)}),
              0u);
    std::vector<Report> got = reports(1, kReportMs);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_GE(got[0].at_ms - t0, kStreamSeconds * 1000 - 50);
    ASSERT_EQ(got[0].code, 0);
    const auto& r = got[0].results;
    ASSERT_EQ(r.size(), 4u);
    // A silent site's stream ends with the worst values.
    EXPECT_TRUE(r[0].score == DETECT_SCORE_UNUSABLE && r[0].a_delay == kStatNoDelay && r[0].a_s_loss == kStatAllLost &&
                r[0].a_r_loss == kStatAllLost);
    for (int i : {2, 3})
        EXPECT_TRUE(r[i].index == i + 1 && r[i].a_delay < 50 && r[i].a_s_loss + r[i].a_r_loss == 0 &&
                    r[i].score > 6000 && r[i].score <= 7000)
            << i << ": delay " << r[i].a_delay << ", score " << r[i].score;
    // 100 ms more one way reads the delay curve at 60 to 100 ms: at most 2 x 750 of 2 x 1000.
    EXPECT_LE(r[1].score, r[2].score - 500);
    EXPECT_EQ(r[1].is_pre, 0);
    const int best = r[2].score >= r[3].score ? 2 : 3;
    EXPECT_EQ(r[best].is_pre, 1);
    EXPECT_EQ(got[0].p2, r[best].index);

    // All silent: each scores the limit and the first is named best.
    zeph_test::clear_reports();
    ASSERT_EQ(start({site(test_ip(26), silent, 4), site(test_ip(26), silent, 5)}), 0u);
    got = reports(1, kReportMs);
    ASSERT_EQ(got.size(), 1u);
    ASSERT_EQ(got[0].results.size(), 2u);
    EXPECT_EQ(got[0].p2, 4);
    EXPECT_TRUE(got[0].results[0].is_pre == 1 && got[0].results[1].is_pre == 0);
    EXPECT_EQ(got[0].results[1].score, DETECT_SCORE_UNUSABLE);
}

// The nearer site wins wherever it stands, scored with the weights set
// before the detection started.
TEST(MultiSite, TheNearerSiteWinsWithTheWeightsSetBefore) {
    const std::string ip = test_ip(21);
    ServerOn server(ip);
    ASSERT_TRUE(server.ok());
    const uint32_t max_weights[3] = {5, 5, 5};
    ASSERT_EQ(zeph_detect_set_qos_weight(max_weights), 0u);
    auto far = zeph_test::relay_to_server(test_ip(22), ip, {60}, {60});
    auto near = zeph_test::relay_to_server(test_ip(23), ip, {5}, {5});
    ASSERT_TRUE(far && near);
    ASSERT_EQ(start({site(far->listen_ip(), far->port(), 1), site(near->listen_ip(), near->port(), 2)}), 0u);
    const std::vector<Report> got = reports(1, kReportMs);
    ASSERT_TRUE(got.size() == 1 && got[0].code == 0 && got[0].results.size() == 2);
    const DetectQosResult& f = got[0].results[0];
    const DetectQosResult& n = got[0].results[1];
    EXPECT_EQ(got[0].p2, 2);
    EXPECT_TRUE(f.is_pre == 0 && n.is_pre == 1);
    // Round trips of twice the relay's delay, give or take the machine.
    EXPECT_NEAR(f.a_delay, 120, 20);
    EXPECT_NEAR(n.a_delay, 10, 10);
    EXPECT_GT(n.score, f.score);
    EXPECT_GT(n.score, 7000) << "beyond what the default weights can give";
}


// Refused starts: a code, no callback. A site without socket fails the report in its
// turn while the earlier stream runs out. A refused token: told twice, stream stopped.
TEST(MultiSite, RefusalsAndFailures) {
    const std::string ip = test_ip(32);
    DetectSiteInfo no_para = site(ip, kServerPort, 1), long_token = site(ip, kServerPort, 2);
    no_para.auth_para.clear();
    long_token.auth_token.assign(65, 't');
    EXPECT_EQ(start(std::vector<DetectSiteInfo>(11, site(ip, kServerPort, 1))), uint32_t(DETECT_ERR_SITES_REFUSED));
    EXPECT_EQ(zeph_detect_start_mult_site_client({site(ip, kServerPort, 1)}, nullptr),
              uint32_t(DETECT_ERR_BAD_ARGUMENT));
    EXPECT_EQ(start({site(ip, 0, 1)}), uint32_t(DETECT_ERR_BAD_ARGUMENT));
    EXPECT_EQ(start({site(ip, kServerPort, 1), no_para}), uint32_t(DETECT_ERR_SITES_REFUSED)) << "beside a good one";
    EXPECT_EQ(start({long_token}), uint32_t(DETECT_ERR_SITES_REFUSED));

    StandIn server(test_ip(30), q::kStatusOk);
    ASSERT_TRUE(server.ok());
    const uint64_t t0 = now_ms();
    ASSERT_EQ(start({site(test_ip(30), server.port(), 1), site("", server.port(), 2)}), 0u);
    std::vector<Report> got = reports(1, kReportMs);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_TRUE(got[0].code == DETECT_ERR_SITE_NO_SOCKET && got[0].results.empty()) << got[0].code;
    EXPECT_LT(got[0].at_ms - t0, 1000u) << "the failure is told when the site's turn comes";
    // The first site's stream (two sites: level 4) goes on to its end.
    const size_t whole = q::level_row(4).pkts_per_sec * kStreamSeconds;
    EXPECT_TRUE(zeph_test::wait_until([&] { return server.count() >= whole; }, kReportMs, 20)) << server.count();
    zeph_test::sleep_ms(300);
    EXPECT_LE(server.count(), whole + kLastRepeats);
    EXPECT_EQ(reports(2, 500).size(), 1u) << "no second callback";

    zeph_test::clear_reports();
    StandIn refusing(test_ip(31), q::kStatusRefused);
    ASSERT_TRUE(refusing.ok());
    ASSERT_EQ(start({site(test_ip(31), refusing.port(), 1)}), 0u);
    got = reports(2, kReportMs);
    ASSERT_EQ(got.size(), 2u);
    for (const Report& c : got) EXPECT_TRUE(c.code == DETECT_ERR_SITES_REFUSED && c.results.empty()) << c.code;
    EXPECT_LT(got[1].at_ms - got[0].at_ms, 100u);
    EXPECT_LT(refusing.count(), q::level_row(5).pkts_per_sec * kStreamSeconds) << "the stream ran its 3 s";
    EXPECT_EQ(reports(3, 500).size(), 2u);
}


TEST(QosScore, DefaultCurvesLimitAndTheTableCheck) {
    // One way 20 + 10 reads the delay curve at 30 (900), jitter 10 (850),
    // no loss (1000): 2 x 900 + 2 x 850 + 3 x 1000.
    EXPECT_EQ(score(stat_of(40, 10, 10, 0, 0), 10), 6500);
    EXPECT_EQ(score(stat_of(0, 0, 0, 0, 0)), 7000);
    // Loss from 300 up to the limit reads the last usable row (0); at the
    // limit in any one of the three: unusable, whatever else.
    EXPECT_EQ(score(stat_of(0, 0, 0, 899, 899)), 4000);
    EXPECT_EQ(score(stat_of(0, 0, 0, 900, 900)), DETECT_SCORE_UNUSABLE);
    EXPECT_EQ(score(stat_of(0, 0, 0, 1000, 800)), DETECT_SCORE_UNUSABLE);
    EXPECT_EQ(score(stat_of(6000, 0, 0, 0, 0)), DETECT_SCORE_UNUSABLE);
    EXPECT_EQ(score(stat_of(0, 1000, 1000, 0, 0)), DETECT_SCORE_UNUSABLE);
    // delaybase does not count toward the limit, only toward the curve.
    EXPECT_EQ(score(stat_of(0, 0, 0, 0, 0), 5000), 2 * 0 + 2 * 1000 + 3 * 1000);
    EXPECT_EQ(score(detect_pkt_stat_worst()), DETECT_SCORE_UNUSABLE);

    // The table check walks rows while valid and rising in delay and falling in score.
    DetectQosScore::RoleCheck c = DetectQosScore::check_role(DetectQosScore::default_roles());
    EXPECT_EQ(c.usable, 8);
    EXPECT_TRUE(c.has_limit);
    EXPECT_EQ(DetectQosScore::check_role({{1, 0, 0, 0, 1000}, {1, 5, 5, 5, 1000}}).usable, 0) << "same score";
    c = DetectQosScore::check_role({{1, 0, 0, 0, 1000}, {1, 9, 9, 9, -1000}});
    EXPECT_EQ(c.usable, 0) << "a limit with one row before it";
    EXPECT_FALSE(c.has_limit);
    EXPECT_EQ(DetectQosScore::check_role({{1, 0, 0, 0, 9}, {1, 1, 1, 1, 8}, {1, 2, 0, 2, 7}, {1, 3, 3, 3, 6}}).usable,
              2);
    EXPECT_EQ(DetectQosScore::check_role({{1, 0, 0, 0, 9}, {1, 1, 1, 1, 8}, {0, 2, 2, 2, 7}}).usable, 2);
}

TEST(QosScore, SettersChangeLaterScoresAndRefusalsChangeNothing) {
    const DetectPktStat probe = stat_of(40, 10, 10, 0, 0);
    const uint32_t zero_first[3] = {0, 2, 3}, six_last[3] = {1, 1, 6}, heavy_delay[3] = {5, 1, 1};
    EXPECT_EQ(zeph_detect_set_qos_weight(zero_first), uint32_t(DETECT_ERR_BAD_WEIGHT));
    EXPECT_EQ(zeph_detect_set_qos_weight(six_last), uint32_t(DETECT_ERR_BAD_WEIGHT));
    EXPECT_EQ(zeph_detect_set_qos_weight(nullptr), uint32_t(DETECT_ERR_BAD_WEIGHT));
    EXPECT_EQ(score(probe, 10), 6500);
    EXPECT_EQ(zeph_detect_set_qos_weight(heavy_delay), 0u);
    EXPECT_EQ(score(probe, 10), 5 * 900 + 850 + 1000);

    const std::vector<DetectRole> flat = {{1, 0, 0, 0, 1000}, {1, 0, 10, 10, 500}};
    EXPECT_EQ(zeph_detect_set_qos_roles(&flat), uint32_t(DETECT_ERR_BAD_ROLES));
    EXPECT_EQ(zeph_detect_set_qos_roles(nullptr), uint32_t(DETECT_ERR_BAD_ROLES));
    EXPECT_EQ(score(probe, 10), 5 * 900 + 850 + 1000);

    // Two rows: straight lines between them. The limit in force before stays.
    const std::vector<DetectRole> line = {{1, 0, 0, 0, 1000}, {1, 100, 100, 100, 0}};
    EXPECT_EQ(zeph_detect_set_qos_roles(&line), 0u);
    EXPECT_EQ(score(probe, 10), 5 * 700 + 900 + 1000);
    EXPECT_EQ(score(stat_of(400, 0, 0, 0, 0)), 5 * 0 + 1000 + 1000) << "beyond the last row: its score";
    EXPECT_EQ(score(detect_pkt_stat_worst()), DETECT_SCORE_UNUSABLE);

    // A table with a limit of its own.
    const std::vector<DetectRole> strict = {{1, 0, 0, 0, 1000}, {1, 50, 50, 50, 0}, {1, 60, 60, 60, -1000}};
    EXPECT_EQ(zeph_detect_set_qos_roles(&strict), 0u);
    EXPECT_EQ(score(stat_of(120, 0, 0, 0, 0)), DETECT_SCORE_UNUSABLE);
    EXPECT_EQ(score(stat_of(100, 0, 0, 0, 0)), 5 * 0 + 1000 + 1000);
}

// A reader scoring while a host swaps tables sees one table or the other, never half of each.
TEST(QosScore, ScoringWhileAHostSwapsTablesSeesOneTableOrTheOther) {
    const std::vector<DetectRole> a = {{1, 0, 0, 0, 1000}, {1, 100, 100, 100, 0}};
    const std::vector<DetectRole> b = {{1, 0, 0, 0, 800}, {1, 10, 10, 10, 600}, {1, 20, 20, 20, 400},
                                       {1, 40, 40, 40, 200}};
    const DetectPktStat s = stat_of(100, 0, 0, 0, 0);
    ASSERT_EQ(zeph_detect_set_qos_roles(&a), 0u);
    const int32_t score_a = score(s);
    ASSERT_EQ(zeph_detect_set_qos_roles(&b), 0u);
    const int32_t score_b = score(s);
    ASSERT_NE(score_a, score_b);

    std::atomic<bool> stop{false};
    std::thread host([&] {
        for (int i = 0; !stop; ++i) zeph_detect_set_qos_roles(i % 2 ? &a : &b);
    });
    int odd = 0;
    for (int i = 0; i < 20000; ++i) {
        const int32_t v = score(s);
        if (v != score_a && v != score_b) ++odd;
    }
    stop = true;
    host.join();
    EXPECT_EQ(odd, 0);
}

} // namespace
