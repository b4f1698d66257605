// One session of the media transport, and the records under it: one
// SocketInfo per media type, one SockChannel per TCP connection of that type.
//
// Threads of a session: the receive thread ("TCPSocketRecvThread"), the
// send thread and the repair thread ("MediaRepair"), all started by the
// constructor and joined by the destructor; in passing, one connect thread
// per channel (joined before MediaCreateChannel returns) and one detached
// slow start thread per connect, which reaches the session only through the
// exports. The repair thread runs every repair the session makes of itself:
// a media type that a send found without sockets, so that no caller of
// MORL_MediaSend waits for a connect, and every channel that the send or the
// receive thread found broken, so that neither of them ever connects.
//
// Locks, outermost first, never nested: socketInfoLock (copies of the
// SocketInfo pointers), SocketInfo::mutex (the send ring and the pkgSeq
// counters). No callback runs under either.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "mediaSocket/MediaSort.h"
#include "mediaSocket/MediaStatsCounters.h"
#include "mediaSocket/PrivateHead.h"
#include "mediaSocket/RingBuffer.h"
#include "os_adapter/morl_os.h"
#include "zeph_nettools/media_socket.h"

constexpr uint32_t kMediaTypeCount = ZEPH_MEDIA_TYPE_COUNT;
constexpr uint32_t kMediaTypeUnset = kMediaTypeCount;
// Sequence counters of a media type: one per media packet type 0..9, the
// keepalive counting in slot 8 beside signalling; other types carry
// kNoPkgSeq.
constexpr size_t kPkgSeqSlots = kMaxMediaPktType + 1;
constexpr size_t kKeepaliveSeqSlot = 8;
constexpr uint32_t kNoPkgSeq = 0xFFFFFFFFu;
constexpr size_t kMediaFdCount = 8;
constexpr int32_t kMinRingCapacity = 30720;
constexpr int32_t kMaxRingCapacity = 0xFA000;
constexpr uint64_t kReCreateGapMs = 5000;
constexpr int32_t kMaxReCreateCount = 1000;
constexpr int16_t kPollReadEvents = MORL_POLLRDNORM | MORL_POLLRDBAND; // 0x300
// Bytes of a media type's packets that the send thread takes at once when
// no other media type has any queued.
constexpr int32_t kSendRunBytes = 32768;

// Range of `fds` entries of a media type, half open; false (and 0, 0) for
// an unknown type. Audio 0..4, Video 4, MS 5, Aux 6, DATA 7.
bool GetMediaFdsIndex(uint32_t mediaType, size_t& start, size_t& end);
// Default channel count, ring capacity and DSCP level of a media type.
uint32_t GetMediaDefaultChannels(uint32_t mediaType);
int32_t GetMediaDefaultRingCapacity(uint32_t mediaType);
uint32_t GetMediaDscpLevel(uint32_t mediaType);

// Whether `now` counts as later than `last` for re-creation: strictly
// greater and at least 5000 ms ahead.
inline bool IsReCreateTimeLater(uint64_t now, uint64_t last)
{
    return now > last && now - last >= kReCreateGapMs;
}

class SockChannel {
public:
    enum State : uint32_t { Closed = 0, Connecting = 1, Connected = 2 };

    std::atomic<int32_t> sock{MORL_INVALID_SOCKET};
    // A barrier taken and released at once before a close.
    std::mutex mutex;
    std::atomic<uint32_t> state{Closed};
    std::atomic<int32_t> reCreateChannelCount{0};
    std::atomic<uint64_t> lastReCreateTime{0};
    std::atomic<uint32_t> mediaType{kMediaTypeUnset};
    std::atomic<uint16_t> localPort{0};
    std::atomic<int32_t> connectRet{0};
    // A repair of this channel waits on the repair thread: the send thread
    // leaves the channel out of its rotation until the repair has run.
    // Written under the session's repairMutex.
    std::atomic<bool> repairQueued{false};

