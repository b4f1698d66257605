// Self-repair of the media transport: lost channels and media types come back
// within the rate limit; a dead channel or a paused peer costs no packet or socket.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "media_harness.h"
#include "media_peer.h"
#include "mediaSocket/PrivateHead.h"
#include "peers.h"

namespace {

using namespace zeph_test;
using zeph_peers::MediaPeer;
using zeph_peers::MediaPeerBehaviour;

// CPU time (clock ticks) of a thread of this process so far.
long ThreadCpuTicks(long tid)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    const std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string skip;
    long utime = 0, stime = 0;
    for (int field = 3; field < 14; ++field) fields >> skip;
    fields >> utime >> stime;
    return utime + stime;
}

// Repairs at most once per five seconds; meanwhile sends fail unheard and the receive thread does not spin.
TEST(MediaRecovery, LostChannelComesBackAtMostOncePerFiveSeconds)
{
    MediaPeer peer;
    ASSERT_TRUE(peer.start());
    MediaSession s(3101);
    ASSERT_TRUE(s.Open(kVideo, peer.port()));
    ASSERT_EQ(s.Send(kVideo, 2, Body(50, 1)), 0);
    ASSERT_TRUE(s.WaitBody(kVideo, Body(50, 1)));

    ASSERT_TRUE(peer.closeNow(0));
    ASSERT_TRUE(wait_until([&] { return peer.accepted() == 2; }, 3000));
    const uint64_t firstRepair = now_ms();
    ASSERT_TRUE(wait_until([&] { return s.Channel(kVideo, 0)->state == 2; }, 3000));
    ASSERT_EQ(s.Send(kVideo, 2, Body(50, 2)), 0);
    ASSERT_TRUE(s.WaitBody(kVideo, Body(50, 2)));

    const long recvThread = ThreadId("TCPSocketRecvThread");
    ASSERT_GT(recvThread, 0);
    const long cpuBefore = ThreadCpuTicks(recvThread);
    ASSERT_TRUE(peer.closeNow(1));
    EXPECT_TRUE(wait_until(
        [&] {
            EXPECT_EQ(s.Send(kVideo, 2, Body(40, 9)), 0);
            return s.Stats(kVideo).sendErrCount >= 2;
        },
        3000, 20));
    EXPECT_TRUE(MediaLog::WaitFor({"send data EWOULDBLOCK error! session id: 3101",
                                   "ret: " + std::to_string(MEDIA_SOCKET_ERRCODE_NOT_CONNECTED)},
                                  1000));
    EXPECT_EQ(peer.accepted(), 2u);
    ASSERT_TRUE(wait_until([&] { return peer.accepted() == 3; }, 8000));
    EXPECT_LT(ThreadCpuTicks(recvThread) - cpuBefore, sysconf(_SC_CLK_TCK) / 2)
        << "the receive thread's CPU over the five seconds";
    const uint64_t gap = now_ms() - firstRepair;
    EXPECT_TRUE(gap >= 4900 && gap <= 6500) << gap;
    ASSERT_TRUE(wait_until([&] { return s.Channel(kVideo, 0)->state == 2; }, 3000));
    ASSERT_EQ(s.Send(kVideo, 2, Body(50, 3)), 0);
    EXPECT_TRUE(s.WaitBody(kVideo, Body(50, 3)));
    EXPECT_TRUE(s.Events(kVideo).empty()) << "repaired inside, never told";
}

