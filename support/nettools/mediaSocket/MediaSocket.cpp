#include "mediaSocket/MediaSocket.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <new>
#include <sstream>
#include <system_error>

#include "commonlib/zeph_commonlib.h"
#include "mediaSocket/MediaLog.h"
#include "mediaSocket/MediaVocabulary.h"
#include "securec/securec.h"
#include "zeph_nettools/socket_dscp.h"
#include "zeph_nettools/stun.h"

namespace {

constexpr int32_t kRecvReadSize = 2048;
constexpr int kRecvPollTimeoutMs = 10;
constexpr uint32_t kPollFailSleepMs = 5;
constexpr uint32_t kAllUnusedSleepMs = 100;
constexpr uint32_t kSendIdleWaitMs = 5;
constexpr int kConnectTimeoutMs = 2000;
constexpr int32_t kSockBufSize = 0x40000;
constexpr uint32_t kLogEveryCount = 4096;
constexpr uint32_t kLogEvery = kLogEveryCount - 1; // mask: one line in 4096
constexpr uint64_t kLogGapMs = 1000;
constexpr int kSlowStartCount = 100;
constexpr uint32_t kSlowStartIntervalMs = 50;
constexpr uint32_t kStunPacketMax = 256;
// Repairs waiting for the repair thread, per session: one per media type
// and a few channel events; what does not fit is raised again by the path
// that found the damage.
constexpr size_t kMaxRepairJobs = 16;
// How long the repair thread waits before it looks again at a media type
// that another thread is connecting.
constexpr int kRepairRetryMs = 10;
// How often a send interrupted by a signal is tried before it gives up.
constexpr int kSendInterruptedTries = 5;
// What the proxy layer answers when the proxy demanded authentication.
constexpr int kProxyAuthRefused = 16;
constexpr uint32_t kHttpForbidden = 403;

// The OS adapter hands over the Linux number itself for an error it has no
// Windows code for. The send path takes these three as it takes their
// Windows codes, so that a path that reports the raw number is not mistaken
// for a broken channel.
constexpr int kLinuxEintr = 4;
constexpr int kLinuxEagain = 11;
constexpr int kLinuxEpipe = 32;

std::atomic<bool> g_earlyWake{true};

uint64_t NowMs() { return MORL_GetSystemTime(); }

// Host-order port of a Windows-layout address (port in network order).
uint16_t PortOf(const MORL_SockAddrIn& addr)
{
    uint8_t b[2];
    memcpy_s(b, sizeof(b), &addr.sin_port, sizeof(addr.sin_port));
    return static_cast<uint16_t>((b[0] << 8) | b[1]);
}

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

bool IsWouldBlock(int err)
{
    return err == MORL_WSAEWOULDBLOCK || err == MORL_WSAEINPROGRESS || err == kLinuxEagain;
}
bool IsInterrupted(int err) { return err == MORL_WSAEINTR || err == kLinuxEintr; }
bool IsNotConnected(int err) { return err == MORL_WSAENOTCONN || err == kLinuxEpipe; }

// Per media type: its range of poll records (half open), its channel
// count, the capacity of its rings and the DSCP level of its sockets.
struct MediaTypeTraits {
    size_t fdStart;
    size_t fdEnd;
    uint32_t channels;
    int32_t ringCapacity;
    uint32_t dscpLevel;
};
constexpr MediaTypeTraits kMediaTypeTraits[kMediaTypeCount] = {
    {4, 5, 1, 614400, 3}, // Video
    {0, 4, 4, 30720, 4},  // Audio
    {6, 7, 1, 614400, 3}, // Aux
    {5, 6, 1, 262144, 4}, // MS
    {7, 8, 1, 30720, 4},  // DATA
};

} // namespace

// ---- per-type tables ----------------------------------------------------------

bool GetMediaFdsIndex(uint32_t mediaType, size_t& start, size_t& end)
{
    if (mediaType >= kMediaTypeCount) {
        start = 0;
        end = 0;
        return false;
    }
    start = kMediaTypeTraits[mediaType].fdStart;
    end = kMediaTypeTraits[mediaType].fdEnd;
    return true;
}

uint32_t GetMediaDefaultChannels(uint32_t mediaType)
{
    return mediaType < kMediaTypeCount ? kMediaTypeTraits[mediaType].channels : 0;
}

int32_t GetMediaDefaultRingCapacity(uint32_t mediaType)
{
    return mediaType < kMediaTypeCount ? kMediaTypeTraits[mediaType].ringCapacity : kMinRingCapacity;
}

uint32_t GetMediaDscpLevel(uint32_t mediaType)
{
    return mediaType < kMediaTypeCount ? kMediaTypeTraits[mediaType].dscpLevel : 0;
}

// ---- records --------------------------------------------------------------------

int32_t SockChannel::DetachSock()
{
    {
        std::lock_guard<std::mutex> barrier(mutex);
    }
    return sock.exchange(MORL_INVALID_SOCKET);
}

bool SocketInfo::TryBeginReCreate()
{
    const std::thread::id self = std::this_thread::get_id();
    std::thread::id expected{};
    if (reCreateOwner.compare_exchange_strong(expected, self)) {
        reCreateDepth = 1;
        return true;
    }
    if (expected == self) {
        ++reCreateDepth;
        return true;
    }
    return false;
}

void SocketInfo::EndReCreate()
{
    if (--reCreateDepth == 0) {
        reCreateOwner.store(std::thread::id{});
    }
}

void SocketInfo::SetServer(const std::string& addr, uint16_t newPort, const std::string& newDomain)
{
    std::lock_guard<std::mutex> g(serverMutex);
    serverAddr = addr;
    port = newPort;
    domain = newDomain;
}

