// Port probes against real peers on loopback (coturn, tinyproxy, TCP
// listeners, a scripted UDP peer, the kernel's echo replies), and the wire
// checks that decide what counts as an answer.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
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

Bytes stun_message(uint16_t type, uint32_t cookie, const uint8_t* txid) {
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
Bytes icmp_datagram(uint8_t ihl, uint8_t type, uint16_t id, uint16_t seq) {
    Bytes out(ihl * 4u + zeph::icmp::kEchoRequestSize, 0);
    out[0] = uint8_t(0x40 | ihl);
    zeph::ByteWriter w(out.data() + ihl * 4u, zeph::icmp::kEchoRequestSize);
    zeph::icmp::write_echo_request(w, id, seq, 1234);
    out[ihl * 4u] = type;
    return out;
}

} // namespace

// ---- wire checks ----------------------------------------------------------------------

TEST(IcmpWire, ChecksumAndEchoLayout) {
    const uint8_t rfc[] = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7}; // RFC 1071's example
    EXPECT_EQ(zeph::icmp::internet_checksum(rfc, sizeof rfc), 0x220d);
    const uint8_t odd[] = {0x01, 0x00, 0xFF}; // last byte is a high half: 0x0100 + 0xFF00
    EXPECT_EQ(zeph::icmp::internet_checksum(odd, sizeof odd), 0xFFFE);

    uint8_t pkt[48];
    std::memset(pkt, 0xAA, sizeof pkt);
    zeph::ByteWriter w(pkt, sizeof pkt);
    ASSERT_TRUE(zeph::icmp::write_echo_request(w, 0xBEEF, 0xFFFF, 0x01020304));
    ASSERT_EQ(w.size(), 44u);
    const uint8_t head[] = {8, 0, pkt[2], pkt[3], 0xBE, 0xEF, 0xFF, 0xFF, 1, 2, 3, 4};
    EXPECT_EQ(0, std::memcmp(pkt, head, sizeof head));
    for (int i = 12; i < 24; ++i) EXPECT_EQ(pkt[i], 0) << i;
    for (int i = 24; i < 44; ++i) EXPECT_EQ(pkt[i], 0x3C + (i - 24)) << i;
    EXPECT_EQ(pkt[44], 0xAA);
    EXPECT_EQ(zeph::icmp::internet_checksum(pkt, 44), 0); // carries its own checksum
}

TEST(IcmpProbe, ReplyChecks) {
    LogCapture log;
    auto probe = std::make_shared<PortDetectICMP>(kLoopback, 443, ZEPH_TRANS_ICMP);
    Access::set_icmp_ids(*probe, 0x1234, 1000);
    auto check = [&](const Bytes& d, int len = 0) {
        const int loaded = load(*probe, d);
        return probe->is_icmp_response(len ? len : loaded);
    };

    for (uint16_t seq = 1000; seq <= 1006; ++seq) EXPECT_TRUE(check(icmp_datagram(5, 0, 0x1234, seq))) << seq;
    EXPECT_FALSE(check(icmp_datagram(5, 0, 0x1234, 1007)));
    EXPECT_FALSE(check(icmp_datagram(5, 0, 0x1234, 999)));
    EXPECT_TRUE(check(icmp_datagram(6, 0, 0x1234, 1003))); // IP options move the head
    EXPECT_FALSE(check(icmp_datagram(5, 0, 0x1235, 1000)));
    EXPECT_FALSE(check(icmp_datagram(5, 8, 0x1234, 1000))); // our own request, seen on loopback
    EXPECT_TRUE(log.contains("[icmp_detect] pkt_type is invalid(8)"));
    EXPECT_TRUE(check(icmp_datagram(5, 0, 0x1234, 1001), 32));
    EXPECT_FALSE(check(icmp_datagram(5, 0, 0x1234, 1001), 31));
    EXPECT_TRUE(log.contains("[icmp_detect] pkt_len is small(31)"));

    // Near the top of the range later echoes wrap on the wire; the
    // comparison does not wrap, so their replies are refused.
    Access::set_icmp_ids(*probe, 0x1234, 65533);
    EXPECT_TRUE(check(icmp_datagram(5, 0, 0x1234, 65535)));
    EXPECT_FALSE(check(icmp_datagram(5, 0, 0x1234, 1)));
    EXPECT_TRUE(log.contains("[icmp_detect] seq_no is invalid(1!=65533)")) << log.dump();
}

