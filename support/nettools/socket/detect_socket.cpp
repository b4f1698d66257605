// DetectSocket: addressing, opening, binding and sending of every probe
// socket, and the STUN, NPS and ICE probe forms that a UDP socket sends.
// Runs on the thread that drives the socket's detection (the caller's, the
// message thread or the timer thread), one at a time; no lock, no thread.
#include "inc/detect_socket.h"

#include <new>

#include "bwdetect/quality_wire.h"
#include "inc/stun_wire.h"
#include "securec/securec.h"
#include "zeph_nettools/stun.h"

namespace q = zeph::quality;

namespace {

constexpr uint32_t kByteBits = 8;
constexpr uint32_t kByteMask = 0xFF;
constexpr size_t kAddrTextSize = 32;

// Dotted text of a host-order address, highest byte first.
std::string host_ip_text(uint32_t ip) {
    char text[kAddrTextSize] = {};
    if (sprintf_s(text, sizeof text, "%u.%u.%u.%u", (ip >> (3 * kByteBits)) & kByteMask,
                  (ip >> (2 * kByteBits)) & kByteMask, (ip >> kByteBits) & kByteMask, ip & kByteMask) < 1)
        NT_LOGE("secure function return error");
    return text;
}

} // namespace

DetectSocket::DetectSocket() = default;

DetectSocket::~DetectSocket() {
    m_sock.reset();
    NT_LOGI("%s", "");
}

// ---- virtual operations -----------------------------------------------------------------

int32_t DetectSocket::connect() {
    if (!m_sock) {
        NT_LOGE("sock is null");
        return -1;
    }
    return connect_to(m_dest_ip, m_dest_port);
}

void DetectSocket::send_buf(uint32_t) { connect(); }

uint32_t DetectSocket::get_recv_seq(const uint8_t*, int32_t) { return 0; }

int32_t DetectSocket::send(const void* buf, uint32_t len) {
    if (!m_sock) {
        NT_LOGE("sock is null");
        return -1;
    }
    return MORL_Send(*m_sock, buf, static_cast<int>(len), 0);
}

const char* DetectSocket::get_type_str() const { return "ip"; }
uint32_t DetectSocket::get_trans_type() const { return DETECT_TRANS_IP; }
uint16_t DetectSocket::get_start_port() const { return DETECT_SOCKET_START_PORT; }
void DetectSocket::set_start_port(uint16_t) {}

// ---- addressing ----------------------------------------------------------------------------

void DetectSocket::set_dest_addr(uint32_t ip, uint16_t port) {
    m_dest_ip = ip;
    m_dest_port = port;
    m_dest_ip_str = host_ip_text(ip);
}

void DetectSocket::set_proxy_addr(uint32_t ip, uint16_t port) {
    m_proxy_ip = ip;
    m_proxy_port = port;
}

void DetectSocket::set_pkt_len(int32_t len) {
    const int32_t low = static_cast<int32_t>(q::kHeadSize);
    const int32_t high = static_cast<int32_t>(q::kImageSize);
    m_pkt_len = len < low ? low : (len > high ? high : len);
}

void DetectSocket::make_addr(MORL_SockAddrIn& addr, uint32_t ip, uint16_t port) {
    addr = MORL_SockAddrIn{};
    addr.sin_family = MORL_AF_INET;
    addr.sin_port = MORL_Htons(port);
    addr.sin_addr = MORL_Htonl(ip);
}

int32_t DetectSocket::connect_to(uint32_t ip, uint16_t port) {
    MORL_SockAddrIn addr;
    make_addr(addr, ip, port);
    const int ret = MORL_Connect(*m_sock, &addr, sizeof addr);
    if (ret != 0)
        NT_LOGI("connect ret ip=%s port=%u err=%d", m_dest_ip_str.c_str(), static_cast<unsigned>(m_dest_port),
                MORL_GetLastSocketErr());
    return ret;
}

// ---- opening ---------------------------------------------------------------------------------

void DetectSocket::destory(MORL_SOCKET* holder) {
    if (holder == nullptr) {
        NT_LOGE("sockptr(%x)", 0u);
        return;
    }
    NT_LOGI("sockptr(%x)fd(%d)", nt_log_addr(holder), *holder);
    MORL_CloseSocket(*holder);
    *holder = MORL_INVALID_SOCKET;
    delete holder;
}

