// Sockets of the OS adapter: Windows socket numbers and semantics on top of
// the Linux socket calls. All translation of levels, options, ioctl codes,
// poll bits and error numbers lives in the tables of this file.
#include "os_adapter/morl_os.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "os_adapter/morl_errno.h"

namespace morl {
namespace {

struct ErrPair {
    int err;
    int wsa;
};

// The first row of an errno wins on the way errno -> WSA, the first row of a
// WSA code on the way back.
constexpr ErrPair kErrTable[] = {
    {EAGAIN, MORL_WSAEWOULDBLOCK},
#if EWOULDBLOCK != EAGAIN
    {EWOULDBLOCK, MORL_WSAEWOULDBLOCK},
#endif
    {EINPROGRESS, MORL_WSAEINPROGRESS},
    {EALREADY, MORL_WSAEALREADY},
    {ENOTSOCK, MORL_WSAENOTSOCK},
    {EDESTADDRREQ, MORL_WSAEDESTADDRREQ},
    {EMSGSIZE, MORL_WSAEMSGSIZE},
    {EPROTOTYPE, MORL_WSAEPROTOTYPE},
    {ENOPROTOOPT, MORL_WSAENOPROTOOPT},
    {EPROTONOSUPPORT, MORL_WSAEPROTONOSUPPORT},
    {ESOCKTNOSUPPORT, MORL_WSAESOCKTNOSUPPORT},
    {EOPNOTSUPP, MORL_WSAEOPNOTSUPP},
    {EAFNOSUPPORT, MORL_WSAEAFNOSUPPORT},
    {EADDRINUSE, MORL_WSAEADDRINUSE},
    {EADDRNOTAVAIL, MORL_WSAEADDRNOTAVAIL},
    {ENETDOWN, MORL_WSAENETDOWN},
    {ENETUNREACH, MORL_WSAENETUNREACH},
    {ECONNABORTED, MORL_WSAECONNABORTED},
    {ECONNRESET, MORL_WSAECONNRESET},
    {ENOBUFS, MORL_WSAENOBUFS},
    {EISCONN, MORL_WSAEISCONN},
    {ENOTCONN, MORL_WSAENOTCONN},
    {EPIPE, MORL_WSAENOTCONN},
    {ESHUTDOWN, MORL_WSAESHUTDOWN},
    {ETIMEDOUT, MORL_WSAETIMEDOUT},
    {ECONNREFUSED, MORL_WSAECONNREFUSED},
    {EHOSTDOWN, MORL_WSAEHOSTDOWN},
    {EHOSTUNREACH, MORL_WSAEHOSTUNREACH},
    {EBADF, MORL_WSAEBADF},
    {EINTR, MORL_WSAEINTR},
    {EINVAL, MORL_WSAEINVAL},
    {EACCES, MORL_WSAEACCES},
    {EPERM, MORL_WSAEACCES},
    {EFAULT, MORL_WSAEFAULT},
    {EMFILE, MORL_WSAEMFILE},
};

thread_local int t_last_socket_err = 0;

} // namespace

int fail(int wsa) {
    t_last_socket_err = wsa;
    return -1;
}
int fail_errno() { return fail(errno_to_wsa(errno)); }

int errno_to_wsa(int err) {
    for (const ErrPair& p : kErrTable) {
        if (p.err == err) {
            return p.wsa;
        }
    }
    return err;
}

int wsa_to_errno(int wsa) {
    for (const ErrPair& p : kErrTable) {
        if (p.wsa == wsa) {
            return p.err;
        }
    }
    return wsa;
}

} // namespace morl

using morl::errno_to_wsa;
using morl::fail;
using morl::fail_errno;

