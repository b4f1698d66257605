// The tunnel head's codec. Runs on the caller's thread.
#include "kestsock/kest_head.h"

#include "inc/byte_io.h"

namespace kest {

bool write_datagram(uint8_t* out, size_t cap, uint16_t port, bool ssrc, const void* payload, size_t len) {
    zeph::ByteWriter w(out, cap);
    bool ok = w.put_u8(kHeadMark) && w.put_u8(kHeadKind) && w.put_be16(port);
    if (ssrc) {
        ok = ok && w.put_bytes(kSsrcWord, sizeof(kSsrcWord));
    }
    return ok && w.put_bytes(payload, len);
}

Unwrapped unwrap_datagram(const uint8_t* data, size_t len) {
    Unwrapped u{Received::TooShort, 0, nullptr, 0};
    if (len <= kShortHeadSize) {
        return u;
    }
    zeph::ByteReader r(data, len);
    uint8_t mark = 0;
    uint8_t kind = 0;
    uint16_t port = 0;
    r.get_u8(mark);
    r.get_u8(kind);
    r.get_be16(port);
    if (mark != kHeadMark || kind != kHeadKind) {
        u.kind = Received::Foreign;
        return u;
    }
    u.kind = Received::Payload;
    u.port = port;
    u.payload_len = r.remaining();
    u.payload = r.peek(u.payload_len);
    return u;
}

} // namespace kest
