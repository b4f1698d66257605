// Each peer's thread runs its run(); start(), stop() and the accessors run on
// the owner's thread.
#include "loopback_peers.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

#include "inc/stun_wire.h"
#include "ipv4.h"

namespace zeph_peers {
namespace {

constexpr uint16_t kXorMappedAddress = 0x0020;
constexpr int kListenBacklog = 128;
constexpr auto kSendAllLimit = std::chrono::seconds(5);
constexpr int kSendWaitStepMs = 100;

// Builds the Binding Success answer to `req` into `out`; 0 when `req` is not
// a well-formed Binding Request (short, another type, no magic cookie, or an
// attribute length the datagram does not hold).
size_t binding_answer(const uint8_t* req, size_t len, const sockaddr_in& from, uint8_t* out, size_t cap) {
    zeph::ByteReader r(req, len);
    zeph::stun::Header in;
    if (!zeph::stun::read_header(r, in)) return 0;
    if (in.type != zeph::stun::kBindingRequest || in.cookie != zeph::stun::kMagicCookie) return 0;
    if (in.length > len - zeph::stun::kHeaderSize) return 0;

    zeph::stun::Header ans = in;
    ans.type = zeph::stun::kBindingSuccess;
    ans.length = 12; // one XOR-MAPPED-ADDRESS attribute, IPv4
    zeph::ByteWriter w(out, cap);
    const uint16_t port = ntohs(from.sin_port);
    const uint32_t addr = ntohl(from.sin_addr.s_addr);
    bool ok = zeph::stun::write_header(w, ans) && w.put_be16(kXorMappedAddress) && w.put_be16(8) && w.put_u8(0) &&
              w.put_u8(0x01) && w.put_be16(uint16_t(port ^ (zeph::stun::kMagicCookie >> 16))) &&
              w.put_be32(addr ^ zeph::stun::kMagicCookie);
    return ok ? w.size() : 0;
}

std::string describe(const char* what, const std::string& ip, uint16_t port, int err) {
    return std::string(what) + " " + ip + ":" + std::to_string(port) + ": " + std::strerror(err);
}

// Starts `body` on `thread`; false (with `error`) when no thread can be made.
template <typename F>
bool start_thread(std::thread& thread, F body, std::string* error) {
    try {
        thread = std::thread(body);
        return true;
    } catch (const std::system_error& e) {
        if (error) *error = std::string("thread: ") + e.what();
        return false;
    }
}

void wake_up(int wake) {
    if (wake < 0) return;
    uint64_t one = 1;
    ssize_t n = write(wake, &one, sizeof one);
    (void)n;
}

void stop_thread(std::thread& thread, int& fd, int& wake) {
    wake_up(wake);
    if (thread.joinable()) thread.join();
    if (fd >= 0) close(fd);
    if (wake >= 0) close(wake);
    fd = -1;
    wake = -1;
}

} // namespace

bool StunResponder::start(const std::string& ip, uint16_t port, std::string* error) {
    if (m_fd >= 0) return true;
    m_ip = ip;
    m_fd = bound_socket(SOCK_DGRAM, ip, port, m_port, error);
    if (m_fd < 0) return false;
    m_wake = eventfd(0, EFD_CLOEXEC);
    if (m_wake < 0 || !start_thread(m_thread, [this] { run(); }, error)) {
        stop_thread(m_thread, m_fd, m_wake);
        return false;
    }
    return true;
}

void StunResponder::stop() { stop_thread(m_thread, m_fd, m_wake); }

void StunResponder::run() {
    uint8_t buf[2048];
    uint8_t out[64];
    pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_wake, POLLIN, 0}};
    for (;;) {
        if (poll(fds, 2, -1) < 0 && errno != EINTR) return;
        if (fds[1].revents) return;
        if (!(fds[0].revents & POLLIN)) continue;
        sockaddr_in from{};
        socklen_t fl = sizeof from;
        ssize_t n = recvfrom(m_fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &fl);
        if (n <= 0) continue;
        size_t len = binding_answer(buf, size_t(n), from, out, sizeof out);
        if (len == 0) {
            m_ignored.fetch_add(1);
            continue;
        }
        if (sendto(m_fd, out, len, 0, reinterpret_cast<sockaddr*>(&from), fl) == ssize_t(len)) m_answered.fetch_add(1);
    }
}

bool TcpListener::start(const std::string& ip, uint16_t port, std::string* error) {
    if (m_fd >= 0) return true;
    m_ip = ip;
    m_stopping = false;
    m_fd = bound_socket(SOCK_STREAM, ip, port, m_port, error);
    if (m_fd < 0) return false;
    if (listen(m_fd, kListenBacklog) != 0) {
        if (error) *error = describe("listen", ip, m_port, errno);
        close(m_fd);
        m_fd = -1;
        return false;
    }
    m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_wake < 0 || !start_thread(m_thread, [this] { run(); }, error)) {
        stop();
        return false;
    }
    return true;
}