namespace {

// ---- addresses ----------------------------------------------------------------
// Both layouts keep port and address in network order; only the family
// field and the length differ.
bool to_linux(const MORL_SockAddrIn* in, int len, sockaddr_in* out) {
    if (in == nullptr || len < static_cast<int>(sizeof(MORL_SockAddrIn))) {
        return false;
    }
    std::memset(out, 0, sizeof(*out));
    out->sin_family = in->sin_family == MORL_AF_INET ? AF_INET : static_cast<sa_family_t>(in->sin_family);
    out->sin_port = in->sin_port;
    out->sin_addr.s_addr = in->sin_addr;
    return true;
}

void from_linux(const sockaddr_in& in, MORL_SockAddrIn* out) {
    std::memset(out, 0, sizeof(*out));
    out->sin_family = MORL_AF_INET;
    out->sin_port = in.sin_port;
    out->sin_addr = in.sin_addr.s_addr;
}

// Fills a caller's MORL_SockAddrIn from a kernel address. Only IPv4 can be
// told in this layout.
int give_addr(const sockaddr_storage& ss, MORL_SockAddrIn* addr, int* len) {
    if (addr == nullptr || len == nullptr) {
        return 0;
    }
    if (*len < static_cast<int>(sizeof(MORL_SockAddrIn))) {
        return fail(MORL_WSAEFAULT);
    }
    if (ss.ss_family != AF_INET) {
        return fail(MORL_WSAEAFNOSUPPORT);
    }
    sockaddr_in sin;
    std::memcpy(&sin, &ss, sizeof(sin));
    from_linux(sin, addr);
    *len = sizeof(MORL_SockAddrIn);
    return 0;
}

// ---- message flags ---------------------------------------------------------------
int to_linux_msg_flags(int flags) {
    int out = 0;
    if (flags & MORL_MSG_OOB) out |= MSG_OOB;
    if (flags & MORL_MSG_PEEK) out |= MSG_PEEK;
    if (flags & MORL_MSG_DONTROUTE) out |= MSG_DONTROUTE;
    if (flags & MORL_MSG_WAITALL) out |= MSG_WAITALL;
    return out;
}

// ---- socket options ---------------------------------------------------------------
// SO_SNDBUF and SO_RCVBUF read back what the kernel keeps: Linux doubles
// the value set, for its own bookkeeping, and caps it at the system limit.
enum class OptKind { Int, TimeoutMs, Linger, Error };
struct OptMap {
    int win_level;
    int win_name;
    int level;
    int name;
    OptKind kind;
};
constexpr OptMap kOptTable[] = {
    {MORL_SOL_SOCKET, MORL_SO_REUSEADDR, SOL_SOCKET, SO_REUSEADDR, OptKind::Int},
    {MORL_SOL_SOCKET, MORL_SO_KEEPALIVE, SOL_SOCKET, SO_KEEPALIVE, OptKind::Int},
    {MORL_SOL_SOCKET, MORL_SO_BROADCAST, SOL_SOCKET, SO_BROADCAST, OptKind::Int},
    {MORL_SOL_SOCKET, MORL_SO_LINGER, SOL_SOCKET, SO_LINGER, OptKind::Linger},
    {MORL_SOL_SOCKET, MORL_SO_SNDBUF, SOL_SOCKET, SO_SNDBUF, OptKind::Int},
    {MORL_SOL_SOCKET, MORL_SO_RCVBUF, SOL_SOCKET, SO_RCVBUF, OptKind::Int},
    {MORL_SOL_SOCKET, MORL_SO_SNDTIMEO, SOL_SOCKET, SO_SNDTIMEO, OptKind::TimeoutMs},
    {MORL_SOL_SOCKET, MORL_SO_RCVTIMEO, SOL_SOCKET, SO_RCVTIMEO, OptKind::TimeoutMs},
    {MORL_SOL_SOCKET, MORL_SO_ERROR, SOL_SOCKET, SO_ERROR, OptKind::Error},
    {MORL_SOL_SOCKET, MORL_SO_TYPE, SOL_SOCKET, SO_TYPE, OptKind::Int},
    {MORL_IPPROTO_IP, MORL_IP_TOS, IPPROTO_IP, IP_TOS, OptKind::Int},
    {MORL_IPPROTO_IP, MORL_IP_TTL, IPPROTO_IP, IP_TTL, OptKind::Int},
    {MORL_IPPROTO_TCP, MORL_TCP_NODELAY, IPPROTO_TCP, TCP_NODELAY, OptKind::Int},
};

const OptMap* find_opt(int level, int name) {
    for (const OptMap& m : kOptTable) {
        if (m.win_level == level && m.win_name == name) {
            return &m;
        }
    }
    return nullptr;
}

// Windows takes BOOL options as 4 bytes but also as a single byte.
bool read_int_arg(const void* optval, int optlen, int* out) {
    if (optval == nullptr) {
        return false;
    }
    if (optlen >= static_cast<int>(sizeof(int))) {
        std::memcpy(out, optval, sizeof(int));
        return true;
    }
    if (optlen == 1) {
        *out = *static_cast<const unsigned char*>(optval);
        return true;
    }
    return false;
}

// ---- connects that failed at once -------------------------------------------------------
// On Windows a non-blocking connect that fails at once (no route, address
// not available, refused by policy) leaves its error with the socket: the
// socket never turns writable, select reports it in the error set, WSAPoll
// reports POLLERR|POLLHUP, and SO_ERROR gives the error. Linux hands the
// error to the connect call alone; afterwards the socket polls as writable
// (and hung up) with SO_ERROR 0, which a caller waiting for writability
// would read as a connection made. The adapter therefore keeps such errors
// itself, per socket, until the socket is closed or connects again.
class FailedConnects {
public:
    void remember(int s, int wsa) {
        std::lock_guard<std::mutex> lock(mu_);
        errors_[s] = wsa;
        count_.store(errors_.size(), std::memory_order_release);
    }
    void forget(int s) {
        if (!any()) {
            return; // the common case: every socket close and connect passes here
        }
        std::lock_guard<std::mutex> lock(mu_);
        errors_.erase(s);
        count_.store(errors_.size(), std::memory_order_release);
    }
    // The error a failed connect left with s, 0 if none.
    int error_of(int s) {
        if (!any()) {
            return 0;
        }
        std::lock_guard<std::mutex> lock(mu_);
        auto it = errors_.find(s);
        return it == errors_.end() ? 0 : it->second;
    }
    // Lock-free, so that the polling threads pay nothing while no connect
    // has failed at once.
    bool any() const { return count_.load(std::memory_order_acquire) != 0; }

private:
    std::mutex mu_;
    std::unordered_map<int, int> errors_; // socket -> WSA code; bounded by the open descriptors
    std::atomic<size_t> count_{0};
};

FailedConnects& failed_connects() {
    static FailedConnects& table = *new FailedConnects; // sockets may be closed during process exit
    return table;
}

// Errors of a connect that are its final outcome; the others (under way,
// interrupted, already connected, bad arguments) leave nothing behind.
bool is_connect_outcome(int err) {
    switch (err) {
    case ENETUNREACH:
    case EHOSTUNREACH:
    case ENETDOWN:
    case EHOSTDOWN:
    case ECONNREFUSED:
    case ECONNRESET:
    case ETIMEDOUT:
    case EADDRNOTAVAIL:
    case EADDRINUSE:
    case EACCES:
    case EPERM:
        return true;
    default:
        return false;
    }
}

} // namespace

