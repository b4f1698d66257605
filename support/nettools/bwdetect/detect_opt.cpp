// DetectOptMultiSite: `start` runs on the caller's thread; every later event
// (packets, timer expiries, name answers) runs on the message thread of the
// detection runtime, and both callbacks are called from there with no lock
// of ours held.
#include "bwdetect/detect_opt.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "inc/detect_socket.h"
#include "inc/net_tools_log.h"
#include "inc/net_tools_msg.h"
#include "os_adapter/morl_os.h"

namespace {

constexpr int kInetFamily = 2; // IPv4 for MORL_Inet_Pton
constexpr uint32_t kPercent = 100;
constexpr uint32_t kProbeShift = 5; // 32 probes: count * 100 >> 5 is the percent answered
static_assert((1u << kProbeShift) == OPT_PROBES_PER_SITE, "the percent assumes 32 probes per site");
constexpr uint16_t kDelayMeasuredMax = OPT_NO_ANSWER - 1;
constexpr size_t kLineEnd = 2; // "\r\n" cut from the logged table

// Network byte order (first octet in the low byte) to host byte order.
uint32_t to_host_order(uint32_t net) {
    uint8_t b[sizeof net];
    memcpy(b, &net, sizeof net);
    return (static_cast<uint32_t>(b[0]) << 24) | (static_cast<uint32_t>(b[1]) << 16) |
           (static_cast<uint32_t>(b[2]) << 8) | b[3];
}

// Dotted text to network byte order; 0 when the text is no dotted address.
uint32_t parse_dotted(const std::string& text) {
    uint32_t addr = 0;
    if (MORL_Inet_Pton(kInetFamily, text.c_str(), &addr, sizeof addr) != 1) return 0;
    return addr;
}

} // namespace

DetectOptMultiSite::DetectOptMultiSite() = default;

DetectOptMultiSite::~DetectOptMultiSite() {
    for (OptSite& site : m_sites) site.socket.reset();
    if (m_finish_timer != 0) MORL_FreeRelTimer(m_finish_timer);
    if (m_send_timer != 0) MORL_FreeRelTimer(m_send_timer);
    NT_LOGI("%s", "");
}

uint32_t DetectOptMultiSite::get_recv_msg_id() { return NET_TOOLS_MSG_NEARBY_RECV; }

uint32_t DetectOptMultiSite::now_ms() { return nt_stored_time(static_cast<uint64_t>(get_runtime_current())); }

uint32_t DetectOptMultiSite::start(const std::vector<OptSiteInfo>& sites, DetectOptNotify notify,
                                   std::shared_ptr<DetectOptMultiSite> self) {
    const auto barrier = hold_start_barrier();
    m_notify = notify;
    m_self = std::move(self);
    for (const OptSiteInfo& info : sites) {
        if (m_sites.size() >= OPT_SITE_MAX) {
            NT_LOGW("detect count(%d) more than %d", static_cast<int>(sites.size()), static_cast<int>(OPT_SITE_MAX));
            break;
        }
        OptSite site;
        site.name = info.name;
        site.nodeName = info.nodeName;
        site.addr = info.addr;
        site.port = info.port;
        site.category_delay = info.category_delay;
        m_sites.push_back(std::move(site));
    }
    m_finish_timer = MORL_CreateRelTimerM(NetToolsTimerSave::timeout, MORL_TIMER_OWNED, "DetectOptMultiSite::start");
    if (m_finish_timer == 0) {
        NT_LOGE("CreateRelTimer finish detetct Timer failed!");
        m_self.reset();
        return OPT_START_FAILED;
    }
    m_send_timer = MORL_CreateRelTimerM(NetToolsTimerSave::timeout, MORL_TIMER_OWNED, "DetectOptMultiSite::start");
    if (m_send_timer == 0) {
        NT_LOGE("CreateRelTimer send delay Timer failed!");
        MORL_FreeRelTimer(m_finish_timer);
        m_finish_timer = 0;
        m_self.reset();
        return OPT_START_FAILED;
    }
    set_detect_status(OPT_STATUS_DNS);
    return OPT_START_OK;
}

