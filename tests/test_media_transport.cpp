// Packets through the media transport: framing, rotation, the send ring under overload, sort, counters.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <set>
#include <thread>

#include "media_harness.h"
#include "media_peer.h"
#include "mediaSocket/PrivateHead.h"
#include "peers.h"

namespace {

using namespace zeph_test;
using zeph_peers::MediaPeer;
using zeph_peers::MediaPeerMode;

Bytes Cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// A connected Video channel whose peer never writes: it receives what the test feeds.
struct QuietChannel {
    TcpListener quiet{TcpListener::Mode::Keep};
    MediaSession s;
    std::shared_ptr<MediaSocket> object;
    int32_t sock = -1;

    explicit QuietChannel(uint32_t id) : s(id)
    {
        EXPECT_TRUE(s.Open(kVideo, quiet.port()));
        object = s.Object();
        sock = s.Channel(kVideo, 0)->sock;
    }
    int32_t Feed(const Bytes& bytes) { return object->PutRecvBuffer(sock, bytes.data(), int32_t(bytes.size())); }
};

// Holds the send thread in the callback of a damaged packet's flush: packets queued meanwhile stay.
struct FirstFlushHold {
    struct State {
        std::atomic<bool> first{true};
        std::promise<void> held, release;
        std::shared_future<void> go = release.get_future().share();
        std::atomic<bool> gaveUp{false};
    };
    std::shared_ptr<State> st = std::make_shared<State>();

    bool Hold(MediaSession& s, uint32_t type)
    {
        s.OnEvent([st = st](uint32_t, MediaEventInfo e) {
            if (e.eventId != ZEPH_MEDIA_EVENT_RING_FLUSHED || !st->first.exchange(false)) return;
            st->held.set_value();
            st->gaveUp = st->go.wait_for(std::chrono::seconds(5)) != std::future_status::ready;
        });
        return s.Send(type, 200, Body(8)) == 0 &&
               st->held.get_future().wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    }
    bool Release() // false when the send thread had already stopped waiting
    {
        st->release.set_value();
        return !st->gaveUp;
    }
};

TEST(MediaTransportFraming, EveryCutDeliversEachPacketOnceAndDamageIsSkippedToTheNextHead)
{
    QuietChannel q(2101);
    const Bytes b1 = Body(20, 1), b3 = Body(300, 3);
    const Bytes stream = Cat({Framed(2, kVideo, b1), Framed(ZEPH_MEDIA_PKT_ANNO, kVideo, {}), Framed(1, kVideo, b3)});
    size_t triples = 0;
    for (size_t cut = 1; cut < stream.size(); ++cut) {
        ASSERT_EQ(q.Feed(Bytes(stream.begin(), stream.begin() + long(cut))), 0);
        ASSERT_EQ(q.Feed(Bytes(stream.begin() + long(cut), stream.end())), 0);
        ASSERT_EQ(q.s.ReceivedCount(kVideo), 3 * ++triples) << "cut at " << cut;
    }
    for (uint8_t byte : stream) q.Feed({byte});
    auto got = q.s.Received(kVideo);
    ASSERT_EQ(got.size(), 3 * ++triples);
    for (size_t i = 0; i < got.size(); i += 3) {
        EXPECT_TRUE(got[i].pktType == 2 && got[i].body == b1) << i;
        EXPECT_TRUE(got[i + 1].pktType == 3 && got[i + 1].body.empty()) << i;
        EXPECT_TRUE(got[i + 2].pktType == 1 && got[i + 2].body == b3) << i;
    }
    const MediaStats st = q.s.Stats(kVideo);
    EXPECT_EQ(st.recv.SuccessCount, 3 * triples);
    EXPECT_EQ(st.dataLoss + st.readHeadErrCount + st.recv.ErrCount, 0u);

    // A bare head that ends a read waits for the next read.
    const size_t before = q.s.ReceivedCount(kVideo);
    q.Feed(Framed(4, kVideo, {}));
    EXPECT_EQ(q.s.ReceivedCount(kVideo), before);
    q.Feed(Framed(2, kVideo, b1));
    ASSERT_EQ(q.s.ReceivedCount(kVideo), before + 2);
    EXPECT_EQ(q.s.Received(kVideo)[before].pktType, 4u);

    // Damage is skipped to the next head: head_Len 2049 ends this read, the packet behind it waits.
    QuietChannel r(2102);
    Bytes bad(kPrivateHeadSize);
    BuildPrivateHead(2, kVideo, 0, 1, 2033, bad.data());
    const Bytes g1 = Body(30, 1), g2 = Body(40, 2), g3 = Body(50, 3);
    EXPECT_EQ(r.Feed(Cat({bad, Bytes(10, 0), Framed(3, kVideo, g1)})), MEDIA_SOCKET_ERRCODE_PACKET_LENGTH);
    EXPECT_EQ((Figures{r.s.ReceivedCount(kVideo), r.s.Stats(kVideo).recv.ErrCount, r.s.Stats(kVideo).recv.SignalErrCount}),
              (Figures{0, 1, 1}));

    EXPECT_EQ(r.Feed(Framed(3, kVideo, g2)), 0);
    got = r.s.Received(kVideo);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_TRUE(got[0].body == g1 && got[1].body == g2);
    EXPECT_EQ(r.s.Stats(kVideo).dataLoss, 1u);
    ASSERT_EQ(r.s.EventCount(kVideo, ZEPH_MEDIA_EVENT_DIRTY_DATA), 1u);
    EXPECT_EQ(r.s.Events(kVideo).back().errorCode, 10u) << "the dropped bytes";

    // Noise in front of a packet in one read: one run, one event, the packet.
    const Bytes noise(37, 'n');
    EXPECT_EQ(r.Feed(Cat({noise, Framed(3, kVideo, g3)})), 0);
    got = r.s.Received(kVideo);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[2].body, g3);
    EXPECT_EQ((Figures{r.s.Stats(kVideo).dataLoss, r.s.Channel(kVideo, 0)->stats.dataLoss.load()}), (Figures{2, 2}));
    // Within a second of the last report the bytes wait, and are told later.
    EXPECT_EQ(r.s.EventCount(kVideo, ZEPH_MEDIA_EVENT_DIRTY_DATA), 1u);
    ASSERT_TRUE(wait_until([&] { return r.s.EventCount(kVideo, ZEPH_MEDIA_EVENT_DIRTY_DATA) == 2; }, 3000));
    EXPECT_EQ(r.s.Events(kVideo).back().errorCode, 37u);
    EXPECT_EQ(r.s.Channel(kVideo, 0)->reCreateChannelCount.load(), 0);