void TcpListener::stop() {
    m_stopping = true;
    int fd = m_fd, wake = m_wake;
    stop_thread(m_thread, fd, wake);
    m_fd = -1;
    m_wake = -1;
    close_connections();
}

void TcpListener::run() {
    std::vector<pollfd> fds;
    for (;;) {
        fds.clear();
        fds.push_back({m_wake, POLLIN, 0});
        fds.push_back({m_fd, POLLIN, 0});
        if (m_mode == Mode::Echo || m_mode == Mode::Sink) {
            std::lock_guard<std::mutex> lock(m_mu);
            for (int c : m_conns) fds.push_back({c, POLLIN, 0});
        }
        if (poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) return;
        if (fds[0].revents != 0) {
            uint64_t n = 0;
            ssize_t got = read(m_wake, &n, sizeof n);
            (void)got;
            if (m_stopping) return;
        }
        if (fds[1].revents & POLLIN) {
            int c = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (c >= 0) {
                if (m_mode == Mode::Close) {
                    close(c);
                } else {
                    std::lock_guard<std::mutex> lock(m_mu);
                    m_conns.push_back(c);
                }
                m_accepts.fetch_add(1);
            }
        }
        for (size_t i = 2; i < fds.size(); ++i) {
            if (fds[i].revents == 0) continue;
            std::lock_guard<std::mutex> lock(m_mu);
            auto it = std::find(m_conns.begin(), m_conns.end(), fds[i].fd);
            if (it == m_conns.end()) continue; // closed by close_connections meanwhile
            char buf[16384];
            ssize_t n = recv(fds[i].fd, buf, sizeof buf, MSG_DONTWAIT);
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            if (n <= 0) {
                close(fds[i].fd);
                m_conns.erase(it);
                m_peer_closes.fetch_add(1);
                continue;
            }
            if (m_mode == Mode::Sink)
                m_received.append(buf, size_t(n));
            else
                send_all(fds[i].fd, buf, size_t(n));
        }
    }
}

int TcpListener::connection_fd(size_t i) const {
    std::lock_guard<std::mutex> lock(m_mu);
    return i < m_conns.size() ? m_conns[i] : -1;
}

void TcpListener::close_connections(bool reset) {
    {
        std::lock_guard<std::mutex> lock(m_mu);
        for (int c : m_conns) {
            if (reset) {
                linger lg{1, 0};
                setsockopt(c, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
            }
            close(c);
        }
        m_conns.clear();
    }
    wake_up(m_wake); // the thread rebuilds its poll set
}

std::string TcpListener::received() const {
    std::lock_guard<std::mutex> lock(m_mu);
    return m_received;
}

ClosedTcpPort::~ClosedTcpPort() {
    if (m_fd >= 0) close(m_fd);
}

bool ClosedTcpPort::open(const std::string& ip, std::string* error) {
    if (m_fd >= 0) return true;
    m_fd = bound_socket(SOCK_STREAM, ip, 0, m_port, error);
    return m_fd >= 0;
}

int bound_socket(int type, const std::string& ip, uint16_t port, uint16_t& bound_port, std::string* error) {
    sockaddr_in sa{};
    if (!zeph_tools::ipv4_sockaddr(ip, port, sa)) {
        if (error) *error = "not an IPv4 address: " + ip;
        return -1;
    }
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        if (error) *error = describe("socket", ip, port, errno);
        return -1;
    }
    if (type == SOCK_STREAM) {
        int one = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    }
    if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
        if (error) *error = describe("bind", ip, port, errno);
        close(fd);
        return -1;
    }
    socklen_t sl = sizeof sa;
    getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &sl);
    bound_port = ntohs(sa.sin_port);
    return fd;
}

bool raw_icmp_permitted() {
    int fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
    if (fd < 0) return false;
    close(fd);
    return true;
}

uint16_t free_port(const std::string& ip, int type) {
    uint16_t port = 0;
    const int fd = bound_socket(type, ip, 0, port, nullptr);
    if (fd < 0) return 0;
    close(fd);
    return port;
}

bool send_all(int fd, const void* data, size_t len) {
    const char* p = static_cast<const char*>(data);
    const auto deadline = std::chrono::steady_clock::now() + kSendAllLimit;
    while (len > 0) {
        const ssize_t n = send(fd, p, len, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            p += n;
            len -= size_t(n);
            continue;
        }
        if (n == 0 || (errno != EAGAIN && errno != EINTR)) return false;
        pollfd pf{fd, POLLOUT, 0};
        if (std::chrono::steady_clock::now() >= deadline || (poll(&pf, 1, kSendWaitStepMs) < 0 && errno != EINTR))
            return false;
    }
    return true;
}

} // namespace zeph_peers
