#include "inc/icmp_wire.h"

namespace zeph {
namespace icmp {

uint16_t internet_checksum(const uint8_t* data, size_t len) {
    ByteReader r(data, len);
    uint32_t sum = 0;
    uint16_t word = 0;
    while (r.get_be16(word)) sum += word;
    uint8_t last = 0;
    if (r.get_u8(last)) sum += uint32_t(last) << 8;
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return uint16_t(~sum);
}

bool write_echo_request(ByteWriter& w, uint16_t id, uint16_t seq, uint32_t stamp) {
    if (w.remaining() < kEchoRequestSize) return false;
    const size_t start = w.size();
    bool ok = w.put_u8(kEchoRequest) && w.put_u8(0) && w.put_be16(0) && w.put_be16(id) && w.put_be16(seq) &&
              w.put_be32(stamp) && w.fill(0, kFillerOffset - kEchoHeadSize);
    for (size_t i = 0; ok && i < kEchoRequestSize - kFillerOffset; ++i) ok = w.put_u8(uint8_t(kFillerFirst + i));
    if (!ok) return false;
    // The checksum covers the whole message with its own field taken as 0.
    return w.patch_be16(start + 2, internet_checksum(w.data() + start, kEchoRequestSize));
}

bool read_echo_head(const uint8_t* datagram, size_t len, EchoHead& out) {
    ByteReader r(datagram, len);
    uint8_t version_ihl = 0;
    if (!r.get_u8(version_ihl)) return false;
    out.ip_header_len = size_t(version_ihl & 0x0F) * 4;
    ByteReader body(datagram, len);
    EchoHead head = out;
    if (!(body.skip(out.ip_header_len) && body.get_u8(head.type) && body.get_u8(head.code) &&
          body.get_be16(head.checksum) && body.get_be16(head.id) && body.get_be16(head.seq) &&
          body.get_be32(head.stamp)))
        return false;
    out = head;
    return true;
}

} // namespace icmp
} // namespace zeph
