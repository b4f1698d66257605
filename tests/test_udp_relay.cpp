// The impairment relay, the known truth of the detections' checks: delays,
// spread and loss as configured, fate by seed, answers to the right client.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "peers.h"
#include "udp_relay.h"

using namespace zeph_relay;
using zeph_test::UdpSocket;

namespace {

// Wall-clock ns, the kernel's receive stamp clock: a late wake-up of the test is no delay.
int64_t ns_of(const timespec& ts) { return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec; }
int64_t now_ns() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return ns_of(ts);
}

// One datagram: sequence number, when the client sent it, when the server saw it.
struct Probe {
    uint32_t seq;
    int64_t sent_ns, server_ns;
};

// Receives one probe with the kernel's receive time in at_ns (now when missing).
bool recv_stamped(int fd, Probe& p, int64_t& at_ns, sockaddr_in* from = nullptr, socklen_t* fl = nullptr) {
    iovec iov{&p, sizeof p};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timespec))];
    msghdr msg{};
    msg.msg_name = from, msg.msg_namelen = from ? sizeof *from : 0;
    msg.msg_iov = &iov, msg.msg_iovlen = 1;
    msg.msg_control = control, msg.msg_controllen = sizeof control;
    const ssize_t n = recvmsg(fd, &msg, 0);
    at_ns = now_ns();
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); n >= 0 && c; c = CMSG_NXTHDR(&msg, c)) {
        timespec ts{};
        std::memcpy(&ts, CMSG_DATA(c), sizeof ts);
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) at_ns = ns_of(ts);
    }
    if (fl) *fl = msg.msg_namelen;
    return n == sizeof p;
}

struct Exchange {
    std::map<uint32_t, double> up_ms, down_ms; // seq -> client-to-server, server-to-client delay
    std::vector<uint32_t> server_order;        // seqs in the order the server got them
};

std::set<uint32_t> seqs(const std::map<uint32_t, double>& m) {
    std::set<uint32_t> s;
    for (auto& kv : m) s.insert(kv.first);
    return s;
}

// A client and a server socket with a relay between them.
struct Rig {
    UdpSocket client, server;
    std::unique_ptr<UdpRelay> relay;

    explicit Rig(Impairment up, Impairment down = {}, uint64_t seed = 1, bool keep_order = false) {
        UdpRelayConfig cfg;
        cfg.server_port = server.port();
        cfg.to_server = up, cfg.to_client = down, cfg.seed = seed, cfg.keep_order = keep_order;
        relay = std::make_unique<UdpRelay>(cfg);
        std::string error;
        EXPECT_EQ(relay->start(&error), 0) << error;
        const int one = 1;
        for (int fd : {client.fd(), server.fd()}) setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &one, sizeof one);
    }

    // Sends `count` probes every `spacing_us`, echoed back, until `quiet_ms` pass quietly.
    Exchange exchange(int count, int spacing_us, int quiet_ms = 100) {
        Exchange ex;
        int sent = 0;
        int64_t next_send = now_ns(), last_traffic = next_send;
        for (;;) {
            const int64_t now = now_ns();
            if (sent == count && now - last_traffic > int64_t(quiet_ms) * 1000000) break;
            if (sent < count && now >= next_send) {
                Probe p{uint32_t(sent++), now_ns(), 0};
                client.send_to(&p, sizeof p, "127.0.0.1", relay->port());
                next_send += int64_t(spacing_us) * 1000;
                last_traffic = now;
                continue;
            }
            pollfd fds[2] = {{server.fd(), POLLIN, 0}, {client.fd(), POLLIN, 0}};
            const int64_t wait_ns = sent < count ? next_send - now : 5000000;
            timespec ts{0, long(std::max<int64_t>(0, std::min<int64_t>(wait_ns, 5000000)))};
            if (ppoll(fds, 2, &ts, nullptr) <= 0) continue;
            Probe p{};
            sockaddr_in from{};
            socklen_t fl = sizeof from;
            if ((fds[0].revents & POLLIN) && recv_stamped(server.fd(), p, p.server_ns, &from, &fl)) {
                ex.up_ms[p.seq] = (p.server_ns - p.sent_ns) / 1e6;
                ex.server_order.push_back(p.seq);
                sendto(server.fd(), &p, sizeof p, 0, reinterpret_cast<sockaddr*>(&from), fl);
                last_traffic = now_ns();
            }
            int64_t at = 0;
            if ((fds[1].revents & POLLIN) && recv_stamped(client.fd(), p, at)) {
                last_traffic = at;
                ex.down_ms[p.seq] = (at - p.server_ns) / 1e6;
            }
        }
        return ex;
    }
};

// Quantiles, not a mean: a loaded machine's late few drag a mean but not the middle.
struct Summary {
    double min = 0, p25 = 0, median = 0, p75 = 0;
    double iqr() const { return p75 - p25; }
};

Summary summarize(const std::map<uint32_t, double>& m) {
    std::vector<double> v;
    for (auto& kv : m) v.push_back(kv.second);
    std::sort(v.begin(), v.end());
    if (v.empty()) return {};
    auto q = [&](double f) { return v[size_t(f * double(v.size() - 1))]; };
    return {v.front(), q(0.25), q(0.5), q(0.75)};
}

} // namespace

