// The receive thread, NetToolsMsg::detect_recv_thread: started by init,
// joined by finish. It sleeps while the socket table is empty; otherwise it
// polls the table's sockets for 2 ms per pass, reads what arrived and hands
// each packet to the message thread by a synchronous message, then pauses
// 2 ms. Each packet carries the moment it arrived (the kernel's stamp of
// the datagram; for a completed connect, the poll's return), so that the
// pause and the hand-overs of the sockets read before it add nothing to a
// measured delay; and each socket's first answer of a pass is handed over
// in the order of arrival, not of the table.
#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "inc/detect_socket.h"
#include "inc/net_tools_msg.h"
#include "net_tools_msg/net_tools_msg_log.h"
#include "os_adapter/morl_os.h"

namespace {
constexpr int32_t MAX_POLL_LISTEN_SIZE = 64;
constexpr const char* kThreadName = "detect_recv";
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
    // The first answer of each polled socket in a pass, the reads it took,
    // and the order of arrival of those answers.
    std::vector<DetectRecvBody> firsts(MAX_POLL_LISTEN_SIZE);
    std::array<int32_t, MAX_POLL_LISTEN_SIZE> reads{};
    std::array<int32_t, MAX_POLL_LISTEN_SIZE> order{};
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
        int64_t polled_at = 0;
        MORL_QueryPerformanceCounter(&polled_at);
        if (ready > 0) {
            // First each socket's first answer of the pass (a datagram or a
            // completed connect), handed over in the order they arrived, so
            // that a site's answer is never reported behind a later one of
            // a socket earlier in the table; then the rest of each socket's
            // datagrams in table order.
            int32_t order_len = 0;
            for (int32_t i = 0; i < idx; ++i) {
                reads[i] = 0;
                const MORL_SOCKET fd = slots[i].fd;
                if (fd == MORL_INVALID_SOCKET) continue;
                bool answered = false;
                if (slots[i].revents & MORL_POLLIN) {
                    NT_LOGI("recv OK fd(%d)", fd);
                    answered = read_first(fd, firsts[i], polled_at, &reads[i]);
                }
                if (slots[i].revents & MORL_POLLWRNORM) {
                    const uint32_t error_events = static_cast<uint16_t>(slots[i].revents & ~MORL_POLLWRNORM);
                    NT_LOGI("write OK fd(%d), errorEvents: %u", fd, error_events);
                    // Writable without an error is a finished handshake,
                    // also when the peer has already closed again (a
                    // hang-up): the port accepted, so it is open. A refused
                    // connect always carries the error bit.
                    if ((error_events & ~static_cast<uint32_t>(MORL_POLLHUP)) == 0) {
                        memset(&firsts[i], 0, sizeof firsts[i]);
                        firsts[i].arrival = polled_at;
                        answered = true;
                    }
                }
                if (answered) order[order_len++] = i;
            }
            std::stable_sort(order.begin(), order.begin() + order_len,
                             [&](int32_t a, int32_t b) { return firsts[a].arrival < firsts[b].arrival; });
            for (int32_t k = 0; k < order_len; ++k) {
                const int32_t i = order[k];
                if (firsts[i].len == 0) {
                    tcp_is_connected(slots[i].fd, polled[i], firsts[i]);
                } else {
                    hand_over_read(slots[i].fd, polled[i], firsts[i], reads[i]);
                }
            }
            for (int32_t i = 0; i < idx; ++i) {
                if (reads[i] > 0 && firsts[i].len != 0) recv_one_packet(slots[i].fd, polled[i], polled_at, reads[i]);
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
                  static_cast<int>(msg_id), static_cast<int>(len), nt_log_addr(sock.get()), fd, i);
    } else {
        NT_LOG_AS(NT_LOG_DEBUG, "NetToolsMsg::tcp_is_connected", "recvid=%d len=%d fd=%d", static_cast<int>(msg_id),
                  static_cast<int>(len), fd);
    }
    void* response = nullptr;
    net_tools_msg_syn_send(msg_id, 0, 0, 0, 0, &body, sizeof body, kNetToolsModule, kMidDetectRecv, kNetToolsModule,
                           kMidDetectMain, static_cast<uint32_t>(m_syn_send_arg), &response);
}

bool NetToolsMsg::read_first(int32_t fd, DetectRecvBody& body, int64_t polled_at, int32_t* reads) {
    memset(&body, 0, sizeof body);
    while (*reads < m_recv_batch_max) {
        const int n = read_datagram(fd, body, polled_at);
        if (n < 0) break;
        ++*reads;
        if (n > 0) return true;
    }
    *reads = 0; // nothing more to read in this pass
    return false;
}

int NetToolsMsg::read_datagram(int32_t fd, DetectRecvBody& body, int64_t polled_at) {
    // One datagram at a time, with the kernel's stamp of its arrival.
    MORL_DatagramIn in{};
    in.buf = body.data;
    in.cap = static_cast<int>(kRecvDataMax);
    if (MORL_RecvBatch(fd, &in, 1) != 1) return -1;
    body.len = static_cast<uint32_t>(in.len);
    // A socket without stamps: the poll saw it readable by then.
    body.arrival = in.arrival != 0 ? in.arrival : polled_at;
    return in.len;
}

bool NetToolsMsg::hand_over_read(int32_t fd, const SocketDetectPair& polled, DetectRecvBody& body, int32_t i) {
    // Only while the socket is still the table's: a packet read after
    // its detection freed it is dropped.
    if (!same_entry(fd, polled)) {
        NT_LOGE("GetDetect err");
        return false;
    }
    hand_over(fd, polled, body, body.len, i);
    return true;
}

void NetToolsMsg::recv_one_packet(int32_t fd, const SocketDetectPair& polled, int64_t polled_at, int32_t done) {
    DetectRecvBody body;
    memset(&body, 0, sizeof body);
    for (int32_t i = done + 1; i <= m_recv_batch_max; ++i) {
        const int n = read_datagram(fd, body, polled_at);
        if (n < 0) return;
        if (n == 0) continue;
        if (!hand_over_read(fd, polled, body, i)) return;
    }
}

void NetToolsMsg::tcp_is_connected(int32_t fd, const SocketDetectPair& polled, DetectRecvBody& body) {
    if (!same_entry(fd, polled)) {
        NT_LOGE("GetDetect err");
        return;
    }
    hand_over(fd, polled, body, 0, 0);
}
