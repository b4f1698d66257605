#include "peers.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "zeph_nettools/settings.h"

extern char** environ;

namespace zeph_test {

namespace {

void sleep_ms(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

sockaddr_in make_addr(const std::string& ip, uint16_t port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    inet_pton(AF_INET, ip.c_str(), &a.sin_addr);
    return a;
}

uint16_t bound_port(int fd)
{
    sockaddr_in a{};
    socklen_t len = sizeof a;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        return 0;
    }
    return ntohs(a.sin_port);
}

// Binds a socket of `type` to ip:0 and gives the port the kernel chose.
uint16_t free_port(const std::string& ip, int type)
{
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return 0;
    }
    sockaddr_in a = make_addr(ip, 0);
    uint16_t port = 0;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0) {
        port = bound_port(fd);
    }
    close(fd);
    return port;
}

int poll_one(int fd, short events, int timeout_ms)
{
    pollfd p{fd, events, 0};
    int r;
    do {
        r = poll(&p, 1, timeout_ms);
    } while (r < 0 && errno == EINTR);
    return r;
}

void fail(std::string* error, const std::string& what)
{
    *error = what;
    std::fprintf(stderr, "zeph_test: %s\n", what.c_str());
}

} // namespace

// ---- waits and addresses ---------------------------------------------------------

uint64_t now_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

bool wait_until(const std::function<bool()>& pred, int timeout_ms, int step_ms)
{
    const uint64_t deadline = now_ms() + static_cast<uint64_t>(timeout_ms > 0 ? timeout_ms : 0);
    for (;;) {
        if (pred()) {
            return true;
        }
        if (now_ms() >= deadline) {
            return pred();
        }
        sleep_ms(step_ms > 0 ? step_ms : 1);
    }
}

uint32_t ipv4_be(const std::string& text)
{
    in_addr a{};
    return inet_pton(AF_INET, text.c_str(), &a) == 1 ? a.s_addr : 0;
}

std::string ipv4_text(uint32_t be_addr)
{
    char buf[INET_ADDRSTRLEN] = {};
    in_addr a{};
    a.s_addr = be_addr;
    inet_ntop(AF_INET, &a, buf, sizeof buf);
    return buf;
}

uint16_t closed_tcp_port(const std::string& ip)
{
    return free_port(ip, SOCK_STREAM);
}

uint16_t closed_udp_port(const std::string& ip)
{
    return free_port(ip, SOCK_DGRAM);
}

std::string tool_path(const std::string& name)
{
    return std::string(ZEPH_TOOLS_BIN_DIR) + "/" + name;
}

// ---- TempDir ------------------------------------------------------------------------

TempDir::TempDir()
{
    const char* base = std::getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/zeph_test.XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) != nullptr) {
        path_ = buf.data();
    }
}

TempDir::~TempDir()
{
    if (path_.empty()) {
        return;
    }
    nftw(
        path_.c_str(), [](const char* p, const struct stat*, int, FTW*) { return remove(p); }, 16,
        FTW_DEPTH | FTW_PHYS);
}

