// The packet exchanger of the quality clients: one paced stream of quality
// packets over one connected UDP socket, a record per sequence number, and
// the reduction of that table to delay, jitter and loss, second by second.
//
// Threads: `start_SR` runs on the owner's thread; it starts the send thread
// ("client_send_thread": pacing, statistics) and the receive thread
// ("client_recv_thread": replies). Both share the record table through
// relaxed atomics; the statistics record is guarded by a spin flag. The
// statistics functions are pure: they run on whichever thread calls them.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "bwdetect/detect_base.h"

// One sequence number of a stream. The send thread writes `valid_flag` and
// `client_send_time` (and clears both reception times when it sends a number
// again); the receive thread writes the reception times. A time of 0 means
// unknown; a real 0 is stored as 1.
struct DetectPktRecord {
    std::atomic<uint32_t> valid_flag{0};
    std::atomic<uint32_t> client_send_time{0};
    std::atomic<uint32_t> server_recv_time{0};
    std::atomic<uint32_t> client_recv_time{0};
};
static_assert(sizeof(DetectPktRecord) == 16, "a record is four 32-bit times");

// Result of a stream, or of one second of it. Loss rates in thousandths,
// times in milliseconds; 10000 in a delay or jitter and 1000 in a loss mean
// that nothing could be measured.
struct DetectPktStat {
    int32_t avg_delay;
    int32_t avg_jitter; // send plus receive jitter
    int32_t avg_s_jitter;
    int32_t avg_r_jitter;
    int32_t avg_s_loss_rate; // packets that did not reach the server
    int32_t avg_r_loss_rate; // packets that reached the server and did not come back
    int32_t max_delay;
    int32_t max_jitter;
    int32_t max_s_jitter;
    int32_t max_r_jitter;
    int32_t max_s_loss_rate;
    int32_t max_r_loss_rate;
    int32_t s_r_num; // packets counted as received by the server
    int32_t r_r_num; // replies counted as received
    int32_t max_s_cont_loss_num;
    int32_t max_r_cont_loss_num;
    int32_t c_s_loss_pkt; // run of lost packets open at the end of a second
    int32_t c_r_loss_pkt;
    int32_t s_bad_seconds;
    int32_t r_bad_seconds;
};
static_assert(sizeof(DetectPktStat) == 80, "twenty 32-bit fields");

constexpr int32_t kStatNoDelay = 10000; // delay or jitter that could not be measured
constexpr int32_t kStatAllLost = 1000;  // loss rate of a second with no answer

// The record a reader gets before a stream has produced one.
DetectPktStat detect_pkt_stat_worst();

// A stream's figures as a caller's result record: index, score, and the
// stream's delay, jitter and loss (averages and maxima) and longest runs of
// loss; `is_pre` 0.
DetectQosResult detect_qos_result(int16_t index, int32_t score, const DetectPktStat& s);

// Reduces the `count` records of one second into `s`. `s.c_s_loss_pkt` and
// `s.c_r_loss_pkt` come in as the open loss runs of the second before and go
// out as those of this one. Answers 1 when the second holds no sent record
// (nothing is written then), else 0.
int qos_stat_second(DetectPktStat& s, const DetectPktRecord* records, int count);

// The whole stream: `total` records cut into `seconds` windows of
// total / seconds records. `result` is overwritten.
void qos_stat_all(DetectPktStat& result, const DetectPktRecord* table, int total, int seconds);

// `second` minus `first` over the wrap of 32-bit times, read as signed.
inline int32_t pkt_time_diff(uint32_t first, uint32_t second) {
    return static_cast<int32_t>(second - first);
}

// Result of start_SR besides 0.
constexpr int32_t DETECT_ERR_NO_MEMORY = 3;
constexpr int32_t DETECT_ERR_ALREADY_STARTED = 21;
// Result of save_recv_pkt_time when the server refused the token.
constexpr int32_t DETECT_ERR_TOKEN_REFUSED = 31;

class DetectCliPktAnyTime : public DetectBase {
public:
    // `level` above 6 becomes 6, `seconds` outside 3..10 becomes 10, each
    // with a log line. The stream has seconds x the level's packets per second.
    DetectCliPktAnyTime(DetectSockPtr sock, int32_t level, int32_t seconds);
    ~DetectCliPktAnyTime() override;

    // Starts a stream from `image` (m_pkt_len bytes of it are sent each
    // time). `self` is the owner's shared pointer to this object: both
    // threads hold it until they end. 0; DETECT_ERR_NO_MEMORY when the table
    // cannot be had; DETECT_ERR_ALREADY_STARTED while a stream runs. State 2,
    // then 4 when the last burst is out and 5 when get_stat has the result;
    // 3 when the server refused the token. Run again after set_state(0).
    int32_t start_SR(const uint8_t* image, std::shared_ptr<DetectCliPktAnyTime> self);
    // The part of start_SR that needs no thread: the table (allocated once,
    // then cleared) and the image, with pkt_len set to what follows the head
    // and region. 0 or DETECT_ERR_NO_MEMORY.
    int32_t prepare_stream(const uint8_t* image);
    // The result of the last stream; the worst values until it is ready.
    DetectPktStat get_stat() const;

    // A data response of this stream: type, seq below the stream's length,
    // level of this exchanger.
    int32_t recv_pkt_is_valid(const uint8_t* pkt, size_t len) override;
    // Takes one reply that arrived at `arrival_ms` (this object's clock):
    // its reception time, the server's time of it (private layout) and the
    // server's times of the earlier packets in its pairs. 0, or
    // DETECT_ERR_TOKEN_REFUSED when the server refused the token (the stream
    // stops, state 3).
    int32_t save_recv_pkt_time(const uint8_t* buf, size_t len, uint32_t arrival_ms);

    // The record side of a send: `seq` went out at `time` (this object's
    // clock). A number sent again starts its record afresh.
    void mark_sent(uint32_t seq, uint32_t time);

    // Packets of one stream.
    uint32_t stream_packets() const { return m_total; }
    // The record of sequence number `seq`, or null beyond the stream (for
    // whoever drives save_recv_pkt_time by hand).
    const DetectPktRecord* record(uint32_t seq) const;

    int32_t m_pkt_len = static_cast<int32_t>(zeph::quality::kImageSize); // bytes per packet

private:
    void client_send_thread();
    void client_recv_thread();
    void send_buf(uint32_t seq);
    // True while the stream numbered `stream` is to go on.
    bool stream_running(uint32_t stream) const { return m_running.load() != 0 && m_stream.load() == stream; }
    void store_stat(const DetectPktStat& stat);
    // A counter value of the OS adapter on this object's clock, cut to 32
    // bits (0 stored as 1).
    uint32_t clock_of(int64_t counter) const;
    uint32_t now32();
    MORL_SOCKET sock() const { return m_sock ? *m_sock : MORL_INVALID_SOCKET; }

    uint8_t m_level;
    uint8_t m_seconds;
    uint32_t m_total;
    std::unique_ptr<DetectPktRecord[]> m_pkt_time;
    DetectPktStat m_stat;
    mutable std::atomic<bool> m_stat_busy{false};
    // Each stream's threads carry the number of their stream and leave when
    // a newer one has started, so that a receive thread still draining its
    // last poll never reads for the next stream.
    std::atomic<uint32_t> m_stream{0};
};