DetectSockPtr DetectSocket::create() {
    m_sock.reset();
    if (m_dest_ip_str.empty() || m_dest_port == 0) return DetectSockPtr();

    const MORL_SOCKET fd = MORL_Socket(MORL_AF_INET, m_sock_type, m_sock_protocol);
    // The socket call's own error, kept for the log line below: the ioctl on
    // a descriptor that never opened would only say "not a socket".
    const int socket_err = fd == MORL_INVALID_SOCKET ? MORL_GetLastSocketErr() : 0;
    MORL_SOCKET* holder = new (std::nothrow) MORL_SOCKET(fd);
    if (holder == nullptr) {
        NT_LOGE("new(std::nothrow) failed");
        if (fd != MORL_INVALID_SOCKET) MORL_CloseSocket(fd);
        return DetectSockPtr();
    }
    try {
        m_sock = DetectSockPtr(holder, &DetectSocket::destory);
    } catch (const std::bad_alloc&) {
        // The deleter has already closed and freed the holder.
        NT_LOGE("new(std::nothrow) failed");
        return DetectSockPtr();
    }

    uint32_t non_blocking = 1;
    if (fd == MORL_INVALID_SOCKET || MORL_IoctlSocket(fd, MORL_FIONBIO, &non_blocking) != 0) {
        NT_LOGE("[detect_start] ioctl failed error=%d", socket_err != 0 ? socket_err : MORL_GetLastSocketErr());
        m_sock.reset();
        return DetectSockPtr();
    }
    if (m_sock_type != static_cast<int32_t>(MORL_SOCK_STREAM)) {
        // The kernel stamps each answer's arrival; without stamps the
        // receive thread falls back on the time of its poll.
        if (MORL_EnableRecvTimestamps(fd) != 0)
            NT_LOGW("recv timestamps refused fd(%d) error=%d", fd, MORL_GetLastSocketErr());
        connect();
    }
    return m_sock;
}

void DetectSocket::bind() {
    if (m_local_ip == 0) {
        NT_LOGE("localip is null");
        return;
    }
    if (!m_sock) {
        NT_LOGE("sock is null");
        return;
    }
    uint32_t port = get_start_port();
    for (uint32_t tries = 0; tries < DETECT_SOCKET_BIND_TRIES; ++tries) {
        MORL_SockAddrIn addr = {};
        addr.sin_family = MORL_AF_INET;
        addr.sin_port = MORL_Htons(static_cast<uint16_t>(port));
        addr.sin_addr = m_local_ip;
        if (MORL_Bind(*m_sock, &addr, sizeof addr) == 0) {
            m_local_port = static_cast<uint16_t>(port);
            ++port;
            break;
        }
        NT_LOGW("[detect_start] bind_failed port=%u type=%s error=%d", port, get_type_str(), MORL_GetLastSocketErr());
        ++port;
    }
    set_start_port(port < DETECT_SOCKET_PORT_LIMIT ? static_cast<uint16_t>(port) : DETECT_SOCKET_START_PORT);
}

int32_t DetectSocket::sendto(const void* buf, uint32_t len, uint32_t ip, uint16_t port) {
    if (!m_sock) {
        NT_LOGE("sock is null");
        return -1;
    }
    MORL_SockAddrIn addr;
    make_addr(addr, ip, port);
    return MORL_Sendto(*m_sock, buf, static_cast<int>(len), 0, &addr, sizeof addr);
}

// ---- probes ------------------------------------------------------------------------------------

void DetectSocket::stun_buf_init() {
    set_is_stun(1);
    uint32_t random = 0;
    ZEPH_CPYPT_RealRandom(&random, sizeof random);
    uint8_t* pkt = m_pkt_buf;
    const size_t size = sizeof m_pkt_buf;
    q::set_type(pkt, size, true, zeph::stun::kBindingRequest);
    q::set_len(pkt, size, true, 0);
    q::set_cookie(pkt, size, true, zeph::stun::kMagicCookie);
    // The transaction id carries R at 8 and R + 236 at 12.
    q::set_session(pkt, size, true, random);
}

