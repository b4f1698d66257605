// Port probes: one destination, one transport, a result field that the
// owner watches. Every thread of a probe holds a shared reference to it, so
// the probe outlives its threads whoever lets go of it first.
// Runs on the thread that starts a probe (socket, connect, thread start) and
// on the probe's own detached threads (the polls, the sends of ICMP).
#include "inc/port_probe.h"

#include <cstring>

#include "commonlib/zeph_commonlib.h"
#include "inc/byte_io.h"
#include "inc/icmp_wire.h"
#include "inc/net_tools_log.h"
#include "inc/stun_wire.h"
#include "net_tools_util/net_tools_util.h"
#include "securec/securec.h"

namespace {

std::atomic<int> g_live_probes{0};

// Next local port that bind_port tries, one value per probe class.
constexpr uint16_t kFirstBindPort = 61000;
constexpr uint16_t kBindPortEnd = 64000;
constexpr int kBindTries = 16;
std::atomic<uint16_t> g_udp_bind_port{kFirstBindPort};
std::atomic<uint16_t> g_tcp_bind_port{kFirstBindPort};

// Upper bound of polls in one resend cycle.
constexpr uint32_t kMaxPolls = 10240;

// Net-mode limits: polls add up to 2000 ms, the clock stops at 4000 ms.
constexpr uint32_t kNetPollMs = 2000;
constexpr int64_t kNetClockLimitMs = 4000;

// The proxy thread polls every 5 ms, at most 200 times or 2000 ms.
constexpr uint32_t kProxySleepMs = 5;
constexpr uint32_t kProxyPolls = 200;
constexpr int64_t kProxyClockLimitMs = 2000;

// The ICMP receiver polls every 2 ms, at most 1000 times; from poll 250 on
// it checks a 2000 ms limit every 8th poll.
constexpr uint32_t kIcmpSleepMs = 2;
constexpr uint32_t kIcmpPolls = 1000;
constexpr uint32_t kIcmpSoftCheckFrom = 250;
constexpr uint32_t kIcmpSoftCheckEvery = 8;
constexpr int64_t kIcmpSoftLimitMs = 2000;
constexpr int kIcmpEchoes = 6;
constexpr uint32_t kIcmpSendGapMs = 30;
// Each readiness reads at most this many datagrams before the wait looks at
// its clock again; the rest are read at the next readiness, at once.
constexpr int kMaxReadsPerWake = 64;

constexpr int64_t kUsPerMs = 1000;
// Pause after a connect call, before the local name is read back.
constexpr uint32_t kConnectPauseMs = 10;

MORL_SockAddrIn make_sockaddr(uint32_t addr, uint16_t port) {
    MORL_SockAddrIn sa{};
    sa.sin_family = MORL_AF_INET;
    zeph::ByteWriter w(reinterpret_cast<uint8_t*>(&sa.sin_port), sizeof sa.sin_port);
    w.put_be16(port);
    sa.sin_addr = addr;
    return sa;
}

uint16_t sockaddr_port(const MORL_SockAddrIn& sa) {
    zeph::ByteReader r(reinterpret_cast<const uint8_t*>(&sa.sin_port), sizeof sa.sin_port);
    uint16_t port = 0;
    r.get_be16(port);
    return port;
}

int read_so_error(MORL_SOCKET s, int& err) {
    err = 0;
    int len = sizeof err;
    return MORL_GetSockOpt(s, MORL_SOL_SOCKET, MORL_SO_ERROR, &err, &len);
}

// Milliseconds since `start` on the probe's clock; a clock that shows no
// difference counts as 1 ms, so that a measured 0 never reads as "none".
int64_t time_spent(const PortDetectBase& probe, int64_t start) {
    const int64_t span = probe.get_runtime_win() - start;
    return span == 0 ? 1 : span;
}

} // namespace

// ---- PortDetectBase ------------------------------------------------------------

PortDetectBase::PortDetectBase(uint32_t addr, uint16_t port, uint32_t protocol)
    : m_addr(addr), m_port(port), m_sock_type(static_cast<int32_t>(protocol)) {
    char text[32] = {0};
    ipv4_int2str(text, sizeof text, addr);
    m_addr_str = text;
    MORL_QueryPerformanceCounter(&m_start_time);
    MORL_QueryPerformanceFrequency(&m_freq_time);
    g_live_probes.fetch_add(1);
}

PortDetectBase::~PortDetectBase() {
    m_exit.exchange(1);
    m_socket.reset();
    g_live_probes.fetch_sub(1);
}

int PortDetectBase::live_count() { return g_live_probes.load(); }

const char* PortDetectBase::get_type() const { return "ip"; }
void PortDetectBase::resend() {}
uint16_t PortDetectBase::get_bind_port() { return kFirstBindPort; }
void PortDetectBase::set_bind_port(uint16_t) {}

int64_t PortDetectBase::get_runtime_win() const { return counter_ms_since(m_start_time, m_freq_time, "get_runtime_win"); }

