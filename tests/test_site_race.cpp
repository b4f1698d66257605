// The nearest-site race through its export against relays of known delay and
// loss and recording sites. Runs on the test's thread; callbacks on the message thread.
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "bwdetect/quality_wire.h"
#include "detect_reports.h"
#include "dns_responder.h"
#include "log_capture.h"
#include "peers.h"
#include "process.h"
#include "tool_run.h"
#include "udp_relay.h"
#include "zeph_nettools/net_tools.h"
#include "zeph_nettools/settings.h"

using namespace zeph_test;
namespace q = zeph::quality;

namespace {

// Each test has addresses of its own (127.0.93.x), so parallel runs meet.
std::string test_ip(int host) { return "127.0.93." + std::to_string(host); }
constexpr uint16_t kQualityPort = 64000;
constexpr size_t kProbes = 32;
constexpr size_t kNpsLen = 1200;
constexpr uint16_t kNoAnswer = 65535;
// A race ends about a second after its burst; generous for sanitizers.
constexpr int kRaceDeadlineMs = 6000;

struct Seen {
    uint32_t p2; // 0: the first answer, 1: the table
    std::vector<OptSiteInfo> rows;
};
using Report = DetectReports<Seen>::Report;
DetectReports<Seen> g_reports;

void on_race(int32_t id, int32_t p1, uint32_t p2, const std::vector<OptSiteInfo>& rows) {
    EXPECT_EQ(0, id);
    EXPECT_EQ(0, p1);
    g_reports.add(Seen{p2, rows});
}

// The reports of the race whose sites begin with `first_name`.
std::vector<Report> reports_of(const std::string& first_name) {
    return g_reports.all([&](const Seen& r) {
        return r.rows.empty() ? r.p2 == 1 && first_name.empty() : r.rows[0].name.rfind(first_name, 0) == 0;
    });
}

OptSiteInfo site(const std::string& name, const std::string& addr, uint16_t port, uint16_t category = 0) {
    return OptSiteInfo{name, "node-" + name, addr, port, category, 7, 7}; // delay and discard are not read
}

// "name/category_delay" of each row.
std::string rows_text(const std::vector<OptSiteInfo>& rows) {
    std::string s;
    for (const OptSiteInfo& r : rows) s += (s.empty() ? "" : " ") + r.name + "/" + std::to_string(r.category_delay);
    return s;
}

struct Race {
    uint64_t started_ms = 0;
    std::vector<Report> best, table;
};

// Starts a race and waits for its table (the last report).
Race run_race(const std::vector<OptSiteInfo>& sites, const std::string& first_name) {
    Race race;
    race.started_ms = now_ms();
    EXPECT_EQ(0u, zeph_detect_start_opt_mult_site(sites, on_race));
    EXPECT_TRUE(wait_until([&] { return !reports_of(first_name).empty() && reports_of(first_name).back().value.p2 == 1; },
                           kRaceDeadlineMs));
    sleep_ms(100); // nothing may follow the table
    for (Report& r : reports_of(first_name)) (r.value.p2 == 0 ? race.best : race.table).push_back(r);
    return race;
}

// UDP sites that record each probe and echo it unless silent. One thread polls
// them all, so answers of all sites leave together.
class Sites {
public:
    // answered_us: the peer's steady clock right after its answer left, 0 if none.
    struct Probe { uint64_t at_ms; uint32_t seq, session; size_t len; uint64_t answered_us; };
    Sites(const std::string& ip, size_t n, const std::vector<bool>& silent = {}) {
        for (size_t i = 0; i < n; ++i) {
            m_socks.push_back(std::make_unique<UdpSocket>(ip, 0));
            m_silent.push_back(i < silent.size() && silent[i]);
        }
        m_probes.resize(n);
        m_thread = std::thread([this] { run(); });
    }
    ~Sites() {
        m_stop = true;
        m_thread.join();
    }
    uint16_t port(size_t i) const { return m_socks[i]->port(); }
    std::vector<Probe> probes(size_t i) {
        std::lock_guard<std::mutex> g(m_mu);
        return m_probes[i];
    }

private:
    void run() {
        std::vector<pollfd> fds;
        for (auto& s : m_socks) fds.push_back(pollfd{s->fd(), POLLIN, 0});
        uint8_t buf[2048];
        while (!m_stop) {
            if (poll(fds.data(), fds.size(), 5) <= 0) continue;
            for (size_t i = 0; i < fds.size(); ++i) {
                if ((fds[i].revents & POLLIN) == 0) continue;
                sockaddr_storage from{};
                socklen_t flen = sizeof from;
                const ssize_t n = recvfrom(fds[i].fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &flen);
                if (n <= 0) continue;
                const size_t len = static_cast<size_t>(n);
                Probe probe{now_ms(), q::get_seq(buf, len), q::get_session(buf, len, false), len, 0};
                if (!m_silent[i] && sendto(fds[i].fd, buf, len, 0, reinterpret_cast<sockaddr*>(&from), flen) > 0)
                    probe.answered_us = uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(
                                                     std::chrono::steady_clock::now().time_since_epoch())
                                                     .count());
                std::lock_guard<std::mutex> g(m_mu);
                m_probes[i].push_back(probe);
            }
        }
    }
    std::vector<std::unique_ptr<UdpSocket>> m_socks;
    std::vector<bool> m_silent;
    std::mutex m_mu;
    std::vector<std::vector<Probe>> m_probes;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

std::unique_ptr<zeph_relay::UdpRelay> relay_to(const std::string& listen, const std::string& server_ip,
                                               double delay_ms, double loss_back = 0, uint64_t seed = 1,
                                               uint16_t server_port = kQualityPort) {
    zeph_relay::UdpRelayConfig cfg;
    cfg.listen_ip = listen;
    cfg.server_ip = server_ip;
    cfg.server_port = server_port;
    cfg.to_server.delay_ms = delay_ms;
    cfg.to_client.delay_ms = delay_ms;
    cfg.to_client.loss = loss_back;
    cfg.seed = seed;
    auto relay = std::make_unique<zeph_relay::UdpRelay>(cfg);
    if (relay->start() != 0) return nullptr;
    return relay;
}

// A log sink that stores every line and holds its thread once, for hold_ms, on
// the first line ending in `hold_on`: a host whose sink is slow.
struct SlowSink {
    std::string hold_on;
    int hold_ms = 0;
    std::atomic<bool> held{false};
    std::mutex mu;
    std::vector<LogLine> lines;

