// What does the media transport cost against writing the same framed packets
// with plain blocking TCP calls to the same media peer on loopback?
//
//   1. CPU time of an idle session with all five media types connected:
//      its send and receive threads sleeping until woken, and their literal
//      loops (a send pass every 5 ms, a receive poll every 10 ms); counted
//      for the session's own threads and for the whole process;
//   2. throughput into a sink peer, 200- and 1200-byte bodies, over one
//      channel (video) and four (audio), counted where the packets arrive;
//   3. latency of an echoed packet from MORL_MediaSend to the receive
//      callback, at 50 and at 1000 packets/s, in both modes.
//
//   bench_media [--literal-loops] [--throughput-only]
//     --literal-loops     throughput with the literal loops
//     --throughput-only   section 2 alone (for a profiler)
#include <zeph_nettools/media_socket.h>
#include <zeph_nettools/settings.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "media_peer.h"
#include "mediaSocket/MediaSocket.h"
#include "mediaSocket/PrivateHead.h"

namespace {

using Clock = std::chrono::steady_clock;
using zeph_peers::MediaPeer;
using zeph_peers::MediaPeerMode;

constexpr uint32_t kSession = 1;
constexpr double kThroughputSeconds = 1.5;
constexpr auto kRefusalPause = std::chrono::microseconds(100);

uint64_t now_ns() {
    return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count());
}

double cpu_seconds() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) + double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

