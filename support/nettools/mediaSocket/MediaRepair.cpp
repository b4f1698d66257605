// Repair and events: what becomes of a damage that a path reported. The
// send path reports through OnSendOutcome, the receive path through
// OnRecvFailed and CheckDirtyData; only the code here reconnects and calls
// the user's event callback.
//
// Threads: an event that is only told to the caller is told on the thread
// that reported it (the receive thread, the send thread, a connect or the
// repair thread), unless another thread of the session is telling one at
// that moment: that thread tells it next (TellEvent), so the caller gets a
// session's events one at a time. Every repair, of one channel or of a
// whole media type, connects, which takes up to seconds: the reporting
// thread only queues it (QueueRepair, which never waits) and the session's
// repair thread ("MediaRepair") decides on it (limits, counts, logs) and
// runs it. So neither the send thread nor the
// receive thread ever connects, and a channel whose connect hangs holds back
// no other channel's traffic. While a channel's repair waits in the queue
// the send thread leaves the channel out of its rotation.
#include "mediaSocket/MediaSocket.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <functional>

#include "inc/log_thinner.h"
#include "mediaSocket/MediaLimits.h"
#include "mediaSocket/MediaLog.h"
#include "mediaSocket/MediaVocabulary.h"

using namespace zeph_media;

namespace {

// Repairs waiting for the repair thread, per session: one per media type
// and a few channel events; what does not fit is raised again by the path
// that found the damage.
constexpr size_t kMaxRepairJobs = 16;
// How long the repair thread waits before it looks again at a media type
// that another thread is connecting.
constexpr int kRepairRetryMs = 10;
constexpr uint32_t kHttpForbidden = 403;
// Events waiting while a callback runs; more are dropped (a caller whose
// callback never returns).
constexpr size_t kMaxPendingEvents = 256;

// What a proxy or a server may answer in place of the media stream.
struct DirtyPattern {
    const char* text;
    uint32_t eventId;
    uint32_t errorCode;
};
const DirtyPattern kDirtyPatterns[] = {
    {"403 forbidden", ZEPH_MEDIA_EVENT_REFUSED, kHttpForbidden},
    {"403forbidden", ZEPH_MEDIA_EVENT_REFUSED, kHttpForbidden},
};

} // namespace

void MediaSocket::DoEventCallback(const std::shared_ptr<SocketInfo>& info, MediaEventInfo event)
{
    if (!info) {
        return;
    }
    const uint32_t mediaType = info->mediaType;
    if (event.eventId == ZEPH_MEDIA_EVENT_RING_FLUSHED) {
        ClearSendBuffer(info);
    } else if (event.eventId == ZEPH_MEDIA_EVENT_NO_SOCKET) {
        // The rebuild connects, which takes up to seconds: it runs on the
        // repair thread, which tells the caller once it has succeeded.
        RepairJob job;
        job.mediaType = mediaType;
        job.event = event;
        QueueRepair(job);
        return;
    }
    TellEvent(info, event);
}

void MediaSocket::DoEventCallbackOfSockChan(const std::shared_ptr<SockChannel>& ch, MediaEventInfo event)
{
    if (!ch) {
        MEDIA_LOGI << "DoEventCallbackOfSockChan start. session id: " << sessionId;
        return;
    }
    const uint32_t mediaType = ch->mediaType;
    auto info = GetSocketInfo(mediaType);
    if (!info) {
        return;
    }
    const bool repairable = event.eventId == ZEPH_MEDIA_EVENT_CHANNEL_LOST || event.eventId == ZEPH_MEDIA_EVENT_SEND_FAILED ||
                            (event.eventId == ZEPH_MEDIA_EVENT_REFUSED && info->stats.recv.Get(PacketCounters::SuccessCount) > 0);
    if (repairable) {
        if (!IsRepairThread()) {
            // The repair thread decides and connects. Should the queue be
            // full, the path that found the damage finds it again: the
            // receive thread at the socket's next poll, the send thread at
            // the channel's next turn.
            QueueRepair(ChannelJob(ch, event, false));
            return;
        }
        ReCreateGuard guard(*info);
        if (!guard) {
            // Another re-creation is under way; the event is taken up again
            // once it has ended, unless that one repaired the channel.
            QueueRepair(ChannelJob(ch, event, false));
            return;
        }
        const uint64_t now = NowMs();
        uint64_t last = ch->lastReCreateTime.load();
        if (IsReCreateTimeLater(now, last) && ch->reCreateChannelCount.load() < kMaxReCreateCount &&
            ch->lastReCreateTime.compare_exchange_strong(last, now)) {
            const int32_t chanCount = ++ch->reCreateChannelCount;
            const int32_t infoCount = ++info->reCreateChannelCount;
            MEDIA_LOGW << "DoEventCallbackOfSockChan MediaCreateChannelOfSockChan! session id: " << sessionId
                       << ", mediaType: " << GetMediaTypeName(mediaType) << ", eventId: " << event.eventId
                       << ", errorCode: " << static_cast<int32_t>(event.errorCode)
                       << ", sockChanPtr->reCreateChannelCount: " << chanCount
                       << ", sockInfoPtr-> reCreateChannelCount: " << infoCount;
            if (MediaReCreateChannelOfSockChan(ch) != 0) {
                MEDIA_LOGW << "DoEventCallbackOfSockChan MediaReCreateChannelOfSockChan error! session id: "
                           << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
                           << ", eventId: " << event.eventId
                           << ", errorCode: " << static_cast<int32_t>(event.errorCode);
            }
        }
        return;
    }
    TellEvent(info, event);
}

