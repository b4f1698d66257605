// Port probes against real peers on loopback (coturn, tinyproxy, a scripted
// UDP peer), and the wire checks that decide what counts as an answer. The
// detections' tests drive the probes end to end, ICMP included.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "inc/icmp_wire.h"
#include "inc/port_detect.h"
#include "inc/stun_wire.h"
#include "peers.h"
#include "zeph_nettools/settings.h"

using namespace zeph_test;

struct PortDetectTestAccess {
    static uint8_t* buf(PortDetectBase& p) { return p.m_buf; }
    static const uint8_t* trans_id(PortDetectUDP& p, int slot) { return p.m_trans_ids[slot]; }
    static void set_icmp_ids(PortDetectICMP& p, uint16_t id, uint16_t base) {
        p.m_req_id = id;
        p.m_seq_base = base;
    }
};
using Access = PortDetectTestAccess;

namespace {

const uint32_t kLoopback = ipv4_be("127.0.0.1");
using Bytes = std::vector<uint8_t>;

uint32_t wait_end(const PortDetectBase& p, int timeout_ms) {
    wait_until([&] { return p.get_result() > PROBE_RUNNING; }, timeout_ms);
    return p.get_result();
}

template <class Probe>
std::shared_ptr<Probe> started(uint16_t port, uint32_t net_mode, uint32_t time_out = 3000) {
    constexpr uint32_t protocol = std::is_same<Probe, PortDetectTCP>::value ? ZEPH_TRANS_TCP : ZEPH_TRANS_UDP;
    auto p = std::make_shared<Probe>(kLoopback, port, protocol);
    p->set_time_out(time_out);
    p->start_probe(net_mode);
    return p;
}

struct ProxyGuard {
    ~ProxyGuard() { zeph_settings_set_http_proxy(nullptr, 0, nullptr, nullptr); }
};

// A STUN header of the given type and cookie; a Binding Success Response by default.
Bytes stun_message(const uint8_t* txid, uint16_t type = 0x0101, uint32_t cookie = zeph::stun::kMagicCookie) {
    Bytes out(zeph::stun::kHeaderSize);
    zeph::stun::Header h;
    h.type = type;
    h.cookie = cookie;
    std::memcpy(h.txid, txid, sizeof h.txid);
    zeph::ByteWriter w(out.data(), out.size());
    zeph::stun::write_header(w, h);
    return out;
}

// Puts bytes where the probe receives them; gives their length.
int load(PortDetectBase& p, const Bytes& bytes) {
    std::memcpy(Access::buf(p), bytes.data(), bytes.size());
    return static_cast<int>(bytes.size());
}

// An IP datagram with a header of ihl words, carrying an ICMP echo head.
Bytes icmp_datagram(uint16_t seq, uint8_t type = 0, uint16_t id = 0x1234, uint8_t ihl = 5) {
    Bytes out(ihl * 4u + zeph::icmp::kEchoRequestSize, 0);
    out[0] = uint8_t(0x40 | ihl);
    zeph::ByteWriter w(out.data() + ihl * 4u, zeph::icmp::kEchoRequestSize);
    zeph::icmp::write_echo_request(w, id, seq, 1234);
    out[ihl * 4u] = type;
    return out;
}

} // namespace

TEST(IcmpWire, ChecksumAndEchoRequestGoldenVectors) {
    const uint8_t rfc[] = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7}; // RFC 1071's example
    EXPECT_EQ(zeph::icmp::internet_checksum(rfc, sizeof rfc), 0x220d);
    const uint8_t odd[] = {0x01, 0x00, 0xFF}; // last byte is a high half: 0x0100 + 0xFF00
    EXPECT_EQ(zeph::icmp::internet_checksum(odd, sizeof odd), 0xFFFE);

    // Type, code, checksum, id, seq, stamp, 12 zero bytes, filler 0x3C..0x4F.
    const char* golden = "0800804bbeefffff010203040000000000000000000000003c3d3e3f404142434445464748494a4b4c4d4e4f";
    uint8_t pkt[45];
    std::memset(pkt, 0xAA, sizeof pkt);
    zeph::ByteWriter w(pkt, sizeof pkt);
    ASSERT_TRUE(zeph::icmp::write_echo_request(w, 0xBEEF, 0xFFFF, 0x01020304));
    std::string hex;
    char b[3];
    for (size_t i = 0; i < w.size(); ++i) hex += (std::snprintf(b, sizeof b, "%02x", pkt[i]), b);
    EXPECT_EQ(hex, golden);
    EXPECT_EQ(pkt[44], 0xAA);
}