TEST(UdpProbe, ReplyChecks) {
    LogCapture log;
    auto probe = std::make_shared<PortDetectUDP>(kLoopback, 9, ZEPH_TRANS_UDP);
    const uint8_t zero_id[12] = {};
    // Before any request nothing matches, not even the empty id.
    EXPECT_FALSE(probe->is_stun_response(load(*probe, stun_message(0x0101, zeph::stun::kMagicCookie, zero_id))));

    std::vector<Bytes> ids; // no socket: the requests go nowhere, their ids are kept
    for (int i = 0; i < 11; ++i) {
        probe->stun_request_send();
        const uint8_t* id = Access::trans_id(*probe, i % 10);
        ids.emplace_back(id, id + 12);
        EXPECT_EQ(Bytes(Access::buf(*probe), Access::buf(*probe) + 20),
                  stun_message(0x0001, zeph::stun::kMagicCookie, id));
    }
    auto answer = [&](uint16_t type, uint32_t cookie, const Bytes& id) {
        return probe->is_stun_response(load(*probe, stun_message(type, cookie, id.data())));
    };
    EXPECT_FALSE(answer(0x0101, zeph::stun::kMagicCookie, ids[0])); // eleventh-last
    for (int i = 1; i < 11; ++i) EXPECT_TRUE(answer(0x0101, zeph::stun::kMagicCookie, ids[i])) << i;

    EXPECT_FALSE(answer(0x0111, zeph::stun::kMagicCookie, ids[5]));
    EXPECT_TRUE(log.contains("[udp_detect] BindResponse failed:111!=101")) << log.dump();
    EXPECT_FALSE(answer(0x0101, 0x2112A443, ids[5]));
    EXPECT_TRUE(log.contains("[udp_detect] Cookie failed:2112A443!=2112A442")) << log.dump();
    // Too short for a header, though the buffer still holds a good answer.
    EXPECT_TRUE(answer(0x0101, zeph::stun::kMagicCookie, ids[5]));
    EXPECT_FALSE(probe->is_stun_response(19));
    EXPECT_TRUE(log.contains("[udp_detect] pkt_len is small(19)"));
}

// ---- UDP ----------------------------------------------------------------------------

TEST(UdpProbe, ReachesStunServerInBothModes) {
    CoturnServer stun;
    ASSERT_TRUE(stun.start());
    // A configured proxy is for TCP only: UDP goes direct.
    ProxyGuard guard;
    ASSERT_EQ(0, zeph_settings_set_http_proxy("127.0.0.1", closed_tcp_port(), nullptr, nullptr));

    auto port_mode = started<PortDetectUDP>(stun.port(), 0);
    auto net_mode = started<PortDetectUDP>(stun.port(), 1);
    EXPECT_EQ(wait_end(*port_mode, 5000), PROBE_REACHED);
    EXPECT_EQ(port_mode->get_delay(), 0u); // port mode measures nothing
    EXPECT_EQ(wait_end(*net_mode, 5000), PROBE_REACHED);
    EXPECT_GT(net_mode->get_delay(), 0u);
    EXPECT_LT(net_mode->get_delay(), 1000u);
}

TEST(UdpProbe, SilentPortTimesOutWithinLimits) {
    UdpSocket silent;
    ASSERT_TRUE(silent.ok());
    uint8_t buf[64];

    // 600 ms with 300 ms resends: two requests, then a timeout.
    const uint64_t t0 = now_ms();
    auto probe = started<PortDetectUDP>(silent.port(), 0, 600);
    EXPECT_EQ(wait_end(*probe, 3000), PROBE_TIMEOUT);
    EXPECT_GE(now_ms() - t0, 550u);
    EXPECT_LT(now_ms() - t0, 1500u);
    EXPECT_EQ(silent.recv(buf, sizeof buf, 100), 20);
    EXPECT_EQ(silent.recv(buf, sizeof buf, 100), 20);
    EXPECT_EQ(silent.recv(buf, sizeof buf, 50), -1);

    // A limit below the resend interval: no cycle, timeout at once, nothing sent.
    auto short_probe = started<PortDetectUDP>(silent.port(), 0, 200);
    EXPECT_EQ(wait_end(*short_probe, 500), PROBE_TIMEOUT);
    EXPECT_EQ(silent.recv(buf, sizeof buf, 100), -1);

    // No destination port: no socket, no thread, the probe stays idle.
    EXPECT_EQ(started<PortDetectUDP>(0, 0)->get_result(), PROBE_IDLE);
}

// A scripted peer lets three requests go by, answers with a foreign id
// (refused, polling goes on), then answers the first request.
TEST(UdpProbe, OldRequestAcceptedForeignIdRefused) {
    LogCapture log;
    UdpSocket peer;
    ASSERT_TRUE(peer.ok());
    auto probe = started<PortDetectUDP>(peer.port(), 0);

    uint8_t req[64];
    std::string ip;
    uint16_t port = 0;
    Bytes first_id;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(peer.recv(req, sizeof req, 1000, &ip, &port), 20) << i;
        if (i == 0) first_id.assign(req + 8, req + 20);
    }
    const Bytes foreign(12, 0x5A);
    const Bytes bad = stun_message(0x0101, zeph::stun::kMagicCookie, foreign.data());
    ASSERT_TRUE(peer.send_to(bad.data(), bad.size(), ip, port));
    ASSERT_TRUE(log.wait_for("[udp_detect] TransactionID failed", 1000));
    MORL_SleepMs(50);
    EXPECT_EQ(probe->get_result(), PROBE_RUNNING);

    const Bytes good = stun_message(0x0101, zeph::stun::kMagicCookie, first_id.data());
    ASSERT_TRUE(peer.send_to(good.data(), good.size(), ip, port));
    EXPECT_EQ(wait_end(*probe, 1000), PROBE_REACHED);
}