void MediaSocket::OnSendOutcome(const std::shared_ptr<SocketInfo>& info, const std::shared_ptr<SockChannel>& ch,
                                SendOutcome outcome, int32_t code)
{
    const uint32_t errorCode = static_cast<uint32_t>(code);
    switch (outcome) {
        case SendOutcome::NoSocket:
            DoEventCallback(info, MediaEventInfo{ZEPH_MEDIA_EVENT_NO_SOCKET, errorCode});
            break;
        case SendOutcome::RingDamaged:
            DoEventCallback(info, MediaEventInfo{ZEPH_MEDIA_EVENT_RING_FLUSHED, errorCode});
            break;
        case SendOutcome::ChannelClosed:
            DoEventCallbackOfSockChan(ch, MediaEventInfo{ZEPH_MEDIA_EVENT_CHANNEL_LOST, errorCode});
            break;
        case SendOutcome::PeerClosed:
            // Replaced whatever the limits say, by the repair thread.
            if (ch) {
                QueueRepair(ChannelJob(ch, MediaEventInfo{}, true));
            }
            break;
        case SendOutcome::Refused:
        case SendOutcome::CutShort:
            // After a cut packet the peer's framer would take the next
            // packet's bytes for the rest: the connection is replaced.
            DoEventCallbackOfSockChan(ch, MediaEventInfo{ZEPH_MEDIA_EVENT_SEND_FAILED, errorCode});
            break;
        case SendOutcome::NotInitialised: {
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
            break;
        }
    }
}

MediaSocket::RepairJob MediaSocket::ChannelJob(const std::shared_ptr<SockChannel>& ch, MediaEventInfo event,
                                               bool reCreate)
{
    RepairJob job;
    job.mediaType = ch->mediaType;
    job.channel = ch;
    job.sockAtEvent = ch->sock;
    job.event = event;
    job.reCreate = reCreate;
    return job;
}

bool MediaSocket::QueueRepair(const RepairJob& job)
{
    {
        std::lock_guard<std::mutex> g(repairMutex);
        if (!repairRunning) {
            return false;
        }
        for (auto& queued : repairJobs) {
            if (job.channel && queued.channel == job.channel) {
                // One job per channel: the damage found again while it waits
                // (a socket that fails at every poll, every packet of a burst)
                // adds nothing, and cannot crowd out other channels. A
                // replacement that ignores the limits takes the job over.
                queued.reCreate = queued.reCreate || job.reCreate;
                return true;
            }
            if (!job.channel && !queued.channel && queued.mediaType == job.mediaType &&
                queued.event.eventId == job.event.eventId) {
                return true;
            }
        }
        if (repairJobs.size() >= kMaxRepairJobs) {
            return false;
        }
        repairJobs.push_back(job);
        if (job.channel) {
            job.channel->repairQueued.store(true, std::memory_order_release);
        }
    }
    repairCond.notify_one();
    return true;
}

