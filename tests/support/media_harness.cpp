// Fixtures for tests of the media transport; see media_harness.h.
#include "media_harness.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>

#include "mediaSocket/PrivateHead.h"
#include "waits.h"

namespace zeph_test {

Bytes Body(size_t n, uint8_t tag)
{
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = uint8_t(tag * 31 + i * 7);
    return b;
}

Bytes Framed(uint32_t pktType, uint32_t mediaType, const Bytes& body, uint32_t channel, uint32_t pkgSeq)
{
    Bytes p(kPrivateHeadSize);
    BuildPrivateHead(pktType, mediaType, channel, pkgSeq, uint32_t(body.size()), p.data());
    p.insert(p.end(), body.begin(), body.end());
    return p;
}

Bytes RtpBody(uint16_t seq, uint32_t ssrc, size_t len)
{
    Bytes b = Body(len, uint8_t(seq));
    b[0] = 0x80;
    b[1] = 0x60;
    b[2] = uint8_t(seq >> 8);
    b[3] = uint8_t(seq);
    for (int i = 0; i < 4; ++i) b[8 + i] = uint8_t(ssrc >> (24 - 8 * i));
    return b;
}

uint16_t RtpSeqOf(const Bytes& body) { return body.size() < 4 ? 0 : uint16_t(body[2] << 8 | body[3]); }

long ThreadId(const std::string& name)
{
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string line;
        if (std::getline(comm, line) && line == name.substr(0, 15)) return std::stol(task.path().filename().string());
    }
    return 0;
}


namespace {

constexpr size_t kMaxLogLines = 200000;
std::mutex g_logMutex;
auto& g_logLines = *new std::vector<std::string>();

} // namespace

void MediaLog::Install()
{
    static std::once_flag once;
    std::call_once(once, [] {
        MORL_MediaSetLogCallback([](const char* line) {
            std::lock_guard<std::mutex> lock(g_logMutex);
            if (g_logLines.size() < kMaxLogLines) g_logLines.emplace_back(line);
        });
    });
}

std::vector<std::string> MediaLog::Find(const std::vector<std::string>& fragments)
{
    std::lock_guard<std::mutex> lock(g_logMutex);
    std::vector<std::string> out;
    for (const auto& line : g_logLines) {
        bool all = true;
        for (const auto& f : fragments) all = all && line.find(f) != std::string::npos;
        if (all) out.push_back(line);
    }
    return out;
}

int MediaLog::Count(const std::vector<std::string>& fragments) { return int(Find(fragments).size()); }

bool MediaLog::WaitFor(const std::vector<std::string>& fragments, int timeoutMs)
{
    return wait_until([&] { return Count(fragments) > 0; }, timeoutMs);
}


struct MediaSession::State {
    mutable std::mutex mutex;
    std::vector<MediaPacket> received[ZEPH_MEDIA_TYPE_COUNT];
    std::vector<MediaEventInfo> events[ZEPH_MEDIA_TYPE_COUNT];
    std::function<void(const MediaPacket&)> onReceive;
    std::function<void(uint32_t, MediaEventInfo)> onEvent;
};

namespace {

std::mutex g_registryMutex;
auto& g_registry = *new std::map<uint32_t, std::shared_ptr<MediaSession::State>>();

std::shared_ptr<MediaSession::State> Lookup(uint32_t sessionId)
{
    std::lock_guard<std::mutex> lock(g_registryMutex);
    auto it = g_registry.find(sessionId);
    return it == g_registry.end() ? nullptr : it->second;
}

} // namespace

MediaSession::MediaSession(uint32_t sessionId) : id_(sessionId), state_(std::make_shared<State>())
{
    MediaLog::Install();
    std::lock_guard<std::mutex> lock(g_registryMutex);
    g_registry[id_] = state_;
}

MediaSession::~MediaSession()
{
    for (uint32_t type = 0; type < ZEPH_MEDIA_TYPE_COUNT; ++type)
        if (Info(type)) MORL_MediaCloseSocket(id_, type);
    // A session left by a failed create holds no media type; one close frees it.
    if (Object()) MORL_MediaCloseSocket(id_, ZEPH_MEDIA_DATA);
    std::lock_guard<std::mutex> lock(g_registryMutex);
    auto it = g_registry.find(id_);
    if (it != g_registry.end() && it->second == state_) g_registry.erase(it);
}

int32_t MediaSession::Create(uint32_t mediaType, uint32_t count, bool recvCallback, bool eventCallback)
{
    int32_t rc = MORL_MediaCreateSocket(id_, mediaType, count);
    if (rc == 0 && recvCallback) MORL_MediaRegisterRecvCallback(id_, mediaType, &MediaSession::RecvCallback);
    if (rc == 0 && eventCallback) MORL_MediaSetEventCallback(id_, mediaType, &MediaSession::EventCallback);
    return rc;
}

