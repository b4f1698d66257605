#include "dscp/socket_dscp.h"

#include "inc/net_tools_log.h"
#include "os_adapter/morl_os.h"
#include "securec/securec.h"
#include "zeph_nettools/socket_dscp.h"

SocketDscp::SocketDscp() {
    const MORL_QosVersion version = {1, 0};
    uint64_t handle = 0;
    if (MORL_QOSCreateHandle(&version, &handle) == 1) {
        m_qos_handle = handle;
        NT_LOGI("QOSCreateHandle success. handle: %u", static_cast<uint32_t>(m_qos_handle));
    } else {
        NT_LOGE("QOSCreateHandle failed. Error: %d", MORL_GetLastSocketErr());
    }
}

SocketDscp::~SocketDscp() {
    MORL_QOSCloseHandle(m_qos_handle);
    NT_LOGI("~SocketDscp()");
}

void SocketDscp::set_socket_dscp(int32_t fd, int32_t level, const sockaddr* srv_addr) {
    // The caller's address has the 16-byte IPv4 layout; copy it out rather
    // than reading through a foreign struct type.
    MORL_SockAddrIn dest{};
    const MORL_SockAddrIn* dest_ptr = nullptr;
    if (srv_addr != nullptr) {
        if (memcpy_s(&dest, sizeof(dest), srv_addr, sizeof(dest)) != 0) {
            NT_LOGE("secure function return error");
        }
        if (dest.sin_port == 0 || dest.sin_addr == 0) {
            NT_LOGW("QOSAddSocketToFlow para error. srv_addr isn't nullptr, but addr is zero");
        } else {
            dest_ptr = &dest;
        }
    }
    // The flow id is not kept: the mark lasts as long as the socket.
    uint32_t flow_id = 0;
    if (MORL_QOSAddSocketToFlow(m_qos_handle, fd, dest_ptr, static_cast<uint32_t>(level),
                                MORL_QOS_NON_ADAPTIVE_FLOW, &flow_id) != 1) {
        NT_LOGE("QOSAddSocketToFlow failed. err(%d) handle(%u) fd(%d) level(%d), flow_id(%d)",
                MORL_GetLastSocketErr(), static_cast<uint32_t>(m_qos_handle), fd, level,
                static_cast<int>(flow_id));
        return;
    }
    NT_LOGI("QOSAddSocketToFlow success. handle(%u) fd(%d) level(%d)", static_cast<uint32_t>(m_qos_handle), fd,
            level);
}

// The instance is a leaky singleton made on first use, and the reference
// below makes that first use happen during library load. Other code that
// runs from static initializers calls socket_dscp() and never sees an
// unmade object; the log state it writes to is itself made on first use.
SocketDscp& socket_dscp() {
    static SocketDscp& instance = *new SocketDscp;
    return instance;
}

SocketDscp& g_socket_dscp = socket_dscp();

extern "C" {

ZEPH_API void zeph_set_socket_dscp(uint32_t fd, uint32_t level, const struct sockaddr* srv_addr) {
    socket_dscp().set_socket_dscp(static_cast<int32_t>(fd), static_cast<int32_t>(level), srv_addr);
}

} // extern "C"
