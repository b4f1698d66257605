// The seven-measurement plan against loopback servers. The plan's ports are
// fixed (443, 1124, 10002), so each test gives its servers addresses of its
// own in 127.0.0.0/8.
#include <gtest/gtest.h>

#include <map>

#include "inc/net_detect.h"
#include "net_detect_records.h"
#include "peers.h"
#include "zeph_nettools/net_tools.h"

using namespace zeph_test;
using net_records::expect_failure_values;

namespace {

void set_servers(const std::vector<std::string>& names) {
    std::vector<const char*> texts;
    for (const auto& n : names) texts.push_back(n.c_str());
    ASSERT_EQ(zeph_set_net_detect_srvs(texts.data(), static_cast<int32_t>(texts.size())), 0);
}

// Records of detection `num` by level, after every object has been freed,
// so that nothing more can arrive.
std::map<uint32_t, std::vector<NetDetectResult>> final_records(uint32_t num) {
    EXPECT_TRUE(net_records::all_freed(45000)) << "detection objects still alive";
    std::map<uint32_t, std::vector<NetDetectResult>> by_level;
    for (const auto& r : net_records::of(num)) by_level[r.level].push_back(r);
    return by_level;
}

void expect_plan_record(const NetDetectResult& r, uint32_t num, uint64_t context) {
    EXPECT_EQ(r.num, num);
    EXPECT_EQ(r.level_num, 7u);
    EXPECT_EQ(r.context, context);
}

void expect_clean(const NetDetectResult& r) {
    EXPECT_EQ(r.discard, 0) << "level " << r.level;
    EXPECT_EQ(r.qos, 0u) << "level " << r.level;
    EXPECT_GE(r.min, 1) << "level " << r.level;
}

} // namespace

// Must stay the first test of this file: server names, once set, stay set.
TEST(NetDetectPlan, WithoutServersReportsSevenEmptyRecordsThenFailedLevel3) {
    for (size_t i = 0; i < NetDetectData::kNames; ++i) {
        if (!NetDetectData::get()->get_srv_name(i).empty()) GTEST_SKIP() << "server names already set in this process";
    }
    const uint32_t num = 0x6201;
    const uint64_t context = 0x1122334455667788ULL;
    ASSERT_EQ(zeph_net_detect_jni(static_cast<int32_t>(num), net_records::on_result, context), 0u);

    // The seven come at once, from the starting loop, in plan order.
    ASSERT_TRUE(net_records::wait_count(num, 7, 2000));
    const auto first = net_records::of(num);
    const uint32_t levels[7] = {5, 6, 1, 2, 3, 3, 7};
    for (size_t i = 0; i < 7; ++i) {
        const NetDetectResult& r = first[i];
        expect_plan_record(r, num, context);
        EXPECT_EQ(r.level, levels[i]) << i;
        EXPECT_EQ(r.qos, 0u) << i;
        EXPECT_EQ(r.average, 0) << i;
        EXPECT_EQ(r.max, 0) << i;
        EXPECT_EQ(r.min, 0) << i;
        EXPECT_EQ(r.discard, 0) << i;
    }

    // Then the fold of the port measurements, which all failed for want of a server.
    ASSERT_TRUE(net_records::wait_count(num, 8, 10000));
    const uint64_t folded_at = now_ms();
    const NetDetectResult level3 = net_records::of(num)[7];
    expect_plan_record(level3, num, context);
    EXPECT_EQ(level3.level, 3u);
    EXPECT_EQ(level3.ready, 1u);
    expect_failure_values(level3);

    // Freed 4 s after both threads ended, plus the destructor's 2 s.
    ASSERT_TRUE(zeph_test::wait_until([] { return NetDetect::live_count() == 0; }, 20000, 10));
    EXPECT_GE(now_ms() - folded_at, 5500u);
    EXPECT_EQ(net_records::of(num).size(), 8u);
}

TEST(NetDetectPlan, EveryLevelReportedOnceAgainstAnsweringServers) {
    const std::string base = "127.0.0.14";
    TcpListener tcp1(base + "3", 443), tcp2(base + "4", 443), share(base + "5", 1124);
    if (!tcp1.ok() || !tcp2.ok() || !share.ok()) GTEST_SKIP() << "cannot bind port 443/1124 on loopback";
    CoturnServer stun_media, stun_443;
    ASSERT_TRUE(stun_media.start(base + "6", 10002));
    ASSERT_TRUE(stun_443.start(base + "6", 443));
    set_servers({base + "1", base + "2", base + "3", base + "4", base + "5", base + "6"});

    const uint32_t num = 0x6202;
    ASSERT_EQ(zeph_net_detect(static_cast<int32_t>(num), net_records::on_result), 0u);
    ASSERT_TRUE(net_records::wait_count(num, 5, 12000));
    // 4 connects to each TCP server, in a burst of their own.
    EXPECT_TRUE(tcp1.wait_accepts(4, 2000));
    EXPECT_TRUE(tcp2.wait_accepts(4, 2000));
    EXPECT_TRUE(share.wait_accepts(4, 2000));

    auto by_level = final_records(num);
    ASSERT_EQ(by_level.size(), 5u);
    for (uint32_t level : {1u, 2u, 3u, 5u, 6u}) {
        ASSERT_EQ(by_level[level].size(), 1u) << "level " << level;
        const NetDetectResult& r = by_level[level][0];
        expect_plan_record(r, num, 0);
        EXPECT_EQ(r.ready, 1u);
        EXPECT_EQ(r.is_proxy, 0u);
        if (level >= 5 && !net_records::raw_icmp_allowed()) {
            expect_failure_values(r); // no raw socket, no echo
        } else {
            expect_clean(r);
        }
    }
}

TEST(NetDetectPlan, FailuresStayInTheirLevelAndLevel3FoldsWhatAnswered) {
    const std::string base = "127.0.0.15";
    // Server 2 has nothing on 443; server 5 answers STUN on 443 only.
    TcpListener tcp2(base + "4", 443), share(base + "5", 1124);
    if (!tcp2.ok() || !share.ok()) GTEST_SKIP() << "cannot bind port 443/1124 on loopback";
    CoturnServer stun_443;
    ASSERT_TRUE(stun_443.start(base + "6", 443));
    set_servers({base + "1", "no-such-host.invalid", base + "3", base + "4", base + "5", base + "6"});

    const uint32_t num = 0x6203;
    ASSERT_EQ(zeph_net_detect_default(static_cast<int32_t>(num), net_records::on_result), 0u);
    // The name that does not resolve fails its level at once.
    ASSERT_TRUE(net_records::wait_count(num, 1, 2000));
    const NetDetectResult early = net_records::of(num)[0];
    EXPECT_EQ(early.level, 6u);
    expect_failure_values(early);

    auto by_level = final_records(num);
    ASSERT_EQ(by_level.size(), 5u);
    for (const auto& entry : by_level) {
        ASSERT_EQ(entry.second.size(), 1u) << "level " << entry.first;
        expect_plan_record(entry.second[0], num, 0);
    }
    expect_failure_values(by_level[1][0]); // refused connects
    expect_clean(by_level[2][0]);
    // TCP 1124 and UDP 443 answered; UDP 10002 did not and is left out.
    const NetDetectResult& level3 = by_level[3][0];
    expect_clean(level3);
    EXPECT_EQ(level3.ready, 1u);
    if (net_records::raw_icmp_allowed()) expect_clean(by_level[5][0]);
}
