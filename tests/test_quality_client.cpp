// The quality exchanger and the plain client against our server through the relay, and
// a stand-in where the wire, silence or refusal matters; each test has its 127.0.61.x.
// (A silent site's worst values are checked at the multi-site export.)
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "bwdetect/detect_cli_pkt.h"
#include "bwdetect/detect_client.h"
#include "log_capture.h"
#include "peers.h"
#include "quality_peers.h"

namespace q = zeph::quality;
using zeph_test::now_ms;
using zeph_test::wait_until;
using zeph_test::kQualityServerPort;
using ServerOn = zeph_test::QualityServerOn;
using FakeServer = zeph_test::UdpStandIn;

namespace {

constexpr uint16_t kServerPort = kQualityServerPort;
constexpr int kStreamSeconds = 3;
// A stream, its second of late replies and the statistics, on a loaded machine.
constexpr int kStreamDoneMs = 12000;

std::string test_ip(int host) { return "127.0.61." + std::to_string(host); }

// An exchanger at `level` for 3 s on a socket connected to ip:port, with its
// image of that level.
struct Stream {
    std::shared_ptr<DetectCliPktAnyTime> ex;
    uint8_t image[q::kImageSize];
    static constexpr uint32_t kSession = 0x5E55104E;

    Stream(const std::string& ip, uint16_t port, int level) {
        DetectBase maker;
        ex = std::make_shared<DetectCliPktAnyTime>(maker.init_socket(ip.c_str(), port, 0), level, kStreamSeconds);
        ex->m_pkt_len = int32_t(q::level_row(level).pkt_len);
        q::build_image(image, sizeof image, 0xABCD, kSession, uint8_t(level));
        q::set_type(image, sizeof image, false, q::kTypeData);
    }
    bool start() { return ex->start_SR(image, ex) == 0; }
    bool done(int timeout_ms = kStreamDoneMs) const {
        return wait_until([&] { return ex->get_state() == DETECT_STATE_STAT_FIN; }, timeout_ms, 10);
    }
};


struct Path {
    int host, level;
    double up_loss, down_loss; // what the relay drops each way, 0..1
};
void PrintTo(const Path& p, std::ostream* os) { *os << "level " << p.level; }

class StreamThroughRelay : public ::testing::TestWithParam<Path> {};

// Loss is told by the direction the relay drops in: the server's times of lost
// replies come in later pairs, so nothing counts as lost on the way out.
TEST_P(StreamThroughRelay, FiguresFollowTheRelaysTruth) {
    const Path path = GetParam();
    const std::string ip = test_ip(path.host);
    ServerOn server(ip);
    ASSERT_TRUE(server.ok());
    auto relay = zeph_test::relay_to_server(ip, ip, {0, 0, path.up_loss}, {0, 0, path.down_loss}, 7);
    ASSERT_TRUE(relay);
    Stream s(relay->listen_ip(), relay->port(), path.level);
    EXPECT_EQ(s.ex->get_stat().avg_delay, kStatNoDelay); // a reader who comes early

    const uint64_t t0 = now_ms();
    ASSERT_TRUE(s.start());
    EXPECT_EQ(s.ex->get_state(), DETECT_STATE_SENDING);
    EXPECT_EQ(s.ex->start_SR(s.image, s.ex), DETECT_ERR_ALREADY_STARTED);
    ASSERT_TRUE(wait_until([&] { return s.ex->get_state() == DETECT_STATE_SEND_FIN; }, 8000, 1));
    const uint64_t lasted = now_ms() - t0;
    EXPECT_GE(lasted, kStreamSeconds * 1000u - 20);
    EXPECT_LE(lasted, kStreamSeconds * 1000u + 1000);
    ASSERT_TRUE(s.done());

    const zeph_relay::UdpRelayStats rs = relay->stats();
    EXPECT_EQ(rs.to_server_forwarded + rs.to_server_dropped, q::stream_packets(path.level, kStreamSeconds) + 3u);
    EXPECT_EQ(rs.to_client_forwarded + rs.to_client_dropped, rs.to_server_forwarded);
    const double up = 1000.0 * rs.to_server_dropped / (rs.to_server_dropped + rs.to_server_forwarded);
    const double down = 1000.0 * rs.to_client_dropped / (rs.to_client_dropped + rs.to_client_forwarded);
    const DetectPktStat st = s.ex->get_stat();
    EXPECT_NEAR(st.avg_s_loss_rate, up, path.up_loss > 0 ? 25 : path.down_loss > 0 ? 5 : 0);
    EXPECT_NEAR(st.avg_r_loss_rate, down, path.down_loss > 0 ? 25 : 0);
    EXPECT_EQ(st.max_s_cont_loss_num > 0, path.up_loss > 0);
    EXPECT_LT(st.avg_delay, 50); // loopback: a few ms at most, with slack for a loaded machine
    if (path.up_loss + path.down_loss == 0) {
        EXPECT_EQ(st.s_bad_seconds + st.r_bad_seconds, 0);
        EXPECT_LT(st.avg_jitter, 50);
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, StreamThroughRelay,
                         ::testing::Values(Path{11, 1, 0, 0}, Path{14, 4, 0, 0}, Path{16, 6, 0, 0},
                                           Path{37, 2, 0.2, 0}, Path{38, 2, 0, 0.2}),
                         [](const ::testing::TestParamInfo<Path>& i) {
                             const Path& p = i.param;
                             return "Level" + std::to_string(p.level) + (p.up_loss > 0 ? "LossUp" : "") +
                                    (p.down_loss > 0 ? "LossDown" : "");
                         });


// Each level's wire form, written out here: packets per second and per burst, packet
// length, ms from one burst to the next.
struct LevelWire {
    uint32_t per_second, per_burst;
    size_t len;
    uint32_t interval;
};
constexpr LevelWire kLevelWire[] = {{25, 1, 1400, 40}, {50, 1, 327, 20},   {100, 1, 655, 10}, {200, 1, 983, 5},
                                    {200, 1, 1310, 5}, {400, 2, 1310, 5}, {800, 4, 1310, 5}};

// Streams of all seven levels at once, each captured by a server of its own: every
// packet is the image but for sequence number and time, at the level's length with
// pkt_len telling what follows the head and region; numbers 0..N-1 at the level's
// rate, then the last number three more times.
TEST(QualityExchanger, EachLevelsStreamOnTheWire) {
    std::vector<std::unique_ptr<FakeServer>> servers;
    std::vector<std::unique_ptr<Stream>> streams;
    const FakeServer::Answer answer = [](std::vector<uint8_t>& p, const FakeServer::Got&) {
        return zeph_test::answer_quality_data(p, q::kStatusOk);
    };
    for (int level = 0; level <= q::kMaxLevel; ++level) {
        servers.push_back(std::make_unique<FakeServer>(test_ip(40 + level), kServerPort, answer));
        ASSERT_TRUE(servers.back()->ok());
        streams.push_back(std::make_unique<Stream>(test_ip(40 + level), kServerPort, level));
    }
    for (auto& s : streams) ASSERT_TRUE(s->start());
    for (int level = 0; level <= q::kMaxLevel; ++level) {
        SCOPED_TRACE("level " + std::to_string(level));
        const LevelWire& want = kLevelWire[level];
        Stream& s = *streams[level];
        ASSERT_TRUE(s.done());
        const DetectPktStat st = s.ex->get_stat();
        EXPECT_EQ(st.avg_s_loss_rate + st.avg_r_loss_rate, 0);

        const std::vector<FakeServer::Got> got = servers[level]->got();
        const uint32_t n = want.per_second * kStreamSeconds;
        ASSERT_EQ(got.size(), n + 3);
        std::vector<uint8_t> image(s.image, s.image + want.len);
        q::set_len(image.data(), image.size(), false, uint16_t(want.len - q::kHeadRegionSize));
        for (size_t i = 0; i < got.size(); ++i) {
            std::vector<uint8_t> p = got[i].bytes;
            ASSERT_EQ(p.size(), want.len) << "packet " << i;
            EXPECT_EQ(q::get_seq(p.data(), p.size()), std::min<uint32_t>(uint32_t(i), n - 1));
            q::set_seq(p.data(), p.size(), 0);
            q::set_time(p.data(), p.size(), q::get_time(image.data(), image.size(), false));
            ASSERT_EQ(p, image) << "packet " << i;
        }
        // From the first burst to the last: the stream's seconds less one interval.
        const uint64_t span = got[n - 1].at_ms - got[0].at_ms;
        const uint64_t planned = uint64_t(kStreamSeconds) * 1000 - want.interval;
        EXPECT_GE(span + 20, planned);
        EXPECT_LE(span, planned + 300);
        // A burst's packets leave together: by the sender's own times, hardly any burst
        // (a preempted sender) spans more than a millisecond.
        uint32_t spread = 0;
        for (uint32_t b = 0; b + want.per_burst <= n; b += want.per_burst) {
            const auto at = [&](uint32_t i) { return q::get_time(got[i].bytes.data(), got[i].bytes.size(), false); };
            spread += at(b + want.per_burst - 1) - at(b) > 1;
        }
        EXPECT_LE(spread * 20, n / want.per_burst) << spread << " bursts spread out";
    }
}

// A server that refuses the token half a second in: the stream stops at once, in
// state 3, and nothing more goes out.
TEST(QualityExchanger, RefusedTokenStopsBothThreads) {
    const std::string ip = test_ip(32);
    constexpr size_t kRefuseAt = 25;
    FakeServer refusing(ip, kServerPort, [](std::vector<uint8_t>& p, const FakeServer::Got& g) {
        return zeph_test::answer_quality_data(p, g.index >= kRefuseAt ? q::kStatusRefused : q::kStatusOk);
    });
    ASSERT_TRUE(refusing.ok());
    Stream refused(ip, kServerPort, 1);
    ASSERT_TRUE(refused.start());
    ASSERT_TRUE(wait_until([&] { return refused.ex->get_state() == DETECT_STATE_FAILED; }, 3000, 5));
    const size_t sent = refusing.count();
    EXPECT_LE(sent, kRefuseAt + 3);
    EXPECT_EQ(refused.ex->get_stat().avg_delay, kStatNoDelay);
    EXPECT_EQ(refused.ex->get_stat().s_bad_seconds, 10);
    // Both threads are gone: the object is freed once the test lets go.
    std::weak_ptr<DetectCliPktAnyTime> gone = refused.ex;
    refused.ex.reset();
    EXPECT_TRUE(wait_until([&] { return gone.expired(); }, 2000, 5));
    EXPECT_EQ(refusing.count(), sent);
}


std::shared_ptr<DetectClient> client() { return std::make_shared<DetectClient>(zeph_test::record_report); }

TEST(QualityClient, HandshakeStreamAndEndAgainstOurServer) {
    const std::string ip = test_ip(33);
    ServerOn server(ip);
    ASSERT_TRUE(server.ok());
    auto relay = zeph_test::relay_to_server(ip, ip);
    ASSERT_TRUE(relay);
    auto c = client();
    c->set_level(1); // the stream runs at level 1: its replies must say so
    ASSERT_EQ(c->start_client(relay->listen_ip().c_str(), relay->port(), DETECT_FIRST_CLIENT_PORT), 0);
    ASSERT_TRUE(wait_until([&] { return c->get_state() == DETECT_STATE_SENDING; }, 1500, 1));
    const auto got = zeph_test::reports(1, kStreamDoneMs);
    ASSERT_TRUE(got.size() == 1 && got[0].code == 0 && got[0].results.size() == 1);
    EXPECT_EQ(c->get_state(), DETECT_STATE_END);
    const DetectQosResult& r = got[0].results[0];
    EXPECT_TRUE(r.a_s_loss + r.a_r_loss == 0 && r.a_delay < 50) << r.a_s_loss << " " << r.a_r_loss << " " << r.a_delay;
    // One auth request, the stream with its last packet four times, five end packets: each answered.
    const uint32_t stream = q::stream_packets(1, kStreamSeconds) + 3;
    ASSERT_TRUE(wait_until([&] { return relay->stats().to_client_forwarded >= 1 + stream + 5; }, 2000));
    EXPECT_EQ(relay->stats().to_server_forwarded + relay->stats().to_client_forwarded, 2 * (1 + stream + 5));
}

TEST(QualityClient, RefusedOrUnansweredHandshakeSendsNoStream) {
    const std::string ip = test_ip(34);
    FakeServer refusing(ip, kServerPort,
                        [](std::vector<uint8_t>& p, const FakeServer::Got&) { return zeph_test::answer_quality_auth(p, 1); });
    FakeServer silent(test_ip(35), kServerPort, nullptr);
    ASSERT_TRUE(refusing.ok() && silent.ok());
    auto refused = client();
    auto unanswered = client();
    zeph_test::LogCapture logs;
    const uint64_t t0 = now_ms();
    ASSERT_EQ(refused->start_client(ip.c_str(), kServerPort, DETECT_FIRST_CLIENT_PORT), 0);
    ASSERT_EQ(unanswered->start_client(test_ip(35).c_str(), kServerPort, DETECT_FIRST_CLIENT_PORT), 0);

    ASSERT_TRUE(wait_until([&] { return refused->get_state() == DETECT_STATE_END; }, 1000, 1));
    // The silent server gets 15 requests, 100 ms apart, then nothing.
    ASSERT_TRUE(wait_until([&] { return silent.count() == 15; }, 3000, 10));
    zeph_test::sleep_ms(300);
    const auto asked = silent.got();
    ASSERT_EQ(asked.size(), 15u);
    EXPECT_GE(asked.back().at_ms - asked.front().at_ms, 1300u);
    EXPECT_GE(now_ms() - t0, 1500u);
    for (const auto& g : asked) EXPECT_EQ(q::get_type(g.bytes.data(), g.bytes.size(), false), q::kTypeAuth);
    EXPECT_EQ(unanswered->get_state(), DETECT_STATE_CONNECTING);
    EXPECT_EQ(refusing.count(), 1u);
    EXPECT_TRUE(zeph_test::reports().empty());
    // Both end the handshake with 27, each for its own reason.
    EXPECT_TRUE(logs.contains("auth is failed state=6") && logs.contains("connect timeout state=1")) << logs.dump();
}

TEST(QualityClient, ArgumentsAndTheBindWalk) {
    EXPECT_EQ(client()->start_client("127.0.61.36", kServerPort, 0), DETECT_ERR_BAD_ARGUMENT);
    EXPECT_EQ(client()->start_client(nullptr, kServerPort, DETECT_FIRST_CLIENT_PORT), DETECT_ERR_BAD_ARGUMENT);
    auto mute = std::make_shared<DetectClient>(nullptr);
    EXPECT_EQ(mute->start_client("127.0.61.36", kServerPort, DETECT_FIRST_CLIENT_PORT), DETECT_ERR_BAD_ARGUMENT);

    // All 64 ports taken: none found; the last one free: the walk ends there. (Above
    // the kernel's ephemeral range, where no socket bound to port 0 can be.)
    constexpr uint16_t kFirst = 61700;
    zeph_test::HeldUdpPorts held(kFirst, DETECT_BIND_TRIES);
    ASSERT_TRUE(held.all);
    EXPECT_EQ(client()->start_client("127.0.61.36", kServerPort, kFirst), DETECT_ERR_NO_SOCKET);
    held.release_last();
    FakeServer silent(test_ip(36), kServerPort, nullptr);
    ASSERT_TRUE(silent.ok());
    auto walker = client();
    ASSERT_EQ(walker->start_client(test_ip(36).c_str(), kServerPort, kFirst), 0);
    ASSERT_TRUE(wait_until([&] { return silent.count() >= 1; }, 1000));
    EXPECT_EQ(silent.got()[0].from_port, kFirst + DETECT_BIND_TRIES - 1);
}

} // namespace
