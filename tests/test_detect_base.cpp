// The quality packet's codec and the detection base: both image forms' bytes, reading
// quirks, the first check, token fields, states, clock, sockets. Runs on the test thread.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "bwdetect/detect_base.h"
#include "bwdetect/quality_wire.h"
#include "os_adapter/morl_os.h"
#include "support/log_capture.h"
#include "support/peers.h"

namespace q = zeph::quality;

namespace {

std::string hex(const uint8_t* p, size_t n) {
    static const char* digits = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < n; ++i) {
        if (i) out += ' ';
        out += digits[p[i] >> 4];
        out += digits[p[i] & 0xF];
    }
    return out;
}

bool all_bytes(const uint8_t* p, size_t from, size_t to, uint8_t v) {
    return std::all_of(p + from, p + to, [v](uint8_t b) { return b == v; });
}

// A data response as a server sends it, in the private layout.
std::vector<uint8_t> response(uint32_t seq) {
    std::vector<uint8_t> pkt(q::kImageSize);
    q::build_image(pkt.data(), pkt.size(), 0, 1, 1);
    q::set_type(pkt.data(), pkt.size(), false, q::kTypeDataResp);
    q::set_seq(pkt.data(), pkt.size(), seq);
    return pkt;
}

class Probe : public DetectBase {
public:
    using DetectBase::set_clock;
};

// A derived class whose binding always fails, keeping the socket it saw.
class RefusingBind : public DetectBase {
public:
    int32_t bind_port(MORL_SOCKET sock) override {
        seen = sock;
        return kRefusal;
    }
    static constexpr int32_t kRefusal = 77;
    MORL_SOCKET seen = MORL_INVALID_SOCKET;
};

bool socket_is_open(MORL_SOCKET s) {
    int type = 0;
    int len = sizeof type;
    return MORL_GetSockOpt(s, MORL_SOL_SOCKET, MORL_SO_TYPE, &type, &len) == 0;
}

} // namespace

TEST(QualityImage, BothFormsCarryTheirHeadAndFillTheRest) {
    uint8_t img[q::kImageSize];
    std::memset(img, 0x55, sizeof img);
    ASSERT_TRUE(q::build_image(img, sizeof img, 0xABCD, 0x11223344, 3));
    EXPECT_EQ(hex(img, q::kHeadSize), "FF 01 AB CD 80 70 EC EC 10 EC 00 02 21 12 A4 42 "
                                      "00 00 00 00 11 22 33 44 EC EC EC EC 03 00 05 78");
    // Region and payload keep the fill; the last byte is 0.
    EXPECT_TRUE(all_bytes(img, q::kHeadSize, q::kImageSize - 1, q::kImageFillByte));
    EXPECT_EQ(img[q::kImageSize - 1], 0);
    EXPECT_TRUE(q::test_flags(img, sizeof img, 0x80)); // the flags read the fill
    // An image too small for head and region is refused untouched.
    uint8_t small[q::kHeadRegionSize - 1];
    std::memset(small, 0x55, sizeof small);
    EXPECT_FALSE(q::build_image(small, sizeof small, 0, 0, 0));
    EXPECT_TRUE(all_bytes(small, 0, sizeof small, 0x55));

    // The STUN form reads as a Binding Request.
    Probe base;
    base.build_stun_pkt_image(img, sizeof img, 0);
    EXPECT_EQ(base.get_is_stun(), 1u);
    EXPECT_EQ(hex(img, q::kHeadSize), "00 01 00 64 21 12 A4 42 10 EC 00 02 31 32 33 34 "
                                      "00 00 00 00 00 00 00 00 EC EC EC EC 00 00 05 78");
    EXPECT_EQ(base.get_pkt_type(img, sizeof img), q::kStunImageType);
    EXPECT_EQ(base.get_pkt_len(img, sizeof img), q::kStunImageLen);
    // The version byte shares the session's word and still reads 16.
    EXPECT_EQ(base.base_pkt_is_valid(img, sizeof img, q::kSeqNoLimit), 1);
}

