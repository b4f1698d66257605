// The media byte ring: the hunt for a head and whole-packet reads.
#include <gtest/gtest.h>

#include <numeric>

#include "media_harness.h"
#include "mediaSocket/PrivateHead.h"
#include "mediaSocket/RingBuffer.h"
#include "zeph_nettools/media_socket.h"

namespace {

using zeph_test::Bytes;
using zeph_test::Framed;

Bytes Count(size_t n, uint8_t first = 1)
{
    Bytes v(n);
    std::iota(v.begin(), v.end(), first);
    return v;
}


int32_t Put(RingBuffer& ring, const Bytes& b) { return ring.Write(b.data(), static_cast<int32_t>(b.size())); }

// Byte order across the end of storage and a ring without storage are checked
// against a model by the ring's fuzz corpus; here the bounds of each call.
TEST(RingBuffer, HuntForHeadAndReadPacket)
{
    RingBuffer ring(8192);
    uint8_t dirty[2048];
    Bytes out(4096);
    EXPECT_EQ(ring.Write(nullptr, 5) + ring.Write(out.data(), -1) + ring.Skip(-3) + ring.GetUsedSize(), 0);
    int32_t size = sizeof dirty;
    Put(ring, Count(15));
    EXPECT_EQ(ring.SkipToPrivateHead(dirty, &size), RingBuffer::kNoHead) << "15 bytes are not looked at";
    EXPECT_EQ(size + ring.GetUsedSize(), 15);

    // 100 bytes of noise, then a head: 64 of them captured, all dropped.
    ring.Clear();
    const Bytes noise = Count(100), packet = Framed(128, 0, Bytes(8, 0x5A));
    Put(ring, noise);
    Put(ring, packet);
    size = 64;
    EXPECT_EQ(ring.SkipToPrivateHead(dirty, &size), RingBuffer::kHeadFound | RingBuffer::kBytesDropped);
    EXPECT_EQ(size, 64);
    EXPECT_TRUE(std::equal(dirty, dirty + 64, noise.begin()));
    EXPECT_EQ(ring.GetUsedSize(), 24);
    EXPECT_EQ(ring.SkipToPrivateHead(nullptr, nullptr), RingBuffer::kHeadFound);
    EXPECT_EQ(ring.ReadPacket(out.data(), 4096), 24);

    // head_Len 15 or 2049: the head is consumed and the next call finds the packet behind it.
    for (uint32_t body : {0xFFFFFFFFu, 2033u}) {
        Bytes bad(kPrivateHeadSize);
        BuildPrivateHead(0, 0, 0, 0, body, bad.data());
        Put(ring, bad);
        Put(ring, packet);
        EXPECT_EQ(ring.ReadPacket(out.data(), 4096), MEDIA_SOCKET_ERRCODE_FAILED);
        EXPECT_EQ(ring.ReadPacket(out.data(), 4096), 24);
    }
    // The largest packet fits a destination of exactly its size; one byte
    // less fails with the body left behind.
    const Bytes largest = Framed(0, 1, Bytes(kMaxMediaBodySize, 0x5A));
    Put(ring, largest);
    Put(ring, largest);
    EXPECT_EQ(ring.ReadPacket(out.data(), 2048), 2048);
    EXPECT_EQ(ring.ReadPacket(out.data(), 2047), MEDIA_SOCKET_ERRCODE_FAILED);
    EXPECT_EQ(ring.GetUsedSize(), 2032);

    // Heads split at every point across the end of storage.
    for (int32_t at = 44; at < 64; ++at) {
        RingBuffer small(64);
        Put(small, Bytes(size_t(at)));
        small.Skip(at); // empty, with both positions at `at`
        Put(small, packet);
        EXPECT_EQ(small.IsPrivateHead(), 1) << at;
        EXPECT_EQ(small.ReadPacket(out.data(), 64), 24) << at;
        EXPECT_TRUE(std::equal(packet.begin(), packet.end(), out.begin())) << at;
    }
}

} // namespace