    // Bytes of a socket that is no channel's (one closed between poll and read).
    r.sock += 1000;
    EXPECT_EQ(r.Feed(Framed(3, kVideo, g1)), MEDIA_SOCKET_ERRCODE_NOT_FOUND_SOCKET);
    EXPECT_EQ(r.s.ReceivedCount(kVideo), 3u);
}

TEST(MediaTransportSend, RotatesOverAudioChannels)
{
    MediaPeer peer;
    ASSERT_TRUE(peer.start());
    MediaSession s(2111);
    ASSERT_TRUE(s.Open(kAudio, peer.port(), 4));
    for (uint32_t i = 0; i < 12; ++i) ASSERT_EQ(s.Send(kAudio, 2, Body(30, uint8_t(i)), i), 0);
    ASSERT_TRUE(s.WaitReceived(kAudio, 12));
    // An echo can be back before the send thread has counted its packet.
    ASSERT_TRUE(wait_until([&] { return s.Stats(kAudio).sendCount == 12; }, 3000));

    // Each connection saw every fourth packet, in order, and counted it.
    std::set<uint32_t> firsts;
    for (size_t c = 0; c < 4; ++c) {
        const auto heads = peer.connection(c).heads;
        ASSERT_EQ(heads.size(), 3u) << c;
        firsts.insert(heads[0].channel);
        for (const auto& h : heads) EXPECT_EQ(h.pkgSeq, h.channel + 1);
        EXPECT_EQ((Figures{heads[1].channel, heads[2].channel}), (Figures{heads[0].channel + 4, heads[0].channel + 8}));
        const auto& stats = s.Channel(kAudio, c)->stats;
        EXPECT_EQ((Figures{stats.sendCount.load(), stats.recv.Get(PacketCounters::SuccessCount)}), (Figures{3, 3})) << c;
    }
    EXPECT_EQ(firsts, (std::set<uint32_t>{0, 1, 2, 3}));
}

