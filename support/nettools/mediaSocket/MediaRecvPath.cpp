// Receive path: the receive thread ("TCPSocketRecvThread") polls every
// socket of the session, pours the bytes into the channel's ring, cuts
// packets by the private head and hands each body to the receive callback.
//
// The thread sleeps in its poll until a socket has something, the wake
// tells it that the poll records changed, a socket waits to be released or
// the session stops, or a deadline of its own comes: the next report of
// dirty bytes. With the literal loop it polls every 10 ms instead.
//
// Failed reads and dirty bytes are reported to the repair code, which
// hands every repair to the repair thread: this thread never connects.
//
// A socket whose failure was reported but that is still in place (its
// repair waits on the repair thread, or is allowed only once per time
// limit) would report its hang-up on every poll and keep the thread
// spinning: it rests, out of the poll, and is reported again when its rest
// is over.
#include "mediaSocket/MediaSocket.h"

#include <algorithm>

#include "mediaSocket/MediaLimits.h"
#include "mediaSocket/MediaLog.h"
#include "mediaSocket/MediaVocabulary.h"

using namespace zeph_media;

namespace {

constexpr int32_t kRecvReadSize = 2048;
constexpr int kRecvPollTimeoutMs = 10;
constexpr int kPollForever = -1;
constexpr uint32_t kPollFailSleepMs = 5;
constexpr uint32_t kAllUnusedSleepMs = 100;
// The wake's record follows the sockets' in the poll.
constexpr size_t kWakeRecord = kMediaFdCount;
constexpr size_t kRecvPollRecords = kMediaFdCount + 1;
// How long a failed socket left in place stays out of the poll.
constexpr uint64_t kFailedSocketRestMs = 100;

// A poll record's socket that failed and was left in place, and until when
// it rests.
struct Resting {
    int32_t sock = MORL_INVALID_SOCKET;
    uint64_t until = 0;
};

} // namespace

void MediaSocket::WakeRecvThread()
{
    if (recvWake != MORL_INVALID_WAKE) {
        MORL_WakeSignal(recvWake);
    }
}

int MediaSocket::RecvPollTimeout() const
{
    if (!dirtyUntold) {
        return kPollForever;
    }
    // The earliest moment at which some channel may report the dirty bytes
    // it holds back.
    uint64_t next = UINT64_MAX;
    for (uint32_t type = 0; type < kMediaTypeCount; ++type) {
        auto info = GetSocketInfo(type);
        if (!info) {
            continue;
        }
        for (const auto& ch : info->sockMgr) {
            if (ch && ch->dirtyBytesUntold != 0) {
                next = std::min(next, ch->lastDirtyEventTime.load() + kLogGapMs);
            }
        }
    }
    if (next == UINT64_MAX) {
        return kPollForever;
    }
    const uint64_t now = NowMs();
    return next <= now ? 0 : static_cast<int>(std::min<uint64_t>(next - now, kLogGapMs));
}