    static void log(void* user, int level, const char* module, const char* function, const char* file, int line,
                    const char* message) {
        auto* self = static_cast<SlowSink*>(user);
        const std::string m = message;
        {
            std::lock_guard<std::mutex> g(self->mu);
            self->lines.push_back(LogLine{level, module, function, file, line, m});
        }
        const size_t n = self->hold_on.size();
        if (m.size() >= n && m.compare(m.size() - n, n, self->hold_on) == 0 && !self->held.exchange(true))
            std::this_thread::sleep_for(std::chrono::milliseconds(self->hold_ms));
    }
    std::vector<LogLine> with(const std::string& text) {
        std::lock_guard<std::mutex> g(mu);
        std::vector<LogLine> out;
        for (const LogLine& l : lines)
            if (l.message.find(text) != std::string::npos) out.push_back(l);
        return out;
    }
};

class SiteRace : public ::testing::Test {
protected:
    void SetUp() override {
        g_reports.clear();
        ASSERT_EQ(0, zeph_net_tools_init());
    }
    // Every race leaves nothing behind (a held-back category's timer included).
    void TearDown() override {
        EXPECT_TRUE(runtime_released());
        zeph_net_tools_uninit();
    }
};

} // namespace

TEST_F(SiteRace, NearestQualityServerIsNamedFirstAndTableTellsEachDelayAndDiscard) {
    const std::string server = test_ip(10);
    Process proc;
    ASSERT_TRUE(proc.start({tool_path("zeph-quality-server"), "--addr", server}));
    ASSERT_TRUE(wait_until([&] { return proc.stdout_text().find("listening") != std::string::npos; }, 5000));
    auto far = relay_to(test_ip(11), server, 40);
    auto near = relay_to(test_ip(12), server, 5);
    auto mid = relay_to(test_ip(13), server, 20);
    // Seeded loss on the way back; one answering only after the race.
    auto lossy = relay_to(test_ip(14), server, 30, 0.3, 7);
    auto lossier = relay_to(test_ip(15), server, 30, 0.6, 11);
    auto slow = relay_to(test_ip(16), server, 1100);
    ASSERT_TRUE(far && near && mid && lossy && lossier && slow);

    Race race = run_race({site("qs-far", test_ip(11), far->port()), site("qs-near", test_ip(12), near->port()),
                          site("qs-mid", test_ip(13), mid->port()), site("qs-loss-30", test_ip(14), lossy->port()),
                          site("qs-loss-60", test_ip(15), lossier->port()), site("qs-late", test_ip(16), slow->port())},
                         "qs-");
    ASSERT_EQ(1u, race.best.size());
    ASSERT_EQ(1u, race.table.size());
    const OptSiteInfo& best = race.best[0].value.rows.at(0);
    EXPECT_EQ("qs-near", best.name);
    EXPECT_EQ("node-qs-near", best.nodeName);
    EXPECT_EQ(0, best.discard);
    EXPECT_GE(best.delay, 10);
    EXPECT_LT(best.delay, 300);
    EXPECT_TRUE(race.best[0].on_message_thread);
    EXPECT_LT(race.best[0].at_ms, race.table[0].at_ms);
    // The table comes about a second after the burst, not when all answered.
    EXPECT_GE(race.table[0].at_ms - race.started_ms, 950u);

    // Equal hold-backs keep the caller's order; every server answered all 32.
    const Report& t = race.table[0];
    EXPECT_EQ("qs-far/0 qs-near/0 qs-mid/0 qs-loss-30/0 qs-loss-60/0 qs-late/0", rows_text(t.value.rows));
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(0, t.value.rows[i].discard) << i;
    // First-answer delays: the relays' round trips, in their order.
    EXPECT_EQ(best.delay, t.value.rows[1].delay);
    EXPECT_GE(t.value.rows[2].delay, 40);
    EXPECT_GE(t.value.rows[0].delay, 80);
    EXPECT_LT(t.value.rows[1].delay, t.value.rows[2].delay);
    EXPECT_LT(t.value.rows[2].delay, t.value.rows[0].delay);
    EXPECT_LT(t.value.rows[0].delay, 200);
    // The discard is what the server's answers through the lossy relays tell.
    for (auto* relay : {&lossy, &lossier}) {
        const zeph_relay::UdpRelayStats st = (*relay)->stats();
        EXPECT_EQ(kProbes, st.to_server_forwarded);
        const uint64_t answered = st.to_client_forwarded;
        EXPECT_GT(answered, 0u);
        EXPECT_LT(answered, kProbes);
        const OptSiteInfo& r = t.value.rows[relay == &lossy ? 3 : 4];
        EXPECT_EQ(100 - ((answered * 100) >> 5), r.discard) << r.name << " answered " << answered;
        EXPECT_NE(kNoAnswer, r.delay);
    }
    EXPECT_EQ(kNoAnswer, t.value.rows[5].delay);
    EXPECT_EQ(100, t.value.rows[5].discard);
    // The late answers come after the race: the freed socket takes none.
    ASSERT_TRUE(wait_until([&] { return slow->stats().to_client_forwarded == kProbes; }, 5000));
    sleep_ms(100);
    EXPECT_EQ(2u, reports_of("qs-").size());
}

