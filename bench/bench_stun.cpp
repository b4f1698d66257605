// STUN Binding Requests built per second through the exports: for one key
// (exact look-up), and for a table of 50 keys with the fuzzy look-up, both
// when the first key matches and when only the last one does. Then the
// same from two threads at once.
//
//   bench_stun [--seconds S]    (default 0.5 s per measurement, best of 3)
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "zeph_nettools/stun.h"

namespace {

using Clock = std::chrono::steady_clock;

double PacketsPerSecond(double seconds, int threads, const std::function<uint32_t(uint8_t*, uint32_t*)>& build)
{
    double best = 0;
    for (int rep = 0; rep < 3; ++rep) {
        std::atomic<uint64_t> total{0};
        std::atomic<bool> failed{false};
        const auto start = Clock::now();
        const auto end = start + std::chrono::duration<double>(seconds);
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t) {
            pool.emplace_back([&] {
                uint8_t buf[288];
                uint64_t n = 0;
                while (Clock::now() < end) {
                    for (int i = 0; i < 64; ++i) {
                        std::memset(buf, 0, sizeof buf);
                        uint32_t len = sizeof buf;
                        if (build(buf, &len) != 0) failed = true;
                    }
                    n += 64;
                }
                total += n;
            });
        }
        for (auto& th : pool) th.join();
        if (failed) {
            std::fprintf(stderr, "build failed\n");
            std::exit(1);
        }
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        best = std::max(best, static_cast<double>(total.load()) / elapsed);
    }
    return best;
}

void Set(const std::string& key)
{
    StunIceInfo local{}, remote{};
    std::snprintf(local.ufrag, sizeof local.ufrag, "%s", "Lx9fQ2ab");
    std::snprintf(local.password, sizeof local.password, "%s", "local-password-0123456789abcd");
    std::snprintf(remote.ufrag, sizeof remote.ufrag, "%s", "Rk4TzY7c");
    std::snprintf(remote.password, sizeof remote.password, "%s", "remote-password-0123456789abc");
    if (MORL_StunSetLocalIceInfo(key.c_str(), &local) != 0 || MORL_StunSetRemoteIceInfo(key.c_str(), &remote) != 0) {
        std::fprintf(stderr, "set failed\n");
        std::exit(1);
    }
}

} // namespace

int main(int argc, char** argv)
{
    double seconds = 0.5;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::string(argv[i]) == "--seconds") seconds = std::atof(argv[i + 1]);
    }
    Set("stun_audio_1");
    const double one = PacketsPerSecond(seconds, 1, [](uint8_t* b, uint32_t* l) {
        return MORL_StunBuildStunPacket("stun_audio_1", b, l);
    });
    const double oneFramed = PacketsPerSecond(seconds, 1, [](uint8_t* b, uint32_t* l) {
        return MORL_StunBuildPacket("stun_audio_1", b, l);
    });

    // 50 keys: the transport's form, "stun_<type>_<session>".
    MORL_StunClearIceInfo("stun_audio_1");
    const char* types[] = {"audio", "aux", "data", "video"};
    std::vector<std::string> keys;
    for (int i = 0; i < 50; ++i) keys.push_back(std::string("stun_") + types[i % 4] + "_" + std::to_string(1000 + i));
    for (const auto& key : keys) Set(key);
    // The last key in byte order is the only one that contains its own text.
    static std::string last;
    last = *std::max_element(keys.begin(), keys.end());
    const double fuzzyFirst = PacketsPerSecond(seconds, 1, [](uint8_t* b, uint32_t* l) {
        return MORL_StunBuildPacketOfFuzzyMatchKey("stun_audio", b, l);
    });
    const double fuzzyLast = PacketsPerSecond(seconds, 1, [](uint8_t* b, uint32_t* l) {
        return MORL_StunBuildPacketOfFuzzyMatchKey(last.c_str(), b, l);
    });
    const double fuzzyFirst2 = PacketsPerSecond(seconds, 2, [](uint8_t* b, uint32_t* l) {
        return MORL_StunBuildPacketOfFuzzyMatchKey("stun_audio", b, l);
    });

    std::printf("STUN packets built per second (best of 3, %.1f s each)\n", seconds);
    std::printf("  one key, bare packet (exact)            %10.0f /s\n", one);
    std::printf("  one key, with private head (exact)      %10.0f /s\n", oneFramed);
    std::printf("  50 keys, fuzzy, first key matches        %10.0f /s\n", fuzzyFirst);
    std::printf("  50 keys, fuzzy, only the last matches    %10.0f /s\n", fuzzyLast);
    std::printf("  50 keys, fuzzy, first key, 2 threads     %10.0f /s\n", fuzzyFirst2);
    return 0;
}
