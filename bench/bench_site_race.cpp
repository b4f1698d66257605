// The nearest-site race against a known truth: 4 and 32 sites, each one a
// UDP relay of its own delay and loss in front of our quality server (in
// this process), raced through the export. Prints how soon the first answer
// came and whether it named the nearest site, when the table came, and per
// site the reported first-answer delay and discard beside the truth.
//
// Truth: a site's round trip is twice its relay's one-way delay; its
// discard is 100 - (answers the relay delivered * 100 >> 5), from the
// relay's own counters for the round.
//
//   bench_site_race [--rounds N] [-v]
//
// Runs on the main thread; the server, the relays and the runtime run on
// threads of their own.
#include <algorithm>
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

using Clock = std::chrono::steady_clock;

const char kServerIp[] = "127.0.94.1";
constexpr uint16_t kServerPort = 64000;
constexpr int kReportTimeoutS = 10;
constexpr uint32_t kProbes = 32;
constexpr uint16_t kNoAnswer = 65535;
constexpr int kDefaultRounds = 5;
const size_t kSiteCounts[] = {4, 32};

// Site i: one-way delay 3 + 3 i ms, so round trips 6, 12, ... 192 ms; every
// third site loses 5 % each way.
double site_delay(size_t i) { return 3.0 + 3.0 * double(i); }
double site_loss(size_t i) { return i % 3 == 2 ? 0.05 : 0.0; }

std::string relay_ip(size_t i) { return "127.0.94." + std::to_string(10 + i); }

struct Report {
    uint32_t kind;
    std::vector<OptSiteInfo> rows;
    Clock::time_point at;
};
bool g_verbose = false; // -v: every site's row beside its truth
std::mutex g_mu;
std::condition_variable g_cv;
std::vector<Report> g_reports;

void on_race(int32_t, int32_t, uint32_t kind, const std::vector<OptSiteInfo>& rows) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_reports.push_back({kind, rows, Clock::now()});
    g_cv.notify_all();
}

double ms_between(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double, std::milli>(b - a).count();
}

double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

int run(size_t sites, int rounds) {
    std::vector<std::unique_ptr<zeph_relay::UdpRelay>> relays;
    std::vector<OptSiteInfo> list;
    for (size_t i = 0; i < sites; ++i) {
        zeph_relay::UdpRelayConfig cfg;
        cfg.listen_ip = relay_ip(i);
        cfg.server_ip = kServerIp;
        cfg.server_port = kServerPort;
        cfg.to_server = {site_delay(i), 0, site_loss(i)};
        cfg.to_client = {site_delay(i), 0, site_loss(i)};
        cfg.seed = 100 + i;
        relays.push_back(std::make_unique<zeph_relay::UdpRelay>(cfg));
        std::string error;
        if (relays.back()->start(&error) != 0) {
            std::fprintf(stderr, "relay %zu: %s\n", i, error.c_str());
            return 1;
        }
        OptSiteInfo s;
        s.name = "site" + std::to_string(i);
        s.addr = relay_ip(i);
        s.port = relays.back()->port();
        list.push_back(s);
    }
    // Listed farthest first, so that the caller's order gives no head start.
    std::reverse(list.begin(), list.end());

    std::vector<double> first_ms, table_ms, delay_err;
    int best_right = 0, discard_right = 0, rows_seen = 0;
    double worst_err = 0;
    for (int r = 0; r < rounds; ++r) {
        std::vector<uint64_t> before;
        for (auto& relay : relays) before.push_back(relay->stats().to_client_forwarded);
        {
            std::lock_guard<std::mutex> lock(g_mu);
            g_reports.clear();
        }
        const auto t0 = Clock::now();
        if (zeph_detect_start_opt_mult_site(list, on_race) != 0) {
            std::fprintf(stderr, "the race could not start\n");
            return 1;
        }
        std::unique_lock<std::mutex> lock(g_mu);
        const bool done = g_cv.wait_for(lock, std::chrono::seconds(kReportTimeoutS), [] {
            return !g_reports.empty() && g_reports.back().kind == 1;
        });
        if (!done) {
            std::fprintf(stderr, "no table within %d s\n", kReportTimeoutS);
            return 1;
        }
        for (const Report& rep : g_reports) {
            if (rep.kind == 0) {
                first_ms.push_back(ms_between(t0, rep.at));
                best_right += rep.rows.at(0).name == "site0";
                continue;
            }
            table_ms.push_back(ms_between(t0, rep.at));
            for (const OptSiteInfo& row : rep.rows) {
                const size_t i = std::stoul(row.name.substr(4));
                const uint64_t answered = relays[i]->stats().to_client_forwarded - before[i];
                const uint32_t truth_discard = 100 - uint32_t((std::min<uint64_t>(answered, kProbes) * 100) >> 5);
                discard_right += row.discard == truth_discard;
                ++rows_seen;
                if (row.delay != kNoAnswer) {
                    const double err = double(row.delay) - 2 * site_delay(i);
                    if (g_verbose) std::printf("  %s truth %.0f got %u discard %u\n", row.name.c_str(), 2 * site_delay(i), unsigned(row.delay), unsigned(row.discard));
                    delay_err.push_back(err);
                    worst_err = std::max(worst_err, std::abs(err));
                }
            }
        }
    }
    double mean_err = 0;
    for (double e : delay_err) mean_err += e;
    if (!delay_err.empty()) mean_err /= double(delay_err.size());
    std::printf("%6zu  %6d  %6d/%-3d  %9.1f  %9.1f  %9.1f  %+8.2f  %8.1f  %6d/%d\n", sites, rounds, best_right, rounds,
                site_delay(0) * 2, median(first_ms), median(table_ms), mean_err, worst_err, discard_right, rows_seen);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    int rounds = kDefaultRounds;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "-v") == 0) {
            g_verbose = true;
        } else if (std::strcmp(argv[i], "--rounds") == 0 && i + 1 < argc) {
            rounds = std::max(1, std::atoi(argv[++i]));
        } else {
            std::fprintf(stderr, "usage: bench_site_race [--rounds N] [-v]\n");
            return 2;
        }
    }
    zeph_settings_set_local_addr(kServerIp);
    DetectServer* server = DetectServer::get_instance();
    if (server == nullptr || server->start_server(kServerPort) != DetectServer::kStarted) {
        std::fprintf(stderr, "cannot start the quality server on %s:%u\n", kServerIp, unsigned(kServerPort));
        return 1;
    }
    if (zeph_net_tools_init() != 0) {
        std::fprintf(stderr, "cannot start the detection runtime\n");
        return 1;
    }
    std::printf("nearest-site race: site i behind a relay of 3+3i ms each way (every third 5 %% loss each way)\n");
    std::printf("%6s  %6s  %10s  %9s  %9s  %9s  %8s  %8s  %8s\n", "sites", "rounds", "best ok", "truth ms",
                "first ms", "table ms", "err ms", "|err|max", "discard=");
    int rc = 0;
    for (size_t n : kSiteCounts) rc |= run(n, rounds);
    zeph_net_tools_uninit();
    server->stop_server();
    return rc;
}