int64_t PortDetectBase::get_runtime_us() const { return counter_us_since(m_start_time, m_freq_time); }

uint32_t PortDetectBase::delay_ms(int64_t from_us, int64_t at_us) {
    const int64_t ms = (at_us - from_us + kUsPerMs / 2) / kUsPerMs;
    return ms < 1 ? 1 : static_cast<uint32_t>(ms);
}

// The socket's readiness ends a wait for an answer (a datagram, or the end
// of a connect: writable when it succeeded, an error when it failed).
template <class OnReady>
bool PortDetectBase::wait_socket(int16_t events, uint32_t wait_ms, OnReady&& on_ready) {
    const int64_t until_us = get_runtime_us() + static_cast<int64_t>(wait_ms) * kUsPerMs;
    for (;;) {
        const int64_t left_us = until_us - get_runtime_us();
        // Rounded up: a wait never ends before its time.
        const int left_ms = left_us > 0 ? static_cast<int>((left_us + kUsPerMs - 1) / kUsPerMs) : 0;
        MORL_PollFd pfd{socket_fd(), events, 0};
        const int ready = MORL_Poll(&pfd, 1, left_ms);
        const int64_t at_us = get_runtime_us();
        if (ready > 0 && pfd.revents != 0) {
            const WaitStep step = on_ready(pfd.revents, at_us);
            if (step == WaitStep::kDone) return true;
            if (step == WaitStep::kIdle) {
                // Ready again at once would make this spin: the rest of the
                // wait is slept instead.
                if (until_us > at_us) MORL_SleepMs(static_cast<uint32_t>((until_us - at_us) / kUsPerMs));
                return false;
            }
        } else if (ready < 0) {
            if (until_us > at_us) MORL_SleepMs(static_cast<uint32_t>((until_us - at_us) / kUsPerMs));
            return false;
        }
        if (at_us >= until_us) return false;
    }
}

template <class Round>
PortDetectBase::PollOutcome PortDetectBase::poll_until_stop(const PollPlan& plan, Round&& round) {
    for (uint32_t poll = 0; poll < plan.polls; ++poll) {
        if (plan.stop_first && stop_requested()) return {PollEnd::kStopped, 0};
        const bool answered = round(poll);
        if (plan.stop_first && answered) return {PollEnd::kAnswered, 0};
        const int64_t span = time_spent(*this, plan.start_ms);
        if (span > plan.limit_ms) return {PollEnd::kTimedOut, span};
        if (!plan.stop_first && stop_requested()) return {PollEnd::kStopped, 0};
        if (plan.give_up_from != 0 && poll > plan.give_up_from && poll % plan.give_up_every == 0 &&
            span > plan.give_up_ms)
            return {PollEnd::kGaveUp, span};
        if (answered) return {PollEnd::kAnswered, 0};
    }
    return {PollEnd::kPollsUsed, 0};
}

void PortDetectBase::close_socket(MORL_SOCKET* holder) {
    if (!holder) {
        NT_LOGI("sockptr(%x)", 0u);
        return;
    }
    NT_LOGI("sockptr(%x)sock(%d)", nt_log_addr(holder), *holder);
    MORL_CloseSocket(*holder);
    *holder = MORL_INVALID_SOCKET;
    delete holder;
}

void PortDetectBase::create_socket() {
    m_socket.reset();
    if (m_addr_str.empty() || m_port == 0) return;

    const MORL_SOCKET s = MORL_Socket(MORL_AF_INET, m_sock_type, m_sock_proto);
    MORL_SOCKET* raw = new (std::nothrow) MORL_SOCKET(s);
    if (!raw) {
        MORL_CloseSocket(s);
        NT_LOGE("[detect_start] m_socket is null");
        return;
    }
    try {
        m_socket = std::shared_ptr<MORL_SOCKET>(raw, &PortDetectBase::close_socket);
    } catch (const std::bad_alloc&) {
        // The shared pointer has already run the deleter on `raw`.
        NT_LOGE("[detect_start] m_socket is null");
        return;
    }

    // A socket that could not be made (-1) fails here as well.
    uint32_t non_blocking = 1;
    if (MORL_IoctlSocket(s, MORL_FIONBIO, &non_blocking) != 0) {
        NT_LOGE("[detect_start] ioctl failed");
        m_socket.reset();
    }
}

void PortDetectBase::connect_and_read_name() {
    const MORL_SOCKET s = socket_fd();
    const MORL_SockAddrIn dst = make_sockaddr(m_addr, m_port);
    // A non-blocking connect is under way when this returns; its outcome is
    // read by the thread.
    m_connect_end_us.store(-1);
    m_sent_us.store(get_runtime_us());
    MORL_Connect(s, &dst, sizeof dst);
    if (m_sock_type == MORL_SOCK_STREAM) {
        // The pause watches the connect: one that ends within it (a near
        // destination) is timed when it ended, not when the pause is over.
        wait_socket(MORL_POLLOUT, kConnectPauseMs, [this](int16_t, int64_t at_us) {
            m_connect_end_us.store(at_us);
            return WaitStep::kIdle; // the rest of the pause is slept
        });
    } else {
        MORL_SleepMs(kConnectPauseMs);
    }
    MORL_SockAddrIn local{};
    int len = sizeof local;
    if (MORL_GetSockName(s, &local, &len) == 0) {
        m_local_port.store(sockaddr_port(local));
        m_local_addr.store(local.sin_addr);
    }
}