// The table's timer is armed again once the first burst is out, so a message
// thread held up before that (here by the host's slow log sink) leaves room
// for answers later than a second after the burst: each is dropped with a
// warning and counts for nothing in its site's row.
TEST_F(SiteRace, AnswerLaterThanASecondAfterTheBurstIsDroppedWithAWarning) {
    constexpr int kHoldMs = 400;
    constexpr uint16_t kHeldBack = 37;
    Sites peers(test_ip(30), 2);
    // A round trip of 1100 ms: past the second, before the held-up table.
    auto slow = relay_to(test_ip(31), test_ip(30), 550, 0, 1, peers.port(0));
    ASSERT_TRUE(slow);
    static SlowSink& sink = *new SlowSink; // a library thread may still call it after the test
    // The held-back group's timer is armed right after the first burst.
    sink.hold_on = "delay(" + std::to_string(kHeldBack) + ")";
    sink.hold_ms = kHoldMs;
    zeph_settings_set_log_sink(SlowSink::log, &sink, ZEPH_LOG_DEBUG);
    Race race = run_race({site("span-slow", test_ip(31), slow->port()),
                          site("span-held", test_ip(30), peers.port(1), kHeldBack)},
                         "span-");
    zeph_settings_set_log_sink(nullptr, nullptr, ZEPH_LOG_WARNING);
    ASSERT_TRUE(sink.held);
    ASSERT_EQ(1u, race.table.size());
    const std::vector<OptSiteInfo>& rows = race.table[0].value.rows;
    EXPECT_EQ("span-slow/0 span-held/37", rows_text(rows));
    EXPECT_EQ(std::make_pair(kNoAnswer, uint16_t(100)), std::make_pair(rows[0].delay, rows[0].discard));
    EXPECT_EQ(0, rows[1].discard);
    ASSERT_EQ(1u, race.best.size());
    EXPECT_EQ("span-held", race.best[0].value.rows.at(0).name);

    const std::vector<LogLine> late = sink.with("recv timeout span(");
    ASSERT_FALSE(late.empty());
    EXPECT_LE(late.size(), std::min<uint64_t>(kProbes, slow->stats().to_client_forwarded));
    for (const LogLine& l : late) {
        unsigned span = 0, current = 0;
        EXPECT_TRUE(sscanf(l.message.c_str(), "recv timeout span(%u)current(%u)", &span, &current) == 2 &&
                    span >= 1000 && current != 0 && l.level == ZEPH_LOG_WARNING)
            << "[" << l.level << "] " << l.message;
    }
}