bool TempDir::write(const std::string& name, const std::string& text) const
{
    std::ofstream out(file(name), std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

std::string TempDir::read(const std::string& name) const
{
    std::ifstream in(file(name), std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// ---- Process --------------------------------------------------------------------------

bool Process::start(const std::vector<std::string>& argv)
{
    stop();
    error_.clear();
    if (argv.empty() || !dir_.ok()) {
        fail(&error_, "cannot start a process: no program or no temporary folder");
        return false;
    }
    std::vector<char*> args;
    for (const std::string& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);

    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    std::string out = dir_.file("stdout"), err = dir_.file("stderr");
    posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) {
        fail(&error_, "cannot start " + argv[0] + ": " + std::strerror(rc));
        return false;
    }
    pid_ = pid;
    status_ = -1;
    return true;
}

bool Process::running()
{
    if (pid_ <= 0) {
        return false;
    }
    int st = 0;
    pid_t r = waitpid(pid_, &st, WNOHANG);
    if (r == pid_ || (r < 0 && errno == ECHILD)) {
        status_ = r == pid_ ? st : -1;
        pid_ = -1;
        return false;
    }
    return true;
}

int Process::stop(int timeout_ms)
{
    if (!running()) {
        return status_;
    }
    kill(pid_, SIGTERM);
    const uint64_t deadline = now_ms() + static_cast<uint64_t>(timeout_ms);
    while (running()) {
        if (now_ms() >= deadline) {
            kill(pid_, SIGKILL);
            int st = 0;
            while (waitpid(pid_, &st, 0) < 0 && errno == EINTR) {
            }
            status_ = st;
            pid_ = -1;
            break;
        }
        sleep_ms(2);
    }
    return status_;
}

std::string Process::stdout_text() const
{
    return dir_.read("stdout");
}

std::string Process::stderr_text() const
{
    return dir_.read("stderr");
}

// ---- coturn --------------------------------------------------------------------------

bool stun_binding_ok(const std::string& ip, uint16_t port, int timeout_ms)
{
    UdpSocket sock;
    if (!sock.ok()) {
        return false;
    }
    // Binding Request: type 1, length 0, magic cookie, 12-byte transaction id.
    uint8_t req[20] = {0x00, 0x01, 0x00, 0x00, 0x21, 0x12, 0xA4, 0x42};
    for (int i = 8; i < 20; ++i) {
        req[i] = static_cast<uint8_t>(std::rand());
    }
    const uint64_t deadline = now_ms() + static_cast<uint64_t>(timeout_ms);
    while (now_ms() < deadline) {
        sock.send_to(req, sizeof req, ip, port);
        const uint64_t resend_at = std::min(deadline, now_ms() + 50);
        while (now_ms() < resend_at) {
            uint8_t ans[1500];
            int n = sock.recv(ans, sizeof ans, static_cast<int>(resend_at - now_ms()));
            if (n >= 20 && ans[0] == 0x01 && ans[1] == 0x01 && std::memcmp(ans + 4, req + 4, 16) == 0) {
                return true;
            }
        }
    }
    return false;
}

bool CoturnServer::start(const std::string& ip, uint16_t port)
{
    stop();
    // With a port of our choosing another test may take it between our probe
    // and coturn's bind: try a few ports before giving up.
    for (int attempt = 0; attempt < 3; ++attempt) {
        uint16_t p = port != 0 ? port : closed_udp_port(ip);
        std::vector<std::string> argv = {"turnserver",
                                         "-n",
                                         "--stun-only",
                                         "--listening-ip=" + ip,
                                         "--listening-port=" + std::to_string(p),
                                         "--no-cli",
                                         "--no-tls",
                                         "--no-dtls",
                                         "--no-tcp",
                                         "--log-file=stdout",
                                         "--pidfile=" + dir_.file("turn.pid"),
                                         "--db=" + dir_.file("turndb")};
        if (!proc_.start(argv)) {
            return false;
        }
        const uint64_t deadline = now_ms() + 5000;
        while (now_ms() < deadline && proc_.running()) {
            if (stun_binding_ok(ip, p, 100)) {
                ip_ = ip;
                port_ = p;
                return true;
            }
        }
        std::string out = proc_.stdout_text();
        proc_.stop();
        if (port != 0) {
            break;
        }
        std::fprintf(stderr, "zeph_test: coturn on %s:%u did not answer, retrying\n", ip.c_str(), p);
        (void)out;
    }
    std::fprintf(stderr, "zeph_test: coturn did not answer on %s; its output:\n%s\n", ip.c_str(),
                 proc_.stdout_text().c_str());
    return false;
}

// ---- tinyproxy -------------------------------------------------------------------------

bool TinyProxy::start(const std::vector<uint16_t>& connect_ports, const std::string& basic_user,
                      const std::string& basic_pass)
{
    stop();
    for (int attempt = 0; attempt < 3; ++attempt) {
        uint16_t p = closed_tcp_port("127.0.0.1");
        std::ostringstream conf;
        conf << "Port " << p << "\n"
             << "Listen 127.0.0.1\n"
             << "Timeout 60\n"
             << "MaxClients 64\n"
             << "Allow 127.0.0.1\n"
             << "LogLevel Info\n"
             << "PidFile \"" << dir_.file("tinyproxy.pid") << "\"\n"
             << "LogFile \"" << dir_.file("tinyproxy.log") << "\"\n";
        for (uint16_t cp : connect_ports) {
            conf << "ConnectPort " << cp << "\n";
        }
        if (!basic_user.empty()) {
            conf << "BasicAuth " << basic_user << " " << basic_pass << "\n";
        }
        if (!dir_.write("tinyproxy.conf", conf.str())) {
            std::fprintf(stderr, "zeph_test: cannot write the tinyproxy config\n");
            return false;
        }
        if (!proc_.start({"tinyproxy", "-d", "-c", dir_.file("tinyproxy.conf")})) {
            return false;
        }
        const uint64_t deadline = now_ms() + 5000;
        while (now_ms() < deadline && proc_.running()) {
            int fd = tcp_connect("127.0.0.1", p, 200);
            if (fd >= 0) {
                close(fd);
                port_ = p;
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

// ---- TcpListener -----------------------------------------------------------------------

TcpListener::TcpListener(const std::string& ip, uint16_t port, Mode mode) : mode_(mode)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return;
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a = make_addr(ip, port);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0 || listen(fd, 128) != 0 ||
        pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
        std::fprintf(stderr, "zeph_test: cannot listen on %s:%u: %s\n", ip.c_str(), port, std::strerror(errno));
        close(fd);
        return;
    }
    listen_fd_ = fd;
    port_ = bound_port(fd);
    thread_ = std::thread([this] { run(); });
}

TcpListener::~TcpListener()
{
    if (thread_.joinable()) {
        char c = 'q';
        (void)!::write(wake_[1], &c, 1);
        thread_.join();
    }
    close_connections();
    for (int fd : {listen_fd_, wake_[0], wake_[1]}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

void TcpListener::run()
{
    std::vector<pollfd> fds;
    for (;;) {
        fds.clear();
        fds.push_back({wake_[0], POLLIN, 0});
        fds.push_back({listen_fd_, POLLIN, 0});
        if (mode_ == Mode::Echo || mode_ == Mode::Sink) {
            std::lock_guard<std::mutex> lock(mu_);
            for (int c : conns_) {
                fds.push_back({c, POLLIN, 0});
            }
        }
        if (poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) {
            return;
        }
        if (fds[0].revents != 0) {
            char buf[16];
            if (::read(wake_[0], buf, sizeof buf) > 0 && std::memchr(buf, 'q', sizeof buf) != nullptr) {
                return;
            }
        }
        if (fds[1].revents & POLLIN) {
            int c = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (c >= 0) {
                if (mode_ == Mode::Close) {
                    close(c);
                } else {
                    std::lock_guard<std::mutex> lock(mu_);
                    conns_.push_back(c);
                }
                accepts_.fetch_add(1);
            }
        }
        for (size_t i = 2; i < fds.size(); ++i) {
            if (fds[i].revents == 0) {
                continue;
            }
            std::lock_guard<std::mutex> lock(mu_);
            auto it = std::find(conns_.begin(), conns_.end(), fds[i].fd);
            if (it == conns_.end()) {
                continue; // closed by close_connections meanwhile
            }
            char buf[16384];
            ssize_t n = recv(fds[i].fd, buf, sizeof buf, MSG_DONTWAIT);
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
                continue;
            }
            if (n <= 0) {
                close(fds[i].fd);
                conns_.erase(it);
                peer_closes_.fetch_add(1);
                continue;
            }
            if (mode_ == Mode::Sink) {
                received_.append(buf, static_cast<size_t>(n));
            } else {
                send_all(fds[i].fd, buf, static_cast<size_t>(n));
            }
        }
    }
}

bool TcpListener::wait_accepts(int n, int timeout_ms) const
{
    return wait_until([&] { return accepts_.load() >= n; }, timeout_ms);
}

int TcpListener::connection_fd(size_t i) const
{
    std::lock_guard<std::mutex> lock(mu_);
    return i < conns_.size() ? conns_[i] : -1;
}

void TcpListener::close_connections(bool reset)
{
    {
        std::lock_guard<std::mutex> lock(mu_);
        for (int c : conns_) {
            if (reset) {
                linger lg{1, 0};
                setsockopt(c, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
            }
            close(c);
        }
        conns_.clear();
    }
    if (wake_[1] >= 0) {
        char c = 'r'; // rebuild the poll set
        (void)!::write(wake_[1], &c, 1);
    }
}

std::string TcpListener::received() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return received_;
}

bool TcpListener::wait_received(size_t n, int timeout_ms) const
{
    return wait_until(
        [&] {
            std::lock_guard<std::mutex> lock(mu_);
            return received_.size() >= n;
        },
        timeout_ms);
}

// ---- UdpSocket --------------------------------------------------------------------------

UdpSocket::UdpSocket(const std::string& ip, uint16_t port)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return;
    }
    sockaddr_in a = make_addr(ip, port);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) {
        std::fprintf(stderr, "zeph_test: cannot bind UDP %s:%u: %s\n", ip.c_str(), port, std::strerror(errno));
        close(fd);
        return;
    }
    fd_ = fd;
    port_ = bound_port(fd);
}

UdpSocket::~UdpSocket()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool UdpSocket::send_to(const void* data, size_t len, const std::string& ip, uint16_t port)
{
    sockaddr_in to = make_addr(ip, port);
    return sendto(fd_, data, len, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) == static_cast<ssize_t>(len);
}

int UdpSocket::recv(void* buf, size_t cap, int timeout_ms, std::string* from_ip, uint16_t* from_port)
{
    const uint64_t deadline = now_ms() + static_cast<uint64_t>(timeout_ms > 0 ? timeout_ms : 0);
    for (;;) {
        int left = static_cast<int>(deadline > now_ms() ? deadline - now_ms() : 0);
        if (poll_one(fd_, POLLIN, left) <= 0) {
            return -1;
        }
        sockaddr_in from{};
        socklen_t len = sizeof from;
        ssize_t n = recvfrom(fd_, buf, cap, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &len);
        if (n < 0) {
            // An ICMP error from an earlier send shows up here; keep waiting.
            if (errno == ECONNREFUSED || errno == EAGAIN || errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (from_ip != nullptr) {
            *from_ip = ipv4_text(from.sin_addr.s_addr);
        }
        if (from_port != nullptr) {
            *from_port = ntohs(from.sin_port);
        }
        return static_cast<int>(n);
    }
}

// ---- TCP helpers ---------------------------------------------------------------------------

int tcp_connect(const std::string& ip, uint16_t port, int timeout_ms)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_in to = make_addr(ip, port);
    int r = connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (r != 0 && errno == EINPROGRESS && poll_one(fd, POLLOUT, timeout_ms) > 0) {
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

bool send_all(int fd, const void* data, size_t len)
{
    const char* p = static_cast<const char*>(data);
    const uint64_t deadline = now_ms() + 5000;
    while (len > 0) {
        ssize_t n = send(fd, p, len, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            p += n;
            len -= static_cast<size_t>(n);
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            if (now_ms() >= deadline || poll_one(fd, POLLOUT, 100) < 0) {
                return false;
            }
        } else {
            return false;
        }
    }
    return true;
}

std::string recv_exact(int fd, size_t n, int timeout_ms)
{
    std::string out;
    const uint64_t deadline = now_ms() + static_cast<uint64_t>(timeout_ms > 0 ? timeout_ms : 0);
    while (out.size() < n) {
        int left = static_cast<int>(deadline > now_ms() ? deadline - now_ms() : 0);
        if (poll_one(fd, POLLIN, left) <= 0) {
            break;
        }
        char buf[4096];
        ssize_t got = recv(fd, buf, std::min(sizeof buf, n - out.size()), MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
            break;
        }
        if (got > 0) {
            out.append(buf, static_cast<size_t>(got));
        }
    }
    return out;
}

// ---- LogCapture ------------------------------------------------------------------------------

namespace {

// The store outlives every capture: a library thread that picked up the
// sink just before a capture ended may still call it afterwards.
struct CaptureStore {
    std::mutex mu;
    bool active = false;
    std::vector<LogLine> lines;
};

CaptureStore& capture_store()
{
    static CaptureStore& store = *new CaptureStore;
    return store;
}

void capture_sink(void*, int level, const char* module, const char* function, const char* file, int line,
                  const char* message)
{
    CaptureStore& st = capture_store();
    std::lock_guard<std::mutex> lock(st.mu);
    if (st.active) {
        st.lines.push_back(LogLine{level, module, function, file, line, message});
    }
}

} // namespace

LogCapture::LogCapture(int max_level)
{
    CaptureStore& st = capture_store();
    {
        std::lock_guard<std::mutex> lock(st.mu);
        if (st.active) {
            std::fprintf(stderr, "zeph_test: a second LogCapture replaces the first\n");
        }
        st.active = true;
        st.lines.clear();
    }
    zeph_settings_set_log_sink(capture_sink, nullptr, max_level);
}

LogCapture::~LogCapture()
{
    zeph_settings_set_log_sink(nullptr, nullptr, ZEPH_LOG_WARNING);
    CaptureStore& st = capture_store();
    std::lock_guard<std::mutex> lock(st.mu);
    st.active = false;
    st.lines.clear();
}

std::vector<LogLine> LogCapture::lines() const
{
    CaptureStore& st = capture_store();
    std::lock_guard<std::mutex> lock(st.mu);
    return st.lines;
}

int LogCapture::count(const std::string& substr) const
{
    CaptureStore& st = capture_store();
    std::lock_guard<std::mutex> lock(st.mu);
    int n = 0;
    for (const LogLine& l : st.lines) {
        if (l.message.find(substr) != std::string::npos) {
            ++n;
        }
    }
    return n;
}

bool LogCapture::contains(const std::string& substr) const
{
    return count(substr) > 0;
}

bool LogCapture::wait_for(const std::string& substr, int timeout_ms) const
{
    return wait_until([&] { return contains(substr); }, timeout_ms);
}

void LogCapture::clear()
{
    CaptureStore& st = capture_store();
    std::lock_guard<std::mutex> lock(st.mu);
    st.lines.clear();
}

std::string LogCapture::dump() const
{
    std::ostringstream out;
    for (const LogLine& l : lines()) {
        out << "[" << l.level << "] " << l.function << " " << l.file << ":" << l.line << ": " << l.message << "\n";
    }
    return out.str();
}

} // namespace zeph_test