TEST(MediaRecovery, SendWithEverySocketClosedRebuildsTheMediaTypeWithoutBlockingTheCaller)
{
    // The server goes before it drops the connection: the channel's repair fails.
    auto first = std::make_unique<BacklogListener>(4);
    const uint16_t port = first->port();
    MediaSession s(3111);
    ASSERT_TRUE(s.Open(kVideo, port));
    ASSERT_EQ(first->AcceptAll(), 1u);
    first.reset();
    ASSERT_TRUE(wait_until([&] { return s.Channel(kVideo, 0)->sock == -1 && s.Channel(kVideo, 0)->state == 0; }, 3000));

    // A server that never completes a connect: its one-place queue is full.
    auto stuck = std::make_unique<BacklogListener>(0, port);
    ASSERT_EQ(stuck->port(), port);
    const int filler = tcp_connect("127.0.0.1", port);
    ASSERT_GE(filler, 0);

    // The send hands the rebuild on and returns at once; its connect times out.
    const uint64_t attempt = now_ms();
    EXPECT_EQ(s.Send(kVideo, 2, Body(20, 1)), MEDIA_SOCKET_ERRCODE_NO_SOCKET);
    EXPECT_LT(now_ms() - attempt, 500u) << "the caller waited for the connect";
    EXPECT_EQ(s.Stats(kVideo).noConnectSendCount, 1u);
    ASSERT_TRUE(MediaLog::WaitFor({"DoEventCallback  MediaReCreateChannel error! session id: 3111"}, 5000));
    EXPECT_EQ(s.EventCount(kVideo, ZEPH_MEDIA_EVENT_NO_SOCKET), 0u);

    // The server is back, but within five seconds of that attempt nothing is tried.
    stuck.reset();
    ::close(filler);
    MediaPeer second;
    ASSERT_TRUE(second.start("127.0.0.1", port));
    EXPECT_EQ(s.Send(kVideo, 2, Body(20, 2)), MEDIA_SOCKET_ERRCODE_NO_SOCKET);
    sleep_ms(100);
    EXPECT_EQ(second.accepted(), 0u);

    // Once allowed, a send starts the rebuild; a later send finds the channel.
    int32_t rc = -1;
    ASSERT_TRUE(wait_until([&] { return (rc = s.Send(kVideo, 2, Body(20, 3))) == 0; }, 8000, 50));
    const uint64_t gap = now_ms() - attempt;
    EXPECT_TRUE(gap >= 4900 && gap <= 7500) << gap;
    // Told once, on the session's thread, after the rebuild.
    ASSERT_TRUE(s.WaitEvent(kVideo, ZEPH_MEDIA_EVENT_NO_SOCKET, 1000));
    EXPECT_EQ(s.EventCount(kVideo, ZEPH_MEDIA_EVENT_NO_SOCKET), 1u);
    EXPECT_EQ(int32_t(s.EventCodeSum(kVideo, ZEPH_MEDIA_EVENT_NO_SOCKET)), MEDIA_SOCKET_ERRCODE_NO_SOCKET);
    EXPECT_TRUE(s.WaitBody(kVideo, Body(20, 3)));
    // One channel repair, two of the media type.
    EXPECT_EQ((Figures{second.accepted(), uint64_t(s.Info(kVideo)->reCreateChannelCount)}), (Figures{1, 3}));
}

// Descriptors of this process connected to 127.0.0.1:port.
size_t SocketsTo(uint16_t port)
{
    size_t n = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::atoi(entry.path().filename().c_str());
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        n += ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) == 0 && peer.sin_family == AF_INET &&
             ntohs(peer.sin_port) == port && ntohl(peer.sin_addr.s_addr) == INADDR_LOOPBACK;
    }
    return n;
}

// A body of `size` bytes that carries its number in its first four bytes.
Bytes Numbered(uint32_t index, size_t size)
{
    Bytes body = Body(size, uint8_t(index));
    for (int i = 0; i < 4; ++i) body[size_t(i)] = uint8_t(index >> (24 - 8 * i));
    return body;
}

// The numbers of the whole packets of `type` that open a byte stream.
std::vector<uint32_t> NumbersOnTheWire(const Bytes& wire, uint32_t type)
{
    std::vector<uint32_t> numbers;
    size_t at = 0;
    while (wire.size() - at >= size_t(kPrivateHeadSize) + 4) {
        const uint16_t len = PrivateHeadLength(wire.data() + at);
        if (wire[at] != kPrivateHeadTag || wire[at + 3] != type || len < kPrivateHeadSize + 4 ||
            wire.size() - at < len) {
            break;
        }
        const uint8_t* b = wire.data() + at + kPrivateHeadSize;
        numbers.push_back(uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3]);
        at += len;
    }
    return numbers;
}

