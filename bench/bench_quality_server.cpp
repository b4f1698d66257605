// How many answers a second does the quality server give on one core, with
// many clients, and how many does it drop? The load generator of this
// program sends data packets from many sockets at a fixed total rate
// (absolute deadlines, 1 ms ticks) and counts the answers on another
// thread. Three servers get the same load:
//   1. the server's batched loop (poll, drain, batches, arrival stamps);
//   2. its literal loop, one datagram per wake-up and 1 ms after each;
//   3. `irtt server` (GOMAXPROCS=1), loaded by irtt's own clients at the
//      same total rate and packet length, which needs no handshake of ours.
// Printed: offered and answered per second, dropped share, how many of the
// drops the server's own socket counted (no room in its receive buffer), the
// server's CPU share and its answers per CPU-second.
//
//   bench_quality_server [--clients N] [--rate PER_SECOND] [--seconds S]
//                        [--len BYTES] [--irtt-clients N] [--no-irtt]
//
// Runs on the main thread plus the sender and receiver threads it starts
// and joins; the server runs on its own thread (or process, irtt).
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bwdetect/detect_server.h"
#include "peers.h"
#include "process.h"
#include "waits.h"
#include "zeph_nettools/settings.h"

namespace {

constexpr uint16_t kPort = 64000;
constexpr const char* kOurAddr = "127.0.65.1";
constexpr const char* kIrttAddr = "127.0.65.2";
constexpr int64_t kNsPerSecond = 1000000000LL;
constexpr int64_t kTickNs = 1000000; // the sender's pace
constexpr int kDrainMs = 300;        // answers still on their way when sending ends
constexpr size_t kRecvCap = 2048;
constexpr int kRecvBatch = 64;

struct Config {
    int clients = 200;
    int rate = 60000;
    int seconds = 3;
    int len = 1310;
    int irtt_clients = 20;
    bool irtt = true;
};

struct Result {
    uint64_t sent = 0, answered = 0;
    uint64_t server_drops = 0; // datagrams the server's socket had no room for
    double seconds = 0, cpu_seconds = 0;
};

int64_t mono_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * kNsPerSecond + ts.tv_nsec;
}

