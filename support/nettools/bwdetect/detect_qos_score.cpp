// DetectQosScore: the score table, its checks and the score of a stream.
// Any thread; the table and weights are read and written under m_mutex.
#include "bwdetect/detect_qos_score.h"

#include <atomic>
#include <limits>
#include <new>

#include "inc/net_tools_log.h"

namespace {

constexpr int32_t kDefaultScoreMax = 1000;

// A curve is read in 64 bits so that a host's table of large numbers cannot
// overflow; the result is brought back into 32 bits.
int32_t clamp32(int64_t v) {
    if (v > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
    if (v < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(v);
}

// The curve of one column (`col`) of the first `n` rows at `x`.
int64_t curve(const std::vector<DetectRole>& rows, int32_t n, int32_t DetectRole::*col, int64_t x) {
    if (x <= rows[0].*col) return rows[0].score;
    if (x >= rows[n - 1].*col) return rows[n - 1].score;
    for (int32_t k = 1; k < n; ++k) {
        const int64_t lo = rows[k - 1].*col;
        const int64_t hi = rows[k].*col;
        if (lo < x && x <= hi)
            return (int64_t(rows[k - 1].score) - rows[k].score) * (hi - x) / (hi - lo) + rows[k].score;
    }
    return rows[n - 1].score; // not reached: the rows rise strictly
}

std::mutex g_instance_mutex;
DetectQosScore* g_instance = nullptr;

} // namespace

constexpr uint32_t DetectQosScore::kDefaultWeights[DetectQosScore::kWeights];

std::vector<DetectRole> DetectQosScore::default_roles() {
    return {
        {1, 0, 0, 0, kDefaultScoreMax},
        {1, 20, 5, 3, 950},
        {1, 40, 10, 10, 850},
        {1, 60, 20, 30, 750},
        {1, 100, 30, 50, 600},
        {1, 150, 50, 100, 500},
        {1, 200, 75, 200, 400},
        {1, 1600, 300, 300, 0},
        {1, 3000, 1000, 900, DETECT_SCORE_UNUSABLE},
        {0, 0, 0, 0, 0},
    };
}

DetectQosScore::DetectQosScore() {
    for (int i = 0; i < kWeights; ++i) m_weight[i] = kDefaultWeights[i];
    m_roles = default_roles();
    const RoleCheck check = check_role(m_roles);
    m_role_num = check.usable;
    m_has_limit = check.has_limit ? 1 : 0;
    if (check.has_limit) m_limit = m_roles[static_cast<size_t>(m_role_num)];
}

DetectQosScore* DetectQosScore::get_instance() {
    std::lock_guard<std::mutex> lock(g_instance_mutex);
    if (g_instance == nullptr) {
        g_instance = new (std::nothrow) DetectQosScore();
        if (g_instance == nullptr) NT_LOGE("new DetectQosScore failed");
    }
    return g_instance;
}

void DetectQosScore::destroy_instance() {
    std::lock_guard<std::mutex> lock(g_instance_mutex);
    delete g_instance;
    g_instance = nullptr;
}

DetectQosScore::RoleCheck DetectQosScore::check_role(const std::vector<DetectRole>& roles) {
    RoleCheck out;
    const int32_t count = static_cast<int32_t>(roles.size());
    if (count == 0) {
        NT_LOGE("the roles is invalid(count=%d)", count);
        return out;
    }
    int32_t n = 0;
    for (int32_t i = 0; i < count; ++i) {
        const DetectRole& r = roles[static_cast<size_t>(i)];
        if (r.valid == 0) break;
        if (i > 0) {
            const DetectRole& p = roles[static_cast<size_t>(i - 1)];
            if (r.delay <= p.delay || r.jitter <= p.jitter || r.loss <= p.loss || r.score >= p.score) break;
            if (r.score == DETECT_SCORE_UNUSABLE) {
                out.has_limit = true;
                break;
            }
        }
        ++n;
    }
    if (n < 2) {
        NT_LOGE("the roles is invalid(count=%d)", n);
        out.has_limit = false;
        return out;
    }
    if (n < count) NT_LOGW("part of the roles is invalid(count(%d)!=groups(%d))", n, count);
    out.usable = n;
    return out;
}

int32_t DetectQosScore::set_weight(const uint32_t weights[kWeights]) {
    for (int i = 0; i < kWeights; ++i) {
        if (weights[i] < kMinWeight || weights[i] > kMaxWeight) {
            NT_LOGE("weight[%d]=%u is out of range", i, weights[i]);
            return DETECT_ERR_BAD_WEIGHT;
        }
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    for (int i = 0; i < kWeights; ++i) m_weight[i] = weights[i];
    return 0;
}

int32_t DetectQosScore::set_roles(const std::vector<DetectRole>& roles) {
    const RoleCheck check = check_role(roles);
    if (check.usable < 2) return DETECT_ERR_BAD_ROLES;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_roles = roles;
    m_role_num = check.usable;
    if (check.has_limit) {
        m_has_limit = 1;
        m_limit = roles[static_cast<size_t>(check.usable)];
    }
    return 0;
}

int32_t DetectQosScore::get_qos_score(const DetectPktStat& stat, uint32_t delaybase) const {
    const int64_t d = stat.avg_delay / 2;
    const int64_t j = (int64_t(stat.avg_s_jitter) + stat.avg_r_jitter) / 2;
    const int64_t l = (int64_t(stat.avg_s_loss_rate) + stat.avg_r_loss_rate) / 2;

    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_has_limit != 0 && (m_limit.delay <= d || m_limit.jitter <= j || m_limit.loss <= l))
        return DETECT_SCORE_UNUSABLE;
    const int64_t score = int64_t(m_weight[0]) * curve(m_roles, m_role_num, &DetectRole::delay, delaybase + d) +
                          int64_t(m_weight[1]) * curve(m_roles, m_role_num, &DetectRole::jitter, j) +
                          int64_t(m_weight[2]) * curve(m_roles, m_role_num, &DetectRole::loss, l);
    return clamp32(score);
}
