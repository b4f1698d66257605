// What an initialised detection runtime costs while nothing happens: CPU
// time of the process per second and wake-ups of the receive thread per
// second, with an empty socket table and with one idle UDP socket in it;
// then the time from a datagram's send to its detection's recv_pkt.
// Runs on main; the runtime's threads do the work.
#include <dirent.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "inc/detect_socket.h"
#include "inc/net_tools_msg.h"
#include "peers.h"
#include "zeph_nettools/net_tools.h"

using namespace zeph_test;

namespace {
constexpr int kWindowMs = 3000;
constexpr int kLatencySamples = 200;

double cpu_ms() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_utime.tv_sec * 1e3 + ru.ru_utime.tv_usec / 1e3 + ru.ru_stime.tv_sec * 1e3 + ru.ru_stime.tv_usec / 1e3;
}

// Voluntary context switches of the thread named `name` (its sleeps and waits).
long switches_of(const std::string& name) {
    DIR* d = opendir("/proc/self/task");
    long total = 0;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        const std::string dir = std::string("/proc/self/task/") + e->d_name;
        std::ifstream comm(dir + "/comm");
        std::string c;
        std::getline(comm, c);
        if (c != name) continue;
        std::ifstream status(dir + "/status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0) total += std::stol(line.substr(24));
        }
    }
    closedir(d);
    return total;
}

void measure(const char* what) {
    const double c0 = cpu_ms();
    const long s0 = switches_of("detect_recv");
    sleep_ms(kWindowMs);
    const double cpu = (cpu_ms() - c0) * 1000.0 / kWindowMs;
    const long wakes = (switches_of("detect_recv") - s0) * 1000 / kWindowMs;
    printf("%-34s cpu %6.2f ms/s   receive thread wake-ups %5ld /s\n", what, cpu, wakes);
}

class Sink : public DetectBase {
public:
    uint32_t get_recv_msg_id() override { return NET_TOOLS_MSG_CONNECTIVITY_RECV; }
    void recv_pkt(const uint8_t*, uint32_t, std::shared_ptr<DetectSocket>, std::shared_ptr<DetectBase>) override {
        arrived.store(now_us());
    }
    static uint64_t now_us() {
        timespec ts{};
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
    }
    std::atomic<uint64_t> arrived{0};
};
} // namespace

int main() {
    if (zeph_net_tools_init() != 0) {
        fprintf(stderr, "runtime did not start\n");
        return 1;
    }
    sleep_ms(100);
    measure("empty table");

    UdpSocket peer;
    auto sink = std::make_shared<Sink>();
    std::shared_ptr<DetectBase> det = sink;
    std::shared_ptr<DetectSocket> sock = SocketFactory<DetectSocket>::instance().get_socket(DETECT_SOCKET_KEY_UDP);
    sock->set_dest_addr(ntohl(ipv4_be("127.0.0.1")), peer.port());
    sock->create();
    g_net_tools_msg.register_detect(sock->get_fd(), sock, det);
    sleep_ms(100);
    measure("one idle UDP socket");

    const char hello[] = "hi";
    sock->send(hello, sizeof hello);
    char buf[64];
    uint16_t port = 0;
    peer.recv(buf, sizeof buf, 2000, nullptr, &port);
    std::vector<uint64_t> lat;
    for (int i = 0; i < kLatencySamples; ++i) {
        sink->arrived.store(0);
        const uint64_t t0 = Sink::now_us();
        peer.send_to("x", 1, "127.0.0.1", port);
        if (wait_until([&] { return sink->arrived.load() != 0; }, 1000, 1)) lat.push_back(sink->arrived.load() - t0);
        sleep_ms(3);
    }
    std::sort(lat.begin(), lat.end());
    if (!lat.empty()) {
        printf("send to recv_pkt (%zu samples)    median %llu us   p99 %llu us\n", lat.size(),
               static_cast<unsigned long long>(lat[lat.size() / 2]),
               static_cast<unsigned long long>(lat[lat.size() * 99 / 100]));
    }
    g_net_tools_msg.un_register_detect(sock->get_fd());
    zeph_net_tools_uninit();
    sleep_ms(100);
    measure("after uninit");
    return 0;
}
