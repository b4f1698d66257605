// zeph-nettools quality: scores up to ten quality servers at once and names
// the best. The callback (a library thread) copies the report into a queue
// of this file; main waits for it, prints it and returns.
#include "cmd_quality.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <zeph_nettools/net_tools.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <optional>

#include "commands.h"
#include "json.h"
#include "options.h"
#include "targets.h"
#include "terminal.h"

namespace cli {
namespace {

const char kQualityHelp[] =
    "usage: zeph-nettools quality [--json] [--token T] [--para P] [-v|-vv] SITE [SITE...]\n"
    "\n"
    "Scores up to 10 quality servers (zeph-quality-server) at once: a 3 s UDP\n"
    "stream to each, the rate shared evenly among them, echoed by the server.\n"
    "Prints per site the round-trip delay, the jitter and loss in each direction\n"
    "(up: towards the server, down: back), the longest runs of lost packets and\n"
    "the score (0..7000, higher is better; -1000: unusable), then the best site\n"
    "(ties go to the first).\n"
    "\n"
    "SITE is HOST[:PORT][,base=MS][,token=T][,para=P][,name=TEXT]:\n"
    "  PORT      the server's UDP port (default 64000)\n"
    "  base=MS   milliseconds added to the site's one-way delay when scoring\n"
    "  token, para  what the site's server checks (1-64 and 1-128 bytes)\n"
    "  name      how the table calls the site\n"
    "\n"
    "  --token T, --para P  the token and parameter of sites that give none\n"
    "                (default zeph-nettools, quality)\n"
    "  --json        one JSON object per site, then one naming the best\n"
    "  -v, -vv       the library's log lines on stderr (hidden by default)\n"
    "\n"
    "The client binds one UDP port per site from 64100 up; when those are taken\n"
    "(another quality run), it says so. Figures: delays and jitters in ms, loss\n"
    "in thousandths (per mille); '-' where nothing came back. On a terminal a bar\n"
    "on stderr follows the stream (none with --json).\n"
    "\n"
    "Exit status: 0 done, 1 the detection could not start, failed or did not\n"
    "report in time, 2 bad arguments.\n";

constexpr size_t kMaxSites = 10;
constexpr int kStreamSeconds = 3; // each site's stream
constexpr uint32_t kMaxDelaybase = 60000;
constexpr size_t kMaxToken = 64;
constexpr size_t kMaxPara = 128;
// The stream, the library's waits behind it and the scoring, with room.
constexpr int kReportDeadlineS = 20;
constexpr uint16_t kFirstClientPort = 64100;
constexpr uint32_t kClientBindTries = 64;
constexpr int32_t kNoSocket = 23;
constexpr int32_t kRefused = 31;
constexpr int32_t kNoDelay = 10000; // a delay or jitter that could not be measured
constexpr int32_t kAllLost = 1000;  // a loss rate of nothing answered
constexpr int32_t kUnusable = -1000;

struct Report {
    int32_t code = 0;
    int32_t best = 0;
    std::vector<DetectQosResult> results;
    Clock::time_point at;
};

std::mutex g_mu;
std::condition_variable g_cv;
std::vector<Report> g_reports;

void on_quality(int32_t, int32_t code, int32_t best, std::vector<DetectQosResult> results) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_reports.push_back({code, best, std::move(results), Clock::now()});
    g_cv.notify_all();
}

bool next_report(Report& r, Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(g_mu);
    if (!g_cv.wait_until(lock, deadline, [] { return !g_reports.empty(); })) return false;
    r = std::move(g_reports.front());
    g_reports.erase(g_reports.begin());
    return true;
}

// The client ports the library will take, bound the same way (any address,
// from 64100 + the site's place up, 64 tries): the first site that finds
// none, or -1 when every site finds one. The ports are let go at once.
int site_without_client_port(size_t sites) {
    std::vector<int> held;
    int missing = -1;
    for (size_t i = 0; i < sites && missing < 0; ++i) {
        bool bound = false;
        for (uint32_t t = 0; t < kClientBindTries && !bound; ++t) {
            const uint32_t port = kFirstClientPort + i + t;
            if (port > UINT16_MAX) break;
            const int fd = socket(AF_INET, SOCK_DGRAM, 0);
            if (fd < 0) break;
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_port = htons(uint16_t(port));
            if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
                held.push_back(fd);
                bound = true;
            } else {
                close(fd);
            }
        }
        if (!bound) missing = int(i);
    }
    for (int fd : held) close(fd);
    return missing;
}

std::string ports_taken(int site) {
    const unsigned first = kFirstClientPort + unsigned(site);
    return "the quality client ports are taken: site " + std::to_string(site + 1) + " found no free UDP port in " +
           std::to_string(first) + "-" + std::to_string(first + kClientBindTries - 1) +
           " (another quality detection running? try again when it ends)";
}

