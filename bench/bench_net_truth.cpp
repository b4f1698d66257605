// How true are the UDP net detections? zeph_single_net_detect (protocol 2)
// runs through the impairment relay to a STUN responder on loopback, with a
// known delay, jitter and loss; the measured average/min/max/discard are
// printed beside the configured truth.
//
//   bench_net_truth [--runs N]      (default 10 runs per scenario)
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

#include "demo_peers.h"
#include "udp_relay.h"

namespace {

using Clock = std::chrono::steady_clock;

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

struct Scenario {
    const char* name;
    bool relay;
    double one_way_ms, jitter_ms, round_trip_loss;
};

struct Figures {
    int runs = 0, failed = 0;
    double avg = 0, discard = 0;
    int min = 1 << 30, max = 0;
    std::vector<int> avgs;
};

} // namespace

int main(int argc, char** argv) {
    int runs = 10;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--runs") && i + 1 < argc) runs = std::max(1, std::atoi(argv[++i]));
    }
    zeph_settings_set_log_sink(quiet_sink, nullptr, ZEPH_LOG_ERROR);
    zeph_net_tools_init();

    zeph_peers::StunResponder stun;
    std::string error;
    if (!stun.start("127.0.0.1", 0, &error)) {
        std::fprintf(stderr, "bench_net_truth: %s\n", error.c_str());
        return 1;
    }

    const Scenario scenarios[] = {
        {"direct, loopback", false, 0, 0, 0},
        {"relay 0 ms", true, 0, 0, 0},
        {"relay 40 ms, jitter 5", true, 40, 5, 0},
        {"relay 40 ms, jitter 5, loss 10%", true, 40, 5, 0.10},
        {"relay 100 ms, jitter 20, loss 30%", true, 100, 20, 0.30},
    };
    std::printf("UDP net detection (6 STUN requests per run), %d runs per scenario\n", runs);
    std::printf("jitter uniform +-J each way; loss split evenly over both directions; the discard\n"
                "error is against what the relay really lost (discard is truncated to whole percent per run)\n\n");
    std::printf("%-34s %8s %7s %6s %7s %5s %5s %9s %9s %8s %6s %s\n", "scenario", "true rtt", "avg", "err", "sd(avg)",
                "min", "max", "set loss", "relay lost", "discard", "err", "failed");

    uint32_t num = 0;
    for (const Scenario& sc : scenarios) {
        zeph_relay::UdpRelayConfig cfg;
        cfg.server_port = stun.port();
        const double per_direction = 1 - std::sqrt(1 - sc.round_trip_loss);
        cfg.to_server = zeph_relay::Impairment{sc.one_way_ms, sc.jitter_ms, per_direction};
        cfg.to_client = cfg.to_server;
        cfg.seed = 2024;
        zeph_relay::UdpRelay relay(cfg);
        uint16_t port = stun.port();
        if (sc.relay) {
            if (relay.start(&error) != 0) {
                std::fprintf(stderr, "bench_net_truth: %s\n", error.c_str());
                return 1;
            }
            port = relay.port();
        }
        Figures f;
        for (int r = 0; r < runs; ++r) {
            NetDetectResult res{};
            if (zeph_single_net_detect(++num, "127.0.0.1", port, ZEPH_TRANS_UDP, on_result) != 0 ||
                !wait_result(num, res, 20)) {
                ++f.failed;
                continue;
            }
            ++f.runs;
            f.discard += res.discard;
            if (res.discard < 100) {
                f.avgs.push_back(res.average);
                f.min = std::min(f.min, res.min);
                f.max = std::max(f.max, res.max);
            }
        }
        double mean = 0, sd = 0;
        for (int a : f.avgs) mean += a;
        if (!f.avgs.empty()) mean /= double(f.avgs.size());
        for (int a : f.avgs) sd += (a - mean) * (a - mean);
        if (!f.avgs.empty()) sd = std::sqrt(sd / double(f.avgs.size()));
        const double true_rtt = 2 * sc.one_way_ms;
        const double discard = f.runs ? f.discard / f.runs : 0;
        char rtt[32];
        std::snprintf(rtt, sizeof rtt, sc.jitter_ms > 0 ? "%.0f+-%.0f" : "%.0f", true_rtt, 2 * sc.jitter_ms);
        // What the relay really dropped on the way there or back: the
        // detection is judged against this, the configured rate being only
        // its expectation.
        double lost = 0;
        if (sc.relay) {
            auto st = relay.stats();
            const double sent = double(st.to_server_forwarded + st.to_server_dropped);
            if (sent > 0) lost = 100 * (1 - double(st.to_client_forwarded) / sent);
        }
        std::printf("%-34s %8s %7.1f %+6.1f %7.1f %5d %5d %8.0f%% %9.1f%% %7.1f%% %+6.1f %d\n", sc.name, rtt, mean,
                    mean - true_rtt, sd, f.avgs.empty() ? 0 : f.min, f.max, 100 * sc.round_trip_loss, lost, discard,
                    discard - lost, f.failed);
        std::fflush(stdout);
    }
    return 0;
}
