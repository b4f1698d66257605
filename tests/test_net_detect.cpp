// Net detection: the rules that rate a burst, one destination per transport,
// and the seven-measurement plan, whose fixed ports (443, 1124, 10002) put
// each plan test's servers on loopback addresses of its own.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <vector>

#include "detect_reports.h"
#include "inc/net_detect.h"
#include "peers.h"
#include "quality_peers.h"
#include "zeph_nettools/net_tools.h"
#include "zeph_nettools/settings.h"

using namespace zeph_test;

namespace {

// One process-wide list, picked by serial number; never destroyed (library threads may call in at exit).
DetectReports<NetDetectResult>& g_reports = *new DetectReports<NetDetectResult>;
void on_result(NetDetectResult* r) { g_reports.add(*r); }

std::function<bool(const NetDetectResult&)> of(uint32_t num, uint32_t level = 0) {
    return [=](const NetDetectResult& r) { return r.num == num && (level == 0 || r.level == level); };
}
std::vector<NetDetectResult> records(uint32_t num) {
    std::vector<NetDetectResult> out;
    for (const auto& r : g_reports.all(of(num))) out.push_back(r.value);
    return out;
}
bool wait_count(uint32_t num, size_t n, int timeout_ms) { return g_reports.wait_for(n, timeout_ms, of(num)); }
// When the last callback for (num, level) came; 0 if none did.
uint64_t record_time(uint32_t num, uint32_t level) {
    const auto all = g_reports.all(of(num, level));
    return all.empty() ? 0 : all.back().at_ms;
}

// Waits for a log line that is exactly `message`.
bool wait_line(const LogCapture& log, const std::string& message, int timeout_ms) {
    return wait_until(
        [&] {
            for (const auto& l : log.lines())
                if (l.message == message) return true;
            return false;
        },
        timeout_ms, 5);
}

// Every detection object and probe of the process is freed: no record can follow.
bool all_freed(int timeout_ms) {
    return wait_until(
        [] { return NetDetect::live_count() + NetDetectBase::live_count() + PortDetectBase::live_count() == 0; },
        timeout_ms, 10);
}

// `ok` about r, with r's figures in the message.
::testing::AssertionResult figures(const NetDetectResult& r, bool ok) {
    return (ok ? ::testing::AssertionSuccess() : ::testing::AssertionFailure())
           << "level " << r.level << ": qos " << r.qos << ", average " << r.average << ", max " << r.max << ", min "
           << r.min << ", discard " << r.discard;
}
::testing::AssertionResult failed(const NetDetectResult& r) {
    return figures(r, r.qos == 3 && r.average == 1000 && r.max == 1000 && r.min == 1000 && r.discard == 100);
}
::testing::AssertionResult clean(const NetDetectResult& r) {
    return figures(r, r.qos == 0 && r.discard == 0 && r.min >= 1 && r.min <= r.average && r.average <= r.max);
}

void set_servers(const std::vector<std::string>& names) {
    std::vector<const char*> texts;
    for (const auto& n : names) texts.push_back(n.c_str());
    ASSERT_EQ(zeph_set_net_detect_srvs(texts.data(), static_cast<int32_t>(texts.size())), 0);
}

// Plan `num`'s records by level once all is freed: five levels once each, only 3 telling the proxy.
std::map<uint32_t, NetDetectResult> plan_levels(uint32_t num, uint32_t level3_proxy = 0) {
    EXPECT_TRUE(all_freed(45000)) << "detection objects still alive";
    std::map<uint32_t, NetDetectResult> by_level;
    for (const auto& r : records(num)) {
        EXPECT_TRUE(by_level.emplace(r.level, r).second) << "level " << r.level << " reported twice";
        EXPECT_TRUE(r.level_num == 7 && r.context == 0 && r.is_proxy == (r.level == 3 ? level3_proxy : 0))
            << "level " << r.level << ", is_proxy " << r.is_proxy;
    }
    EXPECT_EQ(by_level.size(), 5u);
    return by_level;
}

NetDetectResult measured(int32_t discard, int32_t average, int32_t max, int32_t min) {
    NetDetectResult r = net_detect_failure_record();
    r.discard = discard, r.average = average, r.max = max, r.min = min;
    return r;
}

} // namespace

