// DetectBase: clock, state, run flag, packet image and socket making of
// every detection. No thread of its own: each method runs on the thread
// that calls it (the owner's, or one of the object's send and receive
// threads); state and run flag are atomics, the clock is written once.
#include "bwdetect/detect_base.h"

#include <cstring>
#include <new>

#include "commonlib/zeph_commonlib.h"
#include "inc/net_tools_log.h"
#include "net_tools_util/net_tools_util.h"

namespace q = zeph::quality;

namespace {

// sleep_with_fine_timer: one millisecond less than asked, for requests of
// at least kFineTimerShortenFrom, and never more than kFineTimerMaxSleep.
constexpr uint32_t kFineTimerShortenFrom = 2;
constexpr uint32_t kFineTimerMaxSleep = 40;

// precision_sleep_time: sleeps of 1 to 5 ms, each for one nominal second.
constexpr uint32_t kPrecisionMaxSleep = 5;
constexpr uint32_t kMsPerSecond = 1000;

// Socket making.
constexpr uint32_t kSocketBufferBytes = 629145;
// What a failed bind is reported against: the ports a client tries.
constexpr int32_t kBindTries = 64;
constexpr MORL_SOCKET kClosedSocket = static_cast<MORL_SOCKET>(0xFFFFFFFF);

// get_trans_str.
constexpr uint32_t kTransTcp = 1;
constexpr uint32_t kTransUdp = 2;

// The clock's reading when the counter has no frequency.
constexpr int64_t kNoClockMs = 0xFFFFFFFF;

// What a failing codec write is reported with, as a failed secure copy.
constexpr int kCopyRefused = 1;

} // namespace

DetectBase::DetectBase() {
    MORL_QueryPerformanceCounter(&m_start_time);
    MORL_QueryPerformanceFrequency(&m_freq_time);
    NT_LOGI("DetectBase success m_freq_time=%lld m_start_time=%lld", static_cast<long long>(m_freq_time),
            static_cast<long long>(m_start_time));
}

DetectBase::~DetectBase() {
    m_running.exchange(0);
    m_inited.exchange(0);
    m_sock.reset();
    m_sleep_precision.clear();
}

// ---- virtual operations -------------------------------------------------------------

uint32_t DetectBase::get_recv_msg_id() { return 0; }

void DetectBase::recv_pkt(const uint8_t*, uint32_t, std::shared_ptr<DetectSocket>, std::shared_ptr<DetectBase>) {}

void DetectBase::recv_http_over_proxy_resp(std::shared_ptr<DetectSocket>, std::shared_ptr<DetectBase>, uint32_t) {}

void DetectBase::recv_dns(const char*, uint32_t) {}

void DetectBase::recv_timeout(uint64_t) {}

int32_t DetectBase::recv_pkt_is_valid(const uint8_t*, size_t) { return 1; }

int32_t DetectBase::bind_port(MORL_SOCKET) { return 0; }

// ---- clock -------------------------------------------------------------------------------

int64_t DetectBase::get_runtime_current() {
    // Whole seconds and the remainder are scaled apart: a nanosecond counter
    // times 1000 would overflow after about 106 days.
    return counter_ms_since(m_start_time, m_freq_time, "get_runtime_current");
}

int64_t DetectBase::runtime_at(int64_t counter) const {
    if (m_freq_time == 0) {
        NT_LOGE("runtime_at: m_freq_time is null");
        return kNoClockMs;
    }
    // The same split of seconds and remainder as the current time's.
    return counter > m_start_time ? counter_to_ms(counter - m_start_time, m_freq_time) : 0;
}

int64_t DetectBase::answer_time() {
    return m_answer_arrival != 0 ? runtime_at(m_answer_arrival) : get_runtime_current();
}

uint32_t DetectBase::get_time_diff(uint32_t first, uint32_t second) { return second - first; }

int32_t DetectBase::time_is_out_range(uint32_t start, uint32_t end, uint32_t current) {
    if (end > start && current >= start && current <= end) return 0;
    if (end < start && (current <= end || current >= start)) return 0;
    NT_LOGI("start=0X%X, end=0X%X, current=0X%X}", start, end, current);
    return 1;
}

// ---- sleeping -------------------------------------------------------------------------------

uint32_t DetectBase::fine_timer_sleep_ms(uint32_t sleep_time) {
    const uint32_t ms = sleep_time < kFineTimerShortenFrom ? sleep_time : sleep_time - 1;
    return ms > kFineTimerMaxSleep ? kFineTimerMaxSleep : ms;
}

