// The multi-site client. start_client runs on the caller's thread; the rest
// on the detection's own thread ("detect_multi_site"), which also calls the
// callback. The exchangers run their own two threads each and hold
// themselves (and their sockets) until their streams end.
#include "bwdetect/detect_multi_site.h"

#include "bwdetect/detect_qos_score.h"
#include "commonlib/zeph_commonlib.h"
#include "inc/net_tools_log.h"
#include "net_tools_util/net_tools_util.h"

namespace q = zeph::quality;

namespace {

// Each site's stream.
constexpr int32_t kStreamSeconds = 3;
// The level table's rate unit (1024 bit/s) in bytes per second.
constexpr uint32_t kRateUnitBytes = 128;
// Waits for the streams: sent within 700 x 5 ms, figures within 300 x 5 ms.
constexpr uint32_t kWaitStepMs = 5;
constexpr uint32_t kSendFinRounds = 700;
constexpr uint32_t kStatRounds = 300;
// Pause before the detection lets go of its sockets.
constexpr uint32_t kCloseDelayMs = 10;
constexpr size_t kAddrText = 16;

} // namespace

DetectMultiSitePlan detect_multi_site_plan(uint32_t sites) {
    if (sites == 0) sites = 1;
    const uint32_t share = DETECT_MULTI_SITE_BUDGET / sites;
    uint8_t level = q::kMaxLevel;
    for (uint8_t l = 0; l < q::kLevelCount; ++l) {
        if (q::kLevels[l].rate_kbit >= share) {
            level = l;
            break;
        }
    }
    const int32_t len = static_cast<int32_t>(share * kRateUnitBytes / q::kLevels[level].pkts_per_sec);
    return {level, len};
}

DetectClientMultiSite::DetectClientMultiSite() : m_exchangers(DETECT_MAX_SITES) {}

DetectClientMultiSite::~DetectClientMultiSite() {
    m_exchangers.clear();
    m_socks.clear();
    NT_LOGI("destory");
}

bool DetectClientMultiSite::check_site_info(std::vector<DetectSiteInfo>& sites) {
    bool any = false;
    for (size_t i = 0; i < sites.size(); ++i) {
        DetectSiteInfo& s = sites[i];
        const bool ok = s.port != 0 && !s.ip.empty() && !s.auth_token.empty() && !s.auth_para.empty();
        s.valid = ok ? 1 : 0;
        if (ok) {
            NT_LOGI("site_info: array[%d] index[%d] ip[%s] delaybase[%d]", static_cast<int>(i), s.index,
                    s.ip.c_str(), static_cast<int>(s.delaybase));
            any = true;
        } else {
            NT_LOGE("any sitinfo is null");
        }
    }
    return any;
}

int32_t DetectClientMultiSite::start_client(const std::vector<DetectSiteInfo>& sites, DetectBwNotify callback,
                                            std::shared_ptr<DetectClientMultiSite> self) {
    if (callback == nullptr) {
        NT_LOGE("fun_callback is null");
        return DETECT_ERR_BAD_ARGUMENT;
    }
    std::vector<DetectSiteInfo> checked = sites;
    if (!check_site_info(checked)) return DETECT_ERR_BAD_ARGUMENT;
    if (check_token(checked) != 0) return DETECT_ERR_SITES_REFUSED;

    m_callback = callback;
    m_sites = std::move(checked);
    m_site_num = static_cast<uint32_t>(m_sites.size() < DETECT_MAX_SITES ? m_sites.size() : DETECT_MAX_SITES);
    const DetectMultiSitePlan plan = detect_multi_site_plan(m_site_num);
    m_level = plan.level;
    m_pkt_len = plan.pkt_len;
    NT_LOGI("level=%d len=%d m_site_num=%d call_back=%x", m_level, m_pkt_len, m_site_num, nt_log_addr(callback));

    init_send_buf(m_pkt_buf, sizeof m_pkt_buf);
    set_pkt_type(m_pkt_buf, sizeof m_pkt_buf, q::kTypeAuth);
    set_state(DETECT_STATE_SENDING);
    ZEPH_CPYPT_RealRandom(&m_session, sizeof m_session);
    set_pkt_session(m_pkt_buf, sizeof m_pkt_buf, m_session);

    m_self = std::move(self);
    if (start_send_thread() != 0) {
        m_self.reset();
        return DETECT_ERR_BAD_ARGUMENT;
    }
    return 0;
}

int32_t DetectClientMultiSite::start_send_thread() {
    std::shared_ptr<DetectClientMultiSite> keep = m_self;
    if (!keep || !start_detached(keep, &DetectClientMultiSite::client_send_thread)) return DETECT_ERR_BAD_ARGUMENT;
    return 0;
}

void DetectClientMultiSite::start_socket(uint32_t no) {
    const DetectSiteInfo& site = m_sites[no];
    if (site.valid == 0) return;
    const uint32_t addr = get_addr_ipv4(site.ip.c_str());
    if (addr == 0 || site.port == 0) {
        NT_LOGE("para invalid(%d)! ip(%s) port(%d)", static_cast<int>(no), site.ip.c_str(), site.port);
        return;
    }
    char text[kAddrText] = {};
    ipv4_int2str(text, sizeof text, addr);
    DetectSockPtr sock = init_socket(text, site.port, static_cast<uint16_t>(DETECT_FIRST_CLIENT_PORT + no));
    if (!sock) return;
    m_socks.push_back(sock);
    NT_LOGI("no(%d) sock(%x) index(%d) ip(%s) port(%d)", static_cast<int>(no), static_cast<unsigned>(*sock),
            site.index, text, site.port);
}

