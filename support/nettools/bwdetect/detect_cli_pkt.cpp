// The packet exchanger: one paced stream of quality packets and the replies
// to it, kept in one record per sequence number.
// Threads: the owner's thread runs the constructor, start_SR and get_stat;
// "client_send_thread" paces the stream, waits for late replies and computes
// the statistics; "client_recv_thread" takes the replies. The two share the
// record table through relaxed atomics and the statistics record through a
// spin flag; each holds the object until it ends.
#include "bwdetect/detect_cli_pkt.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "inc/net_tools_log.h"
#include "net_tools_util/net_tools_util.h"

namespace q = zeph::quality;

namespace {

constexpr uint8_t kDefaultSeconds = 10;
// The last sequence number goes out this many more times once the stream is
// over, so that a lost last packet still leaves the server a trace.
constexpr int kLastPacketRepeats = 3;
// After the stream, this many waits of this length for late replies.
constexpr int kLateReplyWaits = 10;
constexpr uint32_t kLateReplyWaitMs = 100;
// Sequence numbers whose remainder by this is 1 are logged on the way out and in.
constexpr uint32_t kLogEvery = 500;
constexpr uint32_t kLogRemainder = 1;
// The receive thread waits this long in one poll before it looks at the run
// flag again, and reads at most this many datagrams per system call.
constexpr int kRecvPollMs = 10;
constexpr uint32_t kRecvBatch = 16;
constexpr size_t kReportSize = 1600;
constexpr int64_t kMsPerSecond = 1000;

uint32_t nonzero(uint32_t time) { return time == 0 ? 1 : time; }

int64_t counter_now() {
    int64_t now = 0;
    MORL_QueryPerformanceCounter(&now);
    return now;
}

// Sleeps until the counter reaches `deadline`, rounded up to the next whole
// millisecond: a wake is late by less than a millisecond plus the system's
// own lateness, never early.
void sleep_until(int64_t deadline, int64_t freq) {
    const int64_t left = deadline - counter_now();
    if (left <= 0 || freq <= 0) return;
    const int64_t ms = (left * kMsPerSecond + freq - 1) / freq;
    MORL_SleepMs(static_cast<uint32_t>(ms));
}

} // namespace

DetectCliPktAnyTime::DetectCliPktAnyTime(DetectSockPtr sock, int32_t level, int32_t seconds) {
    m_sock = std::move(sock);
    if (level < 0 || level > q::kMaxLevel) {
        NT_LOGE("level(%d) is invalid", level);
        level = q::kMaxLevel;
    }
    if (seconds < static_cast<int32_t>(q::kMinStreamSeconds) || seconds > static_cast<int32_t>(q::kMaxStreamSeconds)) {
        NT_LOGE("seconds(%d) is invalid", seconds);
        seconds = kDefaultSeconds;
    }
    m_level = static_cast<uint8_t>(level);
    m_seconds = static_cast<uint8_t>(seconds);
    m_total = q::stream_packets(m_level, m_seconds);
    m_stat = detect_pkt_stat_worst();
    set_pkt_level(m_pkt_buf, sizeof m_pkt_buf, m_level);
}

DetectCliPktAnyTime::~DetectCliPktAnyTime() {
    // Both threads hold the object: when this runs, neither uses it any more.
    NT_LOGI("exchanger sock=%x freed", static_cast<unsigned>(sock()));
    set_running(0);
}

uint32_t DetectCliPktAnyTime::clock_of(int64_t counter) const {
    return nonzero(static_cast<uint32_t>(counter_to_ms(counter - m_start_time, m_freq_time)));
}

uint32_t DetectCliPktAnyTime::now32() { return nonzero(static_cast<uint32_t>(get_runtime_current())); }

const DetectPktRecord* DetectCliPktAnyTime::record(uint32_t seq) const {
    return m_pkt_time && seq < m_total ? &m_pkt_time[seq] : nullptr;
}

void DetectCliPktAnyTime::store_stat(const DetectPktStat& stat) {
    while (m_stat_busy.exchange(true, std::memory_order_acquire)) {
    }
    m_stat = stat;
    m_stat_busy.store(false, std::memory_order_release);
}

