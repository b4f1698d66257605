// DetectSimpleQos and NetDetectDataNew. `start` runs on the caller's thread;
// every other method of DetectSimpleQos runs on the message thread of the
// detection runtime (see the header). NetDetectDataNew runs on any thread.
#include "detect/simple_qos_detect.h"

#include <new>

#include "commonlib/zeph_commonlib.h"
#include "inc/detect_socket.h"
#include "inc/net_detect.h"
#include "inc/net_tools_log.h"
#include "inc/net_tools_msg.h"

namespace {

// The plan of the table.
constexpr uint16_t kIcmpPort = 10000;
constexpr uint16_t kTcpPort = 443;
constexpr uint16_t kUdpPort = 10002;
constexpr size_t kProxyTarget = 1; // reaches the configured proxy itself
constexpr uint8_t kTransTcp = 1;
constexpr uint8_t kTransUdp = 2;
constexpr uint8_t kTransIcmp = 11;
// Detection protocols from this value up count as the first one.
constexpr uint8_t kDetectTypeEnd = 3;
// Descriptors a finish frees at most (one per target).
constexpr size_t kMaxFreed = DetectSimpleQos::kTargets;
// Share of probes lost, in percent.
constexpr int32_t kPercent = 100;
constexpr int32_t kProbes = SimpleQosTarget::kProbes;
constexpr int kAddrFamilyInet = 2;

// An address in network byte order turned to host byte order (the swap is
// its own inverse).
uint32_t net_to_host(uint32_t addr) { return MORL_Htonl(addr); }

const char* status_text(uint32_t status) {
    switch (status) {
    case DetectSimpleQos::kResolving: return "detect_status: in dns resolving";
    case DetectSimpleQos::kDetecting: return "detect_status: in detecting";
    case DetectSimpleQos::kFinished: return "detect_status: finished";
    default: return "detect_status: created";
    }
}

} // namespace

// ---- NetDetectDataNew ----------------------------------------------------------------

NetDetectDataNew* NetDetectDataNew::get() {
    static NetDetectDataNew* data = new (std::nothrow) NetDetectDataNew;
    return data;
}

int32_t NetDetectDataNew::set_multi_srv_name(std::vector<std::string> names) {
    if (names.size() > kNames) names.resize(kNames);
    for (const std::string& name : names) {
        if (name.size() > kNameMax) {
            NT_LOGE("name too long len=%u", static_cast<uint32_t>(name.size()));
            return 1;
        }
    }
    std::lock_guard<std::mutex> guard(m_mutex);
    for (size_t i = 0; i < names.size(); ++i) {
        const std::string& name = names[i];
        Entry& entry = m_entries[i];
        if (name.empty()) continue;
        if (name == entry.name && entry.addr != 0) continue;
        NT_LOGI("srv[%u]=%s->len=%u", static_cast<uint32_t>(i), name.c_str(), static_cast<uint32_t>(name.size()));
        entry.name = name;
        uint32_t addr = 0;
        if (MORL_Inet_Pton(kAddrFamilyInet, name.c_str(), &addr, sizeof addr) != 1) addr = 0;
        entry.addr = addr;
    }
    return 0;
}

std::vector<NetDetectDataNew::Entry> NetDetectDataNew::get_list() const {
    std::lock_guard<std::mutex> guard(m_mutex);
    return std::vector<Entry>(m_entries.begin(), m_entries.end());
}

std::string NetDetectDataNew::get_srv_name(size_t index) const {
    index = clamp_index(index);
    std::lock_guard<std::mutex> guard(m_mutex);
    return index < kNames ? m_entries[index].name : std::string();
}

uint32_t NetDetectDataNew::get_srv_addr(size_t index) const {
    index = clamp_index(index);
    std::lock_guard<std::mutex> guard(m_mutex);
    return index < kNames ? m_entries[index].addr : 0;
}