// The normal model's draws (the uniform one is measured on the wire below).
TEST(UdpRelayModel, NormalDrawsFollowTheirDistribution) {
    const int n = 200000;
    ImpairmentModel model(Impairment{30, 4, 0.25}, JitterModel::Normal, 7);
    double sum = 0, sq = 0, lo = 1e9, d = 0;
    int kept = 0;
    for (int i = 0; i < n; ++i) {
        if (!model.next(d)) continue;
        ++kept;
        sum += d;
        sq += d * d;
        lo = std::min(lo, d);
    }
    const double mean = sum / kept, sd = std::sqrt(sq / kept - mean * mean);
    EXPECT_TRUE(std::fabs(double(n - kept) / n - 0.25) < 0.01 && std::fabs(mean - 30) < 0.1) << kept << " " << mean;
    EXPECT_TRUE(std::fabs(sd - 4) < 0.05 && lo < 30 - 4 * 3.5) << sd << " " << lo << ": tails exist";
    ImpairmentModel wide(Impairment{1, 20, 0}, JitterModel::Normal, 3);
    for (int i = 0; i < 10000; ++i) ASSERT_TRUE(wide.next(d) && d >= 0) << d;
}

TEST(UdpRelay, DelaysSpreadAndLossMatchTheConfigurationPerDirection) {
    Rig rig(Impairment{20, 5, 0.10}, Impairment{10, 0, 0.20}, 42);
    const int count = 400;
    Exchange ex = rig.exchange(count, 1000, 300);
    const auto st = rig.relay->stats();

    // The counters agree exactly with what the ends saw.
    EXPECT_TRUE(st.to_server_forwarded + st.to_server_dropped == uint64_t(count) &&
                st.to_server_forwarded == ex.up_ms.size() && st.to_client_forwarded == ex.down_ms.size() &&
                st.to_client_forwarded + st.to_client_dropped == ex.up_ms.size());
    // Loss: 400 draws at 10 % have a standard deviation of 1.5 points.
    EXPECT_NEAR(1.0 - double(ex.up_ms.size()) / count, 0.10, 0.05);
    EXPECT_NEAR(1.0 - double(ex.down_ms.size()) / double(ex.up_ms.size()), 0.20, 0.07);

    // Delays: never early; late only by scheduling, so the bounds above the truth are wider.
    Summary up = summarize(ex.up_ms), down = summarize(ex.down_ms);
    EXPECT_TRUE(up.min >= 15 - 0.2 && up.min < 16.5) << up.min << ": the low end of the jitter is used";
    EXPECT_TRUE(up.median > 20 - 0.7 && up.median < 20 + 2.0) << up.median;
    // Uniform +-5 ms: IQR 5 (none gives 0, doubled 10).
    EXPECT_TRUE(up.iqr() > 3.8 && up.iqr() < 7.5) << up.iqr();
    EXPECT_TRUE(down.min >= 10 - 0.2 && down.median > 10 - 0.5 && down.median < 10 + 2.0) << down.min << " " << down.median;
    // Without jitter the spread is scheduling noise (1-2 ms under a sanitizer); +-5 ms would give 5.
    EXPECT_LT(down.iqr(), 2.5) << "no jitter was configured towards the client";
}

TEST(UdpRelay, SeedFixesTheFateAndJitterReordersUnlessOrderIsKept) {
    auto lossy = [](uint64_t seed) { return Rig({0, 0, 0.3}, {0, 0, 0.3}, seed).exchange(200, 500); };
    const Exchange a = lossy(9), b = lossy(9), c = lossy(10);
    EXPECT_LT(a.up_ms.size(), 200u);
    EXPECT_EQ(seqs(a.up_ms), seqs(b.up_ms));
    EXPECT_EQ(seqs(a.down_ms), seqs(b.down_ms));
    EXPECT_NE(seqs(a.up_ms), seqs(c.up_ms));

    auto inversions = [](bool keep_order) {
        const Exchange ex = Rig({5, 4, 0}, {}, 1, keep_order).exchange(200, 300);
        EXPECT_EQ(ex.server_order.size(), 200u);
        int inv = 0;
        for (size_t i = 1; i < ex.server_order.size(); ++i) inv += ex.server_order[i] < ex.server_order[i - 1];
        return inv;
    };
    EXPECT_GT(inversions(false), 10);
    EXPECT_EQ(inversions(true), 0);
}

TEST(UdpRelay, AnswersReachTheirOwnClientAndTheTableIsBounded) {
    UdpSocket server;
    UdpRelayConfig cfg;
    cfg.server_port = server.port();
    cfg.max_clients = 2;
    UdpRelay relay(cfg);
    ASSERT_EQ(relay.start(), 0);

    UdpSocket a, b, c;
    auto word = [&](UdpSocket* s) { return s == &a ? "alpha" : s == &b ? "bravo" : "third"; };
    for (auto* s : {&a, &b, &a, &b, &c}) s->send_to(word(s), 5, "127.0.0.1", relay.port());
    // Echoed: each client gets exactly its own words, the third nothing (no room for it).
    char buf[64];
    for (int i = 0; i < 4; ++i) {
        std::string ip;
        uint16_t port = 0;
        const int n = server.recv(buf, sizeof buf, 2000, &ip, &port);
        ASSERT_EQ(n, 5) << i;
        server.send_to(buf, size_t(n), ip, port);
    }
    for (auto* s : {&a, &a, &b, &b}) {
        ASSERT_EQ(s->recv(buf, sizeof buf, 2000), 5);
        EXPECT_EQ(std::string(buf, 5), word(s));
    }
    EXPECT_EQ(c.recv(buf, sizeof buf, 100), -1);
    EXPECT_EQ(server.recv(buf, sizeof buf, 50), -1);
    EXPECT_TRUE(zeph_test::wait_until([&] { return relay.stats().refused == 1; }, 1000));
}
