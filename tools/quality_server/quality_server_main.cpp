// zeph-quality-server: the quality probe's server as a program, in the
// foreground.
//
//   zeph-quality-server [--addr IP] [--json] [--every SECONDS] [-v]
//
// Runs on the main thread, which reports and waits for SIGINT or SIGTERM;
// the server's own thread answers the clients.
#include <signal.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "bwdetect/detect_server.h"
#include "commonlib/zeph_commonlib.h"
#include "ipv4.h"
#include "zeph_nettools/settings.h"

namespace {

const char kUsage[] =
    "usage: zeph-quality-server [--addr IP] [--json] [--every SECONDS] [-v]\n"
    "\n"
    "Answers quality probes on UDP port 64000 until SIGINT or SIGTERM. Prints the\n"
    "address it answers on, then every few seconds a line for each client heard\n"
    "since the last report (packets, rate, first and last seen, in seconds since\n"
    "the start) and a summary; the same once more when it stops.\n"
    "\n"
    "  --addr IP         local IPv4 address to answer on (default: the address of\n"
    "                    the interface that routes outward)\n"
    "  --json            one JSON object per line instead of text\n"
    "  --every SECONDS   seconds between reports, 1 to 3600 (default 5)\n"
    "  -v, -vv           the server's log lines on stderr down to info, debug\n"
    "  --version         print the version and exit\n";

constexpr unsigned kDefaultEverySeconds = 5;
constexpr unsigned kMaxEverySeconds = 3600;
constexpr uint16_t kStartPort = DetectServer::kServerPort; // any non-zero port starts it
constexpr double kMsPerSecond = 1000.0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

int Usage(const std::string& why)
{
    std::fprintf(stderr, "zeph-quality-server: %s (see --help)\n", why.c_str());
    return kExitUsage;
}

struct Options {
    std::string addr;
    bool json = false;
    unsigned every = kDefaultEverySeconds;
    int log_level = ZEPH_LOG_WARNING;
};

using ClientId = std::tuple<uint32_t, uint16_t, uint32_t>;

ClientId IdOf(const DetectServerClientKey& k) { return ClientId(k.addr, k.port, k.session); }

class Reporter {
public:
    Reporter(const Options& opt, int64_t started) : m_opt(opt), m_last_report(started) {}

    void Listening(const std::string& addr, uint16_t port) const
    {
        if (m_opt.json) {
            std::printf("{\"event\":\"listening\",\"addr\":\"%s\",\"port\":%u}\n", addr.c_str(), unsigned(port));
        } else {
            std::printf("listening on %s:%u\n", addr.c_str(), unsigned(port));
        }
        std::fflush(stdout);
    }

    // One line per client heard since the last report, then the summary.
    void Report(const std::vector<DetectServerClientInfo>& clients, int64_t now, const char* event)
    {
        const double span = double(now - m_last_report) / kMsPerSecond;
        std::map<ClientId, uint64_t> seen;
        uint64_t total = 0;
        size_t active = 0;
        for (const DetectServerClientInfo& c : clients) {
            const ClientId id = IdOf(c.key);
            seen[id] = c.packets;
            total += c.packets;
            auto before = m_packets.find(id);
            const uint64_t old = before == m_packets.end() ? 0 : before->second;
            if (c.packets == old) continue;
            ++active;
            const double rate = span > 0 ? double(c.packets - old) / span : 0.0;
            Client(c, rate);
        }
        m_packets.swap(seen);
        m_last_report = now;
        if (m_opt.json) {
            std::printf("{\"event\":\"%s\",\"clients\":%zu,\"active\":%zu,\"packets\":%" PRIu64
                        ",\"uptime_ms\":%" PRId64 "}\n",
                        event, clients.size(), active, total, now);
        } else {
            std::printf("%s: %zu clients, %zu active, %" PRIu64 " packets answered, up %.1f s\n", event,
                        clients.size(), active, total, double(now) / kMsPerSecond);
        }
        std::fflush(stdout);
    }

private:
    void Client(const DetectServerClientInfo& c, double rate) const
    {
        const std::string addr = zeph_tools::ipv4_text(c.key.addr);
        if (m_opt.json) {
            std::printf("{\"event\":\"client\",\"addr\":\"%s\",\"port\":%u,\"session\":%u,\"packets\":%" PRIu64
                        ",\"rate\":%.1f,\"first_seen_ms\":%" PRId64 ",\"last_seen_ms\":%" PRId64 "}\n",
                        addr.c_str(), unsigned(c.key.port), unsigned(c.key.session), c.packets, rate, c.first_seen,
                        c.last_seen);
        } else {
            std::printf("client %s:%u session %08x: %" PRIu64 " packets, %.1f/s, first %.1f s, last %.1f s\n",
                        addr.c_str(), unsigned(c.key.port), unsigned(c.key.session), c.packets, rate,
                        double(c.first_seen) / kMsPerSecond, double(c.last_seen) / kMsPerSecond);
        }
    }

