// Feeds the receive path of a media channel with a byte stream cut into
// reads by the input: heads to hunt for, lengths to cap, noise and error
// pages to recognise, audio to sort. Every packet that comes out must have a
// body of at most 2032 bytes, and no more bytes may come out than went in.
//
// Input: reads of 1 length byte n followed by n bytes (fewer at the end).
// Each input starts on a new media type, as after a new connection.
//
// Verdict: packets delivered, then the media type's counters of packets
// cut whole, packets refused by their length, and runs of dirty bytes.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "fuzz_verdict.h"
#include "mediaSocket/MediaSocket.h"
#include "zeph_nettools/media_socket.h"

namespace {

#define CHECK(cond)                                                                                              \
    do {                                                                                                         \
        if (!(cond)) __builtin_trap();                                                                           \
    } while (0)

constexpr uint32_t kSession = 9001;
constexpr uint32_t kType = ZEPH_MEDIA_VIDEO;

uint64_t g_out = 0; // bytes delivered, heads included
uint64_t g_delivered = 0; // packets delivered

void OnRecv(uint32_t, uint32_t, uint32_t, const uint8_t* data, uint32_t len)
{
    CHECK(len <= ZEPH_MEDIA_MAX_PACKET_SIZE - ZEPH_MEDIA_PRIVATE_HEAD_SIZE);
    uint8_t sum = 0;
    for (uint32_t i = 0; i < len; ++i) sum = uint8_t(sum + data[i]);
    (void)sum;
    g_out += len + ZEPH_MEDIA_PRIVATE_HEAD_SIZE;
    ++g_delivered;
}

void OnEvent(uint32_t, uint32_t, MediaEventInfo) {}

// One session for the whole run; its threads idle, as no socket is polled.
MediaSocket& Session()
{
    static MediaSocket* session = [] {
        MORL_MediaSetLogCallback([](const char*) {});
        return new MediaSocket(kSession);
    }();
    return *session;
}

// A new media type for each input, so that nothing (held audio, counters,
// repair times) carries over from the one before.
std::shared_ptr<SockChannel> FreshChannel()
{
    MediaSocket& s = Session();
    if (s.GetSocketInfo(kType)) s.MediaCloseSocket(kType);
    CHECK(s.MediaCreateSocket(kType, 1) == 0);
    s.MediaRegisterRecvCallback(kType, &OnRecv);
    s.MediaSetEventCallback(kType, &OnEvent);
    auto info = s.GetSocketInfo(kType);
    CHECK(info && info->sockMgr.size() == 1 && info->sockMgr[0]->sock.load() >= 0);
    return info->sockMgr[0];
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    auto ch = FreshChannel();
    g_out = 0;
    g_delivered = 0;
    uint64_t in = 0;
    size_t pos = 0;
    while (pos < size) {
        const size_t n = std::min<size_t>(data[pos], size - pos - 1);
        ++pos;
        const int32_t sock = ch->sock.load();
        if (sock < 0) break; // a repair took the socket
        Session().PutRecvBuffer(sock, data + pos, int32_t(n));
        in += n;
        CHECK(g_out <= in);
        pos += n;
    }
    return 0;
}

std::string FuzzVerdict()
{
    MediaStats stats{};
    Session().MediaGetStats(kType, &stats);
    return "delivered " + std::to_string(g_delivered) + ", cut " + std::to_string(stats.recv.SuccessCount) +
           ", refused " + std::to_string(stats.recv.ErrCount) + ", dirty runs " + std::to_string(stats.dataLoss);
}
