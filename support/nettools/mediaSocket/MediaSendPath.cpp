// Send path. MediaSend runs on the caller's thread and only queues: it
// writes head and body to the media type's send ring, or refuses the packet
// whole when the ring has no room for both. The send thread takes one packet
// per media type per pass and writes it to the next connected channel; with
// nothing to send it sleeps until MediaSend wakes it. What a send finds
// wrong is reported as an event; the repair code decides what to do about it.
#include "mediaSocket/MediaSocket.h"

#include <chrono>
#include <new>

#include "mediaSocket/MediaLimits.h"
#include "mediaSocket/MediaLog.h"
#include "mediaSocket/MediaVocabulary.h"

using namespace zeph_media;

namespace {

constexpr uint32_t kSendIdleWaitMs = 5;
// How often a send interrupted by a signal is tried before it gives up.
constexpr int kSendInterruptedTries = 5;

// The OS adapter hands over the Linux number itself for an error it has no
// Windows code for. The send path takes these three as it takes their
// Windows codes, so that a path that reports the raw number is not mistaken
// for a broken channel.
constexpr int kLinuxEintr = 4;
constexpr int kLinuxEagain = 11;
constexpr int kLinuxEpipe = 32;

std::atomic<bool> g_literalLoops{false};

bool IsWouldBlock(int err)
{
    return err == MORL_WSAEWOULDBLOCK || err == MORL_WSAEINPROGRESS || err == kLinuxEagain;
}
bool IsInterrupted(int err) { return err == MORL_WSAEINTR || err == kLinuxEintr; }
bool IsNotConnected(int err) { return err == MORL_WSAENOTCONN || err == kLinuxEpipe; }

} // namespace

void MediaSocket::SetLiteralLoops(bool enabled) { g_literalLoops.store(enabled); }
bool MediaSocket::LiteralLoops() { return g_literalLoops.load(std::memory_order_relaxed); }