TEST(MediaRecovery, ChannelThatCannotConnectLeavesTrafficOnTheOthers)
{
    // Three connects fit the queue; a fourth whose handshake crossed into the full queue
    // counts as connected while its packets die: such a set-up is made again.
    std::unique_ptr<MediaSession> session;
    std::unique_ptr<BacklogListener> server;
    for (int attempt = 0; attempt < 5; ++attempt) {
        session.reset();
        server = std::make_unique<BacklogListener>(2);
        session = std::make_unique<MediaSession>(3121);
        ASSERT_EQ(session->Create(kAudio, 4), 0);
        ASSERT_EQ(session->Connect(kAudio, server->port()), 0) << "one channel up is enough";
        if (SocketsTo(server->port()) == 3) break;
    }
    MediaSession& s = *session;
    BacklogListener& listener = *server;
    ASSERT_EQ(SocketsTo(listener.port()), 3u);
    ASSERT_EQ(listener.AcceptAll(), 3u);
    // From now on a connect is refused: the repair tried by the send path fails.
    listener.StopListening();

    for (uint32_t i = 0; i < 9; ++i) ASSERT_EQ(s.Send(kAudio, 2, Numbered(i, 20), i), 0);
    std::set<uint32_t> seen;
    for (int fd : listener.connections()) {
        const std::string bytes = recv_exact(fd, 3 * 36, 3000);
        const auto numbers = NumbersOnTheWire(Bytes(bytes.begin(), bytes.end()), kAudio);
        EXPECT_EQ(numbers.size(), 3u) << "three whole packets on each live channel";
        seen.insert(numbers.begin(), numbers.end());
        EXPECT_TRUE(recv_exact(fd, 1, 100).empty());
    }
    EXPECT_EQ(seen.size(), 9u);
    EXPECT_EQ(MediaLog::Count({"MediaCreateChannelOfSockChan! session id: 3121", "eventId: 1",
                               "errorCode: " + std::to_string(MEDIA_SOCKET_ERRCODE_CHANNEL_DOWN)}),
              1)
        << "the send path found the channel down once: one repair, then the time limit";
    EXPECT_TRUE(wait_until([&] { return s.Stats(kAudio).sendCount == 9; }, 3000));
    EXPECT_TRUE(s.Events(kAudio).empty());
}

