// Arbitrary datagrams through kest_recvfrom, delivered by a real datagram
// socket pair, into a caller buffer of any length: the payload comes out
// whole, or a datagram longer than the buffer fails the read (10040); nothing
// is written past the buffer or for a refused datagram, and the head's port
// becomes the peer's. The head codec is checked beside it: its reading of the
// same bytes, and a head it writes read back.
//
// Input: bytes 0-1 the caller's buffer length (most significant first, modulo
// 2048; 64 for an input shorter than 2 bytes), the rest the datagram.
//
// Verdict: "tunnel, port P, payload N", "too long for the buffer", "not
// tunnel: too short" or "not tunnel: foreign".
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_verdict.h"
#include "kestsock/kest_head.h"
#include "os_adapter/morl_os.h"
#include "zeph_nettools/kest_sock.h"
#include "zeph_nettools/settings.h"

namespace {

#define CHECK(cond)                                                                                              \
    do {                                                                                                         \
        if (!(cond)) __builtin_trap();                                                                           \
    } while (0)

constexpr size_t kLengthBytes = 2;
constexpr uint32_t kBufferLengths = 2048;
constexpr uint32_t kDefaultLength = 64;
constexpr size_t kMaxDatagram = 60000;
constexpr size_t kGuard = 16;
constexpr uint8_t kUnwritten = 0xA5;

std::string g_verdict;

void quiet_sink(void*, int, const char*, const char*, const char*, int, const char*) {}

struct Pair {
    Pair() {
        zeph_settings_set_log_sink(quiet_sink, nullptr, 3);
        CHECK(socketpair(AF_UNIX, SOCK_DGRAM, 0, fds) == 0);
    }
    ~Pair() {
        close(fds[0]);
        close(fds[1]);
    }
    int fds[2] = {-1, -1};
};

// The codec writes what it reads: a head for the datagram's port and payload,
// in both forms.
void CheckRoundTrip(uint16_t port, const uint8_t* payload, size_t len) {
    for (const bool ssrc : {false, true}) {
        const size_t head = kest::head_size(ssrc);
        std::vector<uint8_t> out(head + len);
        CHECK(kest::write_datagram(out.data(), out.size(), port, ssrc, payload, len));
        CHECK(!kest::write_datagram(out.data(), out.size() - 1, port, ssrc, payload, len));
        const kest::Unwrapped u = kest::unwrap_datagram(out.data(), out.size());
        if (out.size() <= kest::kShortHeadSize) {
            CHECK(u.kind == kest::Received::TooShort);
            continue;
        }
        CHECK(u.kind == kest::Received::Payload && u.port == port);
        CHECK(u.payload_len == len + head - kest::kShortHeadSize);
        if (ssrc) CHECK(std::memcmp(u.payload, kest::kSsrcWord, sizeof kest::kSsrcWord) == 0);
        CHECK(std::memcmp(u.payload + head - kest::kShortHeadSize, payload, len) == 0);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Pair pair;
    uint32_t cap = kDefaultLength;
    if (size >= kLengthBytes) {
        cap = ((uint32_t(data[0]) << 8) | data[1]) % kBufferLengths;
        data += kLengthBytes;
        size -= kLengthBytes;
    }
    size = std::min(size, kMaxDatagram);

    CHECK(send(pair.fds[0], data, size, 0) == static_cast<ssize_t>(size));
    std::vector<uint8_t> buf(cap + kGuard, kUnwritten);
    MORL_SockAddrIn from;
    std::memset(&from, kUnwritten, sizeof from);
    int32_t from_len = sizeof from;
    const int32_t got =
        kest_recvfrom(pair.fds[1], buf.data(), static_cast<int32_t>(cap), 0, reinterpret_cast<sockaddr*>(&from),
                      &from_len);
    CHECK(std::all_of(buf.begin() + cap, buf.end(), [](uint8_t b) { return b == kUnwritten; }));

    // A datagram longer than the buffer and one head fails the read whole.
    if (size > cap + kest::kShortHeadSize) {
        CHECK(got == -1 && MORL_GetLastSocketErr() == MORL_WSAEMSGSIZE);
        CHECK(std::all_of(buf.begin(), buf.end(), [](uint8_t b) { return b == kUnwritten; }));
        g_verdict = "too long for the buffer";
        return 0;
    }
    const size_t read = size;
    const kest::Unwrapped u = kest::unwrap_datagram(data, read);
    if (u.kind != kest::Received::Payload) {
        CHECK(got == KEST_ERR_NOT_TUNNEL);
        CHECK(std::all_of(buf.begin(), buf.end(), [](uint8_t b) { return b == kUnwritten; }));
        const bool short_datagram = read <= kest::kShortHeadSize;
        CHECK(short_datagram == (u.kind == kest::Received::TooShort));
        CHECK(short_datagram || data[0] != kest::kHeadMark || data[1] != kest::kHeadKind);
        g_verdict = short_datagram ? "not tunnel: too short" : "not tunnel: foreign";
        return 0;
    }
    const size_t whole = size - kest::kShortHeadSize;
    CHECK(got >= 0 && static_cast<size_t>(got) == u.payload_len && u.payload_len == whole);
    CHECK(std::memcmp(buf.data(), data + kest::kShortHeadSize, u.payload_len) == 0);
    const uint16_t port = static_cast<uint16_t>((data[2] << 8) | data[3]);
    CHECK(u.port == port && MORL_Htons(from.sin_port) == port);
    CheckRoundTrip(port, u.payload, u.payload_len);

    g_verdict = "tunnel, port " + std::to_string(port) + ", payload " + std::to_string(whole);
    return 0;
}

std::string FuzzVerdict() { return g_verdict; }
