// The firewall detection over loopback peers, by the export and by `zeph-nettools fw`. Each
// waits 30 s before it probes: slow cases share one run per TEST, run side by side.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "detect_reports.h"
#include "peers.h"
#include "tool_run.h"
#include "zeph_nettools/net_tools.h"
#include "zeph_nettools/settings.h"

using namespace zeph_test;

namespace {

// Not a host name: it resolves to nothing without asking any DNS server.
const char kUnresolvable[] = "no such host";
constexpr int kDelayMs = 30000;
constexpr int kResultDeadlineMs = 45000;

using Rows = std::vector<FwDetectSite>;
DetectReports<Rows>& g_calls = *new DetectReports<Rows>; // library threads may call in at exit

void on_rows(uint32_t a, uint32_t b, uint32_t c, const Rows& rows) {
    EXPECT_EQ(a | b | c, 0u);
    g_calls.add(rows);
}

// The call whose first row has `port` (each detection here starts with a port of its own).
DetectReports<Rows>::Report call_with_first_port(uint16_t port) {
    const auto all = g_calls.all([port](const Rows& rows) { return !rows.empty() && rows[0].port == port; });
    return all.empty() ? DetectReports<Rows>::Report{} : all[0];
}

FwDetectSite site(const std::string& addr, uint16_t port, uint8_t protocol) {
    FwDetectSite s;
    s.addr = addr, s.port = port, s.protocol = protocol;
    s.reached = 1, s.index = 99; // input only: must not leak into the result
    return s;
}

// One row as "addr:port=reached,", the form of the result's log line.
std::string row(const std::string& addr, uint16_t port, int reached) {
    return addr + ":" + std::to_string(port) + "=" + std::to_string(reached) + ",";
}
std::string rows_text(const Rows& rows) {
    std::string t;
    for (const FwDetectSite& r : rows) t += row(r.addr, r.port, r.reached);
    return t;
}

struct ProxyGuard {
    ~ProxyGuard() { zeph_settings_set_http_proxy(nullptr, 0, nullptr, nullptr); }
};
} // namespace

// Refusals never call back; seven sites and two padded to seven rows carry the proxy flag of
// report time; an unresolvable name reaches this machine neither directly nor via the proxy.
TEST(FwDetect, SevenRowsThirtySecondsLaterAndUnresolvedNamesStayHome) {
    LogCapture log;
    TcpListener open, named, trap;
    zeph_peers::ClosedTcpPort refusing;
    zeph_peers::StunResponder stun, trap_udp;
    TinyProxy proxy;
    ASSERT_TRUE(open.ok() && named.ok() && trap.ok() && refusing.open());
    ASSERT_TRUE(stun.start() && trap_udp.start() && proxy.start({}));
    const bool icmp = zeph_peers::raw_icmp_permitted();

    const FwDetectSite one = site("127.0.0.1", open.port(), ZEPH_TRANS_TCP);
    for (const Rows& refused : {Rows{}, Rows(8, one), Rows{site(std::string(128, 'a'), open.port(), ZEPH_TRANS_TCP)},
                                Rows{site(std::string("127.0.0.1\0x", 11), open.port(), ZEPH_TRANS_TCP)}})
        EXPECT_EQ(1u, zeph_fw_detect_start(1, refused, on_rows)) << refused.size();
    EXPECT_TRUE(log.contains("size is zero"));
    EXPECT_EQ(1u, zeph_fw_detect_start(5, {one}, nullptr));

    const Rows seven = {
        site("127.0.0.1", open.port(), ZEPH_TRANS_TCP),     site("127.0.0.1", refusing.port(), ZEPH_TRANS_TCP),
        site("127.0.0.1", stun.port(), ZEPH_TRANS_UDP),     site("localhost", named.port(), ZEPH_TRANS_TCP),
        site("127.0.0.1", 1, ZEPH_TRANS_ICMP),              site(kUnresolvable, trap.port(), ZEPH_TRANS_TCP),
        site(kUnresolvable, trap_udp.port(), ZEPH_TRANS_UDP)};
    const Rows two = {site("127.0.0.1", stun.port(), ZEPH_TRANS_UDP), site("localhost", open.port(), ZEPH_TRANS_TCP)};
    const uint64_t t0 = now_ms();
    ASSERT_EQ(0u, zeph_fw_detect_start(0xF7, seven, on_rows));
    ASSERT_EQ(0u, zeph_fw_detect_start(0xF2, two, on_rows));
    EXPECT_LT(now_ms() - t0, 1000u) << "the export returns before the detection runs";
    ProxyGuard unset;
    ASSERT_EQ(0, zeph_settings_set_http_proxy("127.0.0.1", proxy.port(), nullptr, nullptr));

    ASSERT_TRUE(wait_until([] { return g_calls.count() >= 2; }, kResultDeadlineMs, 50)) << log.dump();
    const auto a = call_with_first_port(open.port()), b = call_with_first_port(stun.port());
    for (const auto* c : {&a, &b}) {
        EXPECT_TRUE(c->at_ms - t0 >= uint64_t(kDelayMs) && c->at_ms - t0 < uint64_t(kDelayMs + 8000)) << c->at_ms - t0;
        ASSERT_EQ(c->value.size(), 7u);
        for (uint32_t i = 0; i < 7; ++i) // the proxy flag is read when the result is reported
            EXPECT_TRUE(c->value[i].index == i && c->value[i].protocol == 0 && c->value[i].is_proxy == 1u) << "row " << i;
    }

    const std::string lo = "127.0.0.1", none = row("0.0.0.0", 0, 0);
    EXPECT_EQ(rows_text(a.value), row(lo, open.port(), 1) + row(lo, refusing.port(), 0) + row(lo, stun.port(), 1) +
                                      row(lo, named.port(), 1) + row(lo, 1, icmp ? 1 : 0) +
                                      row("0.0.0.0", trap.port(), 0) + row("0.0.0.0", trap_udp.port(), 0));
    EXPECT_TRUE(trap.accepts() == 0 && trap_udp.answered() + trap_udp.ignored() == 0u && named.accepts() >= 1);
    const std::string padded = rows_text(b.value);
    EXPECT_EQ(padded, row(lo, stun.port(), 1) + row(lo, open.port(), 1) + none + none + none + none + none);
    EXPECT_TRUE(log.wait_for("FW_Detect_Result=" + std::to_string(padded.size()) + "," + padded, 2000)) << log.dump();

    sleep_ms(500); // a stray callback of a refused call would have come with these
    EXPECT_EQ(g_calls.count(), 2u);
}