std::vector<MediaPacket> MediaSession::Received(uint32_t mediaType) const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->received[mediaType % ZEPH_MEDIA_TYPE_COUNT];
}

bool MediaSession::WaitReceived(uint32_t mediaType, size_t n, int timeoutMs) const
{
    return wait_until([&] { return ReceivedCount(mediaType) >= n; }, timeoutMs);
}

bool MediaSession::WaitBody(uint32_t mediaType, const Bytes& body, int timeoutMs) const
{
    const auto has = [&] {
        const auto got = Received(mediaType);
        return std::any_of(got.begin(), got.end(), [&](const MediaPacket& p) { return p.body == body; });
    };
    return wait_until(has, timeoutMs);
}

std::vector<MediaEventInfo> MediaSession::Events(uint32_t mediaType) const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->events[mediaType % ZEPH_MEDIA_TYPE_COUNT];
}

size_t MediaSession::EventCount(uint32_t mediaType, uint32_t eventId) const
{
    size_t n = 0;
    for (const auto& e : Events(mediaType)) n += e.eventId == eventId ? 1 : 0;
    return n;
}

uint64_t MediaSession::EventCodeSum(uint32_t mediaType, uint32_t eventId) const
{
    uint64_t sum = 0;
    for (const auto& e : Events(mediaType)) sum += e.eventId == eventId ? e.errorCode : 0;
    return sum;
}

bool MediaSession::WaitEvent(uint32_t mediaType, uint32_t eventId, int timeoutMs) const
{
    return wait_until([&] { return EventCount(mediaType, eventId) > 0; }, timeoutMs);
}

MediaStats MediaSession::Stats(uint32_t mediaType) const
{
    MediaStats stats{};
    if (MORL_MediaGetStats(id_, mediaType, &stats) != 0) stats = MediaStats{};
    return stats;
}

std::shared_ptr<MediaSocket> MediaSession::Object() const { return MediaSocketManager::Instance().MediaGetMediaSocketPtr(id_); }

std::shared_ptr<SocketInfo> MediaSession::Info(uint32_t mediaType) const
{
    auto object = Object();
    return object ? object->GetSocketInfo(mediaType) : nullptr;
}

std::shared_ptr<SockChannel> MediaSession::Channel(uint32_t mediaType, size_t index) const
{
    auto info = Info(mediaType);
    return info && index < info->sockMgr.size() ? info->sockMgr[index] : nullptr;
}

void MediaSession::OnReceive(std::function<void(const MediaPacket&)> hook)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->onReceive = std::move(hook);
}

void MediaSession::OnEvent(std::function<void(uint32_t, MediaEventInfo)> hook)
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->onEvent = std::move(hook);
}

// Both callbacks record under the session's lock and call its hook after.
void MediaSession::RecvCallback(uint32_t sessionId, uint32_t pktType, uint32_t mediaType, const uint8_t* data,
                                uint32_t len)
{
    auto state = Lookup(sessionId);
    if (!state) return;
    MediaPacket packet{pktType, mediaType, Bytes(data, data + len)};
    std::unique_lock<std::mutex> lock(state->mutex);
    state->received[mediaType % ZEPH_MEDIA_TYPE_COUNT].push_back(packet);
    const auto hook = state->onReceive;
    lock.unlock();
    if (hook) hook(packet);
}

void MediaSession::EventCallback(uint32_t sessionId, uint32_t mediaType, MediaEventInfo event)
{
    auto state = Lookup(sessionId);
    if (!state) return;
    std::unique_lock<std::mutex> lock(state->mutex);
    state->events[mediaType % ZEPH_MEDIA_TYPE_COUNT].push_back(event);
    const auto hook = state->onEvent;
    lock.unlock();
    if (hook) hook(mediaType, event);
}


BacklogListener::BacklogListener(int backlog, uint16_t port)
{
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int one = 1; // another server may take the port once this one is gone
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(port);
    socklen_t len = sizeof addr;
    if (fd_ < 0 || ::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
        ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd_, backlog) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        StopListening();
        return;
    }
    port_ = ntohs(addr.sin_port);
}

BacklogListener::~BacklogListener()
{
    StopListening();
    for (int c : conns_) ::close(c);
}

size_t BacklogListener::AcceptAll()
{
    for (int c; fd_ >= 0 && (c = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) conns_.push_back(c);
    return conns_.size();
}

void BacklogListener::StopListening()
{
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

} // namespace zeph_test