DetectPktStat DetectCliPktAnyTime::get_stat() const {
    while (m_stat_busy.exchange(true, std::memory_order_acquire)) {
    }
    const DetectPktStat copy = m_stat;
    m_stat_busy.store(false, std::memory_order_release);
    return copy;
}

int32_t DetectCliPktAnyTime::prepare_stream(const uint8_t* image) {
    if (!m_pkt_time) {
        m_pkt_time.reset(new (std::nothrow) DetectPktRecord[m_total]);
        if (!m_pkt_time) {
            NT_LOGE("malloc error");
            return DETECT_ERR_NO_MEMORY;
        }
    }
    for (uint32_t i = 0; i < m_total; ++i) {
        m_pkt_time[i].valid_flag.store(0, std::memory_order_relaxed);
        m_pkt_time[i].client_send_time.store(0, std::memory_order_relaxed);
        m_pkt_time[i].server_recv_time.store(0, std::memory_order_relaxed);
        m_pkt_time[i].client_recv_time.store(0, std::memory_order_relaxed);
    }
    if (m_pkt_len < static_cast<int32_t>(q::kHeadRegionSize) || m_pkt_len > static_cast<int32_t>(q::kImageSize)) {
        NT_LOGE("m_pkt_len(%d) is invalid", m_pkt_len);
        m_pkt_len = static_cast<int32_t>(q::kImageSize);
    }
    if (image != nullptr) std::memcpy(m_pkt_buf, image, static_cast<size_t>(m_pkt_len));
    set_pkt_len(m_pkt_buf, sizeof m_pkt_buf, static_cast<uint16_t>(m_pkt_len - q::kHeadRegionSize));
    return 0;
}

int32_t DetectCliPktAnyTime::start_SR(const uint8_t* image, std::shared_ptr<DetectCliPktAnyTime> self) {
    uint32_t idle = 0;
    if (!m_running.compare_exchange_strong(idle, 1)) {
        // A running stream keeps its table and image untouched.
        NT_LOGE("client already started!");
        return DETECT_ERR_ALREADY_STARTED;
    }
    const int32_t prepared = prepare_stream(image);
    if (prepared != 0) {
        set_running(0);
        return prepared;
    }
    set_state(DETECT_STATE_SENDING);
    store_stat(detect_pkt_stat_worst());
    m_stream.fetch_add(1);
    if (MORL_EnableRecvTimestamps(sock()) != 0)
        NT_LOGW("no arrival stamps on sock=%x error=%d: replies are timed when read", static_cast<unsigned>(sock()),
                MORL_GetLastSocketErr());
    if (!start_detached(self, &DetectCliPktAnyTime::client_recv_thread) ||
        !start_detached(self, &DetectCliPktAnyTime::client_send_thread)) {
        // Whichever thread started sees the flag and leaves.
        set_running(0);
    }
    return 0;
}

void DetectCliPktAnyTime::mark_sent(uint32_t seq, uint32_t time) {
    if (!m_pkt_time || seq >= m_total) return;
    DetectPktRecord& r = m_pkt_time[seq];
    r.valid_flag.store(1, std::memory_order_relaxed);
    if (r.server_recv_time.load(std::memory_order_relaxed) != 0 ||
        r.client_recv_time.load(std::memory_order_relaxed) != 0) {
        r.server_recv_time.store(0, std::memory_order_relaxed);
        r.client_recv_time.store(0, std::memory_order_relaxed);
    }
    r.client_send_time.store(nonzero(time), std::memory_order_relaxed);
}

void DetectCliPktAnyTime::send_buf(uint32_t seq) {
    const uint32_t now = now32();
    set_pkt_seq(m_pkt_buf, sizeof m_pkt_buf, seq);
    set_pkt_time(m_pkt_buf, sizeof m_pkt_buf, now);
    mark_sent(seq, now);
    if (seq % kLogEvery == kLogRemainder) NT_LOGI("cli send seq=%d len=%d time=%d", seq, m_pkt_len, now);
    const int sent = MORL_Send(sock(), m_pkt_buf, m_pkt_len, 0);
    if (sent != m_pkt_len) // a packet that could not go is a lost packet
        NT_LOGE("send error len(%d)!=m_pkt_len(%d) error=%d", sent, m_pkt_len, MORL_GetLastSocketErr());
}

