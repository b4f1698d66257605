// The private media head's test and text, and the media log sink.
#include <gtest/gtest.h>

#include <mutex>

#include "mediaSocket/MediaLog.h"
#include "mediaSocket/PrivateHead.h"
#include "mediaSocket/RingBuffer.h"
#include "zeph_nettools/media_socket.h"

namespace {

// The head test decides where the receive path resyncs (media types and the keepalive only).
TEST(MediaFraming, HeadTestAndHeadText)
{
    EXPECT_TRUE(PrivateHeadTest(0xFF, 3, 9, 4) && PrivateHeadTest(0xFF, 3, 128, 0));
    EXPECT_FALSE(PrivateHeadTest(0xFF, 3, 10, 0) || PrivateHeadTest(0xFF, 3, 127, 0) ||
                 PrivateHeadTest(0xFF, 3, 129, 0) || PrivateHeadTest(0xFF, 3, 0, 5));
    EXPECT_FALSE(PrivateHeadTest(0xFE, 3, 0, 0) || PrivateHeadTest(0xFF, 2, 0, 0));

    std::vector<uint8_t> head(kPrivateHeadSize);
    BuildPrivateHead(0, 1, 7, 1, 200, head.data());
    EXPECT_EQ(GetHeadText(head.data()),
              ", tag: 255, version: 3, pktType: 0, mediaType: Audio, channel: 7, pkgSeq: 1, head_Len: 216");
    EXPECT_EQ(GetHeadText(nullptr), "ph is nul");
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
