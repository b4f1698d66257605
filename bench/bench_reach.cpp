// What one connectivity detection of 16 targets costs: threads of the
// process at its peak (beside the idle runtime's), peak resident memory,
// CPU seconds and the time to its callback. Half the targets answer (a
// STUN responder on loopback), half are silent UDP ports, so the result
// comes 1 s after the first answer; a second figure has all 16 answering.
// Runs on main; a sampler thread reads /proc every millisecond.
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "peers.h"
#include "zeph_nettools/net_tools.h"

using namespace zeph_test;

namespace {

constexpr int kRuns = 5;
constexpr size_t kTargets = 16;
constexpr int kSampleMs = 1;
constexpr int kResultWaitMs = 10000;

double cpu_s() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_utime.tv_sec + ru.ru_utime.tv_usec / 1e6 + ru.ru_stime.tv_sec + ru.ru_stime.tv_usec / 1e6;
}

// A field of /proc/self/status ("Threads", "VmRSS", "VmHWM"), its number.
long status_field(const std::string& key) {
    std::ifstream f("/proc/self/status");
    for (std::string line; std::getline(f, line);) {
        if (line.rfind(key + ":", 0) == 0) return std::stol(line.substr(key.size() + 1));
    }
    return -1;
}

std::mutex g_mu;
std::condition_variable g_cv;
int g_results = 0;
int g_open = 0;
uint64_t g_at = 0;

void on_result(ConnectivityResult* r) {
    std::lock_guard<std::mutex> g(g_mu);
    ++g_results;
    g_open = 0;
    for (const auto& s : r->sites) g_open += s.open;
    g_at = now_ms();
    g_cv.notify_all();
}

struct Figures {
    long threads_peak = 0; // above the idle runtime
    double cpu = 0;
    uint64_t to_callback = 0;
    int open = 0;
};

Figures run_once(const ConnectivityDetectInfo& info) {
    const long idle_threads = status_field("Threads");
    std::atomic<bool> sampling{true};
    std::atomic<long> peak{idle_threads};
    std::thread sampler([&] {
        while (sampling) {
            const long n = status_field("Threads") - 1; // less the sampler itself
            if (n > peak) peak = n;
            sleep_ms(kSampleMs);
        }
    });
    int before = 0;
    {
        std::lock_guard<std::mutex> g(g_mu);
        before = g_results;
    }
    const double c0 = cpu_s();
    const uint64_t t0 = now_ms();
    Figures f;
    if (zeph_any_port_detect_new(&info) != 0) {
        fprintf(stderr, "the detection did not start\n");
    } else {
        std::unique_lock<std::mutex> lock(g_mu);
        g_cv.wait_for(lock, std::chrono::milliseconds(kResultWaitMs), [&] { return g_results > before; });
        f.to_callback = g_at - t0;
        f.open = g_open;
    }
    f.cpu = cpu_s() - c0;
    sampling = false;
    sampler.join();
    f.threads_peak = peak - idle_threads + 1; // the sampler counted in idle_threads
    sleep_ms(200); // the message thread frees the sockets
    return f;
}

void report(const char* what, const ConnectivityDetectInfo& info) {
    std::vector<Figures> runs;
    for (int i = 0; i < kRuns; ++i) runs.push_back(run_once(info));
    std::sort(runs.begin(), runs.end(), [](const Figures& a, const Figures& b) { return a.to_callback < b.to_callback; });
    const Figures& mid = runs[runs.size() / 2];
    long threads = 0;
    double cpu = 0;
    for (const Figures& f : runs) {
        threads = std::max(threads, f.threads_peak);
        cpu += f.cpu;
    }
    printf("%-28s to callback %5llu ms (min %llu, max %llu)  open %2d/%zu  cpu %.4f s/run  threads above idle %ld\n",
           what, static_cast<unsigned long long>(mid.to_callback),
           static_cast<unsigned long long>(runs.front().to_callback),
           static_cast<unsigned long long>(runs.back().to_callback), mid.open, info.sites.size(), cpu / kRuns,
           threads);
}

} // namespace

int main() {
    zeph_peers::StunResponder stun;
    if (!stun.start()) {
        fprintf(stderr, "cannot start the STUN responder\n");
        return 1;
    }
    std::vector<std::unique_ptr<UdpSocket>> silent;
    for (size_t i = 0; i < kTargets; ++i) silent.emplace_back(new UdpSocket);
    if (zeph_net_tools_init() != 0) {
        fprintf(stderr, "the runtime did not start\n");
        return 1;
    }
    const long rss_idle = status_field("VmRSS");
    const long threads_idle = status_field("Threads");

    auto make = [&](size_t answering) {
        ConnectivityDetectInfo info;
        info.notify = on_result;
        for (size_t i = 0; i < kTargets; ++i) {
            ConnectivitySite s;
            s.addr = "127.0.0.1";
            s.protocol = ZEPH_TRANS_UDP;
            s.port = i < answering ? stun.port() : silent[i]->port();
            info.sites.push_back(s);
        }
        return info;
    };
    printf("idle runtime: %ld threads in the process (peers included), RSS %ld kB\n", threads_idle, rss_idle);
    report("16 targets, 8 silent", make(kTargets / 2));
    report("16 targets, all answering", make(kTargets));
    printf("peak RSS %ld kB (idle %ld kB)\n", status_field("VmHWM"), rss_idle);
    zeph_net_tools_uninit();
    return 0;
}
