// The firewall detection over real peers on loopback, through the export and
// through `zeph-nettools fw`. Each detection waits 30 s before it probes, so
// the slow cases share one run per TEST and ctest runs the TESTs side by side.
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
    s.addr = addr;
    s.port = port;
    s.protocol = protocol;
    s.reached = 1; // input only: must not leak into the result
    s.index = 99;
    return s;
}

struct ProxyGuard {
    ~ProxyGuard() { zeph_settings_set_http_proxy(nullptr, 0, nullptr, nullptr); }
};
} // namespace

// Refusals return at once and never call back. Seven sites (open, refusing,
// STUN, "localhost", echo, an unresolvable name on TCP and UDP) and two
// padded to seven rows; the proxy set after the calls is used and told. The
// unresolvable name reaches this machine neither directly nor via the proxy.
TEST(FwDetect, SevenRowsThirtySecondsLaterAndUnresolvedNamesStayHome) {
    LogCapture log;
    TcpListener open, named, trap;
    zeph_peers::ClosedTcpPort refusing;
    zeph_peers::StunResponder stun, trap_udp;
    TinyProxy proxy;
    ASSERT_TRUE(open.ok() && named.ok() && trap.ok());
    ASSERT_TRUE(refusing.open());
    ASSERT_TRUE(stun.start() && trap_udp.start());
    ASSERT_TRUE(proxy.start({}));
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
    const Rows two = {site("127.0.0.1", stun.port(), ZEPH_TRANS_UDP),
                                           site("localhost", open.port(), ZEPH_TRANS_TCP)};
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

    const struct {
        const char* addr;
        uint16_t port;
        int reached;
    } want_a[] = {{"127.0.0.1", open.port(), 1}, {"127.0.0.1", refusing.port(), 0}, {"127.0.0.1", stun.port(), 1},
                  {"127.0.0.1", named.port(), 1}, {"127.0.0.1", 1, icmp ? 1 : 0},   {"0.0.0.0", trap.port(), 0},
                  {"0.0.0.0", trap_udp.port(), 0}};
    for (size_t i = 0; i < a.value.size() && i < 7; ++i)
        EXPECT_TRUE(a.value[i].addr == want_a[i].addr && a.value[i].port == want_a[i].port &&
                    a.value[i].reached == want_a[i].reached)
            << "row " << i << ": " << a.value[i].addr << ":" << a.value[i].port << " " << int(a.value[i].reached);
    EXPECT_EQ(trap.accepts(), 0);
    EXPECT_EQ(trap_udp.answered() + trap_udp.ignored(), 0u);
    EXPECT_GE(named.accepts(), 1);

    std::string padded;
    for (size_t i = 0; i < b.value.size(); ++i) {
        const FwDetectSite& r = b.value[i];
        EXPECT_EQ(r.reached, i < 2 ? 1 : 0) << "row " << i;
        EXPECT_TRUE(i < 2 || (r.addr == "0.0.0.0" && r.port == 0)) << "row " << i << ": " << r.addr << ":" << r.port;
        padded += r.addr + ":" + std::to_string(r.port) + "=" + std::to_string(r.reached) + ",";
    }
    EXPECT_TRUE(log.wait_for("FW_Detect_Result=" + std::to_string(padded.size()) + "," + padded, 2000)) << log.dump();

    sleep_ms(500); // a stray callback of a refused call would have come with these
    EXPECT_EQ(g_calls.count(), 2u);
}

// The command counts through the delay and prints the seven rows, as a table
// or as JSON lines; an unresolvable name reads not reached. Bad lists are
// refused before anything starts.
TEST(FwCommand, PrintsSevenRowsAfterTheDelay) {
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"fw"},
             {"fw", "--no-delay", "127.0.0.1:80/tcp"},
             {"fw", "a:1/tcp", "a:2/tcp", "a:3/tcp", "a:4/tcp", "a:5/tcp", "a:6/tcp", "a:7/tcp", "a:8/tcp"},
             {"fw", std::string(128, 'a') + ":80/tcp"}}) {
        const ToolRun r = run_tool(args, 5000);
        EXPECT_EQ(r.code(), 2) << r.what();
    }

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

    ASSERT_EQ(json.code(), 0) << json.what();
    EXPECT_GE(json.ms(), uint64_t(kDelayMs));
    EXPECT_EQ(json.lines(), 7u) << json.what();
    const auto m = parse_json_lines(json.out);
    const char* const want[] = {"1 \"127.0.0.1\"", "0 \"127.0.0.1\"", "1 \"127.0.0.1\"", "0 \"0.0.0.0\"",
                                "0 \"0.0.0.0\"",   "0 \"0.0.0.0\"",   "0 \"0.0.0.0\""};
    for (int i = 0; i < 7; ++i) {
        const std::string row = std::to_string(i) + ":";
        EXPECT_EQ(at(m, row + "reached") + " " + at(m, row + "addr"), want[i]) << "row " << i;
        EXPECT_EQ(at(m, row + "is_proxy"), "0");
    }
    EXPECT_EQ(at(m, "6:port"), "0");
    EXPECT_EQ(at(m, "3:target"), "\"" + targets[3] + "\"");
    EXPECT_EQ(trap.accepts(), 0);

    ASSERT_EQ(table.code(), 0) << table.what();
    EXPECT_EQ(table.lines(), 9u) << table.what(); // a heading, the column names, 7 rows
    EXPECT_NE(table.out.find(targets[0]), std::string::npos) << table.out;
    EXPECT_NE(table.out.find("not reached"), std::string::npos) << table.out;
}
