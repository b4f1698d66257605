// How fast the long-time detection follows a change of the network: one run
// through the UDP relay to our quality server, the relay's impairment
// changed partway (the relay is restarted with the new settings on the same
// port), every 10 s report printed beside the truth of the settings in force,
// and the number of reports after the change until the figures follow.
//
// Truth: the relay's configured delays (round trip = the two added), 2J/3
// for the jitter of a delay spread evenly over +-J ms, and the relay's own
// counters for the loss of each direction after the change.
//
//   bench_quality_long_time [--seconds S] [--change-at C] [--level L]
//
// Runs on the main thread; the server, the relay and the detection run on
// threads of their own.
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bwdetect/detect_server.h"
#include "udp_relay.h"
#include "waits.h"
#include "zeph_nettools/net_tools.h"
#include "zeph_nettools/settings.h"

namespace {

const char kServerIp[] = "127.0.67.1";
constexpr uint16_t kServerPort = 64000;
constexpr int kRoundSeconds = 10;
// A report follows when its delay is within this of the truth, its jitters
// within kJitterTarget and its losses within kLossTarget plus three standard
// deviations of the round's sampling.
constexpr double kDelayTarget = 2;
constexpr double kJitterTarget = 1.5;
constexpr double kLossTarget = 3;

struct Setting {
    const char* name;
    double delay_ms, jitter_ms, loss_up, loss_down; // each way; loss in percent
};
const Setting kBefore = {"10 ms each way, no loss", 10, 0, 0, 0};
const Setting kAfter = {"40+-3 ms each way, 5 % up, 2 % down", 40, 3, 5, 2};

struct Got {
    double t;
    DetectQosResult r;
};
std::mutex g_mutex;
std::condition_variable g_cv;
std::vector<Got> g_got;
uint64_t g_t0 = 0;

void on_report(int32_t, int32_t, int32_t, std::vector<DetectQosResult> results) {
    const double t = double(zeph_test::now_ms() - g_t0) / 1000;
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const DetectQosResult& r : results) g_got.push_back({t, r});
    g_cv.notify_all();
}

std::unique_ptr<zeph_relay::UdpRelay> relay_for(const Setting& s, uint16_t listen_port) {
    zeph_relay::UdpRelayConfig cfg;
    cfg.listen_ip = kServerIp;
    cfg.listen_port = listen_port;
    cfg.server_ip = kServerIp;
    cfg.server_port = kServerPort;
    cfg.to_server = {s.delay_ms, s.jitter_ms, s.loss_up / 100};
    cfg.to_client = {s.delay_ms, s.jitter_ms, s.loss_down / 100};
    cfg.seed = 5;
    auto relay = std::make_unique<zeph_relay::UdpRelay>(cfg);
    std::string error;
    if (relay->start(&error) != 0) {
        std::fprintf(stderr, "relay: %s\n", error.c_str());
        return nullptr;
    }
    return relay;
}

double per_mille(uint64_t part, uint64_t whole) { return whole ? 1000.0 * double(part) / double(whole) : 0; }

bool follows(const DetectQosResult& r, const Setting& s, double up_loss, double down_loss, int pkts) {
    const double jitter = 2 * s.jitter_ms / 3;
    auto sd = [pkts](double pm) { return 3 * std::sqrt(pm * (1000 - pm) / pkts); };
    return std::fabs(r.a_delay - 2 * s.delay_ms) <= kDelayTarget && std::fabs(r.a_s_jitter - jitter) <= kJitterTarget &&
           std::fabs(r.a_r_jitter - jitter) <= kJitterTarget &&
           std::fabs(r.a_s_loss - up_loss) <= kLossTarget + sd(up_loss) &&
           std::fabs(r.a_r_loss - down_loss) <= kLossTarget + sd(down_loss);
}

int arg_int(int argc, char** argv, const char* name, int fallback) {
    for (int i = 1; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], name) == 0) return std::atoi(argv[i + 1]);
    return fallback;
}

} // namespace

