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

} // namespace stun
} // namespace zeph