void SocketInfo::GetServer(std::string& addr, uint16_t& outPort, std::string& outDomain) const
{
    std::lock_guard<std::mutex> g(serverMutex);
    addr = serverAddr;
    outPort = port;
    outDomain = domain;
}

bool SocketInfo::AnyOpenSocket() const
{
    return std::any_of(sockMgr.begin(), sockMgr.end(),
                       [](const std::shared_ptr<SockChannel>& ch) { return ch && ch->sock != MORL_INVALID_SOCKET; });
}

bool SocketInfo::AnyConnected() const
{
    return std::any_of(sockMgr.begin(), sockMgr.end(), [](const std::shared_ptr<SockChannel>& ch) {
        return ch && ch->state == SockChannel::Connected;
    });
}

std::string GetRecvStatsText(const SocketInfo& info)
{
    std::ostringstream os;
    auto part = [&os](const MediaStatsCounters& s) {
        os << "writeBufferErrCount: " << MediaStatsCounters::Load(s.writeBufferErrCount)
           << ", readHeadErrCount: " << MediaStatsCounters::Load(s.readHeadErrCount)
           << ", dataLoss: " << MediaStatsCounters::Load(s.dataLoss) << GetPacketCountsText(s.recv);
    };
    os << ", [RECV]: ";
    part(info.stats);
    for (const auto& ch : info.sockMgr) {
        if (ch) {
            os << ", [sock: " << ch->sock.load() << "], ";
            part(ch->stats);
        }
    }
    return os.str();
}

std::string GetSendStatsText(const SocketInfo& info)
{
    std::ostringstream os;
    auto part = [&os](const MediaStatsCounters& s) {
        os << "sendCount: " << MediaStatsCounters::Load(s.sendCount)
           << ", sendSuccessCount: " << MediaStatsCounters::Load(s.sendSuccessCount)
           << ", sendErrCount: " << MediaStatsCounters::Load(s.sendErrCount) << GetPacketCountsText(s.send)
           << ", readOnePktErrCount: " << MediaStatsCounters::Load(s.readOnePktErrCount)
           << ", noConnectSendCount: " << MediaStatsCounters::Load(s.noConnectSendCount);
    };
    os << ", [SEND]: ";
    part(info.stats);
    for (const auto& ch : info.sockMgr) {
        if (ch) {
            os << ", [sock: " << ch->sock.load() << "], ";
            part(ch->stats);
        }
    }
    return os.str();
}

SocketInfo::~SocketInfo()
{
    // The closing report of a media type: its counters reach the log here
    // and nowhere else once it is closed.
    try {
        MEDIA_LOGI << "~SocketInfo, mediaType: " << GetMediaTypeName(mediaType) << "; " << GetRecvStatsText(*this)
                   << GetSendStatsText(*this) << ", reCreateChannelCount: " << reCreateChannelCount.load();
    } catch (...) {
    }
}

// ---- session ----------------------------------------------------------------------

void MediaSocket::SetEarlyWake(bool enabled) { g_earlyWake.store(enabled); }

uint64_t MediaSocket::PackFd(const MORL_PollFd& fd)
{
    return static_cast<uint64_t>(static_cast<uint32_t>(fd.fd)) |
           (static_cast<uint64_t>(static_cast<uint16_t>(fd.events)) << 32) |
           (static_cast<uint64_t>(static_cast<uint16_t>(fd.revents)) << 48);
}

MORL_PollFd MediaSocket::UnpackFd(uint64_t packed)
{
    MORL_PollFd fd;
    fd.fd = static_cast<int32_t>(static_cast<uint32_t>(packed));
    fd.events = static_cast<int16_t>(static_cast<uint16_t>(packed >> 32));
    fd.revents = static_cast<int16_t>(static_cast<uint16_t>(packed >> 48));
    return fd;
}

