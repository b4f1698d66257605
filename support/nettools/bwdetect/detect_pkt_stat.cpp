// Statistics of a quality stream: the record table, cut into windows of one
// second, reduced to delay, jitter per direction, loss per direction and the
// longest runs of loss. Pure functions of the table; they run on the
// exchanger's send thread once the stream is over (and in tests on any
// thread). The receive thread may still write late replies meanwhile: each
// record is read once, field by field, with relaxed loads.
#include "bwdetect/detect_cli_pkt.h"

#include <algorithm>
#include <cstdlib>

#include "inc/net_tools_log.h"

namespace {

constexpr int32_t kPerMille = 1000;
// Two consecutive times further apart than this (either way) are not
// compared: one of them is not of this stream's pace.
constexpr int32_t kMaxTimeStep = 3000;
// Worst values of the run counters and bad-second counters of a fresh record.
constexpr int32_t kWorstRun = 100;
constexpr int32_t kWorstBadSeconds = 10;

// One record as read once.
struct Times {
    uint32_t valid_flag;
    uint32_t client_send_time;
    uint32_t server_recv_time;
    uint32_t client_recv_time;
};

Times read_record(const DetectPktRecord& r) {
    return Times{r.valid_flag.load(std::memory_order_relaxed), r.client_send_time.load(std::memory_order_relaxed),
                 r.server_recv_time.load(std::memory_order_relaxed),
                 r.client_recv_time.load(std::memory_order_relaxed)};
}

// Counters of one second.
struct SecondSums {
    bool time_flag = false; // some record of the second has a server time
    int32_t s_r_num = 0;
    int32_t r_r_num = 0;
    int64_t t_delay_time = 0;
    int32_t s_jitter_num = 0;
    int64_t t_s_jitter_time = 0;
    int32_t r_jitter_num = 0;
    int64_t t_r_jitter_time = 0;
    int32_t t_jitter_num = 0;
    int64_t t_jitter_time = 0;
    int32_t c_s_loss_pkt = 0;
    int32_t c_r_loss_pkt = 0;
    int32_t m_s_loss_pkt = 0;
    int32_t m_r_loss_pkt = 0;
};

void note_reply(SecondSums& c, const Times& t) {
    if (t.client_recv_time != 0) {
        c.t_delay_time += pkt_time_diff(t.client_send_time, t.client_recv_time);
        ++c.r_r_num;
        c.m_r_loss_pkt = std::max(c.m_r_loss_pkt, c.c_r_loss_pkt);
        c.c_r_loss_pkt = 0;
    } else {
        ++c.c_r_loss_pkt;
        c.m_r_loss_pkt = std::max(c.m_r_loss_pkt, c.c_r_loss_pkt);
    }
}

// A second with server times: a record without one was lost on the way out
// (its reply, if any, does not count); with one, its reply tells the way back.
void calc_delay_and_loss(SecondSums& c, const Times& t) {
    if (t.server_recv_time == 0) {
        ++c.c_s_loss_pkt;
        c.m_s_loss_pkt = std::max(c.m_s_loss_pkt, c.c_s_loss_pkt);
        return;
    }
    ++c.s_r_num;
    c.m_s_loss_pkt = std::max(c.m_s_loss_pkt, c.c_s_loss_pkt);
    c.c_s_loss_pkt = 0;
    note_reply(c, t);
}

// A second without server times (a STUN peer): the two ways cannot be told
// apart, so every packet counts as arrived and every loss as one on the way back.
void calc_delay_and_loss_stun(SecondSums& c, const Times& t) {
    ++c.s_r_num;
    note_reply(c, t);
}

// The two differences between consecutive records, each valid only within
// kMaxTimeStep; `out` is |second - first|. False, with a log line for the
// first invalid one, when either is out of range.
bool step_of(uint32_t a_prev, uint32_t a_cur, const char* a_text, uint32_t b_prev, uint32_t b_cur,
             const char* b_text, int64_t& out) {
    const int32_t da = pkt_time_diff(a_prev, a_cur);
    if (da < -kMaxTimeStep || da > kMaxTimeStep) {
        NT_LOGI(a_text, static_cast<int>(a_prev), static_cast<int>(a_cur));
        return false;
    }
    const int32_t db = pkt_time_diff(b_prev, b_cur);
    if (db < -kMaxTimeStep || db > kMaxTimeStep) {
        NT_LOGI(b_text, static_cast<int>(b_prev), static_cast<int>(b_cur));
        return false;
    }
    out = std::llabs(static_cast<int64_t>(db) - da);
    return true;
}

const char kSendTimesText[] = "[i-1].client_send_time=%d, [i].client_send_time=%d";
const char kServerTimesText[] = "[i-1].server_recv_time=%d, [i].server_recv_time=%d";
const char kRecvTimesText[] = "[i-1].client_recv_time=%d, [i].client_recv_time=%d";

void calc_jitter(SecondSums& c, const Times& prev, const Times& cur) {
    int64_t step = 0;
    if (c.time_flag) {
        // Send jitter: how the way out stretched; receive jitter: the way back.
        if (prev.client_send_time && cur.client_send_time && prev.server_recv_time && cur.server_recv_time &&
            step_of(prev.client_send_time, cur.client_send_time, kSendTimesText, prev.server_recv_time,
                    cur.server_recv_time, kServerTimesText, step)) {
            c.t_s_jitter_time += step;
            ++c.s_jitter_num;
        }
        if (prev.server_recv_time && cur.server_recv_time && prev.client_recv_time && cur.client_recv_time &&
            step_of(prev.server_recv_time, cur.server_recv_time, kServerTimesText, prev.client_recv_time,
                    cur.client_recv_time, kRecvTimesText, step)) {
            c.t_r_jitter_time += step;
            ++c.r_jitter_num;
        }
        return;
    }
    if (prev.client_send_time && cur.client_send_time && prev.client_recv_time && cur.client_recv_time &&
        step_of(prev.client_send_time, cur.client_send_time, kSendTimesText, prev.client_recv_time,
                cur.client_recv_time, kRecvTimesText, step)) {
        c.t_jitter_time += step;
        ++c.t_jitter_num;
    }
}

int32_t per_mille(int64_t part, int64_t whole) {
    return static_cast<int32_t>(part * kPerMille / whole);
}

void fill_second(DetectPktStat& s, const SecondSums& c, int32_t walked) {
    s.s_r_num = c.s_r_num;
    s.r_r_num = c.r_r_num;
    s.c_s_loss_pkt = c.c_s_loss_pkt;
    s.c_r_loss_pkt = c.c_r_loss_pkt;
    s.max_s_cont_loss_num = std::max(c.m_s_loss_pkt, c.c_s_loss_pkt);
    s.max_r_cont_loss_num = std::max(c.m_r_loss_pkt, c.c_r_loss_pkt);
    s.avg_s_loss_rate = per_mille(walked - c.s_r_num, walked);
    if (c.r_r_num == 0 || c.s_r_num == 0) {
        s.avg_delay = s.avg_jitter = s.avg_s_jitter = s.avg_r_jitter = kStatNoDelay;
        s.avg_s_loss_rate = s.avg_r_loss_rate = kStatAllLost;
        return;
    }
    s.avg_delay = static_cast<int32_t>(c.t_delay_time / c.r_r_num);
    if (c.r_jitter_num != 0 && c.s_jitter_num != 0) {
        s.avg_s_jitter = static_cast<int32_t>(c.t_s_jitter_time / c.s_jitter_num);
        s.avg_r_jitter = static_cast<int32_t>(c.t_r_jitter_time / c.r_jitter_num);
        s.avg_jitter = s.avg_s_jitter + s.avg_r_jitter;
        s.avg_r_loss_rate = per_mille(c.s_r_num - c.r_r_num, c.s_r_num);
    } else if (!c.time_flag && c.t_jitter_num != 0) {
        s.avg_jitter = static_cast<int32_t>(c.t_jitter_time / c.t_jitter_num);
        s.avg_s_jitter = s.avg_r_jitter = s.avg_jitter / 2;
        s.avg_r_loss_rate = per_mille(c.s_r_num - c.r_r_num, c.s_r_num);
    } else {
        // Packets and replies but no pair to compare: counted as fully lost.
        s.avg_jitter = s.avg_delay;
        s.avg_s_jitter = s.avg_r_jitter = s.avg_delay / 2;
        s.avg_s_loss_rate = s.avg_r_loss_rate = kStatAllLost;
    }
}

} // namespace

