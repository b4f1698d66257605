// The front of the media transport: the table of up to six sessions, and
// the calls behind the MORL_Media* exports.
#pragma once

#include <cstdint>
#include <memory>
#include <shared_mutex>

#include "mediaSocket/MediaSocket.h"

constexpr size_t kMaxMediaSessions = 6;

class MediaSocketManager {
public:
    // Made on first use and never destroyed: sessions' threads and closing
    // threads may still run while the process exits.
    static MediaSocketManager& Instance();

    std::shared_ptr<MediaSocket> MediaGetMediaSocketPtr(uint32_t sessionId);
    int32_t MediaCreateSocket(uint32_t sessionId, uint32_t mediaType, uint32_t socketCount);
    int32_t MediaCloseSocket(uint32_t sessionId, uint32_t mediaType);
    // Sessions in the table now.
    size_t SessionCount();

private:
    MediaSocketManager() = default;
    // Lets a session out of the table go on a thread of its own.
    static void StartClosingThread(std::shared_ptr<MediaSocket> session);
    // Drops the session once it holds the last share, after 3 s at most.
    static void ClosingThread(std::shared_ptr<MediaSocket> held);

    std::shared_ptr<MediaSocket> mediaSockets[kMaxMediaSessions];
    std::shared_mutex mediaSocketLock;
};