void MediaSocket::TellEvent(const std::shared_ptr<SocketInfo>& info, MediaEventInfo event)
{
    const MediaEventCallback callback = info->eventCallback.load();
    if (callback == nullptr) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(eventMutex);
        if (pendingEvents.size() >= kMaxPendingEvents) {
            static zeph::LogThinner dropped;
            if (dropped.take()) {
                MEDIA_LOGE << "event dropped, callback busy; session id: " << sessionId
                           << ", mediaType: " << GetMediaTypeName(info->mediaType) << ", eventId: " << event.eventId;
            }
            return;
        }
        pendingEvents.push_back(PendingEvent{callback, info->mediaType, event});
        if (tellingEvents) {
            return; // the thread that is telling takes it
        }
        tellingEvents = true;
    }
    for (;;) {
        PendingEvent next;
        {
            std::lock_guard<std::mutex> lock(eventMutex);
            if (pendingEvents.empty()) {
                tellingEvents = false;
                return;
            }
            next = pendingEvents.front();
            pendingEvents.pop_front();
        }
        next.callback(sessionId, next.mediaType, next.event);
    }
}

void MediaSocket::RepairThread()
{
    MORL_PthreadSetName("MediaRepair");
    MarkRepairThread();
    std::unique_lock<std::mutex> lock(repairMutex);
    while (repairRunning) {
        if (repairJobs.empty()) {
            repairCond.wait(lock, [this] { return !repairRunning || !repairJobs.empty(); });
            continue;
        }
        const RepairJob job = repairJobs.front();
        repairJobs.pop_front();
        lock.unlock();
        const RepairOutcome outcome = RunRepair(job);
        lock.lock();
        if (outcome == RepairOutcome::Busy && repairRunning) {
            // Someone else is connecting the media type: look again shortly,
            // after the repairs of other channels and media types.
            repairJobs.push_back(job);
            repairCond.wait_for(lock, std::chrono::milliseconds(kRepairRetryMs), [this] { return !repairRunning; });
            continue;
        }
        if (job.channel && std::none_of(repairJobs.begin(), repairJobs.end(),
                                        [&job](const RepairJob& queued) { return queued.channel == job.channel; })) {
            // Back in the send thread's rotation, if it is connected.
            job.channel->repairQueued.store(false, std::memory_order_release);
        }
    }
}

MediaSocket::RepairOutcome MediaSocket::RunRepair(const RepairJob& job)
{
    if (!job.channel) {
        return RebuildMediaType(job.mediaType, job.event);
    }
    auto info = GetSocketInfo(job.mediaType);
    if (!info || std::find(info->sockMgr.begin(), info->sockMgr.end(), job.channel) == info->sockMgr.end()) {
        return RepairOutcome::Done; // closed meanwhile
    }
    ReCreateGuard guard(*info);
    if (!guard) {
        return RepairOutcome::Busy;
    }
    if (job.channel->state == SockChannel::Connected && job.channel->sock != job.sockAtEvent) {
        return RepairOutcome::Done; // the re-creation that ran gave it a new connection
    }
    if (job.reCreate) {
        MediaReCreateChannelOfSockChan(job.channel);
    } else {
        DoEventCallbackOfSockChan(job.channel, job.event);
    }
    return RepairOutcome::Done;
}

MediaSocket::RepairOutcome MediaSocket::RebuildMediaType(uint32_t mediaType, MediaEventInfo event)
{
    auto info = GetSocketInfo(mediaType);
    if (!info) {
        return RepairOutcome::Done;
    }
    ReCreateGuard guard(*info);
    if (!guard) {
        return RepairOutcome::Busy;
    }
    if (info->AnyOpenSocket()) {
        return RepairOutcome::Done; // connected again meanwhile
    }
    const uint64_t now = NowMs();
    uint64_t last = info->lastReCreateTime.load();
    if (!IsReCreateTimeLater(now, last) || info->reCreateChannelCount.load() >= kMaxReCreateCount ||
        !info->lastReCreateTime.compare_exchange_strong(last, now)) {
        return RepairOutcome::Done;
    }
    ClearSendBuffer(info);
    const int32_t count = ++info->reCreateChannelCount;
    MEDIA_LOGW << "DoEventCallback MediaReCreateChannel! session id: " << sessionId
               << ", mediaType: " << GetMediaTypeName(mediaType) << ", eventId: " << event.eventId
               << ", errorCode: " << static_cast<int32_t>(event.errorCode)
               << ", sockInfoPtr-> reCreateChannelCount: " << count;
    if (MediaReCreateChannel(mediaType, true) != 0) {
        MEDIA_LOGW << "DoEventCallback  MediaReCreateChannel error! session id: " << sessionId
                   << ", mediaType: " << GetMediaTypeName(mediaType) << ", eventId: " << event.eventId
                   << ", errorCode: " << static_cast<int32_t>(event.errorCode);
        return RepairOutcome::Done;
    }
    TellEvent(info, event);
    return RepairOutcome::Done;
}