void DetectCliPktAnyTime::client_send_thread() {
    MORL_PthreadSetName("client_send_thread");
    const q::LevelRow& row = q::level_row(m_level);
    const uint32_t bursts = row.pkts_per_sec / row.pkts_per_burst;
    NT_LOGI("client send sock=%x level=%d seconds=%d sleep_time=%d", static_cast<unsigned>(sock()), m_level, m_seconds,
            row.burst_interval);

    // Each burst leaves at its own deadline, start + k x interval. A wake
    // that is late by a whole interval or more moves the schedule instead of
    // sending the missed bursts back to back.
    const int64_t interval = m_freq_time * row.burst_interval / kMsPerSecond;
    int64_t deadline = counter_now();
    uint32_t seq = 0;
    for (uint32_t second = 0; second < m_seconds; ++second) {
        for (uint32_t burst = 0; burst < bursts; ++burst) {
            for (uint32_t i = 0; i < row.pkts_per_burst; ++i) send_buf(seq++);
            deadline += interval;
            const int64_t now = counter_now();
            if (now >= deadline) deadline = now + interval;
            sleep_until(deadline, m_freq_time);
            if (is_running() == 0) {
                NT_LOGI("client will be stop in one count=%d", seq);
                set_state(DETECT_STATE_SEND_FIN);
                return;
            }
        }
    }
    set_state(DETECT_STATE_SEND_FIN);
    for (int i = 0; i < kLastPacketRepeats; ++i) {
        send_buf(seq - 1);
        MORL_SleepMs(0);
    }
    for (int i = 0; i < kLateReplyWaits; ++i) {
        MORL_SleepMs(kLateReplyWaitMs);
        if (is_running() == 0) {
            NT_LOGI("client will be stop in two count=%d", seq);
            return;
        }
    }

    DetectPktStat stat;
    qos_stat_all(stat, m_pkt_time.get(), static_cast<int>(seq), m_seconds);
    store_stat(stat);
    char report[kReportSize];
    const int n = std::snprintf(
        report, sizeof report,
        "\r\nsock=%x total_pkts:%d len:%d level:%d, avg_delay:%d max_delay:%d, avg_jitter:%d max_jitter:%d, "
        "avg_s_jitter:%d max_s_jitter:%d, avg_r_jitter:%d max_r_jitter:%d, avg_s_loss_rate:%d max_s_loss_rate:%d, "
        "avg_r_loss_rate:%d max_r_loss_rate:%d, max_s_cont_loss_num:%d max_r_cont_loss_num:%d",
        static_cast<unsigned>(sock()), seq, m_pkt_len, m_level, stat.avg_delay, stat.max_delay, stat.avg_jitter,
        stat.max_jitter, stat.avg_s_jitter, stat.max_s_jitter, stat.avg_r_jitter, stat.max_r_jitter,
        stat.avg_s_loss_rate, stat.max_s_loss_rate, stat.avg_r_loss_rate, stat.max_r_loss_rate,
        stat.max_s_cont_loss_num, stat.max_r_cont_loss_num);
    if (n < 0 || static_cast<size_t>(n) >= sizeof report)
        NT_LOGE("sprintf_s false");
    else
        NT_LOGI("%s", report);
    // The run flag drops before state 5, so that an owner who sees 5 may
    // start the next stream at once.
    set_running(0);
    set_state(DETECT_STATE_STAT_FIN);
}

