// zeph-nettools reach run as a process against peers on loopback. Runs on the test's thread.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "peers.h"
#include "tool_run.h"

using namespace zeph_test;

namespace {

std::string target(uint16_t port, const std::string& proto) {
    return "127.0.0.1:" + std::to_string(port) + "/" + proto;
}

} // namespace

TEST(CliReach, JsonRowsCarryTheRecordTheTableTellsOpenFromClosedAndBadArgumentsExitTwo) {
    zeph_peers::StunResponder stun;
    ASSERT_TRUE(stun.start());
    TcpListener listener;
    const uint16_t refusing = closed_tcp_port();
    UdpSocket silent;
    const std::vector<std::string> targets = {target(stun.port(), "udp:stun"), target(listener.port(), "tcp:direct"),
                                              target(refusing, "tcp"), target(silent.port(), "udp:nps")};
    std::vector<std::string> args = {"reach", "--json"};
    args.insert(args.end(), targets.begin(), targets.end());
    ToolRun r = run_tool(args, 10000);
    ASSERT_EQ(r.code(), 0) << r.what();
    ASSERT_EQ(r.lines(), 1u) << r.what();
    const auto m = parse_json_lines(r.out);
    EXPECT_EQ(at(m, "0:kind"), "\"reach\"");
    const char* expect_open[] = {"1", "1", "0", "0"};
    for (size_t i = 0; i < targets.size(); ++i) {
        const std::string row = "0:sites." + std::to_string(i) + ".";
        EXPECT_EQ(at(m, row + "target"), "\"" + targets[i] + "\"");
        EXPECT_EQ(at(m, row + "addr"), "\"127.0.0.1\"");
        EXPECT_EQ(at(m, row + "open"), expect_open[i]) << targets[i];
        EXPECT_NE(at(m, row + "delay"), "<missing key>");
    }
    EXPECT_EQ(at(m, "0:sites.0.protocol"), "2");
    EXPECT_EQ(at(m, "0:sites.1.no_proxy"), "1");
    EXPECT_EQ(at(m, "0:sites.2.protocol"), "1");
    EXPECT_EQ(at(m, "0:sites.3.detect_type"), "1");
    // The first answer starts 1 s of grace; the process leaves with the result.
    EXPECT_GE(std::stoi(at(m, "0:elapsed_ms")), 950);
    EXPECT_LT(r.ms(), 4000u) << r.what();

    ToolRun t = run_tool({"reach", target(stun.port(), "udp"), target(refusing, "tcp")}, 10000);
    ASSERT_EQ(t.code(), 0) << t.what();
    EXPECT_NE(t.out.find(target(stun.port(), "udp") + " "), std::string::npos) << t.out;
    EXPECT_NE(t.out.find("open"), std::string::npos) << t.out;
    EXPECT_NE(t.out.find("closed"), std::string::npos) << t.out;
    EXPECT_TRUE(t.err.empty()) << t.what();

    std::vector<std::string> seventeen = {"reach"};
    for (int i = 1; i <= 17; ++i) seventeen.push_back(target(uint16_t(i), "udp"));
    expect_usage_errors({
        {"reach"}, {"reach", "127.0.0.1:80"}, {"reach", "127.0.0.1:0/udp"}, {"reach", "127.0.0.1:80/sctp"},
        {"reach", "127.0.0.1:80/tcp:nps"}, {"reach", "127.0.0.1:80/udp:direct"}, {"reach", "127.0.0.1:80/udp:"},
        {"reach", "127.0.0.1/icmp:stun"}, {"reach", "127.0.0.1:80/udp:ice"}, // no credentials
        {"reach", "--ice-local", "nocolon", "--ice-remote", "a:b", "127.0.0.1:80/udp:ice"},
        {"reach", "--ice-local", "a:b"}, {"reach", "bad\thost:80/udp"}, {"reach", "--frobnicate", "127.0.0.1:80/udp"},
        seventeen});
    expect_help("reach");
}