    // The receive ring. Swapped by MediaSetChannelBufSize through the atomic
    // shared_ptr functions; its contents and everything below belong to the
    // receive thread.
    std::shared_ptr<RingBuffer> recvBuffer;
    uint8_t packet[kMaxMediaPacketSize] = {};
    uint16_t currSize = 0;
    uint8_t dirtyData[kMaxMediaPacketSize] = {};
    uint32_t dirtyDataLen = 0;
    // Set by whoever connects the channel anew: the receive thread then
    // empties the ring and drops a partial packet before it takes the first
    // bytes of the new connection, so that it alone touches them.
    std::atomic<bool> recvReset{false};
    // Thinning of dirty-data reports: runs seen and time of the last
    // warning (receive thread only); bytes not yet told and time of the last
    // event, which the receive thread's rounds also flush.
    uint32_t dirtyRuns = 0;
    uint64_t lastDirtyLogTime = 0;
    std::atomic<uint64_t> dirtyBytesUntold{0};
    std::atomic<uint64_t> lastDirtyEventTime{0};
    // When a refusal found in the stream was last acted on (receive thread).
    uint64_t lastRefusalTime = 0;
    // Send thread only: bytes it may still write to socket `sendRoomSock`
    // before it asks poll again whether the socket can take more.
    int32_t sendRoom = 0;
    int32_t sendRoomSock = MORL_INVALID_SOCKET;

    MediaStatsCounters stats;

    std::shared_ptr<RingBuffer> GetRecvBuffer() const { return std::atomic_load(&recvBuffer); }
    void SetRecvBuffer(std::shared_ptr<RingBuffer> ring) { std::atomic_store(&recvBuffer, std::move(ring)); }
    // Takes and releases `mutex`, marks the channel closed in `sock` and
    // returns the old socket, which the session then closes.
    int32_t DetachSock();
};

class SocketInfo {
public:
    SocketInfo() = default;
    ~SocketInfo();
    SocketInfo(const SocketInfo&) = delete;
    SocketInfo& operator=(const SocketInfo&) = delete;

    // Fixed in number once the record is published.
    std::vector<std::shared_ptr<SockChannel>> sockMgr;

    std::atomic<uint32_t> mediaType{kMediaTypeUnset};
    std::atomic<MediaEventCallback> eventCallback{nullptr};
    std::atomic<int32_t> reCreateChannelCount{0};
    std::atomic<uint64_t> lastReCreateTime{0};
    std::atomic<MediaRecvCallback> recvCallback{nullptr};
    // Set while a connect of every channel runs with stale bytes in the send
    // ring: the send thread leaves the ring alone until they are dropped.
    std::atomic<bool> holdSend{false};
    // Receive thread only.
    SortBuffers sortBuffers;
    // Send thread only.
    uint64_t nextChannel = 0;

    // Guards the contents of the send ring and pkgSeq; the pointer itself is
    // read and swapped through the atomic shared_ptr functions.
    std::mutex mutex;
    std::shared_ptr<RingBuffer> sendBuffer;
    uint32_t pkgSeq[kPkgSeqSlots] = {};

    MediaStatsCounters stats;

    std::shared_ptr<RingBuffer> GetSendBuffer() const { return std::atomic_load(&sendBuffer); }
    void SetSendBuffer(std::shared_ptr<RingBuffer> ring) { std::atomic_store(&sendBuffer, std::move(ring)); }

    // Server of the media type, stored by MediaCreateChannel for re-creation.
    struct Server {
        std::string address;
        uint16_t port = 0;
        std::string domain;
    };
    void SetServer(const std::string& addr, uint16_t port, const std::string& domain);
    Server GetServer() const;

    bool AnyOpenSocket() const;
    bool AnyConnected() const;

    // One re-creation of this media type or of one of its channels runs at a
    // time: a second one started meanwhile (the send thread repairing a
    // channel while a caller's send rebuilds the whole type) would close the
    // sockets the first is connecting. Re-entrant on the owning thread, so
    // that a callback run by a re-creation may start another. Never waits.
    bool TryBeginReCreate();
    void EndReCreate();

private:
    std::atomic<std::thread::id> reCreateOwner{};
    int reCreateDepth = 0; // touched by the owner only

