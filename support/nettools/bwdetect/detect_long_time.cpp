// Long-time watching of one site, in the quality packet's private form or
// its STUN form.
// Threads: start, set_site_info and set_config run on the caller's thread;
// "detect_long" makes the two sockets and exchangers, starts each stream the
// moment the one before has sent its last packet, waits for each stream's
// figures and calls the callback. It holds the object until it ends.
#include "bwdetect/detect_long_time.h"

#include <new>

#include "bwdetect/detect_qos_score.h"
#include "commonlib/zeph_commonlib.h"
#include "inc/net_tools_log.h"
#include "net_tools_util/net_tools_util.h"

namespace q = zeph::quality;

namespace {

// A level outside the table runs at this one.
constexpr int32_t kFallbackLevel = 1;
// Waits for an exchanger: its last packet sent (state 4) within 2100 sleeps
// of 5 ms, a little over one round; its figures (state 5) within 300 more.
// Neither outcome stops the detection: what is not finished reports the
// worst values.
constexpr uint32_t kWaitStepMs = 5;
constexpr uint32_t kSendFinWaits = 2100;
constexpr uint32_t kStatFinWaits = 300;
// Pause before the thread lets its sockets go.
constexpr uint32_t kCloseDelayMs = 10;
constexpr uint32_t kAddrTextSize = 32;


} // namespace

DetectSiteLongTime::~DetectSiteLongTime() {
    // A stream still running holds its exchanger (and that one its socket).
    m_exchangers.clear();
    m_socks.clear();
    NT_LOGI("destory");
}

bool DetectSiteLongTime::arguments_present(const DetectSiteInfo* site, const DetectBwConfig* config) {
    if (site == nullptr || config == nullptr) {
        NT_LOGE("site(%x) or config(%x) is null", site ? 1u : 0u, config ? 1u : 0u);
        return false;
    }
    return true;
}

int32_t DetectSiteLongTime::set_site_info(const DetectSiteInfo* site, const DetectBwConfig* config) {
    if (site->port == 0 || site->ip.empty()) {
        NT_LOGE("sitinfo's ip or port is null");
        return DETECT_ERR_BAD_ARGUMENT;
    }
    if (config->is_auth != 0) {
        if (site->auth_token.empty() || site->auth_para.empty()) {
            NT_LOGE("sitinfo's auth is null");
            return DETECT_ERR_TOKEN_REFUSED;
        }
        if (check_token(std::vector<DetectSiteInfo>{*site}) != 0) return DETECT_ERR_TOKEN_REFUSED;
    }
    m_site = *site;
    m_site.valid = 1;
    return 0;
}

int32_t DetectSiteLongTime::set_config(const DetectBwConfig* config) {
    if (config->fun_callback == nullptr) {
        NT_LOGE("fun_callback is null");
        return DETECT_ERR_BAD_ARGUMENT;
    }
    int32_t level = config->level;
    if (level < 0 || level > q::kMaxLevel) {
        NT_LOGW("level(%d) is out of range", level);
        level = kFallbackLevel;
    }
    m_time_len = config->time_len;
    if (m_time_len < DETECT_LONG_TIME_ROUND_SECONDS) {
        NT_LOGW("time_len(%d) is out of range", m_time_len);
        m_time_len = DETECT_LONG_TIME_ROUND_SECONDS;
    }
    m_callback = config->fun_callback;
    set_level(static_cast<uint8_t>(level));
    m_pkt_len = static_cast<int32_t>(q::level_row(m_level).pkt_len);
    if (config->is_auth != 0) {
        set_pkt_type(m_pkt_buf, sizeof m_pkt_buf, q::kTypeAuth);
        set_pkt_auth_token(m_pkt_buf, sizeof m_pkt_buf, m_site.auth_token.c_str());
        set_pkt_auth_para(m_pkt_buf, sizeof m_pkt_buf, m_site.auth_para.c_str());
    } else {
        set_pkt_type(m_pkt_buf, sizeof m_pkt_buf, q::kTypeData);
    }
    m_is_auth = config->is_auth;
    NT_LOGI("level=%d len=%d time_len=%d is_auth=%d call_back=%x", m_level, m_pkt_len, m_time_len, m_is_auth,
            nt_log_addr(m_callback));
    return 0;
}

int32_t DetectSiteLongTime::start(const DetectSiteInfo* site, DetectBwConfig* config,
                                  std::shared_ptr<DetectSiteLongTime> self) {
    if (!arguments_present(site, config)) return DETECT_ERR_BAD_ARGUMENT;
    init_send_buf(m_pkt_buf, sizeof m_pkt_buf);
    const int32_t checked = set_site_info(site, config);
    if (checked != 0) return checked;
    if (set_config(config) != 0) return DETECT_ERR_BAD_ARGUMENT;
    ZEPH_CPYPT_RealRandom(&m_session, sizeof m_session);
    set_pkt_session(m_pkt_buf, sizeof m_pkt_buf, m_session);
    return run(std::move(self));
}

int32_t DetectStunLongTime::start(const DetectSiteInfo* site, DetectBwConfig* config) {
    if (!arguments_present(site, config)) return DETECT_ERR_BAD_ARGUMENT;
    build_stun_pkt_image(m_pkt_buf, sizeof m_pkt_buf, m_session);
    config->level = 0;
    const int32_t checked = set_site_info(site, config);
    if (checked != 0) return checked;
    if (set_config(config) != 0) return DETECT_ERR_BAD_ARGUMENT;
    std::shared_ptr<DetectSiteLongTime> self = weak_from_this().lock();
    if (!self) {
        NT_LOGE("detection is not held by a shared pointer");
        return DETECT_ERR_BAD_ARGUMENT;
    }
    return run(std::move(self));
}

