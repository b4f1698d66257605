// The MORL_Media* exports: each finds its session and forwards.
#include "mediaSocket/MediaSocketManager.h"
#include "zeph_nettools/media_socket.h"

namespace {

std::string Text(const char* s) { return s != nullptr ? std::string(s) : std::string(); }

std::shared_ptr<MediaSocket> Session(uint32_t sessionId)
{
    return MediaSocketManager::Instance().MediaGetMediaSocketPtr(sessionId);
}

} // namespace

extern "C" {

ZEPH_API int32_t MORL_MediaCreateSocket(uint32_t sessionId, uint32_t mediaType, uint32_t socketCount)
{
    return MediaSocketManager::Instance().MediaCreateSocket(sessionId, mediaType, socketCount);
}

ZEPH_API int32_t MORL_MediaCloseSocket(uint32_t sessionId, uint32_t mediaType)
{
    return MediaSocketManager::Instance().MediaCloseSocket(sessionId, mediaType);
}

ZEPH_API int32_t MORL_MediaCreateChannel(uint32_t sessionId, uint32_t mediaType, const char* serverAddr,
                                         uint16_t port, const char* domain)
{
    auto s = Session(sessionId);
    return s ? s->MediaCreateChannel(mediaType, Text(serverAddr), port, Text(domain))
             : MEDIA_SOCKET_ERRCODE_NOT_FOUND_MEDIA_SOCKET;
}

ZEPH_API int32_t MORL_MediaReCreateChannel(uint32_t sessionId, uint32_t mediaType)
{
    auto s = Session(sessionId);
    return s ? s->MediaReCreateChannel(mediaType, true) : MEDIA_SOCKET_ERRCODE_NOT_FOUND_MEDIA_SOCKET;
}

ZEPH_API int32_t MORL_MediaSend(uint32_t sessionId, uint32_t pktType, uint32_t mediaType, const uint8_t* data,
                                uint32_t len, uint32_t channel)
{
    auto s = Session(sessionId);
    return s ? s->MediaSend(pktType, mediaType, data, len, channel) : MEDIA_SOCKET_ERRCODE_NOT_FOUND_MEDIA_SOCKET;
}

ZEPH_API int32_t MORL_MediaSetChannelBufSize(uint32_t sessionId, uint32_t mediaType, uint32_t size)
{
    auto s = Session(sessionId);
    return s ? s->MediaSetChannelBufSize(mediaType, size) : MEDIA_SOCKET_ERRCODE_NOT_FOUND_MEDIA_SOCKET;
}

ZEPH_API int32_t MORL_MediaGetChannelBufSize(uint32_t sessionId, uint32_t mediaType)
{
    auto s = Session(sessionId);
    return s ? s->MediaGetChannelBufSize(static_cast<int32_t>(mediaType)) : MEDIA_SOCKET_ERRCODE_NOT_FOUND_MEDIA_SOCKET;
}

ZEPH_API int32_t MORL_MediaSetTcpBufSize(uint32_t sessionId, uint32_t mediaType, uint32_t size, uint32_t direction)
{
    auto s = Session(sessionId);
    return s ? s->MediaSetTcpBufSize(mediaType, size, direction) : MEDIA_SOCKET_ERRCODE_NOT_FOUND_MEDIA_SOCKET;
}

ZEPH_API int32_t MORL_MediaRegisterRecvCallback(uint32_t sessionId, uint32_t mediaType, MediaRecvCallback callback)
{
    auto s = Session(sessionId);
    return s ? s->MediaRegisterRecvCallback(mediaType, callback) : MEDIA_SOCKET_ERRCODE_NOT_FOUND_MEDIA_SOCKET;
}

ZEPH_API int32_t MORL_MediaSetEventCallback(uint32_t sessionId, uint32_t mediaType, MediaEventCallback callback)
{
    auto s = Session(sessionId);
    return s ? s->MediaSetEventCallback(mediaType, callback) : MEDIA_SOCKET_ERRCODE_NOT_FOUND_MEDIA_SOCKET;
}

ZEPH_API int32_t MORL_MediaGetStats(uint32_t sessionId, uint32_t mediaType, MediaStats* stats)
{
    auto s = Session(sessionId);
    return s ? s->MediaGetStats(mediaType, stats) : MEDIA_SOCKET_ERRCODE_NOT_FOUND_MEDIA_SOCKET;
}

ZEPH_API uint32_t MORL_MediaGetFirstSessionId(void) { return 1; }

} // extern "C"