TEST(NetDetectRules, QosClassBurstReductionAndPortFold) {
    const struct {
        int32_t discard, average;
        uint32_t qos;
    } cases[] = {{0, 100, 0}, {0, 101, 1}, {0, 151, 2}, {16, 50, 1}, {25, 150, 1},
                 {25, 151, 2}, {26, 10, 2}, {99, 1000, 2}, {100, 1, 3}};
    for (const auto& c : cases) {
        EXPECT_EQ(net_detect_qos(c.discard, c.average), c.qos) << "discard " << c.discard << " average " << c.average;
    }

    // A burst reduced into a record that held other figures and serial 0xABCD.
    auto reduce = [](std::vector<NetBurstSample> burst) {
        NetDetectResult r = measured(0, 5, 5, 5);
        r.num = 0xABCD;
        NetDetectBase::reduce_burst(burst.data(), static_cast<uint32_t>(burst.size()), r);
        return r;
    };
    // Four TCP connects, all answered: integer mean, extremes, no loss.
    NetDetectResult r = reduce({{true, 3}, {true, 5}, {true, 8}, {true, 9}});
    EXPECT_TRUE(figures(r, r.average == 6 && r.max == 9 && r.min == 3 && r.discard == 0 && r.qos == 0 && r.ready));
    // One of six lost: 100 / 6 truncates to 16, and the lost delay is not counted.
    r = reduce({{true, 50}, {true, 50}, {false, 7}, {true, 50}, {true, 50}, {true, 50}});
    EXPECT_TRUE(figures(r, r.discard == 16 && r.average == 50 && r.min == 50 && r.qos == 1));
    // Nothing reached: the failure values, with the serial number kept.
    r = reduce(std::vector<NetBurstSample>(6));
    EXPECT_TRUE(failed(r));
    EXPECT_EQ(r.num, 0xABCDu);

    // Level 3 needs TCP 1124 and one UDP port, and averages those that answered.
    const NetDetectResult ok = measured(0, 20, 30, 10), dead = net_detect_failure_record();
    NetDetectResult out{};
    NetDetect::fold_port_results(dead, ok, ok, out);
    EXPECT_TRUE(failed(out)) << "TCP failed";
    NetDetect::fold_port_results(ok, dead, dead, out);
    EXPECT_TRUE(failed(out)) << "both UDP ports failed";
    NetDetect::fold_port_results(ok, measured(50, 41, 60, 21), dead, out);
    EXPECT_TRUE(figures(out, out.discard == 25 && out.average == 30 && out.max == 45 && out.min == 15 && out.qos == 1));
    NetDetect::fold_port_results(measured(0, 10, 10, 10), measured(16, 20, 20, 20), measured(33, 31, 30, 30), out);
    EXPECT_TRUE(figures(out, out.discard == 16 && out.average == 20 && out.qos == 1));
}

