// Net detection of one destination, and the rules that reduce a burst of
// probes and the plan's port measurements to delay, loss and quality class.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "inc/net_detect.h"
#include "net_detect_records.h"
#include "peers.h"
#include "zeph_nettools/net_tools.h"

using namespace zeph_test;
using net_records::expect_failure_values;

namespace {

NetDetectResult measured(int32_t discard, int32_t average, int32_t max, int32_t min) {
    NetDetectResult r = net_detect_failure_record();
    r.discard = discard;
    r.average = average;
    r.max = max;
    r.min = min;
    return r;
}

class SingleNetDetect : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(net_records::all_freed(20000)) << "detection objects still alive"; }

    // The one record of detection `num`, waited for up to timeout_ms.
    NetDetectResult one_record(uint32_t num, int timeout_ms) {
        EXPECT_TRUE(net_records::wait_count(num, 1, timeout_ms)) << "no record for " << num;
        auto recs = net_records::of(num);
        return recs.empty() ? net_detect_failure_record() : recs[0];
    }

    void expect_single_header(const NetDetectResult& r, uint32_t num) {
        EXPECT_EQ(r.num, num);
        EXPECT_EQ(r.level, 1u);
        EXPECT_EQ(r.level_num, 1u);
        EXPECT_EQ(r.ready, 1u);
        EXPECT_EQ(r.reported, 1u);
        EXPECT_EQ(r.is_proxy, 0u);
    }
};

} // namespace

TEST(NetDetectRules, QosClassFirstMatchWins) {
    struct Case {
        int32_t discard, average;
        uint32_t qos;
    } cases[] = {
        {0, 100, 0},  {0, 101, 1},  {0, 150, 1}, {0, 151, 2},   {16, 50, 1},    {25, 150, 1},
        {25, 151, 2}, {26, 10, 2},  {33, 1, 2},  {99, 1000, 2}, {100, 1000, 3}, {100, 1, 3},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(net_detect_qos(c.discard, c.average), c.qos) << "discard " << c.discard << " average " << c.average;
    }
}

TEST(NetDetectRules, BurstReductionCountsUnreachedPlacesAsLost) {
    // Four TCP connects, all answered: integer mean, extremes, no loss.
    NetBurstSample tcp[4] = {{true, 3}, {true, 5}, {true, 8}, {true, 9}};
    NetDetectResult r = net_detect_failure_record();
    EXPECT_EQ(NetDetectBase::reduce_burst(tcp, 4, r), 4u);
    EXPECT_EQ(r.average, 6);
    EXPECT_EQ(r.max, 9);
    EXPECT_EQ(r.min, 3);
    EXPECT_EQ(r.discard, 0);
    EXPECT_EQ(r.qos, 0u);
    EXPECT_EQ(r.ready, 1u);

    // One of six lost: 100 / 6 truncates to 16, still class 1 at 50 ms.
    NetBurstSample udp[6] = {{true, 50}, {true, 50}, {false, 7}, {true, 50}, {true, 50}, {true, 50}};
    r = net_detect_failure_record();
    NetDetectBase::reduce_burst(udp, 6, r);
    EXPECT_EQ(r.discard, 16);
    EXPECT_EQ(r.average, 50);
    EXPECT_EQ(r.qos, 1u);

    // One of four lost at 150 ms is class 1; two of six lost is class 2.
    NetBurstSample slow[4] = {{true, 150}, {false, 0}, {true, 150}, {true, 150}};
    r = net_detect_failure_record();
    NetDetectBase::reduce_burst(slow, 4, r);
    EXPECT_EQ(r.discard, 25);
    EXPECT_EQ(r.qos, 1u);
    NetBurstSample lossy[6] = {{true, 1}, {false, 0}, {true, 1}, {false, 0}, {true, 1}, {true, 1}};
    r = net_detect_failure_record();
    NetDetectBase::reduce_burst(lossy, 6, r);
    EXPECT_EQ(r.discard, 33);
    EXPECT_EQ(r.qos, 2u);

    // Nothing reached: the failure values, with the serial number kept.
    NetBurstSample none[6] = {};
    r = measured(0, 5, 5, 5);
    r.num = 0xABCD;
    EXPECT_EQ(NetDetectBase::reduce_burst(none, 6, r), 0u);
    expect_failure_values(r);
    EXPECT_EQ(r.num, 0xABCDu);
    EXPECT_EQ(r.level, 7u);
    EXPECT_EQ(r.ready, 1u);
}

