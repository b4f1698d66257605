// `zeph-nettools quality` as a user runs it: against a zeph-quality-server on 127.0.73.x
// (on a terminal), with bad input, and with the fixed client ports held by someone else.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "peers.h"
#include "process.h"
#include "quality_peers.h"
#include "tool_run.h"

using zeph_test::at;
using zeph_test::run_tool;

namespace {

constexpr int kRunMs = 30000;
constexpr int kStartMs = 5000;

struct QualityServer {
    zeph_test::Process proc;
    bool start(const std::string& ip) {
        if (!proc.start({zeph_test::tool_path("zeph-quality-server"), "--addr", ip})) return false;
        return zeph_test::wait_until([&] { return proc.stdout_text().find("listening on") != std::string::npos; },
                                     kStartMs, 10);
    }
};

// zeph-nettools with stderr on a terminal (the pty of util-linux script) and stdout
// in a file: `out` is stdout, `err` what reached the terminal.
zeph_test::ToolRun run_on_terminal(const std::vector<std::string>& args) {
    zeph_test::ToolRun r;
    zeph_test::Process p;
    std::string cmd = "'" + zeph_test::tool_path("zeph-nettools") + "'";
    for (const std::string& a : args) cmd += " '" + a + "'";
    cmd += " >'" + p.dir().file("tool_stdout") + "'";
    if (!p.start({"script", "-qec", cmd, "/dev/null"})) return r;
    r.exited = zeph_test::wait_until([&] { return !p.running(); }, kRunMs, 10);
    r.status = p.stop();
    r.out = p.dir().read("tool_stdout"), r.err = p.stdout_text();
    return r;
}

// On a terminal a bar on stderr follows the stream, then the table on stdout; beside
// JSON nothing reaches the terminal.
TEST(CliQuality, TableAndJsonAgainstOurServer) {
    const std::string ip = "127.0.73.10";
    QualityServer server;
    ASSERT_TRUE(server.start(ip)) << server.proc.stderr_text();

    zeph_test::ToolRun r = run_on_terminal({"quality", ip, ip + ":64000,base=100,name=padded,token=abc"});
    if (!r.exited && r.status < 0) GTEST_SKIP() << "no util-linux script to give the tool a terminal";
    ASSERT_EQ(r.code(), 0) << r.what();
    // The site without the 100 ms added is the better one.
    for (const std::string& says : {std::string("quality of 2 site(s)"), std::string("padded"), "best: " + ip + ":64000",
                                    ip + ":64000 *"})
        EXPECT_NE(r.out.find(says), std::string::npos) << says << "\n" << r.out;
    // A bar partly filled, then full.
    EXPECT_TRUE(std::regex_search(r.err, std::regex("\\[#+\\.+\\] +[0-9]+ %  streaming to 2 site\\(s\\)")) &&
                r.err.find("[####################] 100 %") != std::string::npos)
        << r.err;

    r = run_on_terminal({"quality", "--json", ip});
    ASSERT_EQ(r.code(), 0) << r.what();
    EXPECT_EQ(r.err, "");
    const auto j = zeph_test::parse_json_lines(r.out);
    EXPECT_EQ(at(j, "0:site"), "\"" + ip + ":64000\"");
    EXPECT_EQ(at(j, "0:best"), "1");
    EXPECT_EQ(at(j, "0:loss_up_avg_permille"), "0");
    EXPECT_GT(std::stoi(at(j, "0:score")), 6000);
    EXPECT_EQ(at(j, "1:best"), "\"" + ip + ":64000\"");
    EXPECT_EQ(at(j, "1:best_index"), "0");
    EXPECT_EQ(r.lines(), 2u);
}

TEST(CliQuality, BadInputIsRefusedWithItsReason) {
    struct Case {
        std::vector<std::string> args;
        std::string says;
    };
    std::vector<Case> cases = {
        {{"quality"}, "no site"},
        {{"quality", "127.0.0.1:0"}, "bad port"},
        {{"quality", "127.0.0.1,colour=red"}, "unknown item 'colour=red'"},
        {{"quality", "127.0.0.1,token=" + std::string(65, 't')}, "token of site '127.0.0.1' must be 1 to 64 bytes"},
        {{"quality", "127.0.0.1", "--para"}, "--para needs a value"},
        {{"quality", "--proxy", "127.0.0.1:3128", "127.0.0.1"}, "does not apply"},
    };
    cases.push_back({std::vector<std::string>(12, "127.0.0.1"), "at most 10 sites, got 11"});
    cases.back().args[0] = "quality";
    for (const Case& c : cases) {
        const zeph_test::ToolRun r = run_tool(c.args, kRunMs);
        EXPECT_EQ(r.code(), 2) << c.args.back() << "\n" << r.what();
        EXPECT_EQ(r.err.rfind("zeph-nettools: quality: ", 0), 0u) << r.what();
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.what();
        EXPECT_TRUE(r.out.empty()) << r.what();
    }
}

// Every port the client would try for its one site, held on any address as
// the client binds (one another program holds is taken all the same).
TEST(CliQuality, TakenClientPortsAreNamed) {
    zeph_test::HeldUdpPorts held(64100, 64);
    const zeph_test::ToolRun r = run_tool({"quality", "127.0.73.11"}, kRunMs);
    EXPECT_EQ(r.code(), 1) << r.what();
    EXPECT_NE(r.err.find("the quality client ports are taken: site 1 found no free UDP port in 64100-64163"),
              std::string::npos)
        << r.what();
}

} // namespace
