// The media transport against hostile peers and bad input: unframeable bodies, garbage floods,
// used-up descriptors, repeated connects, a refusal mid-connect, sessions holding each other up.
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "media_harness.h"
#include "media_peer.h"
#include "mediaSocket/PrivateHead.h"
#include "peers.h"

namespace {

using namespace zeph_test;
using zeph_peers::MediaPeer;
using zeph_peers::MediaPeerBehaviour;
using zeph_peers::MediaPeerMode;

TEST(MediaHostileInput, BodiesTheHeadCannotFrameAreRefusedAndSmuggleNothing)
{
    MediaPeer peer(MediaPeerMode::Sink);
    ASSERT_TRUE(peer.start());
    MediaSession s(4101);
    ASSERT_TRUE(s.Open(kVideo, peer.port()));

    // 65620 + 16 wraps the 16-bit length to 100: the reader would take the
    // body's bytes from offset 84 on for a packet of the caller's making.
    Bytes big(65620, 0);
    const Bytes forged = Framed(ZEPH_MEDIA_PKT_ANNO, kVideo, Body(20), 0xBAD);
    std::copy(forged.begin(), forged.end(), big.begin() + 84);
    EXPECT_EQ(s.Send(kVideo, 2, big), MEDIA_SOCKET_ERRCODE_INVALID_PARAM);
    EXPECT_EQ(s.Send(kVideo, 2, Body(2033)), MEDIA_SOCKET_ERRCODE_INVALID_PARAM);
    EXPECT_EQ(MORL_MediaSend(s.id(), 2, kVideo, nullptr, 5, 0), MEDIA_SOCKET_ERRCODE_INVALID_PARAM);
    EXPECT_EQ(MORL_MediaGetChannelBufSize(s.id(), kVideo), 0) << "the ring is untouched";
    EXPECT_EQ(s.Stats(kVideo).send.SuccessCount + s.Stats(kVideo).send.ErrCount, 0u);

    // The largest body and a bare head go out.
    ASSERT_EQ(s.Send(kVideo, 2, Body(2032)), 0);
    ASSERT_EQ(MORL_MediaSend(s.id(), 2, kVideo, nullptr, 0, 7), 0);
    ASSERT_TRUE(wait_until([&] { return peer.packets(kVideo) == 2; }, 3000));
    sleep_ms(100);
    const auto c = peer.connection(0);
    ASSERT_EQ(c.heads.size(), 2u);
    EXPECT_EQ((Figures{c.heads[0].head_Len, c.heads[1].head_Len, c.heads[1].channel, c.noiseBytes}),
              (Figures{2048, 16, 7, 0}));
}

// Garbage or repeated refusal pages: every dropped byte is told, in a few events and lines, not one per run;
// a refusal before any traffic is told with its status, and the packet behind it still arrives.
TEST(MediaHostilePeer, GarbageAndRepeatedRefusalPagesAreReportedThinly)
{
    BacklogListener garbage(1), refusals(1);
    MediaSession s(4111), t(4112);
    for (auto [session, server] : {std::pair{&s, &garbage}, std::pair{&t, &refusals}}) {
        ASSERT_TRUE(session->Open(kVideo, server->port()));
        ASSERT_EQ(server->AcceptAll(), 1u);
    }
    constexpr size_t kRuns = 2000;
    Bytes stream;
    for (size_t i = 0; i < kRuns; ++i) {
        stream.insert(stream.end(), 10, uint8_t('x'));
        const Bytes p = Framed(2, kVideo, Body(30, uint8_t(i)));
        stream.insert(stream.end(), p.begin(), p.end());
    }
    ASSERT_TRUE(send_all(garbage.connections()[0], stream.data(), stream.size()));
    ASSERT_TRUE(s.WaitReceived(kVideo, kRuns, 10000));
    EXPECT_GE(s.Stats(kVideo).dataLoss, kRuns) << "a run cut by a read counts twice";
    ASSERT_TRUE(wait_until([&] { return s.EventCodeSum(kVideo, ZEPH_MEDIA_EVENT_DIRTY_DATA) == 10 * kRuns; }, 3000));
    EXPECT_LE(s.EventCount(kVideo, ZEPH_MEDIA_EVENT_DIRTY_DATA), 3u);
    EXPECT_LE(MediaLog::Count({"CheckDirtyData. session id: 4111"}), 2);
    EXPECT_EQ(s.Channel(kVideo, 0)->reCreateChannelCount.load(), 0);

    const std::string page = "HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n";
    std::string pages;
    while (pages.size() < 100000) pages += page;
    ASSERT_TRUE(send_all(refusals.connections()[0], pages.data(), pages.size()));
    const Bytes behind = Framed(2, kVideo, Body(40, 1));
    ASSERT_TRUE(send_all(refusals.connections()[0], behind.data(), behind.size()));
    ASSERT_TRUE(t.WaitEvent(kVideo, ZEPH_MEDIA_EVENT_REFUSED, 3000));
    // About fifty 2048-byte runs were examined, each holding the refusal.
    ASSERT_TRUE(wait_until([&] { return t.Stats(kVideo).dataLoss >= 40; }, 3000)) << t.Stats(kVideo).dataLoss;
    EXPECT_LE(t.EventCount(kVideo, ZEPH_MEDIA_EVENT_REFUSED), 2u);
    EXPECT_EQ(t.EventCodeSum(kVideo, ZEPH_MEDIA_EVENT_REFUSED), 403u * t.EventCount(kVideo, ZEPH_MEDIA_EVENT_REFUSED));
    EXPECT_LE(MediaLog::Count({"CheckDirtyData reason: [403 forbidden]"}), 2);
    EXPECT_TRUE(t.WaitBody(kVideo, Body(40, 1)));
    EXPECT_EQ(t.Channel(kVideo, 0)->reCreateChannelCount.load(), 0);
}

TEST(MediaHostileInput, NoDescriptorsLeftFailsTheCreateAndKeepsNoSession)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the address sanitizer's runtime needs descriptors of its own";
#endif
    // A child that runs this test afresh: no earlier test's thread holds a lock across the fork.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto body = [] {
        rlimit lim{64, 64};
        if (::setrlimit(RLIMIT_NOFILE, &lim) != 0) return 10;
        std::vector<int> held;
        for (int fd; (fd = ::open("/dev/null", O_RDONLY)) >= 0;) held.push_back(fd);
        // A failed session is let go on a closing thread, a moment later.
        const auto free = [](int n) {
            return wait_until([n] {
                std::vector<int> probe;
                for (int fd; int(probe.size()) < n && (fd = ::open("/dev/null", O_RDONLY)) >= 0;) probe.push_back(fd);
                for (int fd : probe) ::close(fd);
                return int(probe.size()) == n;
            }, 3000);
        };
        // A session needs a descriptor (the receive thread's wake) besides its sockets: one free is too few...
        ::close(held.back());
        held.pop_back();
        if (MORL_MediaCreateSocket(4121, kVideo, 1) != MEDIA_SOCKET_ERRCODE_CREATE_SOCKET) return 15;
        if (MediaSocketManager::Instance().SessionCount() != 0) return 16;
        // ...two are room for one socket, not for four.
        ::close(held.back());
        if (!free(2)) return 17;
        if (MORL_MediaCreateSocket(4121, kAudio, 4) != MEDIA_SOCKET_ERRCODE_CREATE_SOCKET) return 11;
        if (MediaSocketManager::Instance().SessionCount() != 0) return 12;
        if (!free(2)) return 17;
        if (MORL_MediaCreateSocket(4121, kVideo, 1) != 0) return 13;
        if (MORL_MediaCloseSocket(4121, kVideo) != 0) return 14;
        return 0;
    };
    EXPECT_EXIT(::_exit(body()), ::testing::ExitedWithCode(0), "");
}

