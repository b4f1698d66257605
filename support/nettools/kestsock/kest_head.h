// The tunnel head in front of every datagram of the socket shim: a codec over
// caller memory, with no socket and no state. Runs on the caller's thread.
//
//   0xFF 0x01 <destination port, 16 bits, most significant byte first>
//   [0xFF 0x02 0xEC 0xEC]   the second word, written when the ssrc flag is set
//
// A receiver always takes the first word off; behind an 8-byte head the
// second word stays in front of the payload.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kest {

constexpr uint8_t kHeadMark = 0xFF;
constexpr uint8_t kHeadKind = 0x01;
constexpr uint8_t kSsrcWord[] = {0xFF, 0x02, 0xEC, 0xEC};
constexpr size_t kShortHeadSize = 4;
constexpr size_t kLongHeadSize = kShortHeadSize + sizeof(kSsrcWord);

inline size_t head_size(bool ssrc) { return ssrc ? kLongHeadSize : kShortHeadSize; }

// Writes head and payload to out, which holds cap bytes. False when they do
// not fit (out is then partly written).
bool write_datagram(uint8_t* out, size_t cap, uint16_t port, bool ssrc, const void* payload, size_t len);

enum class Received {
    Payload,  // a tunnel datagram: port and payload are set
    TooShort, // 4 bytes or less: no payload behind a head
    Foreign,  // the first two bytes are not the head's
};

struct Unwrapped {
    Received kind;
    uint16_t port;          // host byte order
    const uint8_t* payload; // inside the datagram
    size_t payload_len;
};

// Reads the head of the datagram data[0..len).
Unwrapped unwrap_datagram(const uint8_t* data, size_t len);

} // namespace kest