void NetDetectDataNew::get_unresolved(std::vector<std::string>& list) const {
    std::lock_guard<std::mutex> guard(m_mutex);
    for (const Entry& e : m_entries) {
        if (!e.name.empty() && e.addr == 0) list.push_back(e.name);
    }
}

// ---- DetectSimpleQos: life ------------------------------------------------------------

DetectSimpleQos::DetectSimpleQos() = default;

DetectSimpleQos::~DetectSimpleQos() {
    for (SimpleQosTarget& t : m_targets) t.socket.reset();
    if (m_control_timer != 0) MORL_FreeRelTimer(m_control_timer);
    for (MORL_TimerHandle t : m_send_timers) {
        if (t != 0) MORL_FreeRelTimer(t);
    }
    NT_LOGI("%s", "");
}

uint32_t DetectSimpleQos::get_recv_msg_id() { return NET_TOOLS_MSG_SIMPLE_QOS_RECV; }

uint32_t DetectSimpleQos::now32() { return nt_stored_time(static_cast<uint64_t>(get_runtime_current())); }

bool DetectSimpleQos::arm(uint64_t timer, uint32_t delay) {
    return g_timer_save.start_timer(timer, delay, std::weak_ptr<DetectBase>(m_self)) == 0;
}

int32_t DetectSimpleQos::start(uint32_t num, NetDetectNotify notify, std::shared_ptr<DetectSimpleQos> self,
                               uint64_t context) {
    m_num = num;
    m_notify = notify;
    m_self = std::move(self);
    m_context = context;

    m_control_timer = MORL_CreateRelTimerM(NetToolsTimerSave::timeout, MORL_TIMER_OWNED, "DetectSimpleQos::start");
    if (m_control_timer == 0) {
        NT_LOGE("CreateRelTimer process control Timer failed!");
        m_self.reset();
        return 1;
    }
    for (MORL_TimerHandle& t : m_send_timers) {
        t = MORL_CreateRelTimerM(NetToolsTimerSave::timeout, MORL_TIMER_OWNED, "DetectSimpleQos::start");
        if (t == 0) {
            NT_LOGE("CreateRelTimer send schedule Timer failed!");
            m_self.reset(); // the destructor frees the timers made so far
            return 1;
        }
    }
    build_detect_addr();
    // Everything from here on runs on the message thread: the control
    // timer's first expiry, at once, begins the name or probing phase.
    if (!arm(m_control_timer, 0)) {
        NT_LOGE("start timer failed");
        g_timer_save.stop_timer(m_control_timer);
        m_self.reset();
        return 1;
    }
    return 0;
}

std::vector<SimpleQosTarget> DetectSimpleQos::make_targets(const std::vector<NetDetectDataNew::Entry>& entries) {
    std::vector<SimpleQosTarget> targets;
    targets.reserve(kTargets);
    for (size_t i = 0; i < entries.size() && i < kTargets; ++i) {
        SimpleQosTarget t;
        t.domain = entries[i].name;
        t.addr = entries[i].addr;
        if (i == 0) {
            t.port = kIcmpPort;
            t.protocol = kTransIcmp;
        } else if (i == kProxyTarget) {
            t.port = zeph_get_proxy_port();
            t.protocol = kTransTcp;
            t.no_proxy = 1;
        } else if (i < kTargets - 2) {
            t.port = kTcpPort;
            t.protocol = kTransTcp;
        } else {
            t.port = kUdpPort;
            t.protocol = kTransUdp;
        }
        targets.push_back(std::move(t));
    }
    return targets;
}

void DetectSimpleQos::build_detect_addr() {
    m_targets.clear();
    NetDetectDataNew* data = NetDetectDataNew::get();
    if (data == nullptr) {
        NT_LOGE("pNetDetectDataNew is nullptr");
        return;
    }
    // Reserved whole: the keeper holds the addresses of the targets' socket
    // references while their create messages are queued.
    m_targets = make_targets(data->get_list());
    NT_LOGD("size(%u)", static_cast<uint32_t>(m_targets.size()));
}

// ---- phases -----------------------------------------------------------------------------

