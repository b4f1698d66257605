// zeph-nettools sites: races up to 32 sites with one burst of probes each and
// names the nearest. The callbacks (the library's message thread) copy each
// report into a queue of this file; main waits for them and prints.
#include "cmd_sites.h"

#include <zeph_nettools/net_tools.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "commands.h"
#include "json.h"
#include "options.h"
#include "terminal.h"

namespace cli {
namespace {

const char kSitesHelp[] =
    "usage: zeph-nettools sites [--json] [-v|-vv] SITE [SITE...]\n"
    "\n"
    "Races up to 32 servers that answer NPS probes (zeph-quality-server does):\n"
    "32 probes to each in one burst, and the first site whose answer comes back\n"
    "is the nearest. Prints that site as soon as it answers, then, about a\n"
    "second after the burst, a row per site: the delay of its first answer and\n"
    "the share of probes that got none. Rows come ascending by hold-back, in the\n"
    "order given among equals. A name that does not resolve within a second\n"
    "leaves the race and the table.\n"
    "\n"
    "SITE is HOST[:PORT][@DELAY]:\n"
    "  PORT      the server's UDP port (default 64000)\n"
    "  DELAY     milliseconds to hold the site back (0..300, default 0): sites\n"
    "            with the same DELAY are probed together, a later group that\n"
    "            much later, and its delay counts from its own sending\n"
    "\n"
    "  --json        one JSON object for the first answer, then one per site\n"
    "  -v, -vv       the library's log lines on stderr (hidden by default)\n"
    "\n"
    "Figures: delay in ms from the group's sending, '-' without an answer;\n"
    "discard in percent.\n"
    "\n"
    "Exit status: 0 done (whatever answered), 1 the race could not start or did\n"
    "not report in time, 2 bad arguments.\n";

constexpr size_t kMaxSites = 32;
constexpr uint16_t kMaxCategoryDelay = 300;
constexpr uint16_t kDefaultPort = 64000;
constexpr uint16_t kNoAnswer = 65535;
constexpr uint32_t kBestReport = 0;
constexpr uint32_t kTableReport = 1;
// Names (1 s), the burst and its answers (1 s), with room.
constexpr int kReportDeadlineS = 8;

struct Report {
    uint32_t kind = 0;
    std::vector<OptSiteInfo> rows;
    Clock::time_point at;
};

std::mutex g_mu;
std::condition_variable g_cv;
std::vector<Report> g_reports;

void on_sites(int32_t, int32_t, uint32_t kind, const std::vector<OptSiteInfo>& rows) {
    std::lock_guard<std::mutex> lock(g_mu);
    g_reports.push_back({kind, rows, Clock::now()});
    g_cv.notify_all();
}

bool next_report(Report& r, Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(g_mu);
    if (!g_cv.wait_until(lock, deadline, [] { return !g_reports.empty(); })) return false;
    r = std::move(g_reports.front());
    g_reports.erase(g_reports.begin());
    return true;
}

std::string pad(std::string s, size_t width) {
    if (s.size() < width) s.append(width - s.size(), ' ');
    return s;
}

std::string delay_text(uint16_t delay) { return delay == kNoAnswer ? "-" : std::to_string(delay); }

void print_best(const OptSiteInfo& r, const std::string& label, double elapsed_s, bool json, const char* phase) {
    if (json) {
        Json j;
        if (phase != nullptr) j.add("phase", phase);
        j.add("event", "first").add("site", label).add("addr", r.addr).add("port", uint32_t(r.port));
        j.add("category_delay", uint32_t(r.category_delay)).add("delay_ms", uint32_t(r.delay));
        j.add("elapsed_s", elapsed_s);
        out(j.str() + "\n");
        return;
    }
    char tail[64];
    std::snprintf(tail, sizeof tail, " after %u ms (at %.2f s)\n", unsigned(r.delay), elapsed_s);
    out("first answer: " + label + tail);
}

void print_table(const std::vector<OptSiteInfo>& rows, const std::vector<std::string>& labels,
                 const std::string& best, double elapsed_s, bool json, const char* phase) {
    if (json) {
        for (size_t i = 0; i < rows.size(); ++i) {
            const OptSiteInfo& r = rows[i];
            Json j;
            if (phase != nullptr) j.add("phase", phase);
            j.add("event", "site").add("rank", uint32_t(i + 1)).add("site", labels[i]).add("addr", r.addr);
            j.add("port", uint32_t(r.port)).add("category_delay", uint32_t(r.category_delay));
            if (r.delay == kNoAnswer) {
                j.raw("delay_ms", "null");
            } else {
                j.add("delay_ms", uint32_t(r.delay));
            }
            j.add("discard_pct", uint32_t(r.discard)).raw("answered", r.delay == kNoAnswer ? "false" : "true");
            j.raw("first", labels[i] == best ? "true" : "false").add("elapsed_s", elapsed_s);
            out(j.str() + "\n");
        }
        return;
    }
    size_t width = 4;
    for (const std::string& l : labels) width = std::max(width, l.size());
    std::string text = "  " + pad("site", width) + "  hold-back  delay ms  discard %\n";
    for (size_t i = 0; i < rows.size(); ++i) {
        const OptSiteInfo& r = rows[i];
        char cols[64];
        std::snprintf(cols, sizeof cols, "  %9u  %8s  %9u", unsigned(r.category_delay), delay_text(r.delay).c_str(),
                      unsigned(r.discard));
        text += (labels[i] == best ? "* " : "  ") + pad(labels[i], width) + cols + "\n";
    }
    if (rows.empty()) text += "  (no site took part: none had an address)\n";
    char tail[48];
    std::snprintf(tail, sizeof tail, "table at %.2f s", elapsed_s);
    text += std::string(tail) + (best.empty() ? ", no site answered\n" : "; * answered first\n");
    out(text);
}

} // namespace

bool parse_race_site(const std::string& text, RaceSite& site, std::string& error) {
    site = RaceSite();
    std::string rest = text;
    const size_t at = rest.rfind('@');
    if (at != std::string::npos) {
        uint64_t v = 0;
        const std::string d = rest.substr(at + 1);
        if (!parse_uint(d, 0, kMaxCategoryDelay, v)) {
            error = "bad hold-back '" + d + "' in '" + text + "' (0.." + std::to_string(kMaxCategoryDelay) + " ms)";
            return false;
        }
        site.category_delay = uint16_t(v);
        rest = rest.substr(0, at);
    }
    const size_t colon = rest.rfind(':');
    site.port = kDefaultPort;
    if (colon != std::string::npos) {
        const std::string p = rest.substr(colon + 1);
        if (!parse_port(p, site.port)) {
            error = "bad port '" + p + "' in '" + text + "' (1..65535)";
            return false;
        }
        rest = rest.substr(0, colon);
    }
    if (rest.empty()) {
        error = "no host in '" + text + "'";
        return false;
    }
    site.host = rest;
    site.label = text;
    return true;
}

int run_sites(const std::string& cmd, const std::vector<RaceSite>& sites, bool json, const char* phase) {
    if (sites.size() > kMaxSites) return run_error(cmd, "at most 32 sites race at once");
    std::vector<OptSiteInfo> infos;
    for (size_t i = 0; i < sites.size(); ++i) {
        OptSiteInfo s;
        s.name = sites[i].label.empty() ? sites[i].host : sites[i].label;
        s.nodeName = std::to_string(i); // the way back to the label
        s.addr = sites[i].host;
        s.port = sites[i].port;
        s.category_delay = sites[i].category_delay;
        infos.push_back(s);
    }
    {
        std::lock_guard<std::mutex> lock(g_mu);
        g_reports.clear();
    }
    const auto t0 = Clock::now();
    const uint32_t rc = zeph_detect_start_opt_mult_site(infos, on_sites);
    if (rc != 0) return run_error(cmd, "the race could not start (code " + std::to_string(rc) + ")");
    if (!json) out("racing " + std::to_string(sites.size()) + " site(s)\n");
    Progress progress("site race");
    const auto deadline = t0 + std::chrono::seconds(kReportDeadlineS);
    std::string best;
    Report r;
    while (next_report(r, deadline)) {
        std::vector<std::string> labels;
        for (const OptSiteInfo& row : r.rows) labels.push_back(row.name);
        if (r.kind == kBestReport && !r.rows.empty()) {
            best = labels[0];
            print_best(r.rows[0], best, seconds_since(t0, r.at), json, phase);
        } else if (r.kind == kTableReport) {
            print_table(r.rows, labels, best, seconds_since(t0, r.at), json, phase);
            if (!json && r.rows.size() < sites.size())
                out(std::to_string(sites.size() - r.rows.size()) +
                    " site(s) left the race: no address (a name that did not resolve in time)\n");
            return kExitOk;
        }
    }
    return run_error(cmd, "no table within " + std::to_string(kReportDeadlineS) + " s");
}

int cmd_sites(int argc, char** argv) {
    const std::string cmd = "sites";
    CommonOptions opt;
    std::vector<RaceSite> sites;
    for (int i = 0; i < argc; ++i) {
        std::string a = argv[i];
        std::string error;
        if (a.size() > 1 && a[0] == '-') {
            OptResult res = take_common_option(argc, argv, i, opt, error);
            if (res == OptResult::Bad) return usage_error(cmd, error);
            if (res == OptResult::Taken) continue;
            return usage_error(cmd, "unknown option '" + a + "'");
        }
        RaceSite s;
        if (!parse_race_site(a, s, error)) return usage_error(cmd, error);
        sites.push_back(s);
    }
    if (opt.help) {
        out(kSitesHelp);
        return kExitOk;
    }
    if (sites.empty()) return usage_error(cmd, "no site");
    if (sites.size() > kMaxSites)
        return usage_error(cmd, std::to_string(sites.size()) + " sites, at most " + std::to_string(kMaxSites));
    std::string problem = apply_common(opt);
    if (!problem.empty()) return usage_error(cmd, problem);
    zeph_net_tools_init();
    return run_sites(cmd, sites, opt.json);
}

} // namespace cli