bool wait_for(const std::function<bool()>& pred, int timeout_ms) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!pred()) {
        if (Clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Waits until `count` has not moved for quiet_ms (or max_ms passed).
uint64_t settle(const std::function<uint64_t()>& count, int quiet_ms, int max_ms) {
    const auto end = Clock::now() + std::chrono::milliseconds(max_ms);
    uint64_t last = count();
    auto changed = Clock::now();
    while (Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const uint64_t c = count();
        if (c != last) {
            last = c;
            changed = Clock::now();
        } else if (Clock::now() - changed >= std::chrono::milliseconds(quiet_ms)) {
            break;
        }
    }
    return last;
}

void quiet_log(const char*) {}
void quiet_sink(void*, int, const char*, const char*, const char*, int, const char*) {}

// ---- the baseline: blocking sockets ---------------------------------------------------------

// A blocking TCP connection with the options the transport gives its
// channels (no Nagle delay, 256 KiB buffers), so that the comparison is
// about the send path and not about socket tuning. A read gives up after
// 2 s, so that an echo that never comes cannot stall the run.
int blocking_connect(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    const int one = 1, buf = 0x40000;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buf, sizeof buf);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buf, sizeof buf);
    timeval limit{2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool send_all(int fd, const uint8_t* p, size_t n) {
    while (n > 0) {
        const ssize_t r = ::send(fd, p, n, MSG_NOSIGNAL);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r, n -= size_t(r);
    }
    return true;
}

bool recv_all(int fd, uint8_t* p, size_t n) {
    while (n > 0) {
        const ssize_t r = ::recv(fd, p, n, 0);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r, n -= size_t(r);
    }
    return true;
}

std::vector<uint8_t> framed_packet(uint32_t mediaType, uint32_t bodySize) {
    std::vector<uint8_t> pkt(kPrivateHeadSize + bodySize, 0x5A);
    BuildPrivateHead(0, mediaType, 0, 1, bodySize, pkt.data());
    return pkt;
}

// ---- a session --------------------------------------------------------------------------------

struct Session {
    bool ok = false;
    std::vector<uint32_t> types;
    ~Session() {
        for (uint32_t t : types) MORL_MediaCloseSocket(kSession, t);
    }
    bool add(uint32_t mediaType, uint16_t port, MediaRecvCallback recv = nullptr) {
        if (MORL_MediaCreateSocket(kSession, mediaType, 4) != 0) return false;
        types.push_back(mediaType);
        if (recv) MORL_MediaRegisterRecvCallback(kSession, mediaType, recv);
        return MORL_MediaCreateChannel(kSession, mediaType, "127.0.0.1", port, "") == 0;
    }
};

uint32_t channels_of(uint32_t mediaType) { return mediaType == ZEPH_MEDIA_AUDIO ? 4 : 1; }

// ---- 1. idle CPU -----------------------------------------------------------------------------

struct IdleFigures {
    double processMsPerS = 0, sessionMsPerS = 0; // the whole process, without and with the session
    double threadsMsPerS = 0;                     // the session's own threads
    size_t threads = 0;
    bool ok = false;
};

// The threads of this process by id.
std::set<long> task_ids() {
    std::set<long> ids;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
        ids.insert(std::stol(task.path().filename().string()));
    return ids;
}

// Nanoseconds a thread of this process has run, from the scheduler's count.
double task_cpu_ns(long tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/schedstat");
    double ns = 0;
    stat >> ns;
    return ns;
}

double tasks_cpu_ns(const std::vector<long>& tids) {
    double sum = 0;
    for (long tid : tids) sum += task_cpu_ns(tid);
    return sum;
}

IdleFigures idle_cpu(double seconds, bool literal) {
    MediaSocket::SetLiteralLoops(literal);
    IdleFigures f;
    MediaPeer peer(MediaPeerMode::Sink);
    if (!peer.start()) return f;
    const auto span = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    double c0 = cpu_seconds();
    std::this_thread::sleep_for(span);
    f.processMsPerS = (cpu_seconds() - c0) * 1000 / seconds;

    // The session's threads are the ones its first media type starts; the
    // peer's come later, with the connections.
    Session s;
    const std::set<long> before = task_ids();
    if (MORL_MediaCreateSocket(kSession, ZEPH_MEDIA_VIDEO, 1) != 0) return f;
    s.types.push_back(ZEPH_MEDIA_VIDEO);
    std::vector<long> sessionTasks;
    for (long tid : task_ids())
        if (!before.count(tid)) sessionTasks.push_back(tid);
    if (MORL_MediaCreateChannel(kSession, ZEPH_MEDIA_VIDEO, "127.0.0.1", peer.port(), "") != 0) return f;
    for (uint32_t t = 0; t < ZEPH_MEDIA_TYPE_COUNT; ++t)
        if (t != ZEPH_MEDIA_VIDEO && !s.add(t, peer.port())) return f;
    std::this_thread::sleep_for(std::chrono::milliseconds(200)); // connect threads gone
    c0 = cpu_seconds();
    const double t0 = tasks_cpu_ns(sessionTasks);
    std::this_thread::sleep_for(span);
    f.threadsMsPerS = (tasks_cpu_ns(sessionTasks) - t0) / 1e6 / seconds;
    f.sessionMsPerS = (cpu_seconds() - c0) * 1000 / seconds;
    f.threads = sessionTasks.size();
    f.ok = true;
    return f;
}

// ---- 2. throughput ---------------------------------------------------------------------------

struct Throughput {
    bool ok = false;
    double pps = 0, mbps = 0;
    uint64_t accepted = 0, delivered = 0;
    uint64_t ringFull = 0, otherRefusals = 0; // MORL_MediaSend: -985, anything else
    uint32_t shortSends = 0, damaged = 0;     // from the transport's counters
};

// Packets that the peer counted within the window, as a rate; the sender
// keeps the pipe full for the whole window. A refusal other than a full
// ring (a channel being re-created after a short send, say) is paused on
// like a full ring, and counted apart.
Throughput session_throughput(uint32_t mediaType, uint32_t bodySize, uint32_t ringBytes, std::chrono::microseconds pause) {
    Throughput r;
    MediaPeer peer(MediaPeerMode::Sink);
    if (!peer.start()) return r;
    Session s;
    if (!s.add(mediaType, peer.port())) return r;
    if (ringBytes != 0 && MORL_MediaSetChannelBufSize(kSession, mediaType, ringBytes) != 0) return r;
    std::vector<uint8_t> body(bodySize, 0x5A);
    const auto t0 = Clock::now();
    const auto end = t0 + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(kThroughputSeconds));
    while (Clock::now() < end) {
        const int32_t rc = MORL_MediaSend(kSession, 0, mediaType, body.data(), bodySize, 0);
        if (rc == 0) {
            ++r.accepted;
            continue;
        }
        ++(rc == MEDIA_SOCKET_ERRCODE_WRITE_BUFFER ? r.ringFull : r.otherRefusals);
        std::this_thread::sleep_for(pause);
    }
    const uint64_t inWindow = peer.packets(mediaType);
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    r.delivered = settle([&] { return peer.packets(mediaType); }, 300, 3000);
    MediaStats stats{};
    if (MORL_MediaGetStats(kSession, mediaType, &stats) == 0) {
        r.shortSends = stats.sendLenErrorCount;
        r.damaged = stats.readOnePktErrCount;
    }
    r.pps = double(inWindow) / secs;
    r.mbps = r.pps * double(kPrivateHeadSize + bodySize) / 1e6;
    r.ok = true;
    return r;
}

// The same framed bytes with blocking send() calls, one thread rotating over
// the connections as the transport's send thread does.
Throughput baseline_throughput(uint32_t mediaType, uint32_t bodySize) {
    Throughput r;
    MediaPeer peer(MediaPeerMode::Sink);
    if (!peer.start()) return r;
    std::vector<int> fds;
    for (uint32_t i = 0; i < channels_of(mediaType); ++i) {
        const int fd = blocking_connect(peer.port());
        if (fd < 0) break;
        fds.push_back(fd);
    }
    if (fds.size() == channels_of(mediaType)) {
        const std::vector<uint8_t> pkt = framed_packet(mediaType, bodySize);
        const auto t0 = Clock::now();
        const auto end =
            t0 + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(kThroughputSeconds));
        size_t next = 0;
        r.ok = true;
        while (r.ok && Clock::now() < end) {
            r.ok = send_all(fds[next], pkt.data(), pkt.size());
            next = (next + 1) % fds.size();
            ++r.accepted;
        }
        const uint64_t inWindow = peer.packets(mediaType);
        const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
        r.delivered = settle([&] { return peer.packets(mediaType); }, 300, 3000);
        r.pps = double(inWindow) / secs;
        r.mbps = r.pps * double(pkt.size()) / 1e6;
    }
    for (int fd : fds) ::close(fd);
    return r;
}