void MediaSocket::CloseChannelSock(const std::shared_ptr<SockChannel>& ch)
{
    const int32_t old = ch->DetachSock();
    if (old == MORL_INVALID_SOCKET) {
        return;
    }
    MORL_Shutdown(old, MORL_SD_BOTH);
    std::lock_guard<std::mutex> g(closeMutex);
    closePending.push_back(old);
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

bool MediaSocket::IsPublished(const std::shared_ptr<SocketInfo>& info) const
{
    return info && GetSocketInfo(info->mediaType) == info;
}

MediaSocket::MediaSocket(uint32_t id) : sessionId(id)
{
    for (auto& fd : fds) {
        fd.store(PackFd(MORL_PollFd{MORL_INVALID_SOCKET, 0, 0}));
    }
    recvRunning = true;
    recvThread = std::thread(&MediaSocket::SocketRecvThread, this);
    sendRunning = true;
    repairRunning = true;
    try {
        sendThread = std::thread(&MediaSocket::SocketSendThread, this);
        repairThread = std::thread(&MediaSocket::RepairThread, this);
    } catch (...) {
        MediaStopThread();
        throw;
    }
}

MediaSocket::~MediaSocket()
{
    MediaStopThread();
    CloseDeferredSockets();
}

bool MediaSocket::IsSessionThread() const
{
    const auto self = std::this_thread::get_id();
    return self == recvThread.get_id() || self == sendThread.get_id() || self == repairThread.get_id();
}

bool MediaSocket::IsRepairThread() const { return std::this_thread::get_id() == repairThread.get_id(); }

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

std::shared_ptr<SocketInfo> MediaSocket::GetSocketInfo(uint32_t mediaType) const
{
    if (mediaType >= kMediaTypeCount) {
        return nullptr;
    }
    std::shared_lock<std::shared_mutex> g(socketInfoLock);
    return socketInfos[mediaType];
}

bool MediaSocket::HasAnySocketInfo() const
{
    std::shared_lock<std::shared_mutex> g(socketInfoLock);
    return std::any_of(std::begin(socketInfos), std::end(socketInfos),
                       [](const std::shared_ptr<SocketInfo>& p) { return p != nullptr; });
}

std::shared_ptr<SocketInfo> MediaSocket::FindSocketInfoBySock(int32_t sock) const
{
    for (uint32_t type = 0; type < kMediaTypeCount; ++type) {
        auto info = GetSocketInfo(type);
        if (info && FindSockChannelBySock(info, sock)) {
            return info;
        }
    }
    return nullptr;
}

std::shared_ptr<SockChannel> MediaSocket::FindSockChannelBySock(const std::shared_ptr<SocketInfo>& info, int32_t sock)
{
    if (!info) {
        return nullptr;
    }
    for (const auto& ch : info->sockMgr) {
        if (ch && ch->sock == sock) {
            return ch;
        }
    }
    return nullptr;
}

void MediaSocket::SetFd(size_t index, int32_t sock, int16_t events)
{
    if (index < kMediaFdCount) {
        fds[index].store(PackFd(MORL_PollFd{sock, events, 0}));
    }
}

void MediaSocket::ClearFdsOfSock(uint32_t mediaType, int32_t sock)
{
    size_t start = 0;
    size_t end = 0;
    GetMediaFdsIndex(mediaType, start, end);
    for (size_t i = start; i < end; ++i) {
        if (UnpackFd(fds[i].load()).fd == sock) {
            SetFd(i, MORL_INVALID_SOCKET, 0);
        }
    }
}

// ---- creation and connection -----------------------------------------------------------

void MediaSocket::SetSockAttribute(int32_t sock)
{
    uint32_t nonBlocking = 1;
    MORL_IoctlSocket(sock, MORL_FIONBIO, &nonBlocking);
    int32_t size = kSockBufSize;
    MORL_SetSockOpt(sock, MORL_SOL_SOCKET, MORL_SO_RCVBUF, &size, sizeof(size));
    MORL_SetSockOpt(sock, MORL_SOL_SOCKET, MORL_SO_SNDBUF, &size, sizeof(size));
    int32_t noDelay = 1;
    MORL_SetSockOpt(sock, MORL_IPPROTO_TCP, MORL_TCP_NODELAY, &noDelay, sizeof(noDelay));
    int32_t noDelayBack = 0;
    int len = sizeof(noDelayBack);
    MORL_GetSockOpt(sock, MORL_IPPROTO_TCP, MORL_TCP_NODELAY, &noDelayBack, &len);
    int32_t reuse = 1;
    MORL_SetSockOpt(sock, MORL_SOL_SOCKET, MORL_SO_REUSEADDR, &reuse, sizeof(reuse));
    int32_t recvLen = 0;
    int32_t sendLen = 0;
    len = sizeof(recvLen);
    MORL_GetSockOpt(sock, MORL_SOL_SOCKET, MORL_SO_RCVBUF, &recvLen, &len);
    len = sizeof(sendLen);
    MORL_GetSockOpt(sock, MORL_SOL_SOCKET, MORL_SO_SNDBUF, &sendLen, &len);
    MEDIA_LOGI << "session id: " << sessionId << ", tcp recv buff len: " << recvLen << ", send buff len: " << sendLen
               << ", nodelay: " << noDelayBack;
}

int32_t MediaSocket::MediaCreateSocket(uint32_t mediaType, uint32_t count)
{
    MEDIA_LOGI << "Create socket start. session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
    if (mediaType >= kMediaTypeCount) {
        MEDIA_LOGE << "Invalid param, session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    const uint32_t defaults = GetMediaDefaultChannels(mediaType);
    auto info = GetSocketInfo(mediaType);
    bool made = false;
    if (!info) {
        try {
            info = std::make_shared<SocketInfo>();
        } catch (const std::bad_alloc&) {
            MEDIA_LOGW << "Create socket error. new memory failed! session id: " << sessionId
                       << ", mediaType: " << GetMediaTypeName(mediaType);
            return MEDIA_SOCKET_ERRCODE_NEW_MEMORY;
        }
        made = true;
        const uint32_t n = std::min(defaults, count);
        for (uint32_t i = 0; i < n; ++i) {
            try {
                info->sockMgr.push_back(std::make_shared<SockChannel>());
            } catch (const std::bad_alloc&) {
                MEDIA_LOGW << "new memory failed! session id: " << sessionId
                           << ", mediaType: " << GetMediaTypeName(mediaType);
            }
        }
    } else if (info->AnyOpenSocket()) {
        MEDIA_LOGE << "already created, session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_ALREADY_CREATED;
    }

    info->mediaType = mediaType;
    if (info->sockMgr.empty()) {
        MEDIA_LOGW << "Create socket error. session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_CREATE_SOCKET;
    }
    // Every channel gets its socket, or none does: a media type that cannot
    // have all its sockets (descriptors used up) is not made.
    std::vector<int32_t> socks;
    for (const auto& ch : info->sockMgr) {
        const int32_t sock = ch ? NewChannelSock(mediaType) : MORL_INVALID_SOCKET;
        if (ch && sock == MORL_INVALID_SOCKET) {
            for (int32_t made : socks) {
                if (made != MORL_INVALID_SOCKET) {
                    MORL_CloseSocket(made);
                }
            }
            MEDIA_LOGW << "Create socket error. session id: " << sessionId
                       << ", mediaType: " << GetMediaTypeName(mediaType) << ", error: " << MORL_GetLastSocketErr();
            return MEDIA_SOCKET_ERRCODE_CREATE_SOCKET;
        }
        socks.push_back(sock);
    }
    for (size_t i = 0; i < info->sockMgr.size(); ++i) {
        const auto& ch = info->sockMgr[i];
        if (!ch) {
            continue;
        }
        {
            std::lock_guard<std::mutex> barrier(ch->mutex);
        }
        ch->sock = socks[i];
        ch->mediaType = mediaType;
    }
    {
        std::unique_lock<std::shared_mutex> g(socketInfoLock);
        socketInfos[mediaType] = info;
    }
    if (made) {
        MediaSetChannelBufSize(mediaType, static_cast<uint32_t>(GetMediaDefaultRingCapacity(mediaType)));
    }
    MEDIA_LOGI << "Create socket succ. session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
               << ", sock nums: " << info->sockMgr.size() << ", default nums: " << defaults;
    return 0;
}

int32_t MediaSocket::NewChannelSock(uint32_t mediaType)
{
    const int32_t sock = MORL_Socket(MORL_AF_INET, MORL_SOCK_STREAM, MORL_IPPROTO_TCP);
    MEDIA_LOGI << "create sock! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
               << ", sock: " << sock;
    if (sock < 0) {
        return MORL_INVALID_SOCKET;
    }
    SetSockAttribute(sock);
    return sock;
}

int32_t MediaSocket::MediaConnect(int32_t sock, const std::string& address, uint16_t port, const std::string& domain)
{
    if (address.empty() || port == 0) {
        MEDIA_LOGW << "session id: " << sessionId << ", serAddr: [" << address << "]" << ", port: " << port;
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    int isDomain = 0;
    int ret = zeph_tcp_over_http_proxy(sock, MORL_InetAddr(address.c_str()), port, domain.c_str(), &isDomain);
    const int lastError = MORL_GetLastSocketErr();
    MEDIA_LOGI << "zeph_tcp_over_http_proxy session id: " << sessionId << ", resutl: " << ret
               << ", lastError: " << lastError << ",isDomain:" << isDomain;
    if (isDomain == 1) {
        DoEventCallback(FindSocketInfoBySock(sock), MediaEventInfo{ZEPH_MEDIA_EVENT_CONNECT_DOMAIN, static_cast<uint32_t>(ret)});
    }
    if (ret == kProxyAuthRefused) {
        return MEDIA_SOCKET_ERRCODE_PROXY_AUTH;
    }
    if (ret != 0) {
        DoEventCallbackOfSockChan(FindSockChannelBySock(FindSocketInfoBySock(sock), sock),
                                  MediaEventInfo{ZEPH_MEDIA_EVENT_CONNECT_FAILED, static_cast<uint32_t>(ret)});
        MEDIA_LOGE << "session id: " << sessionId << ", connect error! serverAddr: " << address << ":" << port
                   << ", lastError: " << lastError << ", ret: " << ret << ", sock: " << sock;
        return MEDIA_SOCKET_ERRCODE_CONNECT_ERROR;
    }

    MORL_PollFd pfd{sock, MORL_POLLWRNORM, 0};
    int n = MORL_Poll(&pfd, 1, kConnectTimeoutMs);
    if (n == 0) {
        return MEDIA_SOCKET_ERRCODE_CONNECT_TIMEOUT;
    }
    if (n < 0) {
        return MEDIA_SOCKET_ERRCODE_FAILED;
    }
    if ((pfd.revents & MORL_POLLWRNORM) != 0) {
        const int errorEvents = pfd.revents & ~MORL_POLLWRNORM;
        MEDIA_LOGI << "session id: " << sessionId << ", fd: " << pfd.fd << ", sock: " << sock
                   << ", event: " << pfd.revents << ", errorEvents: " << errorEvents;
        return errorEvents > 0 ? MEDIA_SOCKET_ERRCODE_CONNECT_EVENT : 0;
    }
    MEDIA_LOGW << "session id: " << sessionId << ", fd: " << pfd.fd << ", sock: " << sock << ", event: " << pfd.revents;
    return MEDIA_SOCKET_ERRCODE_FAILED;
}

int MediaSocket::MarkConnectedSock(const std::shared_ptr<SockChannel>& ch, int32_t sock)
{
    zeph_set_socket_dscp(static_cast<uint32_t>(sock), GetMediaDscpLevel(ch->mediaType), nullptr);
    MORL_SockAddrIn local{};
    int len = sizeof(local);
    const int nameRet = MORL_GetSockName(sock, &local, &len);
    ch->localPort = PortOf(local);
    return nameRet;
}

void MediaSocket::ConnectChannel(const std::shared_ptr<SocketInfo>& info, const std::shared_ptr<SockChannel>& ch,
                                 std::string address, uint16_t port, std::string domain)
{
    const uint32_t mediaType = info->mediaType;
    const int32_t sock = ch->sock;
    int32_t r = MediaConnect(sock, address, port, domain);
    const int nameRet = MarkConnectedSock(ch, sock);
    MEDIA_LOGI << ", session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
               << ", port: " << ch->localPort.load() << ", sockNameRet: " << nameRet
               << ", lastError: " << MORL_GetLastSocketErr();
    if (r == 0) {
        ch->recvReset = true;
        ch->state = SockChannel::Connected;
        return;
    }
    if (r == MEDIA_SOCKET_ERRCODE_PROXY_AUTH) {
        MEDIA_LOGI << "proxy auth error! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
                   << ", serverAddr: " << address << ", port:" << port << ", sockMgr.size: " << info->sockMgr.size()
                   << ", ret: " << r << ", sock: " << sock;
        CloseChannelSock(ch);
        ch->connectRet = r;
        return;
    }
    CloseChannelSock(ch);
    ch->connectRet = r;
    ch->localPort = 0;
    ch->state = SockChannel::Closed;
    MEDIA_LOGE << "connect error! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
               << ", serverAddr: " << address << ", port:" << port << ",sockMgr.size: " << info->sockMgr.size()
               << ", ret: " << r << ", sock: " << sock;
}

int32_t MediaSocket::MediaCreateChannel(uint32_t mediaType, const std::string& address, uint16_t port,
                                        const std::string& domain)
{
    MEDIA_LOGI << "Create channel start. session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
    if (mediaType >= kMediaTypeCount) {
        MEDIA_LOGE << "Invalid param, session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    auto info = GetSocketInfo(mediaType);
    if (!info) {
        MEDIA_LOGE << "no create, session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_NO_CREATE;
    }
    ReCreateGuard guard(*info);
    if (!guard) {
        MEDIA_LOGW << "connect already under way, session id: " << sessionId
                   << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_FAILED;
    }
    // A channel that is connected stays on its connection, and whatever it
    // is receiving goes on; the others connect, with a new socket where a
    // failed connect closed the old one.
    std::vector<std::shared_ptr<SockChannel>> toConnect;
    bool kept = false;
    for (const auto& ch : info->sockMgr) {
        if (!ch) {
            continue;
        }
        if (ch->state == SockChannel::Connected && ch->sock != MORL_INVALID_SOCKET) {
            kept = true;
            continue;
        }
        ch->state = SockChannel::Connecting;
        toConnect.push_back(ch);
    }
    info->SetServer(address, port, domain);

    // All channels connect at once; each thread touches only its channel.
    std::vector<std::thread> connects;
    for (const auto& ch : toConnect) {
        ch->connectRet = 0;
        if (ch->sock == MORL_INVALID_SOCKET) {
            const int32_t made = MediaCreateSocketOfSockChan(ch);
            if (made != 0) {
                ch->connectRet = made;
                ch->state = SockChannel::Closed;
                continue;
            }
        }
        try {
            connects.emplace_back(&MediaSocket::ConnectChannel, this, info, ch, address, port, domain);
        } catch (const std::exception& e) {
            MEDIA_LOGE << "start connect thread failed: " << e.what() << ", session id: " << sessionId
                       << ", mediaType: " << GetMediaTypeName(mediaType);
        }
    }
    for (auto& t : connects) {
        t.join();
    }
    if (!IsPublished(info)) {
        // Closed while connecting (by a callback of this very connect): the
        // new sockets belong to nobody.
        for (const auto& ch : info->sockMgr) {
            if (ch) {
                CloseChannelSock(ch);
                ch->state = SockChannel::Closed;
            }
        }
        return MEDIA_SOCKET_ERRCODE_NO_CREATE;
    }
    int32_t lastRet = 0;
    for (const auto& ch : info->sockMgr) {
        if (ch && ch->connectRet != 0) {
            lastRet = ch->connectRet;
        }
    }
    if (!info->AnyOpenSocket()) {
        MEDIA_LOGE << "all connect error! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
                   << ", serverAddr: " << address << ", port: " << port << ", sockMgr.size: " << info->sockMgr.size()
                   << ", lastRet: " << lastRet;
        return lastRet;
    }

    // What was queued for the old connections is stale now, unless a
    // connection it was meant for is still there to carry it. A channel
    // connected anew drops what its ring held before its first new bytes.
    auto ring = info->GetSendBuffer();
    if (!kept && ring && ring->GetUsedSize() > 0) {
        {
            std::lock_guard<std::mutex> g(info->mutex);
            ring->Clear();
        }
        DoEventCallback(info, MediaEventInfo{ZEPH_MEDIA_EVENT_RING_FLUSHED, 0});
    }

    size_t start = 0;
    size_t end = 0;
    GetMediaFdsIndex(mediaType, start, end);
    for (size_t i = start; i < end; ++i) {
        const size_t k = i - start;
        const auto ch = k < info->sockMgr.size() ? info->sockMgr[k] : nullptr;
        SetFd(i, ch ? ch->sock.load() : MORL_INVALID_SOCKET, kPollReadEvents);
    }
    const bool connectedAnew = std::any_of(toConnect.begin(), toConnect.end(), [](const std::shared_ptr<SockChannel>& ch) {
        return ch->state == SockChannel::Connected;
    });
    if (connectedAnew && mediaType != ZEPH_MEDIA_MS && mediaType != ZEPH_MEDIA_DATA) {
        MediaSocketTcpAccelerateSlowStart(mediaType);
    }
    MEDIA_LOGI << "Create connect succ. session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
               << ", server addr: " << address << ", port: " << port << ", sockIndex: " << start
               << ", sockEnd: " << end << ", sockMgr.size(): " << info->sockMgr.size();
    return 0;
}

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
    size_t start = 0;
    size_t end = 0;
    GetMediaFdsIndex(mediaType, start, end);
    for (size_t i = start; i < end; ++i) {
        SetFd(i, MORL_INVALID_SOCKET, 0);
    }
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
    if (mediaType >= kMediaTypeCount) {
        MEDIA_LOGE << "Invalid param! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    auto info = GetSocketInfo(mediaType);
    if (!info) {
        MEDIA_LOGE << "no create! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_NO_CREATE;
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
    if (mediaType < 0 || mediaType >= static_cast<int32_t>(kMediaTypeCount)) {
        MEDIA_LOGE << "Invalid param! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    auto info = GetSocketInfo(static_cast<uint32_t>(mediaType));
    if (!info) {
        MEDIA_LOGE << "no create! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_NO_CREATE;
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
    if (mediaType >= kMediaTypeCount) {
        MEDIA_LOGE << "Invalid param! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    auto info = GetSocketInfo(mediaType);
    if (!info) {
        MEDIA_LOGE << "no create! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_NO_CREATE;
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

void MediaSocket::MediaSocketTcpAccelerateSlowStart(uint32_t mediaType)
{
    if (mediaType >= kMediaTypeCount) {
        MEDIA_LOGE << "Invalid param! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return;
    }
    if (!GetSocketInfo(mediaType)) {
        MEDIA_LOGE << "no create! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return;
    }
    // A new connection sends little until its congestion window has grown:
    // push STUN keepalives through it for five seconds. The thread knows the
    // session only by its id and goes through the exports, so it needs no
    // pointer into a session that may close meanwhile: a closed media type
    // answers -994 and ends it, a closed session answers -997 and it runs out.
    const uint32_t id = sessionId;
    auto body = [id, mediaType]() {
        const char* word = nullptr;
        switch (mediaType) {
            case ZEPH_MEDIA_VIDEO: word = "stun_video"; break;
            case ZEPH_MEDIA_AUDIO: word = "stun_audio"; break;
            case ZEPH_MEDIA_AUX: word = "stun_aux"; break;
            case ZEPH_MEDIA_DATA: word = "stun_data"; break;
            default: return;
        }
        const std::string key = std::string(word) + "_" + std::to_string(id);
        uint32_t channelId = 0;
        uint32_t ret = MORL_StunGetChannelId(key.c_str(), &channelId);
        if (ret != 0) {
            MEDIA_LOGW << "MORL_StunGetChannelId error! session id: " << id << ", mediaType: " << GetMediaTypeName(mediaType)
                       << ", ret: " << ret;
            return;
        }
        int count = kSlowStartCount;
        int succCount = 0;
        uint8_t buffer[kStunPacketMax];
        while (true) {
            --count;
            uint32_t size = kStunPacketMax;
            if (MORL_StunBuildStunPacket(key.c_str(), buffer, &size) == 0) {
                if (MORL_MediaSend(id, kPktTypeKeepalive, mediaType, buffer, size, channelId) ==
                    MEDIA_SOCKET_ERRCODE_NO_CREATE) {
                    break;
                }
                ++succCount;
            }
            MORL_SleepMs(kSlowStartIntervalMs);
            if (count == 0) {
                count = -1;
                break;
            }
        }
        MEDIA_LOGI << "accelerate slow start end. session id: " << id << ", mediaType: " << GetMediaTypeName(mediaType)
                   << ", time: " << kSlowStartCount * kSlowStartIntervalMs << ", intv: " << kSlowStartIntervalMs
                   << ", count: " << count << ", succCount: " << succCount;
    };
    try {
        std::thread(body).detach();
    } catch (const std::exception& e) {
        MEDIA_LOGE << "start slow start thread failed: " << e.what() << ", session id: " << sessionId
                   << ", mediaType: " << GetMediaTypeName(mediaType);
    }
}

// ---- callbacks and statistics ---------------------------------------------------------------

int32_t MediaSocket::MediaRegisterRecvCallback(uint32_t mediaType, MediaRecvCallback callback)
{
    MEDIA_LOGI << "register recv callback start. session id: " << sessionId
               << ", mediaType: " << GetMediaTypeName(mediaType);
    if (mediaType >= kMediaTypeCount) {
        MEDIA_LOGE << "Invalid param! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    auto info = GetSocketInfo(mediaType);
    if (!info) {
        MEDIA_LOGE << "no create! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_NO_CREATE;
    }
    info->recvCallback = callback;
    MEDIA_LOGI << "register recv callback succ. session id: " << sessionId
               << ", mediaType: " << GetMediaTypeName(mediaType);
    return 0;
}

int32_t MediaSocket::MediaSetEventCallback(uint32_t mediaType, MediaEventCallback callback)
{
    if (mediaType >= kMediaTypeCount) {
        MEDIA_LOGE << "Invalid param! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    auto info = GetSocketInfo(mediaType);
    if (!info) {
        MEDIA_LOGE << "no create! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_NO_CREATE;
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

// ---- send path --------------------------------------------------------------------------------

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
        uint8_t head[kPrivateHeadSize];
        BuildPrivateHead(pktType, mediaType, channel, seq, length, head);
        const int32_t headLen = ring->Write(head, kPrivateHeadSize);
        if (headLen < kPrivateHeadSize) {
            MEDIA_LOGW << "Write Private Header error! session id: " << sessionId
                       << ", mediaType: " << GetMediaTypeName(mediaType) << ", write len: " << headLen
                       << ", len: " << kPrivateHeadSize;
            result = MEDIA_SOCKET_ERRCODE_WRITE_BUFFER;
        } else {
            const int32_t bodyLen = length != 0 ? ring->Write(data, static_cast<int32_t>(length)) : 0;
            if (bodyLen < static_cast<int32_t>(length)) {
                MEDIA_LOGW << "Write Body error! session id: " << sessionId
                           << ", mediaType: " << GetMediaTypeName(mediaType) << ", write len: " << bodyLen
                           << ", len: " << length << ", realWriteLen:" << bodyLen << ", dataLen: " << length;
                CountPacket(info->stats.send, pktType, false);
                result = MEDIA_SOCKET_ERRCODE_WRITE_BUFFER;
            } else {
                CountPacket(info->stats.send, pktType, true);
            }
        }
    }
    if (result == 0) {
        WakeSendThread();
    }
    return result;
}

void MediaSocket::WakeSendThread()
{
    if (!g_earlyWake.load(std::memory_order_relaxed)) {
        return;
    }
    {
        std::lock_guard<std::mutex> g(sendWakeMutex);
        sendPending = true;
    }
    sendWakeCond.notify_one();
}

void MediaSocket::IdleWait()
{
    if (!g_earlyWake.load(std::memory_order_relaxed)) {
        MORL_SleepMs(kSendIdleWaitMs);
        return;
    }
    // Still one pass per 5 ms at most when idle; a queued packet ends the
    // wait at once instead of waiting for the next pass.
    std::unique_lock<std::mutex> lock(sendWakeMutex);
    sendWakeCond.wait_for(lock, std::chrono::milliseconds(kSendIdleWaitMs),
                          [this] { return sendPending || !sendRunning; });
    sendPending = false;
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
        for (uint32_t mediaType = 0; mediaType < kMediaTypeCount && sendRunning; ++mediaType) {
            auto info = GetSocketInfo(mediaType);
            if (!info) {
                continue;
            }
            auto ring = info->GetSendBuffer();
            if (!ring || ring->GetUsedSize() == 0 || !info->AnyConnected()) {
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
            IdleWait();
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
    std::string addr;
    std::string domain;
    uint16_t port = 0;
    if (r == MEDIA_SOCKET_ERRCODE_SEND_ZERO) {
        info->GetServer(addr, port, domain);
        MEDIA_LOGW << "socket already close, session id: " << sessionId << ", send; addr: " << addr << ":" << port
                   << ", sendLen: " << length;
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
            info->GetServer(addr, port, domain);
            MEDIA_LOGW << "send data error! session id: " << sessionId << ", sock: " << sock << ", addr: " << addr
                       << ":" << port << ", sendLen: " << length << ", errcode: " << r << GetHeadText(packet)
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

// ---- receive path ----------------------------------------------------------------------------

void MediaSocket::SocketRecvThread()
{
    MEDIA_LOGI << "SocketRecvThread enter. session id: " << sessionId;
    MORL_PthreadSetName("TCPSocketRecvThread");
    uint8_t buffer[kRecvReadSize];
    while (recvRunning) {
        // Sockets closed since the last round are released only now, before
        // the copy below, so that no round polls a number given away.
        CloseDeferredSockets();
        // Work on a copy: others change fds at any time without a lock, and a
        // socket closed meanwhile shows up as a failed read.
        MORL_PollFd local[kMediaFdCount];
        for (size_t i = 0; i < kMediaFdCount; ++i) {
            local[i] = UnpackFd(fds[i].load());
            local[i].revents = 0;
        }
        const int nready = MORL_Poll(local, kMediaFdCount, kRecvPollTimeoutMs);
        FlushDirtyData();
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
                CheckAndReCreateChannel(sock, revents, n, socketError);
            } else if ((revents & MORL_POLLHUP) != 0) {
                const int n = MORL_Recv(sock, buffer, kRecvReadSize, 0);
                CheckAndReCreateChannel(sock, revents, n, MORL_GetLastSocketErr());
            } else if (revents != 0) {
                if (errCount.fetch_add(1) % kLogEveryCount == 0) {
                    MEDIA_LOGW << "recv poll failed, session id: " << sessionId << ", revents: " << revents
                               << ", errCount: " << errCount.load();
                }
            }
        }
        if (unused == kMediaFdCount) {
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

// ---- recovery and events ------------------------------------------------------------------------

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
    const MediaEventCallback callback = info->eventCallback.load();
    if (callback != nullptr) {
        callback(sessionId, mediaType, event);
    }
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
        ReCreateGuard guard(*info);
        if (!guard) {
            // Another re-creation is under way; the repair thread takes the
            // event up once it has ended, unless that one repaired the channel.
            RepairJob job;
            job.mediaType = mediaType;
            job.channel = ch;
            job.sockAtEvent = ch->sock;
            job.event = event;
            QueueRepair(job);
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
    const MediaEventCallback callback = info->eventCallback.load();
    if (callback != nullptr) {
        callback(sessionId, mediaType, event);
    }
}

bool MediaSocket::QueueRepair(const RepairJob& job)
{
    {
        std::lock_guard<std::mutex> g(repairMutex);
        if (!repairRunning) {
            return false;
        }
        for (const auto& queued : repairJobs) {
            if (queued.mediaType == job.mediaType && queued.channel == job.channel &&
                queued.event.eventId == job.event.eventId) {
                return true;
            }
        }
        if (repairJobs.size() >= kMaxRepairJobs) {
            return false;
        }
        repairJobs.push_back(job);
    }
    repairCond.notify_one();
    return true;
}

void MediaSocket::RepairThread()
{
    MORL_PthreadSetName("MediaRepair");
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
            // Someone else is connecting the media type: look again shortly.
            repairJobs.push_front(job);
            repairCond.wait_for(lock, std::chrono::milliseconds(kRepairRetryMs), [this] { return !repairRunning; });
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
    DoEventCallbackOfSockChan(job.channel, job.event);
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
    const MediaEventCallback callback = info->eventCallback.load();
    if (callback != nullptr) {
        callback(sessionId, mediaType, event);
    }
    return RepairOutcome::Done;
}

void MediaSocket::CheckAndReCreateChannel(int32_t sock, int16_t revents, int32_t recvLen, int32_t socketError)
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

std::shared_ptr<SocketInfo> MediaSocket::SocketInfoToReCreate(uint32_t mediaType, int32_t& refused) const
{
    if (mediaType >= kMediaTypeCount) {
        MEDIA_LOGE << "Invalid param! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        refused = MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
        return nullptr;
    }
    auto info = GetSocketInfo(mediaType);
    if (!info) {
        MEDIA_LOGE << "no create! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
        refused = MEDIA_SOCKET_ERRCODE_NO_CREATE;
    }
    return info;
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
    int32_t refused = 0;
    auto info = SocketInfoToReCreate(mediaType, refused);
    if (!info) {
        return refused;
    }
    ReCreateGuard guard(*info);
    if (!guard) {
        MEDIA_LOGW << "re-creation already under way, session id: " << sessionId
                   << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_FAILED;
    }
    std::string address;
    std::string domain;
    uint16_t port = 0;
    info->GetServer(address, port, domain);
    ClearFdsOfSock(mediaType, ch->sock);
    CloseChannelSock(ch);
    ch->state = SockChannel::Connecting;
    const int32_t made = MediaCreateSocketOfSockChan(ch);
    if (made != 0) {
        ch->localPort = 0;
        ch->state = SockChannel::Closed;
        return made;
    }
    const int32_t r = MediaCreateChannelOfSockChan(ch, address, port, domain);
    MEDIA_LOGI << "MediaReCreateChannelOfSockChan succ. session id: " << sessionId
               << ", mediaType: " << GetMediaTypeName(mediaType) << ", server addr: " << address << ", port: " << port
               << ", ret: " << r << ", sock: " << ch->sock.load();
    return r;
}

int32_t MediaSocket::MediaCreateSocketOfSockChan(const std::shared_ptr<SockChannel>& ch)
{
    if (!ch) {
        MEDIA_LOGI << "MediaCreateSocketOfSockChan start. session id: " << sessionId;
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    const uint32_t mediaType = ch->mediaType;
    MEDIA_LOGI << "MediaCreateSocketOfSockChan start. session id: " << sessionId
               << ", mediaType: " << GetMediaTypeName(mediaType);
    const int32_t sock = NewChannelSock(mediaType);
    if (sock == MORL_INVALID_SOCKET) {
        MEDIA_LOGW << "Create socket error. session id: " << sessionId
                   << ", mediaType: " << GetMediaTypeName(mediaType) << ", error: " << MORL_GetLastSocketErr();
        return MEDIA_SOCKET_ERRCODE_CREATE_SOCKET;
    }
    {
        std::lock_guard<std::mutex> barrier(ch->mutex);
    }
    ch->sock = sock;
    MEDIA_LOGI << "Create socket succ. session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
               << ", sock: " << sock;
    return 0;
}

int32_t MediaSocket::MediaCreateChannelOfSockChan(const std::shared_ptr<SockChannel>& ch, const std::string& address,
                                                  uint16_t port, const std::string& domain)
{
    if (!ch) {
        MEDIA_LOGI << "MediaCreateChannelOfSockChan start. session id: " << sessionId;
        return MEDIA_SOCKET_ERRCODE_INVALID_PARAM;
    }
    const uint32_t mediaType = ch->mediaType;
    MEDIA_LOGI << "Create channel start. session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
    ch->state = SockChannel::Connecting;
    const int32_t sock = ch->sock;
    const int32_t r = MediaConnect(sock, address, port, domain);
    const int nameRet = MarkConnectedSock(ch, sock);
    MEDIA_LOGI << ", session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
               << ", port: " << ch->localPort.load() << ", sockNameRet: " << nameRet
               << ", lastError: " << MORL_GetLastSocketErr() << ", sock: " << sock;
    if (r == 0) {
        auto owner = GetSocketInfo(mediaType);
        if (!owner || std::find(owner->sockMgr.begin(), owner->sockMgr.end(), ch) == owner->sockMgr.end()) {
            // The media type was closed while this channel connected.
            CloseChannelSock(ch);
            ch->localPort = 0;
            ch->state = SockChannel::Closed;
            return MEDIA_SOCKET_ERRCODE_NO_CREATE;
        }
        ch->recvReset = true;
        ch->state = SockChannel::Connected;
        size_t start = 0;
        size_t end = 0;
        GetMediaFdsIndex(mediaType, start, end);
        for (size_t i = start; i < end; ++i) {
            if (UnpackFd(fds[i].load()).fd == MORL_INVALID_SOCKET) {
                SetFd(i, sock, kPollReadEvents);
                break;
            }
        }
        MEDIA_LOGI << "MediaCreateChannelOfSockChan succ. session id: " << sessionId
                   << ", mediaType: " << GetMediaTypeName(mediaType) << ", server addr: " << address
                   << ", port: " << port;
        return 0;
    }
    MEDIA_LOGE << "connect error! session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
               << ", serverAddr: " << address << ", port:" << port << ", ret: " << r << ", sock: " << sock;
    CloseChannelSock(ch);
    ch->localPort = 0;
    ch->state = SockChannel::Closed;
    return r;
}

void MediaSocket::MediaCloseSocketOfSockChan(const std::shared_ptr<SockChannel>& ch)
{
    if (!ch) {
        MEDIA_LOGI << "MediaCloseSocketOfSockChan start. session id: " << sessionId;
        return;
    }
    const int32_t sock = ch->sock;
    MEDIA_LOGI << "close socket start. session id: " << sessionId << ", mediaType: " << GetMediaTypeName(ch->mediaType)
               << ", sock: " << sock;
    ClearFdsOfSock(ch->mediaType, sock);
    CloseChannelSock(ch);
    ch->localPort = 0;
    ch->state = SockChannel::Closed;
}

int32_t MediaSocket::MediaReCreateChannel(uint32_t mediaType, bool makeSockets)
{
    MEDIA_LOGI << "ReCreate channel start. session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType);
    int32_t refused = 0;
    auto info = SocketInfoToReCreate(mediaType, refused);
    if (!info) {
        return refused;
    }
    ReCreateGuard guard(*info);
    if (!guard) {
        MEDIA_LOGW << "re-creation already under way, session id: " << sessionId
                   << ", mediaType: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_FAILED;
    }
    std::string address;
    std::string domain;
    uint16_t port = 0;
    info->GetServer(address, port, domain);
    size_t start = 0;
    size_t end = 0;
    GetMediaFdsIndex(mediaType, start, end);
    for (size_t i = start; i < end; ++i) {
        SetFd(i, MORL_INVALID_SOCKET, 0);
    }
    if (makeSockets) {
        for (const auto& ch : info->sockMgr) {
            if (ch) {
                CloseChannelSock(ch);
                ch->state = SockChannel::Connecting;
            }
        }
        MediaCreateSocket(mediaType, static_cast<uint32_t>(info->sockMgr.size()));
    }
    const int32_t r = MediaCreateChannel(mediaType, address, port, domain);
    MEDIA_LOGI << "ReCreate connect succ. session id: " << sessionId << ", mediaType: " << GetMediaTypeName(mediaType)
               << ", server addr: " << address << ", port: " << port << ", ret: " << r;
    return r;
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
    ch->dirtyBytesUntold += len;
    dirtyUntold = true;
    TellDirtyData(ch);
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