// A peer that stops reading: the caller is refused, never blocked, other media types flow,
// and once it reads again it gets every accepted packet, once, in order, on one connection.
TEST(MediaRecovery, PeerThatPausesReadingHoldsBackOnlyItsMediaTypeAndLosesNothing)
{
    BacklogListener stuck(4);
    MediaPeer echo;
    ASSERT_TRUE(echo.start());
    MediaSession s(3145);
    ASSERT_TRUE(s.Open(kVideo, stuck.port()));
    ASSERT_EQ(stuck.AcceptAll(), 1u);
    ASSERT_TRUE(s.Open(kAudio, echo.port()));
    const int conn = stuck.connections()[0];
    constexpr size_t kBody = 1200;

    uint32_t accepted = 0;
    uint64_t refusedSince = 0;
    const uint64_t deadline = now_ms() + 10000;
    while (now_ms() < deadline) {
        const int32_t rc = s.Send(kVideo, 2, Numbered(accepted, kBody));
        if (rc == 0) {
            ++accepted;
            refusedSince = 0;
            continue;
        }
        ASSERT_EQ(rc, MEDIA_SOCKET_ERRCODE_WRITE_BUFFER) << "after " << accepted << " packets";
        if (refusedSince == 0) refusedSince = now_ms();
        if (now_ms() - refusedSince >= 300) break;
        sleep_ms(1);
    }
    ASSERT_NE(refusedSince, 0u) << "the peer's buffers never filled";

    // Without the wake every audio packet would wait 5 ms for the thread's next look.
    struct Echoes {
        std::mutex m;
        std::condition_variable cv;
        size_t n = 0;
    };
    auto echoes = std::make_shared<Echoes>();
    s.OnReceive([echoes](const MediaPacket&) {
        std::lock_guard<std::mutex> lock(echoes->m);
        ++echoes->n;
        echoes->cv.notify_all();
    });
    constexpr size_t kRounds = 200;
    const uint64_t start = now_ms();
    for (size_t i = 0; i < kRounds; ++i) {
        ASSERT_EQ(s.Send(kAudio, 2, Body(40, uint8_t(i))), 0);
        std::unique_lock<std::mutex> lock(echoes->m);
        ASSERT_TRUE(echoes->cv.wait_for(lock, std::chrono::seconds(3), [&] { return echoes->n > i; })) << i;
    }
    EXPECT_LT(now_ms() - start, 600u) << kRounds << " echoes";

    // The peer reads again; more packets follow the queued ones.
    std::mutex mu;
    Bytes wire;
    std::atomic<bool> reading{true};
    std::thread reader([&] {
        uint8_t buf[65536];
        while (reading) {
            pollfd p{conn, POLLIN, 0};
            if (::poll(&p, 1, 20) <= 0) continue;
            const ssize_t n = ::recv(conn, buf, sizeof buf, 0);
            if (n <= 0) break;
            std::lock_guard<std::mutex> lock(mu);
            wire.insert(wire.end(), buf, buf + n);
        }
    });
    for (const uint32_t more = accepted + 500; accepted < more && now_ms() < deadline + 10000;) {
        const int32_t rc = s.Send(kVideo, 2, Numbered(accepted, kBody));
        EXPECT_TRUE(rc == 0 || rc == MEDIA_SOCKET_ERRCODE_WRITE_BUFFER) << rc;
        rc == 0 ? void(++accepted) : sleep_ms(1);
    }
    const auto delivered = [&] {
        std::lock_guard<std::mutex> lock(mu);
        return NumbersOnTheWire(wire, kVideo);
    };
    wait_until([&] { return delivered().size() >= accepted; }, 10000);
    reading = false;
    reader.join();

    std::vector<uint32_t> expected(accepted);
    for (uint32_t i = 0; i < accepted; ++i) expected[i] = i;
    EXPECT_EQ(delivered(), expected) << "every accepted packet, once, in order";
    EXPECT_EQ(stuck.AcceptAll(), 1u) << "still the first connection";
    EXPECT_EQ(s.Stats(kVideo).sendLenErrorCount, 0u);
    EXPECT_TRUE(s.Events(kVideo).empty());
}

// The literal send loop cuts a packet at a full socket and replaces the channel.
TEST(MediaRecovery, LiteralLoopPeerThatStopsReadingGetsItsChannelReplacedAndNoSocketLeaks)
{
    MediaSocket::SetLiteralLoops(true);
    BacklogListener stuck(4);
    {
        MediaSession s(3141);
        ASSERT_TRUE(s.Open(kVideo, stuck.port()));
        ASSERT_EQ(stuck.AcceptAll(), 1u);

        const bool replaced = wait_until(
            [&] {
                for (int i = 0; i < 64; ++i) {
                    const int32_t rc = s.Send(kVideo, 2, Body(1200, uint8_t(i)));
                    EXPECT_TRUE(rc == 0 || rc == MEDIA_SOCKET_ERRCODE_WRITE_BUFFER ||
                                rc == MEDIA_SOCKET_ERRCODE_NOT_CONNECTED || rc == MEDIA_SOCKET_ERRCODE_NO_SOCKET)
                        << rc;
                }
                return s.Channel(kVideo, 0)->reCreateChannelCount.load() == 1;
            },
            10000, 1);
        ASSERT_TRUE(replaced);
        const MediaStats stats = s.Stats(kVideo);
        EXPECT_GE(stats.sendErrCount + stats.sendLenErrorCount, 1u);
        EXPECT_EQ(MediaLog::Count({"MediaCreateChannelOfSockChan! session id: 3141", "eventId: 2",
                                   "errorCode: " + std::to_string(MEDIA_SOCKET_ERRCODE_WOULD_BLOCK)}),
                  1);
        EXPECT_TRUE(wait_until([&] { return s.Channel(kVideo, 0)->state == 2; }, 3000));
        EXPECT_TRUE(wait_until([&] { return SocketsTo(stuck.port()) == 1; }, 3000)) << "the stuck socket is let go";
        EXPECT_TRUE(s.Events(kVideo).empty()) << "repaired inside, never told";
    }
    // Closed: every socket the session opened is released, the replaced one too.
    EXPECT_TRUE(wait_until([&] { return SocketsTo(stuck.port()) == 0; }, 10000))
        << SocketsTo(stuck.port()) << " sockets still open to the peer";
    MediaSocket::SetLiteralLoops(false);
}