TEST(MediaHostilePeer, ConnectRetriedAfterAFailureAndRepeatedOnALiveChannel)
{
    // Nobody listens: the connect fails and closes the socket...
    const uint16_t port = closed_tcp_port();
    MediaSession s(4131);
    ASSERT_EQ(s.Create(kVideo, 1), 0);
    const int32_t failed = s.Connect(kVideo, port);
    ASSERT_TRUE(failed == MEDIA_SOCKET_ERRCODE_CONNECT_EVENT || failed == MEDIA_SOCKET_ERRCODE_CONNECT_ERROR) << failed;
    // ...and a retry, once a server is there, connects with a new one.
    BacklogListener server(1, port);
    ASSERT_EQ(server.port(), port);
    ASSERT_EQ(s.Connect(kVideo, port), 0);
    ASSERT_EQ(server.AcceptAll(), 1u);

    // Connecting again mid-packet keeps the live connection; the packet completes.
    const Bytes packet = Framed(2, kVideo, Body(34, 4));
    const int conn = server.connections()[0];
    ASSERT_TRUE(send_all(conn, packet.data(), 20));
    const int32_t sock = s.Channel(kVideo, 0)->sock;
    ASSERT_TRUE(wait_until([&] {
        int pending = -1;
        return ::ioctl(sock, FIONREAD, &pending) == 0 && pending == 0;
    }, 3000));
    ASSERT_EQ(s.Connect(kVideo, port), 0);
    EXPECT_EQ((Figures{uint64_t(s.Channel(kVideo, 0)->sock), server.AcceptAll()}), (Figures{uint64_t(sock), 1}))
        << "no second connection";
    ASSERT_TRUE(send_all(conn, packet.data() + 20, packet.size() - 20));
    ASSERT_TRUE(s.WaitBody(kVideo, Body(34, 4)));
    EXPECT_EQ(s.Stats(kVideo).dataLoss, 0u);
}