// Equal hold-backs go together, a session per site; 400 is clipped to 300; a first category of 5 is not waited for.
TEST_F(SiteRace, CategoriesSendBurstsOfThirtyTwoHoldBackClippedTo300SmallFirstOneNotWaited) {
    Sites peers(test_ip(20), 5);
    Race race = run_race({site("cat-a", test_ip(20), peers.port(0), 120),
                          site("cat-b", test_ip(20), peers.port(1), 400),
                          site("cat-c", test_ip(20), peers.port(2), 120)},
                         "cat-");
    std::vector<std::vector<Sites::Probe>> got;
    std::map<uint32_t, int> sessions;
    for (size_t i = 0; i < 3; ++i) {
        got.push_back(peers.probes(i));
        ASSERT_EQ(kProbes, got[i].size()) << "site " << i;
        for (size_t k = 0; k < kProbes; ++k) {
            EXPECT_EQ(k, got[i][k].seq) << "site " << i;
            EXPECT_EQ(kNpsLen, got[i][k].len);
            EXPECT_EQ(got[i][0].session, got[i][k].session) << "one session for all probes of a site";
        }
        sessions[got[i][0].session]++;
    }
    EXPECT_EQ(3u, sessions.size()) << "each site has a session of its own";
    EXPECT_GE(got[0][0].at_ms - race.started_ms, 118u);
    EXPECT_LE(got[0][kProbes - 1].at_ms, got[2][0].at_ms + 20);
    const uint64_t gap = got[1][0].at_ms - got[0][0].at_ms;
    EXPECT_GE(gap, 175u); // 300 - 120
    EXPECT_LT(gap, 600u);

    // Rows ascending by hold-back (stable among equals); a held-back site's
    // delay counts from its own category's sending.
    ASSERT_EQ(1u, race.table.size());
    const Report& t = race.table[0];
    EXPECT_EQ("cat-a/120 cat-c/120 cat-b/300", rows_text(t.value.rows));
    for (const OptSiteInfo& r : t.value.rows) {
        EXPECT_GE(r.delay, 1) << r.name;
        EXPECT_LT(r.delay, 300) << r.name;
        EXPECT_EQ(0, r.discard) << r.name;
    }
    EXPECT_LT(t.value.rows[2].delay, gap); // counted from the first category it would be more
    ASSERT_EQ(1u, race.best.size());
    EXPECT_NE("cat-b", race.best[0].value.rows.at(0).name);

    race = run_race({site("sm-5", test_ip(20), peers.port(3), 5), site("sm-50", test_ip(20), peers.port(4), 50)}, "sm-");
    const auto p5 = peers.probes(3);
    const auto p50 = peers.probes(4);
    ASSERT_EQ(kProbes, p5.size());
    ASSERT_EQ(kProbes, p50.size());
    EXPECT_LT(p5[0].at_ms - race.started_ms, 300u);
    EXPECT_GE(p50[0].at_ms - p5[0].at_ms, 40u);
    EXPECT_LT(p50[0].at_ms - p5[0].at_ms, 400u);
    ASSERT_EQ(1u, race.table.size());
    EXPECT_EQ(2u, race.table[0].value.rows.size());
}