// ---- life of a socket ----------------------------------------------------------------
int MORL_InitSocket() { return 0; } // Linux needs no socket library start

MORL_SOCKET MORL_Socket(int family, int type, int protocol) {
    if (family != static_cast<int>(MORL_AF_INET)) {
        return fail(MORL_WSAEAFNOSUPPORT);
    }
    int ltype = 0;
    switch (type) {
    case MORL_SOCK_STREAM: ltype = SOCK_STREAM; break;
    case MORL_SOCK_DGRAM: ltype = SOCK_DGRAM; break;
    case MORL_SOCK_RAW: ltype = SOCK_RAW; break; // reads include the IP header, as on Windows
    default: return fail(MORL_WSAESOCKTNOSUPPORT);
    }
    // Protocol numbers (0, 1 ICMP, 6 TCP, 17 UDP) are the IANA numbers on both systems.
    int fd = ::socket(AF_INET, ltype | SOCK_CLOEXEC, protocol);
    if (fd < 0) {
        return fail_errno();
    }
    failed_connects().forget(fd); // a number closed behind the adapter's back may come again
    return fd;
}

int MORL_Shutdown(MORL_SOCKET s, int how) {
    int linux_how = how == MORL_SD_RECEIVE ? SHUT_RD : (how == MORL_SD_SEND ? SHUT_WR : SHUT_RDWR);
    if (::shutdown(s, linux_how) != 0) {
        return fail_errno();
    }
    return 0;
}

int MORL_CloseSocket(MORL_SOCKET s) {
    failed_connects().forget(s); // before the number can be handed out again
    // A close interrupted by a signal has still released the descriptor on
    // Linux; retrying could close a descriptor another thread just opened.
    if (::close(s) != 0 && errno != EINTR) {
        return fail_errno();
    }
    return 0;
}

int MORL_Bind(MORL_SOCKET s, const MORL_SockAddrIn* addr, int len) {
    sockaddr_in sin;
    if (!to_linux(addr, len, &sin)) {
        return fail(MORL_WSAEFAULT);
    }
    if (::bind(s, reinterpret_cast<const sockaddr*>(&sin), sizeof(sin)) != 0) {
        return fail_errno();
    }
    return 0;
}

