// The delaying wire. `start` and `run_in` use short-lived threads of their
// own to make namespaces and run code in them; the shuttle thread
// ("tun_wire") is owned by the wire, which wakes and joins it in `stop`.
// The caller's threads read the log and stats and change the impairment;
// one mutex guards those, the shuttle holding it only per packet.
#include "tun_wire.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <queue>
#include <system_error>
#include <thread>

namespace zeph_wire {

const char* const kAddrA = "198.18.0.1";
const char* const kAddrB = "198.18.0.2";

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kDeviceName = "wire0"; // alone in its namespace, so one name serves both sides
constexpr size_t kMaxPacket = 65536;
constexpr int kTunOpenFlags = O_RDWR | O_CLOEXEC | O_NONBLOCK;

constexpr uint8_t kProtoIcmp = 1;
constexpr uint8_t kProtoTcp = 6;
constexpr uint8_t kProtoUdp = 17;
constexpr uint8_t kIpVersion4 = 4;
constexpr size_t kIpMinHeader = 20;
constexpr size_t kTcpMinHeader = 20;
constexpr size_t kUdpHeader = 8;
constexpr size_t kIcmpEchoHeader = 8;
constexpr uint16_t kFragmentOffsetMask = 0x1FFF;
constexpr uint8_t kTcpFin = 0x01, kTcpSyn = 0x02, kTcpRst = 0x04, kTcpAck = 0x10;
constexpr uint8_t kIcmpEchoReply = 0, kIcmpEchoRequest = 8;
constexpr size_t kTagOffset = 4; // in the UDP payload
constexpr size_t kTagLength = sizeof(PacketInfo::tag);

uint16_t be16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }

std::string os_error(const std::string& what) { return what + ": " + std::strerror(errno); }

// ---- device set-up, on the thread that is in the namespace -----------------

bool set_flags_up(int sock, const char* name, std::string& why) {
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
    if (ioctl(sock, SIOCGIFFLAGS, &ifr) != 0) {
        why = os_error(std::string("SIOCGIFFLAGS ") + name);
        return false;
    }
    ifr.ifr_flags = short(ifr.ifr_flags | IFF_UP);
    if (ioctl(sock, SIOCSIFFLAGS, &ifr) != 0) {
        why = os_error(std::string("SIOCSIFFLAGS ") + name);
        return false;
    }
    return true;
}

bool set_address(int sock, const char* name, unsigned long request, const char* ip, const char* what,
                 std::string& why) {
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    inet_pton(AF_INET, ip, &sa.sin_addr);
    std::memcpy(&ifr.ifr_addr, &sa, sizeof sa);
    if (ioctl(sock, request, &ifr) != 0) {
        why = os_error(std::string(what) + " " + ip);
        return false;
    }
    return true;
}

struct SideHandles {
    int ns_fd = -1;
    int tun_fd = -1;
};

// Runs on a thread of its own, which the new namespace dies with unless the
// handles keep it.
bool make_side(const char* local, const char* peer, SideHandles& out, std::string& why) {
    if (unshare(CLONE_NEWNET) != 0) {
        why = os_error("unshare(CLONE_NEWNET)");
        return false;
    }
    out.ns_fd = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (out.ns_fd < 0) {
        why = os_error("open /proc/thread-self/ns/net");
        return false;
    }
    out.tun_fd = open("/dev/net/tun", kTunOpenFlags);
    if (out.tun_fd < 0) {
        why = os_error("open /dev/net/tun");
        return false;
    }
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, kDeviceName, IFNAMSIZ - 1);
    ifr.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (ioctl(out.tun_fd, TUNSETIFF, &ifr) != 0) {
        why = os_error("TUNSETIFF");
        return false;
    }
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) {
        why = os_error("socket");
        return false;
    }
    const bool ok = set_flags_up(sock, "lo", why) &&
                    set_address(sock, kDeviceName, SIOCSIFADDR, local, "SIOCSIFADDR", why) &&
                    set_address(sock, kDeviceName, SIOCSIFNETMASK, "255.255.255.255", "SIOCSIFNETMASK", why) &&
                    set_address(sock, kDeviceName, SIOCSIFDSTADDR, peer, "SIOCSIFDSTADDR", why) &&
                    set_flags_up(sock, kDeviceName, why);
    close(sock);
    return ok;
}