    mutable std::mutex serverMutex;
    std::string serverAddr;
    std::string domain;
    uint16_t port = 0;
};

class ReCreateGuard {
public:
    explicit ReCreateGuard(SocketInfo& info) : info(info), owned(info.TryBeginReCreate()) {}
    ~ReCreateGuard()
    {
        if (owned) {
            info.EndReCreate();
        }
    }
    ReCreateGuard(const ReCreateGuard&) = delete;
    ReCreateGuard& operator=(const ReCreateGuard&) = delete;
    explicit operator bool() const { return owned; }

private:
    SocketInfo& info;
    const bool owned;
};

// ", [RECV]: writeBufferErrCount: ..." and ", [SEND]: sendCount: ...": the
// counters of a media type and of each of its channels, for log lines.
std::string GetRecvStatsText(const SocketInfo& socketInfo);
std::string GetSendStatsText(const SocketInfo& socketInfo);

class MediaSocket {
public:
    explicit MediaSocket(uint32_t sessionId);
    ~MediaSocket();
    MediaSocket(const MediaSocket&) = delete;
    MediaSocket& operator=(const MediaSocket&) = delete;

    uint32_t GetSessionId() const { return sessionId; }

    int32_t MediaCreateSocket(uint32_t mediaType, uint32_t count);
    int32_t MediaCloseSocket(uint32_t mediaType);
    int32_t MediaCreateChannel(uint32_t mediaType, const std::string& address, uint16_t port,
                               const std::string& domain);
    int32_t MediaConnect(int32_t sock, const std::string& address, uint16_t port, const std::string& domain);
    void SetSockAttribute(int32_t sock);
    int32_t MediaSetTcpBufSize(uint32_t mediaType, uint32_t size, uint32_t direction);
    int32_t MediaSetChannelBufSize(uint32_t mediaType, uint32_t size);
    int32_t MediaGetChannelBufSize(int32_t mediaType);
    void MediaSocketTcpAccelerateSlowStart(uint32_t mediaType);
    int32_t MediaStopThread();

    int32_t MediaSend(uint32_t pktType, uint32_t mediaType, const uint8_t* data, uint32_t length, uint32_t channel);
    int32_t MediaRegisterRecvCallback(uint32_t mediaType, MediaRecvCallback callback);
    int32_t MediaSetEventCallback(uint32_t mediaType, MediaEventCallback callback);
    int32_t MediaGetStats(uint32_t mediaType, MediaStats* stats);
    int32_t MediaReCreateChannel(uint32_t mediaType, bool makeSockets);

    // Recovery of one channel.
    int32_t MediaReCreateChannelOfSockChan(const std::shared_ptr<SockChannel>& channel);
    int32_t MediaCreateSocketOfSockChan(const std::shared_ptr<SockChannel>& channel);
    int32_t MediaCreateChannelOfSockChan(const std::shared_ptr<SockChannel>& channel, const std::string& address,
                                         uint16_t port, const std::string& domain);
    void MediaCloseSocketOfSockChan(const std::shared_ptr<SockChannel>& channel);
    void DoEventCallback(const std::shared_ptr<SocketInfo>& socketInfo, MediaEventInfo event);
    void DoEventCallbackOfSockChan(const std::shared_ptr<SockChannel>& channel, MediaEventInfo event);
    // What the receive path found on `sock`: a read that failed, or a
    // connection that ended. The repair code decides what follows.
    void OnRecvFailed(int32_t sock, int16_t revents, int32_t recvLen, int32_t socketError);
    int32_t CheckDirtyData(const std::shared_ptr<SockChannel>& channel);

    // Receive path.
    int32_t PutRecvBuffer(int32_t sock, const uint8_t* bytes, int32_t length);