void DetectOptMultiSite::set_detect_status(uint32_t status) {
    m_detect_status = status;
    switch (status) {
    case OPT_STATUS_DNS: {
        NT_LOGI("detect_status: in dns resolving");
        // Each name is asked once, however many sites carry it.
        std::vector<std::string> names;
        for (OptSite& site : m_sites) {
            if (site.addr.empty()) continue;
            site.ip = parse_dotted(site.addr);
            if (site.ip == 0 && std::find(names.begin(), names.end(), site.addr) == names.end())
                names.push_back(site.addr);
        }
        // The timer is armed before the look-ups start: an answer may reach
        // the message thread before this call returns, and everything after
        // the arming happens there. Without names the zero delay moves the
        // burst to the message thread at once.
        const uint32_t limit = names.empty() ? 0 : m_dns_timeout;
        if (g_timer_save.start_timer(m_finish_timer, limit, m_self) != 0) {
            NT_LOGE("StartRelTimer finish detetct Timer failed!");
            return;
        }
        const uint32_t group = g_asyn_dns.m_group_size;
        m_dns_groups = static_cast<uint32_t>((names.size() + group - 1) / group);
        for (size_t first = 0; first < names.size(); first += group) {
            const size_t end = std::min(names.size(), first + group);
            g_asyn_dns.start_asyn_dns(std::vector<std::string>(names.begin() + first, names.begin() + end), m_self);
        }
        return;
    }
    case OPT_STATUS_FIRST:
        NT_LOGI("detect_status: in first detecting");
        pre_send();
        check_site();
        // Armed again once the first burst is out: the probing's limit
        // counts from here.
        if (m_finish_timer != 0) g_timer_save.start_timer(m_finish_timer, m_finish_timeout, m_self);
        return;
    case OPT_STATUS_DETECTING:
        NT_LOGI("detect_status: in detecting");
        start_detect();
        return;
    case OPT_STATUS_FINISHED:
        NT_LOGI("detect_status: finished");
        finish_detect_timeout();
        return;
    default: return;
    }
}

void DetectOptMultiSite::stop_dns() {
    for (; m_dns_groups > 0; --m_dns_groups) g_asyn_dns.stop_asyn_dns(this);
}

void DetectOptMultiSite::recv_dns(const char* host, uint32_t addr) {
    pass_start_barrier();
    NT_LOGD("host(%s)addr(0x%x)", host != nullptr ? host : "null", addr);
    if (host == nullptr || addr == 0) {
        NT_LOGE("para is invalid");
        return;
    }
    if (m_detect_status != OPT_STATUS_DNS) return;
    bool waiting = false;
    for (OptSite& site : m_sites) {
        if (site.addr == host) {
            site.ip = addr;
        } else if (site.ip == 0 && !site.addr.empty()) {
            waiting = true;
        }
    }
    if (waiting) return;
    stop_dns();
    set_detect_status(OPT_STATUS_FIRST);
}