TEST(MediaTransportSend, HeadsCountersAndTheClosingReport)
{
    MediaPeer peer;
    ASSERT_TRUE(peer.start());
    TcpListener raw(TcpListener::Mode::Sink);
    MediaSession s(2121);
    ASSERT_TRUE(s.Open(kVideo, peer.port()) && s.Open(kData, raw.port()));

    // 8 and 128 draw from one sequence counter; 7 is carried but unknown.
    const std::vector<uint32_t> types{0, 0, 8, 128, 8, 7, 1, 2, 3, 4};
    const std::vector<uint32_t> seqs{1, 2, 1, 2, 3, 1, 1, 1, 1, 1};
    for (uint32_t i = 0; i < types.size(); ++i) ASSERT_EQ(s.Send(kVideo, types[i], Body(24, uint8_t(i)), 100 + i), 0);
    ASSERT_TRUE(s.WaitReceived(kVideo, types.size()));
    ASSERT_TRUE(wait_until([&] { return s.Stats(kVideo).sendCount == types.size(); }, 3000));
    const auto heads = peer.connection(0).heads;
    const auto got = s.Received(kVideo);
    ASSERT_EQ(heads.size(), types.size());
    for (uint32_t i = 0; i < types.size(); ++i) {
        const auto& h = heads[i];
        EXPECT_EQ((Figures{h.pktType, h.pkgSeq, h.channel, h.head_Len}), (Figures{types[i], seqs[i], 100 + i, 40})) << i;
        EXPECT_TRUE(got[i].pktType == types[i] && got[i].mediaType == kVideo && got[i].body == Body(24, uint8_t(i)));
    }
    const MediaStats st = s.Stats(kVideo);
    for (const MediaPacketCounts& c : {st.send, st.recv}) {
        EXPECT_EQ((Figures{c.SuccessCount, c.RtpSuccessCount, c.KeepaliveSuccessCount, c.UnknowCount, c.ErrCount,
                           c.RtcpSuccessCount + c.SignalSuccessCount + c.AnnoSuccessCount + c.MouseSuccessCount}),
                  (Figures{10, 2, 1, 3, 0, 4}));
    }
    EXPECT_EQ((Figures{st.sendCount, st.sendSuccessCount}), (Figures{10, 10}));
    EXPECT_EQ(st.sendErrCount + st.sendLenErrorCount + st.noConnectSendCount + st.dataLoss, 0u);

    // Exactly these bytes on the wire.
    const Bytes body = Body(8, 5);
    ASSERT_EQ(s.Send(kData, 9, body, 0x01020304), 0);
    ASSERT_TRUE(raw.wait_received(24, 3000));
    const std::string wire = raw.received();
    const Bytes expected{0xFF, 0x03, 9, 4, 1, 2, 3, 4, 0, 0, 0, 1, 0, 24, 0, 0};
    EXPECT_EQ(Bytes(wire.begin(), wire.begin() + 16), expected);
    EXPECT_EQ(Bytes(wire.begin() + 16, wire.end()), body);

    // After the close the figures live on only in the closing report.
    ASSERT_EQ(s.Close(kVideo), 0);
    MediaStats none{};
    EXPECT_EQ(MORL_MediaGetStats(s.id(), kVideo, &none), MEDIA_SOCKET_ERRCODE_NO_CREATE);
    EXPECT_TRUE(MediaLog::WaitFor({"~SocketInfo, mediaType: Video; , [RECV]: ", "SuccessCount: 10", "[SEND]: sendCount: 10"},
                                  3000));
}

