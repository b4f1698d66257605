#include "udp_relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <queue>
#include <system_error>
#include <unordered_map>
#include <vector>

#include "ipv4.h"

namespace zeph_relay {

// ---- the model -----------------------------------------------------------------

ImpairmentModel::ImpairmentModel(const Impairment& imp, JitterModel model, uint64_t seed)
    : m_imp(imp), m_model(model), m_gen(seed) {}

double ImpairmentModel::uniform01() {
    // 53 random bits into [0, 1): the same on every platform, unlike the
    // standard distributions whose algorithms are left to the library.
    return double(m_gen() >> 11) * (1.0 / 9007199254740992.0);
}

bool ImpairmentModel::next(double& delay_ms) {
    const double u_loss = uniform01();
    const double u1 = uniform01();
    const double u2 = uniform01();
    double jitter = 0;
    if (m_model == JitterModel::Uniform) {
        jitter = (2 * u1 - 1) * m_imp.jitter_ms;
    } else {
        // Box-Muller; 1 - u1 is in (0, 1], so the logarithm is finite.
        jitter = std::sqrt(-2 * std::log(1 - u1)) * std::cos(2 * M_PI * u2) * m_imp.jitter_ms;
    }
    delay_ms = std::max(0.0, m_imp.delay_ms + jitter);
    return u_loss >= m_imp.loss;
}

// ---- the relay -------------------------------------------------------------------

namespace {

using Clock = std::chrono::steady_clock;

struct Pending {
    Clock::time_point due;
    uint64_t seq; // keeps arrival order among equal due times
    bool to_server;
    int fd;          // socket to send from
    sockaddr_in to;  // destination when sending to a client
    std::vector<uint8_t> data;
};

struct Later {
    bool operator()(const Pending& a, const Pending& b) const {
        return a.due != b.due ? a.due > b.due : a.seq > b.seq;
    }
};

uint64_t addr_key(const sockaddr_in& sa) { return (uint64_t(sa.sin_addr.s_addr) << 16) | sa.sin_port; }

} // namespace

struct UdpRelay::Impl {
    struct Direction {
        explicit Direction(const Impairment& imp, JitterModel m, uint64_t seed) : model(imp, m, seed) {}
        ImpairmentModel model;
        Clock::time_point last_due{};
        std::atomic<uint64_t> forwarded{0};
        std::atomic<uint64_t> dropped{0};
    };
    struct Client {
        sockaddr_in addr;
        int fd; // connected to the server
    };

    explicit Impl(UdpRelayConfig c)
        : cfg(std::move(c)),
          // Distinct, fixed derivations of the one seed per direction.
          up(cfg.to_server, cfg.jitter_model, cfg.seed * 2 + 1),
          down(cfg.to_client, cfg.jitter_model, cfg.seed * 2 + 2) {}

    void run();
    void read_listen(std::vector<uint8_t>& buf);
    void read_client(Client& c, std::vector<uint8_t>& buf);
    void schedule(Direction& d, bool to_server, int fd, const sockaddr_in& to, const uint8_t* p, size_t n);
    void send_due();
    Client* client_for(const sockaddr_in& from);

    UdpRelayConfig cfg;
    Direction up;
    Direction down;
    sockaddr_in server{};
    int listen_fd = -1;
    int wake_fd = -1;
    uint16_t port = 0;
    std::thread thread;
    std::atomic<uint64_t> refused{0};
    uint64_t seq = 0;
    std::priority_queue<Pending, std::vector<Pending>, Later> pending;
    std::unordered_map<uint64_t, Client> clients;
    bool clients_changed = true;
};

UdpRelay::Impl::Client* UdpRelay::Impl::client_for(const sockaddr_in& from) {
    auto it = clients.find(addr_key(from));
    if (it != clients.end()) return &it->second;
    if (clients.size() >= cfg.max_clients) return nullptr;
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
        close(fd);
        return nullptr;
    }
    clients_changed = true;
    return &clients.emplace(addr_key(from), Client{from, fd}).first->second;
}

void UdpRelay::Impl::schedule(Direction& d, bool to_server, int fd, const sockaddr_in& to, const uint8_t* p,
                              size_t n) {
    double delay_ms = 0;
    if (!d.model.next(delay_ms)) {
        d.dropped.fetch_add(1);
        return;
    }
    auto due = Clock::now() + std::chrono::nanoseconds(int64_t(delay_ms * 1e6));
    if (cfg.keep_order) due = std::max(due, d.last_due);
    d.last_due = std::max(d.last_due, due);
    pending.push(Pending{due, seq++, to_server, fd, to, std::vector<uint8_t>(p, p + n)});
}

void UdpRelay::Impl::read_listen(std::vector<uint8_t>& buf) {
    for (;;) {
        sockaddr_in from{};
        socklen_t fl = sizeof from;
        ssize_t n = recvfrom(listen_fd, buf.data(), buf.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &fl);
        if (n < 0) return;
        Client* c = client_for(from);
        if (!c) {
            refused.fetch_add(1);
            continue;
        }
        schedule(up, true, c->fd, from, buf.data(), size_t(n));
    }
}

void UdpRelay::Impl::read_client(Client& c, std::vector<uint8_t>& buf) {
    for (;;) {
        // Errors (an ICMP "port unreachable" from a closed server) are not
        // datagrams: stop reading this socket for now.
        ssize_t n = recv(c.fd, buf.data(), buf.size(), MSG_DONTWAIT);
        if (n < 0) return;
        schedule(down, false, listen_fd, c.addr, buf.data(), size_t(n));
    }
}