void DetectOptMultiSite::pre_send() {
    m_pre_send_time = now_ms();
    std::stable_sort(m_sites.begin(), m_sites.end(),
                     [](const OptSite& a, const OptSite& b) { return a.category_delay < b.category_delay; });
    // A site whose name did not resolve leaves the race and the result.
    m_sites.erase(std::remove_if(m_sites.begin(), m_sites.end(), [](const OptSite& s) { return s.ip == 0; }),
                  m_sites.end());
    // From here on m_sites keeps its elements in place: the addresses of
    // their socket pointers travel in create messages.
    for (OptSite& site : m_sites) {
        if (site.category_delay > OPT_CATEGORY_DELAY_MAX) site.category_delay = OPT_CATEGORY_DELAY_MAX;
        site.socket = SocketFactory<DetectSocket>::instance().get_socket(DETECT_SOCKET_KEY_UDP);
        if (!site.socket) continue;
        site.socket->set_detect_type(DETECT_PROTO_STUN_CUSTOM);
        const uint32_t host_ip = to_host_order(site.ip);
        site.socket->set_dest_addr(host_ip, site.port);
        if (!site.socket->create()) {
            NT_LOGE("create sock error");
            site.socket.reset(); // no probes: the site reports no answer
            continue;
        }
        // One session and nonce for all 32 probes of this socket.
        site.socket->nps_buf_init();
        DetectSocketBody body{};
        body.dest_ip = host_ip;
        body.dest_port = site.port;
        body.sock_key = reinterpret_cast<uint64_t>(&site.socket);
        body.detect_key = reinterpret_cast<uint64_t>(&m_self);
        DetectPtrKeeper::keep_ptr(&site.socket);
        DetectPtrKeeper::keep_ptr(&m_self);
        if (post_detect_msg(NET_TOOLS_MSG_CREATE_SOCKET, 0, 0, &body, sizeof body) != 0) {
            NT_LOGE("create sock error");
            DetectPtrKeeper::release_ptr(&site.socket, false);
            DetectPtrKeeper::release_ptr(&m_self, false);
        }
        NT_LOGI("valid_site name(%s)nodeName(%s)addr(%s:%u)delay(%d)detect(%u)sock(%u)", site.name.c_str(),
                site.nodeName.c_str(), site.addr.c_str(), static_cast<uint32_t>(site.port),
                static_cast<int>(site.category_delay), nt_log_addr(this), nt_log_addr(site.socket.get()));
    }
    m_categories.clear();
    for (const OptSite& site : m_sites) {
        if (m_categories.empty() || m_categories.back().delay != site.category_delay) {
            if (!m_categories.empty())
                NT_LOGD("category delay(%u)count(%u)", static_cast<uint32_t>(m_categories.back().delay),
                        static_cast<uint32_t>(m_categories.back().count));
            OptCategory category;
            category.delay = site.category_delay;
            m_categories.push_back(category);
        }
        ++m_categories.back().count;
    }
    if (!m_categories.empty())
        NT_LOGD("category delay(%u)count(%u)", static_cast<uint32_t>(m_categories.back().delay),
                static_cast<uint32_t>(m_categories.back().count));
    if (g_timer_save.start_timer(m_finish_timer, m_finish_timeout, m_self) != 0) {
        NT_LOGE("StartRelTimer finish detetct Timer failed!");
        MORL_FreeRelTimer(m_finish_timer);
        m_finish_timer = 0;
        return;
    }
    // Nothing to probe: the table comes, empty, when the finish timer expires.
    if (m_categories.empty()) return;
    const uint16_t first = m_categories.front().delay;
    if (first >= OPT_SEND_AT_ONCE_BELOW) {
        if (g_timer_save.start_timer(m_send_timer, first, m_self) != 0) {
            NT_LOGE("StartRelTimer send delay Timer failed!");
            g_timer_save.stop_timer(m_finish_timer);
            MORL_FreeRelTimer(m_finish_timer);
            MORL_FreeRelTimer(m_send_timer);
            m_finish_timer = 0;
            m_send_timer = 0;
        }
        return;
    }
    start_detect();
}

void DetectOptMultiSite::check_site() {
    uint32_t counted = 0;
    for (const OptCategory& category : m_categories) counted += category.count;
    if (counted != m_sites.size())
        NT_LOGE("alert site_size(%u)!=category_count(%u)", static_cast<uint32_t>(m_sites.size()), counted);
}