    // Copy of a SocketInfo pointer, taken under the shared lock; null when
    // the media type is not created.
    std::shared_ptr<SocketInfo> GetSocketInfo(uint32_t mediaType) const;
    bool HasAnySocketInfo() const;
    std::shared_ptr<SocketInfo> FindSocketInfoBySock(int32_t sock) const;
    static std::shared_ptr<SockChannel> FindSockChannelBySock(const std::shared_ptr<SocketInfo>& socketInfo,
                                                              int32_t sock);
    // A copy of one entry of the poll records.
    MORL_PollFd GetFd(size_t index) const { return UnpackFd(fds[index].load()); }
    // True on this session's receive or send thread.
    bool IsSessionThread() const;

    // True on this session's repair thread, on any thread at any time.
    bool IsRepairThread() const;

    // How the send thread waits when there is nothing to send. By default it
    // sleeps until MediaSend wakes it (or, while packets wait for a channel,
    // for one pass interval). With the literal loop it passes every 5 ms and
    // a queued packet waits for the next pass. Process-wide; for benchmarks
    // that compare the two.
    static void SetLiteralLoops(bool enabled);
    static bool LiteralLoops();
    // The receive thread likewise sleeps in its poll until a socket, its
    // wake or its next deadline calls it; with the literal loop it polls
    // every 10 ms.

private:
    // A repair handed to the repair thread: the whole media type (no
    // channel), or one channel, decided on by its event's limits or, with
    // reCreate, replaced whatever they say. `sockAtEvent`: the channel's
    // socket when the damage was found; a channel connected anew since is
    // left alone.
    struct RepairJob {
        uint32_t mediaType = kMediaTypeUnset;
        std::shared_ptr<SockChannel> channel;
        int32_t sockAtEvent = MORL_INVALID_SOCKET;
        MediaEventInfo event{};
        bool reCreate = false;
    };
    static RepairJob ChannelJob(const std::shared_ptr<SockChannel>& channel, MediaEventInfo event, bool reCreate);
    enum class RepairOutcome { Done, Busy };
    // What the send path found wrong, reported to the repair code, which
    // decides what becomes of it (OnSendOutcome).
    enum class SendOutcome {
        NoSocket,      // a packet for a media type whose channels are all closed
        RingDamaged,   // the send ring held a packet that cannot be cut
        ChannelClosed, // the rotation passed over a closed channel
        PeerClosed,    // a send took no byte: the connection is gone
        Refused,       // a send would block or found no connection (code: why)
        CutShort,      // a send took part of a packet only
        NotInitialised // the socket layer is not initialised
    };

