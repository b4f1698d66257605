// The audio sort, alone and under a flood of forged SSRCs; the caller's statistics record.
#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <thread>

#include "media_harness.h"
#include "media_peer.h"
#include "mediaSocket/MediaSocket.h"
#include "mediaSocket/MediaSort.h"
#include "mediaSocket/MediaStatsCounters.h"
#include "waits.h"

namespace {

using zeph_test::Bytes;
using zeph_test::RtpBody;
using zeph_test::RtpSeqOf;

// The sort state of one media type and everything it delivered.
struct Sorter {
    SortBuffers buffers;
    std::vector<Bytes> out;

    void Push(const Bytes& body)
    {
        SortBufferProcess(buffers, body.data(), int32_t(body.size()),
                          [this](const uint8_t* data, int32_t len) { out.emplace_back(data, data + len); });
    }
    void Push(std::initializer_list<int> seqs, uint32_t ssrc = 0x11223344)
    {
        for (int s : seqs) Push(RtpBody(uint16_t(s), ssrc));
    }
    // Sequence numbers delivered (of one SSRC, unless 0).
    std::vector<int> Seqs(uint32_t ssrc = 0) const
    {
        std::vector<int> s;
        for (const auto& b : out) {
            uint16_t seq = 0;
            uint32_t from = 0;
            if (ssrc == 0 || (ReadRtpSeqSsrc(b.data(), int32_t(b.size()), seq, from) && from == ssrc))
                s.push_back(RtpSeqOf(b));
        }
        return s;
    }
};

TEST(MediaSort, EachStreamOpensClosesGapsInOrderAndSevenHeldForceTheLowestOut)
{
    Sorter s;
    s.Push({10});
    EXPECT_TRUE(s.out.empty()) << "the first packet of an SSRC only opens it";
    s.Push({12, 13});
    s.Push({500}, 2);
    s.Push({501}, 2); // stream 2 is not held up by stream 1
    EXPECT_EQ(s.Seqs(), (std::vector<int>{501}));
    s.Push({11});
    s.Push({14});
    EXPECT_EQ(s.Seqs(), (std::vector<int>{501, 11, 12, 13, 14}));

    // Bodies leave intact, whether delivered at once or from the hold.
    const Bytes held = RtpBody(16, 0x11223344, 333), direct = RtpBody(15, 0x11223344, 77);
    s.Push(held);
    s.Push(direct);
    ASSERT_EQ(s.out.size(), 7u);
    EXPECT_EQ(s.out[5], direct);
    EXPECT_EQ(s.out[6], held);

    // Below 13 bytes there is no sequence number to trust: straight through.
    const Bytes shortBody = RtpBody(9, 3, 12);
    s.Push(shortBody);
    EXPECT_EQ(s.out.back(), shortBody);

    Sorter h; // seven held force the lowest out
    h.Push({10, 12, 13, 14, 15, 16, 17}); // 11 never comes
    EXPECT_TRUE(h.out.empty()) << "six held is not yet enough";
    h.Push({18});
    EXPECT_EQ(h.Seqs(), (std::vector<int>{12}));
    h.Push({19});
    EXPECT_EQ(h.Seqs(), (std::vector<int>{12, 13, 14, 15, 16, 17, 18, 19}));

    // A copy of a held number is dropped; a late one comes out when forced.
    Sorter d;
    d.Push({50, 53, 53, 53, 54, 55, 56, 57, 58, 59});
    EXPECT_EQ(d.Seqs(), (std::vector<int>{53}));
    d.Push({40, 60, 61});
    EXPECT_EQ(d.Seqs(), (std::vector<int>{53, 40, 54, 55, 56, 57, 58, 59, 60, 61}));

    // 0 does not follow 65535 directly: it costs seven packets of delay, but nothing is lost.
    Sorter w;
    w.Push({65532, 65533, 65534, 65535, 0, 1, 2, 3, 4, 5});
    EXPECT_EQ(w.Seqs(), (std::vector<int>{65533, 65534, 65535}));
    w.Push({6});
    EXPECT_EQ(w.Seqs().back(), 0);
    w.Push({7, 8});
    EXPECT_EQ(w.Seqs(), (std::vector<int>{65533, 65534, 65535, 0, 1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(MediaSort, AFullTableEvictsTheLeastRecentStreamButNeitherARunningNorAJustOpenedOne)
{
    constexpr uint32_t kOld = 0xA0000000, kRecent = 0xB0000000;
    Sorter s;
    s.Push({10, 12, 13}, kOld); // running, 12 and 13 held behind 11
    s.Push({20, 22}, kRecent);  // running, 22 held behind 21
    // Fill the table with running streams, each seen after kOld.
    for (uint32_t i = 2; i < kMaxSortStreams; ++i) {
        s.Push({1, 2}, i);
        if (i % 16 == 0) s.Push({23}, kRecent); // held; kRecent stays recent
    }
    ASSERT_EQ(s.buffers.size(), kMaxSortStreams);
    const size_t before = s.out.size();
    s.Push({1}, 0xC0000000); // one more SSRC: kOld goes, what it held comes out
    EXPECT_EQ(s.buffers.size(), kMaxSortStreams);
    EXPECT_EQ(s.Seqs(kOld), (std::vector<int>{12, 13}));
    EXPECT_EQ(s.out.size(), before + 2);

    // kOld starts over: its next packet only opens it again.
    s.Push({14, 15}, kOld);
    EXPECT_EQ(s.Seqs(kOld), (std::vector<int>{12, 13, 15}));
    s.Push({21}, kRecent);
    EXPECT_EQ(s.Seqs(kRecent), (std::vector<int>{21, 22, 23})) << "kRecent kept its state";

    constexpr uint32_t kReal = 0x5EA1, kNew = 0x5EA2;
    Sorter f; // a flood of new SSRCs pushes out no running stream
    f.Push({100, 101}, kReal);
    f.Push({103}, kReal); // held behind 102
    for (uint32_t i = 0; i < 10 * kMaxSortStreams; ++i) f.Push({7}, 0xF0000000 + i);
    EXPECT_EQ(f.buffers.size(), kMaxSortStreams);
    f.Push({102}, kReal);
    EXPECT_EQ(f.Seqs(), (std::vector<int>{101, 102, 103})) << "the flood itself delivers nothing";

    // A table full of running streams; new SSRCs open between a new stream's first two packets.
    Sorter t;
    for (uint32_t i = 0; i < kMaxSortStreams; ++i) t.Push({1, 3}, 0xF0000000 + i);
    t.Push({500}, kNew);
    for (uint32_t i = 0; i < kMaxOpenedStreams - 1; ++i) t.Push({1}, 0xE0000000 + i);
    t.Push({501}, kNew);
    EXPECT_EQ(t.Seqs(kNew), (std::vector<int>{501}));
}

constexpr uint32_t kRealSsrc = 0x5EA15EA1;

// What the receive callback saw: the real stream's numbers, and the others.
std::mutex g_mutex;
std::condition_variable g_changed;
std::vector<uint16_t> g_real;
size_t g_others = 0;

void OnFloodRecv(uint32_t, uint32_t, uint32_t, const uint8_t* data, uint32_t len)
{
    uint16_t seq = 0;
    uint32_t ssrc = 0;
    const bool real = ReadRtpSeqSsrc(data, int32_t(len), seq, ssrc) && ssrc == kRealSsrc;
    std::lock_guard<std::mutex> lock(g_mutex);
    real ? g_real.push_back(seq) : void(++g_others);
    g_changed.notify_all();
}

template <typename Cond>
bool WaitReceipts(Cond cond)
{
    std::unique_lock<std::mutex> lock(g_mutex);
    return g_changed.wait_for(lock, std::chrono::seconds(60), cond);
}

// AddressSanitizer's quarantine keeps freed memory resident.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kResidentMemoryIsKept = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kResidentMemoryIsKept = false;
#else
constexpr bool kResidentMemoryIsKept = true;
#endif
#else
constexpr bool kResidentMemoryIsKept = true;
#endif

long ResidentBytes()
{
    std::ifstream statm("/proc/self/statm");
    long size = 0, resident = 0;
    statm >> size >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

// Before each echo of a real stream the peer sends 20 new SSRCs, two packets each with a gap:
// unbounded, the sort would hold one packet per forged SSRC, nearly 40 000 of them.
TEST(MediaSortFlood, ForgedSsrcsCostBoundedMemoryAndTheRealStreamArrivesInOrder)
{
    constexpr uint32_t kFloodPerPacket = 20;
    constexpr uint16_t kRealPackets = 2000;
    constexpr size_t kInFlight = 4; // as a paced stream: well within what the sort reorders
    constexpr long kMaxGrowth = 20L << 20;
    using zeph_test::kAudio;

    zeph_peers::MediaPeer peer;
    ASSERT_TRUE(peer.start());
    zeph_test::MediaSession session(7301);
    ASSERT_EQ(session.Create(kAudio, 4, false), 0);
    ASSERT_EQ(MORL_MediaRegisterRecvCallback(session.id(), kAudio, &OnFloodRecv), 0);
    ASSERT_EQ(session.Connect(kAudio, peer.port()), 0);
    ASSERT_TRUE(zeph_test::wait_until([&] { return peer.accepted() == 4; }, 10000));
    // The opener goes alone, so that no number can cross it on another channel.
    ASSERT_EQ(session.Send(kAudio, ZEPH_MEDIA_PKT_RTP, RtpBody(1, kRealSsrc, 160)), 0);
    ASSERT_TRUE(zeph_test::wait_until([&] { return session.Stats(kAudio).recv.RtpSuccessCount >= 1; }, 10000));
    zeph_peers::MediaPeerBehaviour flood;
    flood.ssrcFlood = kFloodPerPacket;
    flood.ssrcFloodDepth = 2;
    for (size_t i = 0; i < 4; ++i) ASSERT_TRUE(peer.setBehaviour(i, flood));

    const long before = ResidentBytes();
    for (uint16_t seq = 2; seq <= kRealPackets; ++seq) {
        ASSERT_EQ(session.Send(kAudio, ZEPH_MEDIA_PKT_RTP, RtpBody(seq, kRealSsrc, 160)), 0);
        // The opener is never delivered: seq - 1 - n delivered means n in flight.
        ASSERT_TRUE(WaitReceipts([&] { return g_real.size() + 1 + kInFlight >= seq; })) << "stalled at " << seq;
    }
    // Every real packet but the opener, and the packet every evicted forged SSRC held.
    constexpr size_t kForged = size_t(kFloodPerPacket) * (kRealPackets - 1u);
    const bool done =
        WaitReceipts([&] { return g_real.size() >= kRealPackets - 1u && g_others >= kForged - kMaxSortStreams; });
    const long growth = ResidentBytes() - before;
    std::printf("forged SSRCs: %zu, resident memory growth: %.2f MB\n", kForged, double(growth) / (1 << 20));
    RecordProperty("rss_growth_bytes", std::to_string(growth));

    std::lock_guard<std::mutex> lock(g_mutex);
    EXPECT_TRUE(done) << "real packets " << g_real.size() << ", others " << g_others;
    std::vector<uint16_t> expected;
    for (uint16_t seq = 2; seq <= kRealPackets; ++seq) expected.push_back(seq);
    EXPECT_EQ(g_real, expected);
    if (kResidentMemoryIsKept) {
        EXPECT_LT(growth, kMaxGrowth);
    }
}

// The caller reads MediaStats by offset: each counter differs, so a swap shows.
TEST(MediaStats, TheCallersRecordHoldsEachCounterAtItsOffset)
{
    MediaStatsCounters s;
    int n = 0;
    for (auto* counter : {&s.writeBufferErrCount, &s.readHeadErrCount, &s.dataLoss, &s.sendCount, &s.sendSuccessCount,
                          &s.sendErrCount, &s.sendLenErrorCount, &s.readOnePktErrCount, &s.noConnectSendCount}) {
        ++n;
        for (int i = 0; i < n; ++i) MediaStatsCounters::Bump(*counter);
    }
    s.lastSendErrLogTime = 0x123456789ull;
    CountPacket(s.recv, 2, true);
    for (uint32_t failed : {128u, 0u, 9u}) CountPacket(s.send, failed, false);
    MediaStats record;
    std::memset(&record, 0xEE, sizeof record);
    s.CopyTo(record);
    uint32_t words[sizeof(MediaStats) / 4];
    std::memcpy(words, &record, sizeof record);
    const std::pair<size_t, uint32_t> expected[] = {
        {0, 1}, {1, 2}, {2, 3}, {3 + 7, 1} /* recv SuccessCount */, {3 + 10, 1} /* recv SignalSuccessCount */,
        {18, 4}, {19, 5}, {20, 6}, {24, 7}, {25 + 0, 3} /* send ErrCount */, {25 + 1, 1} /* send RtpErrCount */,
        {25 + 6, 1} /* send KeepaliveErrCount */, {25 + 14, 1} /* send UnknowCount, 9 on failure */, {40, 8}, {41, 9}};
    for (const auto& [word, value] : expected) EXPECT_EQ(words[word], value) << "word " << word;
    EXPECT_EQ(record.lastSendErrLogTime, 0x123456789ull);
}

} // namespace
