// The impairment relay is how detections are checked against a known truth,
// so it has to tell the truth itself: delays, spread and loss as configured,
// the same fate for the same seed, answers routed to the right client.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <map>
#include <set>
#include <vector>

#include "peers.h"
#include "udp_relay.h"

using zeph_relay::Impairment;
using zeph_relay::ImpairmentModel;
using zeph_relay::JitterModel;
using zeph_relay::UdpRelay;
using zeph_relay::UdpRelayConfig;
using zeph_test::UdpSocket;

namespace {

using Clock = std::chrono::steady_clock;

// Wall-clock nanoseconds: the kernel stamps received datagrams with this
// clock, so a late wake-up of the test thread does not count as delay.
int64_t now_ns() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void stamp_on_receipt(int fd) {
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &one, sizeof one);
}

// recvfrom that also gives the kernel's receive time (now when missing).
ssize_t recv_stamped(int fd, void* buf, size_t cap, sockaddr_in* from, socklen_t* fl, int64_t& at_ns) {
    iovec iov{buf, cap};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timespec))];
    msghdr msg{};
    msg.msg_name = from;
    msg.msg_namelen = from ? sizeof *from : 0;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t n = recvmsg(fd, &msg, 0);
    at_ns = now_ns();
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); n >= 0 && c; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
            timespec ts{};
            std::memcpy(&ts, CMSG_DATA(c), sizeof ts);
            at_ns = int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
        }
    }
    if (fl) *fl = msg.msg_namelen;
    return n;
}

// One datagram of the exchange: sequence number, when the client sent it,
// when the server saw it (filled by the server side).
struct Probe {
    uint32_t seq;
    int64_t sent_ns;
    int64_t server_ns;
};

struct Exchange {
    std::map<uint32_t, double> up_ms;   // seq -> client-to-server delay
    std::map<uint32_t, double> down_ms; // seq -> server-to-client delay
    std::vector<uint32_t> server_order; // seqs in the order the server got them
};

// Sends `count` probes from `client` to the relay every `spacing_us`; the
// server socket answers each one back through the relay. Runs on this one
// thread until `quiet_ms` pass without traffic after the last send.
Exchange exchange(UdpSocket& client, UdpSocket& server, uint16_t relay_port, int count, int spacing_us,
                  int quiet_ms = 300) {
    Exchange ex;
    stamp_on_receipt(client.fd());
    stamp_on_receipt(server.fd());
    int sent = 0;
    int64_t next_send = now_ns();
    int64_t last_traffic = now_ns();
    for (;;) {
        const int64_t now = now_ns();
        if (sent == count && now - last_traffic > int64_t(quiet_ms) * 1000000) break;
        if (sent < count && now >= next_send) {
            Probe p{uint32_t(sent), now_ns(), 0};
            client.send_to(&p, sizeof p, "127.0.0.1", relay_port);
            ++sent;
            next_send += int64_t(spacing_us) * 1000;
            last_traffic = now;
            continue;
        }
        pollfd fds[2] = {{server.fd(), POLLIN, 0}, {client.fd(), POLLIN, 0}};
        int64_t wait_ns = sent < count ? next_send - now : 5000000;
        timespec ts{0, long(std::max<int64_t>(0, std::min<int64_t>(wait_ns, 5000000)))};
        if (ppoll(fds, 2, &ts, nullptr) <= 0) continue;
        Probe p{};
        sockaddr_in from{};
        socklen_t fl = sizeof from;
        if (fds[0].revents & POLLIN) {
            if (recv_stamped(server.fd(), &p, sizeof p, &from, &fl, p.server_ns) == sizeof p) {
                ex.up_ms[p.seq] = (p.server_ns - p.sent_ns) / 1e6;
                ex.server_order.push_back(p.seq);
                sendto(server.fd(), &p, sizeof p, 0, reinterpret_cast<sockaddr*>(&from), fl);
                last_traffic = now_ns();
            }
        }
        if (fds[1].revents & POLLIN) {
            int64_t at = 0;
            if (recv_stamped(client.fd(), &p, sizeof p, nullptr, nullptr, at) == sizeof p) {
                last_traffic = at;
                ex.down_ms[p.seq] = (at - p.server_ns) / 1e6;
            }
        }
    }
    return ex;
}