int MORL_Connect(MORL_SOCKET s, const MORL_SockAddrIn* addr, int len) {
    sockaddr_in sin;
    if (!to_linux(addr, len, &sin)) {
        return fail(MORL_WSAEFAULT);
    }
    failed_connects().forget(s);
    // Linux takes 0.0.0.0 as "this machine"; Windows refuses it.
    if (sin.sin_addr.s_addr == htonl(INADDR_ANY)) {
        failed_connects().remember(s, MORL_WSAEADDRNOTAVAIL);
        return fail(MORL_WSAEADDRNOTAVAIL);
    }
    if (::connect(s, reinterpret_cast<const sockaddr*>(&sin), sizeof(sin)) != 0) {
        const int err = errno;
        // A non-blocking connect under way reads "would block" on Windows.
        if (err == EINPROGRESS) {
            return fail(MORL_WSAEWOULDBLOCK);
        }
        if (is_connect_outcome(err)) {
            failed_connects().remember(s, errno_to_wsa(err));
        }
        return fail(errno_to_wsa(err));
    }
    return 0;
}

int MORL_Listen(MORL_SOCKET s, int backlog) {
    if (::listen(s, backlog) != 0) {
        return fail_errno();
    }
    return 0;
}

MORL_SOCKET MORL_Accept(MORL_SOCKET s, MORL_SockAddrIn* addr, int* len) {
    sockaddr_storage ss;
    socklen_t sl = sizeof(ss);
    int fd = ::accept4(s, reinterpret_cast<sockaddr*>(&ss), &sl, SOCK_CLOEXEC);
    if (fd < 0) {
        return fail_errno();
    }
    failed_connects().forget(fd);
    if (give_addr(ss, addr, len) != 0) {
        int err = MORL_GetLastSocketErr();
        ::close(fd);
        return fail(err);
    }
    return fd;
}

// ---- data ----------------------------------------------------------------------------
int MORL_Send(MORL_SOCKET s, const void* buf, int len, int flags) {
    if (len < 0 || (buf == nullptr && len > 0)) {
        return fail(MORL_WSAEFAULT);
    }
    // MSG_NOSIGNAL: a peer that has gone away gives an error, never SIGPIPE.
    ssize_t n = ::send(s, buf, static_cast<size_t>(len), to_linux_msg_flags(flags) | MSG_NOSIGNAL);
    if (n < 0) {
        return fail_errno();
    }
    return static_cast<int>(n);
}

int MORL_Sendto(MORL_SOCKET s, const void* buf, int len, int flags, const MORL_SockAddrIn* to, int tolen) {
    if (len < 0 || (buf == nullptr && len > 0)) {
        return fail(MORL_WSAEFAULT);
    }
    if (to == nullptr) {
        return MORL_Send(s, buf, len, flags);
    }
    sockaddr_in sin;
    if (!to_linux(to, tolen, &sin)) {
        return fail(MORL_WSAEFAULT);
    }
    if (sin.sin_addr.s_addr == htonl(INADDR_ANY)) {
        return fail(MORL_WSAEADDRNOTAVAIL); // as Windows: 0.0.0.0 is no destination
    }
    ssize_t n = ::sendto(s, buf, static_cast<size_t>(len), to_linux_msg_flags(flags) | MSG_NOSIGNAL,
                         reinterpret_cast<const sockaddr*>(&sin), sizeof(sin));
    if (n < 0) {
        return fail_errno();
    }
    return static_cast<int>(n);
}

namespace {
// One read. A datagram longer than the buffer fails it with 10040 and is
// gone, as on Windows; Linux would hand over its first bytes as if they were
// the whole datagram. A stream never reports that.
ssize_t receive(MORL_SOCKET s, void* buf, int len, int flags, sockaddr_storage* ss, socklen_t* sl) {
    iovec iov{buf, static_cast<size_t>(len)};
    msghdr mh{};
    mh.msg_name = ss;
    mh.msg_namelen = ss != nullptr ? sizeof(*ss) : 0;
    mh.msg_iov = &iov;
    mh.msg_iovlen = 1;
    const ssize_t n = ::recvmsg(s, &mh, to_linux_msg_flags(flags));
    if (n < 0) {
        return fail_errno();
    }
    if ((mh.msg_flags & MSG_TRUNC) != 0) {
        return fail(MORL_WSAEMSGSIZE);
    }
    if (sl != nullptr) {
        *sl = mh.msg_namelen;
    }
    return n;
}
} // namespace

int MORL_Recv(MORL_SOCKET s, void* buf, int len, int flags) {
    if (len < 0 || (buf == nullptr && len > 0)) {
        return fail(MORL_WSAEFAULT);
    }
    return static_cast<int>(receive(s, buf, len, flags, nullptr, nullptr));
}