void DetectCliPktAnyTime::client_recv_thread() {
    MORL_PthreadSetName("client_recv_thread");
    const uint32_t stream = m_stream.load();
    const MORL_SOCKET s = sock();
    NT_LOGI("start sock=%x", static_cast<unsigned>(s));
    uint8_t bufs[kRecvBatch][q::kRecvBufSize];
    MORL_DatagramIn slots[kRecvBatch];
    int count = 0;
    bool done = false;
    while (!done && stream_running(stream)) {
        MORL_PollFd pfd{s, MORL_POLLRDNORM, 0};
        if (MORL_Poll(&pfd, 1, kRecvPollMs) <= 0) continue;
        int got = 0;
        // Drain what waits, each datagram timed by its arrival.
        while (!done) {
            for (uint32_t i = 0; i < kRecvBatch; ++i) slots[i] = MORL_DatagramIn{bufs[i], int(q::kRecvBufSize), 0, {}, 0};
            const int n = MORL_RecvBatch(s, slots, kRecvBatch);
            if (n <= 0) break;
            got += n;
            for (int i = 0; i < n && !done; ++i) {
                const uint8_t* pkt = bufs[i];
                const size_t len = static_cast<size_t>(slots[i].len);
                const uint32_t arrival = slots[i].arrival != 0 ? clock_of(slots[i].arrival) : now32();
                ++count;
                const uint32_t seq = get_pkt_seq(pkt, len);
                if (seq % kLogEvery == kLogRemainder) {
                    NT_LOGI("client_recv_thread ret=%d seq=%d count=%d", slots[i].len, seq, count);
                    count = 0;
                }
                done = save_recv_pkt_time(pkt, len, arrival) != 0;
            }
            if (static_cast<uint32_t>(n) < kRecvBatch) break;
        }
        // A poll that reports the socket (an error, a hang-up) with nothing
        // to read must not turn the wait into a spin.
        if (got == 0) MORL_SleepMs(1);
    }
    NT_LOGI("end count=%d", count);
}

int32_t DetectCliPktAnyTime::recv_pkt_is_valid(const uint8_t* pkt, size_t len) {
    const uint16_t type = get_pkt_type(pkt, len);
    if (type != q::kTypeDataResp) {
        NT_LOGE("msg type(0x%x) is error", type);
        return 0;
    }
    if (base_pkt_is_valid(pkt, len, m_total) == 0) {
        NT_LOGE("seq(%d)", static_cast<int>(get_pkt_seq(pkt, len)));
        return 0;
    }
    const uint8_t level = get_pkt_level(pkt, len);
    if (level != m_level) {
        NT_LOGE("level(%d) != m_level(%d)", level, m_level);
        return 0;
    }
    return 1;
}

int32_t DetectCliPktAnyTime::save_recv_pkt_time(const uint8_t* buf, size_t len, uint32_t arrival_ms) {
    if (!m_pkt_time || recv_pkt_is_valid(buf, len) == 0) return 0;
    if (get_pkt_status(buf, len) == q::kStatusRefused) {
        set_state(DETECT_STATE_FAILED);
        store_stat(detect_pkt_stat_worst());
        set_running(0);
        return DETECT_ERR_TOKEN_REFUSED;
    }
    const bool stun = m_is_stun != 0;
    const uint32_t seq = get_pkt_seq(buf, len);
    const uint32_t arrival = nonzero(arrival_ms);
    DetectPktRecord& r = m_pkt_time[seq];
    if (r.valid_flag.load(std::memory_order_relaxed) == 0) {
        NT_LOGI("data is invalid, seq=%d recv_time=%d", seq, arrival);
    } else {
        r.client_recv_time.store(arrival, std::memory_order_relaxed);
        const uint32_t srv = nonzero(get_pkt_time(buf, len));
        if (!stun) r.server_recv_time.store(srv, std::memory_order_relaxed);
        NT_LOGD("data recvtime, seq=%d recv_time=%d srv_time=%d", seq, arrival, stun ? 0u : srv);
    }
    // A STUN reply's byte 29 is no pair count: its pairs are not read.
    if (stun) return 0;
    const uint8_t pairs = get_pkt_pair_count(buf, len);
    for (uint32_t i = 0; i < pairs; ++i) {
        const uint32_t pair_seq = get_pkt_pair_seq(buf, len, i);
        if (static_cast<int32_t>(pair_seq) < 0 || pair_seq >= m_total) continue;
        DetectPktRecord& p = m_pkt_time[pair_seq];
        if (p.valid_flag.load(std::memory_order_relaxed) != 0)
            p.server_recv_time.store(nonzero(get_pkt_pair_time(buf, len, i)), std::memory_order_relaxed);
    }
    return 0;
}