void PortDetectBase::start_probe(uint32_t net_mode) {
    create_socket();
    if (!m_socket) return;
    connect_and_read_name();

    std::shared_ptr<PortDetectBase> self = weak_from_this().lock();
    if (!self) {
        // Threads keep their probe alive by a shared reference; a probe that
        // is not owned by one can't be run.
        NT_LOGE("[detect_start] probe is not shared");
        return;
    }
    switch (m_sock_type) {
    case MORL_SOCK_STREAM:
        if (auto tcp = std::dynamic_pointer_cast<PortDetectTCP>(self)) {
            if (zeph_is_proxy_configed() == 1)
                start_detached(tcp, &PortDetectTCP::detect_recv_proxy_thread);
            else if (net_mode == 0)
                start_detached(tcp, &PortDetectTCP::detect_recv_thread);
            else
                start_detached(tcp, &PortDetectTCP::net_detect_recv_thread);
        }
        break;
    case MORL_SOCK_DGRAM:
        if (auto udp = std::dynamic_pointer_cast<PortDetectUDP>(self)) {
            if (net_mode == 0)
                start_detached(udp, &PortDetectUDP::detect_recv_thread);
            else
                start_detached(udp, &PortDetectUDP::net_detect_recv_thread);
        }
        break;
    case MORL_SOCK_RAW:
        if (auto icmp = std::dynamic_pointer_cast<PortDetectICMP>(self)) {
            start_detached(icmp, &PortDetectICMP::net_detect_send_thread);
            start_detached(icmp, &PortDetectICMP::net_detect_recv_thread);
        }
        break;
    default: break;
    }
}

int PortDetectBase::bind_port() {
    const MORL_SOCKET s = socket_fd();
    const uint32_t local_addr = zeph_get_local_addr();
    uint32_t port = get_bind_port();
    if (port < kFirstBindPort || port >= kBindPortEnd) port = kFirstBindPort;
    int ret = -1;
    for (int i = 0; i < kBindTries; ++i) {
        const MORL_SockAddrIn sa = make_sockaddr(local_addr, static_cast<uint16_t>(port));
        ret = MORL_Bind(s, &sa, sizeof sa);
        if (ret == 0) {
            m_local_port.store(static_cast<uint16_t>(port));
            break;
        }
        NT_LOGW("[detect_start] bind_failed port=%d type=%s", static_cast<int>(port), get_type());
        // The range 61000..63999 is used round: past its end the search
        // goes on from its start.
        if (++port >= kBindPortEnd) port = kFirstBindPort;
    }
    // The next probe starts after the port taken, or after the last one
    // tried when all were busy.
    uint32_t next = ret == 0 ? port + 1 : port;
    if (next >= kBindPortEnd) next = kFirstBindPort;
    set_bind_port(static_cast<uint16_t>(next));
    return ret;
}

// ---- PortDetectUDP -------------------------------------------------------------

PortDetectUDP::PortDetectUDP(uint32_t addr, uint16_t port, uint32_t protocol) : PortDetectBase(addr, port, protocol) {}

PortDetectUDP::~PortDetectUDP() { NT_LOGI("[udp_detect]leave_[%s:%d]", m_addr_str.c_str(), m_port); }

const char* PortDetectUDP::get_type() const { return m_type.c_str(); }
void PortDetectUDP::resend() { stun_request_send(); }
uint16_t PortDetectUDP::get_bind_port() { return g_udp_bind_port.load(); }
void PortDetectUDP::set_bind_port(uint16_t port) { g_udp_bind_port.store(port); }

void PortDetectUDP::stun_request_send() {
    m_trans_index %= 10;
    uint8_t* id = m_trans_ids[m_trans_index];
    ZEPH_CPYPT_RealRandom(id, zeph::stun::kTxIdSize);

    zeph::stun::Header head;
    head.type = zeph::stun::kBindingRequest;
    head.length = 0;
    if (memcpy_s(head.txid, sizeof head.txid, id, zeph::stun::kTxIdSize) != 0) NT_LOGE("secure function return error");
    zeph::ByteWriter w(m_buf, sizeof m_buf);
    zeph::stun::write_header(w, head);
    // Taken before the call, so that an answer read on another thread
    // before the call returns still finds its start.
    m_sent_us.store(get_runtime_us());
    MORL_Send(socket_fd(), m_buf, static_cast<int>(w.size()), 0);

    ++m_trans_index;
    if (m_trans_sent < 10) ++m_trans_sent;
}

