// Port detection over real peers on loopback: the three-port code, the
// any-port results, the waits (early end, one second after the first
// answer, three seconds without one) and the delayed free.
//
// Three-port groups are read by their ports (10002 UDP, 443 and 1124 TCP),
// so those tests put their peers on fixed ports of loopback addresses of
// their own (127.0.0.2x), which keeps tests running in parallel apart.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "inc/port_detect.h"
#include "peers.h"
#include "zeph_nettools/net_tools.h"

using namespace zeph_test;

namespace {

// Each callback's record, copied, by the detection's serial number (all
// three result records carry `num`).
struct Call {
    uint64_t at_ms = 0;
    int calls = 0;
    std::vector<uint8_t> bytes;
    template <class T>
    T as() const {
        T out{};
        std::memcpy(&out, bytes.data(), bytes.size() < sizeof out ? bytes.size() : sizeof out);
        return out;
    }
};
std::mutex g_mutex;
std::map<uint32_t, Call> g_calls;

template <class T>
void record(void* p) {
    const T* r = static_cast<const T*>(p);
    std::lock_guard<std::mutex> lock(g_mutex);
    Call& c = g_calls[r->num];
    c.at_ms = now_ms();
    ++c.calls;
    c.bytes.assign(reinterpret_cast<const uint8_t*>(r), reinterpret_cast<const uint8_t*>(r + 1));
}
const auto on_result = &record<PortDetectResult>;
const auto on_any = &record<AnyPortResult>;
const auto on_info = &record<PortDetectInfo>;

bool called(uint32_t num) {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_calls.count(num) && g_calls[num].calls > 0;
}

Call wait_call(uint32_t num, int timeout_ms = 6000) {
    wait_until([&] { return called(num); }, timeout_ms);
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_calls[num];
}

PortDetectEntry entry(const std::string& ip, uint16_t port, uint8_t protocol, uint8_t reached = 0) {
    PortDetectEntry e;
    std::memset(&e, 0, sizeof e);
    e.addr = ipv4_be(ip);
    e.port = port;
    e.protocol = protocol;
    e.reached = reached;
    return e;
}

PortDetectInfo make_info(const std::vector<std::vector<PortDetectEntry>>& groups, uint32_t type = 0) {
    PortDetectInfo info;
    std::memset(&info, 0, sizeof info);
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
    return {entry(ip, 10002, ZEPH_TRANS_UDP), entry(ip, 443, ZEPH_TRANS_TCP), entry(ip, 1124, ZEPH_TRANS_TCP)};
}

} // namespace

// Entries of no known transport get no probe, so the marks given here are
// what the code is built from.
TEST(PortDetectCodes, ThreePortTable) {
    auto g = [](uint16_t p0, int r0, uint16_t p1, int r1, uint16_t p2, int r2) {
        return std::vector<PortDetectEntry>{entry("10.0.0.1", p0, 0, uint8_t(r0)),
                                            entry("10.0.0.1", p1, 0, uint8_t(r1)),
                                            entry("10.0.0.1", p2, 0, uint8_t(r2))};
    };
    struct Case {
        const char* what;
        std::vector<std::vector<PortDetectEntry>> groups;
        uint32_t ret;
    };
    const Case cases[] = {
        {"all three", {g(10002, 1, 443, 1, 1124, 1)}, 0x0202},
        {"udp alone gives media 2", {g(10002, 1, 443, 0, 1124, 0)}, 0x0200},
        {"443 only", {g(10002, 0, 443, 1, 1124, 0)}, 0x0100},
        {"share only", {g(10002, 0, 443, 0, 1124, 1)}, 0x0002},
        {"nothing", {g(10002, 0, 443, 0, 1124, 0), g(10002, 0, 443, 0, 1124, 0)}, 0},
        {"other port in entry 0 never gives 2", {g(443, 1, 443, 1, 1124, 0)}, 0x0100},
        {"ports out of place count nothing", {g(9999, 1, 80, 1, 1125, 1)}, 0},
        {"ties keep the lower index", {g(10002, 0, 443, 1, 1124, 0), g(10002, 0, 443, 1, 1124, 0)}, 0x0100},
        {"a strictly better later group wins",
         {g(10002, 0, 443, 0, 1124, 1), g(10002, 0, 443, 1, 1124, 0), g(10002, 1, 443, 0, 1124, 0),
          g(10002, 1, 443, 0, 1124, 0)},
         0x02000200},
        {"media outweighs share", {g(10002, 0, 443, 1, 1124, 0), g(10002, 0, 443, 0, 1124, 1)}, 0x0100},
    };
    for (const Case& c : cases) {
        PortDetectInfo info = make_info(c.groups, ZEPH_PORT_DETECT_THREE);
        info.num = 77;
        PortDetect detect(&info, on_result);
        PortDetectResult result{};
        detect.calc_3_port(result);
        EXPECT_EQ(result.ret, c.ret) << c.what;
        EXPECT_EQ(result.num, 77u);
        EXPECT_EQ(result.type, 1u);
    }
}

