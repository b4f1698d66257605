// The cost of one any-port detection of 28 targets (7 groups of 2 UDP and
// 2 TCP) from the call to the delayed free: threads at peak, peak resident
// memory, CPU time, time to the callback, time until every object is freed.
//
//   bench_port_cost [--rounds N]    (default 1 round per scenario)
#include <netinet/in.h>
#include <pthread.h>
#include <time.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <dirent.h>
#include <zeph_nettools/net_tools.h>
#include <zeph_nettools/settings.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

#include "loopback_peers.h"
#include "inc/port_detect.h"

namespace {

using Clock = std::chrono::steady_clock;

int count_threads() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/task")) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') ++n;
        closedir(d);
    }
    return n;
}

long status_kb(const char* key) {
    std::ifstream f("/proc/self/status");
    std::string line;
    const size_t klen = std::strlen(key);
    while (std::getline(f, line))
        if (line.compare(0, klen, key) == 0) return std::atol(line.c_str() + klen + 1);
    return -1;
}

// Resets VmHWM to the current resident size (Linux 4.0 and later).
bool reset_peak_rss() {
    std::ofstream f("/proc/self/clear_refs");
    f << "5";
    return bool(f);
}

double cpu_seconds() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) + double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

struct Done {
    std::mutex mu;
    std::condition_variable cv;
    bool called = false;
    Clock::time_point at;
    int open = 0;
};

Done& done() {
    static Done& d = *new Done;
    return d;
}

void on_result(void* result) {
    const AnyPortResult* r = static_cast<const AnyPortResult*>(result);
    int open = 0;
    for (uint32_t g = 0; g < r->group_num && g < ZEPH_PORT_DETECT_MAX_GROUPS; ++g)
        for (uint32_t e = 0; e < r->groups[g].detect_num && e < ZEPH_PORT_DETECT_MAX_ENTRIES; ++e) open += r->groups[g].open[e];
    Done& d = done();
    {
        std::lock_guard<std::mutex> lock(d.mu);
        d.called = true;
        d.open = open;
        d.at = Clock::now();
    }
    d.cv.notify_all();
}

void quiet_sink(void*, int, const char*, const char*, const char*, int, const char*) {}

// A UDP port that takes datagrams and never answers.
struct SilentUdp {
    int fd = -1;
    uint16_t port = 0;
    SilentUdp() {
        fd = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
        socklen_t sl = sizeof sa;
        getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &sl);
        port = ntohs(sa.sin_port);
    }
    ~SilentUdp() { close(fd); }
};

} // namespace

