// How true are the net detections? zeph_single_net_detect runs over paths
// whose delay and loss are known, and each row prints the truth beside what
// the detection reported: the mean and the worst error of the reported
// average delay, and the discard beside the loss the path really caused.
//
// Two kinds of path:
//  - relay: UDP (protocol 2) through the impairment relay on loopback, to a
//    STUN responder; the truth is the configured delay, and the loss the
//    relay's counters.
//  - wire: UDP, TCP (1) and ICMP (11) through the delaying wire between two
//    network namespaces, to a STUN responder, a TCP acceptor and the kernel
//    of side B. The wire logs every packet, so the truth of each run is the
//    mean round trip of the requests the detection sent in that run. A plain
//    client (a blocking connect, a raw echo, one STUN request) crosses the
//    same path once per run; its error against the wire's log shows what
//    the path itself adds. The wire needs root; without it these rows are
//    skipped with a one-line reason.
//
// The bench's own work runs on the main thread, which moves into side A of
// the wire before the library starts; the wire owns its shuttle thread, and
// the library's threads hand their results over through the inbox.
//
//   bench_net_truth [--runs N]      (default 5 runs per row)
#include <zeph_nettools/net_tools.h>
#include <zeph_nettools/settings.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "loopback_peers.h"
#include "tun_wire.h"
#include "udp_relay.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDefaultRuns = 5;
constexpr int kResultWaitS = 20;
constexpr int kPlainTimeoutMs = 3000;
constexpr uint64_t kSeed = 2024;
constexpr uint16_t kIcmpPort = 443; // never on the wire, only non-zero
constexpr uint16_t kPlainEchoId = 0x7B3E;
constexpr uint8_t kIpTcp = 6, kIpUdp = 17, kIpIcmp = 1;

struct Inbox {
    std::mutex mu;
    std::condition_variable cv;
    std::deque<NetDetectResult> results;
};

Inbox& inbox() {
    static Inbox& box = *new Inbox; // library threads may call late
    return box;
}

void on_result(NetDetectResult* r) {
    Inbox& box = inbox();
    {
        std::lock_guard<std::mutex> lock(box.mu);
        box.results.push_back(*r);
    }
    box.cv.notify_all();
}

bool wait_result(uint32_t num, NetDetectResult& out, int timeout_s) {
    Inbox& box = inbox();
    std::unique_lock<std::mutex> lock(box.mu);
    const auto deadline = Clock::now() + std::chrono::seconds(timeout_s);
    for (;;) {
        for (auto it = box.results.begin(); it != box.results.end(); ++it) {
            if (it->num == num) {
                out = *it;
                box.results.erase(it);
                return true;
            }
        }
        if (box.cv.wait_until(lock, deadline) == std::cv_status::timeout) return false;
    }
}

void quiet_sink(void*, int, const char*, const char*, const char*, int, const char*) {}

const char* trans_name(uint8_t trans) {
    switch (trans) {
    case ZEPH_TRANS_TCP: return "TCP";
    case ZEPH_TRANS_ICMP: return "ICMP";
    default: return "UDP";
    }
}

uint8_t ip_proto_of(uint8_t trans) {
    switch (trans) {
    case ZEPH_TRANS_TCP: return kIpTcp;
    case ZEPH_TRANS_ICMP: return kIpIcmp;
    default: return kIpUdp;
    }
}

enum class Path { Direct, Relay, Wire };

struct Row {
    const char* name;
    Path path;
    uint8_t trans;
    double one_way_ms, jitter_ms, round_trip_loss;
};

// What one row gathered over its runs.
struct Tally {
    int failed = 0;
    std::vector<double> truths;    // per run with an answer
    std::vector<double> reported;  // the detection's average, same runs
    std::vector<double> plain_err; // plain client against the wire's log
    double discard_sum = 0, lost_sum = 0;
    int judged = 0; // runs whose discard and loss are summed

    void add(double truth, double avg) {
        truths.push_back(truth);
        reported.push_back(avg);
    }
};

double mean_of(const std::vector<double>& v) {
    double s = 0;
    for (double x : v) s += x;
    return v.empty() ? NAN : s / double(v.size());
}

// The error of largest magnitude, with its sign.
double worst_of(const std::vector<double>& v) {
    double w = 0;
    for (double x : v)
        if (std::fabs(x) > std::fabs(w)) w = x;
    return v.empty() ? NAN : w;
}

void print_header(int runs) {
    std::printf("Single net detections, %d runs per row; delays in ms, one-way delay +- uniform jitter per direction,\n"
                "loss split evenly over both directions. err = reported average - truth, per run; worst = the\n"
                "largest |err|. plain = a plain client's error against the wire's log (the path's own cost).\n"
                "relay rows: truth is the configured delay; wire rows: the round trips the wire logged in the run.\n"
                "lost = requests of the run left unanswered; discard is whole percent per run (1 lost in 6 = 16).\n\n",
                runs);
    std::printf("%-34s %-5s %8s %7s %6s %8s %7s %7s %6s %8s %6s\n", "row", "proto", "set rtt", "truth", "plain",
                "reported", "err", "worst", "lost%", "discard%", "failed");
}