bool PortDetectUDP::is_stun_response(int length) {
    // A datagram shorter than a STUN header can't be an answer; it is
    // refused with its length, the way the ICMP check refuses short packets.
    if (length < static_cast<int>(zeph::stun::kHeaderSize)) {
        if (m_stray_lines.take()) NT_LOGE("[udp_detect] pkt_len is small(%d)", length);
        return false;
    }
    const size_t len = static_cast<size_t>(length) < sizeof m_buf ? static_cast<size_t>(length) : sizeof m_buf;
    zeph::ByteReader r(m_buf, len);
    zeph::stun::Header head;
    if (!zeph::stun::read_header(r, head)) return false;

    if (head.type != zeph::stun::kBindingSuccess) {
        if (m_stray_lines.take())
            NT_LOGE("[udp_detect] BindResponse failed:%X!=%X", head.type, zeph::stun::kBindingSuccess);
        return false;
    }
    if (head.cookie != zeph::stun::kMagicCookie) {
        if (m_stray_lines.take())
            NT_LOGE("[udp_detect] Cookie failed:%X!=%X", head.cookie, zeph::stun::kMagicCookie);
        return false;
    }
    // An answer to any of the last 10 requests counts.
    for (uint32_t i = 0; i < m_trans_sent && i < 10; ++i) {
        if (std::memcmp(head.txid, m_trans_ids[i], zeph::stun::kTxIdSize) == 0) return true;
    }
    if (m_stray_lines.take()) NT_LOGE("[udp_detect] TransactionID failed");
    return false;
}

void PortDetectUDP::detect_recv_thread() {
    if (m_resend_ms == 0 || m_sleep_ms == 0) {
        set_result(PROBE_FAILED);
        NT_LOGE("[tcp_detect]resend_ms(%d) or sleep_ms(%d) is 0", m_resend_ms, m_sleep_ms);
        return;
    }
    set_result(PROBE_RUNNING);
    const uint32_t cycles = m_time_out / m_resend_ms;
    uint32_t polls = m_resend_ms / m_sleep_ms;
    if (polls > kMaxPolls) polls = kMaxPolls;
    NT_LOGI("[udp_detect] [%s:%d][%x:%d] resend=%d(ms) time_out=%d(ms) sleep=%d(ms)", m_addr_str.c_str(), m_port,
            get_local_addr() & 0xFFFFFF, get_local_port(), m_resend_ms, m_time_out, m_sleep_ms);
    const int64_t start = get_runtime_win();

    const PollPlan plan{polls, start, 2 * static_cast<int64_t>(m_time_out)};
    for (uint32_t cycle = 0; cycle < cycles; ++cycle) {
        stun_request_send();
        NT_LOGI("[udp_detect] port=%d send times=%d...", m_port, cycle + 1);
        const PollOutcome out = poll_until_stop(plan, [this](uint32_t) {
            int64_t answer_us = -1;
            wait_socket(MORL_POLLIN, m_sleep_ms, [&](int16_t, int64_t) { return drain_stun(&answer_us); });
            return answer_us >= 0;
        });
        switch (out.end) {
        case PollEnd::kTimedOut:
            set_result(PROBE_TIMEOUT);
            NT_LOGE("[udp_detect]leave_thread[%s:%d] timeout span_time=%d", m_addr_str.c_str(), m_port,
                    static_cast<int>(out.span_ms));
            return;
        case PollEnd::kStopped:
            set_result(PROBE_TIMEOUT);
            NT_LOGI("[udp_detect] port=%d to be finished result=%d", m_port, get_result());
            return;
        case PollEnd::kAnswered:
            NT_LOGI("[udp_detect] port=%d success", m_port);
            set_result(PROBE_REACHED);
            return;
        default: break;
        }
    }
    NT_LOGI("[udp_detect] port=%d timeout", m_port);
    set_result(PROBE_TIMEOUT);
}

PortDetectBase::WaitStep PortDetectUDP::drain_stun(int64_t* answer_us) {
    for (int n = 0; n < kMaxReadsPerWake; ++n) {
        const int64_t at_us = get_runtime_us();
        const int len = MORL_Recv(socket_fd(), m_buf, sizeof m_buf, 0);
        if (len <= 0) return n == 0 ? WaitStep::kIdle : WaitStep::kMore;
        if (is_stun_response(len)) {
            *answer_us = at_us;
            return WaitStep::kDone;
        }
    }
    return WaitStep::kMore;
}

