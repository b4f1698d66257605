// Send path. MediaSend runs on the caller's thread and only queues: it
// writes head and body to the media type's send ring, or refuses the packet
// whole when the ring has no room for both. The send thread takes one packet
// per media type per pass, in the fixed order of the media types, and
// writes it to the next connected channel, but only once that channel can
// take it whole: a packet whose channel is full stays queued and the pass
// goes on. With nothing to send the thread sleeps until MediaSend wakes it;
// with every waiting packet held by a full channel it waits in poll for
// room. What a send finds wrong is reported to the repair code
// (OnSendOutcome), which hands every repair to the repair thread: this
// thread never connects.
#include "mediaSocket/MediaSocket.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <vector>

#include "mediaSocket/MediaLimits.h"
#include "mediaSocket/MediaLog.h"
#include "mediaSocket/MediaVocabulary.h"

using namespace zeph_media;

namespace {

constexpr uint32_t kSendIdleWaitMs = 5;
// Without a wake the send thread cannot be called out of its wait for a
// full channel, so it looks again this often.
constexpr int kSendNoWakeSliceMs = 1;
// What the kernel books for one send beyond its bytes, at most; and the
// room a channel needs before the send thread hands it the next packet,
// whatever its size.
constexpr int32_t kSendCostPerPacket = 2048;
constexpr int32_t kSendRoomPerPacket = kMaxMediaPacketSize + kSendCostPerPacket;
// The share of a writable socket's send buffer written before the next look.
constexpr int32_t kSendBufShareGranted = 4;
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

// What a batch will cost its socket's send buffer at most.
int32_t BookedBytes(int32_t length, uint32_t packets)
{
    return length + static_cast<int32_t>(packets) * kSendCostPerPacket;
}

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
        OnSendOutcome(info, nullptr, SendOutcome::NoSocket, MEDIA_SOCKET_ERRCODE_NO_SOCKET);
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
    {
        std::lock_guard<std::mutex> g(sendWakeMutex);
        if (sendPolling) {
            MORL_WakeSignal(sendWake);
        }
    }
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

void MediaSocket::WaitForSendRoom(MORL_PollFd* blocked, size_t count)
{
    MORL_PollFd polled[kMediaTypeCount + 1];
    size_t n = 0;
    for (size_t i = 0; i < count && n < kMediaTypeCount; ++i) {
        polled[n++] = MORL_PollFd{blocked[i].fd, MORL_POLLOUT, 0};
    }
    int timeoutMs = static_cast<int>(kSendIdleWaitMs);
    {
        std::lock_guard<std::mutex> g(sendWakeMutex);
        if (sendPending.exchange(false) || !sendRunning) {
            return; // something was queued meanwhile: another pass first
        }
        if (sendWake == MORL_INVALID_WAKE) {
            // Made at the first wait, so that a session whose channels never
            // fill holds no descriptor for it.
            sendWake = MORL_WakeCreate();
        }
        if (sendWake != MORL_INVALID_WAKE) {
            polled[n++] = MORL_PollFd{sendWake, MORL_POLLRDNORM, 0};
            sendPolling = true;
        } else {
            timeoutMs = kSendNoWakeSliceMs;
        }
    }
    MORL_Poll(polled, static_cast<uint32_t>(n), timeoutMs);
    std::lock_guard<std::mutex> g(sendWakeMutex);
    if (sendPolling) {
        sendPolling = false;
        MORL_WakeDrain(sendWake);
    }
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
    std::vector<SendBatch> batches;
    while (sendRunning) {
        SendPass pass;
        RunSendPass(batches, pass);
        if (pass.moved || !sendRunning) {
            continue;
        }
        if (pass.blockedCount != 0) {
            WaitForSendRoom(pass.blocked, pass.blockedCount);
        } else {
            IdleWait(pass.queued);
        }
    }
    std::lock_guard<std::mutex> g(sendWakeMutex);
    if (sendWake != MORL_INVALID_WAKE) {
        MORL_WakeClose(sendWake);
        sendWake = MORL_INVALID_WAKE;
    }
    MEDIA_LOGI << "SocketSendThread leave. session id: " << sessionId;
}

void MediaSocket::RunSendPass(std::vector<SendBatch>& batches, SendPass& pass)
{
    std::shared_ptr<SocketInfo> infos[kMediaTypeCount];
    std::shared_ptr<RingBuffer> rings[kMediaTypeCount];
    size_t typesWithPackets = 0;
    for (uint32_t mediaType = 0; mediaType < kMediaTypeCount; ++mediaType) {
        infos[mediaType] = GetSocketInfo(mediaType);
        rings[mediaType] = infos[mediaType] ? infos[mediaType]->GetSendBuffer() : nullptr;
        if (rings[mediaType] && rings[mediaType]->GetUsedSize() != 0) {
            ++typesWithPackets;
        }
    }
    // A media type alone with packets would get a pass to itself for each
    // of them: a run of such passes is taken at once and written with one
    // send per channel.
    const int32_t runBytes = typesWithPackets == 1 && !LiteralLoops() ? kSendRunBytes : 0;
    for (uint32_t mediaType = 0; mediaType < kMediaTypeCount && sendRunning; ++mediaType) {
        const auto& info = infos[mediaType];
        const auto& ring = rings[mediaType];
        if (!ring || ring->GetUsedSize() == 0) {
            continue;
        }
        int32_t blockedSock = MORL_INVALID_SOCKET;
        switch (TakePackets(info, *ring, runBytes, batches, blockedSock)) {
            case TakeResult::Taken: pass.moved = true; break;
            case TakeResult::NoChannel: pass.queued = true; break; // kept for a channel that comes back
            case TakeResult::ChannelFull:
                // The packet stays queued and the pass goes on to the next
                // media type; the socket is watched until it takes more.
                pass.blocked[pass.blockedCount++] = MORL_PollFd{blockedSock, MORL_POLLOUT, 0};
                break;
        }
        for (auto& batch : batches) {
            if (batch.packets != 0) {
                DoSend(info, batch);
            }
            batch.channel.reset();
            batch.length = 0;
            batch.packets = 0;
        }
    }
}

MediaSocket::TakeResult MediaSocket::TakePackets(const std::shared_ptr<SocketInfo>& info, RingBuffer& ring,
                                                 int32_t runBytes, std::vector<SendBatch>& batches,
                                                 int32_t& blockedSock)
{
    int32_t taken = 0;
    bool any = false;
    while (true) {
        const bool open = info->AnyConnected() && !info->holdSend.load(std::memory_order_acquire);
        const auto ch = open ? NextSendChannel(info) : nullptr;
        if (!ch) {
            return any ? TakeResult::Taken : TakeResult::NoChannel;
        }
        SendBatch* batch = nullptr;
        for (auto& b : batches) {
            if (b.channel == ch || (!batch && !b.channel)) {
                batch = &b;
            }
        }
        if (!batch || batch->channel != ch) {
            if (!batch) {
                batches.emplace_back();
                batch = &batches.back();
            }
            batch->channel = ch;
            batch->sock = ch->sock;
        }
        if (!LiteralLoops() && !HasSendRoom(*ch, batch->sock, BookedBytes(batch->length, batch->packets))) {
            if (any) {
                return TakeResult::Taken; // the run ends here; the rest waits for the next look
            }
            blockedSock = batch->sock;
            return TakeResult::ChannelFull;
        }
        int32_t n = 0;
        {
            std::lock_guard<std::mutex> g(info->mutex);
            n = ring.ReadPacket(batch->bytes + batch->length, kMaxMediaPacketSize);
        }
        any = true;
        if (n <= 0) {
            // The ring holds damage: a packet cut by a full ring, or one
            // longer than 2048 bytes. Everything queued goes.
            const uint32_t mediaType = info->mediaType;
            if ((MediaStatsCounters::Load(info->stats.readOnePktErrCount) & kLogEvery) == 0) {
                MEDIA_LOGW << "packet error! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
                           << GetSendStatsText(*info);
            }
            MediaStatsCounters::Bump(info->stats.readOnePktErrCount);
            OnSendOutcome(info, nullptr, SendOutcome::RingDamaged, MEDIA_SOCKET_ERRCODE_READ_HEAD);
            return TakeResult::Taken;
        }
        batch->length += n;
        ++batch->packets;
        AdvanceSendChannel(*info);
        taken += n;
        if (taken >= runBytes || ring.GetUsedSize() == 0) {
            return TakeResult::Taken;
        }
    }
}

std::shared_ptr<SockChannel> MediaSocket::NextSendChannel(const std::shared_ptr<SocketInfo>& info)
{
    const size_t n = info->sockMgr.size();
    for (size_t look = 0; look < n; ++look) {
        const auto& candidate = info->sockMgr[info->nextChannel % n];
        if (candidate) {
            const uint32_t state = candidate->state;
            if (state == SockChannel::Connected) {
                if (!candidate->repairQueued.load(std::memory_order_acquire)) {
                    return candidate;
                }
                // Its connection is about to be replaced: what went there
                // now would be lost. Like a channel connecting, it is passed
                // over; with no other, the packets wait in the ring.
            }
            if (state == SockChannel::Closed) {
                // A lost channel comes back here, within the limits of recovery.
                OnSendOutcome(info, candidate, SendOutcome::ChannelClosed, MEDIA_SOCKET_ERRCODE_CHANNEL_DOWN);
            }
        }
        info->nextChannel = (info->nextChannel + 1) % n;
    }
    return nullptr;
}

void MediaSocket::AdvanceSendChannel(SocketInfo& info)
{
    const size_t n = info.sockMgr.size();
    if (n != 0) {
        info.nextChannel = (info.nextChannel + 1) % n;
    }
}

bool MediaSocket::HasSendRoom(SockChannel& ch, int32_t sock, int32_t pending)
{
    if (ch.sendRoomSock == sock && ch.sendRoom - pending >= kSendRoomPerPacket) {
        return true;
    }
    if (pending != 0) {
        return false; // what is taken goes first
    }
    ch.sendRoomSock = sock;
    ch.sendRoom = 0;
    MORL_PollFd probe{sock, MORL_POLLOUT, 0};
    if (MORL_Poll(&probe, 1, 0) < 0 || (probe.revents & (MORL_POLLERR | MORL_POLLHUP | MORL_POLLNVAL)) != 0) {
        return true; // the send finds out what is wrong and reports it
    }
    if ((probe.revents & MORL_POLLOUT) == 0) {
        return false;
    }
    // A writable TCP socket has at least a third of its send buffer free; a
    // quarter of it is granted, so that the packets written before the
    // next look all go whole.
    int32_t sendBuf = 0;
    int len = sizeof(sendBuf);
    if (MORL_GetSockOpt(sock, MORL_SOL_SOCKET, MORL_SO_SNDBUF, &sendBuf, &len) == 0 && sendBuf > 0) {
        ch.sendRoom = sendBuf / kSendBufShareGranted;
    }
    ch.sendRoom = std::max(ch.sendRoom, kSendRoomPerPacket);
    return true;
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

void MediaSocket::DoSend(const std::shared_ptr<SocketInfo>& info, const SendBatch& batch)
{
    const auto& ch = batch.channel;
    const int32_t sock = batch.sock;
    const int32_t length = batch.length;
    const uint8_t* packet = batch.bytes;
    const int32_t r = SendData(sock, packet, length);
    ch->sendRoom -= BookedBytes(length, batch.packets);
    // Every packet counts as a send of its own: those written whole succeed,
    // one cut short succeeds with a length error, the rest fail, unless the
    // connection is gone or the socket layer down.
    const bool failCounted = r != MEDIA_SOCKET_ERRCODE_SEND_ZERO && r != MEDIA_SOCKET_ERRCODE_WSA_NOT_INITIALISED;
    uint32_t whole = 0;
    bool cut = false;
    if (r > 0) {
        int32_t at = 0;
        while (at < length) {
            const int32_t next = at + PrivateHeadLength(packet + at);
            if (next > r) {
                cut = at < r;
                break;
            }
            at = next;
            ++whole;
        }
    }
    for (uint32_t i = 0; i < batch.packets; ++i) {
        if (i < whole || (i == whole && cut)) {
            SendStatsCount(info, ch, SendStat::Success);
        } else if (failCounted) {
            SendStatsCount(info, ch, SendStat::Err);
        }
        SendStatsCount(info, ch, SendStat::Count);
    }
    if (r == MEDIA_SOCKET_ERRCODE_SEND_ZERO) {
        const SocketInfo::Server server = info->GetServer();
        MEDIA_LOGW << "socket already close, session id: " << sessionId << ", send; addr: " << server.address << ":"
                   << server.port << ", sendLen: " << length;
        OnSendOutcome(info, ch, SendOutcome::PeerClosed, r);
    } else if (r == MEDIA_SOCKET_ERRCODE_WOULD_BLOCK || r == MEDIA_SOCKET_ERRCODE_NOT_CONNECTED) {
        const uint32_t before = MediaStatsCounters::Load(ch->stats.sendErrCount) - batch.packets;
        if (SendLogDue(info, ch, before)) {
            MEDIA_LOGW << "send data EWOULDBLOCK error! session id: " << sessionId << ", ret: " << r
                       << ", sendErrCount : " << before;
        }
        OnSendOutcome(info, ch, SendOutcome::Refused, r);
    } else if (r == MEDIA_SOCKET_ERRCODE_WSA_NOT_INITIALISED) {
        OnSendOutcome(info, ch, SendOutcome::NotInitialised, r);
    } else if (r > 0 && r < length) {
        const uint32_t before = MediaStatsCounters::Load(ch->stats.sendLenErrorCount);
        if (SendLogDue(info, ch, before)) {
            MEDIA_LOGW << "tcp sendbuff full error! session id: " << sessionId << ", sendLen: " << length
                       << ", tx: " << r << ", sendLenErrorCount : " << before;
        }
        SendStatsCount(info, ch, SendStat::LenErr);
        OnSendOutcome(info, ch, SendOutcome::CutShort, MEDIA_SOCKET_ERRCODE_WOULD_BLOCK);
    } else if (r < 0) {
        const uint32_t before = MediaStatsCounters::Load(ch->stats.sendErrCount) - batch.packets;
        if (SendLogDue(info, ch, before)) {
            const SocketInfo::Server server = info->GetServer();
            MEDIA_LOGW << "send data error! session id: " << sessionId << ", sock: " << sock
                       << ", addr: " << server.address << ":" << server.port << ", sendLen: " << length
                       << ", errcode: " << r << GetHeadText(packet)
                       << ", sendErrCount: " << before;
        }
    }
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
