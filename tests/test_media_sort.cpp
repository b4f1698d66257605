// The audio sort and the statistics helpers, as pure functions.
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

// One SSRC's worth of sort state and everything it delivered.
struct Sorter {
    std::vector<SortEntry> entries;
    std::vector<Bytes> out;

    void Push(const Bytes& body)
    {
        SortBufferProcess(entries, body.data(), int32_t(body.size()),
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

TEST(MediaStatsText, CountsByTypeAndRendersInLogOrder)
{
    PacketCounters c;
    for (uint32_t type : {0u, 1u, 1u, 2u, 3u, 4u, 128u, 7u, 200u}) CountPacket(c, type, true);
    for (uint32_t type : {0u, 128u, 128u, 9u}) CountPacket(c, type, false);
    MediaPacketCounts out{};
    c.CopyTo(out);
    EXPECT_EQ(out.SuccessCount, 9u);
    EXPECT_EQ(out.ErrCount, 4u);
    EXPECT_EQ(out.RtpSuccessCount, 1u);
    EXPECT_EQ(out.RtcpSuccessCount, 2u);
    EXPECT_EQ(out.SignalSuccessCount, 1u);
    EXPECT_EQ(out.AnnoSuccessCount, 1u);
    EXPECT_EQ(out.MouseSuccessCount, 1u);
    EXPECT_EQ(out.KeepaliveSuccessCount, 1u);
    EXPECT_EQ(out.RtpErrCount, 1u);
    EXPECT_EQ(out.KeepaliveErrCount, 2u);
    EXPECT_EQ(out.UnknowCount, 3u) << "7 and 200 on success, 9 on failure";
    EXPECT_EQ(out.SignalErrCount + out.AnnoErrCount + out.MouseErrCount + out.RtcpErrCount, 0u);

    // The last three success counts stand behind UnknowCount.
    EXPECT_EQ(GetPacketCountsText(c),
              ", ErrCount: 4, RtpErrCount: 1, RtcpErrCount: 0, SignalErrCount: 0, AnnoErrCount: 0, "
              "MouseErrCount: 0, KeepaliveErrCount: 2, SuccessCount: 9, RtpSuccessCount: 1, RtcpSuccessCount: 2, "
              "KeepaliveSuccessCount: 1, UnknowCount: 3, SignalSuccessCount: 1, AnnoSuccessCount: 1, "
              "MouseSuccessCount: 1");
}

TEST(MediaStatsText, CallerRecordAndPerChannelText)
{
    // Every counter a different value, so that a swapped field shows.
    MediaStatsCounters s;
    auto bump = [](MediaStatsCounters::Counter& c, int n) {
        for (int i = 0; i < n; ++i) MediaStatsCounters::Bump(c);
    };
    bump(s.writeBufferErrCount, 1);
    bump(s.readHeadErrCount, 2);
    bump(s.dataLoss, 3);
    bump(s.sendCount, 4);
    bump(s.sendSuccessCount, 5);
    bump(s.sendErrCount, 6);
    bump(s.sendLenErrorCount, 7);
    bump(s.readOnePktErrCount, 8);
    bump(s.noConnectSendCount, 9);
    s.lastSendErrLogTime = 0x123456789ull;
    CountPacket(s.recv, 2, true);
    CountPacket(s.send, 128, false);
    MediaStats out;
    std::memset(&out, 0xEE, sizeof out);
    s.CopyTo(out);
    uint32_t words[sizeof(MediaStats) / 4];
    std::memcpy(words, &out, sizeof out);
    // The caller reads this record by offset.
    EXPECT_EQ(words[0], 1u);
    EXPECT_EQ(words[1], 2u);
    EXPECT_EQ(words[2], 3u);
    EXPECT_EQ(words[3 + 7], 1u);  // recv SuccessCount
    EXPECT_EQ(words[3 + 10], 1u); // recv SignalSuccessCount
    EXPECT_EQ(words[18], 4u);
    EXPECT_EQ(words[19], 5u);
    EXPECT_EQ(words[20], 6u);
    EXPECT_EQ(out.lastSendErrLogTime, 0x123456789ull);
    EXPECT_EQ(words[24], 7u);
    EXPECT_EQ(words[25 + 0], 1u); // send ErrCount
    EXPECT_EQ(words[25 + 6], 1u); // send KeepaliveErrCount
    EXPECT_EQ(words[40], 8u);
    EXPECT_EQ(words[41], 9u);

    SocketInfo info;
    for (int sock : {41, 42}) {
        info.sockMgr.push_back(std::make_shared<SockChannel>());
        info.sockMgr.back()->sock = sock;
    }
    MediaStatsCounters::Bump(info.stats.dataLoss);
    MediaStatsCounters::Bump(info.sockMgr[1]->stats.dataLoss);
    MediaStatsCounters::Bump(info.sockMgr[1]->stats.sendCount);
    const std::string zeros = GetPacketCountsText(PacketCounters{});
    EXPECT_EQ(GetRecvStatsText(info), ", [RECV]: writeBufferErrCount: 0, readHeadErrCount: 0, dataLoss: 1" + zeros +
                                          ", [sock: 41], writeBufferErrCount: 0, readHeadErrCount: 0, dataLoss: 0" +
                                          zeros + ", [sock: 42], writeBufferErrCount: 0, readHeadErrCount: 0, dataLoss: 1" +
                                          zeros);
    const std::string tail = ", readOnePktErrCount: 0, noConnectSendCount: 0";
    EXPECT_EQ(GetSendStatsText(info),
              ", [SEND]: sendCount: 0, sendSuccessCount: 0, sendErrCount: 0" + zeros + tail +
                  ", [sock: 41], sendCount: 0, sendSuccessCount: 0, sendErrCount: 0" + zeros + tail +
                  ", [sock: 42], sendCount: 1, sendSuccessCount: 0, sendErrCount: 0" + zeros + tail);
}

} // namespace
