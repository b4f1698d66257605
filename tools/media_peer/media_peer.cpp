#include "media_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <system_error>

#include "inc/byte_io.h"
#include "inc/stun_wire.h"
#include "zeph_nettools/media_socket.h"

namespace zeph_peers {

namespace {

// A plain 403 as an HTTP proxy or firewall in the path would answer.
const char kForbiddenPage[] =
    "HTTP/1.1 403 Forbidden\r\n"
    "Content-Type: text/html\r\n"
    "Content-Length: 61\r\n"
    "Connection: close\r\n"
    "\r\n"
    "<html><body><h1>403 Forbidden</h1>Access denied</body></html>";

// STUN messages sent unframed on a media channel are bounded like framed
// packets: a longer declared length is taken for noise.
constexpr size_t kMaxStunSize = kMaxMediaPacketSize;

enum class Cut { NeedMore, Packet, Stun, Noise };

// Looks at the start of the received bytes: a framed packet, an unframed
// STUN Binding Request, too little to tell, or one byte of noise.
Cut CutOne(const uint8_t* data, size_t size, PrivateHead& head, size_t& length)
{
    if (size >= 1 && data[0] == 0x00) {
        if (size >= 2 && data[1] != 0x01) return Cut::Noise;
        if (size < 8) return Cut::NeedMore;
        zeph::ByteReader r(data, size);
        uint16_t type = 0, len = 0;
        uint32_t cookie = 0;
        r.get_be16(type);
        r.get_be16(len);
        r.get_be32(cookie);
        if (type != zeph::stun::kBindingRequest || cookie != zeph::stun::kMagicCookie || len % 4 != 0 ||
            len > kMaxStunSize - zeph::stun::kHeaderSize)
            return Cut::Noise;
        length = zeph::stun::kHeaderSize + len;
        return size >= length ? Cut::Stun : Cut::NeedMore;
    }
    const FrameCut cut = CutFrame(data, size);
    switch (cut.kind) {
    case FrameCut::NeedMore: return Cut::NeedMore;
    case FrameCut::Packet:
        head = cut.head;
        length = cut.length;
        return Cut::Packet;
    case FrameCut::Dirty:
    case FrameCut::BadLength: break;
    }
    // One byte at a time, so that a STUN request behind noise is found.
    return Cut::Noise;
}

bool IsStunBindingBody(const uint8_t* body, size_t len)
{
    zeph::ByteReader r(body, len);
    zeph::stun::Header h;
    return zeph::stun::read_header(r, h) && h.type == zeph::stun::kBindingRequest &&
           h.cookie == zeph::stun::kMagicCookie;
}

bool SendAll(int fd, const uint8_t* data, size_t len)
{
    while (len > 0) {
        ssize_t n = ::send(fd, data, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        len -= size_t(n);
    }
    return true;
}

} // namespace

struct MediaPeer::Conn {
    size_t index = 0;
    int fd = -1;               // written under both sendMutex and m_mutex
    std::mutex sendMutex;      // one writer at a time; taken before m_mutex
    MediaPeerBehaviour behaviour;
    MediaPeerConnection stats; // under m_mutex
};

MediaPeer::MediaPeer(MediaPeerMode mode) : m_mode(mode) {}

MediaPeer::~MediaPeer() { stop(); }

bool MediaPeer::start(const std::string& ip, uint16_t port, std::string* error)
{
    auto fail = [&](const std::string& what) {
        if (error) *error = what + " " + ip + ":" + std::to_string(port) + ": " + std::strerror(errno);
        if (m_listenFd >= 0) ::close(m_listenFd);
        if (m_wake >= 0) ::close(m_wake);
        m_listenFd = m_wake = -1;
        return false;
    };
    if (m_acceptThread.joinable()) {
        if (error) *error = "already started";
        return false;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    if (::inet_pton(AF_INET, ip.c_str(), &addr.sin_addr) != 1) {
        errno = EINVAL;
        return fail("address");
    }
    m_listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listenFd < 0) return fail("socket");
    int one = 1;
    ::setsockopt(m_listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (::bind(m_listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return fail("bind");
    if (::listen(m_listenFd, 64) != 0) return fail("listen");
    socklen_t alen = sizeof addr;
    ::getsockname(m_listenFd, reinterpret_cast<sockaddr*>(&addr), &alen);
    m_wake = ::eventfd(0, EFD_CLOEXEC);
    if (m_wake < 0) return fail("eventfd");
    m_ip = ip;
    m_port = ntohs(addr.sin_port);
    try {
        m_acceptThread = std::thread([this] { acceptLoop(); });
    } catch (const std::system_error&) {
        return fail("thread");
    }
    return true;
}

void MediaPeer::stop()
{
    if (!m_acceptThread.joinable()) return;
    uint64_t one = 1;
    (void)!::write(m_wake, &one, sizeof one);
    m_acceptThread.join();
    // The accept thread has ended, so no connection thread is added any more.
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        threads.swap(m_threads);
        // A connection thread may sit in a send to a client that reads
        // nothing; shutting the socket down makes that send fail.
        for (auto& c : m_conns)
            if (c->fd >= 0) ::shutdown(c->fd, SHUT_RDWR);
    }
    for (auto& t : threads) t.join();
    ::close(m_listenFd);
    ::close(m_wake);
    m_listenFd = m_wake = -1;
}

void MediaPeer::acceptLoop()
{
    for (;;) {
        pollfd fds[2] = {{m_listenFd, POLLIN, 0}, {m_wake, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents) return;
        int fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        auto conn = std::make_shared<Conn>();
        conn->fd = fd;
        conn->stats.open = true;
        std::lock_guard<std::mutex> lock(m_mutex);
        conn->index = m_conns.size();
        if (m_haveNext) {
            conn->behaviour = m_next;
            m_haveNext = false;
        }
        m_conns.push_back(conn);
        ++m_accepted;
        ++m_open;
        try {
            m_threads.emplace_back([this, conn] { serve(conn); });
        } catch (const std::system_error&) {
            ::close(fd);
            conn->fd = -1;
            conn->stats.open = false;
            --m_open;
        }
    }
}

void MediaPeer::serve(std::shared_ptr<Conn> conn)
{
    std::vector<uint8_t> buf;
    uint8_t chunk[16384];
    bool keep = true;
    while (keep) {
        pollfd fds[2] = {{conn->fd, POLLIN, 0}, {m_wake, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[1].revents) break;
        ssize_t n = ::recv(conn->fd, chunk, sizeof chunk, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        buf.insert(buf.end(), chunk, chunk + n);

        size_t pos = 0;
        while (keep && pos < buf.size()) {
            PrivateHead head;
            size_t len = 0;
            Cut cut = CutOne(buf.data() + pos, buf.size() - pos, head, len);
            if (cut == Cut::NeedMore) break;
            if (cut == Cut::Noise) {
                std::lock_guard<std::mutex> lock(m_mutex);
                ++conn->stats.noiseBytes;
                ++pos;
                continue;
            }
            if (cut == Cut::Stun) {
                ++m_stun;
                std::lock_guard<std::mutex> lock(m_mutex);
                ++conn->stats.stunRequests;
            } else {
                keep = handlePacket(*conn, buf.data() + pos, len, head);
            }
            pos += len;
        }
        buf.erase(buf.begin(), buf.begin() + long(pos));
    }
    std::lock_guard<std::mutex> sendLock(conn->sendMutex);
    std::lock_guard<std::mutex> lock(m_mutex);
    ::close(conn->fd);
    conn->fd = -1;
    conn->stats.open = false;
    --m_open;
}

bool MediaPeer::handlePacket(Conn& conn, const uint8_t* data, size_t len, const PrivateHead& head)
{
    const bool audioRtp = head.pktType == 0 && head.mediaType == 1;
    if (head.pktType == kPktTypeKeepalive && IsStunBindingBody(data + kPrivateHeadSize, len - kPrivateHeadSize))
        ++m_stun;
    ++m_byMedia[head.mediaType < kMediaTypes ? head.mediaType : kMediaTypes];
    m_bytes += len;

    size_t noise = 0;
    auto forbidden = MediaPeerBehaviour::Forbidden::None;
    bool closeAfter = false;
    bool hold = false;
    uint32_t flood = 0, floodDepth = 0;
    std::vector<std::pair<std::shared_ptr<Conn>, std::vector<uint8_t>>> release;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        MediaPeerConnection& s = conn.stats;
        ++s.packets;
        s.bytes += len;
        s.heads.push_back(head);
        noise = conn.behaviour.noiseBytes;
        conn.behaviour.noiseBytes = 0;
        forbidden = conn.behaviour.forbidden;
        conn.behaviour.forbidden = MediaPeerBehaviour::Forbidden::None;
        if (audioRtp) {
            flood = conn.behaviour.ssrcFlood;
            floodDepth = conn.behaviour.ssrcFloodDepth;
        }
        closeAfter = conn.behaviour.closeAfterPackets >= 0 && s.packets >= uint64_t(conn.behaviour.closeAfterPackets);
        if (m_mode == MediaPeerMode::Echo && audioRtp && !m_reorder.empty()) {
            hold = true;
            m_held.emplace_back(data, data + len);
            if (m_held.size() == m_reorder.size()) {
                std::vector<std::shared_ptr<Conn>> targets;
                for (auto& c : m_conns)
                    if (c->stats.open) targets.push_back(c);
                for (size_t i : m_reorder)
                    release.emplace_back(targets[m_roundRobin++ % targets.size()], std::move(m_held[i]));
                m_reorder.clear();
                m_held.clear();
            }
        }
    }

    bool ok = true;
    if (forbidden != MediaPeerBehaviour::Forbidden::None) {
        std::lock_guard<std::mutex> lock(conn.sendMutex);
        ok = SendAll(conn.fd, reinterpret_cast<const uint8_t*>(kForbiddenPage), sizeof kForbiddenPage - 1);
    }
    if (noise > 0) {
        // Noise never holds the head tag, so the packet behind it is the
        // first place a reader can resynchronise.
        std::vector<uint8_t> bytes(noise);
        std::minstd_rand rng{uint32_t(noise)};
        for (auto& b : bytes) b = uint8_t(rng() % 0xFF);
        std::lock_guard<std::mutex> lock(conn.sendMutex);
        ok = ok && SendAll(conn.fd, bytes.data(), bytes.size());
    }
    if (flood > 0) ok = ok && sendSsrcFlood(conn, flood, floodDepth);
    if (m_mode == MediaPeerMode::Echo && !hold) ok = ok && sendPacket(conn, data, len);
    for (auto& r : release) sendPacket(*r.first, r.second.data(), r.second.size());
    return ok && !closeAfter;
}

bool MediaPeer::sendPacket(Conn& conn, const uint8_t* data, size_t len)
{
    std::lock_guard<std::mutex> lock(conn.sendMutex);
    return conn.fd >= 0 && SendAll(conn.fd, data, len);
}

bool MediaPeer::sendSsrcFlood(Conn& conn, uint32_t streams, uint32_t depth)
{
    constexpr size_t kFloodBody = 60; // 7.5 ms of G.711: small, but sorted
    constexpr size_t kRtpSeqOffset = 2;
    constexpr size_t kRtpSsrcOffset = 8;
    constexpr uint16_t kFirstSeq = 1000;
    std::vector<uint8_t> out;
    out.reserve(size_t(streams) * depth * (kPrivateHeadSize + kFloodBody));
    uint8_t packet[kPrivateHeadSize + kFloodBody] = {};
    BuildPrivateHead(ZEPH_MEDIA_PKT_RTP, ZEPH_MEDIA_AUDIO, 0, 0, kFloodBody, packet);
    uint8_t* rtp = packet + kPrivateHeadSize;
    rtp[0] = 0x80; // RTP version 2, payload type 0
    for (uint32_t s = 0; s < streams; ++s) {
        const uint32_t ssrc = m_floodSsrc.fetch_add(1);
        zeph::ByteWriter w(rtp + kRtpSsrcOffset, 4);
        w.put_be32(ssrc);
        for (uint32_t i = 0; i < depth; ++i) {
            // The first, then every other number: each one after the first
            // leaves a gap behind it.
            const uint16_t seq = uint16_t(kFirstSeq + (i == 0 ? 0 : 2 * i));
            zeph::ByteWriter ws(rtp + kRtpSeqOffset, 2);
            ws.put_be16(seq);
            out.insert(out.end(), packet, packet + sizeof packet);
        }
    }
    return sendPacket(conn, out.data(), out.size());
}

uint64_t MediaPeer::packets(size_t mediaType) const
{
    return m_byMedia[mediaType < kMediaTypes ? mediaType : kMediaTypes].load();
}

uint64_t MediaPeer::totalPackets() const
{
    uint64_t sum = 0;
    for (const auto& c : m_byMedia) sum += c.load();
    return sum;
}

MediaPeerConnection MediaPeer::connection(size_t index) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return index < m_conns.size() ? m_conns[index]->stats : MediaPeerConnection{};
}

bool MediaPeer::setBehaviour(size_t index, const MediaPeerBehaviour& behaviour)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (index >= m_conns.size()) return false;
    m_conns[index]->behaviour = behaviour;
    return true;
}

void MediaPeer::setNextBehaviour(const MediaPeerBehaviour& behaviour)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_next = behaviour;
    m_haveNext = true;
}

bool MediaPeer::closeNow(size_t index)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (index >= m_conns.size() || m_conns[index]->fd < 0) return false;
    // The serving thread sees the end of its stream and closes the socket.
    ::shutdown(m_conns[index]->fd, SHUT_RDWR);
    return true;
}

bool MediaPeer::reorderAudio(const std::vector<size_t>& order)
{
    std::vector<bool> seen(order.size(), false);
    for (size_t i : order) {
        if (i >= order.size() || seen[i]) return false;
        seen[i] = true;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_reorder = order;
    m_held.clear();
    return true;
}

bool ParseListenAddress(const std::string& text, std::string& ip, uint16_t& port)
{
    size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) return false;
    unsigned long value = 0;
    for (size_t i = colon + 1; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        value = value * 10 + unsigned(text[i] - '0');
        if (value > 65535) return false;
    }
    ip = text.substr(0, colon);
    port = uint16_t(value);
    return true;
}

} // namespace zeph_peers