// All at once: TCP to a listener, UDP to coturn and to a peer leaving one of
// six unanswered, TCP to a closed port (waits out its 2500 ms), ICMP, and an
// unknown transport. Each reports once and is freed 2 s after its callback.
TEST(SingleNetDetect, EachTransportAgainstItsPeer) {
    EXPECT_EQ(zeph_single_net_detect(0x5107, nullptr, 443, ZEPH_TRANS_TCP, on_result), 1);
    EXPECT_EQ(zeph_single_net_detect(0x5107, "127.0.0.1", 0, ZEPH_TRANS_TCP, on_result), 1);
    EXPECT_EQ(zeph_single_net_detect(0x5107, "no-such-host.invalid", 443, ZEPH_TRANS_TCP, on_result), 1);

    TcpListener listener;
    CoturnServer stun;
    // Answers the first six requests but the third with a Binding Success Response.
    UdpStandIn peer("127.0.0.1", 0, [](std::vector<uint8_t>& p, const UdpStandIn::Got& g) {
        const bool answer = p.size() >= 20 && g.index < 6 && g.index != 2;
        p.resize(20), p[0] = p[1] = 0x01;
        return answer;
    });
    ASSERT_TRUE(listener.ok() && peer.ok() && stun.start());
    const bool icmp = zeph_peers::raw_icmp_permitted();
    const uint16_t closed = closed_tcp_port();
    LogCapture log;
    auto start = [](uint32_t num, uint16_t port, uint32_t protocol) {
        return zeph_single_net_detect(num, "127.0.0.1", port, protocol, on_result);
    };
    const uint64_t t0 = now_ms();
    EXPECT_EQ(start(0x5101, listener.port(), ZEPH_TRANS_TCP) + start(0x5102, stun.port(), ZEPH_TRANS_UDP) +
                  start(0x5103, peer.port(), ZEPH_TRANS_UDP) + start(0x5104, closed, ZEPH_TRANS_TCP) +
                  start(0x5106, 443, 3) + (icmp ? start(0x5105, 443, ZEPH_TRANS_ICMP) : 0),
              0);
    EXPECT_TRUE(wait_count(0x5106, 1, 1000));
    EXPECT_TRUE(wait_count(0x5104, 1, 8000));
    EXPECT_GE(now_ms() - t0, 2500u);
    EXPECT_TRUE(wait_line(log, "[net_detect_base]leave_[127.0.0.1:" + std::to_string(closed) + "]", 5000));
    const uint64_t freed_after = now_ms() - record_time(0x5104, 1);
    EXPECT_TRUE(freed_after >= 1950 && freed_after < 3500) << freed_after;
    ASSERT_TRUE(all_freed(20000)) << "detection objects still alive";

    EXPECT_GE(listener.accepts(), 4);
    EXPECT_TRUE(records(0x5107).empty());
    for (uint32_t num : {0x5101u, 0x5102u, 0x5103u, 0x5104u, 0x5105u, 0x5106u}) {
        if (num == 0x5105 && !icmp) continue;
        const auto recs = records(num);
        ASSERT_EQ(recs.size(), 1u) << std::hex << num;
        const NetDetectResult& r = recs[0];
        EXPECT_TRUE(r.level == 1 && r.level_num == 1 && r.ready == 1 && r.reported == 1 && r.is_proxy == 0) << std::hex << num;
        EXPECT_TRUE(num == 0x5104 || num == 0x5106 ? failed(r)
                    : num == 0x5103                ? figures(r, r.discard == 16 && r.qos == 1 && r.min >= 1)
                                                   : clean(r))
            << std::hex << num;
    }
}

// Needs a process where no server name was set yet (names, once set, stay).
TEST(NetDetectPlan, WithoutServersReportsSevenEmptyRecordsThenFailedLevel3) {
    for (size_t i = 0; i < NetDetectData::kNames; ++i) {
        if (!NetDetectData::get()->get_srv_name(i).empty()) GTEST_SKIP() << "server names already set in this process";
    }
    const uint32_t num = 0x6201;
    const uint64_t context = 0x1122334455667788ULL;
    LogCapture log;
    ASSERT_EQ(zeph_net_detect_jni(static_cast<int32_t>(num), on_result, context), 0u);
    // Seven at once in plan order, then the failed fold; freed 4 s + 2 s later.
    ASSERT_TRUE(wait_count(num, 7, 2000));
    ASSERT_TRUE(wait_count(num, 8, 8000));
    EXPECT_TRUE(wait_line(log, "[net_detect]leave_", 9000));
    const uint64_t freed_after = now_ms() - record_time(num, 3);
    EXPECT_TRUE(freed_after >= 5950 && freed_after < 7500) << freed_after;
    ASSERT_TRUE(all_freed(20000));
    const auto recs = records(num);
    ASSERT_EQ(recs.size(), 8u);
    const uint32_t levels[8] = {5, 6, 1, 2, 3, 3, 7, 3};
    for (size_t i = 0; i < 8; ++i) {
        const NetDetectResult& r = recs[i];
        EXPECT_TRUE(r.num == num && r.level == levels[i] && r.level_num == 7 && r.context == context) << i;
        EXPECT_TRUE(i == 7 ? failed(r) : figures(r, r.qos + r.average + r.max + r.min + r.discard == 0)) << i;
    }
}

