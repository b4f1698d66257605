// ICMP echo layout: the 44-byte echo request that the ICMP probe sends and
// the reading of an echo reply out of the IP datagram that a raw socket
// delivers. The one place that knows these offsets.
#pragma once

#include <cstddef>
#include <cstdint>

#include "inc/byte_io.h"

namespace zeph {
namespace icmp {

constexpr uint8_t kEchoReply = 0;
constexpr uint8_t kEchoRequest = 8;
constexpr size_t kEchoRequestSize = 44;
// Type, code, checksum, identifier, sequence and the 4-byte send stamp.
constexpr size_t kEchoHeadSize = 12;
// Bytes 12..23 are zero, 24..43 carry the filler 0x3C, 0x3D, ... 0x4F.
constexpr size_t kFillerOffset = 24;
constexpr uint8_t kFillerFirst = 0x3C;

// Internet checksum (RFC 1071) of len bytes: the big-endian 16-bit words
// summed with end-around carry and complemented. An odd last byte counts as
// the high byte of a word padded with zero.
uint16_t internet_checksum(const uint8_t* data, size_t len);

// Writes one echo request of kEchoRequestSize bytes with its checksum.
// False, with nothing useful written, when w has less room.
bool write_echo_request(ByteWriter& w, uint16_t id, uint16_t seq, uint32_t stamp);

// The ICMP head found in a received IP datagram.
struct EchoHead {
    size_t ip_header_len = 0; // 4 * the low nibble of the datagram's first byte
    uint8_t type = 0;
    uint8_t code = 0;
    uint16_t checksum = 0;
    uint16_t id = 0;
    uint16_t seq = 0;
    uint32_t stamp = 0;
};

// Reads the ICMP head that follows the IP header of datagram. False when
// the datagram is empty or holds fewer than ip_header_len + kEchoHeadSize
// bytes; out.ip_header_len is set whenever the first byte could be read.
bool read_echo_head(const uint8_t* datagram, size_t len, EchoHead& out);

} // namespace icmp
} // namespace zeph
