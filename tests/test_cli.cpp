// zeph-nettools as its users meet it: a process against loopback peers, judged by its exit
// status, its output (JSON parsed by python3, not by our code) and how fast it leaves.
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "peers.h"
#include "tool_run.h"

using namespace zeph_test;

static std::string endpoint(uint16_t port, const char* proto) {
    return "127.0.0.1:" + std::to_string(port) + "/" + proto;
}

TEST(Cli, BadArgumentsExitTwoWithOneLineAndHelpExitsZero) {
    const std::string t = "127.0.0.1:80/tcp", six = "a,b,c,d,e,f";
    std::vector<std::string> eight_groups = {"port", "a:1/tcp"};
    for (int g = 1; g < 8; ++g) eight_groups.insert(eight_groups.end(), {"--group", "a:1/tcp"});
    const std::vector<std::vector<std::string>> bad = {
        {}, {"frobnicate"}, {"port"}, {"port", "127.0.0.1:80/sctp"}, {"port", "127.0.0.1:0/tcp"},
        {"port", "--group", t}, {"port", "a:1/tcp", "a:2/tcp", "a:3/tcp", "a:4/tcp", "a:5/tcp"}, eight_groups,
        {"port", "--proxy", "127.0.0.1", t}, {"port", "--frobnicate", t}, {"net"}, {"net", t, "127.0.0.1:81/tcp"},
        {"net", "--servers", "a,b,c"}, {"net", "--servers", six, t}, {"net", "--context", "5", t},
        {"net", "--servers", six, "--context", "x"}, {"demo", "--three"},
        // Ports are digits only (no sign, no blank); a context beyond 64 bits or signed is not wrapped.
        {"port", "127.0.0.1:+80/tcp"}, {"port", "127.0.0.1: 80/tcp"}, {"port", "--proxy", "127.0.0.1:+3128", t},
        {"media", "--server", "127.0.0.1: 9000"}, {"net", "--servers", six, "--context", "18446744073709551616"},
        {"net", "--servers", six, "--context", "-1"}};
    expect_usage_errors(bad);
    for (const char* sub : {"port", "net", "demo"}) expect_help(sub);
    ToolRun v = run_tool({"--version"}, 5000);
    EXPECT_EQ(v.code(), 0) << v.what();
    EXPECT_EQ(v.out.rfind("zeph-nettools ", 0), 0u) << v.out;
}

// A proxy password is never shown (bad value, -vv, refused); curl's URL and the short form pass it on.
TEST(Cli, ProxyPasswordIsNeverPrinted) {
    const std::string secret = "Pw0rdSecret";
    const std::vector<std::vector<std::string>> bad = {
        {"port", "--proxy", "zeph:" + secret + "@127.0.0.1:3128", "127.0.0.1:80/tcp"},
        {"port", "--proxy", "http://zeph:" + secret + "@127.0.0.1:+1", "127.0.0.1:80/tcp"},
        {"port", "--proxy", "http://zeph:" + secret + "%4@127.0.0.1:3128", "127.0.0.1:80/tcp"},
        {"port", "--proxy", "127.0.0.1:0,zeph:" + secret, "127.0.0.1:80/tcp"},
    };
    for (const auto& args : bad) {
        ToolRun r = run_tool(args, 5000);
        EXPECT_TRUE(r.code() == 2 && r.err.find(secret) == std::string::npos) << args[2] << "\n" << r.what();
    }

    TcpListener target(TcpListener::Mode::Close);
    TinyProxy proxy;
    ASSERT_TRUE(proxy.start({target.port()}, "zeph", "s3cret"));
    const std::string at_proxy = "127.0.0.1:" + std::to_string(proxy.port());
    const auto run = [&](const char* cmd, const std::string& proxy_arg) {
        return run_tool({cmd, "--json", "-vv", "--proxy", proxy_arg, endpoint(target.port(), "tcp")}, 20000);
    };
    ToolRun url = run("port", "http://zeph:s3cr%65t@" + at_proxy + "/"); // %XX decoded, as curl does
    EXPECT_TRUE(url.code() == 0 && at(parse_json_lines(url.out), "0:groups.0.open.0") == "1") << url.what();
    ToolRun wrong = run("net", "http://zeph:" + secret + "@" + at_proxy);
    EXPECT_EQ(wrong.code(), 0) << wrong.what();
    // The short form carries credentials too: wrong ones leave the port closed.
    ToolRun refused = run("port", at_proxy + ",zeph:" + secret);
    EXPECT_TRUE(refused.code() == 0 && at(parse_json_lines(refused.out), "0:groups.0.open.0") == "0") << refused.what();
    for (const ToolRun* r : {&url, &wrong, &refused})
        for (const std::string& shown : {secret, std::string("s3cret"), std::string("s3cr%65t")})
            EXPECT_EQ((r->err + r->out).find(shown), std::string::npos) << r->what();
}