// Group 0 (127.0.0.21): 443 and 1124 listen, 10002 is silent -> 0x102.
// Group 1 (127.0.0.22): all three answer -> 0x202, the best. The silent
// port holds the result for the second after the first answer only.
TEST(PortDetect, ThreePortCodeFromRealGroups) {
    TcpListener a443("127.0.0.21", 443), a1124("127.0.0.21", 1124), b443("127.0.0.22", 443), b1124("127.0.0.22", 1124);
    ASSERT_TRUE(a443.ok() && a1124.ok() && b443.ok() && b1124.ok());
    CoturnServer stun;
    ASSERT_TRUE(stun.start("127.0.0.22", 10002));

    PortDetectInfo info = make_info({three_ports("127.0.0.21"), three_ports("127.0.0.22")}, 7);
    const uint64_t t0 = now_ms();
    ASSERT_EQ(0, zeph_3port_detect(301, &info, on_result));
    EXPECT_EQ(info.type, 1u); // set by the export
    const Call c = wait_call(301);
    ASSERT_EQ(c.calls, 1);
    const auto r = c.as<PortDetectResult>();
    EXPECT_EQ(r.type, 1u);
    EXPECT_EQ(r.ret, 0x01000202u);
    EXPECT_GE(c.at_ms - t0, 900u);
    EXPECT_LT(c.at_ms - t0, 2700u);
}

TEST(PortDetect, AllAnswerEndsEarly) {
    TcpListener l443("127.0.0.23", 443), l1124("127.0.0.23", 1124);
    ASSERT_TRUE(l443.ok() && l1124.ok());
    CoturnServer stun;
    ASSERT_TRUE(stun.start("127.0.0.23", 10002));
    PortDetectInfo info = make_info({three_ports("127.0.0.23")});
    const uint64_t t0 = now_ms();
    ASSERT_EQ(0, zeph_3port_detect(302, &info, on_result));
    const Call c = wait_call(302);
    EXPECT_EQ(c.as<PortDetectResult>().ret, 0x0202u);
    EXPECT_LT(c.at_ms - t0, 600u);
}

// Without any answer every mode reports after the full three seconds. Mode
// 0 reads only the first destination; an unknown mode calls nobody.
TEST(PortDetect, NoAnswerAndOnePortModes) {
    UdpSocket silent;
    TcpListener open;
    ASSERT_TRUE(silent.ok() && open.ok());
    const uint16_t closed = closed_tcp_port();
    PortDetectInfo three = make_info({three_ports("127.0.0.24")});
    PortDetectInfo any =
        make_info({{entry("127.0.0.1", silent.port(), ZEPH_TRANS_UDP), entry("127.0.0.1", closed, ZEPH_TRANS_TCP, 1)}});
    auto start = [](uint32_t num, uint32_t type, const std::vector<PortDetectEntry>& entries) {
        PortDetectInfo info = make_info({entries}, type);
        auto detect = std::make_shared<PortDetect>(&info, on_result);
        return detect->start(num, detect);
    };

    const uint64_t t0 = now_ms();
    ASSERT_EQ(0, zeph_3port_detect(303, &three, on_result));
    ASSERT_EQ(0, zeph_any_port_detect(304, &any, on_any));
    ASSERT_EQ(0, start(305, ZEPH_PORT_DETECT_ONE, {entry("127.0.0.1", open.port(), ZEPH_TRANS_TCP)}));
    ASSERT_EQ(0, start(306, ZEPH_PORT_DETECT_ONE,
                       {entry("127.0.0.1", closed, ZEPH_TRANS_TCP), entry("127.0.0.1", open.port(), ZEPH_TRANS_TCP)}));
    ASSERT_EQ(0, start(307, 5, {entry("127.0.0.1", open.port(), ZEPH_TRANS_TCP)}));

    const Call one_open = wait_call(305);
    EXPECT_EQ(one_open.as<PortDetectResult>().ret, 1u);
    EXPECT_LT(one_open.at_ms - t0, 600u);
    for (uint32_t num : {303u, 304u, 306u}) {
        const Call c = wait_call(num);
        EXPECT_GE(c.at_ms - t0, 2900u) << num;
        EXPECT_LT(c.at_ms - t0, 4500u) << num;
    }
    EXPECT_EQ(wait_call(303).as<PortDetectResult>().ret, 0u);
    EXPECT_EQ(wait_call(306).as<PortDetectResult>().ret, 0u); // the open second one doesn't count
    const auto a = wait_call(304).as<AnyPortResult>();
    EXPECT_EQ(a.group_num, 1u);
    EXPECT_EQ(a.groups[0].detect_num, 2u);
    EXPECT_EQ(a.groups[0].open[0] + a.groups[0].open[1], 0u);
    EXPECT_FALSE(called(307));
}

