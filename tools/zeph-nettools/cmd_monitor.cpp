// zeph-nettools monitor: watches one quality site (or a plain STUN server)
// for minutes, one line per 10 s report, and a summary at the end or when
// stopped by SIGINT.
//
// Threads: main parses, starts the detection and prints; the reports arrive
// on the library's thread, which copies them into this file's inbox and
// returns. SIGINT only sets a flag that main sees within one wait step.
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "json.h"
#include "options.h"
#include "targets.h"
#include "terminal.h"

namespace cli {
namespace {

const char kMonitorHelp[] =
    "usage: zeph-nettools monitor [--level N] [--minutes M] [--stun] [--token T --param P]\n"
    "                             [--json] [-v|-vv] HOST[:PORT]\n"
    "\n"
    "Watches one site: back-to-back streams of 10 s to a zeph-quality-server\n"
    "(port 64000 unless given), or with --stun to a plain STUN server (port 3478\n"
    "unless given), and prints one report per stream until M minutes are over\n"
    "or Ctrl-C, then a summary. The client binds UDP ports 64100 and 64101 (the\n"
    "next free ones when these are taken).\n"
    "\n"
    "Each report: round trip delay (average/worst second) in ms, jitter and loss\n"
    "towards the server (out) and back (back), loss in thousandths, the longest\n"
    "runs of lost packets, and the score (0..7000, -1000 unusable). A STUN server\n"
    "tells no times of its own: all its loss shows as loss on the way back.\n"
    "\n"
    "  --level N     packets per second: 0 25, 1 50 (default), 2 100, 3 200,\n"
    "                4 200 larger, 5 400, 6 800; --stun always runs at 0\n"
    "  --minutes M   how long, in minutes (decimals allowed, default 1); at\n"
    "                least one report of 10 s\n"
    "  --stun        the site is a plain STUN server\n"
    "  --token T, --param P   send the site's token and parameter with every\n"
    "                packet (servers that check them)\n"
    "  --json        one JSON object per report, then {\"summary\": ...}; no\n"
    "                progress bar (shown on stderr when it is a terminal)\n"
    "  -v, -vv       the library's log lines on stderr\n"
    "\n"
    "Exit status: 0 done or stopped, 1 the detection could not start or a\n"
    "report did not come in time, 2 bad arguments.\n";

constexpr uint16_t kQualityPort = 64000;
constexpr uint16_t kStunPort = 3478;
constexpr uint16_t kFirstClientPort = 64100;
constexpr int kClientPorts = 2;
constexpr int kRoundSeconds = 10;
constexpr int kMaxLevel = 6;
constexpr int kDefaultLevel = 1;
constexpr double kDefaultMinutes = 1;
constexpr double kMaxMinutes = 24 * 60;
constexpr int kSecondsPerMinute = 60;
// A report is due a round (and its second of late replies) after the one
// before; this much more and it is missing.
constexpr int kReportSlackS = 6;
constexpr int kWaitStepMs = 100;

std::atomic<bool> g_stop{false};

void on_sigint(int) { g_stop.store(true); }

struct Inbox {
    std::mutex mutex;
    std::condition_variable cv;
    std::deque<std::pair<Clock::time_point, DetectQosResult>> reports;
};
// Never destroyed: a stream's thread may still report while the process
// exits after Ctrl-C.
Inbox& g_inbox = *new Inbox;

void on_report(int32_t, int32_t, int32_t, std::vector<DetectQosResult> results) {
    const auto at = Clock::now();
    {
        std::lock_guard<std::mutex> lock(g_inbox.mutex);
        for (const DetectQosResult& r : results) g_inbox.reports.emplace_back(at, r);
    }
    g_inbox.cv.notify_one();
}

// Waits for the next report until `deadline` or SIGINT.
bool next_report(std::pair<Clock::time_point, DetectQosResult>& out, Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(g_inbox.mutex);
    while (g_inbox.reports.empty()) {
        if (g_stop.load() || Clock::now() >= deadline) return false;
        g_inbox.cv.wait_for(lock, std::chrono::milliseconds(kWaitStepMs));
    }
    out = g_inbox.reports.front();
    g_inbox.reports.pop_front();
    return true;
}

// True when a UDP port of this host is free (bound and let go again).
bool udp_port_free(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return true;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    const bool ok = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

// "HOST" or "HOST:PORT".
bool parse_site(const std::string& text, uint16_t default_port, std::string& host, uint16_t& port,
                std::string& error) {
    const size_t colon = text.rfind(':');
    host = text.substr(0, colon);
    port = default_port;
    if (colon != std::string::npos && !parse_port(text.substr(colon + 1), port)) {
        error = "bad port in '" + text + "' (1..65535)";
        return false;
    }
    if (host.empty()) {
        error = "no host in '" + text + "'";
        return false;
    }
    return true;
}

bool parse_minutes(const std::string& v, double& out) {
    char* end = nullptr;
    out = std::strtod(v.c_str(), &end);
    return !v.empty() && end && *end == '\0' && std::isfinite(out) && out > 0 && out <= kMaxMinutes &&
           v.find_first_not_of("0123456789.") == std::string::npos;
}

// What the summary adds up over the reports.
struct Totals {
    int reports = 0;
    int64_t a_delay = 0, a_s_jitter = 0, a_r_jitter = 0, a_s_loss = 0, a_r_loss = 0, score = 0;
    int32_t m_delay = 0, m_s_loss = 0, m_r_loss = 0, max_s_run = 0, max_r_run = 0;
    int32_t score_min = 0, score_max = 0;

    void add(const DetectQosResult& r) {
        score_min = reports == 0 ? r.score : std::min(score_min, r.score);
        score_max = reports == 0 ? r.score : std::max(score_max, r.score);
        ++reports;
        a_delay += r.a_delay;
        a_s_jitter += r.a_s_jitter;
        a_r_jitter += r.a_r_jitter;
        a_s_loss += r.a_s_loss;
        a_r_loss += r.a_r_loss;
        score += r.score;
        m_delay = std::max(m_delay, r.m_delay);
        m_s_loss = std::max(m_s_loss, r.m_s_loss);
        m_r_loss = std::max(m_r_loss, r.m_r_loss);
        max_s_run = std::max(max_s_run, r.max_s_cont_loss_num);
        max_r_run = std::max(max_r_run, r.max_r_cont_loss_num);
    }
    int64_t avg(int64_t sum) const { return reports ? sum / reports : 0; }
};

std::string fmt(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char* format, ...) {
    char buf[256];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    return buf;
}

void print_report(int n, double t, const DetectQosResult& r, bool json) {
    if (json) {
        Json j;
        j.add("report", int32_t(n)).add("t", t).add("index", int32_t(r.index)).add("score", r.score);
        j.add("a_delay", r.a_delay).add("m_delay", r.m_delay);
        j.add("a_s_jitter", r.a_s_jitter).add("m_s_jitter", r.m_s_jitter);
        j.add("a_r_jitter", r.a_r_jitter).add("m_r_jitter", r.m_r_jitter);
        j.add("a_s_loss", r.a_s_loss).add("m_s_loss", r.m_s_loss);
        j.add("a_r_loss", r.a_r_loss).add("m_r_loss", r.m_r_loss);
        j.add("max_s_cont_loss_num", r.max_s_cont_loss_num).add("max_r_cont_loss_num", r.max_r_cont_loss_num);
        out(j.str() + "\n");
        return;
    }
    out(fmt("%3d %7.1f %5d %6d %6d %5d %5d %5d %5d %6d %6d %6d %6d %4d %4d %6d\n", n, t, r.index, r.a_delay,
            r.m_delay, r.a_s_jitter, r.m_s_jitter, r.a_r_jitter, r.m_r_jitter, r.a_s_loss, r.m_s_loss, r.a_r_loss,
            r.m_r_loss, r.max_s_cont_loss_num, r.max_r_cont_loss_num, r.score));
}

void print_header(bool json) {
    if (json) return;
    out("                      delay ms   jitter out   jitter back    loss out     loss back    runs\n"
        "  # t (s) sock    avg  worst   avg worst   avg worst    avg  worst    avg  worst  out back  score\n");
}

void print_summary(const Totals& t, double seconds, bool stopped, bool json) {
    if (json) {
        Json s;
        s.add("reports", int32_t(t.reports)).raw("stopped", stopped ? "true" : "false").add("seconds", seconds);
        if (t.reports > 0) {
            s.add("a_delay", t.avg(t.a_delay)).add("m_delay", t.m_delay);
            s.add("a_s_jitter", t.avg(t.a_s_jitter)).add("a_r_jitter", t.avg(t.a_r_jitter));
            s.add("a_s_loss", t.avg(t.a_s_loss)).add("m_s_loss", t.m_s_loss);
            s.add("a_r_loss", t.avg(t.a_r_loss)).add("m_r_loss", t.m_r_loss);
            s.add("max_s_cont_loss_num", t.max_s_run).add("max_r_cont_loss_num", t.max_r_run);
            s.add("score_min", t.score_min).add("score_avg", t.avg(t.score)).add("score_max", t.score_max);
        }
        out(Json().raw("summary", s.str()).str() + "\n");
        return;
    }
    out(fmt("%s after %.1f s: %d report(s)\n", stopped ? "stopped" : "done", seconds, t.reports));
    if (t.reports == 0) return;
    out(fmt("  delay avg %lld ms, worst second %d ms; jitter avg out %lld back %lld ms\n",
            static_cast<long long>(t.avg(t.a_delay)), t.m_delay, static_cast<long long>(t.avg(t.a_s_jitter)),
            static_cast<long long>(t.avg(t.a_r_jitter))));
    out(fmt("  loss avg out %lld back %lld per mille, worst second out %d back %d; longest runs out %d back %d\n",
            static_cast<long long>(t.avg(t.a_s_loss)), static_cast<long long>(t.avg(t.a_r_loss)), t.m_s_loss,
            t.m_r_loss, t.max_s_run, t.max_r_run));
    out(fmt("  score min %d avg %lld max %d\n", t.score_min, static_cast<long long>(t.avg(t.score)), t.score_max));
}

} // namespace

int cmd_monitor(int argc, char** argv) {
    const std::string cmd = "monitor";
    CommonOptions opt;
    std::string site_text, token, param;
    uint64_t level = kDefaultLevel;
    double minutes = kDefaultMinutes;
    bool stun = false, have_token = false, have_param = false;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        std::string error;
        if (a.size() > 1 && a[0] == '-') {
            const OptResult r = take_common_option(argc, argv, i, opt, error);
            if (r == OptResult::Bad) return usage_error(cmd, error);
            if (r == OptResult::Taken) continue;
            if (a == "--stun") {
                stun = true;
                continue;
            }
            if (a == "--level" || a == "--minutes" || a == "--token" || a == "--param") {
                if (i + 1 >= argc) return usage_error(cmd, a + " needs a value");
                const std::string v = argv[++i];
                if (a == "--level" && !parse_uint(v, 0, kMaxLevel, level))
                    return usage_error(cmd, "bad --level '" + v + "' (0..6)");
                if (a == "--minutes" && !parse_minutes(v, minutes))
                    return usage_error(cmd, "bad --minutes '" + v + "' (a number above 0, at most 1440)");
                if (a == "--token") token = v, have_token = true;
                if (a == "--param") param = v, have_param = true;
                continue;
            }
            return usage_error(cmd, "unknown option '" + a + "'");
        }
        if (!site_text.empty()) return usage_error(cmd, "one site at a time");
        site_text = a;
    }
    if (opt.help) {
        out(kMonitorHelp);
        return kExitOk;
    }
    if (site_text.empty()) return usage_error(cmd, "no site (HOST[:PORT])");
    if (have_token != have_param) return usage_error(cmd, "--token and --param go together");
    if (have_token && (token.empty() || token.size() > 64 || param.empty() || param.size() > 128))
        return usage_error(cmd, "the token takes 1..64 bytes, the parameter 1..128");