// Numbers of the whole audio packets read from `fds` until `want` have come or the time is up.
std::multiset<uint32_t> ReadNumbers(const std::vector<int>& fds, size_t want, int timeoutMs)
{
    std::vector<Bytes> wires(fds.size());
    std::multiset<uint32_t> numbers;
    const uint64_t deadline = now_ms() + uint64_t(timeoutMs);
    while (numbers.size() < want && now_ms() < deadline) {
        std::vector<pollfd> polled;
        for (int fd : fds) polled.push_back(pollfd{fd, POLLIN, 0});
        if (::poll(polled.data(), polled.size(), 20) <= 0) continue;
        numbers.clear();
        for (size_t i = 0; i < fds.size(); ++i) {
            uint8_t buf[4096];
            const ssize_t n = (polled[i].revents & POLLIN) ? ::recv(fds[i], buf, sizeof buf, MSG_DONTWAIT) : 0;
            if (n > 0) wires[i].insert(wires[i].end(), buf, buf + n);
            for (uint32_t number : NumbersOnTheWire(wires[i], kAudio)) numbers.insert(number);
        }
    }
    return numbers;
}

// A channel whose repair cannot connect holds back neither the session's receiving (the
// receive thread found the loss) nor its sending (the send thread found the channel down):
// the other media type keeps flowing while the connect waits, and the channel's own media
// type goes on over its other channels without losing an accepted packet.
TEST(MediaRecovery, ChannelRepairThatHangsHoldsBackNoOtherTraffic)
{
    BacklogListener audioServer(3);
    MediaPeer echo;
    ASSERT_TRUE(echo.start());
    MediaSession s(3151);
    ASSERT_EQ(s.Create(kAudio, 4), 0);
    ASSERT_EQ(s.Connect(kAudio, audioServer.port()), 0);
    ASSERT_EQ(audioServer.AcceptAll(), 4u);
    ASSERT_TRUE(s.Open(kVideo, echo.port()));
    // The server's queue is full again: a new connect to it waits for its time-out.
    std::vector<int> fillers;
    for (int i = 0; i < 4; ++i) {
        fillers.push_back(tcp_connect("127.0.0.1", audioServer.port()));
        ASSERT_GE(fillers.back(), 0);
    }
    const std::string repairs = "MediaCreateChannelOfSockChan! session id: 3151";
    const std::string repairEnds = "MediaReCreateChannelOfSockChan succ. session id: 3151";

    uint32_t audioSent = 0;
    uint8_t videoTag = 0;
    // Video packets sent one by one, each echoed before the next, and audio beside them,
    // all while the audio channel's connect is still waiting.
    const auto flowsDuringRepair = [&](int repairsEnded) {
        for (int round = 0; round < 10; ++round) {
            ++videoTag;
            EXPECT_EQ(s.Send(kAudio, 2, Numbered(audioSent, 20)), 0);
            ++audioSent;
            EXPECT_EQ(s.Send(kVideo, 2, Body(30, videoTag)), 0);
            if (!s.WaitBody(kVideo, Body(30, videoTag), 5000)) {
                ADD_FAILURE() << "video echo " << int(videoTag) << " never came";
                return;
            }
        }
        EXPECT_EQ(MediaLog::Count({repairEnds}), repairsEnded) << "the video waited for the audio repair's connect";
    };

    // The receive thread finds a lost audio channel.
    ASSERT_EQ(::shutdown(audioServer.connections()[0], SHUT_RDWR), 0);
    ASSERT_TRUE(MediaLog::WaitFor({repairs, "eventId: 1"}, 3000));
    flowsDuringRepair(0);
    ASSERT_TRUE(MediaLog::WaitFor({repairEnds}, 5000));

    // Once the time limit allows, the send thread finds that channel closed.
    const std::vector<std::string> sendFound = {repairs, "eventId: 1",
                                                "errorCode: " + std::to_string(MEDIA_SOCKET_ERRCODE_CHANNEL_DOWN)};
    ASSERT_TRUE(wait_until(
        [&] {
            EXPECT_EQ(s.Send(kAudio, 2, Numbered(audioSent, 20)), 0);
            ++audioSent;
            return MediaLog::Count(sendFound) == 1;
        },
        9000, 50));
    flowsDuringRepair(1);

    // Every accepted audio packet went, once, on the three channels left.
    const std::vector<int> live(audioServer.connections().begin() + 1, audioServer.connections().end());
    const auto numbers = ReadNumbers(live, audioSent, 5000);
    std::multiset<uint32_t> expected;
    for (uint32_t i = 0; i < audioSent; ++i) expected.insert(i);
    EXPECT_EQ(numbers, expected);
    EXPECT_EQ(s.EventCount(kAudio, ZEPH_MEDIA_EVENT_CHANNEL_LOST), 0u) << "repaired inside, never told";
    for (int fd : fillers) ::close(fd);
}

