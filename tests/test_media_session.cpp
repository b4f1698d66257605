// Media sessions and channels: the session table; channels made, sized, connected
// (also through an HTTP proxy) and closed, also from a callback; the receive thread's sleep.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/ip.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include "media_harness.h"
#include "media_peer.h"
#include "peers.h"
#include "zeph_nettools/settings.h"
#include "zeph_nettools/stun.h"

namespace {

using namespace zeph_test;
using zeph_peers::MediaPeer;
using zeph_peers::MediaPeerMode;

int SockOpt(int fd, int level, int option)
{
    int value = -1;
    socklen_t len = sizeof value;
    return getsockopt(fd, level, option, &value, &len) == 0 ? value : -1;
}

int32_t FdOf(const MediaSession& s, size_t index)
{
    auto object = s.Object();
    return object ? object->GetFd(index).fd : -2;
}

// How often a thread of this process has given up the processor so far.
long Wakeups(long tid)
{
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    long total = 0;
    for (std::string line; std::getline(status, line);)
        if (line.find("ctxt_switches:") != std::string::npos) total += std::stol(line.substr(line.find(':') + 1));
    return total;
}

// What a descriptor of this process is ("socket:[inode]"), or "" if closed.
std::string LinkOf(int fd)
{
    std::error_code error;
    const auto target = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
    return error ? std::string() : target.string();
}

TEST(MediaSessionTable, SixSessionsAtMostAndIdsFreeAtOnceOnClose)
{
    std::vector<std::unique_ptr<MediaSession>> s;
    for (uint32_t i = 0; i < 6; ++i) {
        s.emplace_back(new MediaSession(1101 + i));
        ASSERT_EQ(s.back()->Create(kData, 1), 0) << i;
    }
    EXPECT_EQ(MORL_MediaCreateSocket(1107, kData, 1), MEDIA_SOCKET_ERRCODE_SESSION_TABLE_FULL);
    EXPECT_EQ(MORL_MediaCreateSocket(0, kData, 1), MEDIA_SOCKET_ERRCODE_SESSION_ID_ZERO);
    EXPECT_EQ(MORL_MediaGetFirstSessionId(), 1u);

    // Closing one of two media types leaves the session and its threads.
    ASSERT_EQ(s[2]->Create(kVideo, 1), 0);
    EXPECT_EQ(s[2]->Close(kData), 0);
    EXPECT_NE(s[2]->Object(), nullptr);
    EXPECT_EQ(s[2]->Send(kVideo, 2, Body(10)), MEDIA_SOCKET_ERRCODE_NO_SOCKET) << "not connected, but found";
    EXPECT_EQ(MORL_MediaCreateSocket(1107, kData, 1), MEDIA_SOCKET_ERRCODE_SESSION_TABLE_FULL);
    EXPECT_EQ(MediaLog::Count({"SocketRecvThread leave. session id: 1103"}), 0);

    // The last media type takes the session with it, at once for the caller.
    EXPECT_EQ(s[2]->Close(kVideo), 0);
    EXPECT_EQ(s[2]->Send(kVideo, 2, Body(1)), MEDIA_SOCKET_ERRCODE_NOT_FOUND_MEDIA_SOCKET);
    EXPECT_TRUE(MediaLog::WaitFor({"SocketRecvThread leave. session id: 1103"}, 4000));
    EXPECT_TRUE(MediaLog::WaitFor({"SocketSendThread leave. session id: 1103"}, 4000));

    // The freed slot serves a new id, and an id can come back at once.
    MediaSession seventh(1107);
    EXPECT_EQ(seventh.Create(kData, 1), 0);
    EXPECT_EQ(s[3]->Close(kData), 0);
    EXPECT_EQ(s[3]->Create(kAudio, 2), 0);
    MediaStats stats{};
    EXPECT_EQ(MORL_MediaGetStats(s[3]->id(), kData, &stats), MEDIA_SOCKET_ERRCODE_NO_CREATE);
}

TEST(MediaSessionChannels, CountsRingsAndRepeatedCreates)
{
    MediaSession s(1121);
    // Audio takes up to four channels, every other media type one.
    MediaSession wide(1122);
    ASSERT_EQ(s.Create(kAudio, 2) + s.Create(kVideo, 9) + s.Create(ZEPH_MEDIA_MS, 1) + wide.Create(kAudio, 9), 0);
    EXPECT_EQ(s.Create(kAudio, 2), MEDIA_SOCKET_ERRCODE_ALREADY_CREATED);
    EXPECT_EQ((Figures{s.Info(kAudio)->sockMgr.size(), s.Info(kVideo)->sockMgr.size(), wide.Info(kAudio)->sockMgr.size()}),
              (Figures{2, 1, 4}));

    // Fresh channels: open, distinct sockets, not connected, not polled.
    std::set<int32_t> socks;
    for (uint32_t type : {kAudio, kVideo})
        for (const auto& ch : s.Info(type)->sockMgr)
            EXPECT_TRUE(ch->sock >= 0 && ch->state == 0 && socks.insert(ch->sock).second);
    EXPECT_EQ(socks.size(), 3u);
    for (size_t i = 0; i < 8; ++i) EXPECT_EQ(FdOf(s, i), -1) << i;

    // The size query tells what waits, not the room; sizes set are clamped.
    EXPECT_EQ(MORL_MediaGetChannelBufSize(s.id(), kVideo), 0);
    auto capacities = [&](uint32_t type) {
        std::set<int32_t> c{s.Info(type)->GetSendBuffer()->GetCapacity()};
        for (const auto& ch : s.Info(type)->sockMgr) c.insert(ch->GetRecvBuffer()->GetCapacity());
        return c;
    };
    EXPECT_EQ(MORL_MediaSetChannelBufSize(s.id(), kVideo, 1), 0);
    EXPECT_EQ(capacities(kVideo), std::set<int32_t>{30720});
    EXPECT_EQ(MORL_MediaSetChannelBufSize(s.id(), kAudio, 2000000), 0);
    EXPECT_EQ(capacities(kAudio), std::set<int32_t>{1024000});

    // The direction flag picks the socket buffer (Linux reports twice the size).
    const int32_t sock = s.Channel(kAudio, 1)->sock;
    const int sndBefore = SockOpt(sock, SOL_SOCKET, SO_SNDBUF);
    EXPECT_EQ(MORL_MediaSetTcpBufSize(s.id(), kAudio, 65536, 1), 0);
    EXPECT_EQ(SockOpt(sock, SOL_SOCKET, SO_RCVBUF), 2 * 65536);
    EXPECT_EQ(SockOpt(sock, SOL_SOCKET, SO_SNDBUF), sndBefore);

    // Bad media types and types not created.
    EXPECT_EQ(s.Create(5, 1), MEDIA_SOCKET_ERRCODE_INVALID_PARAM);
    EXPECT_EQ(s.Send(ZEPH_MEDIA_AUX, 2, Body(4)), MEDIA_SOCKET_ERRCODE_NO_CREATE);
    EXPECT_EQ(MORL_MediaGetStats(s.id(), kVideo, nullptr), MEDIA_SOCKET_ERRCODE_INVALID_PARAM);

    // Closed and made again: a new record with the default channel count.
    EXPECT_EQ(s.Close(kAudio), 0);
    EXPECT_EQ(s.Create(kAudio, 9), 0);
    EXPECT_EQ(s.Info(kAudio)->sockMgr.size(), 4u);

    // A create with no channel or a bad type gives the session's slot back
    // at once: six such calls used to lock every new id out.
    for (uint32_t id = 1123; id < 1123 + 6; ++id) {
        EXPECT_EQ(MORL_MediaCreateSocket(id, kAudio, 0), MEDIA_SOCKET_ERRCODE_CREATE_SOCKET);
        EXPECT_EQ(MORL_MediaCreateSocket(id, 9, 1), MEDIA_SOCKET_ERRCODE_INVALID_PARAM);
        EXPECT_EQ(MORL_MediaCloseSocket(id, kAudio), MEDIA_SOCKET_ERRCODE_NOT_FOUND_MEDIA_SOCKET);
    }
    EXPECT_TRUE(MediaLog::WaitFor({"SocketRecvThread leave. session id: 1128"}, 4000)) << "its threads end";
    MediaSession after(1130);
    EXPECT_EQ(after.Create(kData, 1), 0);
    // A session that holds a media type keeps its slot when a later create fails.
    EXPECT_EQ(after.Create(kAudio, 0), MEDIA_SOCKET_ERRCODE_CREATE_SOCKET);
    EXPECT_NE(after.Object(), nullptr);
}

TEST(MediaSessionConnect, BadTargetsFailEveryChannelAndStartNothing)
{
    MediaSession s(1131);
    for (const uint16_t port : {uint16_t(0), closed_tcp_port()}) {
        ASSERT_EQ(s.Create(kAudio, 4), 0);
        std::map<int32_t, std::string> made; // descriptor -> what it was
        for (size_t i = 0; i < 4; ++i) made[s.Channel(kAudio, i)->sock] = LinkOf(s.Channel(kAudio, i)->sock);
        const int32_t rc = s.Connect(kAudio, port);
        EXPECT_TRUE(port == 0 ? rc == MEDIA_SOCKET_ERRCODE_INVALID_PARAM
                              : rc == MEDIA_SOCKET_ERRCODE_CONNECT_EVENT || rc == MEDIA_SOCKET_ERRCODE_CONNECT_ERROR)
            << rc;
        for (size_t i = 0; i < 4; ++i) {
            auto ch = s.Channel(kAudio, i);
            EXPECT_TRUE(ch->state == 0 && ch->sock == -1 && FdOf(s, i) == -1) << i;
            EXPECT_TRUE(port != 0 || ch->connectRet == MEDIA_SOCKET_ERRCODE_INVALID_PARAM) << i;
        }
        EXPECT_EQ(rc, s.Channel(kAudio, 3)->connectRet.load()) << "the last channel's failure";
        // Released at once, though no poll record changed to wake the receive thread.
        for (const auto& [fd, link] : made)
            EXPECT_TRUE(wait_until([&] { return LinkOf(fd) != link; }, 2000)) << "descriptor " << fd << " still held";
        ASSERT_EQ(s.Close(kAudio), 0);
    }
    ASSERT_EQ(s.Create(kAudio, 4), 0);
    EXPECT_EQ(MORL_MediaCreateChannel(s.id(), kAudio, nullptr, 5000, nullptr), MEDIA_SOCKET_ERRCODE_INVALID_PARAM);
    // No slow start ran: with no STUN key it would have said so.
    sleep_ms(300);
    EXPECT_EQ(MediaLog::Count({"MORL_StunGetChannelId error! session id: 1131"}), 0);
}

TEST(MediaSessionConnect, MarksSocketsFillsThePollTableReconnectsAndSleepsWhenIdle)
{
    MediaPeer peer;
    ASSERT_TRUE(peer.start());
    MediaSession s(1141);
    ASSERT_EQ(s.Create(kAudio, 4), 0);
    ASSERT_EQ(s.Create(kVideo, 1), 0);
    ASSERT_EQ(s.Connect(kAudio, peer.port()), 0);
    // A connect by name is told to the caller.
    ASSERT_EQ(s.Connect(kVideo, peer.port(), "127.0.0.1", "localhost"), 0);
    EXPECT_TRUE(s.WaitEvent(kVideo, ZEPH_MEDIA_EVENT_CONNECT_DOMAIN, 1000));
    EXPECT_TRUE(wait_until([&] { return peer.accepted() == 5; }, 2000));

    // Connected, polled for input, marked by media type, its local port known.
    auto check = [&](uint32_t type, size_t channel, size_t fdIndex, int tos) {
        auto ch = s.Channel(type, channel);
        const int32_t sock = ch->sock;
        sockaddr_in addr{};
        socklen_t len = sizeof addr;
        getsockname(sock, reinterpret_cast<sockaddr*>(&addr), &len);
        EXPECT_EQ((Figures{ch->state, uint64_t(ch->connectRet), uint64_t(FdOf(s, fdIndex)),
                           uint64_t(s.Object()->GetFd(fdIndex).events), uint64_t(SockOpt(sock, IPPROTO_IP, IP_TOS)),
                           ch->localPort}),
                  (Figures{2, 0, uint64_t(sock), 0x300, uint64_t(tos), ntohs(addr.sin_port)}))
            << "media type " << type << ", channel " << channel;
    };
    for (size_t i = 0; i < 4; ++i) check(kAudio, i, i, 184);
    check(kVideo, 0, 4, 136);

    // Without a STUN key the slow start only says so and sends nothing.
    EXPECT_TRUE(wait_until([] { return MediaLog::Count({"MORL_StunGetChannelId error! session id: 1141"}) == 2; }, 1000));
    sleep_ms(200);
    EXPECT_EQ(peer.totalPackets(), 0u);

    // One new connection per channel, and only one: a new socket may reuse the
    // number of an old one still polled, which must not look like a loss.
    EXPECT_EQ(MORL_MediaReCreateChannel(s.id(), kAudio), 0);
    EXPECT_TRUE(wait_until([&] { return peer.accepted() == 9; }, 2000)) << peer.accepted();
    for (size_t i = 0; i < 4; ++i) check(kAudio, i, i, 184);
    EXPECT_EQ(s.Send(kAudio, 2, Body(40), 1), 0);
    EXPECT_TRUE(s.WaitReceived(kAudio, 1));

    // Idle, the receive thread sleeps: polling every 10 ms would be 50 wake-ups in this half second.
    const long tid = ThreadId("TCPSocketRecvThread");
    ASSERT_GT(tid, 0);
    constexpr long kMaxIdleWakeups = 10;
    const long before = Wakeups(tid);
    sleep_ms(500);
    EXPECT_LE(Wakeups(tid) - before, kMaxIdleWakeups);
}

// The proxy setting is process-wide: a test that sets one takes it away.
struct ProxySetting {
    ~ProxySetting() { zeph_settings_set_http_proxy(nullptr, 0, nullptr, nullptr); }
};

TEST(MediaSessionConnect, ThroughHttpProxyAndRefusedAuthentication)
{
    MediaPeer peer;
    ASSERT_TRUE(peer.start());
    TinyProxy proxy;
    ASSERT_TRUE(proxy.start({peer.port()}, "media", "secret"));
    ProxySetting restore;

    // Without credentials: refused, the socket released, the channel left connecting.
    ASSERT_EQ(zeph_settings_set_http_proxy("127.0.0.1", proxy.port(), nullptr, nullptr), 0);
    MediaSession t(1152);
    ASSERT_EQ(t.Create(kVideo, 1), 0);
    EXPECT_EQ(t.Connect(kVideo, peer.port()), MEDIA_SOCKET_ERRCODE_PROXY_AUTH);
    auto ch = t.Channel(kVideo, 0);
    EXPECT_TRUE(ch->connectRet == MEDIA_SOCKET_ERRCODE_PROXY_AUTH && ch->sock == -1 && ch->state == 1);
    EXPECT_EQ(FdOf(t, 4), -1);

    ASSERT_EQ(zeph_settings_set_http_proxy("127.0.0.1", proxy.port(), "media", "secret"), 0);
    MediaSession s(1151);
    ASSERT_TRUE(s.Open(kAudio, peer.port(), 2));
    for (uint32_t i = 0; i < 4; ++i) ASSERT_EQ(s.Send(kAudio, 2, Body(100, uint8_t(i)), i), 0);
    ASSERT_TRUE(s.WaitReceived(kAudio, 4));
    EXPECT_EQ(peer.accepted(), 2u);
    EXPECT_NE(proxy.log_text().find(std::to_string(peer.port())), std::string::npos) << proxy.log_text();
}

// Four channels failing at once, each on its connect thread: the caller gets
// every event, one at a time.
TEST(MediaSessionConnect, EventsOfChannelsFailingAtOnceAreToldOneAtATime)
{
    ProxySetting restore;
    ASSERT_EQ(zeph_settings_set_http_proxy("127.0.0.1", closed_tcp_port(), nullptr, nullptr), 0);
    MediaSession s(1153);
    std::atomic<int> inside{0}, overlaps{0};
    s.OnEvent([&](uint32_t, MediaEventInfo) {
        if (inside.fetch_add(1) != 0) overlaps.fetch_add(1);
        sleep_ms(50); // a slow caller
        inside.fetch_sub(1);
    });
    ASSERT_EQ(s.Create(kAudio, 4), 0);
    EXPECT_EQ(s.Connect(kAudio, closed_tcp_port()), MEDIA_SOCKET_ERRCODE_CONNECT_ERROR);
    EXPECT_TRUE(wait_until([&] { return s.EventCount(kAudio, ZEPH_MEDIA_EVENT_CONNECT_FAILED) == 4; }, 3000))
        << s.EventCount(kAudio, ZEPH_MEDIA_EVENT_CONNECT_FAILED);
    EXPECT_EQ(overlaps.load(), 0);
}

TEST(MediaSessionClose, FromInsideReceiveCallbacks)
{
    MediaPeer peer;
    ASSERT_TRUE(peer.start());
    MediaSession s(1161);
    ASSERT_TRUE(s.Open(kAudio, peer.port()) && s.Open(kVideo, peer.port()));

    std::atomic<int32_t> audioClosed{1}, videoClosed{1}; // 1 until the callback closed
    s.OnReceive([&](const MediaPacket& p) {
        if (p.mediaType == kAudio) audioClosed = MORL_MediaCloseSocket(1161, kAudio);
        if (p.mediaType == kVideo && p.pktType == ZEPH_MEDIA_PKT_ANNO) videoClosed = MORL_MediaCloseSocket(1161, kVideo);
    });
    ASSERT_EQ(s.Send(kAudio, 2, Body(50)), 0);
    ASSERT_TRUE(wait_until([&] { return audioClosed != 1; }, 3000));
    EXPECT_EQ(audioClosed.load(), 0);
    EXPECT_EQ(s.Info(kAudio), nullptr);
    // Video lives on, on the same receive thread.
    ASSERT_EQ(s.Send(kVideo, 2, Body(60)), 0);
    ASSERT_TRUE(s.WaitReceived(kVideo, 1));

    ASSERT_EQ(s.Send(kVideo, ZEPH_MEDIA_PKT_ANNO, Body(70)), 0);
    ASSERT_TRUE(wait_until([&] { return videoClosed != 1; }, 3000));
    EXPECT_EQ(videoClosed.load(), 0);
    EXPECT_EQ(s.Send(kVideo, 2, Body(10)), MEDIA_SOCKET_ERRCODE_NOT_FOUND_MEDIA_SOCKET);
    // The session ends once the callback has returned.
    EXPECT_TRUE(MediaLog::WaitFor({"SocketRecvThread leave. session id: 1161"}, 4000));
    EXPECT_TRUE(MediaLog::WaitFor({"SocketSendThread leave. session id: 1161"}, 4000));
    EXPECT_TRUE(wait_until([&] { return peer.openConnections() == 0; }, 2000));
}

TEST(MediaSessionClose, EndsARunningSlowStart)
{
    const std::string key = "stun_audio_1171";
    const StunIceInfo local{"locl", "local-password"}, remote{"remt", "remote-password"};
    ASSERT_EQ(MORL_StunSetLocalIceInfo(key.c_str(), &local) + MORL_StunSetRemoteIceInfo(key.c_str(), &remote) +
                  MORL_StunSetChannelId(key.c_str(), 4242),
              0u);
    struct Forget {
        std::string key;
        ~Forget() { MORL_StunClearIceInfo(key.c_str()); }
    } forget{key};

    MediaPeer peer(MediaPeerMode::Sink);
    ASSERT_TRUE(peer.start());
    MediaSession s(1171);
    ASSERT_EQ(s.Create(kVideo, 1), 0); // keeps the session when Audio closes
    ASSERT_TRUE(s.Open(kAudio, peer.port(), 4));

    // STUN requests, one per 50 ms, framed as Keepalive, over every channel.
    ASSERT_TRUE(wait_until([&] { return peer.stunRequests() >= 12; }, 3000));
    std::vector<uint32_t> seqs;
    for (size_t c = 0; c < 4; ++c) {
        const auto heads = peer.connection(c).heads;
        EXPECT_GE(heads.size(), 2u) << c;
        for (const auto& h : heads) {
            EXPECT_TRUE(h.pktType == 128 && h.mediaType == 1 && h.channel == 4242u) << c;
            seqs.push_back(h.pkgSeq);
        }
    }
    std::sort(seqs.begin(), seqs.end());
    for (size_t i = 0; i < seqs.size(); ++i) EXPECT_EQ(seqs[i], i + 1);

    ASSERT_EQ(s.Close(kAudio), 0);
    ASSERT_TRUE(MediaLog::WaitFor({"accelerate slow start end. session id: 1171", "mediaType: Audio"}, 1000));
    const std::string line = MediaLog::Find({"accelerate slow start end. session id: 1171", "mediaType: Audio"})[0];
    EXPECT_NE(line.find("time: 5000, intv: 50, count: "), std::string::npos) << line;
    EXPECT_EQ(line.find("count: -1"), std::string::npos) << "ended at the close, not run out: " << line;
    const uint64_t requests = peer.stunRequests();
    sleep_ms(300);
    EXPECT_EQ(peer.stunRequests(), requests);
}

} // namespace