std::string fig(int32_t v, int32_t none) { return v >= none ? "-" : std::to_string(v); }
std::string pair(int32_t avg, int32_t max, int32_t none) { return fig(avg, none) + "/" + fig(max, none); }

void print_table(const std::vector<QualitySite>& sites, const Report& r) {
    char line[256];
    std::string text;
    std::snprintf(line, sizeof line, "%-24s %6s %11s %11s %11s %11s %11s %7s\n", "site", "score", "rtt avg/max",
                  "jit up", "jit down", "loss up", "loss down", "runs");
    text += line;
    for (size_t i = 0; i < r.results.size(); ++i) {
        const DetectQosResult& q = r.results[i];
        const std::string name = (i < sites.size() ? sites[i].label : "?") + (q.is_pre ? " *" : "");
        const std::string score = q.score == kUnusable ? "unusable" : std::to_string(q.score);
        const std::string runs = std::to_string(q.max_s_cont_loss_num) + "/" + std::to_string(q.max_r_cont_loss_num);
        std::snprintf(line, sizeof line, "%-24s %6s %11s %11s %11s %11s %11s %7s\n", name.c_str(), score.c_str(),
                      pair(q.a_delay, q.m_delay, kNoDelay).c_str(), pair(q.a_s_jitter, q.m_s_jitter, kNoDelay).c_str(),
                      pair(q.a_r_jitter, q.m_r_jitter, kNoDelay).c_str(), pair(q.a_s_loss, q.m_s_loss, kAllLost + 1).c_str(),
                      pair(q.a_r_loss, q.m_r_loss, kAllLost + 1).c_str(), runs.c_str());
        text += line;
    }
    for (size_t i = 0; i < r.results.size(); ++i)
        if (r.results[i].is_pre && i < sites.size()) text += "best: " + sites[i].label + "\n";
    out(text);
}

void print_json(const std::vector<QualitySite>& sites, const Report& r, double elapsed, const char* phase) {
    std::string text;
    for (size_t i = 0; i < r.results.size(); ++i) {
        const DetectQosResult& q = r.results[i];
        Json j;
        if (phase) j.add("phase", phase);
        j.add("site", i < sites.size() ? sites[i].label : std::string("?"));
        j.add("index", int32_t(q.index)).add("score", q.score).add("best", uint32_t(q.is_pre));
        j.add("rtt_avg_ms", q.a_delay).add("rtt_max_ms", q.m_delay);
        j.add("jitter_up_avg_ms", q.a_s_jitter).add("jitter_up_max_ms", q.m_s_jitter);
        j.add("jitter_down_avg_ms", q.a_r_jitter).add("jitter_down_max_ms", q.m_r_jitter);
        j.add("loss_up_avg_permille", q.a_s_loss).add("loss_up_max_permille", q.m_s_loss);
        j.add("loss_down_avg_permille", q.a_r_loss).add("loss_down_max_permille", q.m_r_loss);
        j.add("loss_run_up", q.max_s_cont_loss_num).add("loss_run_down", q.max_r_cont_loss_num);
        text += j.str() + "\n";
    }
    Json best;
    if (phase) best.add("phase", phase);
    for (size_t i = 0; i < r.results.size(); ++i)
        if (r.results[i].is_pre && i < sites.size()) best.add("best", sites[i].label);
    best.add("best_index", r.best).add("elapsed_s", elapsed);
    out(text + best.str() + "\n");
}

bool take_value(const std::string& item, const char* key, std::string& value) {
    const std::string k = std::string(key) + "=";
    if (item.compare(0, k.size(), k) != 0) return false;
    value = item.substr(k.size());
    return true;
}

} // namespace

bool parse_quality_site(const std::string& text, QualitySite& site, std::string& error) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        const size_t c = text.find(',', start);
        parts.push_back(text.substr(start, c == std::string::npos ? std::string::npos : c - start));
        if (c == std::string::npos) break;
        start = c + 1;
    }
    const std::string& hp = parts[0];
    const size_t colon = hp.rfind(':');
    site.host = colon == std::string::npos ? hp : hp.substr(0, colon);
    if (site.host.empty()) {
        error = "bad site '" + text + "': no host (HOST[:PORT][,base=MS][,token=T][,para=P])";
        return false;
    }
    if (colon != std::string::npos && !parse_port(hp.substr(colon + 1), site.port)) {
        error = "bad port in site '" + text + "' (1..65535)";
        return false;
    }
    for (size_t i = 1; i < parts.size(); ++i) {
        std::string v;
        if (take_value(parts[i], "base", v)) {
            uint64_t n = 0;
            if (!parse_uint(v, 0, kMaxDelaybase, n)) {
                error = "bad base= in site '" + text + "' (0.." + std::to_string(kMaxDelaybase) + " ms)";
                return false;
            }
            site.delaybase = uint32_t(n);
        } else if (take_value(parts[i], "token", v)) {
            site.token = v;
        } else if (take_value(parts[i], "para", v)) {
            site.para = v;
        } else if (take_value(parts[i], "name", v)) {
            site.label = v;
        } else {
            error = "unknown item '" + parts[i] + "' in site '" + text + "' (base=, token=, para=, name=)";
            return false;
        }
    }
    if (site.token.empty() || site.token.size() > kMaxToken) {
        error = "the token of site '" + site.host + "' must be 1 to 64 bytes, got " +
                std::to_string(site.token.size());
        return false;
    }
    if (site.para.empty() || site.para.size() > kMaxPara) {
        error = "the parameter of site '" + site.host + "' must be 1 to 128 bytes, got " +
                std::to_string(site.para.size());
        return false;
    }
    uint32_t addr = 0;
    if (!resolve_ipv4(site.host, addr)) {
        error = "cannot resolve '" + site.host + "' to an IPv4 address";
        return false;
    }
    if (site.label.empty()) site.label = site.host + ":" + std::to_string(site.port);
    return true;
}