TEST(Cli, PortJsonTellsOpenFromClosedInEveryGroup) {
    CoturnServer stun;
    TcpListener open_tcp(TcpListener::Mode::Close);
    ASSERT_TRUE(stun.start() && open_tcp.ok());
    const uint16_t closed_tcp = closed_tcp_port(), closed_udp = closed_udp_port();

    ToolRun r = run_tool({"port", "--json", endpoint(stun.port(), "udp"), endpoint(closed_tcp, "tcp"), "--group",
                      endpoint(closed_udp, "udp"), "localhost:" + std::to_string(open_tcp.port()) + "/tcp"},
                     20000);
    ASSERT_TRUE(r.code() == 0 && r.lines() == 1u) << r.what();
    auto j = parse_json_lines(r.out);
    std::string got;
    for (const char* key : {"kind", "type", "group_num", "groups.0.detect_num", "groups.0.open.0", "groups.0.open.1",
                            "groups.1.open.0", "groups.1.open.1"})
        got += at(j, std::string("0:") + key) + " ";
    EXPECT_EQ(got, "\"any_port\" 2 2 2 1 0 0 1 ") << "the last: a host name is resolved before the call";
    EXPECT_EQ(j.count("0:groups.0.open.2"), 0u) << "only the entries in use are listed";
    // The table says the same in words.
    ToolRun t = run_tool({"port", endpoint(open_tcp.port(), "tcp"), endpoint(closed_tcp, "tcp")}, 20000);
    ASSERT_EQ(t.code(), 0) << t.what();
    for (const std::string& text : {endpoint(open_tcp.port(), "tcp") + "    ", std::string("open\n"), std::string("closed\n")})
        EXPECT_NE(t.out.find(text), std::string::npos) << text << " in\n" << t.out;
}

// The three-port code from real groups on the fixed ports (a bare host: 10002/udp, 443/tcp, 1124/tcp).
TEST(Cli, ThreePortDecodesTheBestGroup) {
    if (geteuid() != 0) GTEST_SKIP() << "ports 443 and 1124 need root";
    const auto mode = TcpListener::Mode::Close;
    TcpListener a443("127.0.0.51", 443, mode), b443("127.0.0.52", 443, mode), b1124("127.0.0.52", 1124, mode);
    if (!a443.ok() || !b443.ok() || !b1124.ok()) GTEST_SKIP() << "fixed ports on 127.0.0.51-52 are taken";
    CoturnServer stun;
    ASSERT_TRUE(stun.start("127.0.0.52", 10002));

    ToolRun r = run_tool({"port", "--three", "--json", "127.0.0.51", "127.0.0.52"}, 20000);
    ASSERT_EQ(r.code(), 0) << r.what();
    auto j = parse_json_lines(r.out);
    EXPECT_EQ(at(j, "0:kind") + at(j, "0:ret_hex") + at(j, "0:group") + at(j, "0:media_word") + at(j, "0:share"),
              "\"three_port\"\"0x01000202\"1\"line\"2");

    ToolRun only_a = run_tool({"port", "--three", "127.0.0.51"}, 20000);
    EXPECT_TRUE(only_a.code() == 0 && only_a.out.find("code 0x00000100") != std::string::npos &&
                only_a.out.find("media 1 (kest), share 0 (brel)") != std::string::npos)
        << only_a.what();
}

