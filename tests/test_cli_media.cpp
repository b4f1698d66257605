// `zeph-nettools media` against a media peer on loopback: its report agrees with what the
// peer saw, failures exit with their codes. JSON lines are read by python3's json module.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <zeph_nettools/media_socket.h>

#include <algorithm>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "media_peer.h"
#include "peers.h"
#include "tool_run.h"

using zeph_peers::MediaPeer;
using zeph_peers::MediaPeerBehaviour;
using zeph_peers::MediaPeerMode;
using zeph_test::ToolRun;
using zeph_test::at;
using zeph_test::parse_json_lines;
using zeph_test::run_tool;

namespace {

ToolRun run_media(const std::vector<std::string>& args, int timeout_ms = 20000) {
    std::vector<std::string> all = {"media"};
    all.insert(all.end(), args.begin(), args.end());
    return run_tool(all, timeout_ms);
}

// A number of a JSON line; "null" or text throws, which fails the test.
double number(const std::map<std::string, std::string>& m, const std::string& key) { return std::stod(at(m, key)); }

// The (eventId, errorCode) pairs of one JSON line.
std::vector<std::pair<int, int>> events_of(const std::map<std::string, std::string>& m, int line) {
    std::vector<std::pair<int, int>> ev;
    for (int i = 0;; ++i) {
        const std::string k = std::to_string(line) + ":events." + std::to_string(i);
        if (!m.count(k + ".id")) return ev;
        ev.emplace_back(std::stoi(m.at(k + ".id")), std::stoi(m.at(k + ".code")));
    }
}

std::string server(const MediaPeer& peer) { return "127.0.0.1:" + std::to_string(peer.port()); }

} // namespace

// Full-size audio (four channels, sorted) and video bodies come back intact; all figures agree.
TEST(CliMedia, EchoPeerReturnsEveryPacketIntactAndTheFiguresAgree) {
    MediaPeer peer(MediaPeerMode::Echo);
    ASSERT_TRUE(peer.start());
    ToolRun r = run_media(
        {"--server", server(peer), "--types", "audio,video", "--rate", "100", "--duration", "1", "--size", "2032", "--json"});
    ASSERT_EQ(r.code(), 0) << r.what();
    auto j = parse_json_lines(r.out);
    ASSERT_EQ(at(j, "0:media_name"), "\"Audio\"") << r.out;
    ASSERT_EQ(at(j, "1:media_name"), "\"Video\"") << r.out;
    EXPECT_EQ(at(j, "0:channels"), "4");
    EXPECT_EQ(at(j, "1:channels"), "1");
    // The transport counts the audio packet that only opens the sort.
    const std::map<std::string, std::string> both = {
        {"sent", "100"}, {"accepted", "100"}, {"refused", "0"}, {"corrupt", "0"}, {"reordered", "0"},
        {"bytes_sent", "203200"}, {"stats_result", "0"}, {"stats.send.SuccessCount", "100"},
        {"stats.send.RtpSuccessCount", "100"}, {"stats.sendCount", "100"}, {"stats.sendSuccessCount", "100"},
        {"stats.recv.SuccessCount", "100"}, {"stats.dataLoss", "0"}};
    for (int line : {0, 1}) {
        const std::string l = std::to_string(line) + ":";
        for (const auto& [key, value] : both) EXPECT_EQ(at(j, l + key), value) << l << key << "\n" << r.out;
        EXPECT_TRUE(events_of(j, line).empty()) << r.out;
        EXPECT_GT(number(j, l + "rtt_p50_ms"), 0.0) << r.out;
        EXPECT_GE(number(j, l + "rtt_p99_ms"), number(j, l + "rtt_p50_ms")) << r.out;
    }
    EXPECT_EQ(at(j, "0:received"), "99") << "the first audio RTP packet only opens the sort\n" << r.out;
    EXPECT_EQ(at(j, "1:received"), "100") << r.out;
    EXPECT_EQ(peer.packets(ZEPH_MEDIA_AUDIO), 100u);
    EXPECT_EQ(peer.packets(ZEPH_MEDIA_VIDEO), 100u);
    EXPECT_EQ(peer.accepted(), 5u) << "four audio channels and one video channel";
}