    const Options& m_opt;
    int64_t m_last_report;
    std::map<ClientId, uint64_t> m_packets; // packets of each client at the last report
};

bool ParseSeconds(const std::string& s, unsigned& out)
{
    if (s.empty() || s.size() > 4 || s.find_first_not_of("0123456789") != std::string::npos) return false;
    const unsigned long v = std::strtoul(s.c_str(), nullptr, 10);
    if (v < 1 || v > kMaxEverySeconds) return false;
    out = unsigned(v);
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    Options opt;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (a == "--version") {
            std::puts("zeph-quality-server " ZEPH_NETTOOLS_VERSION);
            return 0;
        }
        if (a == "--addr" && i + 1 < argc) {
            opt.addr = argv[++i];
            uint32_t be = 0;
            if (!zeph_tools::ipv4_parse(opt.addr, be)) return Usage("--addr takes a dotted IPv4 address");
        } else if (a == "--json") {
            opt.json = true;
        } else if (a == "--every" && i + 1 < argc) {
            if (!ParseSeconds(argv[++i], opt.every)) return Usage("--every takes 1 to 3600 seconds");
        } else if (a == "-v") {
            opt.log_level = ZEPH_LOG_INFO;
        } else if (a == "-vv") {
            opt.log_level = ZEPH_LOG_DEBUG;
        } else {
            return Usage("unknown option " + a);
        }
    }
    zeph_settings_set_log_sink(nullptr, nullptr, opt.log_level);
    if (!opt.addr.empty() && zeph_settings_set_local_addr(opt.addr.c_str()) != 0) {
        return Usage("--addr takes a dotted IPv4 address");
    }

    // Block the stop signals before the server's thread starts, so that only
    // the wait below receives them.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    DetectServer* server = DetectServer::get_instance();
    if (server == nullptr) {
        std::fputs("zeph-quality-server: out of memory\n", stderr);
        return kExitFailed;
    }
    const std::string addr = zeph_tools::ipv4_text(zeph_get_local_addr());
    const int32_t rc = server->start_server(kStartPort);
    if (rc != DetectServer::kStarted) {
        std::fprintf(stderr, "zeph-quality-server: cannot answer on %s:%u (error %d: the port is taken or the "
                             "address is not local)\n",
                     addr.c_str(), unsigned(DetectServer::kServerPort), int(rc));
        DetectServer::destroy_instance();
        return kExitFailed;
    }
    Reporter reporter(opt, server->get_runtime_current());
    reporter.Listening(addr, DetectServer::kServerPort);

    const timespec every = {time_t(opt.every), 0};
    for (;;) {
        const int sig = sigtimedwait(&stop_signals, nullptr, &every);
        if (sig == SIGTERM || sig == SIGINT) break;
        if (sig < 0 && errno != EAGAIN && errno != EINTR) break;
        if (sig < 0 && errno == EAGAIN) reporter.Report(server->clients(), server->get_runtime_current(), "summary");
    }
    server->stop_server();
    reporter.Report(server->clients(), server->get_runtime_current(), "stopped");
    DetectServer::destroy_instance();
    return 0;
}
