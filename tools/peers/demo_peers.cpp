#include "demo_peers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "inc/stun_wire.h"

namespace zeph_peers {
namespace {

constexpr uint16_t kXorMappedAddress = 0x0020;

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

// Opens a socket of `type` bound to ip:port. Returns the descriptor or -1
// with `error` filled.
int bound_socket(int type, const std::string& ip, uint16_t port, uint16_t& bound_port, std::string* error) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    if (inet_pton(AF_INET, ip.c_str(), &sa.sin_addr) != 1) {
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

void stop_thread(std::thread& thread, int& fd, int& wake) {
    if (wake >= 0) {
        uint64_t one = 1;
        ssize_t n = write(wake, &one, sizeof one);
        (void)n;
    }
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

bool TcpAcceptor::start(const std::string& ip, uint16_t port, std::string* error) {
    if (m_fd >= 0) return true;
    m_ip = ip;
    m_fd = bound_socket(SOCK_STREAM, ip, port, m_port, error);
    if (m_fd < 0) return false;
    if (listen(m_fd, 128) != 0) {
        if (error) *error = describe("listen", ip, m_port, errno);
        close(m_fd);
        m_fd = -1;
        return false;
    }
    m_wake = eventfd(0, EFD_CLOEXEC);
    if (m_wake < 0 || !start_thread(m_thread, [this] { run(); }, error)) {
        stop_thread(m_thread, m_fd, m_wake);
        return false;
    }
    return true;
}

void TcpAcceptor::stop() { stop_thread(m_thread, m_fd, m_wake); }

void TcpAcceptor::run() {
    pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_wake, POLLIN, 0}};
    for (;;) {
        if (poll(fds, 2, -1) < 0 && errno != EINTR) return;
        if (fds[1].revents) return;
        if (!(fds[0].revents & POLLIN)) continue;
        int c = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (c >= 0) {
            m_accepted.fetch_add(1);
            close(c);
        }
    }
}

ClosedTcpPort::~ClosedTcpPort() {
    if (m_fd >= 0) close(m_fd);
}

bool ClosedTcpPort::open(const std::string& ip, std::string* error) {
    if (m_fd >= 0) return true;
    m_fd = bound_socket(SOCK_STREAM, ip, 0, m_port, error);
    return m_fd >= 0;
}

bool raw_icmp_permitted() {
    int fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
    if (fd < 0) return false;
    close(fd);
    return true;
}

} // namespace zeph_peers