// Quantiles rather than mean and deviation: a loaded machine delays a few
// datagrams by whole scheduling slices, which would drag a mean but leaves
// the middle of the distribution where the relay put it.
struct Summary {
    double min = 0, p25 = 0, median = 0, p75 = 0;
    double iqr() const { return p75 - p25; }
};

Summary summarize(const std::map<uint32_t, double>& m) {
    std::vector<double> v;
    for (auto& kv : m) v.push_back(kv.second);
    std::sort(v.begin(), v.end());
    Summary s;
    if (v.empty()) return s;
    auto q = [&](double f) { return v[size_t(f * double(v.size() - 1))]; };
    s.min = v.front();
    s.p25 = q(0.25);
    s.median = q(0.5);
    s.p75 = q(0.75);
    return s;
}

UdpRelayConfig config_to(uint16_t server_port) {
    UdpRelayConfig c;
    c.server_port = server_port;
    return c;
}

std::set<uint32_t> missing(const std::map<uint32_t, double>& got, int count) {
    std::set<uint32_t> lost;
    for (int i = 0; i < count; ++i)
        if (!got.count(uint32_t(i))) lost.insert(uint32_t(i));
    return lost;
}

} // namespace

// The draws themselves: an error of sign or scale in the jitter, or loss
// applied the wrong way round, shows here without any socket.
TEST(UdpRelayModel, DrawsFollowTheirDistributions) {
    const int n = 200000;
    for (JitterModel m : {JitterModel::Uniform, JitterModel::Normal}) {
        ImpairmentModel model(Impairment{30, 4, 0.25}, m, 7);
        double sum = 0, sq = 0, lo = 1e9, hi = -1e9;
        int kept = 0;
        for (int i = 0; i < n; ++i) {
            double d = 0;
            if (!model.next(d)) continue;
            ++kept;
            sum += d;
            sq += d * d;
            lo = std::min(lo, d);
            hi = std::max(hi, d);
        }
        const double mean = sum / kept, sd = std::sqrt(sq / kept - mean * mean);
        EXPECT_NEAR(double(n - kept) / n, 0.25, 0.01);
        EXPECT_NEAR(mean, 30, 0.1);
        if (m == JitterModel::Uniform) {
            EXPECT_NEAR(sd, 4 / std::sqrt(3.0), 0.05);
            EXPECT_GE(lo, 26);
            EXPECT_LE(hi, 34);
            EXPECT_LT(lo, 26.01); // the whole range is used
            EXPECT_GT(hi, 33.99);
        } else {
            EXPECT_NEAR(sd, 4, 0.05);
            EXPECT_LT(lo, 30 - 4 * 3.5); // tails exist
        }
    }
    // Jitter larger than the delay never yields a negative delay.
    ImpairmentModel wide(Impairment{1, 20, 0}, JitterModel::Normal, 3);
    for (int i = 0; i < 10000; ++i) {
        double d = -1;
        ASSERT_TRUE(wide.next(d));
        ASSERT_GE(d, 0);
    }
}