void MediaSocket::SocketRecvThread()
{
    MEDIA_LOGI << "SocketRecvThread enter. session id: " << sessionId;
    MORL_PthreadSetName("TCPSocketRecvThread");
    uint8_t buffer[kRecvReadSize];
    Resting resting[kMediaFdCount];
    // After a failure report: if the repair code left the socket in its
    // record, it rests rather than report the same hang-up at once again.
    auto restIfLeftInPlace = [&](size_t i, int32_t sock) {
        if (UnpackFd(fds[i].load()).fd == sock) {
            resting[i] = Resting{sock, NowMs() + kFailedSocketRestMs};
        }
    };
    while (recvRunning) {
        const bool literal = LiteralLoops() || recvWake == MORL_INVALID_WAKE;
        // Sockets closed since the last round are released only now, before
        // the copy below, so that no round polls a number given away.
        CloseDeferredSockets();
        // Work on a copy: others change fds at any time without a lock, and a
        // socket closed meanwhile shows up as a failed read. Whoever changes
        // them signals the wake afterwards, and the wake is drained before
        // this copy, so no change goes unseen until a later signal.
        MORL_PollFd local[kRecvPollRecords];
        for (size_t i = 0; i < kMediaFdCount; ++i) {
            local[i] = UnpackFd(fds[i].load());
            local[i].revents = 0;
        }
        local[kWakeRecord] = MORL_PollFd{literal ? MORL_INVALID_WAKE : recvWake, kPollReadEvents, 0};
        int timeout = literal ? kRecvPollTimeoutMs : RecvPollTimeout();
        const uint64_t restNow = NowMs();
        for (size_t i = 0; i < kMediaFdCount; ++i) {
            if (resting[i].sock == MORL_INVALID_SOCKET) {
                continue;
            }
            if (resting[i].sock != local[i].fd || resting[i].until <= restNow) {
                resting[i] = Resting{}; // replaced, or its rest is over
                continue;
            }
            local[i].fd = MORL_INVALID_SOCKET;
            const int left = static_cast<int>(resting[i].until - restNow);
            timeout = timeout == kPollForever ? left : std::min(timeout, left);
        }
        int nready = MORL_Poll(local, kRecvPollRecords, timeout);
        FlushDirtyData();
        if (nready > 0 && local[kWakeRecord].revents != 0) {
            MORL_WakeDrain(recvWake);
            --nready;
        }
        if (nready == 0) {
            continue;
        }
        if (nready < 0) {
            if (errCount.fetch_add(1) % kLogEveryCount == 0) {
                MEDIA_LOGW << "session id: " << sessionId << ", nready: " << nready
                           << ", errno: " << MORL_GetLastSocketErr();
            }
            MORL_SleepMs(kPollFailSleepMs);
            continue;
        }
        size_t unused = 0;
        for (size_t i = 0; i < kMediaFdCount; ++i) {
            const int32_t sock = local[i].fd;
            const int16_t revents = local[i].revents;
            if (sock == MORL_INVALID_SOCKET) {
                ++unused;
                continue;
            }
            if ((revents & kPollReadEvents) != 0) {
                const int n = MORL_Recv(sock, buffer, kRecvReadSize, 0);
                if (n >= 1) {
                    PutRecvBuffer(sock, buffer, n);
                    continue;
                }
                const int socketError = MORL_GetLastSocketErr();
                const uint64_t now = NowMs();
                if (recvErrCount.load() % kLogEveryCount == 0 && now - lastRecvErrTime.load() > kLogGapMs) {
                    lastRecvErrTime = now;
                    MEDIA_LOGW << "recv failed, session id: " << sessionId << ", error: " << MORL_GetLastErr()
                               << ", lastError: " << socketError << ", errCount: " << recvErrCount.load()
                               << ", recvLen: " << n;
                }
                ++recvErrCount;
                OnRecvFailed(sock, revents, n, socketError);
                restIfLeftInPlace(i, sock);
            } else if ((revents & MORL_POLLHUP) != 0) {
                const int n = MORL_Recv(sock, buffer, kRecvReadSize, 0);
                OnRecvFailed(sock, revents, n, MORL_GetLastSocketErr());
                restIfLeftInPlace(i, sock);
            } else if (revents != 0) {
                if (errCount.fetch_add(1) % kLogEveryCount == 0) {
                    MEDIA_LOGW << "recv poll failed, session id: " << sessionId << ", revents: " << revents
                               << ", errCount: " << errCount.load();
                }
            }
        }
        if (unused == kMediaFdCount && literal) {
            MORL_SleepMs(kAllUnusedSleepMs);
        }
    }
    MEDIA_LOGI << "SocketRecvThread leave. session id: " << sessionId;
}

void MediaSocket::DeliverPacket(const std::shared_ptr<SocketInfo>& info, const std::shared_ptr<SockChannel>& ch)
{
    PrivateHead head;
    zeph::ByteReader reader(ch->packet, kPrivateHeadSize);
    if (!ReadPrivateHead(reader, head)) {
        return;
    }
    const MediaRecvCallback callback = info->recvCallback.load();
    if (callback == nullptr) {
        return;
    }
    const uint8_t* body = ch->packet + kPrivateHeadSize;
    const int32_t bodyLen = static_cast<int32_t>(head.head_Len) - kPrivateHeadSize;
    if (head.mediaType == ZEPH_MEDIA_AUDIO && head.pktType == ZEPH_MEDIA_PKT_RTP) {
        const uint32_t mediaType = info->mediaType;
        const uint32_t pktType = head.pktType;
        const uint32_t id = sessionId;
        SortBufferProcess(info->sortBuffers, body, bodyLen, [&](const uint8_t* data, int32_t len) {
            callback(id, pktType, mediaType, data, static_cast<uint32_t>(len));
        });
        return;
    }
    callback(sessionId, head.pktType, head.mediaType, body, static_cast<uint32_t>(bodyLen));
}