int32_t MediaSocket::MediaSend(uint32_t pktType, uint32_t mediaType, const uint8_t* data, uint32_t length,
                               uint32_t channel)
{
    if (mediaType >= kMediaTypeCount) {
        MEDIA_LOGE << "Invalid param! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    // The head's 16-bit length and the reader's 2048-byte packet bound the
    // body: a longer one would wrap the length and let the body's own bytes
    // pass for packets of their own.
    if (length > static_cast<uint32_t>(kMaxMediaBodySize) || (data == nullptr && length != 0)) {
        MEDIA_LOGE << "Invalid param! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
                   << ", len: " << length << ", data is null: " << (data == nullptr);
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    auto info = GetSocketInfo(mediaType);
    if (!info) {
        MEDIA_LOGW << "sockInfo is nullptr, session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_NO_CREATE;
    }
    if (!info->AnyOpenSocket()) {
        // Every channel is closed: the repair thread tries the whole media
        // type again, within its limits; this packet finds no channel.
        DoEventCallback(info, MediaEventInfo{ZEPH_MEDIA_EVENT_NO_SOCKET, static_cast<uint32_t>(MEDIA_SOCKET_ERRCODE_NO_SOCKET)});
    }
    if (!info->AnyConnected()) {
        MediaStatsCounters::Bump(info->stats.noConnectSendCount);
        return MEDIA_SOCKET_ERRCODE_NO_SOCKET;
    }
    if (!info->AnyOpenSocket()) {
        return MEDIA_SOCKET_ERRCODE_NOT_CONNECTED;
    }
    auto ring = info->GetSendBuffer();
    if (!ring) {
        MEDIA_LOGW << "sendBuffer is null! new a sendBuff; session id: " << sessionId
                   << ", mediaType: " << GetMediaTypeName(mediaType);
        try {
            ring = std::make_shared<RingBuffer>(kMinRingCapacity);
        } catch (const std::bad_alloc&) {
            return MEDIA_SOCKET_ERRCODE_NEW_MEMORY;
        }
        info->SetSendBuffer(ring);
    }

    int32_t result = 0;
    {
        std::lock_guard<std::mutex> g(info->mutex);
        uint32_t seq = kNoPkgSeq;
        if (pktType <= kMaxMediaPktType) {
            seq = ++info->pkgSeq[pktType];
        } else if (pktType == kPktTypeKeepalive) {
            seq = ++info->pkgSeq[kKeepaliveSeqSlot];
        }
        // Room for head and body is checked first: a packet that does not
        // fit is refused whole, and what is queued in front of it stays
        // intact instead of ending in a head without its body.
        const int32_t room = ring->GetFreeSize();
        if (room < kPrivateHeadSize) {
            MEDIA_LOGW << "Write Private Header error! session id: " << sessionId
                       << ", mediaType: " << GetMediaTypeName(mediaType) << ", write len: " << 0
                       << ", len: " << kPrivateHeadSize;
            result = MEDIA_SOCKET_ERRCODE_WRITE_BUFFER;
        } else if (room - kPrivateHeadSize < static_cast<int32_t>(length)) {
            MEDIA_LOGW << "Write Body error! session id: " << sessionId
                       << ", mediaType: " << GetMediaTypeName(mediaType) << ", write len: " << 0
                       << ", len: " << length << ", realWriteLen:" << 0 << ", dataLen: " << length;
            CountPacket(info->stats.send, pktType, false);
            result = MEDIA_SOCKET_ERRCODE_WRITE_BUFFER;
        } else {
            uint8_t head[kPrivateHeadSize];
            BuildPrivateHead(pktType, mediaType, channel, seq, length, head);
            ring->Write(head, kPrivateHeadSize);
            if (length != 0) {
                ring->Write(data, static_cast<int32_t>(length));
            }
            CountPacket(info->stats.send, pktType, true);
        }
    }
    if (result == 0) {
        WakeSendThread();
    }
    return result;
}

void MediaSocket::WakeSendThread()
{
    if (LiteralLoops() || sendPending.exchange(true)) {
        return; // the thread passes anyway, or was woken already
    }
    // Taking the mutex orders this against a thread that has just found
    // nothing pending and is about to sleep: it sleeps before the notify,
    // or sees the flag.
    { std::lock_guard<std::mutex> g(sendWakeMutex); }
    sendWakeCond.notify_one();
}

void MediaSocket::IdleWait(bool queued)
{
    if (LiteralLoops()) {
        MORL_SleepMs(kSendIdleWaitMs);
        return;
    }
    std::unique_lock<std::mutex> lock(sendWakeMutex);
    const auto woken = [this] { return sendPending.load() || !sendRunning; };
    if (queued) {
        sendWakeCond.wait_for(lock, std::chrono::milliseconds(kSendIdleWaitMs), woken);
    } else {
        sendWakeCond.wait(lock, woken);
    }
    // An exchange, not a store: it pairs with the one in WakeSendThread, so
    // the next pass sees what was queued before the wake.
    sendPending.exchange(false);
}

void MediaSocket::ClearSendBuffer(const std::shared_ptr<SocketInfo>& info)
{
    auto ring = info->GetSendBuffer();
    if (ring) {
        std::lock_guard<std::mutex> g(info->mutex);
        ring->Clear();
    }
}

void MediaSocket::SocketSendThread()
{
    MEDIA_LOGI << "SocketSendThread enter. session id: " << sessionId;
    uint8_t packet[kMaxMediaPacketSize];
    while (sendRunning) {
        bool idle = true;
        bool queued = false;
        for (uint32_t mediaType = 0; mediaType < kMediaTypeCount && sendRunning; ++mediaType) {
            auto info = GetSocketInfo(mediaType);
            if (!info) {
                continue;
            }
            auto ring = info->GetSendBuffer();
            if (!ring || ring->GetUsedSize() == 0) {
                continue;
            }
            if (!info->AnyConnected()) {
                queued = true; // kept for a channel that comes back
                continue;
            }
            idle = false;
            int32_t n = 0;
            {
                std::lock_guard<std::mutex> g(info->mutex);
                n = ring->ReadPacket(packet, sizeof(packet));
            }
            if (n > 0) {
                DoSend(info, packet, n);
                continue;
            }
            // The ring holds damage: a packet cut by a full ring, or one
            // longer than 2048 bytes. Everything queued goes.
            if ((MediaStatsCounters::Load(info->stats.readOnePktErrCount) & kLogEvery) == 0) {
                MEDIA_LOGW << "packet error! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
                           << GetSendStatsText(*info);
            }
            MediaStatsCounters::Bump(info->stats.readOnePktErrCount);
            DoEventCallback(info, MediaEventInfo{ZEPH_MEDIA_EVENT_RING_FLUSHED, static_cast<uint32_t>(MEDIA_SOCKET_ERRCODE_READ_HEAD)});
        }
        if (idle && sendRunning) {
            IdleWait(queued);
        }
    }
    MEDIA_LOGI << "SocketSendThread leave. session id: " << sessionId;
}

bool MediaSocket::SendLogDue(const std::shared_ptr<SocketInfo>& info, const std::shared_ptr<SockChannel>& ch,
                             uint32_t countBefore)
{
    if ((countBefore & kLogEvery) != 0) {
        return false;
    }
    const uint64_t now = NowMs();
    const uint64_t last = ch->stats.lastSendErrLogTime.load(std::memory_order_relaxed);
    if (now - last < kLogGapMs) {
        return false;
    }
    ch->stats.lastSendErrLogTime.store(now, std::memory_order_relaxed);
    info->stats.lastSendErrLogTime.store(now, std::memory_order_relaxed);
    return true;
}

int32_t MediaSocket::DoSend(const std::shared_ptr<SocketInfo>& info, const uint8_t* packet, int32_t length)
{
    const size_t n = info->sockMgr.size();
    if (n == 0) {
        return MEDIA_SOCKET_ERRCODE_FAILED;
    }
    bool found = false;
    for (size_t look = 0; look < n; ++look) {
        const auto& candidate = info->sockMgr[info->nextChannel % n];
        if (candidate) {
            const uint32_t state = candidate->state;
            if (state == SockChannel::Connected) {
                found = true;
                break;
            }
            if (state == SockChannel::Closed) {
                // A lost channel comes back here, within the limits of recovery.
                DoEventCallbackOfSockChan(candidate,
                                          MediaEventInfo{ZEPH_MEDIA_EVENT_CHANNEL_LOST, static_cast<uint32_t>(MEDIA_SOCKET_ERRCODE_CHANNEL_DOWN)});
            }
        }
        info->nextChannel = (info->nextChannel + 1) % n;
    }
    const auto ch = info->sockMgr[info->nextChannel % n];
    info->nextChannel = (info->nextChannel + 1) % n;
    if (!found || !ch || ch->state != SockChannel::Connected) {
        return MEDIA_SOCKET_ERRCODE_NO_CREATE;
    }

    const int32_t sock = ch->sock;
    const int32_t r = SendData(sock, packet, length);
    if (r == MEDIA_SOCKET_ERRCODE_SEND_ZERO) {
        const SocketInfo::Server server = info->GetServer();
        MEDIA_LOGW << "socket already close, session id: " << sessionId << ", send; addr: " << server.address << ":"
                   << server.port << ", sendLen: " << length;
        MediaReCreateChannelOfSockChan(ch);
    } else if (r == MEDIA_SOCKET_ERRCODE_WOULD_BLOCK || r == MEDIA_SOCKET_ERRCODE_NOT_CONNECTED) {
        const uint32_t before = MediaStatsCounters::Load(ch->stats.sendErrCount);
        if (SendLogDue(info, ch, before)) {
            MEDIA_LOGW << "send data EWOULDBLOCK error! session id: " << sessionId << ", ret: " << r
                       << ", sendErrCount : " << before;
        }
        SendStatsCount(info, ch, SendStat::Err);
        DoEventCallbackOfSockChan(ch, MediaEventInfo{ZEPH_MEDIA_EVENT_SEND_FAILED, static_cast<uint32_t>(r)});
    } else if (r == MEDIA_SOCKET_ERRCODE_WSA_NOT_INITIALISED) {
        static std::atomic<uint32_t> notInitCount{0};
        static std::atomic<uint64_t> notInitLogTime{0};
        if ((notInitCount.fetch_add(1, std::memory_order_relaxed) & kLogEvery) == 0) {
            const uint64_t now = NowMs();
            const uint64_t last = notInitLogTime.load(std::memory_order_relaxed);
            if (now - last >= kLogGapMs) {
                notInitLogTime.store(now, std::memory_order_relaxed);
                MEDIA_LOGE << "WSANOTINITIALISED error! session id: " << sessionId << ", currTime: " << now
                           << ", lastTime: " << last;
            }
            MORL_InitSocket();
        }
    } else if (r == length) {
        SendStatsCount(info, ch, SendStat::Success);
    } else if (r > 0) {
        SendStatsCount(info, ch, SendStat::Success);
        const uint32_t before = MediaStatsCounters::Load(ch->stats.sendLenErrorCount);
        if (SendLogDue(info, ch, before)) {
            MEDIA_LOGW << "tcp sendbuff full error! session id: " << sessionId << ", sendLen: " << length
                       << ", tx: " << r << ", sendLenErrorCount : " << before;
        }
        SendStatsCount(info, ch, SendStat::LenErr);
        DoEventCallbackOfSockChan(ch, MediaEventInfo{ZEPH_MEDIA_EVENT_SEND_FAILED, static_cast<uint32_t>(MEDIA_SOCKET_ERRCODE_WOULD_BLOCK)});
    } else {
        const uint32_t before = MediaStatsCounters::Load(ch->stats.sendErrCount);
        if (SendLogDue(info, ch, before)) {
            const SocketInfo::Server server = info->GetServer();
            MEDIA_LOGW << "send data error! session id: " << sessionId << ", sock: " << sock
                       << ", addr: " << server.address << ":" << server.port << ", sendLen: " << length
                       << ", errcode: " << r << GetHeadText(packet)
                       << ", sendErrCount: " << before;
        }
        SendStatsCount(info, ch, SendStat::Err);
    }
    SendStatsCount(info, ch, SendStat::Count);
    return r;
}

int32_t MediaSocket::SendData(int32_t sock, const uint8_t* data, int32_t length)
{
    static std::atomic<uint32_t> errorCount{0};
    static std::atomic<uint64_t> errorLogTime{0};
    int tryCount = kSendInterruptedTries;
    bool interrupted = false;
    while (true) {
        const int r = MORL_Send(sock, data, length, 0);
        if (r > 0) {
            return r;
        }
        const int err = MORL_GetLastSocketErr();
        if (r == 0) {
            MEDIA_LOGW << "send data error! session id: " << sessionId << ", send size is 0, errno: " << err
                       << ", ret: " << r;
            return MEDIA_SOCKET_ERRCODE_SEND_ZERO;
        }
        if (IsWouldBlock(err)) {
            return MEDIA_SOCKET_ERRCODE_WOULD_BLOCK;
        }
        if (IsInterrupted(err)) {
            --tryCount;
            interrupted = true;
            MEDIA_LOGW << "send data error! session id: " << sessionId << ", EINTR errno: " << kLinuxEintr;
            MORL_SleepMs(kSendIdleWaitMs);
            if (tryCount == 0) {
                return MEDIA_SOCKET_ERRCODE_EINTR;
            }
            continue;
        }
        int32_t ret = 0;
        if (IsNotConnected(err)) {
            ret = MEDIA_SOCKET_ERRCODE_NOT_CONNECTED;
        } else if (err == MORL_WSANOTINITIALISED) {
            ret = MEDIA_SOCKET_ERRCODE_WSA_NOT_INITIALISED;
        } else {
            ret = interrupted ? MEDIA_SOCKET_ERRCODE_EINTR : MEDIA_SOCKET_ERRCODE_SEND_ERROR;
        }
        if ((errorCount.fetch_add(1, std::memory_order_relaxed) & kLogEvery) == 0) {
            const uint64_t now = NowMs();
            if (now - errorLogTime.load(std::memory_order_relaxed) > kLogGapMs) {
                errorLogTime.store(now, std::memory_order_relaxed);
                MEDIA_LOGW << "send data error! session id: " << sessionId << ", errno: " << err << ", sock: " << sock
                           << ", sendSize: " << -1 << ", sendLen: " << length << ", tryCount: " << tryCount
                           << ", ret: " << ret;
            }
        }
        return ret;
    }
}

void MediaSocket::SendStatsCount(const std::shared_ptr<SocketInfo>& info, const std::shared_ptr<SockChannel>& ch,
                                 SendStat kind)
{
    if (!ch) {
        MEDIA_LOGE << "sockChanPtr is null! session id: " << sessionId;
        return;
    }
    for (MediaStatsCounters* s : {&info->stats, &ch->stats}) {
        switch (kind) {
            case SendStat::Err: MediaStatsCounters::Bump(s->sendErrCount); break;
            case SendStat::LenErr: MediaStatsCounters::Bump(s->sendLenErrorCount); break;
            case SendStat::Success: MediaStatsCounters::Bump(s->sendSuccessCount); break;
            case SendStat::Count: MediaStatsCounters::Bump(s->sendCount); break;
        }
    }
}
