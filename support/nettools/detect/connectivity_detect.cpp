// DetectConnectivity: the constructor, `start` and the first probes run on
// the caller's thread; every event after them (packets, proxy results, DNS
// answers, timer expiries) and the finishing run on the message thread of
// the detection runtime. See connectivity_detect.h.
#include "detect/connectivity_detect.h"

#include <cstdio>

#include "inc/net_tools_msg.h"
#include "net_tools_util/net_tools_util.h"
#include "os_adapter/morl_os.h"

namespace {
constexpr int kIpv4Family = 2;        // MORL_Inet_Pton's family of IPv4
constexpr uint32_t kIpv4Bytes = 4;
constexpr size_t kResultTextSize = 2048;
constexpr uint8_t kMaxDetectType = 2; // ICE; above it the STUN probe is sent
constexpr size_t kDottedSize = 16;
} // namespace

std::atomic<uint32_t> DetectConnectivity::s_instances{0};

DetectConnectivity::DetectConnectivity(const std::vector<ConnectivitySite>& sites, ConnectivityNotify notify)
    : m_notify(notify) {
    ++s_instances;
    for (const ConnectivitySite& site : sites) {
        if (m_targets.size() == CONNECTIVITY_MAX_TARGETS) {
            NT_LOGW("detect count(%d) more than %d", static_cast<int>(sites.size()),
                    static_cast<int>(CONNECTIVITY_MAX_TARGETS));
            break;
        }
        ConnectivityTarget t;
        t.port = site.port;
        t.protocol = site.protocol;
        t.no_proxy = site.no_proxy;
        t.detect_type = site.detect_type;
        t.addr = site.addr;
        m_targets.push_back(std::move(t));
    }
}

DetectConnectivity::~DetectConnectivity() {
    for (ConnectivityTarget& t : m_targets) t.sock.reset();
    if (m_send_timer != 0) MORL_FreeRelTimer(m_send_timer);
    if (m_control_timer != 0) MORL_FreeRelTimer(m_control_timer);
    NT_LOGI("~DetectConnectivity");
    --s_instances;
}

uint32_t DetectConnectivity::get_recv_msg_id() { return NET_TOOLS_MSG_CONNECTIVITY_RECV; }

int32_t DetectConnectivity::start(uint32_t num, std::shared_ptr<DetectConnectivity> self) {
    // Events wait here until this start has returned.
    const auto barrier = hold_start_barrier();
    m_num = num;
    m_control_timer = MORL_CreateRelTimerM(NetToolsTimerSave::timeout, MORL_TIMER_OWNED, "DetectConnectivity::start");
    if (m_control_timer == 0) {
        NT_LOGE("CreateRelTimer process control Timer failed!");
        return CONNECTIVITY_ERR;
    }
    m_send_timer = MORL_CreateRelTimerM(NetToolsTimerSave::timeout, MORL_TIMER_OWNED, "DetectConnectivity::start");
    if (m_send_timer == 0) {
        NT_LOGE("CreateRelTimer send schedule Timer failed!");
        MORL_FreeRelTimer(m_control_timer);
        m_control_timer = 0;
        return CONNECTIVITY_ERR;
    }
    m_self = std::move(self);
    bool unknown = false;
    for (const ConnectivityTarget& t : m_targets) unknown = unknown || t.ip == 0;
    set_detect_status(unknown ? CONNECTIVITY_RESOLVING : CONNECTIVITY_DETECTING);
    return CONNECTIVITY_OK;
}

void DetectConnectivity::arm(uint64_t timer, uint32_t delay) {
    if (delay == 0) return;
    g_timer_save.start_timer(timer, delay, m_self);
}