DetectPktStat detect_pkt_stat_worst() {
    DetectPktStat w{};
    w.avg_delay = w.avg_jitter = w.avg_s_jitter = w.avg_r_jitter = kStatNoDelay;
    w.max_delay = w.max_jitter = w.max_s_jitter = w.max_r_jitter = kStatNoDelay;
    w.avg_s_loss_rate = w.avg_r_loss_rate = w.max_s_loss_rate = w.max_r_loss_rate = kStatAllLost;
    w.s_r_num = w.r_r_num = 0;
    w.max_s_cont_loss_num = w.max_r_cont_loss_num = w.c_s_loss_pkt = w.c_r_loss_pkt = kWorstRun;
    w.s_bad_seconds = w.r_bad_seconds = kWorstBadSeconds;
    return w;
}

int qos_stat_second(DetectPktStat& s, const DetectPktRecord* records, int count) {
    if (count < 1 || records == nullptr) return 1;
    const Times base = read_record(records[0]);
    NT_LOGD("%8s %8s %8s %8s clibase=%d srvbase=%d", "index", "c_send", "s_recv", "c_recv",
            static_cast<int>(base.client_send_time), static_cast<int>(base.server_recv_time));

    SecondSums c;
    c.c_s_loss_pkt = s.c_s_loss_pkt;
    c.c_r_loss_pkt = s.c_r_loss_pkt;
    for (int i = 0; i < count && !c.time_flag; ++i)
        c.time_flag = records[i].server_recv_time.load(std::memory_order_relaxed) != 0;

    int32_t walked = 0;
    Times prev{};
    for (; walked < count; ++walked) {
        const Times t = read_record(records[walked]);
        NT_LOGD("%8d %8d %8d %8d", walked, pkt_time_diff(base.client_send_time, t.client_send_time),
                pkt_time_diff(base.server_recv_time, t.server_recv_time),
                pkt_time_diff(base.client_send_time, t.client_recv_time));
        if (t.valid_flag == 0 || t.client_send_time == 0) {
            // Nothing behind this record went out: a stream stopped early
            // counts only what it sent.
            NT_LOGI("seq=%d, valid_flag=%d, client_send_time=%d", walked, static_cast<int>(t.valid_flag),
                    static_cast<int>(t.client_send_time));
            break;
        }
        if (c.time_flag)
            calc_delay_and_loss(c, t);
        else
            calc_delay_and_loss_stun(c, t);
        if (walked > 0) calc_jitter(c, prev, t);
        prev = t;
    }
    if (walked == 0) return 1;

    NT_LOGD("before calc_stat: s_r_num:%d, r_r_num:%d, t_delay_time:%lld, s_jitter_num:%d, t_s_jitter_time:%lld, "
            "r_jitter_num:%d, t_r_jitter_time:%lld, t_jitter_num:%d, t_jitter_time:%lld, c_s_loss_pkt:%d, "
            "c_r_loss_pkt:%d, m_s_loss_pkt:%d, m_r_loss_pkt:%d, time_flag=%d",
            c.s_r_num, c.r_r_num, static_cast<long long>(c.t_delay_time), c.s_jitter_num,
            static_cast<long long>(c.t_s_jitter_time), c.r_jitter_num, static_cast<long long>(c.t_r_jitter_time),
            c.t_jitter_num, static_cast<long long>(c.t_jitter_time), c.c_s_loss_pkt, c.c_r_loss_pkt, c.m_s_loss_pkt,
            c.m_r_loss_pkt, c.time_flag ? 1 : 0);
    fill_second(s, c, walked);
    return 0;
}

