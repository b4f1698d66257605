// Test peers: coturn and tinyproxy as children, the listener, a UDP socket and TCP client
// helpers. All run on the test's thread but the listener, whose thread its base owns.
#include "peers.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace zeph_test {

namespace {

// Polls fd for events until the deadline (ms of now_ms()); > 0 when they came.
int poll_until(int fd, short events, uint64_t deadline) {
    pollfd p{fd, events, 0};
    int r;
    do {
        r = poll(&p, 1, static_cast<int>(deadline > now_ms() ? deadline - now_ms() : 0));
    } while (r < 0 && errno == EINTR);
    return r;
}

sockaddr_in make_addr(const std::string& ip, uint16_t port) {
    sockaddr_in a{};
    zeph_tools::ipv4_sockaddr(ip, port, a);
    return a;
}

} // namespace

uint16_t closed_tcp_port(const std::string& ip) { return zeph_peers::free_port(ip, SOCK_STREAM); }
uint16_t closed_udp_port(const std::string& ip) { return zeph_peers::free_port(ip, SOCK_DGRAM); }


bool stun_answers(const uint8_t* req, size_t size, const std::string& ip, uint16_t port, int timeout_ms) {
    UdpSocket sock;
    if (!sock.ok()) return false;
    const uint64_t deadline = now_ms() + static_cast<uint64_t>(timeout_ms);
    while (now_ms() < deadline) {
        sock.send_to(req, size, ip, port);
        const uint64_t resend_at = std::min(deadline, now_ms() + 50);
        while (now_ms() < resend_at) {
            uint8_t ans[1500];
            int n = sock.recv(ans, sizeof ans, static_cast<int>(resend_at - now_ms()));
            if (n >= 20 && ans[0] == 0x01 && ans[1] == 0x01 && std::memcmp(ans + 4, req + 4, 16) == 0) return true;
        }
    }
    return false;
}

bool CoturnServer::start(const std::string& ip, uint16_t port) {
    stop();
    // A Binding Request: type 1, length 0, magic cookie, a random transaction id.
    uint8_t req[20] = {0x00, 0x01, 0x00, 0x00, 0x21, 0x12, 0xA4, 0x42};
    for (int i = 8; i < 20; ++i) req[i] = static_cast<uint8_t>(std::rand());
    // Another test may take a port of our choosing before coturn binds it: try a few.
    for (int attempt = 0; attempt < 3; ++attempt) {
        uint16_t p = port != 0 ? port : closed_udp_port(ip);
        std::vector<std::string> argv = {"turnserver", "-n", "--stun-only", "--listening-ip=" + ip,
                                         "--listening-port=" + std::to_string(p), "--no-cli", "--no-tls", "--no-dtls",
                                         "--no-tcp", "--log-file=stdout", "--pidfile=" + dir_.file("turn.pid"),
                                         "--db=" + dir_.file("turndb")};
        if (!proc_.start(argv)) return false;
        const uint64_t deadline = now_ms() + 5000;
        while (now_ms() < deadline && proc_.running()) {
            if (stun_answers(req, sizeof req, ip, p, 100)) {
                ip_ = ip, port_ = p;
                return true;
            }
        }
        proc_.stop();
        if (port != 0) break;
        std::fprintf(stderr, "zeph_test: coturn on %s:%u did not answer, retrying\n", ip.c_str(), p);
    }
    std::fprintf(stderr, "zeph_test: coturn did not answer on %s; its output:\n%s\n", ip.c_str(),
                 proc_.stdout_text().c_str());
    return false;
}


