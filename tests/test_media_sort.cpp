// The audio sort as a pure function, its bound under a flood of invented
// SSRCs, and the statistics helpers.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <vector>

#include "media_harness.h"
#include "mediaSocket/MediaSocket.h"
#include "mediaSocket/MediaSort.h"
#include "mediaSocket/MediaStatsCounters.h"

namespace {

using zeph_test::Bytes;
using zeph_test::RtpBody;
using zeph_test::RtpSeqOf;

uint32_t RtpSsrcOf(const Bytes& body)
{
    uint16_t seq = 0;
    uint32_t ssrc = 0;
    return ReadRtpSeqSsrc(body.data(), int32_t(body.size()), seq, ssrc) ? ssrc : 0;
}

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
    std::vector<int> Seqs() const
    {
        std::vector<int> s;
        for (const auto& b : out) s.push_back(RtpSeqOf(b));
        return s;
    }
    // Sequence numbers delivered for one SSRC.
    std::vector<int> Seqs(uint32_t ssrc) const
    {
        std::vector<int> s;
        for (const auto& b : out)
            if (RtpSsrcOf(b) == ssrc) s.push_back(RtpSeqOf(b));
        return s;
    }
};

TEST(MediaSort, FirstPacketOpensTheStreamAndGapsCloseInOrder)
{
    Sorter s;
    s.Push({10});
    EXPECT_TRUE(s.out.empty()) << "the first packet of an SSRC only opens it";
    s.Push({12, 13});
    EXPECT_TRUE(s.out.empty());
    s.Push({11});
    EXPECT_EQ(s.Seqs(), (std::vector<int>{11, 12, 13}));
    s.Push({14});
    EXPECT_EQ(s.Seqs().back(), 14);

    // Bodies leave intact, whether delivered at once or from the hold.
    const Bytes held = RtpBody(16, 0x11223344, 333);
    const Bytes direct = RtpBody(15, 0x11223344, 77);
    s.Push(held);
    s.Push(direct);
    ASSERT_EQ(s.out.size(), 6u);
    EXPECT_EQ(s.out[4], direct);
    EXPECT_EQ(s.out[5], held);
}

TEST(MediaSort, StreamsAreKeptApartAndShortBodiesBypass)
{
    Sorter s;
    s.Push({100}, 1);
    s.Push({500}, 2);
    s.Push({102}, 1); // held behind 101
    s.Push({501}, 2); // stream 2 is not held up by stream 1
    EXPECT_EQ(s.Seqs(), (std::vector<int>{501}));
    s.Push({101}, 1);
    EXPECT_EQ(s.Seqs(), (std::vector<int>{501, 101, 102}));

    // Below 13 bytes there is no sequence number to trust: straight through,
    // even as the first packet of a stream.
    Sorter t;
    const Bytes shortBody = RtpBody(9, 3, 12);
    t.Push(shortBody);
    ASSERT_EQ(t.out.size(), 1u);
    EXPECT_EQ(t.out[0], shortBody);
}

TEST(MediaSort, SevenHeldForceTheLowestOutOnePerPacket)
{
    Sorter s;
    s.Push({10, 12, 13, 14, 15, 16, 17}); // 11 never comes
    EXPECT_TRUE(s.out.empty()) << "six held is not yet enough";
    s.Push({18});
    EXPECT_EQ(s.Seqs(), (std::vector<int>{12}));
    s.Push({19});
    EXPECT_EQ(s.Seqs(), (std::vector<int>{12, 13, 14, 15, 16, 17, 18, 19}));

    // A copy of a number already held is dropped; a late one comes out when
    // the hold is forced.
    Sorter d;
    d.Push({50, 53, 53, 53, 54, 55, 56, 57, 58, 59});
    EXPECT_EQ(d.Seqs(), (std::vector<int>{53}));
    d.Push({40}); // late, and the hold is full again: out it goes
    d.Push({60, 61});
    EXPECT_EQ(d.Seqs(), (std::vector<int>{53, 40, 54, 55, 56, 57, 58, 59, 60, 61}));
}

TEST(MediaSort, WrapAt65535CostsSevenPacketsOfDelayButNothingIsLost)
{
    Sorter s;
    s.Push({65532, 65533, 65534, 65535});
    EXPECT_EQ(s.Seqs(), (std::vector<int>{65533, 65534, 65535}));
    // 0 does not follow 65535 directly: it waits until seven are held.
    s.Push({0, 1, 2, 3, 4, 5});
    EXPECT_EQ(s.out.size(), 3u);
    s.Push({6});
    EXPECT_EQ(s.Seqs().back(), 0);
    s.Push({7, 8});
    std::vector<int> expected{65533, 65534, 65535};
    for (int i = 0; i <= 8; ++i) expected.push_back(i);
    EXPECT_EQ(s.Seqs(), expected);
}

