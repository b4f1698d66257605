// Arbitrary datagrams through the quality server's answer, the function that
// turns a received datagram into its reply in place; no socket is opened.
//
// Input: a run of datagrams from one new client, each as a 2-byte length
// (most significant byte first) and that many bytes; the last one takes what
// is left when its length runs past the end. A datagram longer than the
// server's receive buffer is cut to it, as the socket would.
//
// Checked on every datagram (a failure aborts): an answer has the
// datagram's length or there is none; nothing behind the datagram is
// written; a data answer carries at most as many pairs as the client sent
// data packets before, at most eight, and leaves every byte behind its
// status as it came; an auth or end answer changes only its type, its time
// and (auth) its result.
//
// Verdict: one word per datagram, "data/N" (an answer with N pairs),
// "auth", "end" or "none"; "nothing" for an input without a datagram.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bwdetect/detect_server.h"
#include "fuzz_verdict.h"
#include "zeph_nettools/settings.h"

namespace {

namespace q = zeph::quality;

constexpr size_t kLenBytes = 2;
constexpr uint8_t kGuard = 0xA5; // what the buffer holds behind the datagram
constexpr size_t kDataEchoFrom = q::kOffStatus + 4;

void quiet_sink(void*, int, const char*, const char*, const char*, int, const char*) {}

std::string g_verdict;

uint16_t be16(const uint8_t* p) { return uint16_t((p[0] << 8) | p[1]); }

void require(bool ok) {
    if (!ok) std::abort();
}

// Bytes of [from, len) equal in both.
bool same_from(const uint8_t* a, const uint8_t* b, size_t from, size_t len) {
    return from >= len || std::memcmp(a + from, b + from, len - from) == 0;
}

// The bytes an auth or end answer may change: type, time and, for auth, the result.
bool may_change(size_t i, bool auth) {
    const bool type = i >= q::kOffType && i < q::kOffType + 2;
    const bool time = i >= q::kOffTime && i < q::kOffTime + 4;
    const bool result = auth && i >= q::kOffAuthResult && i < q::kOffAuthResult + 4;
    return type || time || result;
}

} // namespace

std::string FuzzVerdict() { return g_verdict; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static DetectServer* server = [] {
        zeph_settings_set_log_sink(quiet_sink, nullptr, 3);
        return DetectServer::get_instance();
    }();
    static uint16_t next_port = 1;
    static int64_t now = 0;
    require(server != nullptr);

    // Every input is a new client.
    DetectServerClientKey from;
    from.addr = 0x0100007F;
    from.port = next_port++;
    g_verdict.clear();
    uint32_t data_before = 0;
    static uint8_t sent[q::kRecvBufSize];
    static uint8_t buf[q::kRecvBufSize];
    size_t at = 0;
    while (at + kLenBytes <= size) {
        size_t len = be16(data + at);
        at += kLenBytes;
        if (len > size - at) len = size - at;
        const uint8_t* dgram = data + at;
        at += len;
        if (len > q::kRecvBufSize) len = q::kRecvBufSize;

        std::memset(buf, kGuard, sizeof buf);
        if (len) std::memcpy(buf, dgram, len);
        std::memcpy(sent, buf, sizeof buf);
        const size_t reply = server->answer(buf, len, from, ++now);

        require(reply == 0 || reply == len);
        require(same_from(buf, sent, len, sizeof buf));
        std::string word = "none";
        if (reply != 0) {
            require(len >= q::kHeadSize);
            const uint16_t type = be16(buf + q::kOffType);
            if (type == q::kTypeDataResp) {
                const uint32_t pairs = buf[q::kOffPairCount];
                require(pairs <= q::kMaxPairs && pairs <= data_before);
                require(same_from(buf, sent, kDataEchoFrom, len));
                ++data_before;
                word = "data/" + std::to_string(pairs);
            } else {
                require(type == q::kTypeAuthResp || type == q::kTypeEndResp);
                const bool auth = type == q::kTypeAuthResp;
                for (size_t i = 0; i < len; ++i) require(buf[i] == sent[i] || may_change(i, auth));
                word = auth ? "auth" : "end";
            }
        }
        g_verdict += (g_verdict.empty() ? "" : " ") + word;
    }
    if (g_verdict.empty()) g_verdict = "nothing";
    return 0;
}