void DetectClientMultiSite::client_send_thread() {
    MORL_PthreadSetName("detect_multi_site");
    set_level(m_level);
    set_pkt_type(m_pkt_buf, sizeof m_pkt_buf, q::kTypeData);

    bool started_all = true;
    for (uint32_t no = 0; no < m_site_num; ++no) {
        start_socket(no);
        if (m_socks.size() < no + 1) {
            NT_LOGE("[client_send_thread] size(%d)!=num(%d)", static_cast<int>(m_socks.size()),
                    static_cast<int>(no + 1));
            notify_failed(DETECT_ERR_SITE_NO_SOCKET);
            started_all = false;
            break;
        }
        auto ex = std::make_shared<DetectCliPktAnyTime>(m_socks[no], m_level, kStreamSeconds);
        ex->m_pkt_len = m_pkt_len;
        m_exchangers[no] = ex;
        const DetectSiteInfo& site = m_sites[no];
        if (site.valid != 0) {
            set_pkt_auth_token(m_pkt_buf, sizeof m_pkt_buf, site.auth_token.c_str());
            set_pkt_auth_para(m_pkt_buf, sizeof m_pkt_buf, site.auth_para.c_str());
            uint32_t session = 0;
            ZEPH_CPYPT_RealRandom(&session, sizeof session);
            set_pkt_session(m_pkt_buf, sizeof m_pkt_buf, session);
            ex->start_SR(m_pkt_buf, ex);
        }
    }

    if (started_all) {
        const int32_t sent = waitfor_send_fin();
        if (sent == DETECT_STATE_FAILED) {
            NT_LOGE("!!!auth_token_failed! please retry");
            notify_failed(DETECT_ERR_SITES_REFUSED);
        } else {
            NT_LOGI("waitfor_send_fin(%d)", sent);
            const bool all = waitfor_get_stat();
            NT_LOGI("waitfor_get_stat(%d)", all ? 1 : 0);
            notify_detect_result();
        }
    }
    MORL_SleepMs(kCloseDelayMs);
    init_send_buf(m_pkt_buf, sizeof m_pkt_buf);
    m_self.reset();
}

int32_t DetectClientMultiSite::waitfor_send_fin() {
    for (uint32_t round = 0; round < kSendFinRounds; ++round) {
        MORL_SleepMs(kWaitStepMs);
        bool all_sent = true;
        for (uint32_t no = 0; no < m_site_num; ++no) {
            const int32_t state = m_exchangers[no] ? m_exchangers[no]->get_state() : DETECT_STATE_IDLE;
            if (state == DETECT_STATE_FAILED) {
                NT_LOGE("state failed");
                notify_failed(DETECT_ERR_SITES_REFUSED);
                return DETECT_STATE_FAILED;
            }
            if (state != DETECT_STATE_SEND_FIN) {
                all_sent = false;
                break;
            }
        }
        if (all_sent) return DETECT_STATE_SEND_FIN;
    }
    return DETECT_STATE_SENDING;
}

bool DetectClientMultiSite::waitfor_get_stat() {
    for (uint32_t round = 0; round < kStatRounds; ++round) {
        bool all = true;
        for (uint32_t no = 0; no < m_site_num && all; ++no)
            all = m_exchangers[no] && m_exchangers[no]->get_state() == DETECT_STATE_STAT_FIN;
        if (all) return true;
        MORL_SleepMs(kWaitStepMs);
    }
    return false;
}

void DetectClientMultiSite::notify_detect_result() {
    DetectQosScore* scorer = DetectQosScore::get_instance();
    std::vector<DetectQosResult> results;
    int32_t best_score = DETECT_SCORE_UNUSABLE;
    size_t best = 0;
    for (uint32_t no = 0; no < m_site_num; ++no) {
        const DetectSiteInfo& site = m_sites[no];
        const DetectPktStat stat = m_exchangers[no] ? m_exchangers[no]->get_stat() : detect_pkt_stat_worst();
        int32_t score = 0;
        if (scorer != nullptr)
            score = scorer->get_qos_score(stat, site.delaybase);
        else
            NT_LOGE("pDetectQosScore is nullptr");
        NT_LOGI("score[%d]=%d index[%d] ip[%s] delaybase[%d]", static_cast<int>(no), score, site.index,
                site.ip.c_str(), static_cast<int>(site.delaybase));
        if (score > best_score) {
            best_score = score;
            best = no;
        }
        results.push_back(detect_qos_result(site.index, score, stat));
    }
    if (results.empty()) return;
    results[best].is_pre = 1;
    const int32_t best_index = results[best].index;
    m_callback(0, 0, best_index, std::move(results));
}

void DetectClientMultiSite::notify_failed(int32_t code) { m_callback(0, code, 0, std::vector<DetectQosResult>{}); }