TEST(NetDetectRules, PortFoldNeedsTcpAndOneUdpAndAveragesTheRest) {
    const NetDetectResult ok = measured(0, 20, 30, 10);
    const NetDetectResult dead = net_detect_failure_record();
    NetDetectResult out{};

    NetDetect::fold_port_results(dead, ok, ok, out); // TCP 1124 failed
    expect_failure_values(out);
    NetDetect::fold_port_results(ok, dead, dead, out); // both UDP ports failed
    expect_failure_values(out);

    // TCP clean, UDP 10002 lost half, UDP 443 dead: means over two.
    NetDetect::fold_port_results(measured(0, 20, 30, 10), measured(50, 41, 60, 21), dead, out);
    EXPECT_EQ(out.discard, 25);
    EXPECT_EQ(out.average, 30); // (20 + 41) / 2 truncated
    EXPECT_EQ(out.max, 45);
    EXPECT_EQ(out.min, 15);
    EXPECT_EQ(out.qos, 1u);

    // All three take part.
    NetDetect::fold_port_results(measured(0, 10, 10, 10), measured(16, 20, 20, 20), measured(33, 31, 30, 30), out);
    EXPECT_EQ(out.discard, 16);
    EXPECT_EQ(out.average, 20);
    EXPECT_EQ(out.qos, 1u);
}

TEST_F(SingleNetDetect, TcpToListenerMeasuresFourConnectsThenFreesAfterItsPause) {
    TcpListener listener("127.0.0.1", 0, TcpListener::Mode::Keep);
    ASSERT_TRUE(listener.ok());
    const uint32_t num = 0x5101;
    ASSERT_EQ(zeph_single_net_detect(num, "127.0.0.1", listener.port(), ZEPH_TRANS_TCP, net_records::on_result), 0);

    const NetDetectResult r = one_record(num, 5000);
    const uint64_t reported_at = now_ms();
    expect_single_header(r, num);
    EXPECT_EQ(r.discard, 0);
    EXPECT_EQ(r.qos, 0u);
    EXPECT_GE(r.min, 1);
    EXPECT_LE(r.min, r.average);
    EXPECT_LE(r.average, r.max);
    EXPECT_TRUE(listener.wait_accepts(4, 2000)) << listener.accepts();

    // The object outlives its callback by the destructor's 2 s pause.
    ASSERT_TRUE(zeph_test::wait_until([] { return NetDetectBase::live_count() == 0; }, 10000, 10));
    EXPECT_GE(now_ms() - reported_at, 1900u);
    EXPECT_EQ(net_records::of(num).size(), 1u);
}

TEST_F(SingleNetDetect, UdpToStunServerGetsSixAnswers) {
    CoturnServer stun;
    ASSERT_TRUE(stun.start("127.0.0.1", 0));
    const uint32_t num = 0x5102;
    ASSERT_EQ(zeph_single_net_detect(num, "127.0.0.1", stun.port(), ZEPH_TRANS_UDP, net_records::on_result), 0);
    const NetDetectResult r = one_record(num, 5000);
    expect_single_header(r, num);
    EXPECT_EQ(r.discard, 0);
    EXPECT_EQ(r.qos, 0u);
    EXPECT_GE(r.min, 1);
}