bool TinyProxy::start(const std::vector<uint16_t>& connect_ports, const std::string& basic_user,
                      const std::string& basic_pass) {
    stop();
    for (int attempt = 0; attempt < 3; ++attempt) {
        uint16_t p = closed_tcp_port("127.0.0.1");
        std::ostringstream conf;
        conf << "Port " << p << "\nListen 127.0.0.1\nTimeout 60\nMaxClients 64\nAllow 127.0.0.1\nLogLevel Info\n"
             << "PidFile \"" << dir_.file("tinyproxy.pid") << "\"\nLogFile \"" << dir_.file("tinyproxy.log") << "\"\n";
        for (uint16_t cp : connect_ports) conf << "ConnectPort " << cp << "\n";
        if (!basic_user.empty()) conf << "BasicAuth " << basic_user << " " << basic_pass << "\n";
        if (!dir_.write("tinyproxy.conf", conf.str()) || !proc_.start({"tinyproxy", "-d", "-c", dir_.file("tinyproxy.conf")})) {
            std::fprintf(stderr, "zeph_test: cannot write the tinyproxy config or start it\n");
            return false;
        }
        const uint64_t deadline = now_ms() + 5000;
        while (now_ms() < deadline && proc_.running()) {
            const int fd = tcp_connect("127.0.0.1", p, 200);
            if (fd >= 0) {
                close(fd), port_ = p;
                return true;
            }
            sleep_ms(5);
        }
        proc_.stop();
        std::fprintf(stderr, "zeph_test: tinyproxy on port %u did not start (attempt %d)\n", p, attempt + 1);
    }
    std::fprintf(stderr, "zeph_test: tinyproxy did not start; stderr:\n%s\nlog:\n%s\n", proc_.stderr_text().c_str(),
                 log_text().c_str());
    return false;
}


TcpListener::TcpListener(const std::string& ip, uint16_t port, Mode mode) : zeph_peers::TcpListener(mode) {
    std::string error;
    if (!start(ip, port, &error))
        std::fprintf(stderr, "zeph_test: cannot listen on %s:%u: %s\n", ip.c_str(), port, error.c_str());
}



UdpSocket::UdpSocket(const std::string& ip, uint16_t port) {
    std::string error;
    fd_ = zeph_peers::bound_socket(SOCK_DGRAM, ip, port, port_, &error);
    if (fd_ < 0) std::fprintf(stderr, "zeph_test: cannot bind UDP: %s\n", error.c_str());
}

UdpSocket::~UdpSocket() { if (fd_ >= 0) close(fd_); }

bool UdpSocket::send_to(const void* data, size_t len, const std::string& ip, uint16_t port) {
    sockaddr_in to = make_addr(ip, port);
    return sendto(fd_, data, len, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) == static_cast<ssize_t>(len);
}

int UdpSocket::recv(void* buf, size_t cap, int timeout_ms, std::string* from_ip, uint16_t* from_port) {
    const uint64_t deadline = now_ms() + static_cast<uint64_t>(timeout_ms > 0 ? timeout_ms : 0);
    for (;;) {
        if (poll_until(fd_, POLLIN, deadline) <= 0) return -1;
        sockaddr_in from{};
        socklen_t len = sizeof from;
        ssize_t n = recvfrom(fd_, buf, cap, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &len);
        if (n < 0) {
            // An ICMP error from an earlier send shows up here; keep waiting.
            if (errno == ECONNREFUSED || errno == EAGAIN || errno == EINTR) continue;
            return -1;
        }
        if (from_ip != nullptr) *from_ip = ipv4_text(from.sin_addr.s_addr);
        if (from_port != nullptr) *from_port = ntohs(from.sin_port);
        return static_cast<int>(n);
    }
}


int tcp_connect(const std::string& ip, uint16_t port, int timeout_ms) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    sockaddr_in to = make_addr(ip, port);
    int r = connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (r != 0 && errno == EINPROGRESS && poll_until(fd, POLLOUT, now_ms() + static_cast<uint64_t>(timeout_ms)) > 0) {
        int err = 0;
        socklen_t len = sizeof err;
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
        r = err == 0 ? 0 : -1;
    }
    if (r != 0) {
        close(fd);
        return -1;
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL, 0) & ~O_NONBLOCK);
    return fd;
}

std::string recv_exact(int fd, size_t n, int timeout_ms) {
    std::string out;
    const uint64_t deadline = now_ms() + static_cast<uint64_t>(timeout_ms > 0 ? timeout_ms : 0);
    while (out.size() < n) {
        if (poll_until(fd, POLLIN, deadline) <= 0) break;
        char buf[4096];
        ssize_t got = recv(fd, buf, std::min(sizeof buf, n - out.size()), MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) break;
        if (got > 0) out.append(buf, static_cast<size_t>(got));
    }
    return out;
}

} // namespace zeph_test
