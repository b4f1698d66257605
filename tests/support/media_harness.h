// Fixtures for media transport tests, run on the test's thread; callbacks record on the
// library's threads, found by session id (each test uses ids of its own).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mediaSocket/MediaSocketManager.h"
#include "zeph_nettools/media_socket.h"

namespace zeph_test {

constexpr uint32_t kAudio = ZEPH_MEDIA_AUDIO;
constexpr uint32_t kVideo = ZEPH_MEDIA_VIDEO;
constexpr uint32_t kData = ZEPH_MEDIA_DATA;

using Bytes = std::vector<uint8_t>;
// Several figures compared at once: EXPECT_EQ((Figures{a, b}), (Figures{1, 2})).
using Figures = std::vector<uint64_t>;

// A body of n bytes whose content depends on `tag`.
Bytes Body(size_t n, uint8_t tag = 0);
// A whole framed packet as the transport puts it on the wire.
Bytes Framed(uint32_t pktType, uint32_t mediaType, const Bytes& body, uint32_t channel = 0, uint32_t pkgSeq = 1);
// An RTP body (version 2) of `len` bytes, len >= 12.
Bytes RtpBody(uint16_t seq, uint32_t ssrc, size_t len = 40);
uint16_t RtpSeqOf(const Bytes& body);

// The transport's log lines (bounded) from the first session on, matched by all fragments.
struct MediaLog {
    static void Install();
    static int Count(const std::vector<std::string>& fragments);
    static bool WaitFor(const std::vector<std::string>& fragments, int timeoutMs);
    static std::vector<std::string> Find(const std::vector<std::string>& fragments);
};

struct MediaPacket {
    uint32_t pktType = 0;
    uint32_t mediaType = 0;
    Bytes body;
};

class MediaSession {
public:
    explicit MediaSession(uint32_t sessionId);
    ~MediaSession(); // closes every media type still open

    MediaSession(const MediaSession&) = delete;
    MediaSession& operator=(const MediaSession&) = delete;

    uint32_t id() const { return id_; }

    // MORL_MediaCreateSocket, then (unless told otherwise) both callbacks.
    int32_t Create(uint32_t mediaType, uint32_t count = 4, bool recvCallback = true, bool eventCallback = true);
    int32_t Connect(uint32_t mediaType, uint16_t port, const char* addr = "127.0.0.1", const char* domain = nullptr)
    {
        return MORL_MediaCreateChannel(id_, mediaType, addr, port, domain);
    }
    // Create, then Connect to 127.0.0.1:port; true when both succeeded.
    bool Open(uint32_t mediaType, uint16_t port, uint32_t count = 1)
    {
        return Create(mediaType, count) == 0 && Connect(mediaType, port) == 0;
    }
    int32_t Send(uint32_t mediaType, uint32_t pktType, const Bytes& body, uint32_t channel = 0)
    {
        return MORL_MediaSend(id_, pktType, mediaType, body.data(), uint32_t(body.size()), channel);
    }
    int32_t Close(uint32_t mediaType) { return MORL_MediaCloseSocket(id_, mediaType); }

    std::vector<MediaPacket> Received(uint32_t mediaType) const;
    size_t ReceivedCount(uint32_t mediaType) const { return Received(mediaType).size(); }
    bool WaitReceived(uint32_t mediaType, size_t n, int timeoutMs = 5000) const;
    bool WaitBody(uint32_t mediaType, const Bytes& body, int timeoutMs = 3000) const;

    std::vector<MediaEventInfo> Events(uint32_t mediaType) const;
    size_t EventCount(uint32_t mediaType, uint32_t eventId) const;
    bool WaitEvent(uint32_t mediaType, uint32_t eventId, int timeoutMs = 5000) const;
    // The sum of the error codes of those events (dirty data: the bytes dropped).
    uint64_t EventCodeSum(uint32_t mediaType, uint32_t eventId) const;

    // The record of MORL_MediaGetStats; all zero when the call fails.
    MediaStats Stats(uint32_t mediaType) const;

    // The session's inner records (null when absent); hold them only briefly.
    std::shared_ptr<MediaSocket> Object() const;
    std::shared_ptr<SocketInfo> Info(uint32_t mediaType) const;
    std::shared_ptr<SockChannel> Channel(uint32_t mediaType, size_t index) const;

    // Run on the library's thread inside the callbacks, after recording.
    void OnReceive(std::function<void(const MediaPacket&)> hook);
    void OnEvent(std::function<void(uint32_t mediaType, MediaEventInfo)> hook);

    static void RecvCallback(uint32_t sessionId, uint32_t pktType, uint32_t mediaType, const uint8_t* data,
                             uint32_t len);
    static void EventCallback(uint32_t sessionId, uint32_t mediaType, MediaEventInfo event);

    struct State;

private:
    uint32_t id_;
    std::shared_ptr<State> state_;
};

// The id of this process's thread of that name (cut to 15 characters); 0 if none.
long ThreadId(const std::string& name);

// A TCP listener on 127.0.0.1 that accepts nothing until told: with backlog b, b + 1 connects
// complete and the rest time out; once it stops listening, new connects are refused.
class BacklogListener {
public:
    explicit BacklogListener(int backlog, uint16_t port = 0);
    ~BacklogListener();
    BacklogListener(const BacklogListener&) = delete;
    BacklogListener& operator=(const BacklogListener&) = delete;

    uint16_t port() const { return port_; }
    size_t AcceptAll(); // accepts what is queued; returns how many are held
    void StopListening();
    const std::vector<int>& connections() const { return conns_; }

private:
    int fd_ = -1;
    uint16_t port_ = 0;
    std::vector<int> conns_;
};

} // namespace zeph_test
