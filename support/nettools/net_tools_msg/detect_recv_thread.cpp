// The receive thread, NetToolsMsg::detect_recv_thread: started by init,
// joined by finish. It sleeps while the socket table is empty; otherwise it
// polls the table's sockets for 2 ms per pass, reads what arrived and hands
// each packet to the message thread by a synchronous message, then pauses
// 2 ms.
#include <array>
#include <cstring>

#include "inc/detect_socket.h"
#include "inc/net_tools_msg.h"
#include "net_tools_msg/net_tools_msg_log.h"
#include "os_adapter/morl_os.h"

namespace {
constexpr int32_t MAX_POLL_LISTEN_SIZE = 64;
constexpr const char* kThreadName = "detect_recv";
uint32_t low32(const void* p) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)); }
} // namespace

void NetToolsMsg::detect_recv_thread(uint64_t generation) {
    MORL_PthreadSetName(kThreadName);
    NT_LOGI("start");
    m_recv_started.store(generation);
    auto keep_running = [&] { return m_running.load() && m_run_generation.load() == generation; };
    // The pass's own references to the polled sockets: a socket that leaves
    // the table during the pass stays open until the pass ends, so its
    // descriptor number cannot meanwhile name another socket.
    std::array<SocketDetectPair, MAX_POLL_LISTEN_SIZE> polled;
    std::array<MORL_PollFd, MAX_POLL_LISTEN_SIZE> slots;
    while (keep_running()) {
        int32_t idx = 0;
        int32_t filled = 0;
        bool over = false;
        {
            std::unique_lock<std::mutex> lock(m_detect_mutex);
            m_detect_cond.wait(lock, [&] { return !m_detect_map.empty() || !keep_running(); });
            if (!keep_running()) break;
            for (auto& kv : m_detect_map) {
                if (idx >= MAX_POLL_LISTEN_SIZE) {
                    over = true;
                    break;
                }
                const SocketDetectPair& pair = kv.second.pair;
                MORL_PollFd& slot = slots[idx];
                slot.fd = MORL_INVALID_SOCKET;
                slot.events = 0;
                slot.revents = 0;
                polled[idx] = pair;
                if (pair.sock->get_trans_type() != DETECT_TRANS_TCP) {
                    slot.fd = kv.first;
                    slot.events = MORL_POLLIN;
                    ++filled;
                } else if (pair.sock->get_proxy_ip() == 0 || pair.sock->get_proxy_port() == 0) {
                    slot.fd = kv.first;
                    slot.events = MORL_POLLWRNORM;
                    ++filled;
                }
                // A TCP socket through the proxy is the proxy service's to watch.
                ++idx;
            }
        }
        if (over) NT_LOGI("idx > MAX_POLL_LISTEN_SIZE, idx:%d", idx);
        int ready = 0;
        if (filled > 0) ready = MORL_Poll(slots.data(), static_cast<uint32_t>(idx), m_poll_timeout_ms);
        if (ready > 0) {
            for (int32_t i = 0; i < idx; ++i) {
                const MORL_SOCKET fd = slots[i].fd;
                if (fd == MORL_INVALID_SOCKET) continue;
                if (slots[i].revents & MORL_POLLIN) {
                    NT_LOGI("recv OK fd(%d)", fd);
                    recv_one_packet(fd, polled[i]);
                }
                if (slots[i].revents & MORL_POLLWRNORM) {
                    const uint32_t error_events = static_cast<uint16_t>(slots[i].revents & ~MORL_POLLWRNORM);
                    NT_LOGI("write OK fd(%d), errorEvents: %u", fd, error_events);
                    // Writable without an error is a finished handshake,
                    // also when the peer has already closed again (a
                    // hang-up): the port accepted, so it is open. A refused
                    // connect always carries the error bit.
                    if ((error_events & ~static_cast<uint32_t>(MORL_POLLHUP)) == 0) tcp_is_connected(fd, polled[i]);
                }
            }
        }
        for (int32_t i = 0; i < idx; ++i) polled[i] = SocketDetectPair{};
        MORL_SleepMs(static_cast<uint32_t>(m_poll_timeout_ms));
    }
    NT_LOGI("end");
}

bool NetToolsMsg::same_entry(int32_t fd, const SocketDetectPair& polled) {
    std::lock_guard<std::mutex> guard(m_detect_mutex);
    auto it = m_detect_map.find(fd);
    return it != m_detect_map.end() && it->second.pair.sock == polled.sock;
}

void NetToolsMsg::hand_over(int32_t fd, const SocketDetectPair& polled, DetectRecvBody& body, uint32_t len,
                            int32_t i) {
    std::shared_ptr<DetectSocket> sock = polled.sock;
    std::shared_ptr<DetectBase> detect = polled.detect;
    body.len = len;
    body.sock_addr = reinterpret_cast<uint64_t>(&sock);
    body.detect_addr = reinterpret_cast<uint64_t>(&detect);
    const uint32_t msg_id = detect->get_recv_msg_id();
    if (len != 0) {
        NT_LOG_AS(NT_LOG_INFO, "NetToolsMsg::recv_one_packet", "recvid(%d)len(%d)sock(%u)fd(%d)i(%d)",
                  static_cast<int>(msg_id), static_cast<int>(len), low32(sock.get()), fd, i);
    } else {
        NT_LOG_AS(NT_LOG_DEBUG, "NetToolsMsg::tcp_is_connected", "recvid=%d len=%d fd=%d", static_cast<int>(msg_id),
                  static_cast<int>(len), fd);
    }
    void* response = nullptr;
    net_tools_msg_syn_send(msg_id, 0, 0, 0, 0, &body, sizeof body, kNetToolsModule, kMidDetectRecv, kNetToolsModule,
                           kMidDetectMain, static_cast<uint32_t>(m_syn_send_arg), &response);
}

void NetToolsMsg::recv_one_packet(int32_t fd, const SocketDetectPair& polled) {
    DetectRecvBody body;
    memset(&body, 0, sizeof body);
    if (m_recv_batch_max < 1) return;
    for (int32_t i = 1; i <= m_recv_batch_max; ++i) {
        const int n = MORL_Recv(fd, body.data, static_cast<int>(kRecvDataMax), 0);
        if (n < 0) return;
        if (n == 0) continue;
        // Only while the socket is still the table's: a packet read after
        // its detection freed it is dropped.
        if (!same_entry(fd, polled)) {
            NT_LOGE("GetDetect err");
            return;
        }
        hand_over(fd, polled, body, static_cast<uint32_t>(n), i);
    }
}

void NetToolsMsg::tcp_is_connected(int32_t fd, const SocketDetectPair& polled) {
    if (!same_entry(fd, polled)) {
        NT_LOGE("GetDetect err");
        return;
    }
    DetectRecvBody body;
    memset(&body, 0, sizeof body);
    hand_over(fd, polled, body, 0, 0);
}
