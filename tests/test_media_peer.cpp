// The media peer against plain TCP clients: what it echoes and counts of a raw stream.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "media_harness.h"
#include "media_peer.h"
#include "mediaSocket/PrivateHead.h"
#include "peers.h"

using zeph_peers::MediaPeer;
using zeph_test::Bytes;
using zeph_test::Framed;
using zeph_test::wait_until;

namespace {

struct Client {
    int fd;
    explicit Client(uint16_t port) : fd(zeph_test::tcp_connect("127.0.0.1", port)) {}
    ~Client() { ::close(fd); }
};

void Append(Bytes& to, const Bytes& what) { to.insert(to.end(), what.begin(), what.end()); }

} // namespace

TEST(MediaPeer, EchoesWholePacketsAndSkipsWhatIsNoPacket)
{
    MediaPeer peer;
    ASSERT_TRUE(peer.start());
    Client c(peer.port());
    ASSERT_TRUE(wait_until([&] { return peer.accepted() == 1; }, 5000));

    // Packets of every size come back whole and in order however the stream
    // is cut; an unframed STUN request, a head longer than any packet and
    // stray bytes are skipped, never echoed.
    Bytes stun{0x00, 0x01, 0x00, 0x08, 0x21, 0x12, 0xA4, 0x42}, bad(kPrivateHeadSize);
    stun.resize(stun.size() + 12 + 8); // transaction id, 8 bytes of attributes
    BuildPrivateHead(0, 1, 7, 9, 4000 - kPrivateHeadSize, bad.data()); // head_Len 4000
    const Bytes junk = {'a', 'b', 'c', 0xFF, 0x03};
    std::mt19937 rng(12345);
    Bytes stream, expected;
    for (uint32_t i = 0; i < 40; ++i) {
        const size_t body = i == 0 ? 0 : i == 1 ? size_t(kMaxMediaBodySize) : rng() % 600;
        const Bytes p = Framed(i % 5, i % 5, Bytes(body, uint8_t(i)), 7, i + 1);
        if (i == 20) {
            Append(stream, stun);
            Append(stream, bad);
            Append(stream, junk);
        }
        Append(stream, p);
        Append(expected, p);
    }
    for (size_t pos = 0, n = 0; pos < stream.size(); pos += n) {
        n = std::min(stream.size() - pos, size_t(1 + rng() % 40));
        ASSERT_TRUE(zeph_test::send_all(c.fd, stream.data() + pos, n));
    }
    const std::string back = zeph_test::recv_exact(c.fd, expected.size(), 5000);
    EXPECT_EQ(expected, Bytes(back.begin(), back.end()));
    EXPECT_EQ(40u, peer.totalPackets());
    EXPECT_EQ(expected.size(), peer.bytes());
    EXPECT_EQ(1u, peer.stunRequests());
    EXPECT_EQ(bad.size() + junk.size(), peer.connection(0).noiseBytes);
}

// Both directions full, the peer stuck in a send of its own: stop still returns.
TEST(MediaPeer, StopsWhileEchoesBackUpToAClientThatReadsNothing)
{
    MediaPeer peer;
    ASSERT_TRUE(peer.start());
    Client c(peer.port());
    const Bytes p = Framed(0, 0, Bytes(kMaxMediaBodySize, 0x5A));
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