int32_t MediaSocket::PutRecvBuffer(int32_t sock, const uint8_t* bytes, int32_t length)
{
    auto info = FindSocketInfoBySock(sock);
    if (!info) {
        MEDIA_LOGE << "not found socket! session id: " << sessionId << ", fd: " << sock;
        return MEDIA_SOCKET_ERRCODE_NOT_FOUND_SOCKET;
    }
    auto ch = FindSockChannelBySock(info, sock);
    if (!ch) {
        MEDIA_LOGE << "not found socket channel! session id: " << sessionId << ", fd: " << sock;
        return MEDIA_SOCKET_ERRCODE_NOT_FOUND_SOCKET;
    }
    auto ring = ch->GetRecvBuffer();
    if (ch->recvReset.exchange(false)) {
        // First bytes of a new connection: nothing of the old one may remain.
        if (ring) {
            ring->Clear();
        }
        ch->currSize = 0;
    }
    if (!ring) {
        MEDIA_LOGW << "recvBuffer is null.session id: " << sessionId;
        try {
            ring = std::make_shared<RingBuffer>(kMinRingCapacity);
        } catch (const std::bad_alloc&) {
            return MEDIA_SOCKET_ERRCODE_NEW_MEMORY;
        }
        ch->SetRecvBuffer(ring);
    }
    const int32_t written = ring->Write(bytes, length);

    while (true) {
        if (ch->currSize >= kPrivateHeadSize) {
            PrivateHead head;
            zeph::ByteReader reader(ch->packet, kPrivateHeadSize);
            ReadPrivateHead(reader, head);
            if (head.head_Len < ch->currSize || head.head_Len > kMaxMediaPacketSize) {
                const uint16_t held = ch->currSize;
                ch->currSize = 0;
                if ((ch->stats.recv.Get(PacketCounters::ErrCount) & kLogEvery) == 0) {
                    MEDIA_LOGW << "packet length error! session id: " << sessionId << ", len: " << head.head_Len
                               << ", currSize: " << held << GetRecvStatsText(*info);
                }
                RecvStatsCount(info, ch, RecvStat::Packet, head.pktType, false);
                return MEDIA_SOCKET_ERRCODE_PACKET_LENGTH;
            }
            const int32_t need = head.head_Len - ch->currSize;
            const int32_t got = ring->Read(ch->packet + ch->currSize, need);
            ch->currSize = static_cast<uint16_t>(ch->currSize + got);
            if (got < need) {
                return 0; // the rest comes with a later read
            }
            // A packet is whole. Without a receive callback it is dropped
            // uncounted.
            const bool counted = info->recvCallback.load() != nullptr;
            DeliverPacket(info, ch);
            ch->currSize = 0;
            if (counted) {
                RecvStatsCount(info, ch, RecvStat::Packet, head.pktType, true);
            }
            if (ch->sock.load() != sock) {
                // The callback closed or re-created this channel: the rest
                // of its bytes belong to a connection that is gone.
                return 0;
            }
        }

        // Hunt for the next head.
        int32_t dirtySize = kMaxMediaPacketSize;
        const uint32_t skip = ring->SkipToPrivateHead(ch->dirtyData, &dirtySize);
        if ((skip & RingBuffer::kBytesDropped) != 0) {
            if ((MediaStatsCounters::Load(ch->stats.dataLoss) & kLogEvery) == 0) {
                MEDIA_LOGW << "data loss; session id: " << sessionId << ", " << GetRecvStatsText(*info);
            }
            RecvStatsCount(info, ch, RecvStat::DataLoss, 0, false);
            ch->dirtyDataLen = static_cast<uint32_t>(dirtySize);
            CheckDirtyData(ch);
            ch->dirtyDataLen = 0;
            if (ch->recvReset.load()) {
                // The check had the channel connected anew: what is left in the
                // ring came from the old connection and goes at the next read.
                return 0;
            }
        }
        if ((skip & RingBuffer::kNoHead) != 0) {
            return 0; // fewer than 16 bytes: they wait for more
        }
        const int32_t got = ring->Read(ch->packet, kPrivateHeadSize);
        if (got < kPrivateHeadSize) {
            ch->currSize = 0;
            if ((MediaStatsCounters::Load(ch->stats.readHeadErrCount) & kLogEvery) == 0) {
                MEDIA_LOGW << "read head error! session id: " << sessionId << ", " << GetRecvStatsText(*info);
            }
            RecvStatsCount(info, ch, RecvStat::ReadHeadErr, 0, false);
            return MEDIA_SOCKET_ERRCODE_READ_HEAD;
        }
        ch->currSize = kPrivateHeadSize;
        if (ring->GetUsedSize() == 0) {
            if (written < length) {
                RecvStatsCount(info, ch, RecvStat::WriteBufferErr, 0, false);
                return MEDIA_SOCKET_ERRCODE_WRITE_BUFFER;
            }
            return 0;
        }
    }
}

void MediaSocket::RecvStatsCount(const std::shared_ptr<SocketInfo>& info, const std::shared_ptr<SockChannel>& ch,
                                 RecvStat kind, uint32_t pktType, bool success)
{
    if (!ch) {
        MEDIA_LOGE << "sockChanPtr is null! session id: " << sessionId;
        return;
    }
    for (MediaStatsCounters* s : {&info->stats, &ch->stats}) {
        switch (kind) {
            case RecvStat::Packet: CountPacket(s->recv, pktType, success); break;
            case RecvStat::DataLoss: MediaStatsCounters::Bump(s->dataLoss); break;
            case RecvStat::ReadHeadErr: MediaStatsCounters::Bump(s->readHeadErrCount); break;
            case RecvStat::WriteBufferErr: MediaStatsCounters::Bump(s->writeBufferErrCount); break;
        }
    }
}
