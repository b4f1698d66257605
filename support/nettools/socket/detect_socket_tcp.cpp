// DetectSocketTCP: the probe of a TCP port is the connect itself; its
// answer is the descriptor becoming writable, seen by the receive thread.
// With a proxy address the connect goes to the proxy. Runs on the thread
// that drives its detection; the start port of the bind walk is shared by
// all TCP sockets of the process.
#include <atomic>

#include "inc/detect_socket.h"
#include "securec/securec.h"

namespace {
std::atomic<uint16_t> s_tcp_start_port{DETECT_SOCKET_START_PORT};
constexpr size_t kAddrTextSize = 32;
constexpr uint32_t kByteBits = 8;
constexpr uint32_t kByteMask = 0xFF;
} // namespace

DetectSocketTCP::DetectSocketTCP() {
    m_sock_type = MORL_SOCK_STREAM;
    m_sock_protocol = MORL_IPPROTO_TCP;
}

int32_t DetectSocketTCP::connect() {
    if (m_proxy_port == 0) return DetectSocket::connect();
    if (!m_sock) {
        NT_LOGE("sock is null");
        return -1;
    }
    MORL_SockAddrIn addr;
    make_addr(addr, m_proxy_ip, m_proxy_port);
    return MORL_Connect(*m_sock, &addr, sizeof addr);
}

const char* DetectSocketTCP::get_type_str() const { return DETECT_SOCKET_KEY_TCP; }
uint32_t DetectSocketTCP::get_trans_type() const { return DETECT_TRANS_TCP; }
uint16_t DetectSocketTCP::get_start_port() const { return s_tcp_start_port.load(); }
void DetectSocketTCP::set_start_port(uint16_t port) { s_tcp_start_port.store(port); }

uint32_t DetectSocketTCP::http_proxy_connect() {
    if (!m_sock) {
        NT_LOGE("sock is null");
        return DETECT_PROXY_NO_SOCKET;
    }
    // Network byte order: the first octet is the lowest byte.
    const uint32_t ip = m_http_proxy_ip;
    char text[kAddrTextSize] = {};
    if (sprintf_s(text, sizeof text, "%u.%u.%u.%u", ip & kByteMask, (ip >> kByteBits) & kByteMask,
                  (ip >> (2 * kByteBits)) & kByteMask, (ip >> (3 * kByteBits)) & kByteMask) < 1)
        NT_LOGE("secure function return error");
    NT_LOGI("[http_proxy_connect] addr=%s port=%u", text, static_cast<unsigned>(m_http_proxy_port));
    return static_cast<uint32_t>(zeph_http_proxy_connect_ex(0, *m_sock, text, m_http_proxy_port));
}
