#include "waits.h"

#include <time.h>

#include <chrono>
#include <thread>

namespace zeph_test {

void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

uint64_t now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

bool wait_until(const std::function<bool()>& pred, int timeout_ms, int step_ms) {
    const uint64_t deadline = now_ms() + static_cast<uint64_t>(timeout_ms > 0 ? timeout_ms : 0);
    for (;;) {
        if (pred()) return true;
        if (now_ms() >= deadline) return pred();
        sleep_ms(step_ms > 0 ? step_ms : 1);
    }
}

} // namespace zeph_test