void PortDetectUDP::net_detect_recv_thread() {
    const int64_t start = get_runtime_win();
    NT_LOGI("[net_udp] start_time [%s:%d][%x:%d] time_out=%d(ms) sleep=%d(ms)", m_addr_str.c_str(), m_port,
            get_local_addr() & 0xFFFFFF, get_local_port(), kNetPollMs, m_sleep_ms);
    if (m_sleep_ms == 0) {
        NT_LOGE("[net_udp]sleep_ms is 0");
        return;
    }
    stun_request_send();

    // The answer is timed when it is read, from the send call: no poll
    // interval is added to it.
    int64_t answer_us = -1;
    const PollOutcome out = poll_until_stop(PollPlan{kNetPollMs / m_sleep_ms, start, kNetClockLimitMs}, [&](uint32_t) {
        wait_socket(MORL_POLLIN, m_sleep_ms, [&](int16_t, int64_t) { return drain_stun(&answer_us); });
        return answer_us >= 0;
    });
    switch (out.end) {
    case PollEnd::kTimedOut:
        set_result(PROBE_TIMEOUT);
        NT_LOGE("[net_udp]leave_thread[%s:%d] timeout span_time=%d", m_addr_str.c_str(), m_port,
                static_cast<int>(out.span_ms));
        return;
    case PollEnd::kStopped:
        set_result(PROBE_TIMEOUT);
        NT_LOGI("[net_udp]leave_thread[%s:%d] to be finished result=%d", m_addr_str.c_str(), m_port, get_result());
        return;
    case PollEnd::kAnswered:
        set_delay(delay_ms(m_sent_us.load(), answer_us));
        set_result(PROBE_REACHED);
        NT_LOGI("[net_udp]leave_thread spend_time [%s:%d] delay=%d(ms) success", m_addr_str.c_str(), m_port,
                get_delay());
        return;
    default: break;
    }
    set_result(PROBE_TIMEOUT);
    NT_LOGI("[net_udp]leave_thread[%s:%d] timeout", m_addr_str.c_str(), m_port);
}

// ---- PortDetectTCP -------------------------------------------------------------

PortDetectTCP::PortDetectTCP(uint32_t addr, uint16_t port, uint32_t protocol) : PortDetectBase(addr, port, protocol) {}

PortDetectTCP::~PortDetectTCP() {
    char dst[32] = {0};
    ipv4_int2str(dst, sizeof dst, m_proxy_dst_addr);
    NT_LOGI("[tcp_detect]leave_[%s:%d][%s:%d]", m_addr_str.c_str(), m_port, dst, m_proxy_dst_port);
}

const char* PortDetectTCP::get_type() const { return m_type.c_str(); }
uint16_t PortDetectTCP::get_bind_port() { return g_tcp_bind_port.load(); }
void PortDetectTCP::set_bind_port(uint16_t port) { g_tcp_bind_port.store(port); }

void PortDetectTCP::resend() {
    create_socket();
    connect_and_read_name();
}

bool PortDetectTCP::wait_connect_end(uint32_t wait_ms, int64_t* end_us) {
    return wait_socket(MORL_POLLOUT, wait_ms, [this, end_us](int16_t, int64_t at_us) {
        const int64_t seen = m_connect_end_us.load();
        if (end_us) *end_us = seen >= 0 ? seen : at_us;
        return WaitStep::kDone;
    });
}

int PortDetectTCP::http_proxy_connect() {
    char text[16] = {0};
    ipv4_int2str(text, sizeof text, m_proxy_dst_addr);
    NT_LOGI("[http_proxy_connect] addr=%s port=%d", text, m_proxy_dst_port);
    return zeph_http_proxy_connect_ex(0, socket_fd(), text, m_proxy_dst_port);
}

void PortDetectTCP::detect_recv_thread() {
    if (m_tcp_resend_ms == 0 || m_sleep_ms == 0) {
        set_result(PROBE_FAILED);
        NT_LOGE("[tcp_detect]resend_ms(%d) sleep_ms(%d) is 0", m_tcp_resend_ms, m_sleep_ms);
        return;
    }
    if (socket_fd() == MORL_INVALID_SOCKET) {
        set_result(PROBE_TIMEOUT);
        NT_LOGE("[tcp_detect]leave_thread socket is invalid");
        return;
    }
    set_result(PROBE_RUNNING);
    const uint32_t cycles = m_time_out / m_tcp_resend_ms;
    NT_LOGI("[tcp_detect][%s:%d][%x:%d] resend=%d(ms) time_out=%d(ms) sleep=%d(ms)", m_addr_str.c_str(), m_port,
            get_local_addr() & 0xFFFFFF, get_local_port(), m_tcp_resend_ms, m_time_out, m_sleep_ms);
    const int64_t start = get_runtime_win();

    for (uint32_t cycle = 0; cycle < cycles; ++cycle) {
        const uint32_t polls = m_tcp_resend_ms / m_sleep_ms;
        NT_LOGI("[tcp_detect][%s:%d] send times=%d...", m_addr_str.c_str(), m_port, cycle + 1);
        PollPlan plan{polls <= kMaxPolls ? polls : 0, start, 2 * static_cast<int64_t>(m_time_out)};
        plan.stop_first = true;
        const PollOutcome out =
            poll_until_stop(plan, [this](uint32_t) { return wait_connect_end(m_sleep_ms, nullptr); });
        switch (out.end) {
        case PollEnd::kStopped:
            set_result(PROBE_FAILED);
            NT_LOGI("[tcp_detect]leave_thread[%s:%d] to be finished result=%d", m_addr_str.c_str(), m_port,
                    get_result());
            return;
        case PollEnd::kAnswered: {
            int err = 0;
            const int ret = read_so_error(socket_fd(), err);
            if (ret < 0 || err != 0) {
                set_result(PROBE_FAILED);
                NT_LOGE("[tcp_detect]leave_thread[%s:%d] MORL_GetSockOpt failed ret=%d error=%d", m_addr_str.c_str(),
                        m_port, ret, err);
            } else {
                set_result(PROBE_REACHED);
                NT_LOGI("[tcp_detect]leave_thread[%s:%d] success", m_addr_str.c_str(), m_port);
            }
            return;
        }
        case PollEnd::kTimedOut:
            set_result(PROBE_TIMEOUT);
            NT_LOGE("[tcp_detect]leave_thread[%s:%d] timeout span_time=%d", m_addr_str.c_str(), m_port,
                    static_cast<int>(out.span_ms));
            return;
        default: break;
        }
        // The cycle's polls are used up: a fresh connection attempt to the
        // same destination, from a new local port.
        resend();
    }
    set_result(PROBE_TIMEOUT);
    NT_LOGI("[tcp_detect]leave_thread[%s:%d] timeout", m_addr_str.c_str(), m_port);
}