// One answer of four: the results follow about a second later. Without
// `notify` the caller gets open flags; with it, its own record with the
// marks filled in, where an entry without a probe keeps the caller's mark.
TEST(PortDetect, AnyPortResultsAndRecord) {
    TcpListener open;
    UdpSocket silent;
    ASSERT_TRUE(open.ok() && silent.ok());
    const uint16_t closed = closed_tcp_port();
    PortDetectInfo flags = make_info(
        {{entry("127.0.0.1", closed, ZEPH_TRANS_TCP), entry("127.0.0.1", open.port(), ZEPH_TRANS_TCP)},
         {entry("127.0.0.1", silent.port(), ZEPH_TRANS_UDP), entry("127.0.0.1", closed_udp_port(), ZEPH_TRANS_UDP)}});
    PortDetectInfo whole =
        make_info({{entry("127.0.0.1", open.port(), ZEPH_TRANS_TCP), entry("127.0.0.1", closed, ZEPH_TRANS_TCP, 1),
                    entry("127.0.0.1", 99, 7, 1), entry("127.0.0.1", 98, 7, 0)}});
    whole.notify = 1;
    std::strcpy(whole.groups[0].entries[0].text + 4, "caller text");

    const uint64_t t0 = now_ms();
    ASSERT_EQ(0, zeph_any_port_detect(308, &flags, on_any));
    ASSERT_EQ(0, zeph_any_port_detect(309, &whole, on_info));
    EXPECT_EQ(flags.type, 2u);

    const Call c = wait_call(308);
    EXPECT_GE(c.at_ms - t0, 950u);
    EXPECT_LT(c.at_ms - t0, 2200u);
    const auto a = c.as<AnyPortResult>();
    EXPECT_EQ(a.type, 2u);
    EXPECT_EQ(a.group_num, 2u);
    const uint32_t want[2][4] = {{0, 1, 0, 0}, {0, 0, 0, 0}};
    for (int g = 0; g < 2; ++g)
        for (int e = 0; e < 4; ++e) EXPECT_EQ(a.groups[g].open[e], want[g][e]) << g << "," << e;

    const auto rec = wait_call(309).as<PortDetectInfo>();
    EXPECT_EQ(rec.num, 309u);
    EXPECT_EQ(rec.notify, 1u);
    const PortDetectEntry* e = rec.groups[0].entries;
    EXPECT_EQ(e[0].reached, 1);
    EXPECT_EQ(e[1].reached, 0); // written: the probe failed
    EXPECT_EQ(e[2].reached, 1); // no probe: as given
    EXPECT_EQ(e[3].reached, 0);
    EXPECT_STREQ(e[0].text + 4, "caller text");
}

// After the callback the detection and its probes stay for the delayed
// free (20 s), then all go, probe threads included. A detection without a
// callback does nothing and goes the same way.
TEST(PortDetect, FreedTwentySecondsAfterResult) {
    EXPECT_EQ(1, zeph_3port_detect(1, nullptr, on_result));
    EXPECT_EQ(1, zeph_any_port_detect(1, nullptr, on_any));

    TcpListener open;
    UdpSocket silent;
    ASSERT_TRUE(open.ok() && silent.ok());
    PortDetectInfo info = make_info(
        {{entry("127.0.0.1", open.port(), ZEPH_TRANS_TCP), entry("127.0.0.1", silent.port(), ZEPH_TRANS_UDP)}});
    PortDetectInfo no_callback = info;
    ASSERT_EQ(0, zeph_any_port_detect(310, &info, on_any));
    ASSERT_EQ(0, zeph_any_port_detect(311, &no_callback, nullptr));
    ASSERT_EQ(wait_call(310).calls, 1);

    MORL_SleepMs(2000);
    EXPECT_GE(PortDetect::live_count(), 2);
    EXPECT_GE(PortDetectBase::live_count(), 2);
    EXPECT_TRUE(wait_until([] { return PortDetect::live_count() == 0; }, 25000, 50))
        << PortDetect::live_count() << " detections left";
    EXPECT_TRUE(wait_until([] { return PortDetectBase::live_count() == 0; }, 1000, 10))
        << PortDetectBase::live_count() << " probes left";
    EXPECT_FALSE(called(311));
    EXPECT_EQ(wait_call(310).calls, 1);
}
