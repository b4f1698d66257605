// Test peers on loopback: temporary folders, child processes (coturn,
// tinyproxy, our own tools), a scriptable TCP listener, a UDP socket, a log
// capture and deadline waits.
//
// Everything here is test code and uses plain Linux sockets. Peers bind to
// 127.0.0.1 (port 0 = a free port chosen by the kernel) and are stopped by
// their destructors, so each TEST cleans up after itself even when an
// assertion fails half-way.
//
//   CoturnServer stun;                       // STUN on 127.0.0.1:<free port>
//   ASSERT_TRUE(stun.start());
//   TcpListener target;                      // keeps accepted connections
//   TinyProxy proxy;                         // CONNECT allowed to target only
//   ASSERT_TRUE(proxy.start({target.port()}));
//   zeph_settings_set_http_proxy("127.0.0.1", proxy.port(), nullptr, nullptr);
//   LogCapture log;
//   ... start a detection ...
//   EXPECT_TRUE(wait_until([&] { return done.load(); }, 5000));
//   EXPECT_TRUE(log.contains("some message")) << log.dump();
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zeph_test {

// ---- waits -------------------------------------------------------------------
// Polls pred every step_ms until it is true or timeout_ms have passed.
// Returns the last value of pred.
bool wait_until(const std::function<bool()>& pred, int timeout_ms, int step_ms = 2);

// Milliseconds of a monotonic clock.
uint64_t now_ms();

// ---- addresses ------------------------------------------------------------------
// Dotted IPv4 text to a network-order number ("127.0.0.1" -> 0x0100007F); 0 if not dotted.
uint32_t ipv4_be(const std::string& text);
// Network-order number to dotted text.
std::string ipv4_text(uint32_t be_addr);
// A TCP port on ip where nothing listens (bound to 0, read back, closed).
uint16_t closed_tcp_port(const std::string& ip = "127.0.0.1");
// A UDP port on ip where nothing is bound (a datagram to it draws ICMP port unreachable).
uint16_t closed_udp_port(const std::string& ip = "127.0.0.1");
// Path of a program built in tools/ of this build tree.
std::string tool_path(const std::string& name);

// ---- temporary folder -------------------------------------------------------------
class TempDir {
public:
    TempDir(); // mkdtemp under $TMPDIR or /tmp
    ~TempDir(); // removes the folder and everything in it
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    bool ok() const { return !path_.empty(); }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Writes text to file(name); true on success.
    bool write(const std::string& name, const std::string& text) const;
    // Whole content of file(name), empty when missing.
    std::string read(const std::string& name) const;

private:
    std::string path_;
};

// ---- child process ----------------------------------------------------------------
// A program started with posix_spawnp; stdout and stderr go to files in its
// own TempDir. stop() sends SIGTERM, waits up to timeout_ms, then SIGKILLs.
class Process {
public:
    Process() = default;
    ~Process() { stop(); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // argv[0] is looked up in PATH when it has no '/'. False (and a message
    // in error()) when the program could not be started. A program that
    // starts and exits at once shows in running().
    bool start(const std::vector<std::string>& argv);
    // True while the child has not exited (reaps it when it has).
    bool running();
    // Stops the child by its PID. Returns the wait status from waitpid, or
    // -1 when nothing was running. Idempotent.
    int stop(int timeout_ms = 3000);

    pid_t pid() const { return pid_; }
    const std::string& error() const { return error_; }
    std::string stdout_text() const;
    std::string stderr_text() const;
    const TempDir& dir() const { return dir_; }

private:
    TempDir dir_;
    pid_t pid_ = -1;
    int status_ = -1;
    std::string error_;
};

// ---- coturn as STUN server -----------------------------------------------------------
class CoturnServer {
public:
    CoturnServer() = default;
    ~CoturnServer() { stop(); }
    // Starts turnserver in STUN-only mode on ip:port (a free UDP port when 0)
    // and waits (5 s) until it answers a Binding Request. Prints why and
    // returns false when it cannot: ASSERT_TRUE(coturn.start()).
    bool start(const std::string& ip = "127.0.0.1", uint16_t port = 0);
    void stop() { proc_.stop(); }
    uint16_t port() const { return port_; }
    const std::string& ip() const { return ip_; }
    Process& process() { return proc_; }

private:
    Process proc_;
    TempDir dir_;
    std::string ip_;
    uint16_t port_ = 0;
};

// True when the STUN server at ip:port answers a Binding Request with a
// Binding Success Response (0x0101) within timeout_ms.
bool stun_binding_ok(const std::string& ip, uint16_t port, int timeout_ms);

// ---- tinyproxy as HTTP proxy --------------------------------------------------------
class TinyProxy {
public:
    TinyProxy() = default;
    ~TinyProxy() { stop(); }
    // Writes a config (Port, Listen/Allow 127.0.0.1, one ConnectPort per entry
    // - none means every port is allowed -, BasicAuth when basic_user is
    // non-empty), starts `tinyproxy -d -c FILE` and waits (5 s) until its port
    // accepts. Prints why and returns false when it cannot.
    bool start(const std::vector<uint16_t>& connect_ports, const std::string& basic_user = "",
               const std::string& basic_pass = "");
    void stop() { proc_.stop(); }
    uint16_t port() const { return port_; }
    std::string log_text() const { return dir_.read("tinyproxy.log"); }
    Process& process() { return proc_; }

private:
    Process proc_;
    TempDir dir_;
    uint16_t port_ = 0;
};

// ---- scriptable TCP listener ---------------------------------------------------------
// Listens on ip:port (free port when 0) and serves accepted connections on
// one thread, according to its mode:
//   Keep:  holds them open, never reads (tests may use connection_fd()).
//   Close: closes each one right after accept.
//   Echo:  sends back every byte received.
//   Sink:  reads and stores every byte received (received()).
// Stops its thread and closes everything in the destructor.
class TcpListener {
public:
    enum class Mode { Keep, Close, Echo, Sink };

    explicit TcpListener(const std::string& ip = "127.0.0.1", uint16_t port = 0, Mode mode = Mode::Keep);
    explicit TcpListener(Mode mode) : TcpListener("127.0.0.1", 0, mode) {}
    ~TcpListener();
    TcpListener(const TcpListener&) = delete;
    TcpListener& operator=(const TcpListener&) = delete;

    bool ok() const { return listen_fd_ >= 0; }
    uint16_t port() const { return port_; }
    int accepts() const { return accepts_.load(); }
    bool wait_accepts(int n, int timeout_ms) const;
    // Connections closed by the peer so far (Echo and Sink modes).
    int peer_closes() const { return peer_closes_.load(); }

    // Fd of the i-th accepted connection still open (Keep mode), -1 if none.
    // The listener keeps ownership.
    int connection_fd(size_t i) const;
    // Closes every open connection; with reset, by an RST (SO_LINGER 0).
    void close_connections(bool reset = false);

    // All bytes received so far in Sink mode, in arrival order.
    std::string received() const;
    bool wait_received(size_t n, int timeout_ms) const;

private:
    void run();

    int listen_fd_ = -1;
    int wake_[2] = {-1, -1};
    uint16_t port_ = 0;
    Mode mode_;
    std::atomic<int> accepts_{0};
    std::atomic<int> peer_closes_{0};
    mutable std::mutex mu_;
    std::vector<int> conns_;
    std::string received_;
    std::thread thread_;
};

// ---- UDP socket --------------------------------------------------------------------
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
    // Waits up to timeout_ms for one datagram. Returns its length, or -1 on
    // time-out or error. from_ip/from_port may be null.
    int recv(void* buf, size_t cap, int timeout_ms, std::string* from_ip = nullptr, uint16_t* from_port = nullptr);

private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

// Connects a blocking TCP socket to ip:port; -1 on failure.
int tcp_connect(const std::string& ip, uint16_t port, int timeout_ms = 2000);
// Sends all of data; false on error.
bool send_all(int fd, const void* data, size_t len);
// Reads exactly n bytes within timeout_ms; returns what arrived (may be short).
std::string recv_exact(int fd, size_t n, int timeout_ms);

// ---- log capture ---------------------------------------------------------------------
struct LogLine {
    int level;
    std::string module;
    std::string function;
    std::string file;
    int line;
    std::string message;
};

// Installs a log sink of level 3 (debug) that stores every line; restores the
// default sink on destruction. One capture at a time per process. Lines that
// library threads log after the capture ended are dropped safely.
class LogCapture {
public:
    explicit LogCapture(int max_level = 3);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    bool contains(const std::string& substr) const;
    int count(const std::string& substr) const;
    bool wait_for(const std::string& substr, int timeout_ms) const;
    void clear();
    // All lines as text, one per line, for failure messages.
    std::string dump() const;
};

} // namespace zeph_test
