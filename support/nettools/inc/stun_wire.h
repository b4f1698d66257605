// STUN message layout (RFC 5389): the one codec of STUN headers and
// attributes used by the probes and by the STUN service.
#pragma once

#include <cstddef>
#include <cstdint>

#include "inc/byte_io.h"

namespace zeph {
namespace stun {

constexpr uint32_t kMagicCookie = 0x2112A442;
constexpr uint16_t kBindingRequest = 0x0001;
constexpr uint16_t kBindingSuccess = 0x0101;
constexpr size_t kHeaderSize = 20;
constexpr size_t kTxIdSize = 12;

struct Header {
    uint16_t type = 0;
    uint16_t length = 0; // bytes of attributes after the header
    uint32_t cookie = kMagicCookie;
    uint8_t txid[kTxIdSize] = {};
};

inline bool write_header(ByteWriter& w, const Header& h) {
    return w.put_be16(h.type) && w.put_be16(h.length) && w.put_be32(h.cookie) && w.put_bytes(h.txid, kTxIdSize);
}

inline bool read_header(ByteReader& r, Header& h) {
    ByteReader probe = r;
    Header out;
    if (!(probe.get_be16(out.type) && probe.get_be16(out.length) && probe.get_be32(out.cookie) &&
          probe.get_bytes(out.txid, kTxIdSize)))
        return false;
    h = out;
    r = probe;
    return true;
}

// ---- attributes -----------------------------------------------------------------
constexpr uint16_t kAttrUsername = 0x0006;
constexpr uint16_t kAttrMessageIntegrity = 0x0008;
constexpr uint16_t kAttrFingerprint = 0x8028;
constexpr size_t kAttrHeaderSize = 4;
constexpr size_t kIntegritySize = 20;
constexpr size_t kFingerprintSize = 4;
constexpr uint32_t kFingerprintXor = 0x5354554E;
constexpr size_t kLengthOffset = 2;

// Attribute values are padded to a multiple of 4 bytes.
constexpr size_t padded_size(size_t n) { return (n + 3) & ~size_t(3); }

// The message length field (bytes behind the header) of the message in msg.
inline bool read_length(const uint8_t* msg, size_t size, uint16_t& length) {
    ByteReader r(msg, size);
    return r.skip(kLengthOffset) && r.get_be16(length);
}

inline bool write_length(uint8_t* msg, size_t size, uint16_t length) {
    if (msg == nullptr || size < kLengthOffset + 2) return false;
    ByteWriter w(msg + kLengthOffset, 2);
    return w.put_be16(length);
}

// Appends an attribute behind those the header counts now and raises the
// length to count it, value rounded up to a multiple of 4. The padding bytes
// themselves are not written. Refused, with the message unchanged, when the
// new message length would reach `length_limit` or not fit in `size`.
inline bool append_attribute(uint8_t* msg, size_t size, uint16_t type, const void* value, size_t n,
                             size_t length_limit) {
    uint16_t length = 0;
    if (!read_length(msg, size, length) || n > 0xFFFF) return false;
    const size_t grown = size_t(length) + kAttrHeaderSize + padded_size(n);
    if (grown >= length_limit || grown > 0xFFFF || kHeaderSize + grown > size) return false;
    ByteWriter w(msg + kHeaderSize + length, size - kHeaderSize - length);
    if (!(w.put_be16(type) && w.put_be16(uint16_t(n)) && w.put_bytes(value, n))) return false;
    return write_length(msg, size, uint16_t(grown));
}

struct Attribute {
    uint16_t type = 0;
    uint16_t length = 0;            // value bytes, padding not counted
    const uint8_t* value = nullptr; // points into the message
    size_t offset = 0;              // of its type field, counted from the reader's first byte
};

// Reads the next attribute; with a reader that started at the message's
// first byte (header read before), `offset` is the attribute's offset in
// the message. The declared value length is checked against what is left
// before the value is used; the padding must be there too. False, with the
// reader unchanged, on a truncated attribute.
inline bool read_attribute(ByteReader& r, Attribute& a) {
    ByteReader probe = r;
    Attribute out;
    out.offset = probe.position();
    if (!(probe.get_be16(out.type) && probe.get_be16(out.length))) return false;
    out.value = probe.peek(out.length);
    if (out.value == nullptr || !probe.skip(padded_size(out.length))) return false;
    a = out;
    r = probe;
    return true;
}

// ---- FINGERPRINT -------------------------------------------------------------------
// CRC-32 of ISO 3309 / ITU-T V.42 as RFC 5389 uses it: polynomial 0x04C11DB7
// in reflected form (0xEDB88320), start 0xFFFFFFFF, complemented at the end.
// The table is built once, at the first use, by a thread-safe static.
inline uint32_t crc32(const uint8_t* data, size_t n) {
    struct Table {
        uint32_t v[256];
        Table() {
            for (uint32_t i = 0; i < 256; ++i) {
                uint32_t c = i;
                for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
                v[i] = c;
            }
        }
    };
    static const Table table;
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i) crc = table.v[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
    return crc ^ 0xFFFFFFFFu;
}

// Value of a FINGERPRINT attribute that follows the first `covered` bytes
// of a message; the header's length must already count the attribute.
inline uint32_t fingerprint_value(const uint8_t* msg, size_t covered) { return crc32(msg, covered) ^ kFingerprintXor; }

// True when the message in msg[0..size) is whole (header length matches),
// ends in a FINGERPRINT attribute and its value is right.
inline bool check_fingerprint(const uint8_t* msg, size_t size) {
    uint16_t length = 0;
    if (!read_length(msg, size, length) || size != kHeaderSize + length ||
        length < kAttrHeaderSize + kFingerprintSize)
        return false;
    const size_t at = size - kAttrHeaderSize - kFingerprintSize;
    ByteReader r(msg + at, kAttrHeaderSize + kFingerprintSize);
    uint16_t type = 0, n = 0;
    uint32_t value = 0;
    return r.get_be16(type) && r.get_be16(n) && r.get_be32(value) && type == kAttrFingerprint &&
           n == kFingerprintSize && value == fingerprint_value(msg, at);
}

} // namespace stun
} // namespace zeph