TEST_F(SingleNetDetect, UdpPeerThatIgnoresOneRequestCostsOneSixth) {
    UdpSocket peer("127.0.0.1", 0);
    ASSERT_TRUE(peer.ok());
    std::thread responder([&] {
        for (int k = 0; k < 6; ++k) {
            uint8_t req[64];
            std::string ip;
            uint16_t port = 0;
            const int n = peer.recv(req, sizeof req, 3000, &ip, &port);
            if (n < 20) return;
            if (k == 2) continue; // this request goes unanswered
            uint8_t resp[20];
            std::memcpy(resp, req, 20);
            resp[0] = 0x01;
            resp[1] = 0x01;
            peer.send_to(resp, sizeof resp, ip, port);
        }
    });
    const uint32_t num = 0x5103;
    ASSERT_EQ(zeph_single_net_detect(num, "127.0.0.1", peer.port(), ZEPH_TRANS_UDP, net_records::on_result), 0);
    const NetDetectResult r = one_record(num, 6000);
    responder.join();
    expect_single_header(r, num);
    EXPECT_EQ(r.discard, 16);
    EXPECT_EQ(r.qos, 1u);
    EXPECT_GE(r.min, 1);
}

TEST_F(SingleNetDetect, ClosedTcpPortWaitsOutItsLimitAndReportsFailure) {
    LogCapture log;
    const uint16_t port = closed_tcp_port("127.0.0.1");
    const uint32_t num = 0x5104;
    const uint64_t t0 = now_ms();
    ASSERT_EQ(zeph_single_net_detect(num, "127.0.0.1", port, ZEPH_TRANS_TCP, net_records::on_result), 0);
    const NetDetectResult r = one_record(num, 8000);
    // Refused connects are not "reached": the wait runs its 2500 ms.
    EXPECT_GE(now_ms() - t0, 2500u);
    expect_single_header(r, num);
    expect_failure_values(r);

    const std::string want = "null result [127.0.0.1:" + std::to_string(port) + "]";
    bool found = false;
    for (const auto& line : log.lines()) {
        if (line.message == want) {
            found = true;
            EXPECT_EQ(line.level, 0);
            EXPECT_EQ(line.function, "NetDetectBase::calc_detect_result");
            EXPECT_EQ(line.file, "support/nettools/netdetect/net_detect.cpp");
        }
    }
    EXPECT_TRUE(found) << log.dump();
}

TEST_F(SingleNetDetect, IcmpToLoopbackGetsSixEchoReplies) {
    if (!net_records::raw_icmp_allowed()) GTEST_SKIP() << "raw ICMP sockets are not permitted here";
    const uint32_t num = 0x5105;
    ASSERT_EQ(zeph_single_net_detect(num, "127.0.0.1", 443, ZEPH_TRANS_ICMP, net_records::on_result), 0);
    const NetDetectResult r = one_record(num, 5000);
    expect_single_header(r, num);
    EXPECT_EQ(r.discard, 0);
    EXPECT_EQ(r.qos, 0u);
    EXPECT_GE(r.min, 1);
}

TEST_F(SingleNetDetect, UnknownTransportReportsFailureAtFirstPoll) {
    const uint32_t num = 0x5106;
    const uint64_t t0 = now_ms();
    ASSERT_EQ(zeph_single_net_detect(num, "127.0.0.1", 443, 3, net_records::on_result), 0);
    const NetDetectResult r = one_record(num, 2000);
    EXPECT_LT(now_ms() - t0, 1000u);
    expect_single_header(r, num);
    expect_failure_values(r);
}

TEST_F(SingleNetDetect, BadArgumentsAreRefusedWithoutADetection) {
    LogCapture log;
    EXPECT_EQ(zeph_single_net_detect(0x5107, nullptr, 443, ZEPH_TRANS_TCP, net_records::on_result), 1);
    EXPECT_EQ(zeph_single_net_detect(0x5107, "127.0.0.1", 0, ZEPH_TRANS_TCP, net_records::on_result), 1);
    EXPECT_EQ(zeph_single_net_detect(0x5107, "no-such-host.invalid", 443, ZEPH_TRANS_TCP, net_records::on_result), 1);
    EXPECT_EQ(NetDetectBase::live_count(), 0);
    EXPECT_EQ(log.count("para is error"), 2) << log.dump();
    EXPECT_TRUE(log.contains("domain/ip(no-such-host.invalid) is invalid")) << log.dump();
    EXPECT_TRUE(net_records::of(0x5107).empty());
}