void DetectSimpleQos::check_dns_resolved() {
    bool unresolved = false;
    for (const SimpleQosTarget& t : m_targets) unresolved = unresolved || (!t.domain.empty() && t.addr == 0);
    if (unresolved) {
        set_detect_status(kResolving);
    } else {
        set_detect_status(kDetecting);
    }
}

void DetectSimpleQos::set_detect_status(uint32_t status) {
    m_detect_status = status;
    switch (status) {
    case kResolving:
        NT_LOGI("%s", status_text(status));
        start_dns_resolve();
        break;
    case kDetecting:
        NT_LOGI("%s", status_text(status));
        start_detect();
        arm(m_control_timer, m_detect_timeout);
        break;
    case kFinished:
        NT_LOGI("%s", status_text(status));
        finish_detect();
        break;
    default: break;
    }
}

void DetectSimpleQos::start_dns_resolve() {
    std::vector<std::string> names;
    for (const SimpleQosTarget& t : m_targets) {
        if (!t.domain.empty() && t.addr == 0) names.push_back(t.domain);
    }
    if (names.empty()) {
        set_detect_status(kDetecting);
        return;
    }
    g_asyn_dns.start_asyn_dns(names, std::weak_ptr<DetectBase>(m_self));
    arm(m_control_timer, m_dns_timeout);
}

void DetectSimpleQos::recv_dns(const char* host, uint32_t addr) {
    if (host == nullptr || addr == 0) {
        NT_LOGE("para is invalid");
        return;
    }
    if (m_detect_status != kResolving) return; // the name phase is over
    bool waiting = false;
    for (SimpleQosTarget& t : m_targets) {
        if (t.addr == 0 && t.domain == host) t.addr = addr;
        // A place without a name is never asked for: it waits for nothing.
        waiting = waiting || (!t.domain.empty() && t.addr == 0);
    }
    if (waiting) return;
    g_asyn_dns.stop_asyn_dns(this);
    set_detect_status(kDetecting);
}

void DetectSimpleQos::recv_timeout(uint64_t timer) {
    if (timer == m_control_timer) {
        NT_LOGD("process_control_timeout status(%u)", m_detect_status);
        switch (m_detect_status) {
        case kCreated: check_dns_resolved(); break;
        case kResolving:
            g_asyn_dns.stop_asyn_dns(this);
            set_detect_status(kDetecting);
            break;
        case kDetecting: set_detect_status(kFinished); break;
        default: break;
        }
        return;
    }
    for (size_t i = 0; i < m_targets.size() && i < kTargets; ++i) {
        if (timer != m_send_timers[i]) continue;
        if (m_detect_status == kDetecting && m_targets[i].sent < kProbes) {
            send_buf(i);
            arm(m_send_timers[i], m_send_interval);
        }
        return;
    }
    NT_LOGE("timer_id(0x%x) is not exist", static_cast<uint32_t>(timer));
}

// ---- probing ----------------------------------------------------------------------------