void close_side(SideHandles& h) {
    if (h.tun_fd >= 0) close(h.tun_fd);
    if (h.ns_fd >= 0) close(h.ns_fd);
    h = SideHandles{};
}

// Runs `fn` on a new thread and waits for it; the thread's namespace
// changes never reach the caller's.
bool on_own_thread(const std::function<void()>& fn, std::string& why) {
    try {
        std::thread t(fn);
        t.join();
        return true;
    } catch (const std::system_error& e) {
        why = std::string("thread: ") + e.what();
        return false;
    }
}

struct Pending {
    Clock::time_point due;
    uint64_t seq; // keeps arrival order among equal due times
    bool to_b;
    double delay_ms;     // as applied, order kept
    uint64_t record_seq; // of its log record
    std::vector<uint8_t> data;
};

struct Later {
    bool operator()(const Pending& a, const Pending& b) const {
        return a.due != b.due ? a.due > b.due : a.seq > b.seq;
    }
};

// A key that a request and its answer share, the answer's ports reversed.
std::string pair_key(const PacketInfo& in, bool from_a) {
    const uint16_t a_port = from_a ? in.sport : in.dport;
    const uint16_t b_port = from_a ? in.dport : in.sport;
    std::string k(1, char(in.proto));
    auto put16 = [&k](uint16_t v) {
        k.push_back(char(v >> 8));
        k.push_back(char(v & 0xFF));
    };
    if (in.proto == kProtoIcmp) {
        put16(in.icmp_id);
        put16(in.icmp_seq);
    } else {
        put16(a_port);
        put16(b_port);
        if (in.proto == kProtoUdp) k.append(reinterpret_cast<const char*>(in.tag), kTagLength);
    }
    return k;
}

bool is_request(const PacketInfo& in) {
    switch (in.proto) {
    case kProtoTcp: return (in.tcp_flags & (kTcpSyn | kTcpAck)) == kTcpSyn;
    case kProtoIcmp: return in.icmp_type == kIcmpEchoRequest;
    case kProtoUdp: return in.has_tag;
    default: return false;
    }
}

bool is_answer(const PacketInfo& in) {
    switch (in.proto) {
    case kProtoTcp:
        return (in.tcp_flags & (kTcpSyn | kTcpAck)) == (kTcpSyn | kTcpAck) || (in.tcp_flags & kTcpRst) != 0;
    case kProtoIcmp: return in.icmp_type == kIcmpEchoReply;
    case kProtoUdp: return in.has_tag;
    default: return false;
    }
}

} // namespace

bool parse_ipv4_packet(const uint8_t* p, size_t n, PacketInfo& out) {
    out = PacketInfo{};
    if (n < kIpMinHeader || (p[0] >> 4) != kIpVersion4) return false;
    const size_t ihl = size_t(p[0] & 0x0F) * 4;
    const size_t total = be16(p + 2);
    if (ihl < kIpMinHeader || total < ihl || total > n) return false;
    out.proto = p[9];
    if ((be16(p + 6) & kFragmentOffsetMask) != 0) return true; // no transport head in a later fragment
    const uint8_t* t = p + ihl;
    const size_t tn = total - ihl;
    if (out.proto == kProtoTcp && tn >= kTcpMinHeader) {
        out.sport = be16(t);
        out.dport = be16(t + 2);
        out.tcp_flags = uint8_t(t[13] & (kTcpFin | kTcpSyn | kTcpRst | kTcpAck));
    } else if (out.proto == kProtoUdp && tn >= kUdpHeader) {
        out.sport = be16(t);
        out.dport = be16(t + 2);
        if (tn >= kUdpHeader + kTagOffset + kTagLength) {
            out.has_tag = true;
            std::memcpy(out.tag, t + kUdpHeader + kTagOffset, kTagLength);
        }
    } else if (out.proto == kProtoIcmp && tn >= kIcmpEchoHeader) {
        out.icmp_type = t[0];
        out.icmp_id = be16(t + 4);
        out.icmp_seq = be16(t + 6);
    }
    return true;
}