void DetectOptMultiSite::start_detect() {
    NT_LOGD("base(%u)", m_send_base);
    size_t c = 0;
    while (c < m_categories.size() && m_categories[c].sent != 0) ++c;
    if (c < m_categories.size()) {
        OptCategory& category = m_categories[c];
        if (m_send_base + category.count > m_sites.size()) {
            NT_LOG(NT_LOG_INFO, "index out of range base=%u cout=%u size=%u", m_send_base,
                   static_cast<uint32_t>(category.count), static_cast<uint32_t>(m_sites.size()));
        } else {
            NT_LOGI("send group(%u)count(%u)", static_cast<uint32_t>(c), static_cast<uint32_t>(category.count));
            // The time is taken once, before the first probe; the probes go
            // out back to back, all sites' probe 0 first, then probe 1, ...
            category.send_time = now_ms();
            const uint32_t end = m_send_base + category.count;
            for (uint32_t seq = 0; seq < OPT_PROBES_PER_SITE; ++seq) {
                for (uint32_t i = m_send_base; i < end; ++i) {
                    if (m_sites[i].socket) m_sites[i].socket->send_nps_buf(seq);
                }
            }
            m_send_base = end;
            category.sent = 1;
        }
    }
    if (c + 1 < m_categories.size()) {
        const uint16_t next = m_categories[c + 1].delay;
        const uint16_t here = c < m_categories.size() ? m_categories[c].delay : next;
        if (next > here) {
            g_timer_save.start_timer(m_send_timer, static_cast<uint32_t>(next - here), m_self);
        } else {
            g_timer_save.stop_timer(m_send_timer);
            NT_LOGI("stop timer(%u)", static_cast<uint32_t>(c + 1));
        }
    }
}

OptSiteInfo DetectOptMultiSite::site_record(const OptSite& site) const {
    OptSiteInfo info;
    info.name = site.name;
    info.nodeName = site.nodeName;
    info.addr = site.addr;
    info.port = site.port;
    info.category_delay = site.category_delay;
    return info;
}

void DetectOptMultiSite::recv_pkt(const uint8_t* data, uint32_t len, std::shared_ptr<DetectSocket> sock,
                                  std::shared_ptr<DetectBase> detect) {
    pass_start_barrier();
    (void)data;
    (void)len;
    (void)detect;
    // After the table nothing more is reported, not even a first answer.
    if (m_detect_status == OPT_STATUS_FINISHED || m_categories.empty() || m_categories.front().sent == 0) return;
    // The answer's arrival, not the moment it reached this thread: answers
    // of other sites handed over before it must not make it look farther.
    const uint32_t now = nt_stored_time(static_cast<uint64_t>(answer_time()));
    const uint32_t span = get_time_diff(m_categories.front().send_time, now);
    if (span >= OPT_RECV_SPAN_MAX) {
        NT_LOGW("recv timeout span(%u)current(%u)", span, now);
        return;
    }
    auto site = std::find_if(m_sites.begin(), m_sites.end(), [&](const OptSite& s) { return s.socket == sock; });
    if (site == m_sites.end() || !sock) return;
    uint32_t since = m_pre_send_time;
    for (const OptCategory& category : m_categories) {
        if (category.delay == site->category_delay) {
            since = category.send_time;
            break;
        }
    }
    const uint32_t measured = std::min<uint32_t>(nt_measured_delay(get_time_diff(since, now)), kDelayMeasuredMax);
    const uint16_t delay = static_cast<uint16_t>(measured);
    if (m_best_reported == 0) {
        std::vector<OptSiteInfo> best(1, site_record(*site));
        best[0].delay = delay;
        best[0].discard = 0;
        m_best_reported = 1;
        if (m_notify != nullptr) m_notify(0, 0, OPT_NOTIFY_BEST, best);
        NT_LOGI("best_name(%s)nodename(%s)addr(%s:%u)delay(%d)", site->name.c_str(), site->nodeName.c_str(),
                site->addr.c_str(), static_cast<uint32_t>(site->port), static_cast<int>(delay));
    }
    if (site->recv_count == 0) site->first_delay = delay;
    site->last_delay = delay;
    ++site->recv_count;
    NT_LOGI("recv_name(%s)nodename(%s)addr(%s:%u)delay(%d)recvcnt(%d)sock(%u)", site->name.c_str(),
            site->nodeName.c_str(), site->addr.c_str(), static_cast<uint32_t>(site->port), static_cast<int>(delay),
            static_cast<int>(site->recv_count), nt_log_addr(sock.get()));
}

