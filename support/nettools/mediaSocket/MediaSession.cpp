// Session lifetime and the caller's settings. The constructor makes the
// receive thread's wake and starts the receive, send and repair threads;
// MediaStopThread stops them (a flag, a wake, a join); both run on the
// thread that opens or closes the session. The setters and getters
// below run on the caller's thread; sockets closed here are released by the
// receive thread between two polls.
#include "mediaSocket/MediaSocket.h"

#include <algorithm>
#include <new>
#include <sstream>

#include "mediaSocket/MediaLog.h"
#include "mediaSocket/MediaVocabulary.h"
#include "securec/securec.h"

MediaSocket::MediaSocket(uint32_t id) : sessionId(id)
{
    for (auto& fd : fds) {
        fd.store(PackFd(MORL_PollFd{MORL_INVALID_SOCKET, 0, 0}));
    }
    recvWake = MORL_WakeCreate();
    if (recvWake == MORL_INVALID_WAKE) {
        MEDIA_LOGW << "no wake for the receive thread, it polls on a timer. session id: " << sessionId
                   << ", error: " << MORL_GetLastSocketErr();
    }
    recvRunning = true;
    try {
        recvThread = std::thread(&MediaSocket::SocketRecvThread, this);
    } catch (...) {
        CloseRecvWake();
        throw;
    }
    sendRunning = true;
    repairRunning = true;
    try {
        sendThread = std::thread(&MediaSocket::SocketSendThread, this);
        repairThread = std::thread(&MediaSocket::RepairThread, this);
    } catch (...) {
        MediaStopThread();
        CloseRecvWake();
        throw;
    }
}

MediaSocket::~MediaSocket()
{
    MediaStopThread();
    CloseDeferredSockets();
    CloseRecvWake();
}

void MediaSocket::CloseRecvWake()
{
    if (recvWake != MORL_INVALID_WAKE) {
        MORL_WakeClose(recvWake);
        recvWake = MORL_INVALID_WAKE;
    }
}

bool MediaSocket::IsSessionThread() const
{
    const auto self = std::this_thread::get_id();
    return self == recvThread.get_id() || self == sendThread.get_id() || self == repairThread.get_id();
}

namespace {
// The session whose repair thread this is, if any: set by that thread
// itself, so that the data threads can ask while the thread object is being
// joined.
thread_local const MediaSocket* t_repairOf = nullptr;
} // namespace

void MediaSocket::MarkRepairThread() const { t_repairOf = this; }

bool MediaSocket::IsRepairThread() const { return t_repairOf == this; }

int32_t MediaSocket::MediaStopThread()
{
    MEDIA_LOGI << "MediaStopThread start";
    const auto self = std::this_thread::get_id();
    // Joining a thread from itself is impossible; the session's owner makes
    // sure the destructor never runs there, and should it happen all the
    // same the thread is let go instead.
    {
        std::lock_guard<std::mutex> g(repairMutex);
        repairRunning = false;
        repairJobs.clear();
    }
    repairCond.notify_all();
    if (repairThread.joinable()) {
        if (repairThread.get_id() == self) {
            repairThread.detach();
        } else {
            repairThread.join();
        }
    }
    recvRunning = false;
    WakeRecvThread();
    if (recvThread.joinable()) {
        if (recvThread.get_id() == self) {
            recvThread.detach();
        } else {
            recvThread.join();
        }
    }
    sendRunning = false;
    {
        std::lock_guard<std::mutex> g(sendWakeMutex);
        sendPending = true;
    }
    sendWakeCond.notify_all();
    if (sendThread.joinable()) {
        if (sendThread.get_id() == self) {
            sendThread.detach();
        } else {
            sendThread.join();
        }
    }
    MEDIA_LOGI << "MediaStopThread end";
    return 0;
}

void MediaSocket::CloseChannelSock(const std::shared_ptr<SockChannel>& ch)
{
    const int32_t old = ch->DetachSock();
    if (old == MORL_INVALID_SOCKET) {
        return;
    }
    MORL_Shutdown(old, MORL_SD_BOTH);
    {
        std::lock_guard<std::mutex> g(closeMutex);
        closePending.push_back(old);
    }
    WakeRecvThread();
}

void MediaSocket::CloseDeferredSockets()
{
    std::vector<int32_t> socks;
    {
        std::lock_guard<std::mutex> g(closeMutex);
        socks.swap(closePending);
    }
    for (int32_t sock : socks) {
        MORL_CloseSocket(sock);
    }
}

// ---- the caller's settings ---------------------------------------------------------