void MediaSocket::OnRecvFailed(int32_t sock, int16_t revents, int32_t recvLen, int32_t socketError)
{
    auto info = FindSocketInfoBySock(sock);
    if (!info) {
        MEDIA_LOGW << "recv poll. session id: " << sessionId << ", recvLen: " << recvLen << ", errno: " << socketError;
        return;
    }
    auto ch = FindSockChannelBySock(info, sock);
    if (!ch) {
        return;
    }
    const int32_t count = ch->reCreateChannelCount;
    if (IsReCreateTimeLater(NowMs(), ch->lastReCreateTime.load())) {
        MEDIA_LOGW << "session id: " << sessionId << ", revents: " << revents
                   << "; reCreateChannel recv poll recvLen: " << recvLen
                   << ", mediaType: " << GetMediaTypeName(ch->mediaType) << ", errno: " << socketError
                   << ", reCreateCHannelCount: " << count << ", sock: " << sock;
    }
    if (count < kMaxReCreateCount) {
        DoEventCallbackOfSockChan(ch, MediaEventInfo{ZEPH_MEDIA_EVENT_CHANNEL_LOST, static_cast<uint32_t>(socketError)});
    } else if (count == kMaxReCreateCount) {
        MediaCloseSocketOfSockChan(ch);
    }
}

int32_t MediaSocket::WithReCreate(uint32_t mediaType,
                                  const std::function<int32_t(SocketInfo&, const SocketInfo::Server&)>& body)
{
    int32_t refused = 0;
    auto info = FindCreated(mediaType, refused);
    if (!info) {
        return refused;
    }
    ReCreateGuard guard(*info);
    if (!guard) {
        MEDIA_LOGW << "re-creation already under way, session id: " << sessionId
                   << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_FAILED;
    }
    return body(*info, info->GetServer());
}