void print_row(const Row& row, const Tally& t) {
    char set[32];
    std::snprintf(set, sizeof set, row.jitter_ms > 0 ? "%.0f+-%.0f" : "%.0f", 2 * row.one_way_ms, 2 * row.jitter_ms);
    std::vector<double> errs;
    for (size_t i = 0; i < t.truths.size(); ++i) errs.push_back(t.reported[i] - t.truths[i]);
    char plain[16] = "-";
    if (!t.plain_err.empty()) std::snprintf(plain, sizeof plain, "%+.2f", mean_of(t.plain_err));
    const double n = t.judged ? double(t.judged) : NAN;
    std::printf("%-34s %-5s %8s %7.2f %6s %8.2f %+7.2f %+7.2f %6.1f %8.1f %6d\n", row.name, trans_name(row.trans), set,
                mean_of(t.truths), plain, mean_of(t.reported), mean_of(errs), worst_of(errs), t.lost_sum / n,
                t.discard_sum / n, t.failed);
    std::fflush(stdout);
}

zeph_relay::Impairment per_direction(const Row& row) {
    return zeph_relay::Impairment{row.one_way_ms, row.jitter_ms, 1 - std::sqrt(1 - row.round_trip_loss)};
}

// Runs one detection and returns its result; false when none came.
bool detect(uint32_t num, const char* addr, uint16_t port, uint8_t trans, NetDetectResult& res) {
    return zeph_single_net_detect(num, addr, port, trans, on_result) == 0 && wait_result(num, res, kResultWaitS);
}

// The detection's requests of one protocol in a wire log: their mean truth
// over the answered ones, and the share that went unanswered.
bool truth_of(const std::vector<zeph_wire::WireRecord>& log, uint8_t proto, double& truth, double& lost_pct) {
    int asked = 0, answered = 0;
    double sum = 0;
    for (const auto& rt : zeph_wire::round_trips(log)) {
        if (rt.proto != proto) continue;
        ++asked;
        if (rt.answered) {
            ++answered;
            sum += rt.truth_ms;
        }
    }
    if (asked == 0) return false;
    lost_pct = 100.0 * (asked - answered) / asked;
    truth = answered ? sum / answered : NAN;
    return true;
}

struct WireServers {
    zeph_peers::StunResponder stun;
    zeph_peers::TcpAcceptor tcp;
};

// The plain client's round trip through the wire, and its error against
// the wire's log of that same exchange.
void plain_check(zeph_wire::TunWire& wire, const WireServers& srv, uint8_t trans, uint16_t seq, Tally& t) {
    wire.take_log();
    double measured = -1;
    switch (trans) {
    case ZEPH_TRANS_TCP: measured = zeph_wire::plain_connect_ms(zeph_wire::kAddrB, srv.tcp.port(), kPlainTimeoutMs); break;
    case ZEPH_TRANS_ICMP: measured = zeph_wire::plain_echo_ms(zeph_wire::kAddrB, kPlainEchoId, seq, kPlainTimeoutMs); break;
    default: measured = zeph_wire::plain_stun_ms(zeph_wire::kAddrB, srv.stun.port(), kPlainTimeoutMs); break;
    }
    double truth = 0, lost = 0;
    if (measured >= 0 && truth_of(wire.take_log(), ip_proto_of(trans), truth, lost) && lost == 0)
        t.plain_err.push_back(measured - truth);
}

} // namespace