    void SocketRecvThread();
    void SocketSendThread();
    void RepairThread();
    // Run by the repair thread first: from then on IsRepairThread knows it.
    void MarkRepairThread() const;
    // Queues a repair unless the same one already waits (for a channel:
    // any job of that channel); false when the queue is full or the session
    // is stopping. Never waits for a repair.
    bool QueueRepair(const RepairJob& job);
    // Tells the media type's event callback, if one is set, of `event`. The
    // session's events reach the caller one at a time and in the order they
    // were raised, from whichever of its threads raised them: a thread that
    // finds another one telling leaves its event to it and returns. No lock
    // of ours is held while a callback runs.
    void TellEvent(const std::shared_ptr<SocketInfo>& socketInfo, MediaEventInfo event);
    RepairOutcome RunRepair(const RepairJob& job);
    RepairOutcome RebuildMediaType(uint32_t mediaType, MediaEventInfo event);
    // Event 7 for the bytes of dirty data not yet told, at most once per
    // second per channel.
    void TellDirtyData(const std::shared_ptr<SockChannel>& channel);
    void FlushDirtyData();
    int32_t NewChannelSock(uint32_t mediaType);
    // Runs a re-creation of the media type under its guard, with the server
    // it was connected to; refuses when the type is not created or another
    // re-creation runs.
    int32_t WithReCreate(uint32_t mediaType,
                         const std::function<int32_t(SocketInfo&, const SocketInfo::Server&)>& body);
    void OnSendOutcome(const std::shared_ptr<SocketInfo>& socketInfo, const std::shared_ptr<SockChannel>& channel,
                       SendOutcome outcome, int32_t code);
    // The connected channel the next packet of the media type goes to, or
    // null; closed channels passed over are reported, channels connecting or
    // waiting for their repair are passed over in silence. The rotation moves on
    // only once a packet went (AdvanceSendChannel).
    std::shared_ptr<SockChannel> NextSendChannel(const std::shared_ptr<SocketInfo>& socketInfo);
    static void AdvanceSendChannel(SocketInfo& socketInfo);
    // Whether the channel's socket takes a whole packet now, beside what is
    // already taken for it (`pending`: bytes it books in the send buffer),
    // without blocking and without cutting it.
    bool HasSendRoom(SockChannel& channel, int32_t sock, int32_t pending);
    // Whole packets taken from a send ring for one channel, written with
    // one send (send thread only).
    struct SendBatch {
        std::shared_ptr<SockChannel> channel;
        int32_t sock = MORL_INVALID_SOCKET;
        int32_t length = 0;
        uint32_t packets = 0;
        uint8_t bytes[kSendRunBytes + kMaxMediaPacketSize];
    };
    enum class TakeResult {
        Taken,       // packets were taken (or a damaged ring was emptied)
        NoChannel,   // no channel is connected: the packets wait
        ChannelFull  // the next channel cannot take the next packet now
    };
    // What one pass of the send thread did.
    struct SendPass {
        bool moved = false;  // a packet went, or a damaged ring was emptied
        bool queued = false; // packets wait for a channel to connect
        // Channels that could not take the packet waiting for them.
        MORL_PollFd blocked[kMediaTypeCount] = {};
        size_t blockedCount = 0;
    };
    // One packet of each media type with packets queued, in the fixed order.
    void RunSendPass(std::vector<SendBatch>& batches, SendPass& pass);
    // Takes the next packet of the media type, or with runBytes a run of
    // packets up to that many bytes, into one batch per channel in the
    // rotation over the channels.
    TakeResult TakePackets(const std::shared_ptr<SocketInfo>& socketInfo, RingBuffer& ring, int32_t runBytes,
                           std::vector<SendBatch>& batches, int32_t& blockedSock);
    // Wait of the send thread after a pass in which every packet waiting
    // found its channel full: until one of `blocked` can take more, a send
    // wakes the thread, or the pass interval ends.
    void WaitForSendRoom(MORL_PollFd* blocked, size_t count);
    void DoSend(const std::shared_ptr<SocketInfo>& socketInfo, const SendBatch& batch);
    int32_t SendData(int32_t sock, const uint8_t* data, int32_t length);
    void ConnectChannel(const std::shared_ptr<SocketInfo>& socketInfo, const std::shared_ptr<SockChannel>& channel,
                        std::string address, uint16_t port, std::string domain);
    // After a connect, successful or not: the socket's traffic class is
    // marked and its local port noted. Returns what MORL_GetSockName did.
    int MarkConnectedSock(const std::shared_ptr<SockChannel>& channel, int32_t sock);
    // The SocketInfo of a created media type, or null with the code that
    // refuses it (a bad media type, or one not created), told in the log.
    std::shared_ptr<SocketInfo> FindCreated(uint32_t mediaType, int32_t& refused) const;
    void DeliverPacket(const std::shared_ptr<SocketInfo>& socketInfo, const std::shared_ptr<SockChannel>& channel);
    void ClearSendBuffer(const std::shared_ptr<SocketInfo>& socketInfo);
    void SetFd(size_t index, int32_t sock, int16_t events);
    void ClearFdsOfSock(uint32_t mediaType, int32_t sock);
    // Empties every poll record of the media type.
    void ClearFdsOfType(uint32_t mediaType);
    void WakeSendThread();
    // Makes the receive thread's poll return, so that it polls the records
    // as they are now, releases closed sockets or sees the session stop.
    void WakeRecvThread();
    // How long the receive thread may sleep in its poll: until the next
    // report of held-back dirty bytes is due, or for ever (-1).
    int RecvPollTimeout() const;
    // Wait of the send thread after a pass that sent nothing. `queued`: some
    // ring holds packets that wait for a connected channel, so the thread
    // looks again after the pass interval even if nobody wakes it.
    void IdleWait(bool queued);
    // Closes the channel's socket. The descriptor is shut down at once, so
    // that the peer sees the end, but released only by the receive thread
    // between two polls: Linux hands a freed number to the next socket at
    // once, and a round still working on its copy of `fds` would otherwise
    // read from whatever socket got the number.
    void CloseChannelSock(const std::shared_ptr<SockChannel>& channel);
    void CloseDeferredSockets();
    void CloseRecvWake();
    // Whether `info` is still the published record of its media type.
    bool IsPublished(const std::shared_ptr<SocketInfo>& info) const;
    static uint64_t PackFd(const MORL_PollFd& fd);
    static MORL_PollFd UnpackFd(uint64_t packed);
    // What the receive and send paths count, in the records of both the
    // media type and the channel.
    enum class RecvStat {
        Packet,        // a packet cut, whole or refused (CountPacket)
        DataLoss,      // bytes dropped while hunting for a head
        ReadHeadErr,   // a head that could not be read
        WriteBufferErr // bytes that did not fit the ring
    };
    enum class SendStat {
        Err,     // a send that failed
        LenErr,  // a send that took part of the packet only
        Success, // a send that took bytes
        Count    // every send
    };
    void RecvStatsCount(const std::shared_ptr<SocketInfo>& socketInfo, const std::shared_ptr<SockChannel>& channel,
                        RecvStat kind, uint32_t pktType, bool success);
    void SendStatsCount(const std::shared_ptr<SocketInfo>& socketInfo, const std::shared_ptr<SockChannel>& channel,
                        SendStat kind);
    // Whether a throttled send warning may be written now for this channel.
    bool SendLogDue(const std::shared_ptr<SocketInfo>& socketInfo, const std::shared_ptr<SockChannel>& channel,
                    uint32_t countBefore);

