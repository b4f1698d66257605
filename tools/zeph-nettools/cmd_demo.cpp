// zeph-nettools demo: starts its own peers on loopback and runs the
// detections against them, so that the tool can be tried on a machine with
// nothing else installed.
//
//   1. any-port detection: a STUN responder (udp), a TCP acceptor, a TCP
//      port that refuses, and an ICMP echo to 127.0.0.1;
//   2. single net detections over udp, tcp, a refusing tcp port and icmp;
//   2b. reachability of the same peers, all probed at once (reach);
//   3. the three-port detection and 4. the seven-measurement plan, which use
//      fixed ports (10002, 443, 1124), on loopback addresses of their own
//      (127.0.0.201-202 and 127.0.0.211-216);
//   5. a media session against an echoing media peer: audio over four
//      channels at 50 packets/s and video over one at 30 packets/s;
//   6. a quality run of two sites: a zeph-quality-server started beside
//      this program on 127.0.0.221 (its fixed port 64000), directly and
//      through a relay adding delay and loss.
//   7. a race of four sites for the nearest: zeph-quality-servers on
//      127.0.0.231 and .232, one reached directly and three through relays
//      (127.0.0.233-235) of different delays, one of them held back.
// What needs privileges (raw ICMP sockets, ports below 1024) is skipped with
// a one-line reason when they are missing.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <memory>

#include <zeph_nettools/media_socket.h>

#include "cmd_media.h"
#include "cmd_quality.h"
#include "cmd_sites.h"
#include "commands.h"
#include "inbox.h"
#include "loopback_peers.h"
#include "media_peer.h"
#include "options.h"
#include "reach.h"
#include "render.h"
#include "targets.h"
#include "terminal.h"
#include "udp_relay.h"

namespace cli {
namespace {

const char kDemoHelp[] =
    "usage: zeph-nettools demo [--json] [-v|-vv]\n"
    "\n"
    "Starts peers on loopback (a STUN responder, TCP acceptors, a refusing TCP\n"
    "port) and runs against them: an any-port detection, single net detections\n"
    "(udp, tcp, icmp) and, when the fixed ports 10002, 443 and 1124 can be bound\n"
    "on 127.0.0.201-216 (root), the three-port detection and the plan of seven\n"
    "measurements; last, a media session against an echoing media peer (audio\n"
    "over 4 channels, video over 1, 3 seconds); and a quality run of two sites\n"
    "against a zeph-quality-server it starts on 127.0.0.221:64000, one direct\n"
    "and one through a relay adding 40 ms each way and 2 % loss; and a race for\n"
    "the nearest of four sites: quality servers on 127.0.0.231-232, one direct\n"
    "and three behind relays (127.0.0.233-235) adding 10, 30 and 5 ms each way,\n"
    "the last held back 50 ms. ICMP needs raw\n"
    "sockets (root or CAP_NET_RAW). What cannot run is skipped with a one-line\n"
    "reason. Takes about 20 seconds.\n"
    "\n"
    "  --json        one JSON object per result on stdout (reasons for skips\n"
    "                then go to stderr)\n"
    "  -v, -vv       the library's log lines on stderr (hidden by default):\n"
    "                -v errors, warnings, info; -vv also debug, with file:line\n"
    "\n"
    "Exit status: 0 done, 1 a detection could not start or did not report in\n"
    "time, 2 bad arguments.\n";

constexpr int kPhaseDeadlineS = 20;
constexpr int kPlanDeadlineS = 40;

// The quality run: the server's address, how long it may take to say that
// it listens, and the relay in front of it.
const char kQualityServerIp[] = "127.0.0.221";
constexpr uint16_t kQualityServerPort = 64000;
constexpr int kServerStartMs = 5000;
constexpr double kRelayDelayMs = 40;
constexpr double kRelayLoss = 0.02;
// The site race: two servers and three relays in front of them.
const char* const kRaceServerIps[] = {"127.0.0.231", "127.0.0.232"};
const char* const kRaceRelayIps[] = {"127.0.0.233", "127.0.0.234", "127.0.0.235"};

// zeph-quality-server as a child process beside this program, stopped by
// its PID when this object goes.
class QualityServerChild {
public:
    ~QualityServerChild() {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
        }
        if (m_fd >= 0) close(m_fd);
    }
    // Starts it on `ip` and waits until it says it listens. False with
    // `error` (its own words when it gave up, such as a taken port).
    bool start(const std::string& ip, std::string& error) {
        char self[4096];
        const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
        std::string path = "zeph-quality-server";
        if (n > 0) {
            std::string dir(self, size_t(n));
            path = dir.substr(0, dir.rfind('/') + 1) + path;
        }
        if (access(path.c_str(), X_OK) != 0) {
            error = "zeph-quality-server not found beside zeph-nettools (" + path + ")";
            return false;
        }
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) {
            error = "no pipe for zeph-quality-server";
            return false;
        }
        m_pid = fork();
        if (m_pid == 0) {
            dup2(fds[1], STDOUT_FILENO);
            dup2(fds[1], STDERR_FILENO);
            execl(path.c_str(), path.c_str(), "--addr", ip.c_str(), "--every", "3600", static_cast<char*>(nullptr));
            _exit(127);
        }
        close(fds[1]);
        m_fd = fds[0];
        if (m_pid < 0) {
            error = "cannot start zeph-quality-server";
            return false;
        }
        std::string said;
        const auto deadline = Clock::now() + std::chrono::milliseconds(kServerStartMs);
        while (Clock::now() < deadline) {
            pollfd p{m_fd, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            char buf[512];
            const ssize_t got = read(m_fd, buf, sizeof buf);
            if (got <= 0) break; // it ended
            said.append(buf, size_t(got));
            if (said.find("listening on") != std::string::npos) return true;
        }
        while (!said.empty() && said.back() == '\n') said.pop_back();
        const std::string prefix = "zeph-quality-server: ";
        if (said.compare(0, prefix.size(), prefix) == 0) said = said.substr(prefix.size());
        error = said.empty() ? "zeph-quality-server did not start in time" : said;
        return false;
    }

private:
    pid_t m_pid = -1;
    int m_fd = -1;
};

class Demo {
public:
    explicit Demo(const CommonOptions& opt) : m_opt(opt) {}
    int run();

private:
    void note(const std::string& text) {
        if (m_opt.json)
            err("zeph-nettools: demo: " + text + "\n");
        else
            out(text + "\n");
    }
    void title(const std::string& text) {
        if (!m_opt.json) out("\n== " + text + "\n");
    }
    bool fail(const std::string& text) {
        err("zeph-nettools: demo: " + text + "\n");
        m_failed = true;
        return false;
    }
    // Starts the named peers; false with a skip note when one cannot bind.
    bool start_fixed_peers(const char* what, const std::vector<std::pair<std::string, uint16_t>>& stun,
                           const std::vector<std::pair<std::string, uint16_t>>& tcp);