void DetectSimpleQos::start_detect() {
    SocketFactory<DetectSocket>& factory = SocketFactory<DetectSocket>::instance();
    for (SimpleQosTarget& t : m_targets) {
        if (t.addr == 0) {
            NT_LOGW("addr is null domain(%s)addr(%x)port(%u)", t.domain.c_str(), t.addr,
                    static_cast<uint32_t>(t.port));
            continue;
        }
        std::shared_ptr<DetectSocket> sock = factory.get_socket(get_trans_str(t.protocol));
        if (!sock) continue;
        sock->set_detect_type(t.detect_type >= kDetectTypeEnd ? 0 : t.detect_type);
        sock->set_dest_addr(net_to_host(t.addr), t.port);
        // Only TCP goes through a proxy; the proxy's own target never does.
        if (t.no_proxy == 0 && t.protocol == kTransTcp && zeph_is_proxy_configed() != 0)
            sock->set_proxy_addr(net_to_host(zeph_get_proxy_addr()), zeph_get_proxy_port());
        if (!sock->create()) {
            NT_LOGE("create sock error");
            continue;
        }
        t.socket = std::move(sock);
        DetectSocketBody body{};
        body.dest_ip = t.socket->get_dest_ip();
        body.dest_port = t.socket->get_dest_port();
        body.proxy_ip = t.socket->get_proxy_ip();
        body.proxy_port = t.socket->get_proxy_port();
        body.sock_key = reinterpret_cast<uint64_t>(&t.socket);
        body.detect_key = reinterpret_cast<uint64_t>(&m_self);
        DetectPtrKeeper::keep_ptr(&t.socket);
        DetectPtrKeeper::keep_ptr(&m_self);
        if (post_detect_msg(NET_TOOLS_MSG_CREATE_SOCKET, 0, 0, &body, sizeof body) != 0) {
            NT_LOGE("post create failed fd(%d)", static_cast<int>(t.socket->get_fd()));
            DetectPtrKeeper::release_ptr(&t.socket, false);
            DetectPtrKeeper::release_ptr(&m_self, false);
        }
        NT_LOGI("start a simple qos detect addr(%s:%u)", t.socket->get_dest_ip_str().c_str(),
                static_cast<uint32_t>(t.port));
    }
    // First probes. The resend timer of a target starts with its first
    // answer: one that never answers gets no second probe.
    for (size_t i = 0; i < m_targets.size(); ++i) send_buf(i);
}

void DetectSimpleQos::send_buf(size_t index) {
    SimpleQosTarget& t = m_targets[index];
    if (!t.socket || t.sent >= kProbes) return;
    const uint32_t seq = static_cast<uint32_t>(t.sent) + 1;
    NT_LOGD("fd(%d)seq(%d)", static_cast<int>(t.socket->get_fd()), static_cast<int>(seq));
    // Read before the send: the answer can arrive, stamped by the kernel,
    // before the send call returns, and a send time after the arrival would
    // make an answered probe count as lost.
    const uint32_t sent_at = now32();
    t.socket->send_buf(seq);
    SimpleQosProbe& p = t.probes[static_cast<size_t>(t.sent)];
    p.send_time = sent_at;
    p.seq = seq;
    p.is_sent = 1;
    ++t.sent;
}

bool DetectSimpleQos::recv_save_result(SimpleQosTarget& t, uint32_t seq, uint32_t now, bool carries_seq) {
    if (seq != 0) {
        for (SimpleQosProbe& p : t.probes) {
            if (p.seq == 0 || p.seq != seq) continue;
            if (p.recv_time == 0) {
                p.recv_time = now;
                return true;
            }
            NT_LOGE("re-recv one response(%d)", static_cast<int>(seq));
        }
    }
    // A datagram names the probe it answers: a duplicate, or one naming no
    // probe of ours, counts for nothing.
    if (carries_seq) return false;
    // A completed connect names none: it answers the newest open probe.
    for (int32_t i = kProbes - 1; i >= 0; --i) {
        SimpleQosProbe& p = t.probes[static_cast<size_t>(i)];
        if (p.seq != 0 && p.recv_time == 0 && get_time_diff(p.send_time, now) < m_detect_timeout) {
            p.recv_time = now;
            return true;
        }
    }
    return false;
}

void DetectSimpleQos::recv_pkt(const uint8_t* data, uint32_t len, std::shared_ptr<DetectSocket> sock,
                               std::shared_ptr<DetectBase>) {
    NT_LOGD("len(%d)", static_cast<int>(len));
    if (m_detect_status != kDetecting || !sock) return;
    for (size_t i = 0; i < m_targets.size(); ++i) {
        SimpleQosTarget& t = m_targets[i];
        if (t.socket != sock) continue;
        const uint32_t seq = sock->get_recv_seq(data, static_cast<int32_t>(len));
        // Only a TCP connect comes without data.
        // Timed at its arrival, not at its turn on this thread.
        const uint32_t arrived = nt_stored_time(static_cast<uint64_t>(answer_time()));
        if (!recv_save_result(t, seq, arrived, len != 0)) return;
        if (t.sent < kProbes) {
            // The answer sends the next probe at once; the timer covers the
            // case that its answer is lost.
            g_timer_save.stop_timer(m_send_timers[i]);
            send_buf(i);
            arm(m_send_timers[i], m_send_interval);
        } else {
            print_detect_result(i);
        }
        break;
    }
    if (all_answered()) set_detect_status(kFinished);
}