int32_t DetectSiteLongTime::run(std::shared_ptr<DetectSiteLongTime> self) {
    if (!self || self.get() != this) {
        NT_LOGE("detection is not held by a shared pointer");
        return DETECT_ERR_BAD_ARGUMENT;
    }
    // Stored before the thread starts, which drops it at its end.
    m_self = std::move(self);
    const int32_t started = start_send_thread();
    if (started != 0) m_self.reset();
    return started;
}

int32_t DetectSiteLongTime::start_send_thread() {
    set_state(DETECT_STATE_SENDING);
    if (!start_detached(m_self, &DetectSiteLongTime::client_send_thread)) return DETECT_ERR_NO_THREAD;
    return 0;
}

void DetectSiteLongTime::start_socket(uint32_t no) {
    if (m_site.valid == 0) return;
    const uint32_t ip = get_addr_ipv4(m_site.ip.c_str());
    if (ip == 0 || m_site.port == 0) {
        NT_LOGE("para invalid(%d)! ip(%s) port(%d)", static_cast<int>(no), m_site.ip.c_str(), m_site.port);
        return;
    }
    NT_LOGI("no(%d) ip(%s) port(%d)", static_cast<int>(no), m_site.ip.c_str(), m_site.port);
    char text[kAddrTextSize] = {};
    ipv4_int2str(text, sizeof text, ip);
    DetectSockPtr sock = init_socket(text, m_site.port, static_cast<uint16_t>(DETECT_FIRST_CLIENT_PORT + no));
    if (sock) m_socks.push_back(std::move(sock));
}

bool DetectSiteLongTime::wait_for_state(uint32_t no, int32_t state, uint32_t rounds) {
    const std::shared_ptr<DetectCliPktAnyTime>& ex = m_exchangers[no];
    for (uint32_t i = 0; i < rounds; ++i) {
        MORL_SleepMs(kWaitStepMs);
        if (ex->get_state() == state) return true;
    }
    return false;
}

void DetectSiteLongTime::notify_detect_result(uint32_t no) {
    const DetectPktStat stat = m_exchangers[no]->get_stat();
    int32_t score = 0;
    const DetectQosScore* scorer = DetectQosScore::get_instance();
    if (scorer == nullptr)
        NT_LOGE("pDetectQosScore is nullptr");
    else
        score = scorer->get_qos_score(stat, m_site.delaybase);
    NT_LOGI("score = %d", score);
    m_callback(0, 0, 0, std::vector<DetectQosResult>{detect_qos_result(static_cast<int16_t>(no), score, stat)});
}

void DetectSiteLongTime::client_send_thread() {
    MORL_PthreadSetName("detect_long");
    for (uint32_t no = 0; no < DETECT_LONG_TIME_STREAMS; ++no) start_socket(no);
    bool ready = m_socks.size() >= DETECT_LONG_TIME_STREAMS;
    if (!ready) {
        NT_LOGE("[client_send_thread] size(%d)!=num(%d)", static_cast<int>(m_socks.size()),
                static_cast<int>(DETECT_LONG_TIME_STREAMS));
    } else {
        try {
            for (uint32_t no = 0; no < DETECT_LONG_TIME_STREAMS; ++no) {
                auto ex = std::make_shared<DetectCliPktAnyTime>(m_socks[no], m_level, DETECT_LONG_TIME_ROUND_SECONDS);
                ex->m_pkt_len = static_cast<int32_t>(q::level_row(m_level).pkt_len);
                ex->set_is_stun(get_is_stun());
                m_exchangers[no] = std::move(ex);
            }
        } catch (const std::bad_alloc&) {
            NT_LOGE("make_shared failed");
            ready = false;
        }
    }
    if (ready) {
        const int32_t rounds = m_time_len / DETECT_LONG_TIME_ROUND_SECONDS;
        uint32_t cur = 0;
        m_exchangers[cur]->start_SR(m_pkt_buf, m_exchangers[cur]);
        for (int32_t k = 1; k < rounds; ++k) {
            const bool sent = wait_for_state(cur, DETECT_STATE_SEND_FIN, kSendFinWaits);
            NT_LOGI("waitfor_send_fin(%d)=%d)", static_cast<int>(cur), sent ? 1 : 0);
            // The next stream starts the moment this one has sent its last
            // packet, and runs during this one's wait for late replies.
            const uint32_t next = static_cast<uint32_t>(k) % DETECT_LONG_TIME_STREAMS;
            m_exchangers[next]->set_state(DETECT_STATE_IDLE);
            m_exchangers[next]->start_SR(m_pkt_buf, m_exchangers[next]);
            const bool stat = wait_for_state(cur, DETECT_STATE_STAT_FIN, kStatFinWaits);
            NT_LOGI("waitfor_get_stat(%d)=%d)", static_cast<int>(cur), stat ? 1 : 0);
            notify_detect_result(cur);
            cur = next;
        }
        const bool sent = wait_for_state(cur, DETECT_STATE_SEND_FIN, kSendFinWaits);
        NT_LOGI("waitfor_send_fin(%d)=%d)", static_cast<int>(cur), sent ? 1 : 0);
        const bool stat = wait_for_state(cur, DETECT_STATE_STAT_FIN, kStatFinWaits);
        NT_LOGI("waitfor_get_stat(%d)=%d)", static_cast<int>(cur), stat ? 1 : 0);
        notify_detect_result(cur);
    }
    MORL_SleepMs(kCloseDelayMs);
    init_send_buf(m_pkt_buf, sizeof m_pkt_buf);
    // The thread's own copy keeps the object until the thread is gone.
    m_self.reset();
}