// A channel past its repairs stays closed; a refusal met mid-connect is repaired after it.
TEST(MediaHostilePeer, ChannelPastItsRepairsStaysClosedAndARefusalMidConnectIsRepairedAfter)
{
    MediaPeer peer;
    ASSERT_TRUE(peer.start());
    MediaSession s(4141);
    ASSERT_TRUE(s.Open(kAudio, peer.port(), 2));
    for (uint32_t i = 0; i < 2; ++i) ASSERT_EQ(s.Send(kAudio, 2, Body(30, uint8_t(i)), i), 0);
    ASSERT_TRUE(s.WaitReceived(kAudio, 2));

    for (size_t c = 0; c < 2; ++c) s.Channel(kAudio, c)->reCreateChannelCount = 1000;
    ASSERT_TRUE(peer.closeNow(0));
    size_t lost = 2;
    ASSERT_TRUE(wait_until([&] {
        for (size_t c = 0; c < 2; ++c)
            if (s.Channel(kAudio, c)->state == 0 && s.Channel(kAudio, c)->sock == -1) lost = c;
        return lost < 2;
    }, 3000));
    const size_t alive = 1 - lost;
    EXPECT_EQ(s.Channel(kAudio, alive)->state.load(), 2u);
    for (uint32_t i = 2; i < 8; ++i) ASSERT_EQ(s.Send(kAudio, 2, Body(30, uint8_t(i)), i), 0);
    ASSERT_TRUE(s.WaitReceived(kAudio, 8));
    EXPECT_TRUE(wait_until([&] { return s.Channel(kAudio, alive)->stats.sendCount == 1 + 6; }, 3000));
    const auto gone = s.Channel(kAudio, lost);
    EXPECT_EQ((Figures{peer.accepted(), gone->state, uint64_t(gone->reCreateChannelCount)}), (Figures{2, 0, 1000}))
        << "no connect was tried";
    EXPECT_TRUE(s.Events(kAudio).empty());
    s.Channel(kAudio, alive)->reCreateChannelCount = 0;

    // The lost channel is connected to a server that never completes the connect.
    BacklogListener stuck(0);
    const int filler = tcp_connect("127.0.0.1", stuck.port());
    ASSERT_GE(filler, 0);
    std::atomic<int32_t> rc{1};
    std::thread connect([&] { rc = s.Connect(kAudio, stuck.port()); });
    ASSERT_TRUE(wait_until([&] { return s.Channel(kAudio, lost)->state == 1; }, 2000));

    // Meanwhile the live channel's server answers with a refusal.
    MediaPeerBehaviour refuse;
    refuse.forbidden = MediaPeerBehaviour::Forbidden::BeforeEcho;
    ASSERT_TRUE(peer.setBehaviour(1, refuse));
    ASSERT_EQ(s.Send(kAudio, 2, Body(30, 9)), 0);
    ASSERT_TRUE(s.WaitReceived(kAudio, 9));
    connect.join();
    EXPECT_EQ(rc.load(), 0) << "the live channel kept the media type up";

    // Once the connect is over, the refusal is taken up: the channel is repaired.
    EXPECT_TRUE(MediaLog::WaitFor({"MediaCreateChannelOfSockChan! session id: 4141", "eventId: 4"}, 5000));
    EXPECT_EQ(s.Channel(kAudio, alive)->reCreateChannelCount.load(), 1);
    EXPECT_EQ(s.EventCount(kAudio, ZEPH_MEDIA_EVENT_REFUSED), 0u);
    ::close(filler);
}

TEST(MediaSessions, ClosingOneSessionDoesNotStallAnother)
{
    MediaSession a(4151), b(4152);
    ASSERT_EQ(b.Create(kData, 1), 0);
    std::atomic<bool> done{false};
    std::atomic<uint64_t> slowest{0};
    std::thread probe([&] {
        while (!done) {
            const uint64_t t = now_ms();
            MORL_MediaGetChannelBufSize(b.id(), kData);
            const uint64_t took = now_ms() - t;
            if (took > slowest) slowest = took;
        }
    });
    // Closing a session's last Aux or MS used to hold the table for 100 ms.
    for (int i = 0; i < 3; ++i) {
        for (uint32_t type : {ZEPH_MEDIA_AUX, ZEPH_MEDIA_MS}) ASSERT_EQ(a.Create(type, 1) + a.Close(type), 0);
    }
    done = true;
    probe.join();
    EXPECT_LT(slowest.load(), 60u);
}

} // namespace
