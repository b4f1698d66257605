// The media peer against plain blocking TCP clients: framing, counting and
// every misbehaviour a transport test relies on.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "inc/byte_io.h"
#include "inc/stun_wire.h"
#include "media_peer.h"
#include "mediaSocket/PrivateHead.h"

using zeph_peers::MediaPeer;
using zeph_peers::MediaPeerBehaviour;
using zeph_peers::MediaPeerMode;
using Bytes = std::vector<uint8_t>;

namespace {

bool WaitFor(const std::function<bool()>& cond, int ms = 5000)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

struct Client {
    int fd = -1;
    explicit Client(uint16_t port)
    {
        fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        timeval tv{5, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        EXPECT_EQ(0, ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a));
    }
    ~Client() { ::close(fd); }
    void send(const Bytes& b) const { ASSERT_EQ(ssize_t(b.size()), ::send(fd, b.data(), b.size(), MSG_NOSIGNAL)); }
    // Exactly n bytes; fewer only when the peer closed or 5 s passed.
    Bytes recv(size_t n) const
    {
        Bytes out(n);
        size_t got = 0;
        while (got < n) {
            ssize_t r = ::recv(fd, out.data() + got, n - got, 0);
            if (r <= 0) break;
            got += size_t(r);
        }
        out.resize(got);
        return out;
    }
    Bytes recvPacket() const
    {
        Bytes p = recv(kPrivateHeadSize);
        if (p.size() < size_t(kPrivateHeadSize)) return p;
        Bytes body = recv(PrivateHeadLength(p.data()) - kPrivateHeadSize);
        p.insert(p.end(), body.begin(), body.end());
        return p;
    }
    bool closedByPeer() const
    {
        uint8_t b;
        return ::recv(fd, &b, 1, 0) == 0;
    }
};

Bytes Packet(uint8_t pktType, uint8_t mediaType, uint32_t seq, size_t bodyLen, uint8_t fill = 0x5A)
{
    Bytes p(kPrivateHeadSize + bodyLen, fill);
    BuildPrivateHead(pktType, mediaType, 7, seq, uint32_t(bodyLen), p.data());
    return p;
}

// An audio RTP packet whose RTP sequence number is rtpSeq.
Bytes AudioRtp(uint16_t rtpSeq)
{
    Bytes p = Packet(0, 1, rtpSeq, 20);
    p[kPrivateHeadSize] = 0x80;
    p[kPrivateHeadSize + 2] = uint8_t(rtpSeq >> 8);
    p[kPrivateHeadSize + 3] = uint8_t(rtpSeq);
    return p;
}

Bytes StunBindingRequest()
{
    Bytes s(zeph::stun::kHeaderSize + 8, 0);
    zeph::ByteWriter w(s.data(), s.size());
    zeph::stun::Header h;
    h.type = zeph::stun::kBindingRequest;
    h.length = 8;
    zeph::stun::write_header(w, h);
    return s;
}

uint16_t RtpSeq(const Bytes& p) { return uint16_t(p[kPrivateHeadSize + 2] << 8 | p[kPrivateHeadSize + 3]); }

} // namespace

TEST(MediaPeer, EchoKeepsPacketsIntactAndInOrderWhateverTheSplits)
{
    MediaPeer peer;
    ASSERT_TRUE(peer.start());
    Client c(peer.port());

    std::mt19937 rng(12345);
    Bytes stream, expected;
    for (uint32_t i = 0; i < 60; ++i) {
        // Sizes cover the bare head, the largest body, and everything between.
        size_t body = i == 0 ? 0 : i == 1 ? size_t(kMaxMediaBodySize) : rng() % 600;
        Bytes p = Packet(uint8_t(i % 5), uint8_t(i % 5), i + 1, body, uint8_t(i));
        stream.insert(stream.end(), p.begin(), p.end());
        expected.insert(expected.end(), p.begin(), p.end());
        if (i == 30) {
            Bytes s = StunBindingRequest(); // unframed: skipped, never echoed
            stream.insert(stream.end(), s.begin(), s.end());
        }
    }
    Bytes keepalive = Packet(kPktTypeKeepalive, 1, 1, 0);
    Bytes stun = StunBindingRequest();
    keepalive.insert(keepalive.end(), stun.begin(), stun.end());
    BuildPrivateHead(kPktTypeKeepalive, 1, 1, 1, uint32_t(stun.size()), keepalive.data());
    stream.insert(stream.end(), keepalive.begin(), keepalive.end());
    expected.insert(expected.end(), keepalive.begin(), keepalive.end());

    for (size_t pos = 0; pos < stream.size();) {
        size_t n = std::min(stream.size() - pos, size_t(1 + rng() % 40));
        c.send(Bytes(stream.begin() + long(pos), stream.begin() + long(pos + n)));
        pos += n;
    }
    EXPECT_EQ(expected, c.recv(expected.size()));
    EXPECT_EQ(61u, peer.totalPackets());
    EXPECT_EQ(12u, peer.packets(0));
    EXPECT_EQ(13u, peer.packets(1)); // twelve plus the Keepalive
    EXPECT_EQ(expected.size(), peer.bytes());
    EXPECT_EQ(2u, peer.stunRequests()); // one unframed, one inside the Keepalive
    EXPECT_EQ(0u, peer.connection(0).noiseBytes);
}