int main(int argc, char** argv) {
    const int seconds = arg_int(argc, argv, "--seconds", 80);
    const int change_at = arg_int(argc, argv, "--change-at", 45);
    const int level = arg_int(argc, argv, "--level", 3);
    const int pkts_per_round[] = {250, 500, 1000, 2000, 2000, 4000, 8000};
    const int pkts = pkts_per_round[level >= 0 && level <= 6 ? level : 1];

    zeph_settings_set_local_addr(kServerIp);
    DetectServer* server = DetectServer::get_instance();
    if (!server || server->start_server(kServerPort) != DetectServer::kStarted) {
        std::fprintf(stderr, "no quality server on %s:%d\n", kServerIp, kServerPort);
        return 1;
    }
    auto relay = relay_for(kBefore, 0);
    if (!relay) return 1;
    const uint16_t port = relay->port();

    DetectSiteInfo site;
    site.ip = kServerIp;
    site.port = port;
    DetectBwConfig config{0, level, seconds, on_report};
    g_t0 = zeph_test::now_ms();
    if (zeph_detect_start_long_time_bw(&site, &config) != 0) {
        std::fprintf(stderr, "the detection did not start\n");
        return 1;
    }
    std::printf("long-time detection, level %d, %d s, through the relay: \"%s\", from %d s \"%s\"\n", level, seconds,
                kBefore.name, change_at, kAfter.name);

    zeph_test::wait_until([&] { return zeph_test::now_ms() - g_t0 >= uint64_t(change_at) * 1000; }, change_at * 1000 + 1000,
                          50);
    relay.reset();
    relay = relay_for(kAfter, port);
    if (!relay) return 1;

    const size_t rounds = size_t(seconds / kRoundSeconds);
    {
        std::unique_lock<std::mutex> lock(g_mutex);
        g_cv.wait_for(lock, std::chrono::seconds(seconds + 2 * kRoundSeconds), [&] { return g_got.size() >= rounds; });
    }
    const zeph_relay::UdpRelayStats rs = relay->stats();
    const double up = per_mille(rs.to_server_dropped, rs.to_server_dropped + rs.to_server_forwarded);
    const double down = per_mille(rs.to_client_dropped, rs.to_client_dropped + rs.to_client_forwarded);

    std::printf("%6s %4s %6s %9s %9s %8s %8s %6s  %s\n", "t s", "sock", "delay", "jit out", "jit back", "loss out",
                "loss back", "score", "truth");
    std::vector<Got> got;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        got = g_got;
    }
    int after_change = 0, first_following = -1;
    for (const Got& g : got) {
        // A report covers the round that ended about a second before it.
        const double round_start = g.t - 1 - kRoundSeconds;
        const bool before = g.t - 1 <= change_at;
        const bool mixed = !before && round_start < change_at;
        const Setting& s = before ? kBefore : kAfter;
        if (!before) ++after_change;
        const bool ok = follows(g.r, s, before ? 0 : up, before ? 0 : down, pkts);
        if (!before && ok && first_following < 0) first_following = after_change;
        std::printf("%6.1f %4d %6d %9d %9d %8d %9d %6d  %s%s%s\n", g.t, g.r.index, g.r.a_delay, g.r.a_s_jitter,
                    g.r.a_r_jitter, g.r.a_s_loss, g.r.a_r_loss, g.r.score, before ? "before" : "after",
                    mixed ? " (the change fell in this round)" : "", ok ? ", follows" : "");
    }
    std::printf("truth before: delay %.0f jitter 0 loss 0/0; after: delay %.0f jitter %.2f loss %.1f/%.1f\n",
                2 * kBefore.delay_ms, 2 * kAfter.delay_ms, 2 * kAfter.jitter_ms / 3, up, down);
    if (first_following < 0)
        std::printf("no report after the change followed the new figures (%d reports after it)\n", after_change);
    else
        std::printf("the figures follow from report %d after the change (about %d s)\n", first_following,
                    first_following * kRoundSeconds);
    server->stop_server();
    return got.size() == rounds ? 0 : 1;
}