TEST(MediaSort, AFullTableEvictsTheLeastRecentStreamAndDeliversWhatItHeld)
{
    constexpr uint32_t kOld = 0xA0000000, kRecent = 0xB0000000;
    Sorter s;
    s.Push({10, 12, 13}, kOld);    // running, 12 and 13 held behind 11
    s.Push({20, 22}, kRecent);     // running, 22 held behind 21
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
    s.Push({14}, kOld);
    EXPECT_EQ(s.Seqs(kOld), (std::vector<int>{12, 13}));
    s.Push({15}, kOld);
    EXPECT_EQ(s.Seqs(kOld), (std::vector<int>{12, 13, 15}));
    // kRecent kept its state: 21 closes its gap.
    s.Push({21}, kRecent);
    EXPECT_EQ(s.Seqs(kRecent), (std::vector<int>{21, 22, 23}));
}

TEST(MediaSort, OnePacketSsrcsNeverPushOutARunningStream)
{
    constexpr uint32_t kReal = 0x5EA1;
    Sorter s;
    s.Push({100, 101}, kReal);
    s.Push({103}, kReal); // held behind 102
    // Far more invented SSRCs than the table holds, one packet each, between
    // two packets of the real stream.
    for (uint32_t i = 0; i < 10 * kMaxSortStreams; ++i) s.Push({7}, 0xF0000000 + i);
    EXPECT_EQ(s.buffers.size(), kMaxSortStreams);
    s.Push({102}, kReal);
    EXPECT_EQ(s.Seqs(), (std::vector<int>{101, 102, 103})) << "the flood itself delivers nothing";
}

TEST(MediaStats, CountsByPacketTypeAndTheCallersRecordByOffset)
{
    PacketCounters c;
    for (uint32_t type : {0u, 1u, 1u, 2u, 3u, 4u, 128u, 7u, 200u}) CountPacket(c, type, true);
    for (uint32_t type : {0u, 128u, 128u, 9u}) CountPacket(c, type, false);
    MediaPacketCounts out{};
    c.CopyTo(out);
    EXPECT_EQ(out.SuccessCount, 9u);
    EXPECT_EQ(out.ErrCount, 4u);
    EXPECT_EQ(out.RtcpSuccessCount, 2u);
    EXPECT_EQ(out.KeepaliveSuccessCount, 1u);
    EXPECT_EQ(out.RtpErrCount, 1u);
    EXPECT_EQ(out.KeepaliveErrCount, 2u);
    EXPECT_EQ(out.UnknowCount, 3u) << "7 and 200 on success, 9 on failure";
    EXPECT_EQ(out.SignalErrCount + out.AnnoErrCount + out.MouseErrCount + out.RtcpErrCount, 0u);

    // The caller reads MediaStats by offset: every counter a different
    // value, so that a swapped field shows.
    MediaStatsCounters s;
    int n = 0;
    for (auto* counter : {&s.writeBufferErrCount, &s.readHeadErrCount, &s.dataLoss, &s.sendCount, &s.sendSuccessCount,
                          &s.sendErrCount, &s.sendLenErrorCount, &s.readOnePktErrCount, &s.noConnectSendCount}) {
        ++n;
        for (int i = 0; i < n; ++i) MediaStatsCounters::Bump(*counter);
    }
    s.lastSendErrLogTime = 0x123456789ull;
    CountPacket(s.recv, 2, true);
    CountPacket(s.send, 128, false);
    MediaStats record;
    std::memset(&record, 0xEE, sizeof record);
    s.CopyTo(record);
    uint32_t words[sizeof(MediaStats) / 4];
    std::memcpy(words, &record, sizeof record);
    const std::pair<size_t, uint32_t> expected[] = {
        {0, 1}, {1, 2}, {2, 3}, {3 + 7, 1} /* recv SuccessCount */, {3 + 10, 1} /* recv SignalSuccessCount */,
        {18, 4}, {19, 5}, {20, 6}, {24, 7}, {25 + 0, 1} /* send ErrCount */, {25 + 6, 1} /* send KeepaliveErrCount */,
        {40, 8}, {41, 9}};
    for (const auto& [word, value] : expected) EXPECT_EQ(words[word], value) << "word " << word;
    EXPECT_EQ(record.lastSendErrLogTime, 0x123456789ull);
}

} // namespace
