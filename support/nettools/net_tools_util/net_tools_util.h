// Module clock, IPv4 text and the recursive lock of the detection side.
#pragma once

#include <cstdint>

#include "os_adapter/morl_os.h"

// Module clock: reads the counter frequency and origin. Run by zeph_net_tools_init.
void init_runtime_clock();
// Milliseconds since init_runtime_clock (signed 64 bits); 0xFFFFFFFF when
// the frequency is 0.
int64_t get_runtime_current();
// Dotted text of an address in network byte order into out (callers give 32 bytes).
void ipv4_int2str(char* out, uint32_t size, uint32_t addr);

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