void PortDetectTCP::net_detect_recv_thread() {
    if (socket_fd() == MORL_INVALID_SOCKET) {
        set_result(PROBE_TIMEOUT);
        NT_LOGE("[net_tcp]leave_thread socket is invalid");
        return;
    }
    set_result(PROBE_RUNNING);
    const int64_t start = get_runtime_win();
    NT_LOGI("[net_tcp] start_time [%s:%d] [%x:%d] time_out=%d(ms) sleep=%d(ms)", m_addr_str.c_str(), m_port,
            get_local_addr() & 0xFFFFFF, get_local_port(), kNetPollMs, m_sleep_ms);
    if (m_sleep_ms == 0) {
        NT_LOGE("[net_tcp]sleep_ms is 0");
        return;
    }

    PollPlan plan{kNetPollMs / m_sleep_ms, start, kNetClockLimitMs};
    plan.stop_first = true;
    // The handshake is timed from the connect call to the moment the
    // socket turned writable.
    int64_t end_us = 0;
    const PollOutcome out = poll_until_stop(plan, [&](uint32_t) { return wait_connect_end(m_sleep_ms, &end_us); });
    switch (out.end) {
    case PollEnd::kStopped:
        set_result(PROBE_FAILED);
        NT_LOGI("[net_tcp]leave_thread [%s:%d] to be finished result=%d", m_addr_str.c_str(), m_port, get_result());
        return;
    case PollEnd::kAnswered: {
        int err = 0;
        const int ret = read_so_error(socket_fd(), err);
        if (ret < 0 || err != 0) {
            set_result(PROBE_FAILED);
            NT_LOGE("[net_tcp]leave_thread [%s:%d] MORL_GetSockOpt failed ret=%d error=%d", m_addr_str.c_str(), m_port,
                    ret, err);
        } else {
            set_delay(delay_ms(m_sent_us.load(), end_us));
            set_result(PROBE_REACHED);
            NT_LOGI("[net_tcp]leave_thread [%s:%d] delay=%d(ms) success", m_addr_str.c_str(), m_port, get_delay());
        }
        return;
    }
    case PollEnd::kTimedOut:
        set_result(PROBE_TIMEOUT);
        NT_LOGE("[net_tcp]leave_thread[%s:%d] timeout span_time=%d", m_addr_str.c_str(), m_port,
                static_cast<int>(out.span_ms));
        return;
    default: break;
    }
    set_result(PROBE_TIMEOUT);
    NT_LOGI("[net_tcp]leave_thread [%s:%d] timeout", m_addr_str.c_str(), m_port);
}