// A sink: the tool does not sit out its wait for echoes, the packet type reaches the wire
// as given, and a 403 page before any packet shows as event 4 with code 403.
TEST(CliMedia, SinkPeerGetsEverythingAndARefusalShowsAsAnEvent) {
    MediaPeer peer(MediaPeerMode::Sink);
    ASSERT_TRUE(peer.start());
    MediaPeerBehaviour forbidden;
    forbidden.forbidden = MediaPeerBehaviour::Forbidden::BeforeEcho;
    peer.setNextBehaviour(forbidden);
    ToolRun r = run_media({"--server", server(peer), "--types", "video,data", "--rate", "200", "--duration", "0.5",
                           "--pkt-type", "2", "--size", "24", "--json"});
    ASSERT_EQ(r.code(), 0) << r.what();
    auto j = parse_json_lines(r.out);
    EXPECT_EQ(at(j, "1:media_name"), "\"DATA\"") << r.out;
    const std::map<std::string, std::string> both = {{"accepted", "100"}, {"received", "0"}, {"corrupt", "0"},
                                                     {"rtt_p50_ms", "null"}, {"stats.send.SignalSuccessCount", "100"}};
    for (const std::string l : {"0:", "1:"})
        for (const auto& [key, value] : both) EXPECT_EQ(at(j, l + key), value) << l << key << "\n" << r.out;
    EXPECT_EQ(events_of(j, 0), (std::vector<std::pair<int, int>>{{4, 403}})) << r.out;
    EXPECT_TRUE(events_of(j, 1).empty()) << r.out;
    EXPECT_TRUE(zeph_test::wait_until([&] { return peer.totalPackets() == 200; }, 2000)) << peer.totalPackets();
    const auto c = peer.connection(0);
    ASSERT_FALSE(c.heads.empty());
    EXPECT_TRUE(c.heads[0].pktType == 2 && c.heads[0].head_Len == 16 + 24);
    // Connects, 0.5 s of sending, 0.5 s of silence: far below the 3 s an echo would be awaited.
    EXPECT_LT(r.ms(), 2500u) << r.what();
}

TEST(CliMedia, ProxyCredentialsDecideWhetherTheChannelsConnect) {
    MediaPeer peer(MediaPeerMode::Echo);
    ASSERT_TRUE(peer.start());
    zeph_test::TinyProxy proxy;
    ASSERT_TRUE(proxy.start({peer.port()}, "zeph", "s3cret"));
    const std::string at_proxy = "127.0.0.1:" + std::to_string(proxy.port());
    // The table form, with the session id asked for.
    ToolRun t = run_media({"--server", server(peer), "--session", "7", "--types", "video", "--rate", "50", "--duration",
                           "0.4", "--proxy", at_proxy, "--proxy-user", "zeph", "--proxy-pass", "s3cret"});
    ASSERT_EQ(t.code(), 0) << t.what();
    EXPECT_NE(t.out.find("media session 7 with " + server(peer)), std::string::npos) << t.out;
    // type chan rate sent accepted refused received corrupt reordered ...
    EXPECT_TRUE(std::regex_search(t.out, std::regex(R"((^|\n) *Video +1 +\S+ +20 +20 +0 +20 +0 +0 )"))) << t.out;
    EXPECT_NE(t.out.find("events: none"), std::string::npos) << t.out;
    EXPECT_NE(t.out.find("sent 20, failed 0"), std::string::npos) << t.out;
    EXPECT_EQ(peer.accepted(), 1u);

    ToolRun none = run_media({"--server", server(peer), "--proxy", at_proxy});
    EXPECT_EQ(none.code(), 1) << none.what();
    EXPECT_NE(none.err.find("MEDIA_SOCKET_ERRCODE_PROXY_AUTH (-992)"), std::string::npos) << none.what();
    EXPECT_TRUE(none.out.empty()) << none.what();
}

TEST(CliMedia, BadArgumentsExitTwoAndAnUnreachableServerExitsOne) {
    const std::string ok = "127.0.0.1:" + std::to_string(zeph_test::closed_tcp_port());
    // One of each kind: missing, malformed, out of range, not whole, unknown, half credentials.
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"--server", "127.0.0.1"},
        {"--server", ok, "--types", "audio,radio"},
        {"--server", ok, "--channels", "5"},
        {"--server", ok, "--rate", "1e3"},
        {"--server", ok, "--duration", "nan"},
        {"--server", ok, "--proxy-user", "u", "--proxy-pass", "p"},
        {"--server", ok, "--proxy", "127.0.0.1:3128,a:b", "--proxy-user", "u", "--proxy-pass", "p"},
        {"--server", ok, "--frobnicate"},
        {"--server", ok, "stray"},
    };
    for (const auto& args : bad) {
        ToolRun r = run_media(args, 5000);
        std::string cmd;
        for (auto& a : args) cmd += " " + a;
        EXPECT_EQ(r.code(), 2) << cmd << "\n" << r.what();
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << cmd << "\n" << r.what();
        EXPECT_TRUE(r.out.empty()) << cmd << "\n" << r.what();
    }
    ToolRun help = run_media({"--help"}, 5000);
    EXPECT_EQ(help.code(), 0) << help.what();
    EXPECT_EQ(help.out.rfind("usage: zeph-nettools media", 0), 0u) << help.out;

    ToolRun down = run_media({"--server", ok, "--types", "video,audio"});
    EXPECT_EQ(down.code(), 1) << down.what();
    EXPECT_NE(down.err.find("cannot connect Video to " + ok + ": MEDIA_SOCKET_ERRCODE_"), std::string::npos)
        << down.what();
    EXPECT_TRUE(down.out.empty()) << down.what();
}