TEST(Cli, NetMeasuresUdpAgainstStunAndPlanReturnsContext) {
    CoturnServer stun;
    ASSERT_TRUE(stun.start());
    ToolRun r = run_tool({"net", "--json", endpoint(stun.port(), "udp")}, 20000);
    ASSERT_TRUE(r.code() == 0 && r.lines() == 1u) << r.what();
    auto j = parse_json_lines(r.out);
    EXPECT_EQ(at(j, "0:level") + at(j, "0:level_num") + at(j, "0:discard"), "110");
    EXPECT_GE(std::stoi(at(j, "0:average")), 1);
    EXPECT_LT(std::stoi(at(j, "0:qos")), 3);

    // Unnamed servers: seven records, then level 3 after about 4 s, not after the tool's deadline.
    ToolRun plan = run_tool({"net", "--json", "--servers", ",,,,,", "--context", "77"}, 40000);
    ASSERT_TRUE(plan.code() == 0 && plan.lines() == 8u) << plan.what();
    auto p = parse_json_lines(plan.out);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(at(p, std::to_string(i) + ":context"), "77") << plan.out;
    EXPECT_EQ(at(p, "7:level") + " " + at(p, "7:discard"), "3 100");
    EXPECT_LT(plan.ended_ms - plan.started_ms, 15000u) << plan.what();
}

TEST(Cli, DemoCompletesAndTheProcessLeavesRightAfterItsLastLine) {
    ToolRun r = run_tool({"demo", "--json"}, 60000);
    ASSERT_TRUE(r.exited && r.code() == 0) << r.what();
    auto j = parse_json_lines(r.out);
    std::map<std::string, int> kinds;
    std::string quality_best, race; // the site race: its first answer, then its rows
    for (size_t i = 0; i < r.lines(); ++i) {
        kinds[at(j, std::to_string(i) + ":kind")]++;
        if (at(j, std::to_string(i) + ":phase") == "\"sites\"")
            race += at(j, std::to_string(i) + ":event") + at(j, std::to_string(i) + ":site") + " ";
        if (at(j, std::to_string(i) + ":phase") == "\"quality\"" && j.count(std::to_string(i) + ":best_index"))
            quality_best = at(j, std::to_string(i) + ":best");
    }
    EXPECT_EQ(kinds["\"any_port\""], 1) << r.out;
    // The quality run against the server the demo started: the direct site beats the impaired relay.
    EXPECT_TRUE(quality_best == "\"direct\"" || r.err.find("skipped the quality run") != std::string::npos) << r.out;
    EXPECT_GE(kinds["\"net\""], 3) << r.out;
    // The nearest of the race is the server the demo probes directly; rows by hold-back, in order among equals.
    EXPECT_TRUE(race == "\"first\"\"direct\" \"site\"\"direct\" \"site\"\"relay +10ms\" \"site\"\"relay +30ms\" "
                        "\"site\"\"relay +5ms @50\" " ||
                r.err.find("skipped the site race") != std::string::npos)
        << r.out;
    // As root three-port and the plan run too, unless their fixed ports are held (then a skip says so).
    const bool root = geteuid() == 0;
    EXPECT_TRUE(!root || r.err.find("skipped the three-port") != std::string::npos || kinds["\"three_port\""] == 1) << r.out;
    EXPECT_TRUE(!root || r.err.find("skipped the net detection plan") != std::string::npos || kinds["\"net\""] >= 8)
        << r.out;
    // Library threads (delayed frees, probes) outlive the last result: the exit must not wait for them.
    EXPECT_LT(r.ended_ms - r.last_output_ms, 2000u) << r.what();
}
