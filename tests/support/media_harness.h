// Fixtures for tests of the media transport.
//
// The transport's callbacks carry no user pointer, only a session id, so
// every MediaSession registers itself under its id and the callbacks record
// into it. Each test uses session ids of its own, so tests of one program
// can also run one after another in a single process.
//
//   MediaSession s(2101);
//   ASSERT_EQ(s.Create(ZEPH_MEDIA_VIDEO), 0);
//   ASSERT_EQ(s.Connect(ZEPH_MEDIA_VIDEO, peer.port()), 0);
//   s.Send(ZEPH_MEDIA_VIDEO, ZEPH_MEDIA_PKT_SIGNAL, Body(100));
//   EXPECT_TRUE(s.WaitReceived(ZEPH_MEDIA_VIDEO, 1));
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mediaSocket/MediaSocketManager.h"
#include "zeph_nettools/media_socket.h"

namespace zeph_test {

using Bytes = std::vector<uint8_t>;

// A body of n bytes whose content depends on `tag`, so that bodies of
// different packets differ.
Bytes Body(size_t n, uint8_t tag = 0);
// A whole framed packet as the transport puts it on the wire.
Bytes Framed(uint32_t pktType, uint32_t mediaType, const Bytes& body, uint32_t channel = 0, uint32_t pkgSeq = 1);
// An RTP body (version 2) of `len` bytes, len >= 12.
Bytes RtpBody(uint16_t seq, uint32_t ssrc, size_t len = 40);
uint16_t RtpSeqOf(const Bytes& body);

// The transport's log lines. The sink is installed on first use and stays
// for the life of the process; every line is kept (up to a bound).
struct MediaLog {
    static void Install();
    // Lines holding every one of the fragments.
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
    // Closes every media type still open, so that the session leaves the table.
    ~MediaSession();
    MediaSession(const MediaSession&) = delete;
    MediaSession& operator=(const MediaSession&) = delete;

    uint32_t id() const { return id_; }

    // MORL_MediaCreateSocket, then both callbacks (unless told otherwise)
    // when it succeeded.
    int32_t Create(uint32_t mediaType, uint32_t count = 4, bool recvCallback = true, bool eventCallback = true);
    int32_t Connect(uint32_t mediaType, uint16_t port, const char* addr = "127.0.0.1", const char* domain = nullptr);
    int32_t Send(uint32_t mediaType, uint32_t pktType, const Bytes& body, uint32_t channel = 0);
    int32_t Close(uint32_t mediaType);

    std::vector<MediaPacket> Received(uint32_t mediaType) const;
    size_t ReceivedCount(uint32_t mediaType) const;
    bool WaitReceived(uint32_t mediaType, size_t n, int timeoutMs = 5000) const;

    std::vector<MediaEventInfo> Events(uint32_t mediaType) const;
    size_t EventCount(uint32_t mediaType, uint32_t eventId) const;
    bool WaitEvent(uint32_t mediaType, uint32_t eventId, int timeoutMs = 5000) const;

    // The record of MORL_MediaGetStats; all zero when the call fails.
    MediaStats Stats(uint32_t mediaType) const;

    // Inspection of the session's inner records (null when absent). Hold the
    // session pointer only briefly: while it is held the session cannot end.
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

// A TCP listener on 127.0.0.1 with a short accept queue that accepts
// nothing until told: with backlog b, b + 1 connects complete and the rest
// time out. Then it accepts what is queued, and can stop listening so that
// new connects are refused while the accepted ones live on.
class BacklogListener {
public:
    // port 0 takes a free one.
    explicit BacklogListener(int backlog, uint16_t port = 0);
    ~BacklogListener();
    BacklogListener(const BacklogListener&) = delete;
    BacklogListener& operator=(const BacklogListener&) = delete;

    uint16_t port() const { return port_; }
    // Accepts every connection now queued; returns how many are held.
    size_t AcceptAll();
    void StopListening();
    const std::vector<int>& connections() const { return conns_; }

private:
    int fd_ = -1;
    uint16_t port_ = 0;
    std::vector<int> conns_;
};

} // namespace zeph_test