    bool any_port();
    bool single_net();
    bool reach();
    bool three_port();
    bool plan();
    bool media();
    bool quality();
    bool sites();

    const CommonOptions& m_opt;
    bool m_icmp = false;
    bool m_failed = false;
    uint32_t m_num = 0;
    zeph_peers::StunResponder m_stun;
    zeph_peers::TcpAcceptor m_tcp;
    zeph_peers::ClosedTcpPort m_closed;
    zeph_peers::TcpListener m_keep{zeph_peers::TcpListener::Mode::Keep};
    zeph_peers::MediaPeer m_media{zeph_peers::MediaPeerMode::Echo};
    std::vector<std::unique_ptr<zeph_peers::StunResponder>> m_fixed_stun;
    std::vector<std::unique_ptr<zeph_peers::TcpAcceptor>> m_fixed_tcp;
};

Target make_target(const std::string& host, uint16_t port, uint8_t protocol) {
    Target t;
    t.host = host;
    t.port = port;
    t.protocol = protocol;
    resolve_ipv4(host, t.addr);
    return t;
}

bool Demo::start_fixed_peers(const char* what, const std::vector<std::pair<std::string, uint16_t>>& stun,
                             const std::vector<std::pair<std::string, uint16_t>>& tcp) {
    std::string error;
    for (auto& p : stun) {
        m_fixed_stun.emplace_back(new zeph_peers::StunResponder);
        if (!m_fixed_stun.back()->start(p.first, p.second, &error)) {
            note(std::string("skipped ") + what + ": " + error);
            return false;
        }
    }
    for (auto& p : tcp) {
        m_fixed_tcp.emplace_back(new zeph_peers::TcpAcceptor);
        if (!m_fixed_tcp.back()->start(p.first, p.second, &error)) {
            note(std::string("skipped ") + what + ": " + error);
            return false;
        }
    }
    return true;
}

bool Demo::any_port() {
    title("any-port detection");
    Groups groups(2);
    groups[0].push_back(make_target("127.0.0.1", m_stun.port(), ZEPH_TRANS_UDP));
    groups[0].push_back(make_target("127.0.0.1", m_tcp.port(), ZEPH_TRANS_TCP));
    groups[1].push_back(make_target("127.0.0.1", m_closed.port(), ZEPH_TRANS_TCP));
    if (m_icmp)
        groups[1].push_back(make_target("127.0.0.1", 1, ZEPH_TRANS_ICMP));
    else
        note("skipped the ICMP target: raw ICMP sockets need root or CAP_NET_RAW");
    static PortDetectInfo info;
    fill_port_info(groups, info);
    const uint32_t num = ++m_num;
    const auto t0 = Clock::now();
    if (zeph_any_port_detect(num, &info, on_any_port) != 0) return fail("the any-port detection could not start");
    Progress progress("any-port detection");
    Event ev;
    while (next_event(ev, t0 + std::chrono::seconds(kPhaseDeadlineS))) {
        if (ev.kind != Event::AnyPort || ev.num() != num) continue;
        print_any_port(ev, groups, seconds_since(t0, ev.at), m_opt.json, "any_port");
        return true;
    }
    return fail("no any-port result within " + std::to_string(kPhaseDeadlineS) + " s");
}

bool Demo::single_net() {
    title("single net detections (run side by side)");
    std::map<uint32_t, Target> runs;
    auto launch = [&](const Target& t) {
        const uint32_t num = ++m_num;
        if (zeph_single_net_detect(num, t.host.c_str(), t.port, t.protocol, on_net) != 0)
            return fail("the net detection of " + t.text() + " could not start");
        runs[num] = t;
        return true;
    };
    const auto t0 = Clock::now();
    print_net_header(m_opt.json);
    launch(make_target("127.0.0.1", m_stun.port(), ZEPH_TRANS_UDP));
    launch(make_target("127.0.0.1", m_tcp.port(), ZEPH_TRANS_TCP));
    launch(make_target("127.0.0.1", m_closed.port(), ZEPH_TRANS_TCP));
    if (m_icmp) launch(make_target("127.0.0.1", 1, ZEPH_TRANS_ICMP));
    Progress progress("net detections");
    Event ev;
    while (!runs.empty() && next_event(ev, t0 + std::chrono::seconds(kPhaseDeadlineS))) {
        auto it = runs.find(ev.num());
        if (ev.kind != Event::Net || it == runs.end()) continue;
        std::string what = it->second.text();
        if (it->second.port == m_closed.port() && it->second.protocol == ZEPH_TRANS_TCP) what += " (refuses)";
        print_net(ev.net, what, seconds_since(t0, ev.at), m_opt.json, "net");
        runs.erase(it);
    }
    if (!runs.empty()) return fail(std::to_string(runs.size()) + " net detection(s) did not report in time");
    if (!m_icmp) note("skipped the ICMP net detection: raw ICMP sockets need root or CAP_NET_RAW");
    return true;
}

bool Demo::three_port() {
    title("three-port detection");
    // Group 0 answers on 443 only (media kest); group 1 on all three ports
    // (media line, share line): group 1 is the best, code 0x01000202.
    if (!start_fixed_peers("the three-port detection", {{"127.0.0.202", 10002}},
                           {{"127.0.0.201", 443}, {"127.0.0.202", 443}, {"127.0.0.202", 1124}}))
        return true;
    Groups groups(2);
    for (int g = 0; g < 2; ++g) {
        std::string host = g == 0 ? "127.0.0.201" : "127.0.0.202";
        groups[g].push_back(make_target(host, 10002, ZEPH_TRANS_UDP));
        groups[g].push_back(make_target(host, 443, ZEPH_TRANS_TCP));
        groups[g].push_back(make_target(host, 1124, ZEPH_TRANS_TCP));
    }
    static PortDetectInfo info;
    fill_port_info(groups, info);
    const uint32_t num = ++m_num;
    const auto t0 = Clock::now();
    if (zeph_3port_detect(num, &info, on_three_port) != 0) return fail("the three-port detection could not start");
    Progress progress("three-port detection");
    Event ev;
    while (next_event(ev, t0 + std::chrono::seconds(kPhaseDeadlineS))) {
        if (ev.kind != Event::ThreePort || ev.num() != num) continue;
        print_three_port(ev, groups, seconds_since(t0, ev.at), m_opt.json, "three_port");
        return true;
    }
    return fail("no three-port result within " + std::to_string(kPhaseDeadlineS) + " s");
}

bool Demo::plan() {
    title("net detection plan (seven measurements, five records)");
    const std::vector<std::string> servers = {"127.0.0.211", "127.0.0.212", "127.0.0.213",
                                              "127.0.0.214", "127.0.0.215", "127.0.0.216"};
    if (!start_fixed_peers("the net detection plan", {{servers[5], 10002}, {servers[5], 443}},
                           {{servers[2], 443}, {servers[3], 443}, {servers[4], 1124}}))
        return true;
    if (!m_icmp) note("the plan's ICMP levels 5 and 6 will fail: raw ICMP sockets need root or CAP_NET_RAW");
    std::vector<const char*> names;
    for (auto& s : servers) names.push_back(s.c_str());
    zeph_set_net_detect_srvs(names.data(), int32_t(names.size()));
    const std::map<uint32_t, std::string> what = {
        {5, "icmp " + servers[0]},
        {6, "icmp " + servers[1]},
        {1, "tcp " + servers[2] + ":443"},
        {2, "tcp " + servers[3] + ":443"},
        {3, "tcp " + servers[4] + ":1124 + udp " + servers[5] + ":10002,443"}};
    std::map<uint32_t, bool> pending = {{5, true}, {6, true}, {1, true}, {2, true}, {3, true}};
    const uint32_t num = ++m_num;
    print_net_header(m_opt.json);
    const auto t0 = Clock::now();
    if (zeph_net_detect(int32_t(num), on_net) != 0) return fail("the net detection plan could not start");
    Progress progress("net detection plan");
    Event ev;
    while (!pending.empty() && next_event(ev, t0 + std::chrono::seconds(kPlanDeadlineS))) {
        if (ev.kind != Event::Net || ev.num() != num) continue;
        pending.erase(ev.net.level);
        auto it = what.find(ev.net.level);
        print_net(ev.net, it == what.end() ? "level " + std::to_string(ev.net.level) : it->second,
                  seconds_since(t0, ev.at), m_opt.json, "plan");
    }
    if (!pending.empty()) return fail(std::to_string(pending.size()) + " plan record(s) did not arrive in time");
    return true;
}

bool Demo::media() {
    title("media session (audio over 4 channels, video over 1, echoed)");
    std::string error;
    if (!m_media.start("127.0.0.1", 0, &error)) return fail("cannot start the media peer: " + error);
    MediaPlan plan;
    plan.session = MORL_MediaGetFirstSessionId();
    plan.host = "127.0.0.1";
    plan.port = m_media.port();
    plan.streams = {{ZEPH_MEDIA_AUDIO, 4, 50}, {ZEPH_MEDIA_VIDEO, 1, 30}};
    plan.size = 200;
    plan.duration = 3;
    if (run_media_session("demo", plan, m_opt.json, "media") != kExitOk) {
        m_failed = true;
        return false;
    }
    return true;
}

bool Demo::quality() {
    title("quality of two sites (direct, and through a relay adding 40 ms and 2 % loss)");
    QualityServerChild server;
    std::string error;
    if (!server.start(kQualityServerIp, error)) {
        note("skipped the quality run: " + error);
        return true;
    }
    zeph_relay::UdpRelayConfig cfg;
    cfg.listen_ip = kQualityServerIp;
    cfg.server_ip = kQualityServerIp;
    cfg.server_port = kQualityServerPort;
    cfg.to_server = {kRelayDelayMs, 0, kRelayLoss};
    cfg.to_client = {kRelayDelayMs, 0, kRelayLoss};
    zeph_relay::UdpRelay relay(cfg);
    if (relay.start(&error) != 0) return fail("cannot start the relay: " + error);
    std::vector<QualitySite> sites(2);
    sites[0].host = sites[1].host = kQualityServerIp;
    sites[0].port = kQualityServerPort;
    sites[0].label = "direct";
    sites[1].port = relay.port();
    sites[1].label = "relay +40ms 2%";
    if (run_quality("demo", sites, m_opt.json, "quality") != kExitOk) {
        m_failed = true;
        return false;
    }
    return true;
}

bool Demo::sites() {
    title("race for the nearest of four sites (direct; relays +10, +30, +5 ms held back 50 ms)");
    QualityServerChild first, second;
    std::string error;
    if (!first.start(kRaceServerIps[0], error) || !second.start(kRaceServerIps[1], error)) {
        note("skipped the site race: " + error);
        return true;
    }
    struct Leg {
        const char* listen;
        const char* server;
        double delay_ms;
        uint16_t hold_back;
        const char* label;
    };
    const Leg legs[] = {{kRaceRelayIps[0], kRaceServerIps[1], 10, 0, "relay +10ms"},
                        {kRaceRelayIps[1], kRaceServerIps[0], 30, 0, "relay +30ms"},
                        {kRaceRelayIps[2], kRaceServerIps[1], 5, 50, "relay +5ms @50"}};
    std::vector<std::unique_ptr<zeph_relay::UdpRelay>> relays;
    std::vector<RaceSite> race(1);
    race[0].host = kRaceServerIps[0];
    race[0].port = kQualityServerPort;
    race[0].label = "direct";
    for (const Leg& leg : legs) {
        zeph_relay::UdpRelayConfig cfg;
        cfg.listen_ip = leg.listen;
        cfg.server_ip = leg.server;
        cfg.server_port = kQualityServerPort;
        cfg.to_server = {leg.delay_ms, 0, 0};
        cfg.to_client = {leg.delay_ms, 0, 0};
        relays.push_back(std::make_unique<zeph_relay::UdpRelay>(cfg));
        if (relays.back()->start(&error) != 0) return fail("cannot start the relay: " + error);
        RaceSite site;
        site.host = leg.listen;
        site.port = relays.back()->port();
        site.category_delay = leg.hold_back;
        site.label = leg.label;
        race.push_back(site);
    }
    if (run_sites("demo", race, m_opt.json, "sites") != kExitOk) {
        m_failed = true;
        return false;
    }
    return true;
}

bool Demo::reach() {
    title("reachability (all targets at once)");
    // A listener that keeps what it accepts: a connection closed at once
    // can read as a hang-up rather than as a completed connect.
    std::string error;
    if (!m_keep.ok() && !m_keep.start("127.0.0.1", 0, &error)) return fail("cannot start a TCP listener: " + error);
    std::vector<ReachTarget> targets;
    const std::vector<std::string> texts = {
        "127.0.0.1:" + std::to_string(m_stun.port()) + "/udp:stun", "127.0.0.1:" + std::to_string(m_keep.port()) + "/tcp",
        "127.0.0.1:" + std::to_string(m_closed.port()) + "/tcp", "127.0.0.1/icmp"};
    for (const std::string& text : texts) {
        if (text == "127.0.0.1/icmp" && !m_icmp) {
            note("skipped the ICMP reach target: raw ICMP sockets need root or CAP_NET_RAW");
            continue;
        }
        ReachTarget t;
        if (!parse_reach_target(text, t, error)) return fail(error);
        targets.push_back(t);
    }
    if (run_reach(targets, ++m_num, m_opt.json, "reach") != kExitOk) {
        m_failed = true;
        return false;
    }
    return true;
}

int Demo::run() {
    std::string error;
    if (!m_stun.start("127.0.0.1", 0, &error) || !m_tcp.start("127.0.0.1", 0, &error) ||
        !m_closed.open("127.0.0.1", &error))
        return run_error("demo", "cannot start the loopback peers: " + error);
    m_icmp = zeph_peers::raw_icmp_permitted();
    if (!m_opt.json)
        out("peers on loopback: STUN 127.0.0.1:" + std::to_string(m_stun.port()) + "/udp, TCP 127.0.0.1:" +
            std::to_string(m_tcp.port()) + ", refusing TCP 127.0.0.1:" + std::to_string(m_closed.port()) + "\n");
    zeph_net_tools_init();
    any_port();
    single_net();
    reach();
    three_port();
    plan();
    media();
    quality();
    sites();
    return m_failed ? kExitNotStarted : kExitOk;
}

} // namespace

int cmd_demo(int argc, char** argv) {
    CommonOptions opt;
    for (int i = 0; i < argc; ++i) {
        std::string a = argv[i];
        std::string error;
        OptResult r = take_common_option(argc, argv, i, opt, error);
        if (r == OptResult::Bad) return usage_error("demo", error);
        if (r == OptResult::NotMine || !opt.proxy_host.empty())
            return usage_error("demo", "unknown argument '" + a + "'");
    }
    if (opt.help) {
        out(kDemoHelp);
        return kExitOk;
    }
    std::string problem = apply_common(opt);
    if (!problem.empty()) return usage_error("demo", problem);
    set_media_log(opt.verbose);
    Demo demo(opt);
    return demo.run();
}

} // namespace cli
