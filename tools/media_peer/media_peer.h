// A media server on loopback for tests, benchmarks and the zeph-media-peer
// program: accepts TCP channels, cuts the byte stream into packets by the
// 16-byte private head, and echoes or sinks them. On command it misbehaves
// the way real paths do: closes channels, sends noise, answers with an HTTP
// 403 page, dribbles packets out one byte at a time, or delivers audio RTP
// out of order across channels. It can also play a hostile server that
// floods audio with SSRCs it invents.
//
// One thread accepts, one thread serves each connection. stop() (and the
// destructor) wakes and joins every one of them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mediaSocket/PrivateHead.h"

namespace zeph_peers {

enum class MediaPeerMode {
    Echo, // every framed packet goes back on its connection, unchanged
    Sink, // packets are only counted and kept
};

// What a connection does besides echoing. Noise and the 403 page are sent
// once, before the next packet that would be echoed (also in sink mode,
// where nothing else is sent).
struct MediaPeerBehaviour {
    enum class Forbidden {
        None,
        BeforeEcho, // the page, then the packet as usual
    };
    int64_t closeAfterPackets = -1; // close once this many packets arrived; -1 never
    size_t noiseBytes = 0;
    Forbidden forbidden = Forbidden::None;
    // SSRC flood: before each audio RTP packet that it echoes, the
    // connection sends ssrcFlood audio RTP packets of SSRCs never used
    // before, ssrcFloodDepth packets each: the first, then numbers that skip
    // one, so that a receiver that sorts holds all but the first.
    uint32_t ssrcFlood = 0;
    uint32_t ssrcFloodDepth = 1;
};

// Lifetime counts of one connection.
struct MediaPeerConnection {
    bool open = false;
    uint64_t packets = 0;
    uint64_t bytes = 0; // framed bytes, heads included
    uint64_t stunRequests = 0;
    uint64_t noiseBytes = 0; // bytes dropped because no head started there
    std::vector<PrivateHead> heads;
};

class MediaPeer {
public:
    static constexpr size_t kMediaTypes = 5; // index 5 of packetsByMedia counts anything else

    explicit MediaPeer(MediaPeerMode mode = MediaPeerMode::Echo);
    ~MediaPeer();
    MediaPeer(const MediaPeer&) = delete;
    MediaPeer& operator=(const MediaPeer&) = delete;

    // Binds and listens on ip:port (0 picks a free port). On failure returns
    // false and, when `error` is given, says why.
    bool start(const std::string& ip = "127.0.0.1", uint16_t port = 0, std::string* error = nullptr);
    void stop();

    uint16_t port() const { return m_port; }
    const std::string& ip() const { return m_ip; }

    // Counters over all connections.
    uint64_t accepted() const { return m_accepted.load(); }
    uint64_t openConnections() const { return m_open.load(); }
    uint64_t packets(size_t mediaType) const;
    uint64_t totalPackets() const;
    uint64_t bytes() const { return m_bytes.load(); }
    uint64_t stunRequests() const { return m_stun.load(); }

    // Connections are numbered 0, 1, ... in the order they were accepted.
    MediaPeerConnection connection(size_t index) const;

    // Misbehaviour on command. setBehaviour applies to a connection already
    // accepted (false if there is none with that index), setNextBehaviour to
    // the next one accepted; closeNow shuts a connection down at once.
    bool setBehaviour(size_t index, const MediaPeerBehaviour& behaviour);
    void setNextBehaviour(const MediaPeerBehaviour& behaviour);
    bool closeNow(size_t index);

    // Holds back the next order.size() audio RTP packets (packet type 0,
    // media type 1) from any connection, then echoes them in one go:
    // order[i] names the held packet (by arrival) sent i-th, and the sends
    // go round-robin over the open connections. order must be a permutation
    // of 0..n-1; false otherwise.
    bool reorderAudio(const std::vector<size_t>& order);

private:
    struct Conn;
    void acceptLoop();
    void serve(std::shared_ptr<Conn> conn);
    // False when the connection is to close after this packet.
    bool handlePacket(Conn& conn, const uint8_t* data, size_t len, const PrivateHead& head);
    bool sendPacket(Conn& conn, const uint8_t* data, size_t len);
    bool sendSsrcFlood(Conn& conn, uint32_t streams, uint32_t depth);

    const MediaPeerMode m_mode;
    std::string m_ip;
    uint16_t m_port = 0;
    int m_listenFd = -1;
    int m_wake = -1; // eventfd: readable once stop() begins
    std::thread m_acceptThread;

    mutable std::mutex m_mutex; // guards everything below
    std::vector<std::shared_ptr<Conn>> m_conns;
    std::vector<std::thread> m_threads;
    MediaPeerBehaviour m_next;
    bool m_haveNext = false;
    std::vector<size_t> m_reorder;             // scripted order; empty when not reordering
    std::vector<std::vector<uint8_t>> m_held;  // audio packets held back so far
    size_t m_roundRobin = 0;

    std::atomic<uint64_t> m_accepted{0};
    std::atomic<uint64_t> m_open{0};
    std::atomic<uint64_t> m_byMedia[kMediaTypes + 1] = {};
    std::atomic<uint64_t> m_bytes{0};
    std::atomic<uint64_t> m_stun{0};
    std::atomic<uint32_t> m_floodSsrc{0xF1000000}; // next SSRC of a flood
};

// Splits "IP:PORT"; false when malformed.
bool ParseListenAddress(const std::string& text, std::string& ip, uint16_t& port);

} // namespace zeph_peers
