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