TEST(MediaTransportSend, FullRingRefusesAWholePacketKeepsWhatIsQueuedAndAReconnectDropsIt)
{
    MediaPeer peer(MediaPeerMode::Sink);
    ASSERT_TRUE(peer.start());
    MediaSession s(2131);
    ASSERT_TRUE(s.Open(kData, peer.port()));
    FirstFlushHold hold;
    ASSERT_TRUE(hold.Hold(s, kData));

    // A packet type outside every sequence counter carries all ones.
    ASSERT_EQ(s.Send(kData, 200, Body(8, 5), 0x01020304), 0);
    {
        auto info = s.Info(kData);
        Bytes head(kPrivateHeadSize);
        std::lock_guard<std::mutex> lock(info->mutex);
        ASSERT_EQ(info->GetSendBuffer()->Peek(head.data(), kPrivateHeadSize), kPrivateHeadSize);
        EXPECT_EQ(head, (Bytes{0xFF, 0x03, 200, 4, 1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF, 0, 24, 0, 0}));
    }
    // Queued packets count at once (the damaged one too), sending once sent.
    ASSERT_EQ(s.Send(kData, ZEPH_MEDIA_PKT_KEEPALIVE, Body(20)), 0);
    ASSERT_EQ(s.Send(kData, 7, Body(20)), 0);
    MediaStats st = s.Stats(kData);
    EXPECT_EQ((Figures{st.send.SuccessCount, st.send.KeepaliveSuccessCount, st.send.UnknowCount, st.sendCount}),
              (Figures{4, 1, 3, 0}));

    // Fill the 30720-byte ring: a packet that does not fit is refused whole.
    uint32_t queued = 2;
    int32_t rc = 0;
    while ((rc = s.Send(kData, 2, Body(1000, uint8_t(queued)))) == 0 && queued < 100) ++queued;
    EXPECT_EQ(rc, MEDIA_SOCKET_ERRCODE_WRITE_BUFFER);
    const int32_t used = MORL_MediaGetChannelBufSize(s.id(), kData);
    ASSERT_EQ(used, 24 + 36 + 36 + int32_t(queued - 2) * 1016);
    // The room left still takes a packet that fits exactly; then not even a head.
    ASSERT_EQ(s.Send(kData, 2, Body(size_t(30720 - used - kPrivateHeadSize), 0xEE)), 0);
    ++queued;
    EXPECT_EQ(MORL_MediaGetChannelBufSize(s.id(), kData), 30720);
    EXPECT_EQ(s.Send(kData, 2, Body(0)), MEDIA_SOCKET_ERRCODE_WRITE_BUFFER);
    st = s.Stats(kData);
    EXPECT_EQ((Figures{st.send.ErrCount, st.send.SignalErrCount, st.send.SuccessCount}), (Figures{1, 1, 2 + queued}))
        << "a head that did not fit is no packet";

    EXPECT_TRUE(hold.Release()) << "queuing waited for the callback";
    // Everything queued goes out, intact; the ring is not flushed again.
    EXPECT_TRUE(wait_until([&] { return peer.packets(kData) == queued; }, 3000)) << peer.packets(kData);
    // The send thread counts a run once its send call has returned.
    ASSERT_TRUE(wait_until([&] { return s.Stats(kData).sendCount == queued; }, 3000)) << s.Stats(kData).sendCount;
    st = s.Stats(kData);
    EXPECT_EQ((Figures{st.sendSuccessCount, st.readOnePktErrCount, s.EventCount(kData, ZEPH_MEDIA_EVENT_RING_FLUSHED),
                       peer.connection(0).noiseBytes, uint64_t(MORL_MediaGetChannelBufSize(s.id(), kData))}),
              (Figures{queued, 1, 1, 0, 0}));
    ASSERT_EQ(s.Send(kData, 2, Body(10)), 0);
    EXPECT_TRUE(wait_until([&] { return peer.packets(kData) == queued + 1; }, 3000)) << "the ring keeps working";

    // A reconnect drops what was queued for the old connection and tells the
    // caller so: after the event the send thread is still telling, since a
    // session's events come one at a time.
    FirstFlushHold again;
    ASSERT_TRUE(again.Hold(s, kData));
    for (uint8_t i = 0; i < 3; ++i) ASSERT_EQ(s.Send(kData, 2, Body(100, i)), 0);
    ASSERT_EQ(MORL_MediaGetChannelBufSize(s.id(), kData), 3 * 116);
    ASSERT_EQ(MORL_MediaReCreateChannel(s.id(), kData), 0);
    EXPECT_EQ(MORL_MediaGetChannelBufSize(s.id(), kData), 0);
    EXPECT_EQ(s.EventCount(kData, ZEPH_MEDIA_EVENT_RING_FLUSHED), 2u);
    again.Release();
    ASSERT_TRUE(wait_until([&] { return s.EventCount(kData, ZEPH_MEDIA_EVENT_RING_FLUSHED) == 3u; }, 3000));
    EXPECT_EQ(s.Events(kData).back().errorCode, 0u);
    ASSERT_EQ(s.Send(kData, 2, Body(100, 9)), 0);
    ASSERT_TRUE(wait_until([&] { return peer.accepted() == 2 && peer.connection(1).packets == 1; }, 3000));
    sleep_ms(100);
    EXPECT_EQ((Figures{peer.connection(0).packets, peer.connection(1).packets}), (Figures{queued + 1, 1}))
        << "nothing stale was sent";
}

TEST(MediaTransportRecv, AudioEchoedOutOfOrderOverFourChannelsComesOutSorted)
{
    MediaPeer peer;
    ASSERT_TRUE(peer.start());
    MediaSession s(2141);
    ASSERT_TRUE(s.Open(kAudio, peer.port(), 4));
    const uint32_t ssrc = 0xCAFEF00D;
    ASSERT_EQ(s.Send(kAudio, 0, RtpBody(100, ssrc)), 0); // opens the stream
    ASSERT_TRUE(wait_until([&] { return s.Stats(kAudio).recv.SuccessCount == 1; }, 3000));
    EXPECT_EQ(s.ReceivedCount(kAudio), 0u);
    ASSERT_TRUE(peer.reorderAudio({3, 0, 5, 1, 4, 2}));
    for (uint16_t seq = 101; seq <= 106; ++seq) ASSERT_EQ(s.Send(kAudio, 0, RtpBody(seq, ssrc)), 0);
    ASSERT_TRUE(s.WaitReceived(kAudio, 6));
    const auto got = s.Received(kAudio);
    for (uint16_t i = 0; i < 6; ++i) EXPECT_TRUE(got[i].pktType == 0 && got[i].body == RtpBody(101 + i, ssrc)) << i;
    size_t channelsUsed = 0;
    for (size_t c = 0; c < 4; ++c) channelsUsed += s.Channel(kAudio, c)->stats.recv.Get(PacketCounters::SuccessCount) > 0;
    EXPECT_GE(channelsUsed, 3u);
}

} // namespace