void DetectOptMultiSite::recv_timeout(uint64_t timer) {
    pass_start_barrier();
    if (timer != 0 && timer == m_finish_timer) {
        if (m_detect_status == OPT_STATUS_DNS) {
            // The name phase is over: what resolved takes part.
            stop_dns();
            set_detect_status(OPT_STATUS_FIRST);
        } else if (m_detect_status != OPT_STATUS_FINISHED) {
            set_detect_status(OPT_STATUS_FINISHED);
        }
    } else if (timer != 0 && timer == m_send_timer) {
        if (m_detect_status == OPT_STATUS_FINISHED) return;
        set_detect_status(OPT_STATUS_DETECTING);
    } else {
        NT_LOGE("timer_id(0x%x) is not exist", static_cast<uint32_t>(timer));
    }
}

void DetectOptMultiSite::finish_detect_timeout() {
    NT_LOGD("sites(%u)", static_cast<uint32_t>(m_sites.size()));
    int32_t fds[OPT_SITE_MAX];
    uint32_t count = 0;
    for (const OptSite& site : m_sites) {
        if (count >= OPT_SITE_MAX) break;
        if (site.socket && site.socket->get_fd() != MORL_INVALID_SOCKET) fds[count++] = site.socket->get_fd();
    }
    if (count > 0) post_free_sockets(this, fds, count);
    NT_LOGD("destory %d sock shared_count detect(%d)", static_cast<int>(count), static_cast<int>(m_self.use_count()));
    if (m_finish_timer != 0) g_timer_save.stop_timer(m_finish_timer);
    if (m_send_timer != 0) g_timer_save.stop_timer(m_send_timer);
    stop_dns();
    std::vector<OptSiteInfo> results;
    calc_result(results);
    if (m_notify != nullptr) m_notify(0, 0, OPT_NOTIFY_TABLE, results);
    DetectPtrKeeper::release_ptr(&m_self, true);
    m_self.reset(); // the caller of this event still holds the object
}

void DetectOptMultiSite::calc_result(std::vector<OptSiteInfo>& results) {
    static const char kHead[] = "opt_detect_res:\r\n";
    char text[OPT_RESULT_TEXT_SIZE] = {};
    size_t used = static_cast<size_t>(snprintf(text, sizeof text, "%s", kHead));
    for (const OptSite& site : m_sites) {
        OptSiteInfo info = site_record(site);
        info.delay = site.first_delay;
        uint32_t answered = site.recv_count;
        if (answered > OPT_PROBES_PER_SITE) {
            NT_LOGW("recv_count(%u) is out of range", answered);
            answered = OPT_PROBES_PER_SITE;
        }
        info.discard = static_cast<uint16_t>(kPercent - ((answered * kPercent) >> kProbeShift));
        if (used < sizeof text) {
            const int n = snprintf(text + used, sizeof text - used,
                                   "  region(%s)node(%s)addr(%s:%u)delay(%u)discard(%u)recv(%u)\r\n", info.name.c_str(),
                                   info.nodeName.c_str(), info.addr.c_str(), static_cast<uint32_t>(info.port),
                                   static_cast<uint32_t>(info.delay), static_cast<uint32_t>(info.discard),
                                   static_cast<uint32_t>(site.recv_count));
            if (n < 0) {
                NT_LOGW("sec fun error: %d", n);
            } else {
                used = std::min(sizeof text - 1, used + static_cast<size_t>(n));
            }
        }
        results.push_back(std::move(info));
    }
    if (used < sizeof kHead - 1) {
        NT_LOGE("secure function return error");
        return;
    }
    text[used - kLineEnd] = '\0';
    NT_LOGI("%s", text);
}
