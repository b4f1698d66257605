#include "mediaSocket/MediaSocketManager.h"

#include <new>
#include <system_error>
#include <thread>

#include "mediaSocket/MediaLog.h"
#include "mediaSocket/MediaVocabulary.h"
#include "os_adapter/morl_os.h"

namespace {

constexpr int kCloseWaitTries = 600; // 600 x 5 ms: 3 seconds
constexpr uint32_t kCloseWaitMs = 5;
constexpr uint32_t kCloseSettleMs = 100;

// Destroying a session joins its receive and send threads, which cannot
// happen on one of them. Should the last share of a session ever be dropped
// on one of its own threads (a callback that still held one when the
// closing thread gave up), the destruction moves to a thread of its own.
struct MediaSocketDeleter {
    void operator()(MediaSocket* session) const
    {
        if (session == nullptr) {
            return;
        }
        if (!session->IsSessionThread()) {
            delete session;
            return;
        }
        try {
            std::thread([session] { delete session; }).detach();
        } catch (const std::exception& e) {
            // Leaking the session is better than a thread joining itself.
            MEDIA_LOGE << "cannot free the session off its own thread: " << e.what();
        }
    }
};

} // namespace

MediaSocketManager& MediaSocketManager::Instance()
{
    static MediaSocketManager& instance = *new MediaSocketManager();
    return instance;
}

std::shared_ptr<MediaSocket> MediaSocketManager::MediaGetMediaSocketPtr(uint32_t sessionId)
{
    if (sessionId == 0) {
        MEDIA_LOGE << "session id is 0";
        return nullptr;
    }
    std::shared_lock<std::shared_mutex> g(mediaSocketLock);
    for (const auto& session : mediaSockets) {
        if (session && session->GetSessionId() == sessionId) {
            return session;
        }
    }
    return nullptr;
}

size_t MediaSocketManager::SessionCount()
{
    std::shared_lock<std::shared_mutex> g(mediaSocketLock);
    size_t n = 0;
    for (const auto& session : mediaSockets) {
        n += session ? 1 : 0;
    }
    return n;
}

int32_t MediaSocketManager::MediaCreateSocket(uint32_t sessionId, uint32_t mediaType, uint32_t socketCount)
{
    if (sessionId == 0) {
        MEDIA_LOGE << "session id is 0, media type: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_SESSION_ID_ZERO;
    }
    std::shared_ptr<MediaSocket> session;
    bool made = false;
    {
        std::unique_lock<std::shared_mutex> g(mediaSocketLock);
        size_t empty = kMaxMediaSessions;
        for (size_t i = 0; i < kMaxMediaSessions; ++i) {
            if (!mediaSockets[i]) {
                if (empty == kMaxMediaSessions) {
                    empty = i;
                }
            } else if (mediaSockets[i]->GetSessionId() == sessionId) {
                session = mediaSockets[i];
            }
        }
        if (!session) {
            if (empty == kMaxMediaSessions) {
                return MEDIA_SOCKET_ERRCODE_SESSION_TABLE_FULL;
            }
            try {
                session = std::shared_ptr<MediaSocket>(new MediaSocket(sessionId), MediaSocketDeleter());
            } catch (const std::exception& e) {
                MEDIA_LOGE << "new MediaSocket failed: " << e.what() << ", session id: " << sessionId;
                return MEDIA_SOCKET_ERRCODE_NEW_MEMORY;
            }
            mediaSockets[empty] = session;
            made = true;
        }
    }
    const int32_t result = session->MediaCreateSocket(mediaType, socketCount);
    if (result != 0 && made) {
        // A session whose first media type could not be made holds nothing:
        // it gives its slot back, unless a concurrent create filled it.
        bool freed = false;
        {
            std::unique_lock<std::shared_mutex> g(mediaSocketLock);
            if (!session->HasAnySocketInfo()) {
                for (auto& s : mediaSockets) {
                    if (s == session) {
                        s.reset();
                        freed = true;
                    }
                }
            }
        }
        if (freed) {
            StartClosingThread(std::move(session));
        }
    }
    return result;
}

void MediaSocketManager::StartClosingThread(std::shared_ptr<MediaSocket> session)
{
    const uint32_t sessionId = session->GetSessionId();
    // The session's threads and any call in flight hold shares, and this
    // close may itself run in a callback on one of those threads: the
    // object is let go on a thread of its own once it is the last owner.
    try {
        std::thread(&MediaSocketManager::ClosingThread, std::move(session)).detach();
    } catch (const std::exception& e) {
        MEDIA_LOGE << "start closing thread failed: " << e.what() << ", session id: " << sessionId;
    }
}

void MediaSocketManager::ClosingThread(std::shared_ptr<MediaSocket> held)
{
    for (int i = 0; i < kCloseWaitTries; ++i) {
        if (held.use_count() == 1) {
            held.reset();
            break;
        }
        MORL_SleepMs(kCloseWaitMs);
    }
    MEDIA_LOGI << "MediaSocket destructor end.";
    held.reset();
}

int32_t MediaSocketManager::MediaCloseSocket(uint32_t sessionId, uint32_t mediaType)
{
    if (sessionId == 0) {
        MEDIA_LOGE << "session id is 0, media type: " << GetMediaTypeName(mediaType);
        return MEDIA_SOCKET_ERRCODE_SESSION_ID_ZERO;
    }
    std::shared_ptr<MediaSocket> session;
    {
        std::unique_lock<std::shared_mutex> g(mediaSocketLock);
        for (const auto& s : mediaSockets) {
            if (s && s->GetSessionId() == sessionId) {
                session = s;
                break;
            }
        }
    }
    if (!session) {
        MEDIA_LOGE << "MEDIA_SOCKET_ERRCODE_NOT_FOUND_MEDIA_SOCKET. mediaSockIdx:" << -1;
        return MEDIA_SOCKET_ERRCODE_NOT_FOUND_MEDIA_SOCKET;
    }
    const int32_t result = session->MediaCloseSocket(mediaType);

    if (!session->HasAnySocketInfo()) {
        MEDIA_LOGI << "MediaSocket is empty. free MediaSocket. session id: " << sessionId << ", media type: " << GetMediaTypeName(mediaType);
        {
            std::unique_lock<std::shared_mutex> g(mediaSocketLock);
            for (auto& s : mediaSockets) {
                if (s == session) {
                    s.reset();
                }
            }
        }
        StartClosingThread(session);
        session.reset();
        // Closing Aux or MS gives the peer a moment before the caller goes
        // on; every other session keeps working meanwhile.
        if (mediaType == 2 || mediaType == 3) {
            MORL_SleepMs(kCloseSettleMs);
        }
    }
    MEDIA_LOGI << "MediaCloseSocket end. session id: " << sessionId << ", media type: " << GetMediaTypeName(mediaType);
    return result;
}