void PortDetectTCP::detect_recv_proxy_thread() {
    if (socket_fd() == MORL_INVALID_SOCKET) {
        set_result(PROBE_TIMEOUT);
        NT_LOGE("[tcp_detect_proxy]leave_thread socket is invalid");
        return;
    }
    set_result(PROBE_RUNNING);
    const int64_t start = get_runtime_win();
    const char* svr = m_addr_str.c_str();
    const unsigned loc = get_local_addr() & 0xFFFFFF;
    NT_LOGI("[tcp_detect_proxy] start_time port=%d loc[%x:%d] svr[%s:%d] sleep=%d(ms)", m_proxy_dst_port, loc,
            get_local_port(), svr, m_port, kProxySleepMs);

    PollPlan plan{kProxyPolls, start, kProxyClockLimitMs};
    plan.stop_first = true;
    int64_t end_us = 0;
    const PollOutcome out = poll_until_stop(plan, [&](uint32_t) { return wait_connect_end(kProxySleepMs, &end_us); });
    switch (out.end) {
    case PollEnd::kStopped:
        set_result(PROBE_FAILED);
        NT_LOGI("[tcp_detect_proxy]leave_thread port=%d loc[%x:%d] svr[%s:%d] to be finished result=%d",
                m_proxy_dst_port, loc, get_local_port(), svr, m_port, get_result());
        return;
    case PollEnd::kAnswered: {
        int err = 0;
        const int ret = read_so_error(socket_fd(), err);
        if (ret < 0 || err != 0) {
            set_result(PROBE_FAILED);
            NT_LOGE("[tcp_detect_proxy]leave_thread port=%d loc[%x:%d] svr[%s:%d] MORL_GetSockOpt failed "
                    "ret=%d error=%d",
                    m_proxy_dst_port, loc, get_local_port(), svr, m_port, ret, err);
            return;
        }
        const int64_t ask_us = get_runtime_us();
        const int connected = http_proxy_connect();
        if (connected != 0) {
            NT_LOGE("[tcp_detect_proxy] port=%d loc[%x:%d] svr[%s:%d] failed(%d)", m_proxy_dst_port, loc,
                    get_local_port(), svr, m_port, connected);
            set_result(PROBE_PROXY_FAILED);
            NT_LOGI("[tcp_detect_proxy]leave_thread");
            return;
        }
        // The handshake with the proxy and the whole CONNECT exchange,
        // without the time the connected socket waited for this thread.
        set_delay(delay_ms(0, (end_us - m_sent_us.load()) + (get_runtime_us() - ask_us)));
        NT_LOGI("[tcp_detect_proxy] spend_time port=%d loc[%x:%d] svr[%s:%d] delay=%d(ms) success", m_proxy_dst_port,
                loc, get_local_port(), svr, m_port, get_delay());
        set_result(PROBE_REACHED);
        NT_LOGI("[tcp_detect_proxy]leave_thread");
        return;
    }
    case PollEnd::kTimedOut:
        set_result(PROBE_TIMEOUT);
        NT_LOGE("[tcp_detect_proxy]leave_thread port=%d loc[%x:%d] svr[%s:%d] timeout span_time=%d",
                m_proxy_dst_port, loc, get_local_port(), svr, m_port, static_cast<int>(out.span_ms));
        return;
    default: break;
    }
    set_result(PROBE_TIMEOUT);
    NT_LOGI("[tcp_detect_proxy]leave_thread port=%d loc[%x:%d] svr[%s:%d] timeout", m_proxy_dst_port, loc,
            get_local_port(), svr, m_port);
}

// ---- PortDetectICMP ------------------------------------------------------------

PortDetectICMP::PortDetectICMP(uint32_t addr, uint16_t port, uint32_t protocol) : PortDetectBase(addr, port, protocol) {
    m_sock_type = MORL_SOCK_RAW;
    m_sock_proto = MORL_IPPROTO_ICMP;
    ZEPH_CPYPT_RealRandom(&m_req_id, sizeof m_req_id);
    ZEPH_CPYPT_RealRandom(&m_seq_base, sizeof m_seq_base);
    // Slots carry the results of echoes 1..5; they never own a socket.
    for (int i = 1; i < kIcmpEchoes; ++i) m_slots[i] = std::make_shared<PortDetectBase>(addr, port, protocol);
}

PortDetectICMP::~PortDetectICMP() { NT_LOGI("[icmp_detect]leave_[%s:%d]", m_addr_str.c_str(), m_port); }

const char* PortDetectICMP::get_type() const { return m_type.c_str(); }

std::shared_ptr<PortDetectBase> PortDetectICMP::get_slot(int i) {
    if (i < 1 || i >= kIcmpEchoes) return nullptr;
    return m_slots[i];
}

PortDetectBase* PortDetectICMP::get_probe(int i) {
    if (i == 0) return this;
    if (i < 1 || i >= kIcmpEchoes) return nullptr;
    return m_slots[i].get();
}

void PortDetectICMP::send_icmp(int i) {
    uint8_t packet[zeph::icmp::kEchoRequestSize];
    zeph::ByteWriter w(packet, sizeof packet);
    const uint16_t seq = static_cast<uint16_t>(m_seq_base + i);
    zeph::icmp::write_echo_request(w, m_req_id, seq, static_cast<uint32_t>(get_runtime_win()));
    const MORL_SockAddrIn dst = make_sockaddr(m_addr, m_port);
    MORL_Sendto(socket_fd(), packet, static_cast<int>(w.size()), 0, &dst, sizeof dst);
}