TEST(UdpRelay, DelaysSpreadAndLossMatchTheConfigurationPerDirection) {
    UdpSocket client, server;
    ASSERT_TRUE(client.ok() && server.ok());
    UdpRelayConfig cfg = config_to(server.port());
    cfg.to_server = Impairment{20, 5, 0.10};
    cfg.to_client = Impairment{10, 0, 0.20};
    cfg.seed = 42;
    UdpRelay relay(cfg);
    std::string error;
    ASSERT_EQ(relay.start(&error), 0) << error;

    const int count = 400;
    Exchange ex = exchange(client, server, relay.port(), count, 1000);
    const auto st = relay.stats();

    // The counters agree exactly with what the ends saw.
    EXPECT_EQ(st.to_server_forwarded + st.to_server_dropped, uint64_t(count));
    EXPECT_EQ(st.to_server_forwarded, ex.up_ms.size());
    EXPECT_EQ(st.to_client_forwarded + st.to_client_dropped, ex.up_ms.size());
    EXPECT_EQ(st.to_client_forwarded, ex.down_ms.size());
    EXPECT_EQ(st.refused, 0u);

    // Loss: 400 draws at 10 % have a standard deviation of 1.5 points.
    EXPECT_NEAR(1.0 - double(ex.up_ms.size()) / count, 0.10, 0.05);
    EXPECT_NEAR(1.0 - double(ex.down_ms.size()) / double(ex.up_ms.size()), 0.20, 0.07);

    // Delays: never early; late only by scheduling (generous upper bounds,
    // other tests share the cores).
    Summary up = summarize(ex.up_ms), down = summarize(ex.down_ms);
    EXPECT_GE(up.min, 15 - 0.2);
    EXPECT_LT(up.min, 16.5) << "the low end of the jitter is used";
    // A busy machine only ever makes the relay late, never early: the
    // bounds above the truth are the wider ones.
    EXPECT_GT(up.median, 20 - 0.7);
    EXPECT_LT(up.median, 20 + 2.0);
    // Uniform +-5 ms has quartiles at 17.5 and 22.5: no jitter gives an IQR
    // near 0, a doubled one 10.
    EXPECT_GT(up.iqr(), 3.8);
    EXPECT_LT(up.iqr(), 7.5);
    EXPECT_GE(down.min, 10 - 0.2);
    EXPECT_GT(down.median, 10 - 0.5);
    EXPECT_LT(down.median, 10 + 2.0);
    // Without jitter the spread is scheduling noise alone (a millisecond or
    // two under a sanitizer); configured jitter of +-5 ms would give 5.
    EXPECT_LT(down.iqr(), 2.5) << "no jitter was configured towards the client";
}

TEST(UdpRelay, SameSeedSameFateOtherSeedOtherFate) {
    auto lost_with_seed = [](uint64_t seed) {
        UdpSocket client, server;
        UdpRelayConfig cfg = config_to(server.port());
        cfg.to_server = Impairment{0, 0, 0.3};
        cfg.to_client = Impairment{0, 0, 0.3};
        cfg.seed = seed;
        UdpRelay relay(cfg);
        EXPECT_EQ(relay.start(), 0);
        Exchange ex = exchange(client, server, relay.port(), 200, 500, 100);
        return std::make_pair(missing(ex.up_ms, 200), missing(ex.down_ms, 200));
    };
    auto a = lost_with_seed(9), b = lost_with_seed(9), c = lost_with_seed(10);
    EXPECT_FALSE(a.first.empty());
    EXPECT_EQ(a.first, b.first);
    EXPECT_EQ(a.second, b.second);
    EXPECT_NE(a.first, c.first);
}