TEST(MediaPeer, SinkCountsPerConnectionAndSkipsNoiseAndOverlongHeads)
{
    MediaPeer peer(MediaPeerMode::Sink);
    ASSERT_TRUE(peer.start());
    Client a(peer.port()), b(peer.port());
    ASSERT_TRUE(WaitFor([&] { return peer.accepted() == 2; }));

    a.send(Packet(0, 0, 1, 100));
    ASSERT_TRUE(WaitFor([&] { return peer.totalPackets() == 1; }));
    a.send(Packet(2, 4, 2, 0));
    Bytes bad = Packet(0, 1, 9, 0);
    bad[12] = 0x0F; // head_Len 4000: longer than any packet may be
    bad[13] = 0xA0;
    Bytes junk = {'a', 'b', 'c', 0xFF, 0x03};
    Bytes good = Packet(0, 1, 3, 10);
    Bytes mixed = bad;
    mixed.insert(mixed.end(), junk.begin(), junk.end());
    mixed.insert(mixed.end(), good.begin(), good.end());
    b.send(mixed);
    ASSERT_TRUE(WaitFor([&] { return peer.totalPackets() == 3; }));

    auto ca = peer.connection(0), cb = peer.connection(1);
    EXPECT_EQ(2u, ca.packets);
    EXPECT_EQ(116u + 16u, ca.bytes);
    ASSERT_EQ(2u, ca.heads.size());
    EXPECT_EQ(2u, ca.heads[1].pktType);
    EXPECT_EQ(4u, ca.heads[1].mediaType);
    EXPECT_EQ(2u, ca.heads[1].pkgSeq);
    EXPECT_EQ(1u, cb.packets);
    EXPECT_EQ(3u, cb.heads.at(0).pkgSeq);
    EXPECT_EQ(bad.size() + junk.size(), cb.noiseBytes);
    EXPECT_EQ(1u, peer.packets(4));
}

TEST(MediaPeer, ClosesAfterNPacketsOrOnCommand)
{
    MediaPeer peer;
    ASSERT_TRUE(peer.start());
    MediaPeerBehaviour closeAfterTwo;
    closeAfterTwo.closeAfterPackets = 2;
    peer.setNextBehaviour(closeAfterTwo);
    Client a(peer.port());
    Bytes p = Packet(0, 0, 1, 8);
    for (int i = 0; i < 3; ++i) a.send(p);
    EXPECT_EQ(p, a.recvPacket());
    EXPECT_EQ(p, a.recvPacket());
    EXPECT_TRUE(a.closedByPeer());

    Client b(peer.port()); // the behaviour was for one connection only
    b.send(p);
    b.send(p);
    b.send(p);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(p, b.recvPacket());
    EXPECT_TRUE(peer.closeNow(1));
    EXPECT_TRUE(b.closedByPeer());
    EXPECT_TRUE(WaitFor([&] { return peer.openConnections() == 0; }));
    EXPECT_EQ(2u, peer.accepted());
    EXPECT_FALSE(peer.connection(1).open);
}

