// The socket shim's tunnelled datagrams and its two process-wide settings.
// Every function runs on its caller's thread; the shim keeps no state beyond
// the settings and one heap block per call.
#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <new>

#include "inc/log_thinner.h"
#include "inc/net_tools_log.h"
#include "kestsock/kest_head.h"
#include "os_adapter/morl_os.h"
#include "securec/securec.h"
#include "zeph_nettools/kest_sock.h"

namespace {

// Read on every send without a lock; atomics so that a setting made on one
// thread while another sends is simply seen or not.
std::atomic<uint16_t> g_tunnel_port{0};
std::atomic<uint32_t> g_ssrc_flag{0};

constexpr size_t kAddrSize = sizeof(MORL_SockAddrIn);
constexpr size_t kPortOffset = offsetof(MORL_SockAddrIn, sin_port);

// A peer that floods the socket with foreign datagrams, or a non-blocking
// caller that polls an empty one, would otherwise write a log line per call.
zeph::LogThinner g_read_failures;
zeph::LogThinner g_short_datagrams;
zeph::LogThinner g_foreign_datagrams;

// The head's port is the real port of the peer: it replaces the tunnel port
// that the socket layer reported.
void put_port(struct sockaddr* from, uint16_t port) {
    const uint16_t wire = MORL_Htons(port);
    if (memcpy_s(reinterpret_cast<uint8_t*>(from) + kPortOffset, kAddrSize - kPortOffset, &wire, sizeof(wire)) != 0) {
        NT_LOGE("secure function return error");
    }
}

} // namespace

extern "C" {

ZEPH_API void kest_set_port(uint16_t port) { g_tunnel_port.store(port, std::memory_order_relaxed); }

ZEPH_API uint16_t kest_get_port(void) { return g_tunnel_port.load(std::memory_order_relaxed); }

ZEPH_API void kest_set_ssrc_flag(uint32_t flag) { g_ssrc_flag.store(flag, std::memory_order_relaxed); }

ZEPH_API uint32_t kest_get_ssrc_flag(void) { return g_ssrc_flag.load(std::memory_order_relaxed); }

ZEPH_API int32_t kest_get_last_error(void) { return 0; }

ZEPH_API int32_t kest_get_tunnel_bufsize(void) { return 0; }

ZEPH_API int32_t kest_sendto(int32_t fd, const void* buf, int32_t len, int32_t flags, const struct sockaddr* addr,
                             int32_t addrlen) {
    const bool ssrc = g_ssrc_flag.load(std::memory_order_relaxed) != 0;
    const size_t head = kest::head_size(ssrc);
    if (addr == nullptr || addrlen < static_cast<int32_t>(kAddrSize) || len < 0 ||
        static_cast<size_t>(len) > static_cast<size_t>(INT_MAX) - head || (buf == nullptr && len > 0)) {
        MORL_SetLastSocketErr(MORL_WSAEFAULT);
        return -1;
    }
    MORL_SockAddrIn to{};
    bool copied = memcpy_s(&to, sizeof(to), addr, kAddrSize) == 0;
    const uint16_t dest_port = MORL_Htons(to.sin_port); // the swap is its own inverse
    to.sin_port = MORL_Htons(g_tunnel_port.load(std::memory_order_relaxed));

    const size_t total = static_cast<size_t>(len) + head;
    uint8_t* block = new (std::nothrow) uint8_t[total];
    if (block == nullptr) {
        return 0;
    }
    copied = kest::write_datagram(block, total, dest_port, ssrc, buf, static_cast<size_t>(len)) && copied;
    if (!copied) {
        NT_LOGE("secure function return error");
    }
    const int32_t sent = MORL_Sendto(fd, block, static_cast<int>(total), flags, &to, addrlen);
    delete[] block;
    return sent;
}

ZEPH_API int32_t kest_recvfrom(int32_t fd, void* buf, int32_t len, int32_t flags, struct sockaddr* from,
                               int32_t* fromlen) {
    if (len < 0 || static_cast<size_t>(len) > static_cast<size_t>(INT_MAX) - kest::kShortHeadSize ||
        (buf == nullptr && len > 0)) {
        if (g_read_failures.take()) {
            NT_LOGE("recvfrom error, ret=%d, errno=%d", -1, MORL_WSAEFAULT);
        }
        MORL_SetLastSocketErr(MORL_WSAEFAULT);
        return -1;
    }
    const size_t cap = static_cast<size_t>(len) + kest::kShortHeadSize;
    uint8_t* block = new (std::nothrow) uint8_t[cap];
    if (block == nullptr) {
        NT_LOGE("malloc failed size=%d", static_cast<int>(cap));
        return -1;
    }
    // The socket layer writes the 16-byte IPv4 layout; `from` has it.
    const int32_t got = MORL_Recvfrom(fd, block, static_cast<int>(cap), flags,
                                      reinterpret_cast<MORL_SockAddrIn*>(from), fromlen);
    if (got < 0) {
        const int err = MORL_GetLastSocketErr();
        if (g_read_failures.take()) {
            NT_LOGE("recvfrom error, ret=%d, errno=%d", got, err);
        }
        delete[] block;
        MORL_SetLastSocketErr(err);
        return got;
    }
    const kest::Unwrapped u = kest::unwrap_datagram(block, static_cast<size_t>(got));
    int32_t result = KEST_ERR_NOT_TUNNEL;
    bool secured = true;
    if (u.kind == kest::Received::TooShort) {
        if (g_short_datagrams.take()) {
            NT_LOGW("recv is not kest");
        }
    } else if (u.kind == kest::Received::Foreign) {
        if (g_foreign_datagrams.take()) {
            NT_LOGW("recv is not kest len=%d", got - static_cast<int32_t>(kest::kShortHeadSize));
        }
    } else {
        secured = memcpy_s(buf, static_cast<size_t>(len), u.payload, u.payload_len) == 0;
        if (from != nullptr) {
            put_port(from, u.port);
        }
        result = static_cast<int32_t>(u.payload_len);
    }
    // The block held a datagram meant for the caller alone.
    secured = memset_s(block, cap, 0, cap) == 0 && secured;
    if (!secured) {
        NT_LOGE("secure function return error");
    }
    delete[] block;
    return result;
}

} // extern "C"
