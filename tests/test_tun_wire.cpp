// The delaying wire, the truth of the TCP, ICMP and UDP checks: it forwards
// both ways, delays and drops as told, and pairs requests with answers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "loopback_peers.h"
#include "tun_wire.h"

using namespace zeph_wire;

namespace {

constexpr int kTimeoutMs = 2000;
constexpr double kToB = 20, kToA = 10; // different, so a swapped direction shows
constexpr double kSlackMs = 200;       // scheduling under sanitizers and load; the bench measures the real figure
constexpr double kStampSlackMs = 0.5;  // the wire stamps an answer after its write returns, maybe after the read
constexpr uint16_t kEchoId = 0x7A11;

#define REQUIRE_WIRE()                                                                                         \
    if (std::string why; !TunWire::permitted(&why)) GTEST_SKIP() << "no namespaces or TUN devices here: " << why

TEST(TunWire, DelaysEachDirectionAndLogsTheRoundTrips) {
    REQUIRE_WIRE();
    TunWireConfig cfg;
    cfg.a_to_b.delay_ms = kToB, cfg.b_to_a.delay_ms = kToA;
    TunWire wire(cfg);
    std::string error;
    ASSERT_EQ(wire.start(&error), 0) << error;

    zeph_peers::TcpAcceptor tcp;
    zeph_peers::StunResponder stun;
    ASSERT_EQ(wire.run_in(Side::B, [&] {
        ASSERT_TRUE(tcp.start(kAddrB, 0, &error)) << error;
        ASSERT_TRUE(stun.start(kAddrB, 0, &error)) << error;
    }), 0);
    ASSERT_NE(tcp.port(), 0);

    double measured[3] = {-1, -1, -1}; // TCP connect, ICMP echo, STUN, as a plain client sees them
    ASSERT_EQ(wire.run_in(Side::A, [&] {
        measured[0] = zeph_wire::plain_connect_ms(kAddrB, tcp.port(), kTimeoutMs);
        measured[1] = zeph_wire::plain_echo_ms(kAddrB, kEchoId, 1, kTimeoutMs);
        measured[2] = zeph_wire::plain_stun_ms(kAddrB, stun.port(), kTimeoutMs);
    }, &error), 0) << error;

    // One answered request per protocol, its truth between the applied delays and the client's figure.
    const double rtt = kToB + kToA;
    const std::vector<WireRecord> log = wire.take_log();
    const auto trips = zeph_wire::round_trips(log);
    const uint8_t protos[] = {6, 1, 17};
    for (int i = 0; i < 3; ++i) {
        std::vector<RoundTrip> rts;
        for (const RoundTrip& rt : trips)
            if (rt.proto == protos[i]) rts.push_back(rt);
        ASSERT_EQ(rts.size(), 1u) << "protocol " << int(protos[i]);
        EXPECT_TRUE(measured[i] >= rtt && measured[i] < rtt + kSlackMs && rts[0].answered && rts[0].truth_ms >= rtt &&
                    rts[0].truth_ms <= measured[i] + kStampSlackMs)
            << "protocol " << int(protos[i]) << ": " << rts[0].truth_ms << " of " << measured[i];
    }
    for (const WireRecord& r : log) {
        if (r.dropped) continue;
        EXPECT_NEAR(r.delay_ms, r.a_to_b ? kToB : kToA, 1e-6);
        if (r.out_ms < 0) continue; // still on its way when the log was taken
        EXPECT_GE(r.out_ms - r.at_ms, r.delay_ms); // never early
    }
    const auto st = wire.stats();
    EXPECT_TRUE(st.a_to_b.forwarded >= 3u && st.b_to_a.forwarded >= 3u);
    EXPECT_EQ(st.a_to_b.write_failed + st.b_to_a.write_failed, 0u);
}

TEST(TunWire, LossDropsRequestsUntilTheImpairmentChanges) {
    REQUIRE_WIRE();
    TunWireConfig cfg;
    cfg.a_to_b.loss = 1;
    TunWire wire(cfg);
    std::string error;
    ASSERT_EQ(wire.start(&error), 0) << error;
    ASSERT_EQ(wire.enter(Side::A, &error), 0) << error; // this test's process is its own

    constexpr int kLostWaitMs = 200;
    EXPECT_LT(zeph_wire::plain_echo_ms(kAddrB, kEchoId, 1, kLostWaitMs), 0);
    auto trips = zeph_wire::round_trips(wire.take_log());
    ASSERT_EQ(trips.size(), 1u);
    EXPECT_TRUE(!trips[0].answered && wire.stats().a_to_b.dropped >= 1u);

    wire.set_impairment({}, {});
    EXPECT_GE(zeph_wire::plain_echo_ms(kAddrB, kEchoId, 2, kTimeoutMs), 0);
    trips = zeph_wire::round_trips(wire.take_log());
    EXPECT_TRUE(trips.size() == 1u && trips[0].answered);
}

// A SYN sent again before its SYN-ACK is one handshake, timed from the first
// copy; an answer nobody asked for pairs with nothing.
TEST(TunWire, RoundTripsCountARepeatedRequestOnceFromItsFirstCopy) {
    auto syn = [](bool a_to_b, double at, double delay, uint8_t flags, bool dropped = false) {
        WireRecord r;
        r.at_ms = at, r.a_to_b = a_to_b, r.delay_ms = delay, r.dropped = dropped;
        r.info.proto = 6, r.info.tcp_flags = flags;
        r.info.sport = a_to_b ? 40000 : 443, r.info.dport = a_to_b ? 443 : 40000;
        return r;
    };
    constexpr uint8_t kSyn = 0x02, kSynAck = 0x12, kAck = 0x10;
    const std::vector<WireRecord> log = {
        syn(true, 0, 0, kSyn, true),    // lost
        syn(true, 1000, 5, kSyn),       // the retransmission
        syn(false, 1006, 5, kSynAck),   // answer, leaves the wire at 1011
        syn(true, 1012, 5, kAck),       // not a request
        syn(false, 1020, 5, kSynAck),   // a repeated answer: nothing left to pair
    };
    const auto trips = zeph_wire::round_trips(log);
    ASSERT_EQ(trips.size(), 1u);
    EXPECT_TRUE(trips[0].answered && trips[0].truth_ms == 1011) << trips[0].truth_ms;
}

} // namespace