void UdpRelay::Impl::send_due() {
    const auto now = Clock::now();
    while (!pending.empty() && pending.top().due <= now) {
        const Pending& p = pending.top();
        Direction& d = p.to_server ? up : down;
        ssize_t n = p.to_server ? send(p.fd, p.data.data(), p.data.size(), 0)
                                : sendto(p.fd, p.data.data(), p.data.size(), 0,
                                         reinterpret_cast<const sockaddr*>(&p.to), sizeof p.to);
        // A full socket buffer loses the datagram, as a congested link does;
        // it is counted so the figures stay true.
        (n == ssize_t(p.data.size()) ? d.forwarded : d.dropped).fetch_add(1);
        pending.pop();
    }
}

void UdpRelay::Impl::run() {
    pthread_setname_np(pthread_self(), "udp_relay");
    std::vector<uint8_t> buf(65536);
    std::vector<pollfd> fds;
    std::vector<Client*> fd_clients; // fds[i + 2] belongs to fd_clients[i]
    for (;;) {
        if (clients_changed) {
            fds.assign({{wake_fd, POLLIN, 0}, {listen_fd, POLLIN, 0}});
            fd_clients.clear();
            for (auto& kv : clients) {
                fds.push_back({kv.second.fd, POLLIN, 0});
                fd_clients.push_back(&kv.second);
            }
            clients_changed = false;
        }
        timespec ts{};
        timespec* tsp = nullptr;
        if (!pending.empty()) {
            auto wait = std::max(Clock::duration::zero(), pending.top().due - Clock::now());
            auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(wait).count();
            ts.tv_sec = time_t(ns / 1000000000);
            ts.tv_nsec = long(ns % 1000000000);
            tsp = &ts;
        }
        int r = ppoll(fds.data(), fds.size(), tsp, nullptr);
        if (r < 0 && errno != EINTR) return;
        if (r > 0) {
            if (fds[0].revents) return;
            // Client sockets first: the table may grow while reading the
            // listening socket, which would leave fd_clients stale.
            for (size_t i = 0; i < fd_clients.size(); ++i)
                if (fds[i + 2].revents) read_client(*fd_clients[i], buf);
            if (fds[1].revents) read_listen(buf);
        }
        send_due();
    }
}

UdpRelay::UdpRelay(UdpRelayConfig config) : m_impl(new Impl(std::move(config))) {}

UdpRelay::~UdpRelay() { stop(); }

int UdpRelay::start(std::string* error) {
    Impl& m = *m_impl;
    if (m.listen_fd >= 0) return 0;
    auto fail = [&](const std::string& why) {
        if (error) *error = why;
        if (m.listen_fd >= 0) close(m.listen_fd);
        if (m.wake_fd >= 0) close(m.wake_fd);
        m.listen_fd = m.wake_fd = -1;
        return -1;
    };
    sockaddr_in la{};
    if (!zeph_tools::ipv4_sockaddr(m.cfg.listen_ip, m.cfg.listen_port, la))
        return fail("not an IPv4 address: " + m.cfg.listen_ip);
    if (!zeph_tools::ipv4_sockaddr(m.cfg.server_ip, m.cfg.server_port, m.server) || m.cfg.server_port == 0)
        return fail("bad server address: " + m.cfg.server_ip + ":" + std::to_string(m.cfg.server_port));
    m.listen_fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m.listen_fd < 0) return fail(std::string("socket: ") + std::strerror(errno));
    if (bind(m.listen_fd, reinterpret_cast<sockaddr*>(&la), sizeof la) != 0)
        return fail("bind " + m.cfg.listen_ip + ":" + std::to_string(m.cfg.listen_port) + ": " +
                    std::strerror(errno));
    socklen_t sl = sizeof la;
    getsockname(m.listen_fd, reinterpret_cast<sockaddr*>(&la), &sl);
    m.port = ntohs(la.sin_port);
    m.wake_fd = eventfd(0, EFD_CLOEXEC);
    if (m.wake_fd < 0) return fail(std::string("eventfd: ") + std::strerror(errno));
    try {
        m.thread = std::thread([&m] { m.run(); });
    } catch (const std::system_error& e) {
        return fail(std::string("thread: ") + e.what());
    }
    return 0;
}

void UdpRelay::stop() {
    Impl& m = *m_impl;
    if (m.wake_fd >= 0) {
        uint64_t one = 1;
        ssize_t n = write(m.wake_fd, &one, sizeof one);
        (void)n;
    }
    if (m.thread.joinable()) m.thread.join();
    for (auto& kv : m.clients) close(kv.second.fd);
    m.clients.clear();
    m.clients_changed = true;
    if (m.listen_fd >= 0) close(m.listen_fd);
    if (m.wake_fd >= 0) close(m.wake_fd);
    m.listen_fd = m.wake_fd = -1;
    m.pending = {};
}

const std::string& UdpRelay::listen_ip() const { return m_impl->cfg.listen_ip; }

uint16_t UdpRelay::port() const { return m_impl->port; }

UdpRelayStats UdpRelay::stats() const {
    UdpRelayStats s;
    s.to_server_forwarded = m_impl->up.forwarded.load();
    s.to_server_dropped = m_impl->up.dropped.load();
    s.to_client_forwarded = m_impl->down.forwarded.load();
    s.to_client_dropped = m_impl->down.dropped.load();
    s.refused = m_impl->refused.load();
    return s;
}

} // namespace zeph_relay