// The command prints seven rows after the delay, as a table or JSON lines; bad lists are refused at once.
TEST(FwCommand, PrintsSevenRowsAfterTheDelay) {
    expect_usage_errors({{"fw"},
                         {"fw", "--no-delay", "127.0.0.1:80/tcp"},
                         {"fw", "a:1/tcp", "a:2/tcp", "a:3/tcp", "a:4/tcp", "a:5/tcp", "a:6/tcp", "a:7/tcp", "a:8/tcp"},
                         {"fw", std::string(128, 'a') + ":80/tcp"}});
    expect_help("fw");

    TcpListener open, trap;
    zeph_peers::ClosedTcpPort refusing;
    zeph_peers::StunResponder stun;
    ASSERT_TRUE(open.ok() && trap.ok() && refusing.open() && stun.start());
    const auto ep = [](uint16_t port, const char* proto) { return "127.0.0.1:" + std::to_string(port) + "/" + proto; };
    const std::vector<std::string> targets = {ep(open.port(), "tcp"), ep(refusing.port(), "tcp"),
                                              ep(stun.port(), "udp"),
                                              std::string(kUnresolvable) + ":" + std::to_string(trap.port()) + "/tcp"};
    std::vector<std::string> json_args = {"fw", "--json"}, table_args = {"fw"};
    for (auto* args : {&json_args, &table_args}) args->insert(args->end(), targets.begin(), targets.end());
    ToolRun table;
    std::thread other([&] { table = run_tool(table_args, kResultDeadlineMs + 5000); });
    const ToolRun json = run_tool(json_args, kResultDeadlineMs + 5000);
    other.join();

    ASSERT_TRUE(json.code() == 0 && json.lines() == 7u) << json.what();
    EXPECT_GE(json.ms(), uint64_t(kDelayMs));
    const auto m = parse_json_lines(json.out);
    std::string got; // reached, address and proxy flag per row
    for (int i = 0; i < 7; ++i) {
        const std::string n = std::to_string(i) + ":";
        got += at(m, n + "reached") + at(m, n + "addr") + at(m, n + "is_proxy") + ",";
    }
    const std::string on = "1\"127.0.0.1\"0,", off = "0\"127.0.0.1\"0,", none = "0\"0.0.0.0\"0,";
    EXPECT_EQ(got, on + off + on + none + none + none + none);
    EXPECT_TRUE(at(m, "6:port") == "0" && at(m, "3:target") == "\"" + targets[3] + "\"") << json.out;
    EXPECT_EQ(trap.accepts(), 0);

    ASSERT_TRUE(table.code() == 0 && table.lines() == 9u) << table.what(); // a heading, the column names, 7 rows
    EXPECT_NE(table.out.find(targets[0]), std::string::npos) << table.out;
    EXPECT_NE(table.out.find("not reached"), std::string::npos) << table.out;
}
