// zeph-udp-relay: forwards UDP datagrams between clients and one server,
// adding delay, jitter and loss. Runs until SIGINT or SIGTERM, then prints
// what it forwarded and dropped.
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "udp_relay.h"

namespace {

const char kUsage[] =
    "usage: zeph-udp-relay --server IP:PORT [options]\n"
    "\n"
    "Forwards datagrams from clients to the server and the answers back,\n"
    "impairing both directions. A value A,B sets client->server to A and\n"
    "server->client to B; a single value sets both.\n"
    "\n"
    "  --listen IP:PORT      where clients send (default 127.0.0.1:0, a free port)\n"
    "  --server IP:PORT      where datagrams go (required)\n"
    "  --delay MS[,MS]       one-way delay in milliseconds (default 0)\n"
    "  --jitter MS[,MS]      jitter in milliseconds (default 0)\n"
    "  --jitter-model M      uniform: delay +- jitter, evenly spread (default);\n"
    "                        normal: jitter is the standard deviation\n"
    "  --loss P[,P]          loss per direction, percent (default 0)\n"
    "  --keep-order          never let jitter reorder datagrams\n"
    "  --seed N              seed of the random draws (default 1)\n"
    "\n"
    "Prints \"listening on IP:PORT\" once ready; on SIGINT/SIGTERM prints the counters.\n";

int bad(const std::string& msg) {
    std::fprintf(stderr, "zeph-udp-relay: %s (see --help)\n", msg.c_str());
    return 2;
}

bool parse_double(const std::string& s, double& out) {
    if (s.empty()) return false;
    char* end = nullptr;
    errno = 0;
    out = std::strtod(s.c_str(), &end);
    return errno == 0 && end && *end == '\0' && out >= 0;
}

// "A" or "A,B" into the two directions.
bool parse_pair(const std::string& s, double& up, double& down) {
    auto comma = s.find(',');
    if (comma == std::string::npos) {
        if (!parse_double(s, up)) return false;
        down = up;
        return true;
    }
    return parse_double(s.substr(0, comma), up) && parse_double(s.substr(comma + 1), down);
}

bool parse_endpoint(const std::string& s, std::string& ip, uint16_t& port) {
    auto colon = s.rfind(':');
    if (colon == std::string::npos || colon == 0) return false;
    const std::string digits = s.substr(colon + 1);
    if (digits.empty() || digits.size() > 5 || digits.find_first_not_of("0123456789") != std::string::npos)
        return false; // no sign, no blank
    const unsigned long p = std::stoul(digits);
    if (p > 65535) return false;
    ip = s.substr(0, colon);
    port = uint16_t(p);
    return true;
}

} // namespace

int main(int argc, char** argv) {
    zeph_relay::UdpRelayConfig cfg;
    bool have_server = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (a == "--version") {
            std::puts("zeph-udp-relay " ZEPH_NETTOOLS_VERSION);
            return 0;
        }
        if (a == "--keep-order") {
            cfg.keep_order = true;
            continue;
        }
        if (i + 1 >= argc) return bad("missing value after " + a);
        std::string v = argv[++i];
        double up = 0, down = 0;
        if (a == "--listen") {
            if (!parse_endpoint(v, cfg.listen_ip, cfg.listen_port)) return bad("bad --listen " + v);
        } else if (a == "--server") {
            if (!parse_endpoint(v, cfg.server_ip, cfg.server_port) || cfg.server_port == 0)
                return bad("bad --server " + v);
            have_server = true;
        } else if (a == "--delay") {
            if (!parse_pair(v, up, down)) return bad("bad --delay " + v);
            cfg.to_server.delay_ms = up;
            cfg.to_client.delay_ms = down;
        } else if (a == "--jitter") {
            if (!parse_pair(v, up, down)) return bad("bad --jitter " + v);
            cfg.to_server.jitter_ms = up;
            cfg.to_client.jitter_ms = down;
        } else if (a == "--loss") {
            if (!parse_pair(v, up, down) || up > 100 || down > 100) return bad("bad --loss " + v);
            cfg.to_server.loss = up / 100;
            cfg.to_client.loss = down / 100;
        } else if (a == "--jitter-model") {
            if (v == "uniform")
                cfg.jitter_model = zeph_relay::JitterModel::Uniform;
            else if (v == "normal")
                cfg.jitter_model = zeph_relay::JitterModel::Normal;
            else
                return bad("bad --jitter-model " + v);
        } else if (a == "--seed") {
            char* end = nullptr;
            cfg.seed = std::strtoull(v.c_str(), &end, 0);
            if (v.empty() || !end || *end) return bad("bad --seed " + v);
        } else {
            return bad("unknown option " + a);
        }
    }
    if (!have_server) return bad("--server is required");

    // Block the stop signals before the relay thread starts, so that they
    // reach sigwait below and no other thread.
    sigset_t stop_set;
    sigemptyset(&stop_set);
    sigaddset(&stop_set, SIGINT);
    sigaddset(&stop_set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_set, nullptr);

    zeph_relay::UdpRelay relay(cfg);
    std::string error;
    if (relay.start(&error) != 0) {
        std::fprintf(stderr, "zeph-udp-relay: %s\n", error.c_str());
        return 1;
    }
    std::printf("listening on %s:%u\n", relay.listen_ip().c_str(), relay.port());
    std::fflush(stdout);

    int sig = 0;
    sigwait(&stop_set, &sig);
    relay.stop();
    auto s = relay.stats();
    std::printf("to server: forwarded %llu dropped %llu; to client: forwarded %llu dropped %llu; refused %llu\n",
                (unsigned long long)s.to_server_forwarded, (unsigned long long)s.to_server_dropped,
                (unsigned long long)s.to_client_forwarded, (unsigned long long)s.to_client_dropped,
                (unsigned long long)s.refused);
    return 0;
}