std::vector<RoundTrip> round_trips(const std::vector<WireRecord>& log) {
    std::vector<RoundTrip> out;
    std::map<std::string, size_t> open; // key -> unanswered request in `out`
    for (const WireRecord& r : log) {
        if (r.a_to_b) {
            if (!is_request(r.info)) continue;
            // emplace leaves a repeated request's first copy in place.
            if (open.emplace(pair_key(r.info, true), out.size()).second) {
                RoundTrip rt;
                rt.proto = r.info.proto;
                rt.at_ms = r.at_ms;
                out.push_back(rt);
            }
        } else if (!r.dropped && is_answer(r.info)) {
            auto it = open.find(pair_key(r.info, false));
            if (it == open.end()) continue;
            RoundTrip& rt = out[it->second];
            rt.answered = true;
            rt.truth_ms = (r.out_ms >= 0 ? r.out_ms : r.at_ms + r.delay_ms) - rt.at_ms;
            open.erase(it);
        }
    }
    return out;
}

namespace {

constexpr uint16_t kStunBindingRequest = 0x0001;
constexpr uint16_t kStunBindingSuccess = 0x0101;
constexpr uint32_t kStunCookie = 0x2112A442;
constexpr size_t kStunHeader = 20;
constexpr size_t kEchoPayload = 32;

double ms_between(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double, std::milli>(b - a).count();
}

int ms_left(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? int(left) + 1 : 0;
}

bool to_sockaddr(const char* ip, uint16_t port, sockaddr_in& sa) {
    sa = sockaddr_in{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    return inet_pton(AF_INET, ip, &sa.sin_addr) == 1;
}

uint16_t inet_checksum(const uint8_t* p, size_t n) {
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < n; i += 2) sum += be16(p + i);
    if (n & 1) sum += uint32_t(p[n - 1]) << 8;
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return uint16_t(~sum);
}

// Closes the descriptor at the end of the scope.
struct Fd {
    int fd;
    ~Fd() {
        if (fd >= 0) close(fd);
    }
};

} // namespace