void DetectBase::sleep_with_fine_timer(uint32_t sleep_time) {
    // Linux sleeps on high-resolution timers: a request of 4 ms sleeps about
    // 4 ms with no system-wide timer request around it.
    MORL_SleepMs(fine_timer_sleep_ms(sleep_time));
}

void DetectBase::precision_sleep_time() {
    m_sleep_precision.clear();
    for (uint32_t sleep_time = 1; sleep_time <= kPrecisionMaxSleep; ++sleep_time) {
        const int64_t begin = get_runtime_current();
        const uint32_t rounds = kMsPerSecond / sleep_time;
        for (uint32_t i = 0; i < rounds; ++i) MORL_SleepMs(sleep_time);
        const int64_t elapsed = get_runtime_current() - begin;
        const uint32_t precision = static_cast<uint32_t>((elapsed + kMsPerSecond / 2) / kMsPerSecond);
        m_sleep_precision.push_back(precision);
        NT_LOGI("Sleep sleep_time=%ums precision=%u", sleep_time, precision);
    }
}

uint32_t DetectBase::get_sleep_precision(uint32_t sleep_time) const {
    if (m_sleep_precision.empty()) return sleep_time;
    if (sleep_time > m_sleep_precision.size()) return m_sleep_precision.back();
    if (sleep_time == 0) return 1;
    return m_sleep_precision[sleep_time - 1];
}

// ---- state -------------------------------------------------------------------------------------

int32_t DetectBase::set_state(int32_t new_state) {
    const int32_t old = m_state.load();
    NT_LOGI("state switching(%d->%d)", old, new_state);
    bool allowed = false;
    switch (new_state) {
    case DETECT_STATE_IDLE:
    case DETECT_STATE_FAILED:
    case DETECT_STATE_END:
        allowed = true;
        break;
    case DETECT_STATE_CONNECTING:
        allowed = old == DETECT_STATE_IDLE;
        break;
    case DETECT_STATE_SENDING:
        allowed = old == DETECT_STATE_IDLE || old == DETECT_STATE_CONNECTING;
        break;
    case DETECT_STATE_SEND_FIN:
        allowed = old == DETECT_STATE_SENDING;
        break;
    case DETECT_STATE_STAT_FIN:
        allowed = old == DETECT_STATE_SEND_FIN;
        break;
    default:
        break;
    }
    if (!allowed) return 1;
    m_state.exchange(new_state);
    return 0;
}

// ---- token, parameter, sites --------------------------------------------------------------------

void DetectBase::set_pkt_auth_token(uint8_t* pkt, size_t size, const char* token) {
    const size_t n = token ? std::strlen(token) : 0;
    if (!q::write_auth_token(pkt, size, token, n)) NT_LOGE("secure function return error err=%d", kCopyRefused);
}

void DetectBase::set_pkt_auth_para(uint8_t* pkt, size_t size, const char* para) {
    const size_t n = para ? std::strlen(para) : 0;
    if (!q::write_auth_para(pkt, size, para, n)) NT_LOGE("secure function return error err=%d", kCopyRefused);
}

int32_t DetectBase::check_token(const std::vector<DetectSiteInfo>& sites) {
    if (sites.size() > DETECT_MAX_SITES) {
        NT_LOGE("size of the sites(%d) is larger than %d!", static_cast<int>(sites.size()),
                static_cast<int>(DETECT_MAX_SITES));
        return DETECT_ERR_TOO_MANY_SITES;
    }
    for (const DetectSiteInfo& site : sites) {
        if (site.auth_token.empty() || site.auth_token.size() > q::kAuthTokenSize) {
            NT_LOGE("size of auth_token(%d) is invalid!", static_cast<int>(site.auth_token.size()));
            return DETECT_ERR_BAD_TOKEN;
        }
        if (site.auth_para.empty() || site.auth_para.size() > q::kAuthParaSize) {
            NT_LOGE("size of auth_para(%d) is invalid!", static_cast<int>(site.auth_para.size()));
            return DETECT_ERR_BAD_TOKEN;
        }
    }
    return 0;
}

// ---- head accessors -------------------------------------------------------------------------------

void DetectBase::set_pkt_tag(uint8_t* pkt, size_t size) { q::write_tag(pkt, size); }

void DetectBase::set_pkt_nonce(uint8_t* pkt, size_t size) {
    uint16_t nonce = 0;
    ZEPH_CPYPT_RealRandom(&nonce, sizeof nonce);
    q::write_nonce(pkt, size, nonce);
}