    DetectSiteInfo site;
    std::string error;
    if (!parse_site(site_text, stun ? kStunPort : kQualityPort, site.ip, site.port, error))
        return usage_error(cmd, error);
    uint32_t addr = 0;
    if (!resolve_ipv4(site.ip, addr)) return run_error(cmd, "cannot resolve '" + site.ip + "' to an IPv4 address");
    site.auth_token = token;
    site.auth_para = param;

    const int time_len =
        std::max(kRoundSeconds, static_cast<int>(std::lround(minutes * kSecondsPerMinute)));
    const int rounds = time_len / kRoundSeconds;
    const std::string problem = apply_common(opt);
    if (!problem.empty()) return usage_error(cmd, problem);

    for (int i = 0; i < kClientPorts; ++i) {
        const uint16_t port = static_cast<uint16_t>(kFirstClientPort + i);
        if (!udp_port_free(port))
            err(fmt("zeph-nettools: monitor: client port %u/udp is taken (another detection running?); "
                    "the next free port is used instead\n",
                    port));
    }

    struct sigaction sa = {};
    sa.sa_handler = on_sigint;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);

    DetectBwConfig config{have_token ? 1 : 0, static_cast<int32_t>(level), time_len, on_report};
    const auto t0 = Clock::now();
    const uint32_t rc = stun ? zeph_detect_start_stun_long_time(&site, &config)
                             : zeph_detect_start_long_time_bw(&site, &config);
    if (rc != 0) return run_error(cmd, "the detection could not start (code " + std::to_string(rc) + ")");
    if (!opt.json)
        out(fmt("monitoring %s:%u%s at level %d for %d s: a report every %d s\n", site.ip.c_str(), site.port,
                stun ? " (STUN)" : "", config.level, time_len, kRoundSeconds));
    print_header(opt.json);

    Totals totals;
    bool missing = false;
    auto last = t0;
    {
        // A bar over the whole run on a terminal; nothing beside JSON.
        std::optional<Progress> progress;
        if (!opt.json) progress.emplace("monitor " + site_text, std::chrono::seconds(time_len));
        while (totals.reports < rounds && !g_stop.load()) {
            std::pair<Clock::time_point, DetectQosResult> r;
            if (!next_report(r, last + std::chrono::seconds(kRoundSeconds + kReportSlackS))) {
                missing = !g_stop.load();
                break;
            }
            last = r.first;
            totals.add(r.second);
            print_report(totals.reports, seconds_since(t0, r.first), r.second, opt.json);
        }
    }
    print_summary(totals, seconds_since(t0, Clock::now()), g_stop.load(), opt.json);
    if (missing)
        return run_error(cmd, "no report within " + std::to_string(kRoundSeconds + kReportSlackS) +
                                  " s (the client sockets could not be made? see -v)");
    return kExitOk;
}

} // namespace cli