int32_t MediaSocket::MediaCloseSocket(uint32_t mediaType)
{
    MEDIA_LOGI << "close socket start. session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
    if (mediaType >= kMediaTypeCount) {
        MEDIA_LOGE << "Invalid param, session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    auto info = GetSocketInfo(mediaType);
    if (!info) {
        MEDIA_LOGE << "no create, mediaType: session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_NO_CREATE;
    }
    ClearFdsOfType(mediaType);
    for (const auto& ch : info->sockMgr) {
        if (ch) {
            CloseChannelSock(ch);
            ch->localPort = 0;
            ch->state = SockChannel::Closed;
        }
    }
    {
        std::unique_lock<std::shared_mutex> g(socketInfoLock);
        socketInfos[mediaType] = nullptr;
    }
    MEDIA_LOGI << "Close socket succ. session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
    return 0;
}

int32_t MediaSocket::MediaSetChannelBufSize(uint32_t mediaType, uint32_t size)
{
    int32_t refused = 0;
    auto info = FindCreated(mediaType, refused);
    if (!info) {
        return refused;
    }
    const int32_t capacity = static_cast<int32_t>(
        std::min<uint32_t>(std::max<uint32_t>(size, kMinRingCapacity), static_cast<uint32_t>(kMaxRingCapacity)));
    auto fresh = [capacity]() -> std::shared_ptr<RingBuffer> {
        try {
            return std::make_shared<RingBuffer>(capacity);
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    };
    for (const auto& ch : info->sockMgr) {
        if (!ch) {
            continue;
        }
        auto ring = ch->GetRecvBuffer();
        if (!ring || ring->GetCapacity() != capacity) {
            ch->SetRecvBuffer(fresh());
        }
    }
    auto ring = info->GetSendBuffer();
    if (!ring || ring->GetCapacity() != capacity) {
        info->SetSendBuffer(fresh());
    }
    return 0;
}

int32_t MediaSocket::MediaGetChannelBufSize(int32_t mediaType)
{
    // A negative type turns into one above the last and is refused.
    int32_t refused = 0;
    auto info = FindCreated(static_cast<uint32_t>(mediaType), refused);
    if (!info) {
        return refused;
    }
    auto ring = info->GetSendBuffer();
    if (!ring) {
        MEDIA_LOGE << "buffer not exist! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_BUFFER_NOT_EXIST;
    }
    return ring->GetUsedSize();
}

int32_t MediaSocket::MediaSetTcpBufSize(uint32_t mediaType, uint32_t size, uint32_t direction)
{
    int32_t refused = 0;
    auto info = FindCreated(mediaType, refused);
    if (!info) {
        return refused;
    }
    const int option = direction != 0 ? MORL_SO_RCVBUF : MORL_SO_SNDBUF;
    std::ostringstream lens;
    for (const auto& ch : info->sockMgr) {
        if (!ch) {
            continue;
        }
        const int32_t sock = ch->sock;
        int32_t value = static_cast<int32_t>(size);
        MORL_SetSockOpt(sock, MORL_SOL_SOCKET, option, &value, sizeof(value));
        int32_t back = 0;
        int len = sizeof(back);
        MORL_GetSockOpt(sock, MORL_SOL_SOCKET, option, &back, &len);
        lens << ", tcp " << (direction != 0 ? "recv" : "send") << " buff len: " << back;
    }
    MEDIA_LOGI << "MediaSetTcpBufSize session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
               << lens.str();
    return 0;
}

int32_t MediaSocket::MediaRegisterRecvCallback(uint32_t mediaType, MediaRecvCallback callback)
{
    MEDIA_LOGI << "register recv callback start. session id: " << sessionId
               << ", mediaType: " << GetMediaTypeName(mediaType);
    int32_t refused = 0;
    auto info = FindCreated(mediaType, refused);
    if (!info) {
        return refused;
    }
    info->recvCallback = callback;
    MEDIA_LOGI << "register recv callback succ. session id: " << sessionId
               << ", mediaType: " << GetMediaTypeName(mediaType);
    return 0;
}

int32_t MediaSocket::MediaSetEventCallback(uint32_t mediaType, MediaEventCallback callback)
{
    int32_t refused = 0;
    auto info = FindCreated(mediaType, refused);
    if (!info) {
        return refused;
    }
    info->eventCallback = callback;
    return 0;
}

int32_t MediaSocket::MediaGetStats(uint32_t mediaType, MediaStats* stats)
{
    if (stats == nullptr) {
        MEDIA_LOGE << "pStats is null! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    if (mediaType >= kMediaTypeCount) {
        MEDIA_LOGE << "Invalid param! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    auto info = GetSocketInfo(mediaType);
    if (!info) {
        return MEDIA_SOCKET_ERRCODE_NO_CREATE;
    }
    MediaStats copy{};
    info->stats.CopyTo(copy);
    int ret = memcpy_s(stats, sizeof(MediaStats), &copy, sizeof(copy));
    if (ret != 0) {
        MEDIA_LOGE << "memcpy_s failed! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
                   << ", secRet: " << ret;
    }
    return 0;
}