void DetectBase::set_pkt_mark(uint8_t* pkt, size_t size) { q::write_mark(pkt, size); }
void DetectBase::set_pkt_fill(uint8_t* pkt, size_t size) { q::write_fill(pkt, size); }
void DetectBase::set_pkt_ver(uint8_t* pkt, size_t size, uint8_t ver) { q::set_ver(pkt, size, ver); }
uint8_t DetectBase::get_pkt_ver(const uint8_t* pkt, size_t size) const { return q::get_ver(pkt, size); }
void DetectBase::set_pkt_flag(uint8_t* pkt, size_t size, uint8_t bits) { q::set_flags(pkt, size, bits); }
void DetectBase::clear_pkt_flag(uint8_t* pkt, size_t size, uint8_t bits) { q::clear_flags(pkt, size, bits); }
int32_t DetectBase::test_pkt_flag(const uint8_t* pkt, size_t size, uint8_t bits) const {
    return q::test_flags(pkt, size, bits) ? 1 : 0;
}
void DetectBase::set_pkt_type(uint8_t* pkt, size_t size, uint16_t type) {
    q::set_type(pkt, size, m_is_stun != 0, type);
}
uint16_t DetectBase::get_pkt_type(const uint8_t* pkt, size_t size) const {
    return q::get_type(pkt, size, m_is_stun != 0);
}
void DetectBase::set_pkt_cookie(uint8_t* pkt, size_t size) { q::set_cookie(pkt, size, m_is_stun != 0, q::kPktCookie); }
uint32_t DetectBase::get_pkt_cookie(const uint8_t* pkt, size_t size) const {
    return q::get_cookie(pkt, size, m_is_stun != 0);
}
void DetectBase::set_pkt_seq(uint8_t* pkt, size_t size, uint32_t seq) { q::set_seq(pkt, size, seq); }
uint32_t DetectBase::get_pkt_seq(const uint8_t* pkt, size_t size) const { return q::get_seq(pkt, size); }
void DetectBase::set_pkt_session(uint8_t* pkt, size_t size, uint32_t session) {
    q::set_session(pkt, size, m_is_stun != 0, session);
}
uint32_t DetectBase::get_pkt_session(const uint8_t* pkt, size_t size) const {
    return q::get_session(pkt, size, m_is_stun != 0);
}
void DetectBase::set_pkt_time(uint8_t* pkt, size_t size, uint32_t time) { q::set_time(pkt, size, time); }
uint32_t DetectBase::get_pkt_time(const uint8_t* pkt, size_t size) const {
    return q::get_time(pkt, size, m_is_stun != 0);
}
void DetectBase::set_pkt_level(uint8_t* pkt, size_t size, uint8_t level) { q::set_level(pkt, size, level); }
uint8_t DetectBase::get_pkt_level(const uint8_t* pkt, size_t size) const {
    return q::get_level(pkt, size, m_is_stun != 0);
}
void DetectBase::set_pkt_pair_count(uint8_t* pkt, size_t size, uint8_t count) {
    q::set_pair_count(pkt, size, count);
}
uint8_t DetectBase::get_pkt_pair_count(const uint8_t* pkt, size_t size) const {
    return q::get_pair_count(pkt, size, m_is_stun != 0);
}
void DetectBase::set_pkt_len(uint8_t* pkt, size_t size, uint16_t len) { q::set_len(pkt, size, m_is_stun != 0, len); }
uint16_t DetectBase::get_pkt_len(const uint8_t* pkt, size_t size) const {
    return q::get_len(pkt, size, m_is_stun != 0);
}
void DetectBase::set_pkt_pair_seq(uint8_t* pkt, size_t size, uint32_t index, uint32_t seq) {
    q::set_pair_seq(pkt, size, index, seq);
}
uint32_t DetectBase::get_pkt_pair_seq(const uint8_t* pkt, size_t size, uint32_t index) const {
    return q::get_pair_seq(pkt, size, index);
}
void DetectBase::set_pkt_pair_time(uint8_t* pkt, size_t size, uint32_t index, uint32_t time) {
    q::set_pair_time(pkt, size, index, time);
}
uint32_t DetectBase::get_pkt_pair_time(const uint8_t* pkt, size_t size, uint32_t index) const {
    return q::get_pair_time(pkt, size, index);
}
void DetectBase::set_pkt_status(uint8_t* pkt, size_t size, uint32_t status) { q::set_status(pkt, size, status); }
uint32_t DetectBase::get_pkt_status(const uint8_t* pkt, size_t size) const { return q::get_status(pkt, size); }
void DetectBase::set_pkt_auth_result(uint8_t* pkt, size_t size, uint32_t result) {
    q::set_auth_result(pkt, size, result);
}
uint32_t DetectBase::get_auth_result(const uint8_t* pkt, size_t size) const {
    return q::get_auth_result(pkt, size, m_is_stun != 0);
}
void DetectBase::build_pkt_image(uint8_t* pkt, size_t size, uint32_t session, uint8_t level) {
    uint16_t nonce = 0;
    ZEPH_CPYPT_RealRandom(&nonce, sizeof nonce);
    if (!q::build_image(pkt, size, nonce, session, level)) NT_LOGE("secure function return error err=%d", kCopyRefused);
}