bool DetectSimpleQos::all_answered() const {
    for (const SimpleQosTarget& t : m_targets) {
        for (const SimpleQosProbe& p : t.probes) {
            if (p.recv_time == 0) return false;
        }
    }
    return true;
}

// ---- the end ----------------------------------------------------------------------------

void DetectSimpleQos::print_detect_result(size_t index) {
    SimpleQosTarget& t = m_targets[index];
    if (t.reported != 0) return;
    t.reported = 1;

    // A TCP server has one connection: its first probe starts the connect,
    // probes sent while it is under way or once it stands find it so, and a
    // writable report answers the newest of them a pass later. They count as
    // answered, but the one delay of the path is the connect's, from the
    // first probe to the first answer.
    const bool connect_only = t.protocol == kTransTcp;
    int64_t sum = 0;
    int32_t count = 0;
    int32_t measured = 0;
    int32_t max = 0;
    int32_t min = static_cast<int32_t>(m_detect_timeout);
    for (const SimpleQosProbe& p : t.probes) {
        if (p.is_sent == 0 || p.recv_time == 0) continue;
        const uint32_t since = connect_only ? t.probes[0].send_time : p.send_time;
        const uint32_t delay = nt_measured_delay(get_time_diff(since, p.recv_time));
        if (delay > m_detect_timeout) continue;
        ++count;
        if (connect_only && measured > 0) continue;
        const int32_t d = static_cast<int32_t>(delay);
        sum += d;
        ++measured;
        if (d > max) max = d;
        if (d < min) min = d;
    }
    NetDetectResult rec = net_detect_failure_record();
    rec.num = m_num;
    rec.level = static_cast<uint32_t>(index);
    rec.level_num = static_cast<uint32_t>(m_targets.size());
    rec.discard = (kProbes - count) * kPercent / kProbes;
    rec.is_proxy = zeph_is_proxy_configed();
    rec.ready = 1;
    rec.reported = 1;
    rec.context = m_context;
    if (measured > 0) {
        rec.average = static_cast<int32_t>(sum / measured);
        rec.max = max;
        rec.min = min;
    } else {
        rec.average = rec.max = rec.min = static_cast<int32_t>(m_detect_timeout);
    }
    rec.qos = net_detect_qos(rec.discard, rec.average);
    NT_LOGI("[net_detect] num=%08x level=%d qos=%d discard=%d average=%d(ms) max=%d(ms) min=%d(ms)", rec.num,
            static_cast<int>(rec.level), static_cast<int>(rec.qos), rec.discard, rec.average, rec.max, rec.min);
    if (m_notify != nullptr) m_notify(&rec);
}

void DetectSimpleQos::finish_detect() {
    int32_t fds[kMaxFreed] = {};
    uint32_t count = 0;
    for (size_t i = 0; i < m_targets.size(); ++i) {
        g_timer_save.stop_timer(m_send_timers[i]);
        if (m_targets[i].socket && count < kMaxFreed) fds[count++] = m_targets[i].socket->get_fd();
    }
    if (count > 0) post_free_sockets(this, fds, count);
    NT_LOGD("destory %d sock", static_cast<int>(count));
    g_timer_save.stop_timer(m_control_timer);
    for (size_t i = 0; i < m_targets.size(); ++i) print_detect_result(i);
    // The caller of this event holds a reference of its own: the object
    // outlives this call.
    DetectPtrKeeper::release_ptr(&m_self, true);
    m_self.reset();
}
