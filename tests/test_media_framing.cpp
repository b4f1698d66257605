// The private media head, its test, the text renderings and the media log sink.
#include <gtest/gtest.h>

#include <mutex>

#include "mediaSocket/MediaLog.h"
#include "mediaSocket/MediaVocabulary.h"
#include "mediaSocket/PrivateHead.h"
#include "mediaSocket/RingBuffer.h"
#include "zeph_nettools/media_socket.h"

namespace {

std::vector<uint8_t> Head(uint32_t pktType, uint32_t mediaType, uint32_t channel, uint32_t seq, uint32_t bodyLen)
{
    std::vector<uint8_t> h(kPrivateHeadSize);
    BuildPrivateHead(pktType, mediaType, channel, seq, bodyLen, h.data());
    return h;
}

TEST(MediaFraming, HeadCodecAndHeadTest)
{
    EXPECT_EQ(Head(128, 0, 0x01020304, 1, 8),
              (std::vector<uint8_t>{0xFF, 0x03, 0x80, 0x00, 1, 2, 3, 4, 0, 0, 0, 1, 0x00, 0x18, 0x00, 0x00}));
    const auto largest = Head(0, 1, 0, 0, kMaxMediaBodySize);
    EXPECT_EQ(largest[12] << 8 | largest[13], 0x0800);
    for (int v = 0; v < 256; ++v) {
        EXPECT_EQ(PrivateHeadTest(0xFF, 3, uint8_t(v), 0), v <= 9 || v == 128) << "pktType " << v;
        EXPECT_EQ(PrivateHeadTest(0xFF, 3, 0, uint8_t(v)), v <= 4) << "mediaType " << v;
    }
    EXPECT_FALSE(PrivateHeadTest(0xFE, 3, 0, 0) || PrivateHeadTest(0xFF, 2, 0, 0));

    // The framer: need-more until the whole packet is there; a length out
    // of 16..2048 spends the head however many bytes follow; noise is cut
    // up to the next head, and its last 15 bytes wait for more.
    auto packet = Head(1, 2, 0, 0, 4);
    packet.resize(64);
    EXPECT_EQ(CutFrame(packet.data(), 19).kind, FrameCut::NeedMore);
    const FrameCut whole = CutFrame(packet.data(), 64);
    ASSERT_EQ(whole.kind, FrameCut::Packet);
    EXPECT_EQ(whole.length, 20u);
    EXPECT_EQ(whole.head.mediaType, 2u);
    for (uint32_t body : {0xFFFFFFFFu /* head_Len 15 */, 2033u /* 2049 */}) {
        auto bad = Head(0, 0, 0, 0, body);
        bad.resize(4096);
        const FrameCut cut = CutFrame(bad.data(), bad.size());
        EXPECT_EQ(cut.kind, FrameCut::BadLength) << body;
        EXPECT_EQ(cut.length, 16u) << body;
    }
    std::vector<uint8_t> noisy(5, 0x41);
    const auto next = Head(0, 0, 0, 0, 0);
    noisy.insert(noisy.end(), next.begin(), next.end());
    const FrameCut dirty = CutFrame(noisy.data(), noisy.size());
    EXPECT_EQ(dirty.kind, FrameCut::Dirty);
    EXPECT_EQ(dirty.length, 5u);
    EXPECT_EQ(CutFrame(noisy.data(), 20).length, 5u);
    EXPECT_EQ(CutFrame(noisy.data(), 18).length, 3u);
    EXPECT_EQ(CutFrame(noisy.data() + 5, 16).kind, FrameCut::Packet);
}

TEST(MediaFraming, HeadAndPacketTextsReadOnlyWhatIsThere)
{
    EXPECT_EQ(GetHeadText(Head(0, 1, 7, 1, 200).data()),
              ", tag: 255, version: 3, pktType: 0, mediaType: Audio, channel: 7, pkgSeq: 1, head_Len: 216");
    EXPECT_EQ(GetHeadText(nullptr), "ph is nul");
    const uint8_t rtp[12] = {0x80, 0xE0, 0x12, 0x34, 0x01, 0x02, 0x03, 0x04, 0xDE, 0xAD, 0xBE, 0xEF};
    EXPECT_NE(GetPacketText(0, rtp, sizeof rtp).find("bit7PT: 96, usSeq: 4660, ulTimeStamp: 16909060"),
              std::string::npos);
    // A short body renders zeros where bytes are missing (ASan would see an overread).
    uint8_t rtcp[36] = {0x81, 200, 0x00, 0x0C};
    rtcp[35] = 4;
    EXPECT_NE(GetPacketText(1, rtcp, sizeof rtcp).find("SSRC_2: 4"), std::string::npos);
    EXPECT_NE(GetPacketText(1, rtcp, 2).find("SSRC_2: 0"), std::string::npos);
    EXPECT_EQ(GetPacketText(0, nullptr, 0), "buf is null");
}

std::mutex g_linesMutex;
std::vector<std::string> g_lines;

std::vector<std::string> TakeLines()
{
    std::lock_guard<std::mutex> lock(g_linesMutex);
    return std::move(g_lines);
}

TEST(MediaLog, LineFormLevelsAndMissingSink)
{
    { RingBuffer invalid(0); } // logs with no sink: lost, and not kept for later
    MORL_MediaSetLogCallback([](const char* line) {
        std::lock_guard<std::mutex> lock(g_linesMutex);
        g_lines.emplace_back(line);
    });
    EXPECT_TRUE(TakeLines().empty());

    { RingBuffer invalid(0x100001); }
    MEDIA_LOGD << "never delivered";
    MEDIA_LOG_FN(MediaLogLevel::Info, "MediaSocket::MediaCreateChannel") << "session id: " << 7;
    const auto lines = TakeLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("[ERROR]RingBuffer.cpp(", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find(")[RingBuffer::RingBuffer]:capacity invalid! capacity: 1048577"), std::string::npos);
    EXPECT_EQ(lines[1].rfind("[INFO]test_media_framing.cpp(", 0), 0u) << lines[1];
    EXPECT_NE(lines[1].find(")[MediaSocket::MediaCreateChannel]:session id: 7"), std::string::npos);
    // Either path separator is cut.
    EXPECT_EQ(FormatMediaLogLine(MediaLogLevel::Warn, "D:\\src\\RingBuffer", 113, "RingBuffer::Write", "secRet: 1"),
              "[WARN]RingBuffer(113)[RingBuffer::Write]:secRet: 1");

    MORL_MediaSetLogCallback(nullptr);
    { RingBuffer invalid(-5); }
    EXPECT_TRUE(TakeLines().empty());
}

} // namespace