int MORL_Recvfrom(MORL_SOCKET s, void* buf, int len, int flags, MORL_SockAddrIn* from, int* fromlen) {
    if (len < 0 || (buf == nullptr && len > 0)) {
        return fail(MORL_WSAEFAULT);
    }
    if (from != nullptr && (fromlen == nullptr || *fromlen < static_cast<int>(sizeof(MORL_SockAddrIn)))) {
        return fail(MORL_WSAEFAULT);
    }
    sockaddr_storage ss;
    std::memset(&ss, 0, sizeof(ss));
    socklen_t sl = 0;
    const ssize_t n = receive(s, buf, len, flags, &ss, &sl);
    if (n < 0) {
        return -1;
    }
    if (from != nullptr) {
        // A connected stream socket reports no source; leave the record zeroed.
        if (sl == 0 || ss.ss_family != AF_INET) {
            std::memset(from, 0, sizeof(*from));
        } else if (give_addr(ss, from, fromlen) != 0) {
            return -1;
        }
    }
    return static_cast<int>(n);
}

// ---- options and control -------------------------------------------------------------
int MORL_SetSockOpt(MORL_SOCKET s, int level, int optname, const void* optval, int optlen) {
    const OptMap* m = find_opt(level, optname);
    if (m == nullptr) {
        return fail(MORL_WSAENOPROTOOPT);
    }
    int rc = -1;
    switch (m->kind) {
    case OptKind::Int: {
        int v = 0;
        if (!read_int_arg(optval, optlen, &v)) {
            return fail(MORL_WSAEFAULT);
        }
        rc = ::setsockopt(s, m->level, m->name, &v, sizeof(v));
        break;
    }
    case OptKind::TimeoutMs: {
        // Windows takes a DWORD of milliseconds; 0 is "no time-out" on both.
        int v = 0;
        if (!read_int_arg(optval, optlen, &v) || optlen < static_cast<int>(sizeof(uint32_t))) {
            return fail(MORL_WSAEFAULT);
        }
        uint32_t ms = static_cast<uint32_t>(v);
        timeval tv;
        tv.tv_sec = static_cast<time_t>(ms / 1000);
        tv.tv_usec = static_cast<suseconds_t>((ms % 1000) * 1000);
        rc = ::setsockopt(s, m->level, m->name, &tv, sizeof(tv));
        break;
    }
    case OptKind::Linger: {
        // Windows LINGER: two u_shorts, on/off then seconds.
        if (optval == nullptr || optlen < 4) {
            return fail(MORL_WSAEFAULT);
        }
        uint16_t w[2];
        std::memcpy(w, optval, sizeof(w));
        linger lg;
        lg.l_onoff = w[0];
        lg.l_linger = w[1];
        rc = ::setsockopt(s, m->level, m->name, &lg, sizeof(lg));
        break;
    }
    case OptKind::Error:
        return fail(MORL_WSAENOPROTOOPT); // read-only
    }
    if (rc != 0) {
        return fail_errno();
    }
    return 0;
}

int MORL_GetSockOpt(MORL_SOCKET s, int level, int optname, void* optval, int* optlen) {
    const OptMap* m = find_opt(level, optname);
    if (m == nullptr) {
        return fail(MORL_WSAENOPROTOOPT);
    }
    if (optval == nullptr || optlen == nullptr) {
        return fail(MORL_WSAEFAULT);
    }
    switch (m->kind) {
    case OptKind::Int:
    case OptKind::Error: {
        if (*optlen < static_cast<int>(sizeof(int))) {
            return fail(MORL_WSAEFAULT);
        }
        int v = 0;
        socklen_t l = sizeof(v);
        if (::getsockopt(s, m->level, m->name, &v, &l) != 0) {
            return fail_errno();
        }
        if (m->kind == OptKind::Error) {
            v = errno_to_wsa(v); // pending socket errors read as WSA codes
            if (v == 0) {
                v = failed_connects().error_of(s);
            }
        }
        std::memcpy(optval, &v, sizeof(v));
        *optlen = sizeof(int);
        return 0;
    }
    case OptKind::TimeoutMs: {
        if (*optlen < static_cast<int>(sizeof(uint32_t))) {
            return fail(MORL_WSAEFAULT);
        }
        timeval tv{};
        socklen_t l = sizeof(tv);
        if (::getsockopt(s, m->level, m->name, &tv, &l) != 0) {
            return fail_errno();
        }
        uint32_t ms = static_cast<uint32_t>(tv.tv_sec * 1000 + tv.tv_usec / 1000);
        std::memcpy(optval, &ms, sizeof(ms));
        *optlen = sizeof(uint32_t);
        return 0;
    }
    case OptKind::Linger: {
        if (*optlen < 4) {
            return fail(MORL_WSAEFAULT);
        }
        linger lg{};
        socklen_t l = sizeof(lg);
        if (::getsockopt(s, m->level, m->name, &lg, &l) != 0) {
            return fail_errno();
        }
        uint16_t w[2] = {static_cast<uint16_t>(lg.l_onoff), static_cast<uint16_t>(lg.l_linger)};
        std::memcpy(optval, w, sizeof(w));
        *optlen = 4;
        return 0;
    }
    }
    return fail(MORL_WSAENOPROTOOPT);
}

