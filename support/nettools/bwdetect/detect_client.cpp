// The quality clients' common part and the plain client.
// Threads: start_client, the setters and the image run on the caller's
// thread; "detect_client" runs the handshake, waits for the exchanger,
// sends the end packets and calls the callback.
#include "bwdetect/detect_client.h"

#include <cstring>

#include "commonlib/zeph_commonlib.h"
#include "inc/net_tools_log.h"
#include "net_tools_util/net_tools_util.h"

namespace q = zeph::quality;

namespace {

// The handshake: a round every 10 ms, 150 of them, a request every 10th.
constexpr uint32_t kAuthRoundMs = 10;
constexpr uint32_t kAuthRounds = 150;
constexpr uint32_t kAuthSendEvery = 10;
// The stream of the plain client: its level and length are fixed, whatever
// the client's own level (which sets only the packets' length).
constexpr int32_t kStreamLevel = 1;
constexpr int32_t kStreamSeconds = 3;
// Waits for the exchanger: state 4 within 350 x 10 ms, then state 5 within
// 150 x 10 ms. Neither outcome stops the client.
constexpr uint32_t kWaitStepMs = 10;
constexpr uint32_t kSendFinWaits = 350;
constexpr uint32_t kStatFinWaits = 150;
// The end packet goes out this many times, 10 ms apart.
constexpr int kEndPackets = 5;
constexpr uint32_t kEndGapMs = 10;
// Pause before the client lets its socket go.
constexpr uint32_t kCloseDelayMs = 10;
constexpr uint32_t kMaxPort = 65535;


} // namespace

// ---- DetectClientBase ----------------------------------------------------------------

int32_t DetectClientBase::start_client(const char* ip, uint16_t srv_port, uint16_t cli_port) {
    if (m_callback == nullptr || ip == nullptr || srv_port == 0 || cli_port == 0) {
        NT_LOGE("fun_callback(%x), ip(%x), srv_port(%d), cli_port(%d)", nt_log_addr(m_callback), nt_log_addr(ip),
                srv_port, cli_port);
        return DETECT_ERR_BAD_ARGUMENT;
    }
    m_sock = init_socket(ip, srv_port, cli_port);
    if (!m_sock) return DETECT_ERR_NO_SOCKET;
    init_send_buf(m_pkt_buf, sizeof m_pkt_buf);
    return start_send_thread();
}

int32_t DetectClientBase::bind_port(MORL_SOCKET sock) {
    uint32_t port = m_cli_port;
    uint32_t tried = port;
    for (uint32_t i = 0; i < DETECT_BIND_TRIES && port <= kMaxPort; ++i, ++port) {
        MORL_SockAddrIn addr = {};
        addr.sin_family = MORL_AF_INET;
        addr.sin_port = MORL_Htons(static_cast<uint16_t>(port));
        if (MORL_Bind(sock, &addr, sizeof addr) == 0) {
            NT_LOGI("[detect_client] bind_success port=%d", port);
            return 0;
        }
        NT_LOGW("[detect_client] bind_failed port=%d", port);
        tried = port;
    }
    return tried != 0 ? static_cast<int32_t>(tried) : 1;
}

int32_t DetectClientBase::recv_pkt_is_valid(const uint8_t* pkt, size_t len) {
    const int32_t valid = base_pkt_is_valid(pkt, len, q::kSeqNoLimit);
    if (valid == 0) {
        NT_LOGE("base_valid=%d", valid);
        return 0;
    }
    const uint8_t level = get_pkt_level(pkt, len);
    if (level != m_level) {
        NT_LOGE("level=%d m_level=%d", level, m_level);
        return 0;
    }
    return 1;
}

int32_t DetectClientBase::start_send_thread() { return 0; }

void DetectClientBase::init_send_buf(uint8_t* buf, size_t length) {
    uint16_t nonce = 0;
    ZEPH_CPYPT_RealRandom(&nonce, sizeof nonce);
    if (!q::build_image(buf, length, nonce, m_session, m_level))
        NT_LOGE("secure function return error err=%d", static_cast<int>(length));
}

void DetectClientBase::init_pkt_stat_data(DetectPktStat& stat) {
    const int32_t s_bad = stat.s_bad_seconds;
    const int32_t r_bad = stat.r_bad_seconds;
    stat = DetectPktStat{};
    stat.s_bad_seconds = s_bad;
    stat.r_bad_seconds = r_bad;
}

void DetectClientBase::set_level(uint8_t level) {
    m_level = level;
    set_pkt_level(m_pkt_buf, sizeof m_pkt_buf, level);
}

int32_t DetectClientBase::process_recv_auth_pkt(const uint8_t* pkt, size_t len) {
    if (recv_pkt_is_valid(pkt, len) == 0) {
        NT_LOGE("buf is invalid");
        return 0;
    }
    if (get_pkt_type(pkt, len) != q::kTypeAuthResp) {
        NT_LOGE("buf is not auth response");
        return 0;
    }
    set_state(get_auth_result(pkt, len) == q::kAuthAccepted ? DETECT_STATE_SENDING : DETECT_STATE_END);
    return 1;
}

