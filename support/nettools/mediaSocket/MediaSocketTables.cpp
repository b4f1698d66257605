// Tables and records of a session: the per-type tables, the channel and
// media type records, the poll records and the look-ups over them. Run by
// any thread: the callers' threads through the exports and the session's
// receive, send and repair threads; MediaSocket.h says who writes what.
#include "mediaSocket/MediaSocket.h"

#include <algorithm>
#include <sstream>

#include "mediaSocket/MediaLog.h"
#include "mediaSocket/MediaVocabulary.h"

namespace {

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

SocketInfo::Server SocketInfo::GetServer() const
{
    std::lock_guard<std::mutex> g(serverMutex);
    return Server{serverAddr, port, domain};
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

namespace {

// The counters of a media type, then those of each of its channels.
template <typename Part>
std::string StatsText(const SocketInfo& info, const char* title, Part part)
{
    std::ostringstream os;
    os << title;
    part(os, info.stats);
    for (const auto& ch : info.sockMgr) {
        if (ch) {
            os << ", [sock: " << ch->sock.load() << "], ";
            part(os, ch->stats);
        }
    }
    return os.str();
}

} // namespace

std::string GetRecvStatsText(const SocketInfo& info)
{
    return StatsText(info, ", [RECV]: ", [](std::ostringstream& os, const MediaStatsCounters& s) {
        os << "writeBufferErrCount: " << MediaStatsCounters::Load(s.writeBufferErrCount)
           << ", readHeadErrCount: " << MediaStatsCounters::Load(s.readHeadErrCount)
           << ", dataLoss: " << MediaStatsCounters::Load(s.dataLoss) << GetPacketCountsText(s.recv);
    });
}

std::string GetSendStatsText(const SocketInfo& info)
{
    return StatsText(info, ", [SEND]: ", [](std::ostringstream& os, const MediaStatsCounters& s) {
        os << "sendCount: " << MediaStatsCounters::Load(s.sendCount)
           << ", sendSuccessCount: " << MediaStatsCounters::Load(s.sendSuccessCount)
           << ", sendErrCount: " << MediaStatsCounters::Load(s.sendErrCount) << GetPacketCountsText(s.send)
           << ", readOnePktErrCount: " << MediaStatsCounters::Load(s.readOnePktErrCount)
           << ", noConnectSendCount: " << MediaStatsCounters::Load(s.noConnectSendCount);
    });
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

// ---- session tables ----------------------------------------------------------------

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

bool MediaSocket::IsPublished(const std::shared_ptr<SocketInfo>& info) const
{
    return info && GetSocketInfo(info->mediaType) == info;
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
    if (index >= kMediaFdCount) {
        return;
    }
    const uint64_t packed = PackFd(MORL_PollFd{sock, events, 0});
    if (fds[index].exchange(packed) != packed) {
        WakeRecvThread(); // a new socket is polled at once, a gone one no more
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

std::shared_ptr<SocketInfo> MediaSocket::FindCreated(uint32_t mediaType, int32_t& refused) const
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

void MediaSocket::ClearFdsOfType(uint32_t mediaType)
{
    size_t start = 0;
    size_t end = 0;
    GetMediaFdsIndex(mediaType, start, end);
    for (size_t i = start; i < end; ++i) {
        SetFd(i, MORL_INVALID_SOCKET, 0);
    }
}