void DetectSocket::send_stun_buf(uint32_t seq) {
    if (!m_sock) {
        NT_LOGE("sock is null");
        return;
    }
    NT_LOGD("%s", "");
    q::set_seq(m_pkt_buf, sizeof m_pkt_buf, seq);
    const int ret = MORL_Send(*m_sock, m_pkt_buf, static_cast<int>(DETECT_STUN_REQ_LEN), 0);
    if (ret != static_cast<int>(DETECT_STUN_REQ_LEN))
        NT_LOGE("send error fd(%d)len(%d)!=m_pkt_len(%d) error=%d", *m_sock, ret,
                static_cast<int>(DETECT_STUN_REQ_LEN), MORL_GetLastSocketErr());
}

void DetectSocket::nps_buf_init() {
    uint16_t nonce = 0;
    uint32_t session = 0;
    ZEPH_CPYPT_RealRandom(&nonce, sizeof nonce);
    ZEPH_CPYPT_RealRandom(&session, sizeof session);
    uint8_t* pkt = m_pkt_buf;
    const size_t size = sizeof m_pkt_buf;
    // Always the private layout, whatever this object's layout flag says.
    q::write_tag(pkt, size);
    q::write_nonce(pkt, size, nonce);
    q::write_mark(pkt, size);
    q::write_fill(pkt, size);
    q::set_ver(pkt, size, q::kPktVer);
    q::clear_flags(pkt, size, 0xFF);
    q::set_type(pkt, size, false, DETECT_NPS_TYPE);
    q::set_cookie(pkt, size, false, q::kPktCookie);
    q::set_seq(pkt, size, 0);
    q::set_session(pkt, size, false, session);
    q::set_level(pkt, size, DETECT_NPS_LEVEL);
    q::set_pair_count(pkt, size, 0);
    q::set_len(pkt, size, false, DETECT_NPS_HEAD_LEN);
}

void DetectSocket::send_nps_buf(uint32_t seq) {
    if (!m_sock) {
        NT_LOGE("sock is null");
        return;
    }
    q::set_seq(m_pkt_buf, sizeof m_pkt_buf, seq);
    q::set_time(m_pkt_buf, sizeof m_pkt_buf, static_cast<uint32_t>(get_runtime_current()));
    const int ret = MORL_Send(*m_sock, m_pkt_buf, m_pkt_len, 0);
    if (ret != m_pkt_len)
        NT_LOGE("send error len(%d)!=m_pkt_len(%d) error=%d", ret, m_pkt_len, MORL_GetLastSocketErr());
}

void DetectSocket::send_ice_buf() {
    uint8_t buf[DETECT_ICE_BUF_SIZE] = {};
    uint32_t len = sizeof buf;
    const uint32_t ret = MORL_StunBuildPacketOfFuzzyMatchKey(DETECT_ICE_KEY, buf, &len);
    // A failed build may leave a partial packet behind a length that looks
    // right: it never goes out.
    if (ret != ZEPH_STUN_OK || len == 0 || len >= DETECT_ICE_BUF_SIZE) {
        NT_LOGE("ice_build error ret(%d)len(%d)", static_cast<int>(ret), static_cast<int>(len));
        return;
    }
    if (!m_sock) {
        NT_LOGE("sock is null");
        return;
    }
    const int sent = MORL_Send(*m_sock, buf, static_cast<int>(len), 0);
    if (sent != static_cast<int>(len))
        NT_LOGE("send error fd(%d)len(%d)!=m_pkt_len(%d) error=%d", *m_sock, sent, static_cast<int>(len),
                MORL_GetLastSocketErr());
}

// ---- through the HTTP proxy ----------------------------------------------------------------

int32_t DetectSocket::proxy_connect_asyn(zeph_http_proxy_connect_cb on_result) {
    if (!m_sock) {
        NT_LOGE("sock is null");
        return -1;
    }
    NT_LOGI("[http_proxy_connect] addr=%s port=%u", m_dest_ip_str.c_str(), static_cast<unsigned>(m_dest_port));
    const int ret = zeph_http_proxy_connect_asyn(*m_sock, m_dest_ip_str.c_str(), m_dest_port, on_result);
    if (ret != 0) {
        NT_LOGE("proxy connect not started fd(%d) ret(%d)", *m_sock, ret);
        return -1;
    }
    return 0;
}