double plain_connect_ms(const char* ip, uint16_t port, int timeout_ms) {
    sockaddr_in sa{};
    if (!to_sockaddr(ip, port, sa)) return -1;
    Fd s{socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    if (s.fd < 0) return -1;
    const auto t0 = Clock::now();
    if (connect(s.fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 && errno != EINPROGRESS) return -1;
    pollfd p{s.fd, POLLOUT, 0};
    if (poll(&p, 1, timeout_ms) != 1) return -1;
    const auto t1 = Clock::now();
    int err = 0;
    socklen_t len = sizeof err;
    if (getsockopt(s.fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0) return -1;
    return ms_between(t0, t1);
}

double plain_echo_ms(const char* ip, uint16_t id, uint16_t seq, int timeout_ms) {
    sockaddr_in sa{};
    if (!to_sockaddr(ip, 0, sa)) return -1;
    Fd s{socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP)};
    if (s.fd < 0) return -1;
    uint8_t echo[kIcmpEchoHeader + kEchoPayload] = {kIcmpEchoRequest, 0, 0, 0, uint8_t(id >> 8), uint8_t(id),
                                                    uint8_t(seq >> 8), uint8_t(seq)};
    const uint16_t sum = inet_checksum(echo, sizeof echo);
    echo[2] = uint8_t(sum >> 8);
    echo[3] = uint8_t(sum);
    const auto t0 = Clock::now();
    const auto deadline = t0 + std::chrono::milliseconds(timeout_ms);
    if (sendto(s.fd, echo, sizeof echo, 0, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != ssize_t(sizeof echo))
        return -1;
    uint8_t buf[kMaxPacket / 64];
    for (;;) {
        pollfd p{s.fd, POLLIN, 0};
        if (poll(&p, 1, ms_left(deadline)) != 1) return -1;
        const ssize_t n = recv(s.fd, buf, sizeof buf, 0); // the IPv4 header comes first
        const auto t1 = Clock::now();
        PacketInfo in;
        if (n > 0 && parse_ipv4_packet(buf, size_t(n), in) && in.proto == kProtoIcmp &&
            in.icmp_type == kIcmpEchoReply && in.icmp_id == id && in.icmp_seq == seq)
            return ms_between(t0, t1);
        if (Clock::now() >= deadline) return -1;
    }
}

double plain_stun_ms(const char* ip, uint16_t port, int timeout_ms) {
    sockaddr_in sa{};
    if (!to_sockaddr(ip, port, sa)) return -1;
    Fd s{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    if (s.fd < 0 || connect(s.fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) return -1;
    uint8_t req[kStunHeader] = {uint8_t(kStunBindingRequest >> 8), uint8_t(kStunBindingRequest & 0xFF), 0, 0,
                                uint8_t(kStunCookie >> 24), uint8_t(kStunCookie >> 16), uint8_t(kStunCookie >> 8),
                                uint8_t(kStunCookie)};
    static std::atomic<uint32_t> counter{0};
    const uint32_t txid = counter.fetch_add(1) ^ uint32_t(getpid()) << 8;
    std::memcpy(req + 8, &txid, sizeof txid);
    const auto t0 = Clock::now();
    const auto deadline = t0 + std::chrono::milliseconds(timeout_ms);
    if (send(s.fd, req, sizeof req, 0) != ssize_t(sizeof req)) return -1;
    uint8_t buf[kMaxPacket / 64];
    for (;;) {
        pollfd p{s.fd, POLLIN, 0};
        if (poll(&p, 1, ms_left(deadline)) != 1) return -1;
        const ssize_t n = recv(s.fd, buf, sizeof buf, 0);
        const auto t1 = Clock::now();
        if (n >= ssize_t(kStunHeader) && be16(buf) == kStunBindingSuccess &&
            std::memcmp(buf + 4, req + 4, kStunHeader - 4) == 0)
            return ms_between(t0, t1);
        if (Clock::now() >= deadline) return -1;
    }
}

struct TunWire::Impl {
    struct Direction {
        Direction(const Impairment& imp, JitterModel m, uint64_t seed) : model(imp, m, seed) {}
        zeph_relay::ImpairmentModel model;
        Clock::time_point last_due{};
    };

    explicit Impl(TunWireConfig c)
        : cfg(std::move(c)),
          // Distinct, fixed derivations of the one seed per direction.
          to_b(cfg.a_to_b, cfg.jitter_model, cfg.seed * 2 + 1),
          to_a(cfg.b_to_a, cfg.jitter_model, cfg.seed * 2 + 2) {}

    void run();
    void read_side(int fd, bool into_b, std::vector<uint8_t>& buf);
    void write_due();
    double ms_since_start(Clock::time_point t) const {
        return std::chrono::duration<double, std::milli>(t - started).count();
    }

    TunWireConfig cfg;
    SideHandles a, b;
    int wake_fd = -1;
    Clock::time_point started;
    std::thread thread;
    uint64_t seq = 0;
    std::priority_queue<Pending, std::vector<Pending>, Later> pending; // shuttle thread only

    mutable std::mutex mu; // guards what follows
    Direction to_b, to_a;
    std::vector<WireRecord> log; // records of the sequence numbers from log_base on
    uint64_t log_base = 0;
    uint64_t next_record = 0;
    WireStats stats;
};

void TunWire::Impl::read_side(int fd, bool into_b, std::vector<uint8_t>& buf) {
    for (;;) {
        const ssize_t n = read(fd, buf.data(), buf.size());
        if (n <= 0) return;
        const auto now = Clock::now();
        WireRecord rec;
        rec.at_ms = ms_since_start(now);
        rec.a_to_b = into_b;
        std::lock_guard<std::mutex> lock(mu);
        if (!parse_ipv4_packet(buf.data(), size_t(n), rec.info)) {
            ++stats.not_ipv4;
            continue;
        }
        Direction& d = into_b ? to_b : to_a;
        WireDirectionStats& ds = into_b ? stats.a_to_b : stats.b_to_a;
        double delay_ms = 0;
        if (!d.model.next(delay_ms)) {
            rec.dropped = true;
            ++ds.dropped;
        } else {
            auto due = now + std::chrono::nanoseconds(int64_t(delay_ms * 1e6));
            if (cfg.keep_order) due = std::max(due, d.last_due);
            d.last_due = std::max(d.last_due, due);
            rec.delay_ms = std::chrono::duration<double, std::milli>(due - now).count();
            pending.push(Pending{due, seq++, into_b, rec.delay_ms, next_record,
                                 std::vector<uint8_t>(buf.data(), buf.data() + n)});
        }
        // The log grows without gaps until it is full, so a record's place
        // is its sequence number less log_base.
        ++next_record;
        if (log.size() < cfg.max_log)
            log.push_back(rec);
        else
            ++stats.log_overflow;
    }
}

void TunWire::Impl::write_due() {
    const auto now = Clock::now();
    while (!pending.empty() && pending.top().due <= now) {
        const Pending& p = pending.top();
        const int fd = p.to_b ? b.tun_fd : a.tun_fd;
        const bool ok = write(fd, p.data.data(), p.data.size()) == ssize_t(p.data.size());
        const auto out = Clock::now();
        const double late = std::chrono::duration<double, std::milli>(out - p.due).count();
        {
            std::lock_guard<std::mutex> lock(mu);
            WireDirectionStats& ds = p.to_b ? stats.a_to_b : stats.b_to_a;
            if (ok) {
                ++ds.forwarded;
                ds.delay_sum_ms += p.delay_ms;
                ds.late_sum_ms += late;
                ds.late_max_ms = std::max(ds.late_max_ms, late);
                if (p.record_seq >= log_base && p.record_seq - log_base < log.size())
                    log[size_t(p.record_seq - log_base)].out_ms = ms_since_start(out);
            } else {
                ++ds.write_failed;
            }
        }
        pending.pop();
    }
}

void TunWire::Impl::run() {
    pthread_setname_np(pthread_self(), "tun_wire");
    // Wake on time to the microsecond, not within the default 50 us slack.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    std::vector<uint8_t> buf(kMaxPacket);
    pollfd fds[3] = {{wake_fd, POLLIN, 0}, {a.tun_fd, POLLIN, 0}, {b.tun_fd, POLLIN, 0}};
    for (;;) {
        timespec ts{};
        timespec* tsp = nullptr;
        if (!pending.empty()) {
            auto wait = std::max(Clock::duration::zero(), pending.top().due - Clock::now());
            auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(wait).count();
            ts.tv_sec = time_t(ns / 1000000000);
            ts.tv_nsec = long(ns % 1000000000);
            tsp = &ts;
        }
        const int r = ppoll(fds, 3, tsp, nullptr);
        if (r < 0 && errno != EINTR) return;
        if (r > 0) {
            if (fds[0].revents) return;
            if (fds[1].revents) read_side(a.tun_fd, true, buf);
            if (fds[2].revents) read_side(b.tun_fd, false, buf);
        }
        write_due();
    }
}

TunWire::TunWire(TunWireConfig config) : m_impl(new Impl(std::move(config))) {}

TunWire::~TunWire() { stop(); }

bool TunWire::permitted(std::string* why) {
    std::string reason;
    bool ok = false;
    if (!on_own_thread(
            [&] {
                SideHandles h;
                ok = make_side(kAddrA, kAddrB, h, reason);
                close_side(h);
            },
            reason))
        ok = false;
    if (!ok && why) *why = reason;
    return ok;
}

int TunWire::start(std::string* error) {
    Impl& m = *m_impl;
    if (m.wake_fd >= 0) return 0;
    std::string why;
    auto fail = [&](const std::string& reason) {
        if (error) *error = reason;
        close_side(m.a);
        close_side(m.b);
        if (m.wake_fd >= 0) close(m.wake_fd);
        m.wake_fd = -1;
        return -1;
    };
    bool ok = false;
    if (!on_own_thread([&] { ok = make_side(kAddrA, kAddrB, m.a, why); }, why) || !ok) return fail("side A: " + why);
    if (!on_own_thread([&] { ok = make_side(kAddrB, kAddrA, m.b, why); }, why) || !ok) return fail("side B: " + why);
    m.wake_fd = eventfd(0, EFD_CLOEXEC);
    if (m.wake_fd < 0) return fail(os_error("eventfd"));
    m.started = Clock::now();
    try {
        m.thread = std::thread([&m] { m.run(); });
    } catch (const std::system_error& e) {
        return fail(std::string("thread: ") + e.what());
    }
    return 0;
}

void TunWire::stop() {
    Impl& m = *m_impl;
    if (m.wake_fd >= 0) {
        uint64_t one = 1;
        ssize_t n = write(m.wake_fd, &one, sizeof one);
        (void)n;
    }
    if (m.thread.joinable()) m.thread.join();
    close_side(m.a);
    close_side(m.b);
    if (m.wake_fd >= 0) close(m.wake_fd);
    m.wake_fd = -1;
    m.pending = {};
}

int TunWire::enter(Side side, std::string* error) {
    const int fd = side == Side::A ? m_impl->a.ns_fd : m_impl->b.ns_fd;
    if (fd < 0) {
        if (error) *error = "the wire is not started";
        return -1;
    }
    if (setns(fd, CLONE_NEWNET) != 0) {
        if (error) *error = os_error("setns");
        return -1;
    }
    return 0;
}

int TunWire::run_in(Side side, const std::function<void()>& fn, std::string* error) {
    std::string why;
    int rc = -1;
    if (!on_own_thread(
            [&] {
                rc = enter(side, &why);
                if (rc == 0) fn();
            },
            why))
        rc = -1;
    if (rc != 0 && error) *error = why;
    return rc;
}

void TunWire::set_impairment(const Impairment& a_to_b, const Impairment& b_to_a) {
    Impl& m = *m_impl;
    std::lock_guard<std::mutex> lock(m.mu);
    m.cfg.a_to_b = a_to_b;
    m.cfg.b_to_a = b_to_a;
    m.to_b.model = zeph_relay::ImpairmentModel(a_to_b, m.cfg.jitter_model, m.cfg.seed * 2 + 1);
    m.to_a.model = zeph_relay::ImpairmentModel(b_to_a, m.cfg.jitter_model, m.cfg.seed * 2 + 2);
}

std::vector<WireRecord> TunWire::take_log() {
    std::lock_guard<std::mutex> lock(m_impl->mu);
    std::vector<WireRecord> out;
    out.swap(m_impl->log);
    m_impl->log_base = m_impl->next_record;
    return out;
}

WireStats TunWire::stats() const {
    std::lock_guard<std::mutex> lock(m_impl->mu);
    return m_impl->stats;
}

} // namespace zeph_wire