TEST(QualityHead, ReadingQuirksAndTheStunLayout) {
    std::vector<uint8_t> pkt = response(5);
    uint8_t* p = pkt.data();
    const size_t n = pkt.size();

    // Levels 7 and up read 1; in the STUN layout a level reads 0.
    for (uint8_t stored : {uint8_t(6), uint8_t(7), uint8_t(200)}) {
        q::set_level(p, n, stored);
        EXPECT_EQ(q::get_level(p, n, false), stored == 6 ? 6 : 1) << int(stored);
        EXPECT_EQ(q::get_level(p, n, true), 0);
    }
    // More than eight pairs read as none; a STUN peer's answer has none, whatever its count says.
    q::set_pair_count(p, n, 8);
    EXPECT_TRUE(q::get_pair_count(p, n, false) == 8 && q::get_pair_count(p, n, true) == 0);
    q::set_pair_count(p, n, 9);
    EXPECT_EQ(q::get_pair_count(p, n, false), 0);
    // The time is written in both layouts and read only in the private one.
    q::set_time(p, n, 0xCAFE);
    EXPECT_TRUE(q::get_time(p, n, false) == 0xCAFEu && q::get_time(p, n, true) == 0u);
    // An auth result is read only from an auth response.
    q::set_auth_result(p, n, 0);
    EXPECT_EQ(q::get_auth_result(p, n, false), q::kAuthNotAResponse);
    q::set_type(p, n, false, q::kTypeAuthResp);
    EXPECT_EQ(q::get_auth_result(p, n, false), 0u);
    q::set_auth_result(p, n, 1);
    EXPECT_EQ(q::get_auth_result(p, n, false), 1u);

    // The STUN layout moves type, length and cookie and echoes the session.
    Probe base;
    base.set_is_stun(1);
    uint8_t stun[q::kImageSize] = {};
    base.set_pkt_session(stun, sizeof stun, 0xFFFFFFFF);
    EXPECT_EQ(hex(stun + q::kStunOffSession, 8), "FF FF FF FF 00 00 00 EB");
    EXPECT_EQ(base.get_pkt_session(stun, sizeof stun), 0xFFFFFFFFu);
    base.set_pkt_type(stun, sizeof stun, q::kTypeAuthResp);
    base.set_pkt_len(stun, sizeof stun, 0x1234);
    base.set_pkt_cookie(stun, sizeof stun);
    EXPECT_EQ(hex(stun, 8), "01 02 12 34 21 12 A4 42");
    // The auth response's type is looked for where the layout keeps it.
    base.set_is_stun(0);
    EXPECT_EQ(base.get_auth_result(stun, sizeof stun), q::kAuthNotAResponse);
}

TEST(QualityValidity, ChecksVersionCookieSignAndLimitInThatOrder) {
    std::vector<uint8_t> pkt = response(0x80000000);
    uint8_t* p = pkt.data();
    const size_t n = pkt.size();
    q::set_ver(p, n, 17);
    q::set_cookie(p, n, false, 0);
    EXPECT_EQ(q::check_base(p, n, false, 10), q::Validity::BadVersion);
    q::set_ver(p, n, q::kPktVer);
    EXPECT_EQ(q::check_base(p, n, false, 10), q::Validity::BadCookie);
    q::set_cookie(p, n, false, q::kPktCookie);
    // Negative however high the limit.
    EXPECT_EQ(q::check_base(p, n, false, q::kSeqNoLimit), q::Validity::NegativeSeq);
    // The limit is the stream's packet count: its last number passes.
    const uint32_t count = q::stream_packets(0, 3);
    q::set_seq(p, n, count);
    EXPECT_EQ(q::check_base(p, n, false, count), q::Validity::SeqBeyond);
    q::set_seq(p, n, count - 1);
    EXPECT_EQ(q::check_base(p, n, false, count), q::Validity::Valid);
    // The cookie is looked for where the layout keeps it.
    EXPECT_EQ(q::check_base(p, n, true, count), q::Validity::BadCookie);
    // A datagram without its whole head fails, whatever its first bytes say.
    EXPECT_EQ(q::check_base(p, q::kHeadSize - 1, false, count), q::Validity::Short);
    EXPECT_EQ(q::base_pkt_is_valid(p, q::kHeadSize, false, count), 1);
}