TEST(MediaRecovery, WithoutCallbacksPacketsAreDroppedAndRepairsStillHappen)
{
    MediaPeer peer;
    ASSERT_TRUE(peer.start());
    MediaSession s(3131);
    ASSERT_EQ(s.Create(kVideo, 1, false, false), 0);
    ASSERT_EQ(s.Connect(kVideo, peer.port()), 0);

    // Without callbacks packets are consumed uncounted and nobody is told.
    ASSERT_EQ(s.Send(kVideo, 2, Body(30)), 0);
    ASSERT_TRUE(wait_until([&] { return peer.packets(kVideo) == 1; }, 3000));
    sleep_ms(100);
    EXPECT_EQ(s.Stats(kVideo).recv.SuccessCount, 0u);
    ASSERT_EQ(MORL_MediaRegisterRecvCallback(s.id(), kVideo, &MediaSession::RecvCallback), 0);

    MediaPeerBehaviour noisy;
    noisy.noiseBytes = 64;
    ASSERT_TRUE(peer.setBehaviour(0, noisy));
    ASSERT_EQ(s.Send(kVideo, 2, Body(30, 2)), 0);
    ASSERT_TRUE(s.WaitBody(kVideo, Body(30, 2)));
    EXPECT_GE(s.Stats(kVideo).dataLoss, 1u);

    ASSERT_TRUE(peer.closeNow(0));
    ASSERT_TRUE(wait_until([&] { return peer.accepted() == 2 && s.Channel(kVideo, 0)->state == 2; }, 3000));
    ASSERT_EQ(s.Send(kVideo, 2, Body(30, 3)), 0);
    EXPECT_TRUE(s.WaitBody(kVideo, Body(30, 3)));
    EXPECT_EQ(s.Stats(kVideo).recv.SuccessCount, s.ReceivedCount(kVideo));
}

} // namespace