int main(int argc, char** argv) {
    int runs = kDefaultRuns;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--runs") && i + 1 < argc) runs = std::max(1, std::atoi(argv[++i]));
    }
    zeph_settings_set_log_sink(quiet_sink, nullptr, ZEPH_LOG_ERROR);

    // The wire, its servers in B, and this thread in A, before the library
    // or anything else starts a thread that should live in A.
    zeph_wire::TunWireConfig wire_cfg;
    wire_cfg.seed = kSeed;
    zeph_wire::TunWire wire(wire_cfg);
    WireServers srv;
    std::string why;
    bool have_wire = zeph_wire::TunWire::permitted(&why) && wire.start(&why) == 0;
    if (have_wire) {
        bool served = false;
        have_wire = wire.run_in(zeph_wire::Side::B,
                                [&] {
                                    served = srv.stun.start(zeph_wire::kAddrB, 0, &why) &&
                                             srv.tcp.start(zeph_wire::kAddrB, 0, &why);
                                },
                                &why) == 0 &&
                    served && wire.enter(zeph_wire::Side::A, &why) == 0;
    }
    zeph_net_tools_init();

    std::string error;
    zeph_peers::StunResponder stun;
    if (!stun.start("127.0.0.1", 0, &error)) {
        std::fprintf(stderr, "bench_net_truth: %s\n", error.c_str());
        return 1;
    }

    const Row rows[] = {
        {"direct, loopback", Path::Direct, ZEPH_TRANS_UDP, 0, 0, 0},
        {"relay 0 ms", Path::Relay, ZEPH_TRANS_UDP, 0, 0, 0},
        {"relay 40 ms, jitter 5", Path::Relay, ZEPH_TRANS_UDP, 40, 5, 0},
        {"relay 40 ms, jitter 5, loss 10%", Path::Relay, ZEPH_TRANS_UDP, 40, 5, 0.10},
        {"relay 100 ms, jitter 20, loss 30%", Path::Relay, ZEPH_TRANS_UDP, 100, 20, 0.30},
        {"wire 0 ms", Path::Wire, ZEPH_TRANS_UDP, 0, 0, 0},
        {"wire 20 ms", Path::Wire, ZEPH_TRANS_UDP, 20, 0, 0},
        {"wire 40 ms, jitter 5", Path::Wire, ZEPH_TRANS_UDP, 40, 5, 0},
        {"wire 0 ms", Path::Wire, ZEPH_TRANS_TCP, 0, 0, 0},
        {"wire 20 ms", Path::Wire, ZEPH_TRANS_TCP, 20, 0, 0},
        {"wire 40 ms, jitter 5", Path::Wire, ZEPH_TRANS_TCP, 40, 5, 0},
        {"wire 0 ms", Path::Wire, ZEPH_TRANS_ICMP, 0, 0, 0},
        {"wire 20 ms", Path::Wire, ZEPH_TRANS_ICMP, 20, 0, 0},
        {"wire 40 ms, jitter 5", Path::Wire, ZEPH_TRANS_ICMP, 40, 5, 0},
        {"wire 20 ms, loss 10%", Path::Wire, ZEPH_TRANS_ICMP, 20, 0, 0.10},
    };
    print_header(runs);

    uint32_t num = 0;
    uint16_t echo_seq = 0;
    bool told_skip = false;
    for (const Row& row : rows) {
        Tally t;
        if (row.path == Path::Wire) {
            if (!have_wire) {
                if (!told_skip) std::printf("wire rows (UDP, TCP, ICMP) skipped: %s\n", why.c_str());
                told_skip = true;
                continue;
            }
            wire.set_impairment(per_direction(row), per_direction(row));
            const uint16_t port = row.trans == ZEPH_TRANS_TCP   ? srv.tcp.port()
                                  : row.trans == ZEPH_TRANS_ICMP ? kIcmpPort
                                                                 : srv.stun.port();
            for (int r = 0; r < runs; ++r) {
                if (row.round_trip_loss == 0) plain_check(wire, srv, row.trans, ++echo_seq, t);
                wire.take_log();
                NetDetectResult res{};
                if (!detect(++num, zeph_wire::kAddrB, port, row.trans, res)) {
                    ++t.failed;
                    continue;
                }
                double truth = 0, lost = 0;
                if (!truth_of(wire.take_log(), ip_proto_of(row.trans), truth, lost)) {
                    ++t.failed; // nothing of it crossed the wire
                    continue;
                }
                ++t.judged;
                t.discard_sum += res.discard;
                t.lost_sum += lost;
                if (res.discard < 100 && !std::isnan(truth)) t.add(truth, res.average);
            }
        } else {
            zeph_relay::UdpRelayConfig cfg;
            cfg.server_port = stun.port();
            cfg.to_server = per_direction(row);
            cfg.to_client = cfg.to_server;
            cfg.seed = kSeed;
            zeph_relay::UdpRelay relay(cfg);
            uint16_t port = stun.port();
            if (row.path == Path::Relay) {
                if (relay.start(&error) != 0) {
                    std::fprintf(stderr, "bench_net_truth: %s\n", error.c_str());
                    return 1;
                }
                port = relay.port();
            }
            for (int r = 0; r < runs; ++r) {
                NetDetectResult res{};
                if (!detect(++num, "127.0.0.1", port, row.trans, res)) {
                    ++t.failed;
                    continue;
                }
                ++t.judged;
                t.discard_sum += res.discard;
                if (res.discard < 100) t.add(2 * row.one_way_ms, res.average);
            }
            // What the relay really dropped on the way there or back: the
            // discard is judged against this, the configured rate being
            // only its expectation.
            if (row.path == Path::Relay && t.judged) {
                const auto st = relay.stats();
                const double sent = double(st.to_server_forwarded + st.to_server_dropped);
                if (sent > 0) t.lost_sum = t.judged * 100 * (1 - double(st.to_client_forwarded) / sent);
            }
        }
        print_row(row, t);
    }
    if (have_wire) {
        const auto st = wire.stats();
        auto mean_late = [](const zeph_wire::WireDirectionStats& d) {
            return d.forwarded ? d.late_sum_ms / double(d.forwarded) : 0.0;
        };
        std::printf("\nwire: forwarded %llu/%llu packets A->B/B->A, written %.3f/%.3f ms after their due time on "
                    "average, %.3f/%.3f at worst, %llu write failures\n",
                    (unsigned long long)st.a_to_b.forwarded, (unsigned long long)st.b_to_a.forwarded,
                    mean_late(st.a_to_b), mean_late(st.b_to_a), st.a_to_b.late_max_ms, st.b_to_a.late_max_ms,
                    (unsigned long long)(st.a_to_b.write_failed + st.b_to_a.write_failed));
    }
    return 0;
}
