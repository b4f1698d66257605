// Port detection over real peers on loopback: the three-port code, any-port results,
// waits and the delayed free. Three-port peers sit on fixed ports (10002 UDP, 443 and
// 1124 TCP), so on loopback addresses of their own (127.0.0.2x).
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "detect_reports.h"
#include "inc/port_detect.h"
#include "peers.h"
#include "zeph_nettools/net_tools.h"

using namespace zeph_test;

namespace {

// Each callback's record, copied, with its serial number; never destroyed (library threads may call in at exit).
struct Record {
    uint32_t num;
    std::vector<uint8_t> bytes;
    template <class T>
    T as() const {
        T out{};
        std::memcpy(&out, bytes.data(), std::min(bytes.size(), sizeof out));
        return out;
    }
};
DetectReports<Record>& g_calls = *new DetectReports<Record>;

template <class T>
void record(void* p) {
    const auto* r = static_cast<const T*>(p);
    g_calls.add({r->num, {reinterpret_cast<const uint8_t*>(r), reinterpret_cast<const uint8_t*>(r + 1)}});
}
const auto on_result = &record<PortDetectResult>;
const auto on_any = &record<AnyPortResult>;
const auto on_info = &record<PortDetectInfo>;

std::function<bool(const Record&)> num_is(uint32_t num) {
    return [num](const Record& r) { return r.num == num; };
}
size_t calls(uint32_t num) { return g_calls.count(num_is(num)); }
DetectReports<Record>::Report wait_call(uint32_t num) {
    g_calls.wait_for(1, 6000, num_is(num));
    const auto all = g_calls.all(num_is(num));
    return all.empty() ? DetectReports<Record>::Report{} : all.back();
}

PortDetectEntry entry(uint16_t port, uint8_t protocol, uint8_t reached = 0, const std::string& ip = "127.0.0.1") {
    PortDetectEntry e;
    std::memset(&e, 0, sizeof e); // the whole union, text and all
    e.addr = ipv4_be(ip), e.port = port, e.protocol = protocol, e.reached = reached;
    return e;
}

PortDetectInfo make_info(const std::vector<std::vector<PortDetectEntry>>& groups, uint32_t type = 0) {
    PortDetectInfo info{};
    info.type = type;
    for (const auto& entries : groups) {
        PortDetectGroup& g = info.groups[info.group_num++];
        g.detect_num = static_cast<int32_t>(entries.size());
        for (size_t i = 0; i < entries.size(); ++i) g.entries[i] = entries[i];
    }
    return info;
}

// The three entries of a three-port group on ip.
std::vector<PortDetectEntry> three_ports(const std::string& ip) {
    return {entry(10002, ZEPH_TRANS_UDP, 0, ip), entry(443, ZEPH_TRANS_TCP, 0, ip), entry(1124, ZEPH_TRANS_TCP, 0, ip)};
}

} // namespace

// Entries of no known transport get no probe, so the marks given here are
// what the code is built from.
TEST(PortDetectCodes, ThreePortTable) {
    auto g = [](uint16_t p0, int r0, uint16_t p1, int r1, uint16_t p2, int r2) {
        return std::vector<PortDetectEntry>{entry(p0, 0, uint8_t(r0)), entry(p1, 0, uint8_t(r1)), entry(p2, 0, uint8_t(r2))};
    };
    const struct {
        const char* what;
        std::vector<std::vector<PortDetectEntry>> groups;
        uint32_t ret;
    } cases[] = {
        {"udp alone gives media 2", {g(10002, 1, 443, 0, 1124, 0)}, 0x0200},
        {"443 only", {g(10002, 0, 443, 1, 1124, 0)}, 0x0100},
        {"other port in entry 0 never gives 2", {g(443, 1, 443, 1, 1124, 0)}, 0x0100},
        {"ports out of place count nothing", {g(9999, 1, 80, 1, 1125, 1)}, 0},
        {"ties keep the lower index", {g(10002, 0, 443, 1, 1124, 0), g(10002, 0, 443, 1, 1124, 0)}, 0x0100},
        {"a strictly better later group wins, media over share",
         {g(10002, 0, 443, 0, 1124, 1), g(10002, 0, 443, 1, 1124, 0), g(10002, 1, 443, 0, 1124, 0),
          g(10002, 1, 443, 0, 1124, 0)},
         0x02000200},
    };
    for (const auto& c : cases) {
        PortDetectInfo info = make_info(c.groups, ZEPH_PORT_DETECT_THREE);
        PortDetect detect(&info, on_result);
        PortDetectResult result{};
        detect.calc_3_port(result);
        EXPECT_EQ(result.ret, c.ret) << c.what;
    }
}

