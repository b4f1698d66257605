// Small peers on loopback for the tool's demo, the benchmarks and tests:
// a STUN Binding responder (UDP), a TCP acceptor, and a TCP port on which
// nothing listens. Plain Linux sockets; each peer owns one thread at most,
// which its destructor stops and joins.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace zeph_peers {

// Answers every STUN Binding Request (RFC 5389) with a Binding Success that
// echoes the transaction id and carries the sender's XOR-MAPPED-ADDRESS.
// Anything else is counted and ignored.
class StunResponder {
public:
    StunResponder() = default;
    ~StunResponder() { stop(); }
    StunResponder(const StunResponder&) = delete;
    StunResponder& operator=(const StunResponder&) = delete;

    // Binds ip:port (0 picks a free port) and starts answering. On failure
    // returns false and, when `error` is given, says why ("bind 127.0.0.1:443:
    // Permission denied").
    bool start(const std::string& ip = "127.0.0.1", uint16_t port = 0, std::string* error = nullptr);
    void stop();

    const std::string& ip() const { return m_ip; }
    uint16_t port() const { return m_port; }
    uint64_t answered() const { return m_answered.load(); }
    uint64_t ignored() const { return m_ignored.load(); }

private:
    void run();

    std::string m_ip;
    uint16_t m_port = 0;
    int m_fd = -1;
    int m_wake = -1; // eventfd that ends the thread
    std::thread m_thread;
    std::atomic<uint64_t> m_answered{0};
    std::atomic<uint64_t> m_ignored{0};
};

// Accepts TCP connections and closes them at once (a reachable port).
class TcpAcceptor {
public:
    TcpAcceptor() = default;
    ~TcpAcceptor() { stop(); }
    TcpAcceptor(const TcpAcceptor&) = delete;
    TcpAcceptor& operator=(const TcpAcceptor&) = delete;

    bool start(const std::string& ip = "127.0.0.1", uint16_t port = 0, std::string* error = nullptr);
    void stop();

    const std::string& ip() const { return m_ip; }
    uint16_t port() const { return m_port; }
    uint64_t accepted() const { return m_accepted.load(); }

private:
    void run();

    std::string m_ip;
    uint16_t m_port = 0;
    int m_fd = -1;
    int m_wake = -1;
    std::thread m_thread;
    std::atomic<uint64_t> m_accepted{0};
};

// A TCP port that refuses connections: the socket stays bound but never
// listens, so the kernel answers every SYN with a reset and no other program
// can take the port while this object lives.
class ClosedTcpPort {
public:
    ClosedTcpPort() = default;
    ~ClosedTcpPort();
    ClosedTcpPort(const ClosedTcpPort&) = delete;
    ClosedTcpPort& operator=(const ClosedTcpPort&) = delete;

    bool open(const std::string& ip = "127.0.0.1", std::string* error = nullptr);
    uint16_t port() const { return m_port; }

private:
    int m_fd = -1;
    uint16_t m_port = 0;
};

// True when this process may open raw ICMP sockets (root or CAP_NET_RAW).
bool raw_icmp_permitted();

} // namespace zeph_peers
