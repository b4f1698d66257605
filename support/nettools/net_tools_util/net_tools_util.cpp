#include "net_tools_util/net_tools_util.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "inc/net_tools_log.h"
#include "securec/securec.h"

namespace {

constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kUsPerSecond = 1000000;

// ticks / freq seconds in units of 1/unit second, rounded toward zero. The remainder is below
// freq, so remainder * unit stays in range for any counter of up to
// 9.2e12 ticks a second; faster (or bogus) counters are first divided down
// to a microsecond rate, which costs nothing that a millisecond clock shows.
int64_t counter_to_unit(int64_t ticks, int64_t freq, int64_t unit) {
    if (freq < 1) return 0;
    const int64_t max_exact_freq = INT64_MAX / unit;
    if (freq > max_exact_freq) {
        const int64_t divisor = freq / kUsPerSecond;
        ticks /= divisor;
        freq /= divisor;
    }
    const int64_t seconds = ticks / freq;
    const int64_t rest = ticks % freq;
    // Spans that no 64-bit count of the unit can hold (only a very slow
    // counter has them) saturate.
    if (seconds >= INT64_MAX / unit) return INT64_MAX;
    if (seconds <= INT64_MIN / unit) return INT64_MIN;
    return seconds * unit + rest * unit / freq;
}

// What a clock without a frequency reads.
constexpr int64_t kNoClock = 0xFFFFFFFFLL;
// Both hold 0xFFFFFFFF until the first init_runtime_clock, so the clock is
// usable (with a meaningless origin) before the runtime is started.
std::atomic<int64_t> m_freq_time{kNoClock};
std::atomic<int64_t> m_start_time{kNoClock};
} // namespace

void init_runtime_clock() {
    int64_t freq = 0;
    int64_t start = 0;
    MORL_QueryPerformanceFrequency(&freq);
    MORL_QueryPerformanceCounter(&start);
    m_freq_time.store(freq);
    m_start_time.store(start);
}

int64_t get_runtime_current() {
    return counter_ms_since(m_start_time.load(), m_freq_time.load(), "get_runtime_current");
}

int64_t counter_ms_since(int64_t origin, int64_t freq, const char* clock) {
    int64_t now = 0;
    MORL_QueryPerformanceCounter(&now);
    if (freq == 0) {
        NT_LOGE("%s: m_freq_time is null", clock);
        return kNoClock;
    }
    return counter_to_ms(now - origin, freq);
}

int64_t counter_us_since(int64_t origin, int64_t freq) {
    int64_t now = 0;
    MORL_QueryPerformanceCounter(&now);
    return counter_to_us(now - origin, freq);
}

void set_runtime_clock_origin(int64_t start) { m_start_time.store(start); }

int64_t counter_to_ms(int64_t ticks, int64_t freq) { return counter_to_unit(ticks, freq, kMsPerSecond); }

int64_t counter_to_us(int64_t ticks, int64_t freq) { return counter_to_unit(ticks, freq, kUsPerSecond); }

void ipv4_int2str(char* out, uint32_t size, uint32_t addr) {
    const int ret = sprintf_s(out, size, "%u.%u.%u.%u", addr & 0xFF, (addr >> 8) & 0xFF, (addr >> 16) & 0xFF,
                              (addr >> 24) & 0xFF);
    if (ret < 1) NT_LOGE("secure function return error");
}

OsRecursiveMutex::OsRecursiveMutex() {
    m_block = std::malloc(MORL_MUTEX_BLOCK_SIZE);
    if (m_block) MORL_MutexInitRecursive(m_block, 0);
}

OsRecursiveMutex::~OsRecursiveMutex() {
    if (!m_block) return;
    MORL_MutexLock(m_block);
    MORL_MutexUnLock(m_block);
    MORL_MutexDestroy(m_block);
    std::free(m_block);
    m_block = nullptr;
}

void OsRecursiveMutex::lock() {
    if (m_block) MORL_MutexLock(m_block);
}

void OsRecursiveMutex::unlock() {
    if (m_block) MORL_MutexUnLock(m_block);
}