// ---- TCP ----------------------------------------------------------------------------

TEST(TcpProbe, ListenerReachedClosedPortFailsAtOnce) {
    TcpListener listener;
    ASSERT_TRUE(listener.ok());
    const uint16_t closed = closed_tcp_port();

    const uint64_t t0 = now_ms();
    auto closed_port = started<PortDetectTCP>(closed, 0);
    auto closed_net = started<PortDetectTCP>(closed, 1);
    EXPECT_EQ(wait_end(*closed_port, 3000), PROBE_FAILED);
    EXPECT_EQ(wait_end(*closed_net, 3000), PROBE_FAILED);
    EXPECT_LT(now_ms() - t0, 500u);

    auto open_port = started<PortDetectTCP>(listener.port(), 0);
    auto open_net = started<PortDetectTCP>(listener.port(), 1);
    EXPECT_EQ(wait_end(*open_port, 3000), PROBE_REACHED);
    EXPECT_EQ(open_port->get_delay(), 0u);
    EXPECT_EQ(wait_end(*open_net, 3000), PROBE_REACHED);
    EXPECT_GT(open_net->get_delay(), 0u);
}

TEST(TcpProbe, ThroughHttpProxy) {
    TcpListener listener;
    ASSERT_TRUE(listener.ok());
    TinyProxy allowing, refusing; // the second doesn't allow the listener's port
    ASSERT_TRUE(allowing.start({listener.port()}));
    ASSERT_TRUE(refusing.start({static_cast<uint16_t>(listener.port() ^ 1)}));
    ProxyGuard guard;

    auto via = [&](const TinyProxy& proxy, uint32_t net_mode) {
        auto probe = std::make_shared<PortDetectTCP>(kLoopback, proxy.port(), ZEPH_TRANS_TCP);
        probe->set_use_proxy(1);
        probe->set_proxy_dst(kLoopback, listener.port());
        probe->set_time_out(3000);
        probe->start_probe(net_mode);
        return probe;
    };
    ASSERT_EQ(0, zeph_settings_set_http_proxy("127.0.0.1", allowing.port(), nullptr, nullptr));
    auto ok = via(allowing, 0);
    EXPECT_EQ(wait_end(*ok, 5000), PROBE_REACHED);
    EXPECT_GT(ok->get_delay(), 0u); // the whole CONNECT exchange
    EXPECT_TRUE(listener.wait_accepts(1, 2000));

    // Net mode takes the proxy path too: a plain connect to the proxy would
    // read as reached.
    ASSERT_EQ(0, zeph_settings_set_http_proxy("127.0.0.1", refusing.port(), nullptr, nullptr));
    auto refused = via(refusing, 0);
    auto refused_net = via(refusing, 1);
    EXPECT_EQ(wait_end(*refused, 5000), PROBE_PROXY_FAILED);
    EXPECT_EQ(wait_end(*refused_net, 5000), PROBE_PROXY_FAILED);
    EXPECT_EQ(listener.accepts(), 1);
}

// ---- ICMP ---------------------------------------------------------------------------

TEST(IcmpProbe, EchoesToLoopbackFillProbeAndSlots) {
    const int raw = ::socket(AF_INET, SOCK_RAW, 1);
    if (raw < 0) GTEST_SKIP() << "raw ICMP sockets are not permitted here: " << std::strerror(errno);
    ::close(raw);

    auto probe = std::make_shared<PortDetectICMP>(kLoopback, 443, ZEPH_TRANS_ICMP);
    probe->start_probe(0);
    ASSERT_TRUE(wait_until(
        [&] {
            for (int i = 0; i < 6; ++i)
                if (probe->get_probe(i)->get_result() != PROBE_REACHED) return false;
            return true;
        },
        3000));
    for (int i = 0; i < 6; ++i) {
        EXPECT_GT(probe->get_probe(i)->get_delay(), 0u) << i;
        EXPECT_LT(probe->get_probe(i)->get_delay(), 500u) << i;
    }
}

// ---- lifetime -------------------------------------------------------------------------

// A probe dropped by its owner lives while its thread runs and goes as soon
// as the thread has seen the stop flag.
TEST(ProbeLifetime, ThreadKeepsProbeUntilItLeaves) {
    UdpSocket silent;
    ASSERT_TRUE(silent.ok());
    std::weak_ptr<PortDetectUDP> weak = started<PortDetectUDP>(silent.port(), 0);
    MORL_SleepMs(100);
    auto alive = weak.lock();
    ASSERT_TRUE(alive);
    EXPECT_EQ(alive->get_result(), PROBE_RUNNING);
    alive->finish();
    EXPECT_EQ(wait_end(*alive, 500), PROBE_TIMEOUT); // a stop reads as timeout for UDP
    alive.reset();
    EXPECT_TRUE(wait_until([&] { return weak.expired(); }, 500));
}