void DetectConnectivity::set_detect_status(int32_t status) {
    m_detect_status = status;
    switch (status) {
    case CONNECTIVITY_RESOLVING:
        NT_LOGI("detect_status: in dns resolving");
        if (resolve_addrs() == 0) return; // literal addresses only: already detecting
        arm(m_control_timer, m_dns_timeout);
        return;
    case CONNECTIVITY_DETECTING:
        NT_LOGI("detect_status: in detecting");
        start_detect();
        arm(m_control_timer, m_detect_timeout);
        return;
    case CONNECTIVITY_FIRST_RESP:
        NT_LOGI("detect_status: first resp reached");
        arm(m_control_timer, m_first_resp_timeout);
        return;
    case CONNECTIVITY_FINISHED:
        NT_LOGI("detect_status: finished");
        finish_detect();
        return;
    default: return;
    }
}

int32_t DetectConnectivity::resolve_addrs() {
    std::vector<std::string> names;
    for (ConnectivityTarget& t : m_targets) {
        if (t.ip != 0) {
            char text[kDottedSize] = {};
            ipv4_int2str(text, sizeof text, t.ip);
            t.addr = text;
        } else if (!t.addr.empty()) {
            uint32_t ip = 0;
            if (MORL_Inet_Pton(kIpv4Family, t.addr.c_str(), &ip, kIpv4Bytes) >= 1 && ip != 0) {
                t.ip = ip;
            } else {
                names.push_back(t.addr);
            }
        }
    }
    if (names.empty()) {
        set_detect_status(CONNECTIVITY_DETECTING);
        return 0;
    }
    g_asyn_dns.start_asyn_dns(names, m_self);
    return 1;
}

bool DetectConnectivity::through_proxy(const ConnectivityTarget& target) const {
    return target.no_proxy == 0 && target.protocol == DETECT_TRANS_TCP && zeph_is_use_proxy() != 0;
}

void DetectConnectivity::open_target(ConnectivityTarget& t) {
    std::shared_ptr<DetectSocket> sock = SocketFactory<DetectSocket>::instance().get_socket(get_trans_str(t.protocol));
    if (!sock) return;
    sock->set_detect_type(t.detect_type <= kMaxDetectType ? uint32_t{t.detect_type} : uint32_t{DETECT_PROTO_STUN});
    const uint32_t host_ip = MORL_Htonl(t.ip);
    sock->set_dest_addr(host_ip, t.port);
    const bool proxied = through_proxy(t);
    DetectSocketBody body{};
    body.dest_ip = host_ip;
    body.dest_port = t.port;
    if (proxied) {
        body.proxy_ip = MORL_Htonl(zeph_get_proxy_addr());
        body.proxy_port = zeph_get_proxy_port();
        sock->set_proxy_addr(body.proxy_ip, body.proxy_port);
    }
    if (!sock->create()) {
        // The target stays closed; no later pass tries a socket without a descriptor.
        NT_LOGE("create sock error");
        return;
    }
    t.sock = std::move(sock);
    t.start_time = nt_stored_time(static_cast<uint64_t>(get_runtime_current()));
    // The first probe leaves before the socket is handed over, so that no
    // other thread touches the socket while this one uses it. An answer
    // waits in the socket until the receive thread watches it; for TCP this
    // starts the non-blocking connect (a proxied one is the proxy service's).
    if (!proxied) send_buf(t.sock, m_send_seq);

    body.sock_key = reinterpret_cast<uint64_t>(&t.sock);
    body.detect_key = reinterpret_cast<uint64_t>(&m_self);
    DetectPtrKeeper::keep_ptr(&t.sock);
    DetectPtrKeeper::keep_ptr(&m_self);
    const uint32_t msg = proxied ? NET_TOOLS_MSG_HTTP_PROXY_CONNECT : NET_TOOLS_MSG_CREATE_SOCKET;
    if (post_detect_msg(msg, 0, 0, &body, sizeof body) != 0) {
        // Never taken by the message thread: the kept pointers go again.
        DetectPtrKeeper::release_ptr(&t.sock, false);
        DetectPtrKeeper::release_ptr(&m_self, false);
    }
    NT_LOGI("start a connectivity detect addr(%s:%u)trans(%d)detect(%d)proxy(%d)", t.addr.c_str(),
            static_cast<uint32_t>(t.port), static_cast<int>(t.protocol), static_cast<int>(t.detect_type),
            static_cast<int>(zeph_get_proxy_port()));
}