// ---- 3. latency ------------------------------------------------------------------------------

// Send times by packet number, and round trips as the receive callback
// finds them. The callback has no user pointer: one probe at a time.
struct LatencyProbe {
    std::mutex mu;
    std::vector<uint64_t> sentNs;
    std::vector<uint64_t> rttNs;
};

LatencyProbe& probe() {
    static LatencyProbe& p = *new LatencyProbe; // the receive thread may call late
    return p;
}

void on_echo(uint32_t, uint32_t, uint32_t, const uint8_t* data, uint32_t len) {
    const uint64_t now = now_ns();
    if (!data || len < 4) return;
    const uint32_t index = uint32_t(data[0]) << 24 | uint32_t(data[1]) << 16 | uint32_t(data[2]) << 8 | data[3];
    LatencyProbe& p = probe();
    std::lock_guard<std::mutex> lock(p.mu);
    if (index < p.sentNs.size() && p.sentNs[index] != 0) p.rttNs.push_back(now - p.sentNs[index]);
}

struct Latency {
    bool ok = false;
    double p50 = 0, p99 = 0; // ms
    size_t samples = 0, sent = 0;
};

Latency summarize(std::vector<uint64_t> v, size_t sent) {
    Latency l;
    l.sent = sent;
    l.samples = v.size();
    if (v.empty()) return l;
    std::sort(v.begin(), v.end());
    auto pct = [&](double q) {
        size_t rank = size_t(std::ceil(q * double(v.size())));
        return double(v[std::min(v.size(), std::max<size_t>(rank, 1)) - 1]) / 1e6;
    };
    l.p50 = pct(0.50);
    l.p99 = pct(0.99);
    l.ok = true;
    return l;
}

constexpr uint32_t kLatencyBody = 200;

// Video: one channel, and its RTP skips the audio sort, so every packet
// comes back to the callback.
Latency session_latency(double rate, size_t count, bool literal) {
    MediaSocket::SetLiteralLoops(literal);
    MediaPeer peer(MediaPeerMode::Echo);
    if (!peer.start()) return {};
    LatencyProbe& p = probe();
    {
        std::lock_guard<std::mutex> lock(p.mu);
        p.sentNs.assign(count, 0);
        p.rttNs.clear();
        p.rttNs.reserve(count);
    }
    Session s;
    if (!s.add(ZEPH_MEDIA_VIDEO, peer.port(), on_echo)) return {};
    std::vector<uint8_t> body(kLatencyBody, 0x5A);
    const auto t0 = Clock::now();
    for (size_t k = 0; k < count; ++k) {
        std::this_thread::sleep_until(
            t0 + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(double(k) / rate)));
        body[0] = uint8_t(k >> 24), body[1] = uint8_t(k >> 16), body[2] = uint8_t(k >> 8), body[3] = uint8_t(k);
        {
            std::lock_guard<std::mutex> lock(p.mu);
            p.sentNs[k] = now_ns();
        }
        MORL_MediaSend(kSession, 0, ZEPH_MEDIA_VIDEO, body.data(), kLatencyBody, 0);
    }
    wait_for(
        [&] {
            std::lock_guard<std::mutex> lock(p.mu);
            return p.rttNs.size() >= count;
        },
        2000);
    std::vector<uint64_t> rtt;
    {
        std::lock_guard<std::mutex> lock(p.mu);
        rtt.swap(p.rttNs);
        p.sentNs.clear();
    }
    return summarize(std::move(rtt), count);
}

