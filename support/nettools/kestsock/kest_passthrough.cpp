// The socket shim's pass-through calls and descriptor sets. They run on the
// caller's thread and hand each call to the OS adapter, which takes the
// Windows numbers, address layout and fd_set layout that the shim's callers
// use.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "os_adapter/morl_os.h"
#include "zeph_nettools/kest_sock.h"

// The caller's records are the adapter's, field for field.
static_assert(sizeof(kest_fdset) == sizeof(MORL_FdSet), "fd_set layout");
static_assert(offsetof(kest_fdset, fd_array) == offsetof(MORL_FdSet, fd_array), "fd_set layout");
static_assert(sizeof(int32_t) == sizeof(MORL_SOCKET), "descriptor width");
static_assert(KEST_FD_SETSIZE == MORL_FD_SETSIZE, "fd_set capacity");
static_assert(sizeof(int32_t) == sizeof(int), "option lengths");

namespace {

// A caller's count may be anything; a set never holds more than its array.
uint32_t held(const kest_fdset* set) {
    return set->fd_count < KEST_FD_SETSIZE ? set->fd_count : static_cast<uint32_t>(KEST_FD_SETSIZE);
}

// The adapter's copy of a caller's set (null stays null), written back after
// the wait.
struct SetCopy {
    explicit SetCopy(kest_fdset* set) : caller(set) {
        if (caller != nullptr) {
            std::memcpy(&copy, caller, sizeof(copy));
        }
    }
    MORL_FdSet* get() { return caller != nullptr ? &copy : nullptr; }
    void give_back() const {
        if (caller != nullptr) {
            std::memcpy(caller, &copy, sizeof(copy));
        }
    }
    kest_fdset* caller;
    MORL_FdSet copy{};
};

} // namespace

extern "C" {

ZEPH_API int32_t kest_socket(int32_t af, int32_t type, int32_t protocol) { return MORL_Socket(af, type, protocol); }

ZEPH_API int32_t kest_bind(int32_t fd, const struct sockaddr* addr, int32_t addrlen) {
    MORL_SockAddrIn local{};
    const bool usable = addr != nullptr && addrlen >= static_cast<int32_t>(sizeof(local));
    if (usable) {
        std::memcpy(&local, addr, sizeof(local));
    }
    return MORL_Bind(fd, usable ? &local : nullptr, addrlen);
}

ZEPH_API int32_t kest_close_socket(int32_t fd) { return MORL_CloseSocket(fd); }

ZEPH_API int32_t kest_select(int32_t nfds, kest_fdset* readfds, kest_fdset* writefds, kest_fdset* exceptfds,
                             const kest_timeval* timeout) {
    SetCopy sets[] = {SetCopy(readfds), SetCopy(writefds), SetCopy(exceptfds)};
    MORL_TimeVal wait{};
    if (timeout != nullptr) {
        wait.tv_sec = timeout->tv_sec;
        wait.tv_usec = timeout->tv_usec;
    }
    const int32_t ready =
        MORL_Select(nfds, sets[0].get(), sets[1].get(), sets[2].get(), timeout != nullptr ? &wait : nullptr);
    if (ready >= 0) {
        for (const SetCopy& s : sets) {
            s.give_back();
        }
    }
    return ready;
}

ZEPH_API int32_t kest_ioctl(int32_t fd, uint32_t cmd, uint32_t* arg) { return MORL_IoctlSocket(fd, cmd, arg); }

ZEPH_API int32_t kest_get_sock_opt(int32_t fd, int32_t level, int32_t name, void* value, int32_t* length) {
    return MORL_GetSockOpt(fd, level, name, value, length);
}

ZEPH_API int32_t kest_set_sock_opt(int32_t fd, int32_t level, int32_t name, const void* value, int32_t length) {
    return MORL_SetSockOpt(fd, level, name, value, length);
}

ZEPH_API void kest_fd_zero(kest_fdset* set) {
    if (set != nullptr) {
        set->fd_count = 0;
    }
}

ZEPH_API void kest_fd_set(int32_t fd, kest_fdset* set) {
    if (set == nullptr || kest_fd_isset(fd, set) != 0) {
        return;
    }
    if (set->fd_count < KEST_FD_SETSIZE) {
        set->fd_array[set->fd_count++] = fd;
    }
}

ZEPH_API int32_t kest_fd_isset(int32_t fd, const kest_fdset* set) {
    if (set == nullptr) {
        return 0;
    }
    const uint32_t n = held(set);
    for (uint32_t i = 0; i < n; ++i) {
        if (set->fd_array[i] == fd) {
            return 1;
        }
    }
    return 0;
}

} // extern "C"