int main(int argc, char** argv) {
    int rounds = 1;
    for (int i = 1; i < argc; ++i)
        if (!std::strcmp(argv[i], "--rounds") && i + 1 < argc) rounds = std::max(1, std::atoi(argv[++i]));
    zeph_settings_set_log_sink(quiet_sink, nullptr, ZEPH_LOG_ERROR);
    zeph_net_tools_init();

    zeph_peers::StunResponder stun;
    zeph_peers::TcpAcceptor tcp;
    zeph_peers::ClosedTcpPort refused;
    SilentUdp silent;
    std::string error;
    if (!stun.start("127.0.0.1", 0, &error) || !tcp.start("127.0.0.1", 0, &error) || !refused.open("127.0.0.1", &error)) {
        std::fprintf(stderr, "bench_port_cost: %s\n", error.c_str());
        return 1;
    }
    const uint32_t lo = htonl(INADDR_LOOPBACK);

    std::printf("any-port detection of 28 targets (7 groups: 2 UDP + 2 TCP), call to delayed free\n\n");
    std::printf("%-28s %8s %7s %10s %10s %15s %9s %9s %6s %5s\n", "scenario", "threads", "(base)", "peak RSS", "(base)",
                "CPU s cb/free", "callback", "freed", "after", "open");

    for (int half_silent = 0; half_silent < 2; ++half_silent) {
        for (int round = 0; round < rounds; ++round) {
            static PortDetectInfo info;
            std::memset(&info, 0, sizeof info);
            info.group_num = 7;
            for (int g = 0; g < 7; ++g) {
                info.groups[g].detect_num = 4;
                PortDetectEntry* e = info.groups[g].entries;
                e[0] = PortDetectEntry{};
                e[0].addr = lo, e[0].port = stun.port(), e[0].protocol = ZEPH_TRANS_UDP;
                e[1].addr = lo, e[1].port = half_silent ? silent.port : stun.port(), e[1].protocol = ZEPH_TRANS_UDP;
                e[2].addr = lo, e[2].port = tcp.port(), e[2].protocol = ZEPH_TRANS_TCP;
                e[3].addr = lo, e[3].port = half_silent ? refused.port() : tcp.port(), e[3].protocol = ZEPH_TRANS_TCP;
            }
            {
                std::lock_guard<std::mutex> lock(done().mu);
                done().called = false;
            }
            // The sampler runs before the baseline is taken, so it counts in both.
            // It samples every 200 us while probes start and answer, then every
            // 10 ms, and measures its own CPU time, which is taken off the
            // process figure.
            std::atomic<bool> sampling{true};
            std::atomic<bool> fine{true};
            std::atomic<int> peak{0};
            std::thread sampler([&] {
                while (sampling.load()) {
                    peak.store(std::max(peak.load(), count_threads()));
                    std::this_thread::sleep_for(std::chrono::microseconds(fine.load() ? 200 : 10000));
                }
            });
            clockid_t sampler_clock{};
            pthread_getcpuclockid(sampler.native_handle(), &sampler_clock);
            auto cpu_less_sampler = [&] {
                timespec ts{};
                clock_gettime(sampler_clock, &ts);
                return cpu_seconds() - (double(ts.tv_sec) + double(ts.tv_nsec) / 1e9);
            };
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            const int base_threads = count_threads();
            peak.store(base_threads);
            const bool hwm_reset = reset_peak_rss();
            const long base_rss = status_kb("VmRSS:");
            const double cpu0 = cpu_less_sampler();
            const auto t0 = Clock::now();

            if (zeph_any_port_detect(uint32_t(round + 1), &info, on_result) != 0) {
                std::fprintf(stderr, "bench_port_cost: the detection could not start\n");
                sampling = false;
                sampler.join();
                return 1;
            }
            {
                std::unique_lock<std::mutex> lock(done().mu);
                done().cv.wait_for(lock, std::chrono::seconds(15), [] { return done().called; });
            }
            const auto t_cb = done().called ? done().at : Clock::now();
            const double cpu_cb = cpu_less_sampler() - cpu0;
            std::this_thread::sleep_for(std::chrono::milliseconds(1500));
            fine.store(false);
            // The delayed free comes 20 s after the result.
            const auto deadline = Clock::now() + std::chrono::seconds(40);
            while ((PortDetect::live_count() > 0 || PortDetectBase::live_count() > 0) && Clock::now() < deadline)
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            const auto t_free = Clock::now();
            const bool freed = PortDetect::live_count() == 0 && PortDetectBase::live_count() == 0;
            // Probe threads leave within a poll of the free.
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            const double cpu = cpu_less_sampler() - cpu0;
            const int after = count_threads();
            sampling = false;
            sampler.join();
            const long hwm = status_kb("VmHWM:");

            char rss[32], base[32];
            std::snprintf(rss, sizeof rss, hwm_reset ? "%ld kB" : "(%ld kB)", hwm);
            std::snprintf(base, sizeof base, "%ld kB", base_rss);
            std::printf("%-28s %8d %7d %10s %10s %7.3f/%7.3f %7.2f s %7.2f s %6d %5d%s\n",
                        half_silent ? "14 answer, 14 silent/refuse" : "all 28 answer", peak.load(), base_threads, rss,
                        base, cpu_cb, cpu, std::chrono::duration<double>(t_cb - t0).count(),
                        std::chrono::duration<double>(t_free - t0).count(), after, done().open, freed ? "" : "  NOT FREED");
            std::fflush(stdout);
        }
    }
    std::printf("\nthreads: peak count of /proc/self/task, sampled every 200 us (base: before the call,\n"
                "with main, 2 peer threads and the sampler); peak RSS: VmHWM reset before the call;\n"
                "CPU: user+system of the process less the sampler's own, to the callback / to the free.\n");
    return 0;
}
