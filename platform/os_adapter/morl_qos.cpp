// QoS marking of the OS adapter: the qWAVE calls over the socket's
// type-of-service byte. A flow here is only a number: Linux keeps the mark on
// the socket itself, so nothing has to be torn down per flow.
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/socket.h>

#include <atomic>
#include <mutex>
#include <unordered_set>

#include "os_adapter/morl_errno.h"
#include "os_adapter/morl_os.h"

namespace {

// Live handles, so that a closed or made-up handle fails like on Windows.
// Never destroyed: sockets may still be marked while the process exits.
struct QosHandles {
    std::mutex mutex;
    std::unordered_set<uint64_t> live;
    uint64_t next = 1;
};

QosHandles& qos_handles() {
    static QosHandles& h = *new QosHandles;
    return h;
}

bool handle_live(uint64_t handle) {
    QosHandles& h = qos_handles();
    std::lock_guard<std::mutex> lock(h.mutex);
    return h.live.count(handle) != 0;
}

int tos_byte(uint32_t level) {
    switch (level) {
    case 3:
        return 136; // audio and video: DSCP 34 (AF41)
    case 4:
        return 184; // voice: DSCP 46 (EF)
    case 5:
        return 224; // control: DSCP 56 (CS7)
    default:
        return 0; // best effort, and the types without a byte of their own
    }
}

std::atomic<uint32_t> g_next_flow_id{1};

} // namespace

int MORL_QOSCreateHandle(const MORL_QosVersion* version, uint64_t* handle) {
    if (version == nullptr || handle == nullptr) {
        morl::fail(MORL_WSAEFAULT);
        return 0;
    }
    if (version->MajorVersion != 1 || version->MinorVersion != 0) {
        morl::fail(MORL_WSAEINVAL);
        return 0;
    }
    QosHandles& h = qos_handles();
    std::lock_guard<std::mutex> lock(h.mutex);
    *handle = h.next++;
    h.live.insert(*handle);
    return 1;
}

int MORL_QOSAddSocketToFlow(uint64_t handle, MORL_SOCKET fd, const MORL_SockAddrIn* dest, uint32_t level,
                            uint32_t flags, uint32_t* flowId) {
    if (!handle_live(handle)) {
        morl::fail(MORL_WSA_INVALID_HANDLE);
        return 0;
    }
    if (flowId == nullptr) {
        morl::fail(MORL_WSAEFAULT);
        return 0;
    }
    if ((flags & ~static_cast<uint32_t>(MORL_QOS_NON_ADAPTIVE_FLOW)) != 0) {
        morl::fail(MORL_WSAEINVAL);
        return 0;
    }
    if (dest != nullptr && dest->sin_addr != 0 && dest->sin_family != MORL_AF_INET) {
        morl::fail(MORL_WSAEAFNOSUPPORT);
        return 0;
    }
    const int tos = tos_byte(level);
    if (::setsockopt(fd, IPPROTO_IP, IP_TOS, &tos, sizeof(tos)) != 0) {
        morl::fail_errno();
        return 0;
    }
    uint32_t id = g_next_flow_id.fetch_add(1, std::memory_order_relaxed);
    if (id == 0) { // wrapped: 0 means "no flow"
        id = g_next_flow_id.fetch_add(1, std::memory_order_relaxed);
    }
    *flowId = id;
    return 1;
}

int MORL_QOSCloseHandle(uint64_t handle) {
    QosHandles& h = qos_handles();
    std::lock_guard<std::mutex> lock(h.mutex);
    if (h.live.erase(handle) == 0) {
        morl::fail(MORL_WSA_INVALID_HANDLE);
        return 0;
    }
    return 1;
}