void DetectConnectivity::start_detect() {
    if (m_detect_status >= CONNECTIVITY_FIRST_RESP) {
        NT_LOGW("aleady in connectivity detecting");
        return;
    }
    bool sent = false;
    for (ConnectivityTarget& t : m_targets) {
        if (t.ip == 0 || t.sock) continue;
        open_target(t);
        sent = sent || (t.sock && !through_proxy(t));
    }
    if (sent) arm(m_send_timer, m_send_interval);
    ++m_send_seq;
}

void DetectConnectivity::send_buf(const std::shared_ptr<DetectSocket>& sock, uint32_t seq) {
    if (!sock || sock->get_fd() == MORL_INVALID_SOCKET) {
        NT_LOGE("fd is null");
        return;
    }
    NT_LOGD("fd(%d)seq(%d)", static_cast<int>(sock->get_fd()), static_cast<int>(seq));
    sock->send_buf(seq);
}

void DetectConnectivity::send_schedule_timeout() {
    NT_LOGD("seq(%u)", m_send_seq);
    bool pending = false;
    for (ConnectivityTarget& t : m_targets) {
        if (t.open != 0) continue;
        pending = true;
        // A TCP target is never sent to twice: its connect is under way.
        if (t.sock && t.protocol != DETECT_TRANS_TCP) send_buf(t.sock, m_send_seq);
    }
    if (!pending) {
        g_timer_save.stop_timer(m_send_timer);
        g_timer_save.stop_timer(m_control_timer);
        NT_LOGI("stop timer");
        set_detect_status(CONNECTIVITY_FINISHED);
        return;
    }
    arm(m_send_timer, m_send_interval);
    ++m_send_seq;
}

void DetectConnectivity::process_control_timeout() {
    NT_LOGD("detect_status(%d)", static_cast<int>(m_detect_status));
    switch (m_detect_status) {
    case CONNECTIVITY_RESOLVING:
        // Targets whose names did not resolve take no part from here on.
        set_detect_status(CONNECTIVITY_DETECTING);
        g_asyn_dns.stop_asyn_dns(this);
        return;
    case CONNECTIVITY_DETECTING: set_detect_status(CONNECTIVITY_FIRST_RESP); return;
    case CONNECTIVITY_FIRST_RESP: set_detect_status(CONNECTIVITY_FINISHED); return;
    default: return;
    }
}

bool DetectConnectivity::check_all_open() {
    for (const ConnectivityTarget& t : m_targets) {
        if (t.open == 0) return false;
    }
    set_detect_status(CONNECTIVITY_FINISHED);
    return true;
}

void DetectConnectivity::finish_detect() {
    int32_t fds[CONNECTIVITY_MAX_TARGETS] = {};
    uint32_t count = 0;
    for (const ConnectivityTarget& t : m_targets) {
        if (count == CONNECTIVITY_MAX_TARGETS) break;
        if (t.sock && t.sock->get_fd() != MORL_INVALID_SOCKET) fds[count++] = t.sock->get_fd();
    }
    if (count != 0) {
        post_free_sockets(this, fds, count);
        NT_LOGD("destory %d sock shared_count detect(%d)", static_cast<int>(count),
                static_cast<int>(m_self.use_count()));
    }
    g_timer_save.stop_timer(m_send_timer);
    g_timer_save.stop_timer(m_control_timer);
    calc_any_port();
    DetectPtrKeeper::release_ptr(&m_self, true);
    // The event that called us holds the object until it returns.
    std::shared_ptr<DetectConnectivity> last = std::move(m_self);
}

