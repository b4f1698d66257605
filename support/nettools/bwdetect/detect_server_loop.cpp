// The quality server's receive loop: runs on the server thread, which
// start_server starts and stop_server joins. It waits in poll, drains the
// socket a batch at a time until it would block, answers each datagram in
// its own buffer and sends the batch's answers with one call. Each datagram
// is stamped with the kernel's time of its arrival.
#include <atomic>
#include <memory>
#include <new>

#include "bwdetect/detect_server.h"
#include "inc/net_tools_log.h"

namespace q = zeph::quality;

namespace {

// Datagrams read and answered per system call.
constexpr uint32_t kBatch = 64;
// The longest wait in poll: how long stop_server may wait for the loop.
constexpr int kPollWaitMs = 20;
// A poll that fails is not retried at once.
constexpr uint32_t kPollFailPauseMs = 5;
// The first design's pauses: when nothing came, and after each data packet.
constexpr uint32_t kLiteralIdleSleepMs = 5;
constexpr uint32_t kLiteralDataSleepMs = 1;
// Failed sends are logged once per this many, starting with the first.
constexpr uint64_t kSendFailLogEvery = 1024;

std::atomic<bool> g_literal_loop{false};

DetectServerClientKey key_of(const MORL_SockAddrIn& from) {
    DetectServerClientKey key;
    key.addr = from.sin_addr;
    key.port = MORL_Htons(from.sin_port); // the swap is its own inverse
    return key;
}

int64_t counter_now() {
    int64_t now = 0;
    MORL_QueryPerformanceCounter(&now);
    return now;
}

} // namespace

void DetectServer::set_literal_loop(bool enabled) { g_literal_loop.store(enabled); }
bool DetectServer::literal_loop() { return g_literal_loop.load(); }

void DetectServer::server_recv_thread(DetectSockPtr sock) {
    MORL_PthreadSetName("detect_server");
    NT_LOGI("start");
    m_data_count = 0;
    if (literal_loop()) {
        run_literal(*sock);
    } else {
        run_batched(*sock);
    }
    NT_LOGI("end");
}

void DetectServer::note_send_failure(size_t len, int sent) {
    ++m_send_failures;
    if (m_send_failures % kSendFailLogEvery == 1) {
        NT_LOGE("send error len(%d)!=m_pkt_len(%d) error=%d", sent, int(len), MORL_GetLastSocketErr());
    }
}

void DetectServer::run_batched(MORL_SOCKET sock) {
    std::unique_ptr<uint8_t[]> store(new (std::nothrow) uint8_t[kBatch * q::kRecvBufSize]);
    if (!store) {
        NT_LOGE("new(std::nothrow) failed");
        return;
    }
    if (MORL_EnableRecvTimestamps(sock) != 0) {
        // Each datagram is then stamped when its batch is read.
        NT_LOGW("no receive timestamps, error=%d", MORL_GetLastSocketErr());
    }
    MORL_DatagramIn in[kBatch];
    MORL_DatagramOut out[kBatch];
    for (uint32_t i = 0; i < kBatch; ++i) {
        in[i] = MORL_DatagramIn();
        in[i].buf = store.get() + i * q::kRecvBufSize;
        in[i].cap = static_cast<int>(q::kRecvBufSize);
    }
    while (is_running() != 0) {
        MORL_PollFd pfd = {sock, MORL_POLLIN, 0};
        const int ready = MORL_Poll(&pfd, 1, kPollWaitMs);
        if (ready < 0) MORL_SleepMs(kPollFailPauseMs);
        if (ready <= 0) continue;
        // Drain: a short batch means the socket had no more for now.
        for (uint32_t got = kBatch; got == kBatch && is_running() != 0;) {
            const int n = MORL_RecvBatch(sock, in, kBatch);
            if (n <= 0) break;
            got = static_cast<uint32_t>(n);
            const int64_t read_at = counter_now();
            uint32_t replies = 0;
            for (uint32_t i = 0; i < got; ++i) {
                const int64_t arrival = in[i].arrival != 0 ? in[i].arrival : read_at;
                uint8_t* pkt = static_cast<uint8_t*>(in[i].buf);
                const size_t len = answer(pkt, static_cast<size_t>(in[i].len), key_of(in[i].from), clock_of(arrival));
                if (len == 0) continue;
                out[replies].buf = pkt;
                out[replies].len = static_cast<int>(len);
                out[replies].to = in[i].from;
                ++replies;
            }
            // An answer the kernel refuses is dropped (the client counts it
            // lost) and the rest still go.
            for (uint32_t done = 0; done < replies;) {
                const int sent = MORL_SendBatch(sock, out + done, replies - done);
                done += sent > 0 ? static_cast<uint32_t>(sent) : 0;
                if (done < replies) {
                    note_send_failure(static_cast<size_t>(out[done].len), 0);
                    ++done;
                }
            }
        }
    }
}

void DetectServer::run_literal(MORL_SOCKET sock) {
    std::unique_ptr<uint8_t[]> buf(new (std::nothrow) uint8_t[q::kRecvBufSize]);
    if (!buf) {
        NT_LOGE("new(std::nothrow) failed");
        return;
    }
    while (is_running() != 0) {
        MORL_SockAddrIn from = {};
        int from_len = sizeof from;
        const int n = MORL_Recvfrom(sock, buf.get(), static_cast<int>(q::kRecvBufSize), 0, &from, &from_len);
        if (n < 0) {
            MORL_SleepMs(kLiteralIdleSleepMs);
            continue;
        }
        const size_t len = answer(buf.get(), static_cast<size_t>(n), key_of(from), clock_of(counter_now()));
        if (len == 0) continue;
        const bool data = q::get_type(buf.get(), len, false) == q::kTypeDataResp;
        const int sent = MORL_Sendto(sock, buf.get(), static_cast<int>(len), 0, &from, sizeof from);
        if (data && sent < static_cast<int>(len)) note_send_failure(len, sent);
        if (data) MORL_SleepMs(kLiteralDataSleepMs);
    }
}