// One blocking connection: send a framed packet, read its echo.
Latency baseline_latency(double rate, size_t count) {
    MediaPeer peer(MediaPeerMode::Echo);
    if (!peer.start()) return {};
    const int fd = blocking_connect(peer.port());
    if (fd < 0) return {};
    std::vector<uint8_t> pkt = framed_packet(ZEPH_MEDIA_VIDEO, kLatencyBody), back(pkt.size());
    std::vector<uint64_t> rtt;
    rtt.reserve(count);
    const auto t0 = Clock::now();
    for (size_t k = 0; k < count; ++k) {
        std::this_thread::sleep_until(
            t0 + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(double(k) / rate)));
        const uint64_t sent = now_ns();
        if (!send_all(fd, pkt.data(), pkt.size()) || !recv_all(fd, back.data(), back.size())) break;
        rtt.push_back(now_ns() - sent);
    }
    ::close(fd);
    return summarize(std::move(rtt), count);
}

// ---- output ------------------------------------------------------------------------------------

std::string ratio(double a, double b) {
    if (b <= 0) return "-";
    char s[32];
    std::snprintf(s, sizeof s, "%.2fx", a / b);
    return s;
}

} // namespace

int main(int argc, char** argv) {
    bool literalThroughput = false;
    bool throughputOnly = false;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--literal-loops")) {
            literalThroughput = true;
        } else if (!std::strcmp(argv[i], "--throughput-only")) {
            throughputOnly = true;
        } else {
            std::fprintf(stderr, "usage: bench_media [--literal-loops] [--throughput-only]\n");
            return 2;
        }
    }
    // A pause after a refusal lasts what it says, not the default 50 us more.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    MORL_MediaSetLogCallback(quiet_log);
    zeph_settings_set_log_sink(quiet_sink, nullptr, ZEPH_LOG_ERROR);
    const char* modeName[] = {"threads woken", "literal 5/10 ms loops"};
    const auto started = Clock::now();

    std::printf("media transport against plain blocking TCP, on loopback, one media peer per run\n\n");

    std::printf("idle session, all five media types connected, CPU over 3 s:\n");
    for (int literal = 0; literal < 2 && !throughputOnly; ++literal) {
        IdleFigures idle = idle_cpu(3.0, literal == 1);
        if (!idle.ok) {
            std::fprintf(stderr, "bench_media: the idle session could not connect\n");
            return 1;
        }
        std::printf("  %-23s the session's %zu threads %.3f ms of CPU per second; process with the session "
                    "%.2f ms/s, without it %.2f ms/s\n",
                    modeName[literal], idle.threads, idle.threadsMsPerS, idle.sessionMsPerS, idle.processMsPerS);
        std::fflush(stdout);
    }
    std::printf("\n");

    MediaSocket::SetLiteralLoops(literalThroughput);
    const char* wake = modeName[literalThroughput ? 1 : 0];
    std::printf("throughput into a sink peer, %.1f s per run, counted at the peer (%s);\n"
                "session: MORL_MediaSend in a loop, %lld us pause after each refusal; baseline: blocking send();\n"
                "short: short sends (the rest of the packet is lost and the channel re-created), flushed:\n"
                "damaged packets found in the send ring (the ring is emptied), lost: accepted, never seen whole\n",
                kThroughputSeconds, wake, (long long)kRefusalPause.count());
    std::printf("  %-20s %11s %7s %12s %7s %6s %9s %9s %7s %8s %7s %8s\n", "case", "session pps", "MB/s",
                "baseline pps", "MB/s", "ratio", "accepted", "-985", "other", "short", "flushed", "lost");
    // The last row gives audio the video's ring: with its own 30 KB ring a
    // refusal comes every 25 packets of 1200 bytes, and the sender's pause
    // after it, not the transport, sets the pace.
    struct Case {
        const char* name;
        uint32_t mediaType, body, ringBytes; // 0: the media type's own ring
        std::chrono::microseconds pause;     // after each refusal
    };
    const Case cases[] = {{"video 1 ch, 200 B", ZEPH_MEDIA_VIDEO, 200, 0, kRefusalPause},
                          {"video 1 ch, 1200 B", ZEPH_MEDIA_VIDEO, 1200, 0, kRefusalPause},
                          {"audio 4 ch, 200 B", ZEPH_MEDIA_AUDIO, 200, 0, kRefusalPause},
                          {"audio 4 ch, 1200 B", ZEPH_MEDIA_AUDIO, 1200, 0, kRefusalPause},
                          {"  same, 600 KB ring", ZEPH_MEDIA_AUDIO, 1200, 614400, kRefusalPause},
                          {"  same, 20 us pause", ZEPH_MEDIA_AUDIO, 1200, 0, std::chrono::microseconds(20)}};
    for (const Case& c : cases) {
        const Throughput s = session_throughput(c.mediaType, c.body, c.ringBytes, c.pause);
        const Throughput b = baseline_throughput(c.mediaType, c.body);
        if (!s.ok || !b.ok) {
            std::printf("  %-20s failed (%s)\n", c.name, !s.ok ? "session" : "baseline");
            continue;
        }
        // Accepted by MORL_MediaSend but never seen whole by the peer: cut
        // by a short send, or taken along when a damaged ring was flushed.
        const uint64_t lost = s.accepted > s.delivered ? s.accepted - s.delivered : 0;
        std::printf("  %-20s %11.0f %7.1f %12.0f %7.1f %6s %9llu %9llu %7llu %8u %7u %8llu\n", c.name, s.pps, s.mbps,
                    b.pps, b.mbps, ratio(s.pps, b.pps).c_str(), (unsigned long long)s.accepted,
                    (unsigned long long)s.ringFull, (unsigned long long)s.otherRefusals, s.shortSends, s.damaged,
                    (unsigned long long)lost);
        std::fflush(stdout);
    }

    std::printf("\nlatency of an echoed packet (video, 1 channel, %u-byte body): MORL_MediaSend to the receive\n"
                "callback; baseline: blocking send() and recv() of the echo on one connection\n",
                kLatencyBody);
    std::printf("  %-10s %-23s %9s %9s %13s %9s %10s %10s %10s %10s\n", "rate", "session threads", "p50 ms", "p99 ms",
                "baseline p50", "p99", "added p50", "added p99", "echoes", "baseline");
    struct Rate {
        double pps;
        size_t count;
    };
    const Rate rates[] = {{50, 150}, {1000, 2000}};
    for (const Rate& r : throughputOnly ? std::vector<Rate>{} : std::vector<Rate>(std::begin(rates), std::end(rates))) {
        const Latency base = baseline_latency(r.pps, r.count);
        for (int literal = 0; literal < 2; ++literal) {
            const Latency l = session_latency(r.pps, r.count, literal == 1);
            char rate[16];
            std::snprintf(rate, sizeof rate, "%.0f pps", r.pps);
            if (!l.ok || !base.ok) {
                std::printf("  %-10s %-23s failed\n", rate, modeName[literal]);
                continue;
            }
            char echoes[32], baseEchoes[32];
            std::snprintf(echoes, sizeof echoes, "%zu/%zu", l.samples, l.sent);
            std::snprintf(baseEchoes, sizeof baseEchoes, "%zu/%zu", base.samples, base.sent);
            std::printf("  %-10s %-23s %9.3f %9.3f %13.3f %9.3f %+10.3f %+10.3f %10s %10s\n", rate,
                        modeName[literal], l.p50, l.p99, base.p50, base.p99, l.p50 - base.p50,
                        l.p99 - base.p99, echoes, baseEchoes);
            std::fflush(stdout);
        }
    }
    MediaSocket::SetLiteralLoops(false);
    std::printf("\ntotal %.1f s\n", std::chrono::duration<double>(Clock::now() - started).count());
    return 0;
}