// What counts as an answer: the echo replies to our own id and sequence
// range, the STUN answers to one of the last ten requests.
TEST(ProbeReplies, IcmpAndStunChecks) {
    auto icmp = std::make_shared<PortDetectICMP>(kLoopback, 443, ZEPH_TRANS_ICMP);
    Access::set_icmp_ids(*icmp, 0x1234, 1000);
    auto echo = [&](const Bytes& d, int len = 0) {
        const int loaded = load(*icmp, d);
        return icmp->is_icmp_response(len ? len : loaded);
    };
    for (uint16_t seq = 1000; seq <= 1006; ++seq) EXPECT_TRUE(echo(icmp_datagram(seq))) << seq;
    EXPECT_FALSE(echo(icmp_datagram(1007)));
    EXPECT_FALSE(echo(icmp_datagram(999)));
    EXPECT_TRUE(echo(icmp_datagram(1003, 0, 0x1234, 6))); // IP options move the head
    EXPECT_FALSE(echo(icmp_datagram(1000, 0, 0x1235)));
    EXPECT_FALSE(echo(icmp_datagram(1000, 8))); // our own request, seen on loopback
    EXPECT_TRUE(echo(icmp_datagram(1001), 32));
    EXPECT_FALSE(echo(icmp_datagram(1001), 31));
    // Near the top of the range later echoes wrap on the wire; the
    // comparison does not wrap, so their replies are refused.
    Access::set_icmp_ids(*icmp, 0x1234, 65533);
    EXPECT_TRUE(echo(icmp_datagram(65535)));
    EXPECT_FALSE(echo(icmp_datagram(1)));

    auto udp = std::make_shared<PortDetectUDP>(kLoopback, 9, ZEPH_TRANS_UDP);
    const uint8_t zero_id[12] = {};
    // Before any request nothing matches, not even the empty id.
    EXPECT_FALSE(udp->is_stun_response(load(*udp, stun_message(zero_id))));
    std::vector<Bytes> ids; // no socket: the requests go nowhere, their ids are kept
    for (int i = 0; i < 11; ++i) {
        udp->stun_request_send();
        ids.emplace_back(Access::trans_id(*udp, i % 10), Access::trans_id(*udp, i % 10) + 12);
    }
    auto answer = [&](const Bytes& id, uint16_t type = 0x0101, uint32_t cookie = zeph::stun::kMagicCookie) {
        return udp->is_stun_response(load(*udp, stun_message(id.data(), type, cookie)));
    };
    EXPECT_FALSE(answer(ids[0])); // eleventh-last
    for (int i = 1; i < 11; ++i) EXPECT_TRUE(answer(ids[i])) << i;
    EXPECT_FALSE(answer(ids[5], 0x0111));
    EXPECT_FALSE(answer(ids[5], 0x0101, 0x2112A443));
    EXPECT_TRUE(answer(ids[5]));
    EXPECT_FALSE(udp->is_stun_response(19)); // too short, though the buffer holds a good answer
}

// Measured in net mode only; direct even when a proxy is set, which is for TCP.
TEST(UdpProbe, ReachesStunServerInBothModes) {
    CoturnServer stun;
    ASSERT_TRUE(stun.start());
    ProxyGuard guard;
    ASSERT_EQ(0, zeph_settings_set_http_proxy("127.0.0.1", closed_tcp_port(), nullptr, nullptr));

    auto port_mode = started<PortDetectUDP>(stun.port(), 0);
    auto net_mode = started<PortDetectUDP>(stun.port(), 1);
    EXPECT_EQ(wait_end(*port_mode, 5000), PROBE_REACHED);
    EXPECT_EQ(port_mode->get_delay(), 0u);
    EXPECT_EQ(wait_end(*net_mode, 5000), PROBE_REACHED);
    EXPECT_GT(net_mode->get_delay(), 0u);
    EXPECT_LT(net_mode->get_delay(), 1000u);
}