bool PortDetectICMP::is_icmp_response(int length) {
    zeph::icmp::EchoHead head;
    size_t len = length < 0 ? 0 : static_cast<size_t>(length);
    if (len > sizeof m_buf) len = sizeof m_buf;
    if (!zeph::icmp::read_echo_head(m_buf, len, head)) {
        if (m_stray_lines.take()) NT_LOGE("[icmp_detect] pkt_len is small(%d)", length);
        return false;
    }
    if (head.type != zeph::icmp::kEchoReply) {
        if (m_stray_lines.take()) NT_LOGE("[icmp_detect] pkt_type is invalid(%d)", head.type);
        return false;
    }
    if (head.id != m_req_id) {
        if (m_stray_lines.take()) NT_LOGE("[icmp_detect] req_id is invalid(%d!=%d)", head.id, m_req_id);
        return false;
    }
    // A plain comparison: sequence numbers that wrapped past 65535 on the
    // wire are refused. Base + 6 is let through.
    const uint32_t seq = head.seq;
    const uint32_t base = m_seq_base;
    if (seq < base || seq > base + kIcmpEchoes) {
        if (m_stray_lines.take()) NT_LOGE("[icmp_detect] seq_no is invalid(%d!=%d)", head.seq, m_seq_base);
        return false;
    }
    NT_LOGI("[icmp_detect] icmp success (reqid=%d, seq=%d)", head.id, head.seq);
    return true;
}

void PortDetectICMP::net_detect_send_thread() {
    int i = 0;
    // Each echo's time is taken as it is handed to the socket, before the
    // call, so that a reply read at once still finds it.
    for (; i < kIcmpEchoes - 1; ++i) {
        m_send_times[i].store(get_runtime_us());
        send_icmp(i);
        MORL_SleepMs(kIcmpSendGapMs);
        if (m_exit.load()) break;
    }
    m_send_times[i].store(get_runtime_us());
    send_icmp(i);
    NT_LOGI("[net_icmp]leave_thread");
}

PortDetectBase::WaitStep PortDetectICMP::drain_icmp(uint32_t& accepted) {
    const char* addr = m_addr_str.c_str();
    for (int n = 0; n < kMaxReadsPerWake; ++n) {
        const int64_t at_us = get_runtime_us();
        MORL_SockAddrIn from{};
        int from_len = sizeof from;
        const int len = MORL_Recvfrom(socket_fd(), m_buf, sizeof m_buf, 0, &from, &from_len);
        if (len <= 0) return n == 0 ? WaitStep::kIdle : WaitStep::kMore;
        if (!is_icmp_response(len)) continue;

        zeph::icmp::EchoHead head;
        zeph::icmp::read_echo_head(m_buf, static_cast<size_t>(len), head);
        // Replies are matched by sequence number, in any order. Base + 6
        // passes the check but belongs to no echo: it is timed as 1 ms and
        // counts towards the six, as a duplicate does.
        const int index = head.seq - m_seq_base;
        const uint32_t delay = index < kIcmpEchoes ? delay_ms(m_send_times[index].load(), at_us) : 1;
        if (index < kIcmpEchoes) {
            PortDetectBase* probe = get_probe(index);
            probe->set_delay(delay);
            probe->set_result(PROBE_REACHED);
        }
        NT_LOGI("[net_icmp]recv_sucess ip[%s] index[%d] time[%d]", addr, index, delay);
        if (++accepted >= static_cast<uint32_t>(kIcmpEchoes)) return WaitStep::kDone;
    }
    return WaitStep::kMore;
}

void PortDetectICMP::net_detect_recv_thread() {
    const char* addr = m_addr_str.c_str();
    NT_LOGI("[net_icmp] start_time [%s] time_out=%d(ms) sleep=%d(ms)", addr, kNetPollMs, kIcmpSleepMs);
    const int64_t start = get_runtime_win();
    uint32_t accepted = 0;

    PollPlan plan{kIcmpPolls, start, kNetClockLimitMs};
    plan.give_up_from = kIcmpSoftCheckFrom;
    plan.give_up_every = kIcmpSoftCheckEvery;
    plan.give_up_ms = kIcmpSoftLimitMs;
    const PollOutcome out = poll_until_stop(plan, [&](uint32_t) {
        // Replies are booked as they are read, each timed at its reading.
        wait_socket(MORL_POLLIN, kIcmpSleepMs, [&](int16_t, int64_t) { return drain_icmp(accepted); });
        return accepted >= static_cast<uint32_t>(kIcmpEchoes);
    });
    switch (out.end) {
    case PollEnd::kTimedOut:
        set_result(PROBE_TIMEOUT);
        NT_LOGE("[net_icmp]leave_thread[%s] timeout span_time=%d", addr, static_cast<int>(out.span_ms));
        return;
    case PollEnd::kStopped:
        set_result(PROBE_TIMEOUT);
        NT_LOGI("[net_icmp]leave_thread[%s] to be finished result=%d", addr, get_result());
        return;
    case PollEnd::kAnswered:
        NT_LOGI("[net_icmp]leave_thread spend_time [%s] delay=%d(ms) success", addr,
                static_cast<int>(time_spent(*this, start)));
        return;
    default: break;
    }
    NT_LOGI("[net_icmp]leave_thread[%s] timeout", addr);
}
