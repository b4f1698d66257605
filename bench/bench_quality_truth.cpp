// How close the quality stream's figures come to a known truth: streams at
// levels 1, 3 and 6 to our quality server through the UDP relay, and irtt
// through a relay of the same settings in the same run, printed beside the
// relay's own truth.
//
// Truth: the relay's configured one-way delay for the delay (round trip =
// the two added), the mean absolute step between consecutive one-way delays
// for the jitter of each direction (for a delay spread evenly over
// +-J ms that is 2J/3), and the relay's own counters for the loss of each
// direction. Rate: packets of the stream over the time to its last burst.
//
//   bench_quality_truth [--seconds S] [--no-irtt]
//
// Runs on the main thread; the server, the relays and irtt run on threads
// and processes of their own.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "bwdetect/detect_cli_pkt.h"
#include "bwdetect/detect_server.h"
#include "peers.h"
#include "udp_relay.h"
#include "zeph_nettools/settings.h"

namespace q = zeph::quality;

namespace {

const char kServerIp[] = "127.0.62.1";
const char kIrttIp[] = "127.0.62.2";
constexpr uint16_t kServerPort = 64000;
constexpr uint16_t kIrttPort = 2112;

struct Scenario {
    const char* name;
    double delay_ms;  // each way
    double jitter_ms; // each way, spread evenly over +-jitter
    double loss_up;   // percent
    double loss_down; // percent
};
const Scenario kScenarios[] = {
    {"20+-5 ms each way, 5 % up, 2 % down", 20, 5, 5, 2},
    {"50 ms each way, no loss", 50, 0, 0, 0},
};
const int kLevels[] = {1, 3, 6};

std::unique_ptr<zeph_relay::UdpRelay> relay_for(const Scenario& sc, const char* ip, uint16_t port, uint64_t seed) {
    zeph_relay::UdpRelayConfig cfg;
    cfg.listen_ip = ip;
    cfg.server_ip = ip;
    cfg.server_port = port;
    cfg.to_server = {sc.delay_ms, sc.jitter_ms, sc.loss_up / 100};
    cfg.to_client = {sc.delay_ms, sc.jitter_ms, sc.loss_down / 100};
    cfg.seed = seed;
    auto relay = std::make_unique<zeph_relay::UdpRelay>(cfg);
    std::string error;
    if (relay->start(&error) != 0) {
        std::fprintf(stderr, "relay: %s\n", error.c_str());
        return nullptr;
    }
    return relay;
}

double per_mille(uint64_t part, uint64_t whole) { return whole ? 1000.0 * double(part) / double(whole) : 0; }

void truth_line(const Scenario& sc, const zeph_relay::UdpRelayStats& r) {
    const double jitter = 2 * sc.jitter_ms / 3;
    std::printf("  %-10s delay %6.1f  jitter out %5.2f back %5.2f  loss out %6.1f back %6.1f\n", "truth",
                2 * sc.delay_ms, jitter, jitter, per_mille(r.to_server_dropped, r.to_server_dropped + r.to_server_forwarded),
                per_mille(r.to_client_dropped, r.to_client_dropped + r.to_client_forwarded));
}

void run_stream(const Scenario& sc, int level, int seconds, uint64_t seed) {
    auto relay = relay_for(sc, kServerIp, kServerPort, seed);
    if (!relay) return;
    DetectBase maker;
    auto ex = std::make_shared<DetectCliPktAnyTime>(maker.init_socket(relay->listen_ip().c_str(), relay->port(), 0),
                                                    level, seconds);
    const q::LevelRow& row = q::level_row(uint32_t(level));
    ex->m_pkt_len = int32_t(row.pkt_len);
    uint8_t image[q::kImageSize];
    q::build_image(image, sizeof image, 0x1234, uint32_t(seed), uint8_t(level));
    q::set_type(image, sizeof image, false, q::kTypeData);
    const uint64_t t0 = zeph_test::now_ms();
    if (ex->start_SR(image, ex) != 0) return;
    zeph_test::wait_until([&] { return ex->get_state() == DETECT_STATE_SEND_FIN; }, seconds * 1000 + 5000, 1);
    const uint64_t lasted = zeph_test::now_ms() - t0;
    zeph_test::wait_until([&] { return ex->get_state() == DETECT_STATE_STAT_FIN; }, 5000, 5);
    const DetectPktStat st = ex->get_stat();
    const double rate = 1000.0 * ex->stream_packets() / double(lasted);
    std::printf(" level %d: %u packets of %u bytes in %llu ms, %.1f packets/s (table %u, %+.2f %%)\n", level,
                ex->stream_packets(), row.pkt_len, static_cast<unsigned long long>(lasted), rate, row.pkts_per_sec,
                100.0 * (rate - row.pkts_per_sec) / row.pkts_per_sec);
    std::printf("  %-10s delay %6d  jitter out %5d back %5d  loss out %6d back %6d\n", "measured", st.avg_delay,
                st.avg_s_jitter, st.avg_r_jitter, st.avg_s_loss_rate, st.avg_r_loss_rate);
    truth_line(sc, relay->stats());
}

// irtt's JSON: the first number behind "key": at or after the key `within`.
double json_number(const std::string& text, const std::string& within, const std::string& key) {
    size_t from = within.empty() ? 0 : text.find("\"" + within + "\":");
    if (from == std::string::npos) return NAN;
    const size_t at = text.find("\"" + key + "\":", from);
    return at == std::string::npos ? NAN : std::strtod(text.c_str() + at + key.size() + 3, nullptr);
}

void run_irtt(const Scenario& sc, int seconds, uint64_t seed) {
    zeph_test::Process server;
    if (!server.start({"irtt", "server", "-b", std::string(kIrttIp) + ":" + std::to_string(kIrttPort)})) {
        std::fprintf(stderr, "irtt server did not start: %s\n", server.error().c_str());
        return;
    }
    zeph_test::sleep_ms(300);
    auto relay = relay_for(sc, kIrttIp, kIrttPort, seed);
    if (!relay) return;
    zeph_test::Process client;
    client.start({"irtt", "client", "-Q", "-o", "-", "-i", "20ms", "-d", std::to_string(seconds) + "s", "-l", "327",
                  "--wait=1s", relay->listen_ip() + ":" + std::to_string(relay->port())});
    zeph_test::wait_until([&] { return !client.running(); }, (seconds + 15) * 1000, 20);
    const std::string out = client.stdout_text();
    constexpr double kNsPerMs = 1e6;
    std::printf(" irtt, 50 packets/s of 327 bytes:\n");
    std::printf("  %-10s delay %6.1f  jitter out %5.2f back %5.2f  loss out %6.1f back %6.1f\n", "measured",
                json_number(out, "rtt", "mean") / kNsPerMs, json_number(out, "ipdv_send", "mean") / kNsPerMs,
                json_number(out, "ipdv_receive", "mean") / kNsPerMs,
                10 * json_number(out, "", "upstream_loss_percent"), 10 * json_number(out, "", "downstream_loss_percent"));
    truth_line(sc, relay->stats());
    server.stop();
}

} // namespace

int main(int argc, char** argv) {
    int seconds = 10;
    bool irtt = true;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--seconds" && i + 1 < argc) {
            seconds = std::atoi(argv[++i]);
        } else if (a == "--no-irtt") {
            irtt = false;
        } else {
            std::fprintf(stderr, "usage: bench_quality_truth [--seconds 3..10] [--no-irtt]\n");
            return 2;
        }
    }
    zeph_settings_set_local_addr(kServerIp);
    DetectServer* server = DetectServer::get_instance();
    if (server == nullptr || server->start_server(kServerPort) != DetectServer::kStarted) {
        std::fprintf(stderr, "quality server did not start on %s:%u\n", kServerIp, kServerPort);
        return 1;
    }
    std::printf("quality streams of %d s through the relay (delay and jitter in ms, loss in thousandths)\n", seconds);
    uint64_t seed = 1;
    for (const Scenario& sc : kScenarios) {
        std::printf("\n%s\n", sc.name);
        for (int level : kLevels) run_stream(sc, level, seconds, ++seed);
        if (irtt) run_irtt(sc, seconds, ++seed);
    }
    DetectServer::destroy_instance();
    return 0;
}
