// Clocks, sleeping, thread names, error texts and the recursive mutex of the
// OS adapter.
#include "os_adapter/morl_os.h"

#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "os_adapter/morl_errno.h"

// ---- errors -----------------------------------------------------------------------
int MORL_GetLastErr() { return errno; }

namespace {
// strerror_r comes in two shapes; both end up as text in buf.
[[maybe_unused]] const char* pick_text(int rc, const char* buf) { return rc == 0 ? buf : nullptr; }
[[maybe_unused]] const char* pick_text(const char* text, const char*) { return text; }
} // namespace

// Takes an errno value or a WSA code (as MORL_GetLastSocketErr gives it).
int MORL_StrError_S(char* buf, uint32_t size, int err) {
    if (buf == nullptr || size == 0) {
        return EINVAL;
    }
    char tmp[256];
    tmp[0] = '\0';
    const char* text = pick_text(strerror_r(morl::wsa_to_errno(err), tmp, sizeof(tmp)), tmp);
    if (text == nullptr || text[0] == '\0') {
        std::snprintf(tmp, sizeof(tmp), "Unknown error %d", err);
        text = tmp;
    }
    size_t n = std::strlen(text);
    if (n >= size) {
        n = size - 1; // a cut text is still better than none in a log line
    }
    std::memmove(buf, text, n);
    buf[n] = '\0';
    return 0;
}

// ---- time -----------------------------------------------------------------------------
void MORL_SleepMs(uint32_t ms) {
    timespec req;
    req.tv_sec = static_cast<time_t>(ms / 1000);
    req.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    timespec rem;
    while (nanosleep(&req, &rem) != 0 && errno == EINTR) {
        req = rem; // a signal does not shorten the sleep
    }
}

// The one clock of the library: every clock above the adapter (the module
// clock, the probes' clocks, the proxy's deadlines, the timer service) is
// this monotonic count seen from an origin of its own.
namespace {
constexpr int64_t kNsPerSecond = 1000000000LL;
constexpr int64_t kNsPerMs = 1000000LL;

int64_t monotonic_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * kNsPerSecond + ts.tv_nsec;
}
} // namespace

uint64_t MORL_GetSystemTime() { return static_cast<uint64_t>(monotonic_ns() / kNsPerMs); }

int MORL_QueryPerformanceCounter(int64_t* count) {
    if (count == nullptr) {
        return EINVAL;
    }
    *count = monotonic_ns();
    return 0;
}

int MORL_QueryPerformanceFrequency(int64_t* freq) {
    if (freq == nullptr) {
        return EINVAL;
    }
    *freq = kNsPerSecond; // the counter counts nanoseconds
    return 0;
}

// ---- threads --------------------------------------------------------------------------
int MORL_PthreadSetName(const char* name) {
    if (name == nullptr) {
        return EINVAL;
    }
    char cut[16];
    std::strncpy(cut, name, sizeof(cut) - 1);
    cut[sizeof(cut) - 1] = '\0';
    return pthread_setname_np(pthread_self(), cut);
}

// ---- recursive mutex in a caller's block --------------------------------------------------
static_assert(sizeof(pthread_mutex_t) <= MORL_MUTEX_BLOCK_SIZE, "a pthread mutex fits the caller's block");

namespace {
pthread_mutex_t* as_mutex(void* block) {
    if (block == nullptr || reinterpret_cast<uintptr_t>(block) % alignof(pthread_mutex_t) != 0) {
        return nullptr;
    }
    return static_cast<pthread_mutex_t*>(block);
}
} // namespace

// flags is reserved; every mutex made here is recursive.
int MORL_MutexInitRecursive(void* block, int /*flags*/) {
    pthread_mutex_t* m = as_mutex(block);
    if (m == nullptr) {
        return EINVAL;
    }
    pthread_mutexattr_t attr;
    int rc = pthread_mutexattr_init(&attr);
    if (rc != 0) {
        return rc;
    }
    rc = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    if (rc == 0) {
        rc = pthread_mutex_init(m, &attr);
    }
    pthread_mutexattr_destroy(&attr);
    return rc;
}

int MORL_MutexLock(void* block) {
    pthread_mutex_t* m = as_mutex(block);
    return m == nullptr ? EINVAL : pthread_mutex_lock(m);
}

int MORL_MutexUnLock(void* block) {
    pthread_mutex_t* m = as_mutex(block);
    return m == nullptr ? EINVAL : pthread_mutex_unlock(m);
}

int MORL_MutexDestroy(void* block) {
    pthread_mutex_t* m = as_mutex(block);
    return m == nullptr ? EINVAL : pthread_mutex_destroy(m);
}