// utime + stime of /proc/<path>/stat, in seconds.
double cpu_of_stat(const std::string& path) {
    std::ifstream in(path);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t close = text.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream rest(text.substr(close + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; rest >> field; ++i) {
        if (i == 14) utime = std::strtoull(field.c_str(), nullptr, 10);
        if (i == 15) {
            stime = std::strtoull(field.c_str(), nullptr, 10);
            break;
        }
    }
    return double(utime + stime) / double(sysconf(_SC_CLK_TCK));
}

// The stat file of this process's thread named `name`.
std::string thread_stat(const char* name) {
    DIR* dir = opendir("/proc/self/task");
    std::string found;
    while (dirent* e = dir ? readdir(dir) : nullptr) {
        if (e->d_name[0] == '.') continue;
        const std::string base = std::string("/proc/self/task/") + e->d_name;
        std::ifstream comm(base + "/comm");
        std::string c;
        std::getline(comm, c);
        if (c == name) found = base + "/stat";
    }
    if (dir) closedir(dir);
    return found;
}

// The kernel's drop count of the UDP socket bound to ip:port (/proc/net/udp).
uint64_t socket_drops(const char* ip, uint16_t port) {
    in_addr a{};
    inet_pton(AF_INET, ip, &a);
    char local[32];
    std::snprintf(local, sizeof local, "%08X:%04X", unsigned(a.s_addr), unsigned(port));
    std::ifstream in("/proc/net/udp");
    std::string line;
    while (std::getline(in, line)) {
        if (line.find(local) == std::string::npos) continue;
        const size_t last = line.find_last_not_of(" ");
        const size_t first = line.find_last_of(" ", last);
        return std::strtoull(line.c_str() + first + 1, nullptr, 10);
    }
    return 0;
}

std::vector<uint8_t> data_packet(uint32_t session, size_t len) {
    std::vector<uint8_t> p(len, 0xEC);
    const uint8_t head[32] = {0xFF, 0x01, 0, 0, 0x80, 0x70, 0xEC, 0xEC, 16, 0, 0, 1, 0x21, 0x12, 0xA4, 0x42,
                              0, 0, 0, 0, uint8_t(session >> 24), uint8_t(session >> 16), uint8_t(session >> 8),
                              uint8_t(session), 0, 0, 0, 0, 6, 0, uint8_t((len - 224) >> 8), uint8_t(len - 224)};
    std::memcpy(p.data(), head, sizeof head);
    return p;
}

// Our own load: `clients` sockets, `rate` packets a second in all.
Result load_ours(const Config& cfg, const std::string& stat_path) {
    std::vector<std::unique_ptr<zeph_test::UdpSocket>> socks;
    std::vector<std::vector<uint8_t>> pkts;
    for (int i = 0; i < cfg.clients; ++i) {
        socks.push_back(std::make_unique<zeph_test::UdpSocket>());
        const int big = 4 << 20;
        setsockopt(socks.back()->fd(), SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
        pkts.push_back(data_packet(uint32_t(i + 1), size_t(cfg.len)));
    }
    std::atomic<uint64_t> answered{0};
    std::atomic<bool> receiving{true};
    std::thread receiver([&] {
        std::vector<pollfd> fds;
        for (auto& s : socks) fds.push_back({s->fd(), POLLIN, 0});
        std::vector<uint8_t> bufs(kRecvBatch * kRecvCap);
        mmsghdr msgs[kRecvBatch];
        iovec iovs[kRecvBatch];
        while (receiving.load()) {
            if (poll(fds.data(), fds.size(), 20) <= 0) continue;
            for (pollfd& f : fds) {
                if (!(f.revents & POLLIN)) continue;
                for (int i = 0; i < kRecvBatch; ++i) {
                    iovs[i] = {bufs.data() + i * kRecvCap, kRecvCap};
                    std::memset(&msgs[i], 0, sizeof msgs[i]);
                    msgs[i].msg_hdr.msg_iov = &iovs[i];
                    msgs[i].msg_hdr.msg_iovlen = 1;
                }
                const int n = recvmmsg(f.fd, msgs, kRecvBatch, MSG_DONTWAIT, nullptr);
                if (n > 0) answered += uint64_t(n);
            }
        }
    });

    const double cpu_before = cpu_of_stat(stat_path);
    const int64_t start = mono_ns();
    const int64_t end = start + int64_t(cfg.seconds) * kNsPerSecond;
    uint64_t sent = 0;
    uint32_t seq = 0;
    size_t next = 0;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(kPort);
    inet_pton(AF_INET, kOurAddr, &to.sin_addr);
    for (int64_t tick = start; tick < end; tick += kTickNs) {
        timespec at = {time_t(tick / kNsPerSecond), long(tick % kNsPerSecond)};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr);
        // Whatever the deadlines owe by now goes out: no drift from late wakes.
        const uint64_t owed = uint64_t(double(tick + kTickNs - start) * cfg.rate / kNsPerSecond);
        for (; sent < owed; ++sent) {
            std::vector<uint8_t>& p = pkts[next];
            const uint32_t s = seq++;
            p[16] = uint8_t(s >> 24), p[17] = uint8_t(s >> 16), p[18] = uint8_t(s >> 8), p[19] = uint8_t(s);
            sendto(socks[next]->fd(), p.data(), p.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
            next = (next + 1) % socks.size();
        }
    }
    Result r;
    r.seconds = double(mono_ns() - start) / kNsPerSecond;
    zeph_test::sleep_ms(kDrainMs);
    r.cpu_seconds = cpu_of_stat(stat_path) - cpu_before;
    r.server_drops = socket_drops(kOurAddr, kPort);
    receiving.store(false);
    receiver.join();
    r.sent = sent;
    r.answered = answered.load();
    return r;
}

Result run_ours(const Config& cfg, bool literal) {
    DetectServer::set_literal_loop(literal);
    zeph_settings_set_local_addr(kOurAddr);
    DetectServer* server = DetectServer::get_instance();
    if (server == nullptr || server->start_server(kPort) != DetectServer::kStarted) {
        std::fprintf(stderr, "cannot start the server on %s:%u\n", kOurAddr, unsigned(kPort));
        std::exit(1);
    }
    zeph_test::sleep_ms(50); // the thread names itself
    const Result r = load_ours(cfg, thread_stat("detect_server"));
    DetectServer::destroy_instance();
    return r;
}

// irtt's JSON: the first number behind "key": at or after `from`.
uint64_t json_number(const std::string& text, const std::string& key, size_t from = 0) {
    const size_t at = text.find("\"" + key + "\":", from);
    return at == std::string::npos ? 0 : std::strtoull(text.c_str() + at + key.size() + 3, nullptr, 10);
}

Result run_irtt(const Config& cfg) {
    Result r;
    setenv("GOMAXPROCS", "1", 1);
    zeph_test::Process server;
    if (!server.start({"irtt", "server", "-b", std::string(kIrttAddr) + ":2112", "-i", "0", "--timeout=10s"})) {
        std::fprintf(stderr, "irtt server did not start: %s\n", server.error().c_str());
        return r;
    }
    zeph_test::sleep_ms(300);
    const std::string stat_path = "/proc/" + std::to_string(server.pid()) + "/stat";
    const int per_client = cfg.rate / cfg.irtt_clients;
    const std::string interval = std::to_string(kNsPerSecond / per_client) + "ns";
    std::vector<std::unique_ptr<zeph_test::Process>> clients;
    const double cpu_before = cpu_of_stat(stat_path);
    const int64_t start = mono_ns();
    for (int i = 0; i < cfg.irtt_clients; ++i) {
        clients.push_back(std::make_unique<zeph_test::Process>());
        clients.back()->start({"irtt", "client", "-Q", "-o", "-", "-i", interval, "-d",
                               std::to_string(cfg.seconds) + "s", "-l", std::to_string(cfg.len), "--wait=300ms",
                               std::string(kIrttAddr) + ":2112"});
    }
    for (auto& c : clients) {
        zeph_test::wait_until([&] { return !c->running(); }, (cfg.seconds + 10) * 1000, 20);
        const std::string out = c->stdout_text();
        if (out.find("packets_sent") == std::string::npos) std::fprintf(stderr, "irtt client: %s\n", c->stderr_text().c_str());
        const size_t stats = out.find("\"stats\"");
        r.sent += json_number(out, "packets_sent", stats == std::string::npos ? 0 : stats);
        r.answered += json_number(out, "packets_received", stats == std::string::npos ? 0 : stats);
    }
    r.seconds = double(mono_ns() - start) / kNsPerSecond;
    r.cpu_seconds = cpu_of_stat(stat_path) - cpu_before;
    r.server_drops = socket_drops(kIrttAddr, 2112);
    server.stop();
    r.seconds = std::min(r.seconds, double(cfg.seconds)); // the clients' handshakes and waits are not load
    return r;
}

void print(const char* name, const Result& r) {
    const double dropped = r.sent ? 100.0 * double(r.sent - std::min(r.sent, r.answered)) / double(r.sent) : 0;
    std::printf("%-26s %9.0f %9.0f %8.3f %% %9llu %7.1f %% %11.0f\n", name, double(r.sent) / r.seconds,
                double(r.answered) / r.seconds, dropped, (unsigned long long)r.server_drops,
                100.0 * r.cpu_seconds / r.seconds, r.cpu_seconds > 0 ? double(r.answered) / r.cpu_seconds : 0.0);
}

bool arg_int(int argc, char** argv, int& i, int& out) {
    if (i + 1 >= argc) return false;
    out = std::atoi(argv[++i]);
    return out > 0;
}

} // namespace

int main(int argc, char** argv) {
    Config cfg;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        bool ok = true;
        if (a == "--clients") ok = arg_int(argc, argv, i, cfg.clients);
        else if (a == "--rate") ok = arg_int(argc, argv, i, cfg.rate);
        else if (a == "--seconds") ok = arg_int(argc, argv, i, cfg.seconds);
        else if (a == "--len") ok = arg_int(argc, argv, i, cfg.len) && cfg.len >= 224 && cfg.len <= 1400;
        else if (a == "--irtt-clients") ok = arg_int(argc, argv, i, cfg.irtt_clients);
        else if (a == "--no-irtt") cfg.irtt = false;
        else ok = false;
        if (!ok) {
            std::fprintf(stderr, "usage: bench_quality_server [--clients N] [--rate PER_SECOND] [--seconds S] "
                                 "[--len 224..1400] [--irtt-clients N] [--no-irtt]\n");
            return 2;
        }
    }
    std::printf("quality server under load: %d clients (irtt: %d), %d packets/s of %d bytes for %d s\n",
                cfg.clients, cfg.irtt_clients, cfg.rate, cfg.len, cfg.seconds);
    std::printf("%-26s %9s %9s %10s %9s %9s %11s\n", "server", "offered/s", "answers/s", "dropped", "at server",
                "cpu", "answers/cpu-s");
    print("batched loop", run_ours(cfg, false));
    print("literal loop", run_ours(cfg, true));
    if (cfg.irtt) print("irtt server (GOMAXPROCS=1)", run_irtt(cfg));
    return 0;
}