// Every mode at once. Three-port: group 0 (443, 1124; 10002 silent) 0x102, group 1 (all)
// 0x202, the best; a silent port holds the result a second past the first answer, all
// answered ends at once, none after 3 s. One-port reads the first destination; an
// unknown mode or no callback calls nobody. Any-port gives open flags, or with `notify`
// the caller's record (unprobed entries keep their mark), clamped to 7 groups of 4.
// All freed 20 s after their end, not before.
TEST(PortDetect, EachModeReportsOnceOnTimeThenIsFreed) {
    EXPECT_EQ(1, zeph_3port_detect(1, nullptr, on_result));
    EXPECT_EQ(1, zeph_any_port_detect(1, nullptr, on_any));
    TcpListener a443("127.0.0.21", 443), a1124("127.0.0.21", 1124), b443("127.0.0.22", 443), b1124("127.0.0.22", 1124);
    TcpListener open;
    UdpSocket silent;
    CoturnServer stun;
    ASSERT_TRUE(a443.ok() && a1124.ok() && b443.ok() && b1124.ok() && open.ok() && silent.ok());
    ASSERT_TRUE(stun.start("127.0.0.22", 10002));
    const uint16_t closed = closed_tcp_port();
    const PortDetectEntry tcp_open = entry(open.port(), ZEPH_TRANS_TCP), tcp_closed = entry(closed, ZEPH_TRANS_TCP),
                          udp_silent = entry(silent.port(), ZEPH_TRANS_UDP);
    PortDetectInfo both = make_info({three_ports("127.0.0.21"), three_ports("127.0.0.22")});
    PortDetectInfo all_answer = make_info({three_ports("127.0.0.22")});
    PortDetectInfo no_answer = make_info({three_ports("127.0.0.24")});
    PortDetectInfo none = make_info({{udp_silent, entry(closed, ZEPH_TRANS_TCP, 1)}});
    PortDetectInfo flags = make_info({{tcp_closed, tcp_open}, {udp_silent, entry(closed_udp_port(), ZEPH_TRANS_UDP)}});
    PortDetectInfo whole = make_info({{tcp_open, entry(closed, ZEPH_TRANS_TCP, 1), entry(99, 7, 1), entry(98, 7)}});
    whole.notify = 1;
    std::strcpy(whole.groups[0].entries[0].text + 4, "caller text");
    PortDetectInfo oversized = make_info({{entry(97, 7)}, {entry(96, 7)}});
    oversized.group_num = 9;
    oversized.groups[0].detect_num = 6;
    oversized.groups[1].detect_num = -1;
    PortDetectInfo oversized_whole = oversized;
    oversized_whole.notify = 1;
    auto start = [](uint32_t num, uint32_t type, const std::vector<PortDetectEntry>& entries) {
        PortDetectInfo info = make_info({entries}, type);
        auto detect = std::make_shared<PortDetect>(&info, on_result);
        return detect->start(num, detect);
    };

    const uint64_t t0 = now_ms();
    ASSERT_EQ(0, zeph_3port_detect(301, &both, on_result));
    ASSERT_EQ(0, zeph_3port_detect(302, &all_answer, on_result));
    ASSERT_EQ(0, zeph_3port_detect(303, &no_answer, on_result));
    ASSERT_EQ(0, zeph_any_port_detect(304, &none, on_any));
    ASSERT_EQ(0, start(305, ZEPH_PORT_DETECT_ONE, {tcp_open}));
    ASSERT_EQ(0, start(306, ZEPH_PORT_DETECT_ONE, {tcp_closed, tcp_open}));
    ASSERT_EQ(0, start(307, 5, {tcp_open}));
    ASSERT_EQ(0, zeph_any_port_detect(308, &flags, on_any));
    ASSERT_EQ(0, zeph_any_port_detect(309, &whole, on_info));
    ASSERT_EQ(0, zeph_any_port_detect(310, &flags, nullptr));
    ASSERT_EQ(0, zeph_any_port_detect(311, &oversized, on_any));
    ASSERT_EQ(0, zeph_any_port_detect(312, &oversized_whole, on_info));
    const int detections = PortDetect::live_count();

    // When each reports, and the code of those with a PortDetectResult (-1: other records).
    const struct {
        uint32_t num, from_ms, to_ms;
        int64_t ret;
    } when[] = {{302, 0, 600, 0x0202}, {305, 0, 600, 1}, {301, 900, 2700, 0x01000202}, {308, 950, 2200, -1},
                {309, 950, 2200, -1}, {303, 2900, 4500, 0}, {304, 2900, 4500, -1}, {306, 2900, 4500, 0},
                {311, 2900, 4500, -1}, {312, 2900, 4500, -1}};
    for (const auto& w : when) {
        const auto c = wait_call(w.num);
        EXPECT_TRUE(c.at_ms - t0 >= w.from_ms && c.at_ms - t0 < w.to_ms) << w.num << " after " << c.at_ms - t0 << " ms";
        EXPECT_TRUE(w.ret < 0 || c.value.as<PortDetectResult>().ret == w.ret)
            << w.num << ": code " << std::hex << c.value.as<PortDetectResult>().ret;
    }
    const auto a = wait_call(308).value.as<AnyPortResult>();
    std::string bits;
    for (int g = 0; g < 2; ++g)
        for (int e = 0; e < 4; ++e) bits += std::to_string(a.groups[g].open[e]);
    EXPECT_EQ(std::to_string(a.group_num) + " " + bits, "2 01000000");
    EXPECT_EQ(wait_call(304).value.as<AnyPortResult>().groups[0].detect_num, 2u);
    const PortDetectInfo rec = wait_call(309).value.as<PortDetectInfo>();
    const PortDetectEntry* e = rec.groups[0].entries;
    // Probed: open 1, refused 0 over the caller's 1. Not probed: as given.
    EXPECT_EQ((std::vector<int>{e[0].reached, e[1].reached, e[2].reached, e[3].reached}), (std::vector<int>{1, 0, 1, 0}));
    EXPECT_STREQ(e[0].text + 4, "caller text");
    const auto clamped = wait_call(311).value.as<AnyPortResult>();
    EXPECT_TRUE(clamped.group_num == 7u && clamped.groups[0].detect_num == 4u && clamped.groups[1].detect_num == 0u);
    const PortDetectInfo clamped_whole = wait_call(312).value.as<PortDetectInfo>();
    EXPECT_TRUE(clamped_whole.group_num == 7 && clamped_whole.groups[0].detect_num == 4);

    // The first detection ended after t0, so none may go before t0 + 20 s.
    wait_until([&] { return PortDetect::live_count() < detections; }, 25000, 20);
    EXPECT_GE(now_ms() - t0, 19900u) << "a detection was freed early";

    EXPECT_TRUE(wait_until([] { return PortDetect::live_count() + PortDetectBase::live_count() == 0; }, 25000, 50))
        << PortDetect::live_count() << " detections and " << PortDetectBase::live_count() << " probes left";
    for (uint32_t num = 301; num <= 312; ++num) EXPECT_EQ(calls(num), num == 307 || num == 310 ? 0u : 1u) << num;
}