TEST(UdpRelay, JitterReordersUnlessOrderIsKept) {
    auto inversions = [](bool keep_order) {
        UdpSocket client, server;
        UdpRelayConfig cfg = config_to(server.port());
        cfg.to_server = Impairment{5, 4, 0};
        cfg.keep_order = keep_order;
        UdpRelay relay(cfg);
        EXPECT_EQ(relay.start(), 0);
        Exchange ex = exchange(client, server, relay.port(), 200, 300, 100);
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
    UdpRelayConfig cfg = config_to(server.port());
    cfg.max_clients = 2;
    UdpRelay relay(cfg);
    ASSERT_EQ(relay.start(), 0);

    // The server echoes; each client must get back exactly its own words.
    std::thread echo([&] {
        for (int i = 0; i < 4; ++i) {
            char buf[64];
            sockaddr_in from{};
            socklen_t fl = sizeof from;
            pollfd pf{server.fd(), POLLIN, 0};
            if (poll(&pf, 1, 2000) <= 0) return;
            ssize_t n = recvfrom(server.fd(), buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &fl);
            if (n > 0) sendto(server.fd(), buf, size_t(n), 0, reinterpret_cast<sockaddr*>(&from), fl);
        }
    });
    UdpSocket a, b, c;
    a.send_to("alpha-1", 7, "127.0.0.1", relay.port());
    b.send_to("bravo-1", 7, "127.0.0.1", relay.port());
    a.send_to("alpha-2", 7, "127.0.0.1", relay.port());
    b.send_to("bravo-2", 7, "127.0.0.1", relay.port());
    c.send_to("third", 5, "127.0.0.1", relay.port()); // no room for a third client
    auto read_two = [](UdpSocket& s) {
        std::multiset<std::string> got;
        char buf[64];
        for (int i = 0; i < 2; ++i) {
            int n = s.recv(buf, sizeof buf, 2000);
            if (n > 0) got.insert(std::string(buf, size_t(n)));
        }
        return got;
    };
    EXPECT_EQ(read_two(a), (std::multiset<std::string>{"alpha-1", "alpha-2"}));
    EXPECT_EQ(read_two(b), (std::multiset<std::string>{"bravo-1", "bravo-2"}));
    echo.join();
    char buf[16];
    EXPECT_EQ(c.recv(buf, sizeof buf, 100), -1);
    EXPECT_TRUE(zeph_test::wait_until([&] { return relay.stats().refused == 1; }, 1000));
}

TEST(UdpRelay, DestructionDoesNotWaitForHeldBackDatagrams) {
    UdpSocket client, server;
    UdpRelayConfig cfg = config_to(server.port());
    cfg.to_server = Impairment{10000, 0, 0};
    auto relay = std::make_unique<UdpRelay>(cfg);
    ASSERT_EQ(relay->start(), 0);
    client.send_to("late", 4, "127.0.0.1", relay->port());
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto t0 = Clock::now();
    relay.reset();
    EXPECT_LT(Clock::now() - t0, std::chrono::milliseconds(500));
    char buf[8];
    EXPECT_EQ(server.recv(buf, sizeof buf, 50), -1);
}

// The program wraps the same relay: it reports where it listens, forwards,
// and prints its counters when told to stop.
TEST(UdpRelayProgram, ForwardsAndReportsCountersOnSigterm) {
    UdpSocket client, server;
    zeph_test::Process proc;
    ASSERT_TRUE(proc.start({zeph_test::tool_path("zeph-udp-relay"), "--server",
                            "127.0.0.1:" + std::to_string(server.port()), "--delay", "5,1", "--loss", "0,0",
                            "--seed", "3"}))
        << proc.error();
    uint16_t port = 0;
    ASSERT_TRUE(zeph_test::wait_until(
        [&] { return std::sscanf(proc.stdout_text().c_str(), "listening on 127.0.0.1:%hu", &port) == 1; }, 5000))
        << proc.stderr_text();
    client.send_to("ping", 4, "127.0.0.1", port);
    char buf[16];
    std::string from_ip;
    uint16_t from_port = 0;
    ASSERT_EQ(server.recv(buf, sizeof buf, 2000, &from_ip, &from_port), 4);
    server.send_to("pong", 4, from_ip, from_port);
    ASSERT_EQ(client.recv(buf, sizeof buf, 2000), 4);
    EXPECT_EQ(std::string(buf, 4), "pong");
    int status = proc.stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_NE(proc.stdout_text().find("to server: forwarded 1 dropped 0; to client: forwarded 1 dropped 0"),
              std::string::npos)
        << proc.stdout_text();

    // Bad arguments: one line on stderr and status 2.
    zeph_test::Process bad;
    ASSERT_TRUE(bad.start({zeph_test::tool_path("zeph-udp-relay"), "--server", "127.0.0.1:1", "--loss", "150"}));
    ASSERT_TRUE(zeph_test::wait_until([&] { return !bad.running(); }, 5000));
    status = bad.stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2);
    const std::string bad_err = bad.stderr_text();
    EXPECT_EQ(std::count(bad_err.begin(), bad_err.end(), '\n'), 1) << bad_err;
}