void DetectBase::build_stun_pkt_image(uint8_t* pkt, size_t size, uint32_t session) {
    uint16_t nonce = 0;
    ZEPH_CPYPT_RealRandom(&nonce, sizeof nonce);
    if (!q::build_stun_image(pkt, size, nonce, session)) NT_LOGE("secure function return error");
    m_is_stun = 1;
}

int32_t DetectBase::base_pkt_is_valid(const uint8_t* pkt, size_t size, uint32_t seq_limit) const {
    return q::base_pkt_is_valid(pkt, size, m_is_stun != 0, seq_limit);
}

// ---- sockets --------------------------------------------------------------------------------------

void DetectBase::close_socket(MORL_SOCKET* sockptr) {
    if (sockptr == nullptr) {
        NT_LOGI("sockptr(%x)", 0u);
        return;
    }
    NT_LOGI("sockptr(%x)sock(%d)", nt_log_addr(sockptr), *sockptr);
    MORL_CloseSocket(*sockptr);
    *sockptr = kClosedSocket;
    delete sockptr;
}

DetectSockPtr DetectBase::create_socket() {
    const MORL_SOCKET sock = MORL_Socket(MORL_AF_INET, MORL_SOCK_DGRAM, MORL_IPPROTO_UDP);
    MORL_SOCKET* holder = new (std::nothrow) MORL_SOCKET(sock);
    if (holder == nullptr) {
        NT_LOGE("new(std::nothrow) failed");
        MORL_CloseSocket(sock);
        return DetectSockPtr();
    }
    DetectSockPtr ptr;
    try {
        ptr = DetectSockPtr(holder, &DetectBase::close_socket);
    } catch (const std::bad_alloc&) {
        // The deleter has already run on the holder.
        NT_LOGE("new(std::nothrow) failed");
        return DetectSockPtr();
    }
    uint32_t non_blocking = 1;
    if (MORL_IoctlSocket(sock, MORL_FIONBIO, &non_blocking) != 0) {
        NT_LOGE("[detect_base] ioctl failed");
        return DetectSockPtr();
    }
    const int32_t bound = bind_port(sock);
    if (bound != 0) {
        NT_LOGE("[detect_base] bind failed port is %d and before %d", bound, kBindTries);
        return DetectSockPtr();
    }
    const int buffer = static_cast<int>(kSocketBufferBytes);
    MORL_SetSockOpt(sock, MORL_SOL_SOCKET, MORL_SO_RCVBUF, &buffer, sizeof buffer);
    MORL_SetSockOpt(sock, MORL_SOL_SOCKET, MORL_SO_SNDBUF, &buffer, sizeof buffer);
    NT_LOGI("sockptr(%x)sock(%d)", nt_log_addr(holder), sock);
    return ptr;
}

DetectSockPtr DetectBase::init_socket(const char* server_ip, uint16_t server_port, uint16_t client_port) {
    m_cli_port = client_port;
    DetectSockPtr ptr = create_socket();
    if (!ptr) return ptr;
    MORL_SockAddrIn addr = {};
    addr.sin_family = MORL_AF_INET;
    addr.sin_port = MORL_Htons(server_port);
    addr.sin_addr = MORL_InetAddr(server_ip ? server_ip : "");
    // On a UDP socket this only sets the peer; send and recv do the rest.
    MORL_Connect(*ptr, &addr, sizeof addr);
    NT_LOGI("init_socket srvip=%s, srvport=%d, cltport=%d, sock=%x", server_ip ? server_ip : "", server_port,
            client_port, static_cast<unsigned>(*ptr));
    return ptr;
}

const char* DetectBase::get_trans_str(uint32_t protocol) {
    if (protocol == kTransTcp) return "tcp";
    if (protocol == kTransUdp) return "udp";
    return "icmp";
}