    // The poll records, each packed into 64 bits so that a whole record is
    // read or written at once without a lock.
    std::array<std::atomic<uint64_t>, kMediaFdCount> fds;
    std::atomic<int32_t> errCount{0};
    std::atomic<int32_t> recvErrCount{0};
    std::atomic<uint64_t> lastRecvErrTime{0};
    std::atomic<bool> recvRunning{false};
    std::thread recvThread;
    // Polled by the receive thread beside its sockets; signalled after every
    // change of `fds`, after a socket is queued for release and at stop.
    // Without it (no descriptor left) the thread polls every 10 ms.
    MORL_WAKE recvWake = MORL_INVALID_WAKE;
    std::atomic<bool> sendRunning{false};
    std::thread sendThread;
    const uint32_t sessionId;
    std::shared_ptr<SocketInfo> socketInfos[kMediaTypeCount];
    mutable std::shared_mutex socketInfoLock;

    // Wake of the send thread: MediaSend raises `sendPending` after it let
    // go of the SocketInfo mutex, and takes sendWakeMutex only when it is
    // the one that raised it, so a busy stream costs one atomic per packet.
    std::mutex sendWakeMutex;
    std::condition_variable sendWakeCond;
    std::atomic<bool> sendPending{false};
    // Polled by the send thread beside channels that cannot take more, and
    // signalled by WakeSendThread while `sendPolling`; both under
    // sendWakeMutex. Made by the send thread at its first such wait and
    // closed when it ends.
    MORL_WAKE sendWake = MORL_INVALID_WAKE;
    bool sendPolling = false;

    std::mutex closeMutex;
    std::vector<int32_t> closePending;

    std::thread repairThread;
    std::mutex repairMutex; // guards the three below
    std::condition_variable repairCond;
    std::deque<RepairJob> repairJobs;
    bool repairRunning = false;
    // Events waiting to be told (TellEvent): the thread that is telling
    // (`tellingEvents`) takes them in order; guarded by eventMutex.
    struct PendingEvent {
        MediaEventCallback callback;
        uint32_t mediaType;
        MediaEventInfo event;
    };
    std::mutex eventMutex;
    std::deque<PendingEvent> pendingEvents;
    bool tellingEvents = false;
    // Some channel holds dirty-data bytes not yet told (receive thread).
    std::atomic<bool> dirtyUntold{false};
};
