// The quality server against a raw client of the test's own over loopback,
// and the zeph-quality-server program. Each test binds its own 127.0.64.x.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "bwdetect/detect_server.h"
#include "peers.h"
#include "zeph_nettools/settings.h"

using zeph_test::UdpSocket;

namespace {

constexpr uint16_t kPort = 64000;
constexpr int kAnswerWaitMs = 2000;
constexpr int kSilenceWaitMs = 150;
constexpr size_t kLevel1Len = 327; // the length of a level-1 packet

// Wire offsets, written out here independently of the library's codec.
constexpr size_t kType = 10, kSeq = 16, kSession = 20, kTime = 24, kLevel = 28, kPairCount = 29, kLen = 30;
constexpr size_t kPairs = 32, kStatus = 96, kAuthResult = 32, kEchoedFrom = 100;

// Big-endian fields of `n` bytes.
void put(std::vector<uint8_t>& p, size_t at, uint32_t v, int n = 4) {
    for (int i = 0; i < n; ++i) p[at + i] = uint8_t(v >> (8 * (n - 1 - i)));
}
uint32_t get(const std::vector<uint8_t>& p, size_t at, int n = 4) {
    uint32_t v = 0;
    for (int i = 0; i < n; ++i) v = v << 8 | p[at + i];
    return v;
}

// A client's packet: the head, then a payload of known bytes.
std::vector<uint8_t> Packet(uint16_t type, uint32_t seq, uint32_t session, size_t len = kLevel1Len) {
    std::vector<uint8_t> p(len, 0xEC);
    p[0] = 0xFF, p[1] = 0x01, p[8] = 16, p[kLevel] = 1, p[kPairCount] = 0;
    put(p, kType, type, 2);
    put(p, 12, 0x2112A442);
    put(p, kSeq, seq);
    put(p, kSession, session);
    put(p, kTime, 0x11223344);
    put(p, kLen, uint32_t(len - 224), 2);
    for (size_t i = kEchoedFrom; i < len; ++i) p[i] = uint8_t(i * 7 + seq);
    return p;
}

struct Pair {
    uint32_t seq, time;
};
std::vector<Pair> PairsOf(const std::vector<uint8_t>& r) {
    std::vector<Pair> out;
    for (uint32_t i = 0; i < r[kPairCount] && i < 8; ++i) out.push_back({get(r, kPairs + 8 * i), get(r, kPairs + 8 * i + 4)});
    return out;
}

class QualityServerTest : public ::testing::Test {
protected:
    void Serve(const std::string& addr) {
        addr_ = addr;
        ASSERT_EQ(zeph_settings_set_local_addr(addr.c_str()), 0);
        server_ = DetectServer::get_instance();
        ASSERT_NE(server_, nullptr);
        ASSERT_EQ(server_->start_server(kPort), DetectServer::kStarted);
    }
    void TearDown() override {
        DetectServer::destroy_instance();
        DetectServer::set_literal_loop(false);
    }

    // Sends p and waits for one answer; empty when none came.
    std::vector<uint8_t> Exchange(UdpSocket& s, const std::vector<uint8_t>& p, int wait_ms = kAnswerWaitMs) {
        EXPECT_TRUE(s.send_to(p.data(), p.size(), addr_, kPort));
        std::vector<uint8_t> r(4096);
        const int n = s.recv(r.data(), r.size(), wait_ms);
        r.resize(n > 0 ? size_t(n) : 0);
        return r;
    }