void qos_stat_all(DetectPktStat& result, const DetectPktRecord* table, int total, int seconds) {
    result = DetectPktStat{};
    const int window = seconds > 0 ? total / seconds : 0;
    DetectPktStat s{}; // carries the open loss runs from one second into the next
    int64_t delay_sum = 0, jitter_sum = 0, s_jitter_sum = 0, r_jitter_sum = 0;
    int64_t s_loss_sum = 0, r_loss_sum = 0;
    int32_t with_data = 0, with_delay = 0;
    for (int i = 0; i < seconds; ++i) {
        if (qos_stat_second(s, table + static_cast<size_t>(i) * window, window) != 0) {
            ++result.s_bad_seconds;
            ++result.r_bad_seconds;
            continue;
        }
        ++with_data;
        // Once a dead second has pushed the delay sum to the sentinel, the
        // delay and jitter averages stay there.
        if (delay_sum < kStatNoDelay) {
            delay_sum += s.avg_delay;
            jitter_sum += s.avg_jitter;
            s_jitter_sum += s.avg_s_jitter;
            r_jitter_sum += s.avg_r_jitter;
            ++with_delay;
        }
        s_loss_sum += s.avg_s_loss_rate;
        r_loss_sum += s.avg_r_loss_rate;
        result.max_delay = std::max(result.max_delay, s.avg_delay);
        result.max_jitter = std::max(result.max_jitter, s.avg_jitter);
        result.max_s_jitter = std::max(result.max_s_jitter, s.avg_s_jitter);
        result.max_r_jitter = std::max(result.max_r_jitter, s.avg_r_jitter);
        result.max_s_loss_rate = std::max(result.max_s_loss_rate, s.avg_s_loss_rate);
        result.max_r_loss_rate = std::max(result.max_r_loss_rate, s.avg_r_loss_rate);
        result.max_s_cont_loss_num = std::max(result.max_s_cont_loss_num, s.max_s_cont_loss_num);
        result.max_r_cont_loss_num = std::max(result.max_r_cont_loss_num, s.max_r_cont_loss_num);
        if (s.s_r_num != window) ++result.s_bad_seconds;
        if (s.r_r_num != s.s_r_num) ++result.r_bad_seconds;
    }

    if (with_delay != 0) {
        result.avg_delay = static_cast<int32_t>(delay_sum / with_delay);
        result.avg_jitter = static_cast<int32_t>(jitter_sum / with_delay);
        result.avg_s_jitter = static_cast<int32_t>(s_jitter_sum / with_delay);
        result.avg_r_jitter = static_cast<int32_t>(r_jitter_sum / with_delay);
    } else {
        result.avg_delay = result.avg_jitter = result.avg_s_jitter = result.avg_r_jitter = kStatNoDelay;
        result.max_delay = result.max_jitter = result.max_s_jitter = result.max_r_jitter = kStatNoDelay;
    }
    if (with_data == 0) {
        result.max_s_cont_loss_num = result.max_r_cont_loss_num = total;
        result.avg_s_loss_rate = result.avg_r_loss_rate = kStatAllLost;
        result.max_s_loss_rate = result.max_r_loss_rate = kStatAllLost;
        return;
    }
    result.avg_s_loss_rate = static_cast<int32_t>(s_loss_sum / with_data);
    result.avg_r_loss_rate = static_cast<int32_t>(r_loss_sum / with_data);
}

DetectQosResult detect_qos_result(int16_t index, int32_t score, const DetectPktStat& s) {
    DetectQosResult r = {};
    r.index = index;
    r.score = score;
    r.is_pre = 0;
    r.a_delay = s.avg_delay;
    r.m_delay = s.max_delay;
    r.a_s_jitter = s.avg_s_jitter;
    r.m_s_jitter = s.max_s_jitter;
    r.a_r_jitter = s.avg_r_jitter;
    r.m_r_jitter = s.max_r_jitter;
    r.a_s_loss = s.avg_s_loss_rate;
    r.m_s_loss = s.max_s_loss_rate;
    r.a_r_loss = s.avg_r_loss_rate;
    r.m_r_loss = s.max_r_loss_rate;
    r.max_s_cont_loss_num = s.max_s_cont_loss_num;
    r.max_r_cont_loss_num = s.max_r_cont_loss_num;
    return r;
}
