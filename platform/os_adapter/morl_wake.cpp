// Wakes of the OS adapter: an eventfd that a polling thread watches beside
// its sockets and that any thread makes readable. Runs on the calling
// thread; keeps no state beyond the descriptor.
#include "os_adapter/morl_os.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "os_adapter/morl_errno.h"

using morl::fail;
using morl::fail_errno;

MORL_WAKE MORL_WakeCreate() {
    const int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) {
        fail_errno();
        return MORL_INVALID_WAKE;
    }
    return fd;
}

int MORL_WakeSignal(MORL_WAKE wake) {
    if (wake < 0) {
        return fail(MORL_WSAEBADF);
    }
    const uint64_t one = 1;
    for (;;) {
        if (::write(wake, &one, sizeof(one)) == static_cast<ssize_t>(sizeof(one))) {
            return 0;
        }
        if (errno == EAGAIN) {
            return 0; // the counter is full, so it is readable already
        }
        if (errno != EINTR) {
            return fail_errno();
        }
    }
}

int MORL_WakeDrain(MORL_WAKE wake) {
    if (wake < 0) {
        return fail(MORL_WSAEBADF);
    }
    uint64_t count = 0;
    for (;;) {
        if (::read(wake, &count, sizeof(count)) == static_cast<ssize_t>(sizeof(count))) {
            return 1;
        }
        if (errno == EAGAIN) {
            return 0;
        }
        if (errno != EINTR) {
            return fail_errno();
        }
    }
}

int MORL_WakeClose(MORL_WAKE wake) {
    if (wake < 0) {
        return fail(MORL_WSAEBADF);
    }
    return ::close(wake) == 0 ? 0 : fail_errno();
}