TEST(DetectBaseAuth, TokenFieldsArePaddedAndBounded) {
    Probe base;
    uint8_t pkt[q::kImageSize];
    std::memset(pkt, q::kImageFillByte, sizeof pkt);
    base.set_pkt_auth_token(pkt, sizeof pkt, "0123456789");
    EXPECT_EQ(std::memcmp(pkt + q::kOffAuthToken, "0123456789", 10), 0);
    EXPECT_TRUE(all_bytes(pkt, q::kOffAuthToken + 10, q::kOffAuthPara, q::kAuthPadByte));
    EXPECT_EQ(pkt[q::kOffAuthPara], q::kImageFillByte);

    // Full-size values leave no terminator and touch nothing behind their field.
    const std::string token(q::kAuthTokenSize, 't'), para(q::kAuthParaSize, 'p');
    base.set_pkt_auth_token(pkt, sizeof pkt, token.c_str());
    base.set_pkt_auth_para(pkt, sizeof pkt, para.c_str());
    EXPECT_TRUE(all_bytes(pkt, q::kOffAuthToken, q::kOffAuthPara, 't'));
    EXPECT_TRUE(all_bytes(pkt, q::kOffAuthPara, q::kHeadRegionSize, 'p'));
    EXPECT_EQ(pkt[q::kHeadRegionSize], q::kImageFillByte);

    // Too long for the field: nothing written.
    base.set_pkt_auth_para(pkt, sizeof pkt, (para + "x").c_str());
    EXPECT_TRUE(all_bytes(pkt, q::kOffAuthPara, q::kHeadRegionSize, 'p'));

    // The token check bounds sites, tokens and parameters.
    DetectSiteInfo good;
    good.auth_token = token, good.auth_para = para;
    EXPECT_EQ(DetectBase::check_token({}), 0);
    EXPECT_EQ(DetectBase::check_token(std::vector<DetectSiteInfo>(DETECT_MAX_SITES, good)), 0);

    zeph_test::LogCapture logs;
    // Eleven sites are refused before any token is looked at.
    DetectSiteInfo bad = good;
    bad.auth_token.clear();
    EXPECT_EQ(DetectBase::check_token(std::vector<DetectSiteInfo>(DETECT_MAX_SITES + 1, bad)),
              DETECT_ERR_TOO_MANY_SITES);
    EXPECT_TRUE(logs.contains("size of the sites(11) is larger than 10!"));
    EXPECT_FALSE(logs.contains("auth_token"));

    struct Case {
        size_t token, para;
        const char* line;
    };
    for (const Case& c : {Case{0, 1, "size of auth_token(0) is invalid!"},
                          Case{65, 1, "size of auth_token(65) is invalid!"},
                          Case{1, 0, "size of auth_para(0) is invalid!"},
                          Case{1, 129, "size of auth_para(129) is invalid!"},
                          // A site's token is judged before its parameter.
                          Case{65, 129, "size of auth_token(65) is invalid!"}}) {
        logs.clear();
        DetectSiteInfo site;
        site.auth_token.assign(c.token, 't');
        site.auth_para.assign(c.para, 'p');
        EXPECT_EQ(DetectBase::check_token({good, site, good}), DETECT_ERR_BAD_TOKEN) << c.line;
        EXPECT_TRUE(logs.contains(c.line)) << logs.dump();
    }
}