int32_t DetectClientBase::process_recv_end_pkt(const uint8_t* pkt, size_t len) {
    if (recv_pkt_is_valid(pkt, len) == 0) {
        NT_LOGE("buf is invalid");
        return 0;
    }
    if (get_pkt_type(pkt, len) != q::kTypeEndResp) {
        NT_LOGE("buf is not end response");
        return 0;
    }
    set_state(DETECT_STATE_END);
    return 1;
}

// ---- DetectClient ------------------------------------------------------------------------

DetectClient::DetectClient(DetectBwNotify callback) {
    m_callback = callback;
    NT_LOGI("level=%d len=%d call_back=%x", m_level, m_pkt_len, nt_log_addr(callback));
}

int32_t DetectClient::start_send_thread() {
    std::shared_ptr<DetectClient> self = weak_from_this().lock();
    if (!self) {
        NT_LOGE("client is not held by a shared pointer");
        return DETECT_ERR_BAD_ARGUMENT;
    }
    start_detached(self, &DetectClient::client_send_thread);
    return 0;
}

int32_t DetectClient::connect_server() {
    set_state(DETECT_STATE_CONNECTING);
    const MORL_SOCKET sock = *m_sock;
    uint8_t buf[q::kRecvBufSize] = {};
    set_pkt_time(m_pkt_buf, sizeof m_pkt_buf, static_cast<uint32_t>(get_runtime_current()));
    ZEPH_CPYPT_RealRandom(&m_session, sizeof m_session);
    set_pkt_session(m_pkt_buf, sizeof m_pkt_buf, m_session);
    set_pkt_level(m_pkt_buf, sizeof m_pkt_buf, m_level);
    m_pkt_len = static_cast<int32_t>(q::level_row(m_level).pkt_len);
    set_pkt_len(m_pkt_buf, sizeof m_pkt_buf, static_cast<uint16_t>(m_pkt_len));
    set_pkt_type(m_pkt_buf, sizeof m_pkt_buf, q::kTypeAuth);

    // Rounds of 10 ms on one schedule; a reply ends the round it arrives in.
    const int64_t start = get_runtime_current();
    bool answered = false;
    for (uint32_t round = 0; round < kAuthRounds && !answered; ++round) {
        if (round % kAuthSendEvery == 0) MORL_Send(sock, m_pkt_buf, m_pkt_len, 0);
        const int64_t round_end = start + int64_t(round + 1) * kAuthRoundMs;
        for (int64_t left = round_end - get_runtime_current(); left > 0 && !answered;
             left = round_end - get_runtime_current()) {
            MORL_PollFd pfd{sock, MORL_POLLRDNORM, 0};
            if (MORL_Poll(&pfd, 1, static_cast<int>(left)) <= 0) continue;
            int got = 0;
            for (int n; !answered && (n = MORL_Recv(sock, buf, sizeof buf, 0)) > 0; ++got)
                answered = process_recv_auth_pkt(buf, static_cast<size_t>(n)) == 1;
            if (got == 0) MORL_SleepMs(1); // an error report on the socket, nothing to read
        }
    }
    const int32_t state = get_state();
    if (state == DETECT_STATE_SENDING) return 0;
    if (state == DETECT_STATE_END)
        NT_LOGE("auth is failed state=%d", state);
    else
        NT_LOGE("connect timeout state=%d", state);
    return DETECT_ERR_AUTH_FAILED;
}

void DetectClient::client_send_thread() {
    MORL_PthreadSetName("detect_client");
    if (connect_server() == 0) {
        set_pkt_level(m_pkt_buf, sizeof m_pkt_buf, m_level);
        set_pkt_type(m_pkt_buf, sizeof m_pkt_buf, q::kTypeData);
        auto ex = std::make_shared<DetectCliPktAnyTime>(m_sock, kStreamLevel, kStreamSeconds);
        ex->m_pkt_len = static_cast<int32_t>(q::level_row(m_level).pkt_len);
        std::atomic_store(&m_exchanger, ex);
        ex->start_SR(m_pkt_buf, ex);

        for (uint32_t i = 0; i < kSendFinWaits; ++i) {
            MORL_SleepMs(kWaitStepMs);
            if (ex->get_state() == DETECT_STATE_SEND_FIN) break;
        }
        for (uint32_t i = 0; i < kStatFinWaits && ex->get_state() != DETECT_STATE_STAT_FIN; ++i)
            MORL_SleepMs(kWaitStepMs);

        set_state(DETECT_STATE_SEND_FIN);
        set_pkt_time(m_pkt_buf, sizeof m_pkt_buf, static_cast<uint32_t>(get_runtime_current()));
        set_pkt_type(m_pkt_buf, sizeof m_pkt_buf, q::kTypeEnd);
        for (int i = 0; i < kEndPackets; ++i) {
            MORL_Send(*m_sock, m_pkt_buf, m_pkt_len, 0);
            MORL_SleepMs(kEndGapMs);
        }
        set_state(DETECT_STATE_END);

        const DetectQosResult result = detect_qos_result(0, 0, ex->get_stat());
        const int32_t code = ex->get_state() == DETECT_STATE_FAILED ? DETECT_ERR_TOKEN_REFUSED : 0;
        m_callback(0, code, 0, std::vector<DetectQosResult>{result});
    }
    MORL_SleepMs(kCloseDelayMs);
    m_sock.reset();
}
