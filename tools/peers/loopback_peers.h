// The peers on loopback of the tool's demo, the benchmarks and the tests: a
// STUN Binding responder (UDP), a scriptable TCP listener (keep, close, echo
// or sink what it accepts), and a TCP port on which nothing listens. Plain
// Linux sockets; each peer owns one thread at most, its own, which stop()
// and the destructor end (flag by eventfd, then join).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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

// Listens on ip:port (a free port when 0) and serves accepted connections on
// its thread, according to its mode:
//   Keep:  holds them open, never reads (connection_fd() gives them out).
//   Close: closes each one right after accept (a reachable port).
//   Echo:  sends back every byte received.
//   Sink:  reads and stores every byte received (received()).
class TcpListener {
public:
    enum class Mode { Keep, Close, Echo, Sink };

    explicit TcpListener(Mode mode = Mode::Keep) : m_mode(mode) {}
    ~TcpListener() { stop(); }
    TcpListener(const TcpListener&) = delete;
    TcpListener& operator=(const TcpListener&) = delete;

    // Binds, listens and starts serving. On failure returns false and, when
    // `error` is given, says why ("bind 127.0.0.1:443: Permission denied").
    bool start(const std::string& ip = "127.0.0.1", uint16_t port = 0, std::string* error = nullptr);
    // Ends the thread and closes the listening socket and every connection.
    void stop();

    bool ok() const { return m_fd >= 0; }
    const std::string& ip() const { return m_ip; }
    uint16_t port() const { return m_port; }
    int accepts() const { return m_accepts.load(); }
    // Connections closed by the peer so far (Echo and Sink modes).
    int peer_closes() const { return m_peer_closes.load(); }

    // Fd of the i-th accepted connection still open (Keep mode), -1 if none.
    // The listener keeps ownership.
    int connection_fd(size_t i) const;
    // Closes every open connection; with reset, by an RST (SO_LINGER 0).
    void close_connections(bool reset = false);
    // All bytes received so far in Sink mode, in arrival order.
    std::string received() const;

private:
    void run();

    const Mode m_mode;
    std::string m_ip;
    uint16_t m_port = 0;
    int m_fd = -1;
    int m_wake = -1; // eventfd: rebuilds the poll set, or ends the thread once m_stopping
    std::atomic<bool> m_stopping{false};
    std::thread m_thread;
    std::atomic<int> m_accepts{0};
    std::atomic<int> m_peer_closes{0};
    mutable std::mutex m_mu; // guards m_conns and m_received
    std::vector<int> m_conns;
    std::string m_received;
};

// A reachable TCP port: accepts connections and closes them at once.
class TcpAcceptor : public TcpListener {
public:
    TcpAcceptor() : TcpListener(Mode::Close) {}
    uint64_t accepted() const { return uint64_t(accepts()); }
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

// A socket of `type` (SOCK_STREAM, SOCK_DGRAM) bound to ip:port (0 picks a
// free port, given back in `bound_port`). The descriptor, or -1 with `error`
// (when given) saying why.
int bound_socket(int type, const std::string& ip, uint16_t port, uint16_t& bound_port, std::string* error);

// A port of `type` (SOCK_STREAM, SOCK_DGRAM) on ip that was free a moment
// ago: bound to 0, read back, closed. 0 when none could be had.
uint16_t free_port(const std::string& ip, int type);

// Sends all of data on a connected socket, waiting up to 5 s for room; false
// on error or time-out.
bool send_all(int fd, const void* data, size_t len);

} // namespace zeph_peers
