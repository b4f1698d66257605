// Module clock, IPv4 text, the thread starter and the recursive lock of the
// detection side. Runs on whichever thread calls it.
#pragma once

#include <cstdint>
#include <memory>
#include <system_error>
#include <thread>

#include "inc/net_tools_log.h"
#include "os_adapter/morl_os.h"

// Module clock: reads the counter frequency and origin. Run by zeph_net_tools_init.
void init_runtime_clock();
// Milliseconds since init_runtime_clock (signed 64 bits); 0xFFFFFFFF when
// the frequency is 0.
int64_t get_runtime_current();
// Moves the module clock's origin to a counter value of the caller's, so that
// a test can read the clock as if the process had run for months.
void set_runtime_clock_origin(int64_t start);

// `ticks` of a counter running at `freq` ticks per second, in milliseconds
// or microseconds. Whole seconds and the remainder are scaled apart, so the
// result is exact (rounded toward zero) and never overflows: a nanosecond
// counter multiplied by 1000 would after 106 days. A span too long for 64
// bits saturates; a `freq` below 1 gives 0.
int64_t counter_to_ms(int64_t ticks, int64_t freq);
int64_t counter_to_us(int64_t ticks, int64_t freq);
// Every clock of the detection side is the OS adapter's performance counter
// seen from an origin of its own (a counter value, with the frequency read
// beside it). Milliseconds since `origin`; 0xFFFFFFFF, with a log line naming
// `clock`, when the frequency is 0.
int64_t counter_ms_since(int64_t origin, int64_t freq, const char* clock);
// Microseconds since `origin`.
int64_t counter_us_since(int64_t origin, int64_t freq);
// Dotted text of an address in network byte order into out (callers give 32 bytes).
void ipv4_int2str(char* out, uint32_t size, uint32_t addr);

// Runs (*keep.*body)() on a detached thread that holds `keep` until the body
// has returned, so the object outlives its thread. False, with a log line,
// when no thread could be started.
template <class T, class Body>
bool start_detached(const std::shared_ptr<T>& keep, Body body) {
    try {
        std::thread([keep, body] { ((*keep).*body)(); }).detach();
        return true;
    } catch (const std::system_error& e) {
        NT_LOGE("thread start failed: %s", e.what());
        return false;
    }
}

// Recursive mutex living in a 72-byte malloc'ed block; lock and unlock do
// nothing when the block could not be had.
class OsRecursiveMutex {
public:
    OsRecursiveMutex();
    ~OsRecursiveMutex();
    OsRecursiveMutex(const OsRecursiveMutex&) = delete;
    OsRecursiveMutex& operator=(const OsRecursiveMutex&) = delete;
    void lock();
    void unlock();

private:
    void* m_block = nullptr;
};

class OsMutexGuard {
public:
    explicit OsMutexGuard(OsRecursiveMutex* mutex) : m_mutex(mutex) {
        if (m_mutex) m_mutex->lock();
    }
    ~OsMutexGuard() {
        if (m_mutex) m_mutex->unlock();
    }
    OsMutexGuard(const OsMutexGuard&) = delete;
    OsMutexGuard& operator=(const OsMutexGuard&) = delete;

private:
    OsRecursiveMutex* m_mutex;
};
