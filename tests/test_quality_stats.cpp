// Statistics of a quality stream, computed from record tables made by hand:
// per-direction delay, jitter and loss, runs of loss across seconds, the
// sentinels of what could not be measured.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bwdetect/detect_cli_pkt.h"

namespace {

// A table of `seconds` windows of `per_second` records, all unsent.
class Table {
public:
    Table(int per_second, int seconds) : m_rows(size_t(per_second) * seconds), m_seconds(seconds) {}

    // Record `i` sent at `send`, seen by the server at `srv` (0: never),
    // answered at `recv` (0: no reply).
    void set(int i, uint32_t send, uint32_t srv, uint32_t recv) {
        m_rows[i].valid_flag = 1;
        m_rows[i].client_send_time = send;
        m_rows[i].server_recv_time = srv;
        m_rows[i].client_recv_time = recv;
    }
    // Every record sent every `gap` ms from `start`; the server's clock runs
    // `offset` ahead of ours; `out(i)` and `back(i)` are the one-way delays.
    template <class Out, class Back>
    void fill(uint32_t start, uint32_t gap, uint32_t offset, Out out, Back back) {
        for (int i = 0; i < size(); ++i) {
            const uint32_t send = start + uint32_t(i) * gap;
            set(i, send, send + offset + out(i), send + out(i) + back(i));
        }
    }
    DetectPktStat stat() const {
        DetectPktStat r;
        qos_stat_all(r, m_rows.data(), size(), m_seconds);
        return r;
    }
    int size() const { return int(m_rows.size()); }
    DetectPktRecord& operator[](int i) { return m_rows[i]; }

private:
    std::vector<DetectPktRecord> m_rows;
    int m_seconds;
};

// The figures as rows: averages (delay, jitter, send and receive jitter, send
// and receive loss), then per direction the bad seconds, longest run, worst second.
std::string avgs(const DetectPktStat& r) {
    std::string out;
    for (int32_t v : {r.avg_delay, r.avg_jitter, r.avg_s_jitter, r.avg_r_jitter, r.avg_s_loss_rate, r.avg_r_loss_rate})
        out += (out.empty() ? "" : " ") + std::to_string(v);
    return out;
}
std::string losses(const DetectPktStat& r) {
    std::string out;
    for (int32_t v : {r.s_bad_seconds, r.max_s_cont_loss_num, r.max_s_loss_rate, r.r_bad_seconds, r.max_r_cont_loss_num,
                      r.max_r_loss_rate})
        out += (out.empty() ? "" : " ") + std::to_string(v);
    return out;
}

constexpr int kPerSecond = 50;
constexpr uint32_t kGap = 20;
constexpr uint32_t kServerAhead = 123456; // the server's clock is its own

TEST(QualityStats, CleanStreamsSplitJitterByDirection) {
    // Way out alternates 10 and 14 ms, way back a steady 6: all jitter is sent jitter.
    Table t(kPerSecond, 3);
    t.fill(1000, kGap, kServerAhead, [](int i) { return i % 2 ? 14u : 10u; }, [](int) { return 6u; });
    EXPECT_EQ(avgs(t.stat()), "18 4 4 0 0 0");
    EXPECT_EQ(losses(t.stat()), "0 0 0 0 0 0");
    // The way back varies, the server's times show the way out steady.
    Table u(kPerSecond, 3);
    u.fill(1000, kGap, kServerAhead, [](int) { return 10u; }, [](int i) { return i % 2 ? 16u : 10u; });
    EXPECT_EQ(avgs(u.stat()), "23 6 0 6 0 0");
    // Times across the wrap of either clock.
    Table w(kPerSecond, 3);
    w.fill(0xFFFFFFFFu - 1500, kGap, 0x7FFFFFF0u, [](int) { return 7u; }, [](int) { return 9u; });
    EXPECT_EQ(avgs(w.stat()), "16 0 0 0 0 0");
}

TEST(QualityStats, LossIsToldByDirectionAndRunsCrossSeconds) {
    Table t(kPerSecond, 3);
    t.fill(1000, kGap, kServerAhead, [](int) { return 5u; }, [](int) { return 5u; });
    // Lost out: the last 3 of second 0 and the first 4 of second 1, one run of 7.
    for (int i = kPerSecond - 3; i < kPerSecond + 4; ++i) t[i].server_recv_time = 0, t[i].client_recv_time = 0;
    // Lost back in second 2 (the server's time came in a later pair): runs of 2 and 3.
    for (int i : {10, 11, 20, 21, 22}) t[2 * kPerSecond + i].client_recv_time = 0;
    const DetectPktStat r = t.stat();
    // Seconds: 3/50 and 4/50 out, 0 back; then 0 out, 5/50 back.
    EXPECT_EQ(avgs(r), "10 0 0 0 " + std::to_string((60 + 80) / 3) + " " + std::to_string(100 / 3));
    EXPECT_EQ(losses(r), "2 7 80 1 3 100");
    EXPECT_EQ(r.c_s_loss_pkt + r.s_r_num, 0); // per-second fields stay 0 in the final record
}

TEST(QualityStats, StepsOfMoreThanThreeSecondsAreNotCompared) {
    // Two records per second: one pair each. A server step of exactly 3000
    // counts; 3001 does not, and a second with no usable pair is counted as
    // fully lost with its jitter taken from its delay.
    Table t(2, 3);
    t.set(0, 100, 5000, 110);
    t.set(1, 100, 8000, 110); // server step 3000: send jitter 3000, receive jitter 3000
    t.set(2, 200, 9000, 210);
    t.set(3, 200, 12001, 210); // 3001: no pair
    t.set(4, 300, 13000, 310);
    t.set(5, 300, 13000, 310);
    DetectPktStat s{};
    ASSERT_EQ(qos_stat_second(s, &t[0], 2), 0);
    EXPECT_EQ(avgs(s), "10 6000 3000 3000 0 0");
    ASSERT_EQ(qos_stat_second(s, &t[2], 2), 0);
    EXPECT_EQ(avgs(s), "10 10 5 5 1000 1000");
}

TEST(QualityStats, DeadSecondsAndEarlyStops) {
    // A first second with no reply holds delay and jitter at the sentinel for the whole stream.
    Table t(kPerSecond, 3);
    t.fill(1000, kGap, kServerAhead, [](int) { return 5u; }, [](int) { return 5u; });
    for (int i = 0; i < kPerSecond; ++i) t[i].client_recv_time = 0;
    DetectPktStat r = t.stat();
    EXPECT_EQ(avgs(r), "10000 10000 10000 10000 333 333");
    EXPECT_EQ(r.r_bad_seconds, 1);
    EXPECT_EQ(r.max_delay, kStatNoDelay);

    // Stopped half-way through its second second: that second counts what
    // went out, the third has nothing and is bad both ways.
    Table u(kPerSecond, 3);
    u.fill(1000, kGap, kServerAhead, [](int) { return 5u; }, [](int) { return 5u; });
    for (int i = kPerSecond + kPerSecond / 2; i < u.size(); ++i) u[i].valid_flag = 0;
    r = u.stat();
    EXPECT_EQ(avgs(r), "10 0 0 0 0 0");
    EXPECT_EQ(losses(r), "2 0 0 1 0 0"); // bad out: the half second and the empty one

    // Nothing sent at all: the worst values, the whole stream as one run.
    r = Table(kPerSecond, 3).stat();
    EXPECT_EQ(avgs(r), "10000 10000 10000 10000 1000 1000");
    EXPECT_EQ(losses(r), "3 150 1000 3 150 1000");
    EXPECT_EQ(r.max_jitter, kStatNoDelay);
}

TEST(QualityStats, PeerWithoutServerTimes) {
    // A STUN peer gives no times of its own: loss cannot be told by
    // direction and the round-trip jitter is split evenly.
    Table t(kPerSecond, 3);
    for (int i = 0; i < t.size(); ++i) {
        const uint32_t send = 1000 + uint32_t(i) * kGap;
        t.set(i, send, 0, (i % 7 == 3) ? 0 : send + (i % 2 ? 30 : 20));
    }
    const DetectPktStat r = t.stat();
    EXPECT_TRUE(r.avg_delay >= 24 && r.avg_delay <= 25 && r.avg_r_loss_rate > 100) << avgs(r);
    EXPECT_EQ(avgs(r), std::to_string(r.avg_delay) + " 10 5 5 0 " + std::to_string(r.avg_r_loss_rate));
}

} // namespace
