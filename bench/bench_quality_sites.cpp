// Multi-site scoring against a known truth: 1, 3 and 10 sites, each one a
// UDP relay of its own delay, jitter and loss in front of our quality server
// (in this process), scored at once through the export. Prints each site's
// measured record beside the relay's truth, its score and which site was
// named best, and the time from the start to the callback.
//
// Truth: round trip = twice the relay's one-way delay; jitter of a delay
// spread evenly over +-J ms = 2J/3 (mean step between neighbours); loss per
// direction from the relay's own counters, in thousandths.
//
//   bench_quality_sites [--rounds N]
//
// Runs on the main thread; the server, the relays and the detection run on
// threads of their own.
#include <chrono>
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
#include "zeph_nettools/net_tools.h"
#include "zeph_nettools/settings.h"

namespace {

const char kServerIp[] = "127.0.74.1";
constexpr uint16_t kServerPort = 64000;
constexpr int kReportTimeoutS = 30;
constexpr double kPerMille = 1000.0;

struct Link {
    double delay_ms;  // each way
    double jitter_ms; // each way, spread evenly over +-jitter
    double loss_up;   // percent
    double loss_down; // percent
};
// Sites take these in turn.
const Link kLinks[] = {
    {5, 0, 0, 0}, {20, 2, 1, 1}, {40, 5, 3, 1}, {60, 0, 0, 0}, {10, 1, 5, 0},
    {30, 10, 0, 5}, {80, 0, 1, 1}, {15, 3, 10, 10}, {100, 20, 0, 0}, {25, 0, 2, 0},
};
const int kSiteCounts[] = {1, 3, 10};

std::mutex g_mu;
std::condition_variable g_cv;
bool g_done = false;
int32_t g_code = 0;
std::vector<DetectQosResult> g_results;
std::chrono::steady_clock::time_point g_at;

void on_result(int32_t, int32_t code, int32_t, std::vector<DetectQosResult> results) {
    std::lock_guard<std::mutex> lock(g_mu);
    if (g_done) return;
    g_done = true;
    g_code = code;
    g_results = std::move(results);
    g_at = std::chrono::steady_clock::now();
    g_cv.notify_all();
}

std::string relay_ip(int i) { return "127.0.74." + std::to_string(10 + i); }

double permille(uint64_t dropped, uint64_t forwarded) {
    const uint64_t all = dropped + forwarded;
    return all ? kPerMille * double(dropped) / double(all) : 0;
}

bool run(int sites, int round) {
    std::vector<std::unique_ptr<zeph_relay::UdpRelay>> relays;
    std::vector<DetectSiteInfo> infos;
    for (int i = 0; i < sites; ++i) {
        const Link& l = kLinks[i];
        zeph_relay::UdpRelayConfig cfg;
        cfg.listen_ip = relay_ip(i);
        cfg.server_ip = kServerIp;
        cfg.server_port = kServerPort;
        cfg.to_server = {l.delay_ms, l.jitter_ms, l.loss_up / 100};
        cfg.to_client = {l.delay_ms, l.jitter_ms, l.loss_down / 100};
        cfg.seed = uint64_t(1000 * round + i + 1);
        relays.push_back(std::make_unique<zeph_relay::UdpRelay>(cfg));
        std::string error;
        if (relays.back()->start(&error) != 0) {
            std::fprintf(stderr, "relay %d: %s\n", i, error.c_str());
            return false;
        }
        DetectSiteInfo s;
        s.index = int16_t(i);
        s.ip = relays.back()->listen_ip();
        s.port = relays.back()->port();
        s.auth_token = "bench";
        s.auth_para = "sites";
        infos.push_back(s);
    }
    {
        std::lock_guard<std::mutex> lock(g_mu);
        g_done = false;
    }
    const auto t0 = std::chrono::steady_clock::now();
    if (zeph_detect_start_mult_site_client(infos, on_result) != 0) {
        std::fprintf(stderr, "the detection did not start\n");
        return false;
    }
    std::unique_lock<std::mutex> lock(g_mu);
    if (!g_cv.wait_for(lock, std::chrono::seconds(kReportTimeoutS), [] { return g_done; })) {
        std::fprintf(stderr, "no report within %d s\n", kReportTimeoutS);
        return false;
    }
    const double took = std::chrono::duration<double>(g_at - t0).count();
    std::printf("\n%d site(s), round %d: callback after %.2f s, code %d\n", sites, round, took, int(g_code));
    std::printf("%-4s %-22s | %-28s | %-30s | %6s\n", "site", "link (one way)", "truth rtt jit up/dn loss up/dn",
                "measured rtt jit up/dn loss", "score");
    for (size_t i = 0; i < g_results.size(); ++i) {
        const DetectQosResult& r = g_results[i];
        const Link& l = kLinks[i];
        const zeph_relay::UdpRelayStats st = relays[i]->stats();
        char link[64], truth[64], meas[64];
        std::snprintf(link, sizeof link, "%g+-%g ms %g%%/%g%%", l.delay_ms, l.jitter_ms, l.loss_up, l.loss_down);
        std::snprintf(truth, sizeof truth, "%5.0f %4.1f/%4.1f %4.0f/%4.0f", 2 * l.delay_ms, 2 * l.jitter_ms / 3,
                      2 * l.jitter_ms / 3, permille(st.to_server_dropped, st.to_server_forwarded),
                      permille(st.to_client_dropped, st.to_client_forwarded));
        std::snprintf(meas, sizeof meas, "%5d %4d/%4d %4d/%4d", int(r.a_delay), int(r.a_s_jitter), int(r.a_r_jitter),
                      int(r.a_s_loss), int(r.a_r_loss));
        std::printf("%-4d %-22s | %-28s | %-30s | %6d%s\n", int(r.index), link, truth, meas, int(r.score),
                    r.is_pre ? " best" : "");
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    int rounds = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--rounds") == 0 && i + 1 < argc) {
            rounds = std::atoi(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: bench_quality_sites [--rounds N]\n");
            return 2;
        }
    }
    zeph_settings_set_local_addr(kServerIp);
    DetectServer* server = DetectServer::get_instance();
    if (!server || server->start_server(kServerPort) != DetectServer::kStarted) {
        std::fprintf(stderr, "cannot start the quality server on %s:%u\n", kServerIp, unsigned(kServerPort));
        return 1;
    }
    bool ok = true;
    for (int round = 1; round <= rounds && ok; ++round)
        for (int n : kSiteCounts) ok = ok && run(n, round);
    server->stop_server();
    return ok ? 0 : 1;
}