    std::string addr_;
    DetectServer* server_ = nullptr;
};

// Through the batched loop and, after a restart, the one-per-wake loop: data answers
// echo their fields with the server's clock and the ring's last eight in slot order;
// only data enters the ring; the start codes; the ring outlives a restart.
TEST_F(QualityServerTest, AnswersStartCodesAndARestart) {
    Serve("127.0.64.1");
    EXPECT_EQ(server_->start_server(kPort), DetectServer::kErrRunning);
    UdpSocket client;
    auto expect_pairs = [](const std::vector<uint8_t>& r, std::vector<uint32_t> want) {
        std::vector<uint32_t> seqs;
        for (const Pair& p : PairsOf(r)) seqs.push_back(p.seq);
        EXPECT_EQ(seqs, want);
    };
    auto run = [&](uint32_t session) {
        uint32_t last_time = 0;
        for (uint32_t seq = 0; seq <= 20; ++seq) {
            const std::vector<uint8_t> sent = Packet(1, seq, session);
            const std::vector<uint8_t> r = Exchange(client, sent);
            ASSERT_EQ(r.size(), sent.size()) << "seq " << seq;
            // Type, status, pair count, sequence, session, level, length.
            const std::vector<uint32_t> head = {get(r, kType, 2), get(r, kStatus), r[kPairCount], get(r, kSeq),
                                                get(r, kSession), r[kLevel], get(r, kLen, 2)};
            EXPECT_EQ(head, (std::vector<uint32_t>{0x0101, 0, std::min<uint32_t>(seq, 8), seq, session, 1,
                                                    uint32_t(kLevel1Len - 224)}));
            EXPECT_TRUE(std::equal(r.begin() + kEchoedFrom, r.end(), sent.begin() + kEchoedFrom));
            const uint32_t t = get(r, kTime);
            EXPECT_NE(t, 0x11223344u);
            EXPECT_GE(t, last_time);
            last_time = t;
            for (const Pair& p : PairsOf(r)) EXPECT_LE(p.time, t);
            // The ring holds 12..19: 16..19 in slots 0..3, 12..15 in 4..7.
            if (seq == 20) expect_pairs(r, {16, 17, 18, 19, 12, 13, 14, 15});
        }
    };
    // Auth and end requests are answered, invalid packets are not, and none
    // of them enters the ring (the run's first answers carry no pairs).
    const uint32_t session = 0xC0FFEE00u;
    std::vector<uint8_t> auth = Packet(2, 0, session, 1310);
    put(auth, kLen, uint32_t(auth.size()), 2); // a request tells its whole length
    std::memcpy(auth.data() + 32, "any token at all", 16);
    const std::vector<uint8_t> a = Exchange(client, auth);
    ASSERT_EQ(a.size(), auth.size());
    EXPECT_TRUE(get(a, kType, 2) == 0x0102 && get(a, kAuthResult) == 0);
    const std::vector<uint8_t> end = Packet(3, 5, session);
    const std::vector<uint8_t> e = Exchange(client, end);
    ASSERT_EQ(e.size(), end.size());
    EXPECT_TRUE(get(e, kType, 2) == 0x0103 && get(e, kTime) != 0x11223344u);
    std::vector<std::vector<uint8_t>> bad;
    for (uint16_t type : {0, 4, 0x0101, 0x0103}) bad.push_back(Packet(type, 1, session));
    for (int i = 0; i < 3; ++i) bad.push_back(Packet(1, 1, session));
    bad[4][8] = 15, bad[5][15] ^= 1, bad[6].resize(31); // version, cookie, a head cut short
    bad.push_back(Packet(1, 0x80000000u, session)); // negative seq
    bad.push_back({});
    for (const auto& p : bad)
        EXPECT_TRUE(Exchange(client, p, kSilenceWaitMs).empty()) << "answered " << p.size() << " bytes";
    run(session);

    server_->stop_server();
    EXPECT_TRUE(Exchange(client, Packet(1, 21, session), kSilenceWaitMs).empty()) << "answered while stopped";
    EXPECT_EQ(server_->start_server(0), DetectServer::kErrPortZero);
    {
        UdpSocket squatter(addr_, kPort);
        ASSERT_TRUE(squatter.ok());
        EXPECT_EQ(server_->start_server(kPort), DetectServer::kErrNoSocket);
    }
    DetectServer::set_literal_loop(true);
    ASSERT_EQ(server_->start_server(kPort), DetectServer::kStarted);
    expect_pairs(Exchange(client, Packet(1, 21, session)), {16, 17, 18, 19, 20, 13, 14, 15});
    SCOPED_TRACE("one packet per wake");
    run(0xC0FFEE01u);
}

// Pairs carry only the client's own packets (two sockets, two sessions on one). Endless
// new sessions fill the table to its bound; the clients seen longest ago go first.
TEST_F(QualityServerTest, EachClientGetsOnlyItsOwnPairsInATableOfBoundedSize) {
    Serve("127.0.64.6");
    UdpSocket a, b;
    struct Stream {
        UdpSocket* sock;
        uint32_t session, first_seq;
    };
    const Stream streams[] = {{&a, 1, 0}, {&b, 1, 1000}, {&a, 2, 5000}};
    for (uint32_t k = 0; k < 12; ++k) {
        for (const Stream& s : streams) {
            const std::vector<uint8_t> r = Exchange(*s.sock, Packet(1, s.first_seq + k, s.session));
            ASSERT_FALSE(r.empty());
            EXPECT_EQ(r[kPairCount], std::min<uint32_t>(k, 8));
            for (const Pair& p : PairsOf(r)) EXPECT_TRUE(p.seq >= s.first_seq && p.seq < s.first_seq + k) << p.seq;
        }
    }
    EXPECT_EQ(server_->clients().size(), 3u);

    const uint32_t total = DetectServer::kMaxClients + 100;
    constexpr uint32_t kInFlight = 64; // well inside the socket buffers
    std::vector<uint8_t> r(2048);
    for (uint32_t session = 10; session < total; session += kInFlight) {
        const uint32_t end = std::min(total, session + kInFlight);
        for (uint32_t s = session; s < end; ++s) {
            const std::vector<uint8_t> p = Packet(1, 0, s, 64);
            ASSERT_TRUE(b.send_to(p.data(), p.size(), addr_, kPort));
        }
        for (uint32_t s = session; s < end; ++s) ASSERT_GT(b.recv(r.data(), r.size(), kAnswerWaitMs), 0);
    }
    EXPECT_EQ(server_->clients().size(), DetectServer::kMaxClients);
    EXPECT_EQ(Exchange(b, Packet(1, 1, total - 1)).at(kPairCount), 1) << "the last session keeps its packet";
    EXPECT_EQ(Exchange(a, Packet(1, 12, 1)).at(kPairCount), 0) << "the first was dropped long ago";
}

// Several clients at once, a line for each, and a clean stop on either signal.
TEST(QualityServerProgram, AnswersClientsReportsAndStopsOnSigtermOrSigint) {
    constexpr uint32_t kClients = 4, kFirstSession = 0xABCD;
    for (const int sig : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(sig == SIGTERM ? "SIGTERM" : "SIGINT");
        zeph_test::Process server;
        ASSERT_TRUE(server.start({zeph_test::tool_path("zeph-quality-server"), "--addr", "127.0.64.20", "--json",
                                  "--every", "1"}))
            << server.error();
        ASSERT_TRUE(zeph_test::wait_until(
            [&] { return server.stdout_text().find("listening") != std::string::npos; }, kAnswerWaitMs))
            << server.stderr_text();
        EXPECT_NE(server.stdout_text().find("\"addr\":\"127.0.64.20\",\"port\":64000"), std::string::npos);

        UdpSocket clients[kClients];
        for (uint32_t k = 0; k < kClients; ++k) {
            const std::vector<uint8_t> p = Packet(1, 0, kFirstSession + k);
            ASSERT_TRUE(clients[k].send_to(p.data(), p.size(), "127.0.64.20", kPort));
        }
        std::vector<uint8_t> r(2048);
        for (UdpSocket& c : clients) ASSERT_EQ(c.recv(r.data(), r.size(), kAnswerWaitMs), int(kLevel1Len));

        ASSERT_EQ(kill(server.pid(), sig), 0);
        ASSERT_TRUE(zeph_test::wait_until([&] { return !server.running(); }, kAnswerWaitMs));
        const int status = server.stop();
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << server.stderr_text();
        const std::string out = server.stdout_text();
        for (uint32_t k = 0; k < kClients; ++k) {
            EXPECT_NE(out.find("\"event\":\"client\",\"addr\":\"127.0.0.1\",\"port\":" +
                               std::to_string(clients[k].port()) + ",\"session\":" +
                               std::to_string(kFirstSession + k) + ",\"packets\":1"),
                      std::string::npos)
                << out;
        }
        EXPECT_NE(out.find("\"event\":\"stopped\",\"clients\":4"), std::string::npos) << out;
    }
}

TEST(QualityServerProgram, OptionsHelpVersionAndRefusals) {
    struct Case {
        std::vector<std::string> args;
        int code;
        const char* says;
    };
    const Case cases[] = {
        {{"--help"}, 0, "usage: zeph-quality-server"},
        {{"--version"}, 0, "zeph-quality-server "},
        {{"--addr", "localhost"}, 2, "dotted IPv4"},
        // Not an address of this machine: nothing is sent anywhere.
        {{"--addr", "192.0.2.1"}, 1, "cannot answer on 192.0.2.1:64000"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> argv = {zeph_test::tool_path("zeph-quality-server")};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        zeph_test::Process p;
        ASSERT_TRUE(p.start(argv));
        ASSERT_TRUE(zeph_test::wait_until([&] { return !p.running(); }, kAnswerWaitMs)) << c.args[0];
        const int status = p.stop();
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == c.code) << c.args[0] << ": " << status;
        EXPECT_NE((p.stdout_text() + p.stderr_text()).find(c.says), std::string::npos) << c.args[0];
    }
}

} // namespace