int MORL_GetSockName(MORL_SOCKET s, MORL_SockAddrIn* addr, int* len) {
    if (addr == nullptr || len == nullptr) {
        return fail(MORL_WSAEFAULT);
    }
    sockaddr_storage ss;
    socklen_t sl = sizeof(ss);
    if (::getsockname(s, reinterpret_cast<sockaddr*>(&ss), &sl) != 0) {
        return fail_errno();
    }
    return give_addr(ss, addr, len);
}

int MORL_IoctlSocket(MORL_SOCKET s, uint32_t cmd, uint32_t* argp) {
    if (argp == nullptr) {
        return fail(MORL_WSAEFAULT);
    }
    if (cmd == MORL_FIONBIO) {
        int fl = ::fcntl(s, F_GETFL);
        if (fl < 0) {
            return fail_errno();
        }
        fl = *argp != 0 ? (fl | O_NONBLOCK) : (fl & ~O_NONBLOCK);
        if (::fcntl(s, F_SETFL, fl) != 0) {
            return fail_errno();
        }
        return 0;
    }
    if (cmd == MORL_FIONREAD) {
        int n = 0;
        if (::ioctl(s, FIONREAD, &n) != 0) {
            return fail_errno();
        }
        *argp = static_cast<uint32_t>(n);
        return 0;
    }
    return fail(MORL_WSAEINVAL);
}

int MORL_GetLastSocketErr() { return morl::t_last_socket_err; }

void MORL_SetLastSocketErr(int wsa) { morl::t_last_socket_err = wsa; }

// ---- waiting on sockets ----------------------------------------------------------------
namespace {

int64_t mono_ms() { return static_cast<int64_t>(MORL_GetSystemTime()); }

// poll() that resumes after a signal with the time that is left.
int poll_retry(pollfd* fds, nfds_t n, int timeout_ms) {
    const int64_t end = timeout_ms < 0 ? 0 : mono_ms() + timeout_ms;
    for (;;) {
        int rc = ::poll(fds, n, timeout_ms);
        if (rc >= 0 || errno != EINTR) {
            return rc;
        }
        if (timeout_ms >= 0) {
            int64_t left = end - mono_ms();
            timeout_ms = left > 0 ? static_cast<int>(left) : 0;
        }
    }
}

short to_linux_events(int16_t ev) {
    short out = POLLRDHUP; // always asked, so that a peer's close reads as a hang-up
    if (ev & MORL_POLLRDNORM) out |= POLLIN;
    if (ev & (MORL_POLLRDBAND | MORL_POLLPRI)) out |= POLLPRI;
    if (ev & MORL_POLLWRNORM) out |= POLLOUT;
    if (ev & MORL_POLLWRBAND) out |= POLLWRBAND;
    return out;
}

int16_t from_linux_revents(short rev, int16_t asked) {
    int out = 0;
    if (rev & POLLIN) out |= MORL_POLLRDNORM;
    if (rev & POLLPRI) out |= (asked & MORL_POLLRDBAND) ? MORL_POLLRDBAND : MORL_POLLPRI;
    if (rev & POLLOUT) out |= MORL_POLLWRNORM;
    if (rev & POLLWRBAND) out |= MORL_POLLWRBAND;
    if (rev & POLLERR) out |= MORL_POLLERR;
    if (rev & (POLLHUP | POLLRDHUP)) out |= MORL_POLLHUP;
    if (rev & POLLNVAL) out |= MORL_POLLNVAL;
    return static_cast<int16_t>(out);
}

} // namespace