int32_t MediaSocket::MediaReCreateChannelOfSockChan(const std::shared_ptr<SockChannel>& ch)
{
    if (!ch) {
        MEDIA_LOGI << "MediaReCreateChannelOfSockChan start. session id: " << sessionId;
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    const uint32_t mediaType = ch->mediaType;
    MEDIA_LOGI << "MediaReCreateChannelOfSockChan start. session id: " << sessionId
               << ", mediaType: " << GetMediaTypeName(mediaType);
    return WithReCreate(mediaType, [&](SocketInfo&, const SocketInfo::Server& server) {
        ClearFdsOfSock(mediaType, ch->sock);
        CloseChannelSock(ch);
        ch->state = SockChannel::Connecting;
        const int32_t made = MediaCreateSocketOfSockChan(ch);
        if (made != 0) {
            ch->localPort = 0;
            ch->state = SockChannel::Closed;
            return made;
        }
        const int32_t r = MediaCreateChannelOfSockChan(ch, server.address, server.port, server.domain);
        MEDIA_LOGI << "MediaReCreateChannelOfSockChan succ. session id: " << sessionId
                   << ", mediaType: " << GetMediaTypeName(mediaType) << ", server addr: " << server.address
                   << ", port: " << server.port << ", ret: " << r << ", sock: " << ch->sock.load();
        return r;
    });
}

int32_t MediaSocket::MediaReCreateChannel(uint32_t mediaType, bool makeSockets)
{
    MEDIA_LOGI << "ReCreate channel start. session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
    return WithReCreate(mediaType, [&](SocketInfo& info, const SocketInfo::Server& server) {
        ClearFdsOfType(mediaType);
        if (makeSockets) {
            for (const auto& ch : info.sockMgr) {
                if (ch) {
                    CloseChannelSock(ch);
                    ch->state = SockChannel::Connecting;
                }
            }
            MediaCreateSocket(mediaType, static_cast<uint32_t>(info.sockMgr.size()));
        }
        const int32_t r = MediaCreateChannel(mediaType, server.address, server.port, server.domain);
        MEDIA_LOGI << "ReCreate connect succ. session id: " << sessionId
                   << ", mediaType: " << GetMediaTypeName(mediaType) << ", server addr: " << server.address
                   << ", port: " << server.port << ", ret: " << r;
        return r;
    });
}

int32_t MediaSocket::CheckDirtyData(const std::shared_ptr<SockChannel>& ch)
{
    if (!ch) {
        MEDIA_LOGE << "sockChanPtr is null! session id: " << sessionId;
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    auto info = GetSocketInfo(ch->mediaType);
    if (!info) {
        return MEDIA_SOCKET_ERRCODE_FAILED;
    }
    const uint32_t len = std::min<uint32_t>(ch->dirtyDataLen, kMaxMediaPacketSize);
    // A noisy path sends a run of garbage before every packet: one line in
    // 4096 runs, at most one a second, tells of it.
    const uint64_t now = NowMs();
    if ((ch->dirtyRuns++ & kLogEvery) == 0 && now - ch->lastDirtyLogTime >= kLogGapMs) {
        ch->lastDirtyLogTime = now;
        MEDIA_LOGW << "CheckDirtyData. session id: " << sessionId << ", mediaType: " << GetMediaTypeName(ch->mediaType)
                   << ", dirtyDataLen: " << len << ", dirty info: " << GetHeadText(ch->dirtyData)
                   << ", runs: " << ch->dirtyRuns;
    }
    for (uint32_t i = 0; i < len; ++i) {
        ch->dirtyData[i] = static_cast<uint8_t>(std::tolower(ch->dirtyData[i]));
    }
    for (uint32_t offset = 0; offset < len; ++offset) {
        for (const auto& pattern : kDirtyPatterns) {
            const size_t n = std::strlen(pattern.text);
            if (n <= len - offset && std::memcmp(ch->dirtyData + offset, pattern.text, n) == 0) {
                // A server repeating its refusal page is acted on (told or
                // repaired) and logged once a second at most per channel.
                if (ch->lastRefusalTime == 0 || now - ch->lastRefusalTime >= kLogGapMs) {
                    ch->lastRefusalTime = now;
                    DoEventCallbackOfSockChan(ch, MediaEventInfo{pattern.eventId, pattern.errorCode});
                    MEDIA_LOGW << "CheckDirtyData reason: [" << pattern.text << "]";
                }
                return 0;
            }
        }
    }
    const uint64_t heldBefore = ch->dirtyBytesUntold.fetch_add(len);
    dirtyUntold = true;
    TellDirtyData(ch);
    if (heldBefore == 0 && ch->dirtyBytesUntold != 0) {
        // The channel starts holding bytes back: that sets a deadline for
        // the receive thread, which may be asleep without one (the bytes
        // may have come in on another thread).
        WakeRecvThread();
    }
    return 0;
}

void MediaSocket::TellDirtyData(const std::shared_ptr<SockChannel>& ch)
{
    if (ch->dirtyBytesUntold == 0) {
        return;
    }
    // One event per second at most per channel, carrying every byte dropped
    // since the last one, so that a hostile server cannot flood the caller.
    const uint64_t now = NowMs();
    if (now - ch->lastDirtyEventTime.load() < kLogGapMs) {
        return;
    }
    ch->lastDirtyEventTime = now;
    const uint64_t untold = ch->dirtyBytesUntold.exchange(0);
    const uint32_t bytes = static_cast<uint32_t>(std::min<uint64_t>(untold, UINT32_MAX));
    if (bytes != 0) {
        DoEventCallbackOfSockChan(ch, MediaEventInfo{ZEPH_MEDIA_EVENT_DIRTY_DATA, bytes});
    }
}

void MediaSocket::FlushDirtyData()
{
    if (!dirtyUntold) {
        return;
    }
    bool left = false;
    for (uint32_t type = 0; type < kMediaTypeCount; ++type) {
        auto info = GetSocketInfo(type);
        if (!info) {
            continue;
        }
        for (const auto& ch : info->sockMgr) {
            if (ch) {
                TellDirtyData(ch);
                left = left || ch->dirtyBytesUntold != 0;
            }
        }
    }
    dirtyUntold = left;
}