TEST(MediaPeer, NoiseForbiddenPageAndPerByteSplitOnTheWire)
{
    MediaPeer peer;
    ASSERT_TRUE(peer.start());
    Client c(peer.port());
    ASSERT_TRUE(WaitFor([&] { return peer.accepted() == 1; }));
    Bytes p = Packet(1, 2, 5, 40);

    MediaPeerBehaviour noise;
    noise.noiseBytes = 37;
    ASSERT_TRUE(peer.setBehaviour(0, noise));
    c.send(p);
    Bytes n = c.recv(37);
    ASSERT_EQ(37u, n.size());
    for (uint8_t b : n) EXPECT_NE(kPrivateHeadTag, b);
    EXPECT_EQ(p, c.recvPacket());
    c.send(p); // noise is sent once
    EXPECT_EQ(p, c.recvPacket());

    MediaPeerBehaviour before;
    before.forbidden = MediaPeerBehaviour::Forbidden::BeforeEcho;
    ASSERT_TRUE(peer.setBehaviour(0, before));
    c.send(p);
    std::string page;
    while (page.find("</html>") == std::string::npos) {
        Bytes b = c.recv(1);
        ASSERT_EQ(1u, b.size()) << page;
        page += char(b[0]);
    }
    EXPECT_EQ(0u, page.find("HTTP/1.1 403 Forbidden\r\n"));
    size_t bodyAt = page.find("\r\n\r\n") + 4;
    EXPECT_NE(std::string::npos, page.find("Content-Length: " + std::to_string(page.size() - bodyAt) + "\r\n"));
    EXPECT_EQ(p, c.recvPacket());

    MediaPeerBehaviour instead;
    instead.forbidden = MediaPeerBehaviour::Forbidden::InsteadOfEcho;
    peer.setNextBehaviour(instead);
    Client d(peer.port());
    d.send(p);
    Bytes rest = d.recv(4096); // everything until the peer closes
    EXPECT_EQ(page, std::string(rest.begin(), rest.end()));

    MediaPeerBehaviour split;
    split.splitPerByte = true;
    ASSERT_TRUE(peer.setBehaviour(0, split));
    c.send(p);
    Bytes got;
    int reads = 0;
    for (uint8_t buf[4096]; got.size() < p.size(); ++reads) {
        ssize_t n = ::recv(c.fd, buf, sizeof buf, 0);
        ASSERT_GT(n, 0);
        got.insert(got.end(), buf, buf + n);
    }
    EXPECT_EQ(p, got);
    EXPECT_GT(reads, 1); // dribbled, not sent in one piece
}

TEST(MediaPeer, ReordersAudioRtpAcrossConnections)
{
    MediaPeer peer;
    ASSERT_TRUE(peer.start());
    EXPECT_FALSE(peer.reorderAudio({0, 0}));
    EXPECT_FALSE(peer.reorderAudio({0, 2}));
    Client a(peer.port());
    ASSERT_TRUE(WaitFor([&] { return peer.accepted() == 1; }));
    Client b(peer.port());
    ASSERT_TRUE(WaitFor([&] { return peer.accepted() == 2; }));
    ASSERT_TRUE(peer.reorderAudio({2, 0, 3, 1}));

    Bytes video = Packet(0, 0, 1, 4);
    Bytes audioRtcp = Packet(1, 1, 1, 4);
    a.send(AudioRtp(1));
    a.send(video); // only audio RTP is held back
    a.send(audioRtcp);
    EXPECT_EQ(video, a.recvPacket());
    EXPECT_EQ(audioRtcp, a.recvPacket());
    a.send(AudioRtp(2));
    ASSERT_TRUE(WaitFor([&] { return peer.packets(1) == 3; }));
    b.send(AudioRtp(3));
    ASSERT_TRUE(WaitFor([&] { return peer.packets(1) == 4; }));
    a.send(AudioRtp(4));

    // Released in the order 3 1 4 2, alternating a, b, a, b.
    EXPECT_EQ(3, RtpSeq(a.recvPacket()));
    EXPECT_EQ(4, RtpSeq(a.recvPacket()));
    EXPECT_EQ(1, RtpSeq(b.recvPacket()));
    EXPECT_EQ(2, RtpSeq(b.recvPacket()));

    a.send(AudioRtp(5)); // the script is used up: echoed at once
    EXPECT_EQ(5, RtpSeq(a.recvPacket()));
}

TEST(MediaPeer, StopsWhileEchoesBackUpToAClientThatReadsNothing)
{
    MediaPeer peer;
    ASSERT_TRUE(peer.start());
    Client c(peer.port());
    Bytes p = Packet(0, 0, 1, kMaxMediaBodySize);
    // Fill both directions until the client's sends would block: the peer
    // is then stuck in a send of its own.
    for (int wouldBlock = 0; wouldBlock < 20;) {
        if (::send(c.fd, p.data(), p.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
            ++wouldBlock;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    EXPECT_GT(peer.totalPackets(), 100u);
    peer.stop(); // returns, with every thread joined
    EXPECT_EQ(0u, peer.openConnections());
}
