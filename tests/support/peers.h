// Test peers on loopback (coturn, tinyproxy, TCP listener, UDP socket, TCP client helpers) with the
// waits, processes and log capture used beside them. Peers stop in their destructors. Test's thread.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ipv4.h"
#include "log_capture.h"
#include "loopback_peers.h"
#include "process.h"
#include "waits.h"

namespace zeph_test {

using zeph_peers::send_all;
using zeph_tools::ipv4_be;
using zeph_tools::ipv4_text;

// True when ip:port answers STUN request req (resent every 50 ms) with a success of its transaction in time.
bool stun_answers(const uint8_t* req, size_t size, const std::string& ip, uint16_t port, int timeout_ms);
// A TCP port on ip where nothing listens (bound to 0, read back, closed).
uint16_t closed_tcp_port(const std::string& ip = "127.0.0.1");
// A UDP port on ip where nothing is bound (a datagram to it draws ICMP port unreachable).
uint16_t closed_udp_port(const std::string& ip = "127.0.0.1");

class CoturnServer {
public:
    ~CoturnServer() { stop(); }
    // Starts turnserver, STUN only, on ip:port (0: a free port) until it answers; false, saying why.
    bool start(const std::string& ip = "127.0.0.1", uint16_t port = 0);
    void stop() { proc_.stop(); }
    uint16_t port() const { return port_; }
    const std::string& ip() const { return ip_; }

private:
    Process proc_;
    TempDir dir_;
    std::string ip_;
    uint16_t port_ = 0;
};


class TinyProxy {
public:
    ~TinyProxy() { stop(); }
    // Starts tinyproxy allowing CONNECT to connect_ports (all when empty), Basic auth when a user is set.
    bool start(const std::vector<uint16_t>& connect_ports, const std::string& basic_user = "",
               const std::string& basic_pass = "");
    void stop() { proc_.stop(); }
    uint16_t port() const { return port_; }
    std::string log_text() const { return dir_.read("tinyproxy.log"); }

private:
    Process proc_;
    TempDir dir_;
    uint16_t port_ = 0;
};

// The loopback peers' listener, listening from construction: Keep (default), Close, Echo or Sink
// what it accepts; !ok(), saying why, when it cannot listen.
class TcpListener : public zeph_peers::TcpListener {
public:
    explicit TcpListener(const std::string& ip = "127.0.0.1", uint16_t port = 0, Mode mode = Mode::Keep);
    explicit TcpListener(Mode mode) : TcpListener("127.0.0.1", 0, mode) {}

    bool wait_accepts(int n, int timeout_ms) const {
        return wait_until([&] { return accepts() >= n; }, timeout_ms);
    }
    bool wait_received(size_t n, int timeout_ms) const {
        return wait_until([&] { return received().size() >= n; }, timeout_ms);
    }
};

class UdpSocket {
public:
    explicit UdpSocket(const std::string& ip = "127.0.0.1", uint16_t port = 0);
    ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    bool ok() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    uint16_t port() const { return port_; }
    bool send_to(const void* data, size_t len, const std::string& ip, uint16_t port);
    // Waits up to timeout_ms for one datagram: its length, or -1. from_ip/from_port may be null.
    int recv(void* buf, size_t cap, int timeout_ms, std::string* from_ip = nullptr, uint16_t* from_port = nullptr);

private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

// Connects a blocking TCP socket to ip:port; -1 on failure.
int tcp_connect(const std::string& ip, uint16_t port, int timeout_ms = 2000);
// Reads exactly n bytes within timeout_ms; returns what arrived (may be short).
std::string recv_exact(int fd, size_t n, int timeout_ms);

} // namespace zeph_test
