// Batched datagrams of the OS adapter: recvmmsg/sendmmsg and the kernel's
// arrival stamps, for a UDP server that answers many clients. Runs on the
// calling thread; keeps no state.
#include "os_adapter/morl_os.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>

#include <cerrno>
#include <cstring>

#include "os_adapter/morl_errno.h"

namespace {

using morl::fail;
using morl::fail_errno;

// Datagrams per system call; the arrays live on the caller's stack.
constexpr uint32_t kMaxBatch = 64;
constexpr int64_t kNsPerSecond = 1000000000LL;
// Room for one SCM_TIMESTAMPNS record.
constexpr size_t kControlBytes = CMSG_SPACE(sizeof(timespec));

int64_t ns_of(const timespec& ts) { return static_cast<int64_t>(ts.tv_sec) * kNsPerSecond + ts.tv_nsec; }

int64_t clock_ns(clockid_t clock) {
    timespec ts;
    clock_gettime(clock, &ts);
    return ns_of(ts);
}

// The kernel stamps arrivals on the wall clock; the library's counter is the
// monotonic clock. Both are read once per batch, and a stamp becomes the
// counter's value at that moment minus the age of the datagram.
struct StampScale {
    int64_t wall_now = clock_ns(CLOCK_REALTIME);
    int64_t counter_now = clock_ns(CLOCK_MONOTONIC);
    int64_t to_counter(int64_t wall_stamp) const {
        const int64_t age = wall_now - wall_stamp;
        return counter_now - (age > 0 ? age : 0);
    }
};

int64_t arrival_of(msghdr& msg, const StampScale& scale) {
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
            timespec ts;
            std::memcpy(&ts, CMSG_DATA(c), sizeof ts);
            return scale.to_counter(ns_of(ts));
        }
    }
    return 0;
}

void give_source(const sockaddr_in& sin, socklen_t len, MORL_SockAddrIn* out) {
    std::memset(out, 0, sizeof *out);
    if (len < sizeof sin || sin.sin_family != AF_INET) return; // no IPv4 source: left zero
    out->sin_family = MORL_AF_INET;
    out->sin_port = sin.sin_port;
    out->sin_addr = sin.sin_addr.s_addr;
}

} // namespace

int MORL_EnableRecvTimestamps(MORL_SOCKET s) {
    const int on = 1;
    if (::setsockopt(s, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0) {
        return fail_errno();
    }
    return 0;
}

int MORL_RecvBatch(MORL_SOCKET s, MORL_DatagramIn* slots, uint32_t count) {
    if (slots == nullptr || count == 0) {
        return fail(MORL_WSAEFAULT);
    }
    if (count > kMaxBatch) count = kMaxBatch;
    mmsghdr msgs[kMaxBatch];
    iovec iovs[kMaxBatch];
    sockaddr_in sources[kMaxBatch];
    alignas(cmsghdr) unsigned char control[kMaxBatch][kControlBytes];
    for (uint32_t i = 0; i < count; ++i) {
        if (slots[i].buf == nullptr || slots[i].cap < 0) {
            return fail(MORL_WSAEFAULT);
        }
        iovs[i].iov_base = slots[i].buf;
        iovs[i].iov_len = static_cast<size_t>(slots[i].cap);
        std::memset(&msgs[i], 0, sizeof msgs[i]);
        msgs[i].msg_hdr.msg_name = &sources[i];
        msgs[i].msg_hdr.msg_namelen = sizeof sources[i];
        msgs[i].msg_hdr.msg_iov = &iovs[i];
        msgs[i].msg_hdr.msg_iovlen = 1;
        msgs[i].msg_hdr.msg_control = control[i];
        msgs[i].msg_hdr.msg_controllen = kControlBytes;
    }
    int n;
    do {
        n = ::recvmmsg(s, msgs, count, MSG_DONTWAIT, nullptr);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        return fail_errno();
    }
    const StampScale scale;
    for (int i = 0; i < n; ++i) {
        slots[i].len = static_cast<int>(msgs[i].msg_len);
        give_source(sources[i], msgs[i].msg_hdr.msg_namelen, &slots[i].from);
        slots[i].arrival = arrival_of(msgs[i].msg_hdr, scale);
    }
    return n;
}

int MORL_SendBatch(MORL_SOCKET s, const MORL_DatagramOut* slots, uint32_t count) {
    if (slots == nullptr && count > 0) {
        return fail(MORL_WSAEFAULT);
    }
    uint32_t sent = 0;
    while (sent < count) {
        const uint32_t chunk = count - sent < kMaxBatch ? count - sent : kMaxBatch;
        mmsghdr msgs[kMaxBatch];
        iovec iovs[kMaxBatch];
        sockaddr_in dests[kMaxBatch];
        for (uint32_t i = 0; i < chunk; ++i) {
            const MORL_DatagramOut& d = slots[sent + i];
            if ((d.buf == nullptr && d.len > 0) || d.len < 0) {
                return sent > 0 ? static_cast<int>(sent) : fail(MORL_WSAEFAULT);
            }
            std::memset(&dests[i], 0, sizeof dests[i]);
            dests[i].sin_family = AF_INET;
            dests[i].sin_port = d.to.sin_port;
            dests[i].sin_addr.s_addr = d.to.sin_addr;
            iovs[i].iov_base = const_cast<void*>(d.buf);
            iovs[i].iov_len = static_cast<size_t>(d.len);
            std::memset(&msgs[i], 0, sizeof msgs[i]);
            msgs[i].msg_hdr.msg_name = &dests[i];
            msgs[i].msg_hdr.msg_namelen = sizeof dests[i];
            msgs[i].msg_hdr.msg_iov = &iovs[i];
            msgs[i].msg_hdr.msg_iovlen = 1;
        }
        const int n = ::sendmmsg(s, msgs, chunk, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            // The kernel's refusal of datagram `sent`: recorded for the caller.
            const int rc = fail_errno();
            return sent > 0 ? static_cast<int>(sent) : rc;
        }
        // A short count hides the refusal's error; the next call reports it.
        sent += static_cast<uint32_t>(n);
    }
    return static_cast<int>(sent);
}