TEST(DetectBaseState, SwitchesFollowTheLifeCycle) {
    // allowed[from][to] for targets -1..7 (index to + 1).
    const int allowed[7][9] = {
        //  -1 0  1  2  3  4  5  6  7
        {0, 1, 1, 1, 1, 0, 0, 1, 0}, // from 0
        {0, 1, 0, 1, 1, 0, 0, 1, 0}, // from 1
        {0, 1, 0, 0, 1, 1, 0, 1, 0}, // from 2
        {0, 1, 0, 0, 1, 0, 0, 1, 0}, // from 3
        {0, 1, 0, 0, 1, 0, 1, 1, 0}, // from 4
        {0, 1, 0, 0, 1, 0, 0, 1, 0}, // from 5
        {0, 1, 0, 0, 1, 0, 0, 1, 0}, // from 6
    };
    // The shortest allowed road to each state.
    const std::vector<std::vector<int>> road = {{0}, {0, 1}, {0, 2}, {3}, {0, 2, 4}, {0, 2, 4, 5}, {6}};
    for (int from = 0; from < 7; ++from) {
        for (int to = -1; to <= 7; ++to) {
            Probe base;
            for (int s : road[from]) ASSERT_EQ(base.set_state(s), 0);
            ASSERT_EQ(base.get_state(), from);
            const int ok = allowed[from][to + 1];
            EXPECT_EQ(base.set_state(to), ok ? 0 : 1) << from << "->" << to;
            EXPECT_EQ(base.get_state(), ok ? to : from) << from << "->" << to;
        }
    }
}

// Ranges and differences across the 32-bit wrap; months of counter; no frequency told.
TEST(DetectBaseClock, WrapsMonthsOfCounterAndNoFrequency) {
    for (uint32_t t : {0x5u, 0xFFFFFFF0u, 0x10u}) EXPECT_EQ(DetectBase::time_is_out_range(0xFFFFFFF0, 0x10, t), 0);
    for (uint32_t t : {0x11u, 0xFFFFFFEFu}) EXPECT_EQ(DetectBase::time_is_out_range(0xFFFFFFF0, 0x10, t), 1);
    EXPECT_EQ(DetectBase::time_is_out_range(10, 20, 9), 1);
    EXPECT_EQ(DetectBase::time_is_out_range(5, 5, 5), 1) << "an empty range holds not even its own point";
    EXPECT_EQ(DetectBase::get_time_diff(0xFFFFFFFE, 3), 5u);
    EXPECT_EQ(static_cast<int32_t>(DetectBase::get_time_diff(3, 0xFFFFFFFE)), -5);

    Probe base;
    int64_t now = 0, freq = 0;
    MORL_QueryPerformanceCounter(&now);
    MORL_QueryPerformanceFrequency(&freq);
    ASSERT_GT(freq, 0);
    // 200 days of a nanosecond counter: times 1000 is beyond 64 bits.
    const int64_t days_ms = 200LL * 86400 * 1000;
    base.set_clock(now - days_ms / 1000 * freq, freq);
    const int64_t ms = base.get_runtime_current();
    EXPECT_TRUE(ms >= days_ms && ms < days_ms + 60000) << ms;

    base.set_clock(now, 0);
    EXPECT_EQ(base.get_runtime_current(), 0xFFFFFFFFLL);
}

// A failed bind gives no socket and closes it once; init_socket gives a non-blocking
// one, closed with its last owner (its connection is the quality streams' to show).
TEST(DetectBaseSocket, FailedBindClosesOnceAndInitGivesANonBlockingSocket) {
    zeph_test::LogCapture logs;
    RefusingBind refusing;
    EXPECT_FALSE(refusing.create_socket());
    ASSERT_NE(refusing.seen, MORL_INVALID_SOCKET);
    EXPECT_FALSE(socket_is_open(refusing.seen));
    EXPECT_TRUE(logs.contains("[detect_base] bind failed port is 77 and before 64"));
    int closes = 0;
    for (const auto& line : logs.lines()) closes += line.function == "DetectBase::close_socket";
    EXPECT_EQ(closes, 1) << logs.dump();

    zeph_test::UdpSocket server;
    ASSERT_TRUE(server.ok());
    Probe base;
    DetectSockPtr sock = base.init_socket("127.0.0.1", server.port(), 64100);
    ASSERT_TRUE(sock);
    uint8_t buf[q::kRecvBufSize];
    EXPECT_EQ(MORL_Recv(*sock, buf, sizeof buf, 0), -1) << "nothing to read, and no blocking";
    EXPECT_EQ(MORL_GetLastSocketErr(), MORL_WSAEWOULDBLOCK);
    const MORL_SOCKET fd = *sock;
    sock.reset();
    EXPECT_FALSE(socket_is_open(fd));
}