// Only sites with an address take part; a silent name holds the race for the name phase only.
TEST_F(SiteRace, UnresolvedAndEmptySitesLeaveTheRace) {
    DnsResponder dns(test_ip(50));
    ASSERT_TRUE(dns.ok());
    Sites peers(test_ip(51), 1);
    dns.add("answering.race.test", DnsResponder::address(test_ip(51)));
    dns.add("nowhere.race.test", DnsResponder::nxdomain());
    dns.add("mute.race.test", DnsResponder::silent());
    ASSERT_EQ(0, zeph_settings_set_dns_servers(dns.server().c_str()));
    LogCapture log;
    Race race = run_race({site("x-nowhere", "nowhere.race.test", 9), site("x-empty", "", 9),
                          site("x-named", "answering.race.test", peers.port(0)), site("x-mute", "mute.race.test", 9)},
                         "x-");
    zeph_settings_set_dns_servers("");
    ASSERT_EQ(1u, race.table.size());
    ASSERT_EQ(1u, race.table[0].value.rows.size()) << log.dump();
    const OptSiteInfo& named = race.table[0].value.rows[0];
    EXPECT_EQ("x-named", named.name);
    EXPECT_EQ(0, named.discard);
    EXPECT_EQ("answering.race.test", named.addr);
    ASSERT_EQ(1u, race.best.size());
    EXPECT_EQ("x-named", race.best[0].value.rows.at(0).name);
    EXPECT_LT(race.table[0].at_ms - race.started_ms, 3500u);
}

// 33 sites answering at once: 32 race. Delays are timed at each answer's
// arrival, so a late turn in the hand-over does not make a site look farther:
// each site's delay differs from the others' by what the peer's own clock
// saw between their first answers, within the delays' millisecond steps.
TEST_F(SiteRace, ThirtyTwoSitesRaceAndAnswersArrivingTogetherGiveTogetherDelays) {
    constexpr size_t kSites = 33;
    constexpr double kToleranceMs = 3;
    Sites peers(test_ip(70), kSites);
    std::vector<OptSiteInfo> sites;
    for (size_t i = 0; i < kSites; ++i) sites.push_back(site("many-" + std::to_string(i), test_ip(70), peers.port(i)));
    Race race = run_race(sites, "many-");
    ASSERT_EQ(1u, race.table.size());
    ASSERT_EQ(32u, race.table[0].value.rows.size());
    EXPECT_EQ(1u, race.best.size());
    // Delay less the peer's time of the first answer: the same for every site.
    double lo = 1e9, hi = -1e9;
    std::string table;
    for (const OptSiteInfo& r : race.table[0].value.rows) {
        EXPECT_EQ(0, r.discard) << r.name;
        const std::vector<Sites::Probe> got = peers.probes(std::stoul(r.name.substr(5)));
        ASSERT_EQ(kProbes, got.size()) << r.name;
        ASSERT_NE(kNoAnswer, r.delay) << r.name;
        const double offset = r.delay - double(got[0].answered_us) / 1000.0;
        lo = std::min(lo, offset);
        hi = std::max(hi, offset);
        table += r.name + ":" + std::to_string(r.delay) + "ms ";
    }
    EXPECT_EQ(0u, peers.probes(32).size());
    EXPECT_LE(hi - lo, kToleranceMs) << table;
}