void DetectConnectivity::calc_any_port() {
    ConnectivityResult result;
    result.num = m_num;
    result.notify = nullptr;
    const uint32_t now = static_cast<uint32_t>(get_runtime_current());
    char text[kResultTextSize] = {};
    size_t len = 0;
    for (const ConnectivityTarget& t : m_targets) {
        ConnectivitySite site;
        site.port = t.port;
        site.protocol = t.protocol;
        site.no_proxy = t.no_proxy;
        site.detect_type = t.detect_type;
        site.open = t.open;
        site.addr = t.addr;
        // A target that never had a socket was not measured.
        site.delay = t.start_time == 0 ? 0 : nt_measured_delay(get_time_diff(t.start_time, now));
        result.sites.push_back(std::move(site));
        if (len < sizeof text) {
            const int n = snprintf(text + len, sizeof text - len, "%u:%s,", static_cast<uint32_t>(t.port),
                                   t.open != 0 ? "open" : "close");
            if (n > 0) len += static_cast<size_t>(n);
        }
    }
    if (len >= 1 && len < sizeof text) {
        text[len - 1] = ']';
    } else {
        NT_LOGE("secure function return error len=%d", static_cast<int>(len));
    }
    if (m_notify != nullptr) m_notify(&result);
    NT_LOGI("[connectivity_detect] return num=%08x ret=%s", m_num, text);
}

// ---- events (message thread) -----------------------------------------------------------------

ConnectivityTarget* DetectConnectivity::find_target(const DetectSocket* sock) {
    for (ConnectivityTarget& t : m_targets) {
        if (t.sock && t.sock.get() == sock) return &t;
    }
    return nullptr;
}

void DetectConnectivity::recv_pkt(const uint8_t*, uint32_t len, std::shared_ptr<DetectSocket> sock,
                                  std::shared_ptr<DetectBase>) {
    pass_start_barrier();
    NT_LOGD("len(%d)", static_cast<int>(len));
    if (m_detect_status == CONNECTIVITY_FINISHED) return;
    ConnectivityTarget* t = find_target(sock.get());
    if (t == nullptr || t->sock->get_fd() == MORL_INVALID_SOCKET) return;
    // Any data on the target's socket (or a completed TCP connect) is an answer.
    t->open = 1;
    if (m_detect_status < CONNECTIVITY_FIRST_RESP) set_detect_status(CONNECTIVITY_FIRST_RESP);
    const int32_t fd = t->sock->get_fd();
    post_free_sockets(this, &fd, 1);
    check_all_open();
}

void DetectConnectivity::recv_http_over_proxy_resp(std::shared_ptr<DetectSocket> sock, std::shared_ptr<DetectBase>,
                                                   uint32_t result) {
    pass_start_barrier();
    NT_LOGD("result(%d)", static_cast<int>(result));
    if (m_detect_status == CONNECTIVITY_FINISHED) return;
    ConnectivityTarget* t = find_target(sock.get());
    if (t == nullptr) return;
    if (result == 0) t->open = 1;
    if (m_detect_status < CONNECTIVITY_FIRST_RESP) set_detect_status(CONNECTIVITY_FIRST_RESP);
    check_all_open();
}

void DetectConnectivity::recv_dns(const char* host, uint32_t addr) {
    pass_start_barrier();
    NT_LOGD("host(%s)", host != nullptr ? host : "null");
    if (host == nullptr || addr == 0) {
        NT_LOGE("para is invalid");
        return;
    }
    // Only the resolving phase takes answers: a late one changes nothing.
    if (m_detect_status != CONNECTIVITY_RESOLVING) return;
    for (ConnectivityTarget& t : m_targets) {
        if (t.ip == 0 && t.addr == host) t.ip = addr;
    }
    for (const ConnectivityTarget& t : m_targets) {
        if (t.ip == 0) return;
    }
    g_asyn_dns.stop_asyn_dns(this);
    set_detect_status(CONNECTIVITY_DETECTING);
}

void DetectConnectivity::recv_timeout(uint64_t timer) {
    pass_start_barrier();
    if (timer == m_control_timer) {
        process_control_timeout();
    } else if (timer == m_send_timer) {
        if (m_detect_status != CONNECTIVITY_FINISHED) send_schedule_timeout();
    } else {
        NT_LOGE("timer_id(0x%x) is not exist", static_cast<uint32_t>(timer));
    }
}