// Server 1 does not resolve, server 2 has nothing on 443, server 5 answers
// STUN on 443 only.
TEST(NetDetectPlan, FailuresStayInTheirLevelAndLevel3FoldsWhatAnswered) {
    const std::string base = "127.0.0.15";
    TcpListener tcp2(base + "4", 443), share(base + "5", 1124);
    if (!tcp2.ok() || !share.ok()) GTEST_SKIP() << "cannot bind port 443/1124 on loopback";
    CoturnServer stun_443;
    ASSERT_TRUE(stun_443.start(base + "6", 443));
    set_servers({base + "1", "no-such-host.invalid", base + "3", base + "4", base + "5", base + "6"});

    const uint32_t num = 0x6203;
    ASSERT_EQ(zeph_net_detect_default(static_cast<int32_t>(num), on_result), 0u);
    // The name that does not resolve fails its level at once.
    ASSERT_TRUE(wait_count(num, 1, 2000));
    EXPECT_EQ(records(num)[0].level, 6u);
    auto by_level = plan_levels(num);
    EXPECT_TRUE(failed(by_level[6]));
    EXPECT_TRUE(failed(by_level[1])); // refused connects
    EXPECT_TRUE(clean(by_level[2]));
    EXPECT_TRUE(clean(by_level[3])); // TCP 1124 and UDP 443; UDP 10002 is left out
    EXPECT_TRUE(zeph_peers::raw_icmp_permitted() ? clean(by_level[5]) : failed(by_level[5]));
}

// Every level reported once. With a proxy set the TCP measurements go through
// it; the level 3 record and a single detection say so, the other levels never do.
TEST(NetDetectPlan, ThroughProxyLevel3AndSingleDetectionSayProxy) {
    const std::string base = "127.0.0.16";
    TcpListener tcp1(base + "3", 443), tcp2(base + "4", 443), share(base + "5", 1124), single;
    if (!tcp1.ok() || !tcp2.ok() || !share.ok() || !single.ok()) GTEST_SKIP() << "cannot bind port 443/1124 on loopback";
    CoturnServer stun_media;
    TinyProxy proxy;
    ASSERT_TRUE(stun_media.start(base + "6", 10002) && proxy.start({443, 1124, single.port()}));
    ASSERT_EQ(0, zeph_settings_set_http_proxy("127.0.0.1", proxy.port(), nullptr, nullptr));
    set_servers({base + "1", base + "2", base + "3", base + "4", base + "5", base + "6"});

    const uint32_t num = 0x6204, single_num = 0x6205;
    ASSERT_EQ(zeph_net_detect(static_cast<int32_t>(num), on_result), 0u);
    ASSERT_EQ(zeph_single_net_detect(single_num, "127.0.0.1", single.port(), ZEPH_TRANS_TCP, on_result), 0);
    auto by_level = plan_levels(num, 1);
    for (const auto& level : by_level) // UDP 443 is left out of 3; without raw sockets, no echo
        EXPECT_TRUE(level.first >= 5 && !zeph_peers::raw_icmp_permitted() ? failed(level.second) : clean(level.second));
    const auto recs = records(single_num);
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].is_proxy, 1u);
    EXPECT_TRUE(clean(recs[0]));
    // Every connect went through the proxy, four to each server.
    EXPECT_GE(tcp1.accepts() + tcp2.accepts() + share.accepts() + single.accepts(), 16);
    EXPECT_GE(proxy.log_text().size(), 1u);
    zeph_settings_set_http_proxy(nullptr, 0, nullptr, nullptr);
}