TEST_F(SiteRace, RacesSideBySideEachReportOnceAndEmptyListsEndWithAnEmptyTable) {
    Sites peers(test_ip(80), 4);
    EXPECT_EQ(1u, zeph_detect_start_opt_mult_site({site("r-x", test_ip(80), peers.port(0))}, nullptr));
    const uint64_t t0 = now_ms();
    ASSERT_EQ(0u, zeph_detect_start_opt_mult_site({site("ra-0", test_ip(80), peers.port(0)),
                                                   site("ra-1", test_ip(80), peers.port(1), 30)},
                                                  on_race));
    ASSERT_EQ(0u, zeph_detect_start_opt_mult_site({site("rb-0", test_ip(80), peers.port(2), 15),
                                                   site("rb-1", test_ip(80), peers.port(3))},
                                                  on_race));
    ASSERT_EQ(0u, zeph_detect_start_opt_mult_site({}, on_race));
    ASSERT_EQ(0u, zeph_detect_start_opt_mult_site({site("gone-0", "", 1)}, on_race));
    auto is_table = [](const Seen& r) { return r.p2 == 1; };
    ASSERT_TRUE(g_reports.wait_for(4, kRaceDeadlineMs, is_table));
    sleep_ms(200);
    EXPECT_EQ(4u, g_reports.count(is_table));
    std::map<std::string, int> best, tables;
    for (const Report& r : g_reports.all()) {
        EXPECT_TRUE(r.on_message_thread);
        const std::string who = r.value.rows.empty() ? "" : r.value.rows[0].name.substr(0, 2);
        (r.value.p2 == 0 ? best : tables)[who]++;
        if (r.value.p2 == 1 && r.value.rows.empty()) {
            EXPECT_GE(r.at_ms - t0, 900u); // not before its timer
        }
    }
    EXPECT_EQ((std::map<std::string, int>{{"ra", 1}, {"rb", 1}}), best);
    EXPECT_EQ((std::map<std::string, int>{{"", 2}, {"ra", 1}, {"rb", 1}}), tables);
    // Without the runtime a race is refused.
    zeph_net_tools_uninit();
    EXPECT_EQ(1u, zeph_detect_start_opt_mult_site({site("no-rt", "127.0.0.1", 9)}, on_race));
}

TEST(SiteRaceCli, FirstAnswerThenOneObjectPerSiteAndBadSitesRefused) {
    Sites peers(test_ip(90), 2, {false, true});
    const std::string answering = test_ip(90) + ":" + std::to_string(peers.port(0));
    const std::string silent = test_ip(90) + ":" + std::to_string(peers.port(1)) + "@20";
    ToolRun run = run_tool({"sites", "--json", silent, answering}, 15000);
    ASSERT_EQ(0, run.code()) << run.what();
    auto m = parse_json_lines(run.out);
    ASSERT_EQ(3u, run.lines()) << run.out;
    auto line = [&](int i, std::initializer_list<const char*> keys) {
        std::string s;
        for (const char* k : keys) s += at(m, std::to_string(i) + ":" + k) + " ";
        return s;
    };
    EXPECT_EQ("\"first\" \"" + answering + "\" ", line(0, {"event", "site"}));
    // Rows as reported: ascending by hold-back.
    EXPECT_EQ("\"" + answering + "\" true 0 ", line(1, {"site", "first", "discard_pct"}));
    EXPECT_EQ("\"" + silent + "\" null 100 20 ", line(2, {"site", "delay_ms", "discard_pct", "category_delay"}));

    std::vector<std::string> many = {"sites"};
    for (int i = 0; i < 33; ++i) many.push_back("127.0.0.1:9");
    expect_usage_errors({{"sites", "127.0.0.1:0"}, {"sites", "127.0.0.1@301"}, {"sites", ":5"},
                         {"sites", "127.0.0.1:5@x"}, many});
}
