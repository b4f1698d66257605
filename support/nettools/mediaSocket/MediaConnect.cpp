// Creating and connecting channels. Runs on the caller's thread
// (MediaCreateSocket, MediaCreateChannel), on the connect threads that
// MediaCreateChannel starts and joins (one per channel, ConnectChannel), and
// on the repair code's threads when a channel or media type is made anew.
// The slow start thread is detached and reaches the session only through
// the exports.
#include "mediaSocket/MediaSocket.h"

#include <algorithm>
#include <new>

#include "commonlib/zeph_commonlib.h"
#include "mediaSocket/MediaLimits.h"
#include "mediaSocket/MediaLog.h"
#include "mediaSocket/MediaVocabulary.h"
#include "securec/securec.h"
#include "zeph_nettools/socket_dscp.h"
#include "zeph_nettools/stun.h"

using namespace zeph_media;

namespace {

constexpr int kConnectTimeoutMs = 2000;
constexpr int32_t kSockBufSize = 0x40000;
constexpr int kSlowStartCount = 100;
constexpr uint32_t kSlowStartIntervalMs = 50;
constexpr uint32_t kStunPacketMax = 256;
// What the proxy layer answers when the proxy demanded authentication.
constexpr int kProxyAuthRefused = 16;

// Host-order port of a Windows-layout address (port in network order).
uint16_t PortOf(const MORL_SockAddrIn& addr)
{
    uint8_t b[2];
    memcpy_s(b, sizeof(b), &addr.sin_port, sizeof(addr.sin_port));
    return static_cast<uint16_t>((b[0] << 8) | b[1]);
}

} // namespace

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

    // With no connection kept, what the send ring holds was meant for
    // connections that are gone: those bytes, and only those, are dropped
    // once a new connection stands. A packet accepted after that moment is
    // fresh, and the send thread leaves the ring alone meanwhile.
    const auto staleRing = kept ? nullptr : info->GetSendBuffer();
    int32_t staleBytes = 0;
    if (staleRing) {
        std::lock_guard<std::mutex> g(info->mutex);
        staleBytes = staleRing->GetUsedSize();
    }
    struct SendHold {
        SocketInfo& info;
        MediaSocket& owner;
        const bool on;
        ~SendHold()
        {
            if (on) {
                info.holdSend = false;
                owner.WakeSendThread();
            }
        }
    } hold{*info, *this, staleBytes > 0};
    if (hold.on) {
        info->holdSend = true;
    }

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
    if (staleBytes > 0 && info->GetSendBuffer() == staleRing) {
        {
            std::lock_guard<std::mutex> g(info->mutex);
            staleRing->Skip(staleBytes);
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

void MediaSocket::MediaSocketTcpAccelerateSlowStart(uint32_t mediaType)
{
    int32_t refused = 0;
    if (!FindCreated(mediaType, refused)) {
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

// ---- one channel ------------------------------------------------------------------

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
