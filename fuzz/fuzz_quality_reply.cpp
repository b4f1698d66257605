// Feeds any sequence of datagrams to a quality exchanger as replies to its
// stream (no socket, no thread), then reduces its table to statistics, and
// checks what the exchanger promises whatever a server sends:
//  - a reply touches only records of packets that went out (the first half
//    of the stream here), and no time it stores is 0;
//  - in the STUN layout no server time is ever stored (byte 29 is no pair
//    count there);
//  - a refused token ends the stream: state 3 and the worst values (the
//    receive thread leaves there, so later datagrams are not fed);
//  - the statistics stay in their ranges: loss 0 to 1000, runs and bad
//    seconds bounded by the stream.
//
// Input: byte 0 chooses the layout (bit 0: STUN) and the level (bits 1-3,
// 7 reads as 6); then datagrams, each behind a 2-byte length (most
// significant byte first), at most 2048 bytes of each are looked at.
// Verdict: replies taken and refused, records answered, with server times.
// Runs on the fuzzer's (or the replay's) one thread.
#include <cstdint>
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bwdetect/detect_cli_pkt.h"
#include "fuzz_verdict.h"

namespace q = zeph::quality;

namespace {

#define CHECK(cond)                                                                                              \
    do {                                                                                                         \
        if (!(cond)) __builtin_trap();                                                                           \
    } while (0)

constexpr int kSeconds = 3;
constexpr uint32_t kSendBase = 1000;   // send time of record 0
constexpr uint32_t kArrivalBase = 5000; // arrival of the first reply
constexpr uint8_t kStunBit = 0x01;
constexpr int kLevelShift = 1;
constexpr uint8_t kLevelMask = 0x07;
constexpr size_t kLengthBytes = 2;

std::string g_verdict;

} // namespace

std::string FuzzVerdict() { return g_verdict; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    g_verdict = "empty";
    if (size < 1) return 0;
    const bool stun = (data[0] & kStunBit) != 0;
    const int level = (data[0] >> kLevelShift) & kLevelMask;
    auto ex = std::make_shared<DetectCliPktAnyTime>(DetectSockPtr(), level, kSeconds);
    ex->set_is_stun(stun ? 1 : 0);
    ex->m_pkt_len = int32_t(q::level_row(uint32_t(level)).pkt_len);
    CHECK(ex->prepare_stream(nullptr) == 0);
    const uint32_t total = ex->stream_packets();
    const uint32_t sent = total / 2;
    for (uint32_t seq = 0; seq < sent; ++seq) ex->mark_sent(seq, kSendBase + seq);

    int taken = 0, refused = 0;
    bool token_refused = false;
    size_t pos = 1;
    for (uint32_t i = 0; pos + kLengthBytes <= size; ++i) {
        size_t len = (size_t(data[pos]) << 8) | data[pos + 1];
        pos += kLengthBytes;
        if (len > size - pos) len = size - pos;
        std::vector<uint8_t> pkt(data + pos, data + pos + std::min(len, q::kRecvBufSize));
        pos += len;
        const bool valid = ex->recv_pkt_is_valid(pkt.data(), pkt.size()) == 1;
        const int32_t r = ex->save_recv_pkt_time(pkt.data(), pkt.size(), kArrivalBase + i);
        if (r == DETECT_ERR_TOKEN_REFUSED) {
            CHECK(valid);
            CHECK(ex->get_state() == DETECT_STATE_FAILED);
            CHECK(ex->get_stat().avg_delay == kStatNoDelay);
            token_refused = true;
            break;
        }
        CHECK(r == 0);
        valid ? ++taken : ++refused;
    }

    int answered = 0, with_server = 0;
    for (uint32_t seq = 0; seq < total; ++seq) {
        const DetectPktRecord* rec = ex->record(seq);
        CHECK(rec != nullptr);
        const uint32_t srv = rec->server_recv_time.load();
        const uint32_t back = rec->client_recv_time.load();
        if (seq >= sent) CHECK(srv == 0 && back == 0);
        if (stun) CHECK(srv == 0);
        answered += back != 0;
        with_server += srv != 0;
    }
    CHECK(ex->record(total) == nullptr);

    DetectPktStat st;
    qos_stat_all(st, ex->record(0), int(total), kSeconds);
    for (int32_t loss : {st.avg_s_loss_rate, st.avg_r_loss_rate, st.max_s_loss_rate, st.max_r_loss_rate})
        CHECK(loss >= 0 && loss <= kStatAllLost);
    CHECK(st.max_s_cont_loss_num >= 0 && st.max_s_cont_loss_num <= int32_t(total));
    CHECK(st.max_r_cont_loss_num >= 0 && st.max_r_cont_loss_num <= int32_t(total));
    CHECK(st.s_bad_seconds >= 0 && st.s_bad_seconds <= kSeconds);
    CHECK(st.r_bad_seconds >= 0 && st.r_bad_seconds <= kSeconds);

    g_verdict = "taken " + std::to_string(taken) + " refused " + std::to_string(refused) +
                (token_refused ? " token refused" : "") + "; answered " + std::to_string(answered) +
                " with server time " + std::to_string(with_server);
    return 0;
}