// Records with a negative socket are skipped and get no events, as with
// WSAPoll. A record of socket 0 is polled like any other descriptor.
int MORL_Poll(MORL_PollFd* fds, uint32_t count, int timeout_ms) {
    if (fds == nullptr && count > 0) {
        return fail(MORL_WSAEFAULT);
    }
    // The polling threads call this every few milliseconds with at most 64
    // records: keep those off the heap.
    pollfd local[64];
    std::vector<pollfd> heap;
    pollfd* pf = local;
    if (count > 64) {
        heap.resize(count);
        pf = heap.data();
    }
    // A socket whose connect failed at once is ready with POLLERR|POLLHUP
    // and never writable; it is left out of the kernel's poll.
    const bool check_failed = failed_connects().any();
    bool any_failed = false;
    for (uint32_t i = 0; i < count; ++i) {
        pf[i].fd = fds[i].fd;
        pf[i].events = to_linux_events(fds[i].events);
        pf[i].revents = 0;
        if (check_failed && fds[i].fd >= 0 && failed_connects().error_of(fds[i].fd) != 0) {
            pf[i].fd = -1; // told apart from a caller's -1 below by fds[i].fd
            any_failed = true;
        }
    }
    if (any_failed) {
        timeout_ms = 0;
    }
    int rc = poll_retry(pf, count, timeout_ms);
    if (rc < 0) {
        return fail_errno();
    }
    int ready = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (fds[i].fd >= 0 && pf[i].fd < 0) {
            pf[i].revents = POLLERR | POLLHUP;
        }
        fds[i].revents = fds[i].fd < 0 ? 0 : from_linux_revents(pf[i].revents, fds[i].events);
        if (fds[i].revents != 0) {
            ++ready;
        }
    }
    return ready;
}

void MORL_FD_ZERO(MORL_FdSet* set) {
    if (set != nullptr) {
        set->fd_count = 0;
    }
}

void MORL_FD_SET(MORL_SOCKET s, MORL_FdSet* set) {
    if (set == nullptr) {
        return;
    }
    for (uint32_t i = 0; i < set->fd_count; ++i) {
        if (set->fd_array[i] == s) {
            return;
        }
    }
    if (set->fd_count < static_cast<uint32_t>(MORL_FD_SETSIZE)) {
        set->fd_array[set->fd_count++] = s;
    }
}

void MORL_FD_CLR(MORL_SOCKET s, MORL_FdSet* set) {
    if (set == nullptr) {
        return;
    }
    for (uint32_t i = 0; i < set->fd_count; ++i) {
        if (set->fd_array[i] == s) {
            set->fd_array[i] = set->fd_array[--set->fd_count];
            return;
        }
    }
}

int MORL_FD_ISSET(MORL_SOCKET s, const MORL_FdSet* set) {
    if (set == nullptr) {
        return 0;
    }
    for (uint32_t i = 0; i < set->fd_count; ++i) {
        if (set->fd_array[i] == s) {
            return 1;
        }
    }
    return 0;
}

// select() over poll(). A non-blocking connect that fails later shows as
// writable (and in the error set), SO_ERROR then tells why; one that failed
// at once stands in the error set only, as on Windows. Each set is cut to
// its ready sockets and the result is the sum over the sets, as on Windows.
int MORL_Select(int /*nfds*/, MORL_FdSet* readfds, MORL_FdSet* writefds, MORL_FdSet* exceptfds,
                const MORL_TimeVal* timeout) {
    MORL_FdSet* sets[3] = {readfds, writefds, exceptfds};
    const short want[3] = {POLLIN, POLLOUT, POLLPRI};
    constexpr int kExceptSet = 2;
    std::vector<pollfd> pf;
    pf.reserve(3 * MORL_FD_SETSIZE);
    // Sockets whose connect failed at once stand only in the error set and
    // are not given to the kernel, which would call them writable.
    const bool check_failed = failed_connects().any();
    std::vector<MORL_SOCKET> failed;
    bool has_sockets = false;
    for (int k = 0; k < 3; ++k) {
        if (sets[k] == nullptr) {
            continue;
        }
        if (sets[k]->fd_count > static_cast<uint32_t>(MORL_FD_SETSIZE)) {
            return fail(MORL_WSAEINVAL);
        }
        for (uint32_t i = 0; i < sets[k]->fd_count; ++i) {
            MORL_SOCKET s = sets[k]->fd_array[i];
            has_sockets = true;
            if (check_failed && failed_connects().error_of(s) != 0) {
                failed.push_back(s);
                continue;
            }
            bool found = false;
            for (pollfd& p : pf) {
                if (p.fd == s) {
                    p.events |= want[k];
                    found = true;
                    break;
                }
            }
            if (!found) {
                pf.push_back(pollfd{s, want[k], 0});
            }
        }
    }
    if (!has_sockets) {
        return fail(MORL_WSAEINVAL); // Windows refuses a select without sockets
    }
    auto is_failed = [&failed](MORL_SOCKET s) {
        return std::find(failed.begin(), failed.end(), s) != failed.end();
    };
    bool failed_in_error_set = false;
    if (exceptfds != nullptr) {
        for (uint32_t i = 0; i < exceptfds->fd_count; ++i) {
            failed_in_error_set = failed_in_error_set || is_failed(exceptfds->fd_array[i]);
        }
    }
    int timeout_ms = -1;
    if (timeout != nullptr) {
        if (timeout->tv_sec < 0 || timeout->tv_usec < 0) {
            return fail(MORL_WSAEINVAL);
        }
        // Round up so that a short positive wait does not become a busy poll.
        int64_t ms = static_cast<int64_t>(timeout->tv_sec) * 1000 + (timeout->tv_usec + 999) / 1000;
        timeout_ms = ms > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(ms);
    }
    if (failed_in_error_set) {
        timeout_ms = 0;
    }
    int rc = poll_retry(pf.data(), pf.size(), timeout_ms);
    if (rc < 0) {
        return fail_errno();
    }
    for (const pollfd& p : pf) {
        if (p.revents & POLLNVAL) {
            return fail(MORL_WSAENOTSOCK);
        }
    }
    const short ready_as[3] = {POLLIN | POLLHUP | POLLERR, POLLOUT | POLLERR, POLLPRI | POLLERR};
    int total = 0;
    for (int k = 0; k < 3; ++k) {
        if (sets[k] == nullptr) {
            continue;
        }
        uint32_t kept = 0;
        for (uint32_t i = 0; i < sets[k]->fd_count; ++i) {
            MORL_SOCKET s = sets[k]->fd_array[i];
            if (is_failed(s)) {
                if (k == kExceptSet) {
                    sets[k]->fd_array[kept++] = s;
                }
                continue;
            }
            for (const pollfd& p : pf) {
                if (p.fd == s) {
                    if (p.revents & ready_as[k]) {
                        sets[k]->fd_array[kept++] = s;
                    }
                    break;
                }
            }
        }
        sets[k]->fd_count = kept;
        total += static_cast<int>(kept);
    }
    return total;
}