int run_quality(const std::string& cmd, const std::vector<QualitySite>& sites, bool json, const char* phase) {
    const int taken = site_without_client_port(sites.size());
    if (taken >= 0) return run_error(cmd, ports_taken(taken));

    std::vector<DetectSiteInfo> infos;
    for (size_t i = 0; i < sites.size(); ++i) {
        DetectSiteInfo s;
        s.index = int16_t(i);
        s.ip = sites[i].host;
        s.port = sites[i].port;
        s.delaybase = sites[i].delaybase;
        s.auth_token = sites[i].token;
        s.auth_para = sites[i].para;
        infos.push_back(s);
    }
    const auto t0 = Clock::now();
    const uint32_t rc = zeph_detect_start_mult_site_client(infos, on_quality);
    if (rc != 0) return run_error(cmd, "the quality detection could not start (code " + std::to_string(rc) + ")");
    if (!json)
        out("quality of " + std::to_string(sites.size()) + " site(s): a 3 s stream to each, at once\n");
    Report r;
    {
        // A bar over the stream on a terminal; nothing beside JSON.
        std::optional<Progress> progress;
        if (!json)
            progress.emplace("streaming to " + std::to_string(sites.size()) + " site(s), then scoring",
                             std::chrono::seconds(kStreamSeconds));
        if (!next_report(r, t0 + std::chrono::seconds(kReportDeadlineS)))
            return run_error(cmd, "no result within " + std::to_string(kReportDeadlineS) + " s");
    }
    if (r.code == kNoSocket) {
        const int now_taken = site_without_client_port(sites.size());
        return run_error(cmd, now_taken >= 0 ? ports_taken(now_taken)
                                             : "a site got no client socket (its address did not resolve)");
    }
    if (r.code == kRefused) return run_error(cmd, "a server refused the token (code 31)");
    if (r.code != 0) return run_error(cmd, "the detection failed (code " + std::to_string(r.code) + ")");
    if (json)
        print_json(sites, r, seconds_since(t0, r.at), phase);
    else
        print_table(sites, r);
    return kExitOk;
}

int cmd_quality(int argc, char** argv) {
    const std::string cmd = "quality";
    CommonOptions opt;
    std::vector<std::string> texts;
    std::string token, para;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        std::string error;
        if (a.size() > 1 && a[0] == '-') {
            OptResult r = take_common_option(argc, argv, i, opt, error);
            if (r == OptResult::Bad) return usage_error(cmd, error);
            if (r == OptResult::Taken) continue;
            if (a == "--token" || a == "--para") {
                if (i + 1 >= argc) return usage_error(cmd, a + " needs a value");
                (a == "--token" ? token : para) = argv[++i];
                continue;
            }
            return usage_error(cmd, "unknown option '" + a + "'");
        }
        texts.push_back(a);
    }
    if (opt.help) {
        out(kQualityHelp);
        return kExitOk;
    }
    if (!opt.proxy_host.empty()) return usage_error(cmd, "--proxy does not apply: the quality probe is UDP");
    if (texts.empty()) return usage_error(cmd, "no site (HOST[:PORT][,base=MS][,token=T][,para=P])");
    if (texts.size() > kMaxSites)
        return usage_error(cmd, "at most " + std::to_string(kMaxSites) + " sites, got " + std::to_string(texts.size()));
    std::vector<QualitySite> sites;
    for (const std::string& t : texts) {
        QualitySite s;
        if (!token.empty()) s.token = token;
        if (!para.empty()) s.para = para;
        std::string error;
        if (!parse_quality_site(t, s, error)) return usage_error(cmd, error);
        sites.push_back(s);
    }
    std::string problem = apply_common(opt);
    if (!problem.empty()) return usage_error(cmd, problem);
    return run_quality(cmd, sites, opt.json);
}

} // namespace cli