// A UDP socket of ours as the peer: silence, a foreign answer, a true one.
TEST(UdpProbe, ScriptedPeerTimeoutsAnswersAndLifetime) {
    LogCapture log;
    UdpSocket peer;
    ASSERT_TRUE(peer.ok());
    uint8_t req[64];

    // 600 ms with 300 ms resends: two requests, then a timeout.
    const uint64_t t0 = now_ms();
    auto probe = started<PortDetectUDP>(peer.port(), 0, 600);
    EXPECT_EQ(wait_end(*probe, 3000), PROBE_TIMEOUT);
    EXPECT_GE(now_ms() - t0, 550u);
    EXPECT_LT(now_ms() - t0, 1500u);
    EXPECT_EQ(peer.recv(req, sizeof req, 100), 20);
    EXPECT_EQ(peer.recv(req, sizeof req, 100), 20);
    EXPECT_EQ(peer.recv(req, sizeof req, 50), -1);
    // A limit below the resend interval: no cycle, timeout at once, nothing sent.
    EXPECT_EQ(wait_end(*started<PortDetectUDP>(peer.port(), 0, 200), 500), PROBE_TIMEOUT);
    EXPECT_EQ(peer.recv(req, sizeof req, 100), -1);
    // No destination port: no socket, no thread, the probe stays idle.
    EXPECT_EQ(started<PortDetectUDP>(0, 0)->get_result(), PROBE_IDLE);

    // An answer with a foreign id is refused and polling goes on.
    probe = started<PortDetectUDP>(peer.port(), 0);
    std::string ip;
    uint16_t port = 0;
    ASSERT_EQ(peer.recv(req, sizeof req, 1000, &ip, &port), 20);
    const Bytes foreign = stun_message(Bytes(12, 0x5A).data()), good = stun_message(req + 8);
    ASSERT_TRUE(peer.send_to(foreign.data(), foreign.size(), ip, port));
    ASSERT_TRUE(log.wait_for("[udp_detect] TransactionID failed", 1000));
    MORL_SleepMs(50);
    EXPECT_EQ(probe->get_result(), PROBE_RUNNING);
    ASSERT_TRUE(peer.send_to(good.data(), good.size(), ip, port));
    EXPECT_EQ(wait_end(*probe, 1000), PROBE_REACHED);

    // A probe dropped by its owner lives while its thread runs and goes as
    // soon as the thread has seen the stop flag.
    std::weak_ptr<PortDetectUDP> weak = started<PortDetectUDP>(peer.port(), 0);
    MORL_SleepMs(100);
    auto alive = weak.lock();
    ASSERT_TRUE(alive);
    EXPECT_EQ(alive->get_result(), PROBE_RUNNING);
    alive->finish();
    EXPECT_EQ(wait_end(*alive, 500), PROBE_TIMEOUT); // a stop reads as timeout for UDP
    alive.reset();
    EXPECT_TRUE(wait_until([&] { return weak.expired(); }, 500));
}

// A closed port fails at once in both modes; through a proxy, the proxy's
// answer to CONNECT decides, in net mode too.
TEST(TcpProbe, ClosedPortAndHttpProxy) {
    const uint16_t closed = closed_tcp_port();
    const uint64_t t0 = now_ms();
    for (uint32_t mode : {0u, 1u}) EXPECT_EQ(wait_end(*started<PortDetectTCP>(closed, mode), 3000), PROBE_FAILED);
    EXPECT_LT(now_ms() - t0, 500u);

    TcpListener listener;
    ASSERT_TRUE(listener.ok());
    TinyProxy allowing, refusing; // the second doesn't allow the listener's port
    ASSERT_TRUE(allowing.start({listener.port()}));
    ASSERT_TRUE(refusing.start({static_cast<uint16_t>(listener.port() ^ 1)}));
    ProxyGuard guard;
    auto via = [&](const TinyProxy& proxy, uint32_t net_mode) {
        EXPECT_EQ(0, zeph_settings_set_http_proxy("127.0.0.1", proxy.port(), nullptr, nullptr));
        auto probe = std::make_shared<PortDetectTCP>(kLoopback, proxy.port(), ZEPH_TRANS_TCP);
        probe->set_use_proxy(1);
        probe->set_proxy_dst(kLoopback, listener.port());
        probe->set_time_out(3000);
        probe->start_probe(net_mode);
        wait_end(*probe, 5000);
        return probe;
    };
    auto ok = via(allowing, 0);
    EXPECT_EQ(ok->get_result(), PROBE_REACHED);
    EXPECT_GT(ok->get_delay(), 0u); // the whole CONNECT exchange
    EXPECT_TRUE(listener.wait_accepts(1, 2000));
    // A plain connect to the proxy would read as reached.
    EXPECT_EQ(via(refusing, 0)->get_result(), PROBE_PROXY_FAILED);
    EXPECT_EQ(via(refusing, 1)->get_result(), PROBE_PROXY_FAILED);
    EXPECT_EQ(listener.accepts(), 1);
}