// ---- address text -----------------------------------------------------------------------
// Only the four-part dotted form is taken: short forms such as "10.1" or
// hexadecimal parts are refused, so that a host name can never be mistaken
// for an address.
uint32_t MORL_InetAddr(const char* text) {
    in_addr a;
    if (text == nullptr || ::inet_pton(AF_INET, text, &a) != 1) {
        return 0xFFFFFFFFu;
    }
    return a.s_addr;
}

int MORL_Inet_Pton(int family, const char* text, void* dst, uint32_t dst_size) {
    if (family != static_cast<int>(MORL_AF_INET)) {
        return fail(MORL_WSAEAFNOSUPPORT);
    }
    if (text == nullptr || dst == nullptr || dst_size < 4) {
        return fail(MORL_WSAEFAULT);
    }
    in_addr a;
    if (::inet_pton(AF_INET, text, &a) != 1) {
        return 0;
    }
    std::memcpy(dst, &a.s_addr, 4);
    return 1;
}

const char* MORL_Inet_Ntop(int family, const void* src, char* dst, uint32_t dst_size) {
    if (family != static_cast<int>(MORL_AF_INET)) {
        fail(MORL_WSAEAFNOSUPPORT);
        return nullptr;
    }
    if (src == nullptr || dst == nullptr || dst_size == 0) {
        fail(MORL_WSAEFAULT);
        return nullptr;
    }
    in_addr a;
    std::memcpy(&a.s_addr, src, sizeof a.s_addr);
    if (::inet_ntop(AF_INET, &a, dst, dst_size) == nullptr) {
        dst[0] = '\0';
        fail(MORL_WSAEFAULT); // the text does not fit
        return nullptr;
    }
    return dst;
}

uint16_t MORL_Htons(uint16_t host) { return htons(host); }
uint32_t MORL_Htonl(uint32_t host) { return htonl(host); }

// ---- names --------------------------------------------------------------------------------
int MORL_ResolveIpv4(const char* name, uint32_t* be_addr) {
    if (name == nullptr || be_addr == nullptr) {
        return fail(MORL_WSAEFAULT);
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    if (::getaddrinfo(name, nullptr, &hints, &res) != 0 || res == nullptr) {
        return fail(MORL_WSAHOST_NOT_FOUND);
    }
    int rc = fail(MORL_WSAHOST_NOT_FOUND);
    for (const addrinfo* ai = res; ai != nullptr; ai = ai->ai_next) {
        if (ai->ai_family == AF_INET && ai->ai_addrlen >= sizeof(sockaddr_in)) {
            sockaddr_in sa{};
            std::memcpy(&sa, ai->ai_addr, sizeof sa);
            *be_addr = sa.sin_addr.s_addr;
            rc = 0;
            break;
        }
    }
    ::freeaddrinfo(res);
    return rc;
}
