// The quality packet's codec: field access at fixed offsets through the
// bounded byte reader and writer. Pure functions; any thread.
#include "bwdetect/quality_wire.h"

#include <cstring>

#include "inc/byte_io.h"

namespace zeph {
namespace quality {

namespace {

// A writer over the `n` bytes at `off`, or over nothing when they are not
// all inside the packet (every put then fails).
ByteWriter writer_at(uint8_t* pkt, size_t size, size_t off, size_t n) {
    if (pkt == nullptr || off > size || size - off < n) return ByteWriter(nullptr, 0);
    return ByteWriter(pkt + off, n);
}

ByteReader reader_at(const uint8_t* pkt, size_t size, size_t off) {
    if (pkt == nullptr || off > size) return ByteReader(nullptr, 0);
    return ByteReader(pkt + off, size - off);
}

bool put8(uint8_t* pkt, size_t size, size_t off, uint8_t v) {
    ByteWriter w = writer_at(pkt, size, off, 1);
    return w.put_u8(v);
}
bool put16(uint8_t* pkt, size_t size, size_t off, uint16_t v) {
    ByteWriter w = writer_at(pkt, size, off, 2);
    return w.put_be16(v);
}
bool put32(uint8_t* pkt, size_t size, size_t off, uint32_t v) {
    ByteWriter w = writer_at(pkt, size, off, 4);
    return w.put_be32(v);
}
bool put_bytes(uint8_t* pkt, size_t size, size_t off, const void* p, size_t n) {
    ByteWriter w = writer_at(pkt, size, off, n);
    return w.put_bytes(p, n);
}

uint8_t get8(const uint8_t* pkt, size_t size, size_t off) {
    uint8_t v = 0;
    ByteReader r = reader_at(pkt, size, off);
    return r.get_u8(v) ? v : 0;
}
uint16_t get16(const uint8_t* pkt, size_t size, size_t off) {
    uint16_t v = 0;
    ByteReader r = reader_at(pkt, size, off);
    return r.get_be16(v) ? v : 0;
}
uint32_t get32(const uint8_t* pkt, size_t size, size_t off) {
    uint32_t v = 0;
    ByteReader r = reader_at(pkt, size, off);
    return r.get_be32(v) ? v : 0;
}
bool has(size_t size, size_t off, size_t n) { return off <= size && size - off >= n; }

size_t type_offset(bool stun) { return stun ? kStunOffType : kOffType; }
size_t cookie_offset(bool stun) { return stun ? kStunOffCookie : kOffCookie; }
size_t len_offset(bool stun) { return stun ? kStunOffLen : kOffLen; }

// Token and parameter: the value, then the pad byte to the field's end.
bool write_padded(uint8_t* pkt, size_t size, size_t off, size_t field, const char* value, size_t n) {
    if (pkt == nullptr || n > field || (n > 0 && value == nullptr)) return false;
    ByteWriter w = writer_at(pkt, size, off, field);
    if (w.remaining() != field) return false;
    return w.put_bytes(value, n) && w.fill(kAuthPadByte, field - n);
}

} // namespace

bool write_tag(uint8_t* pkt, size_t size) { return put_bytes(pkt, size, kOffTag, kTag, sizeof kTag); }
bool write_nonce(uint8_t* pkt, size_t size, uint16_t nonce) { return put16(pkt, size, kOffNonce, nonce); }
bool write_mark(uint8_t* pkt, size_t size) { return put_bytes(pkt, size, kOffMark, kMark, sizeof kMark); }
bool write_fill(uint8_t* pkt, size_t size) { return put_bytes(pkt, size, kOffFill, kFill, sizeof kFill); }

bool set_ver(uint8_t* pkt, size_t size, uint8_t ver) { return put8(pkt, size, kOffVer, ver); }
uint8_t get_ver(const uint8_t* pkt, size_t size) { return get8(pkt, size, kOffVer); }

bool set_flags(uint8_t* pkt, size_t size, uint8_t bits) {
    return has(size, kOffFlags, 1) && put8(pkt, size, kOffFlags, uint8_t(get8(pkt, size, kOffFlags) | bits));
}
bool clear_flags(uint8_t* pkt, size_t size, uint8_t bits) {
    return has(size, kOffFlags, 1) && put8(pkt, size, kOffFlags, uint8_t(get8(pkt, size, kOffFlags) & ~bits));
}
bool test_flags(const uint8_t* pkt, size_t size, uint8_t bits) { return (get8(pkt, size, kOffFlags) & bits) != 0; }

bool set_type(uint8_t* pkt, size_t size, bool stun, uint16_t type) {
    return put16(pkt, size, type_offset(stun), type);
}
uint16_t get_type(const uint8_t* pkt, size_t size, bool stun) { return get16(pkt, size, type_offset(stun)); }

bool set_cookie(uint8_t* pkt, size_t size, bool stun, uint32_t cookie) {
    return put32(pkt, size, cookie_offset(stun), cookie);
}
uint32_t get_cookie(const uint8_t* pkt, size_t size, bool stun) { return get32(pkt, size, cookie_offset(stun)); }

bool set_seq(uint8_t* pkt, size_t size, uint32_t seq) { return put32(pkt, size, kOffSeq, seq); }
uint32_t get_seq(const uint8_t* pkt, size_t size) { return get32(pkt, size, kOffSeq); }

bool set_session(uint8_t* pkt, size_t size, bool stun, uint32_t session) {
    if (!stun) return put32(pkt, size, kOffSession, session);
    // Both words or neither.
    if (!has(size, kStunOffSessionEcho, 4)) return false;
    return put32(pkt, size, kStunOffSession, session) &&
           put32(pkt, size, kStunOffSessionEcho, session + kStunSessionEchoAdd);
}
uint32_t get_session(const uint8_t* pkt, size_t size, bool stun) {
    return get32(pkt, size, stun ? kStunOffSession : kOffSession);
}

bool set_time(uint8_t* pkt, size_t size, uint32_t time) { return put32(pkt, size, kOffTime, time); }
uint32_t get_time(const uint8_t* pkt, size_t size, bool stun) { return stun ? 0 : get32(pkt, size, kOffTime); }

bool set_level(uint8_t* pkt, size_t size, uint8_t level) { return put8(pkt, size, kOffLevel, level); }
uint8_t get_level(const uint8_t* pkt, size_t size, bool stun) {
    if (stun) return 0;
    const uint8_t level = get8(pkt, size, kOffLevel);
    return level >= kLevelOverflow ? kLevelOverflowReadsAs : level;
}

bool set_pair_count(uint8_t* pkt, size_t size, uint8_t count) { return put8(pkt, size, kOffPairCount, count); }
uint8_t get_pair_count(const uint8_t* pkt, size_t size, bool stun) {
    if (stun) return 0;
    const uint8_t count = get8(pkt, size, kOffPairCount);
    return count > kMaxPairs ? 0 : count;
}

bool set_len(uint8_t* pkt, size_t size, bool stun, uint16_t len) { return put16(pkt, size, len_offset(stun), len); }
uint16_t get_len(const uint8_t* pkt, size_t size, bool stun) { return get16(pkt, size, len_offset(stun)); }

bool set_pair_seq(uint8_t* pkt, size_t size, uint32_t index, uint32_t seq) {
    return index < kMaxPairs && put32(pkt, size, kOffPairs + index * kPairStride, seq);
}
uint32_t get_pair_seq(const uint8_t* pkt, size_t size, uint32_t index) {
    return index < kMaxPairs ? get32(pkt, size, kOffPairs + index * kPairStride) : 0;
}
bool set_pair_time(uint8_t* pkt, size_t size, uint32_t index, uint32_t time) {
    return index < kMaxPairs && put32(pkt, size, kOffPairs + index * kPairStride + kPairTimeDelta, time);
}
uint32_t get_pair_time(const uint8_t* pkt, size_t size, uint32_t index) {
    return index < kMaxPairs ? get32(pkt, size, kOffPairs + index * kPairStride + kPairTimeDelta) : 0;
}

bool set_status(uint8_t* pkt, size_t size, uint32_t status) { return put32(pkt, size, kOffStatus, status); }
uint32_t get_status(const uint8_t* pkt, size_t size) { return get32(pkt, size, kOffStatus); }

bool set_auth_result(uint8_t* pkt, size_t size, uint32_t result) {
    return put32(pkt, size, kOffAuthResult, result);
}
uint32_t get_auth_result(const uint8_t* pkt, size_t size, bool stun) {
    if (get_type(pkt, size, stun) != kTypeAuthResp) return kAuthNotAResponse;
    return get32(pkt, size, kOffAuthResult);
}

bool write_auth_token(uint8_t* pkt, size_t size, const char* value, size_t n) {
    return write_padded(pkt, size, kOffAuthToken, kAuthTokenSize, value, n);
}
bool write_auth_para(uint8_t* pkt, size_t size, const char* value, size_t n) {
    return write_padded(pkt, size, kOffAuthPara, kAuthParaSize, value, n);
}

Validity check_base(const uint8_t* pkt, size_t size, bool stun, uint32_t seq_limit) {
    if (pkt == nullptr || size < kHeadSize) return Validity::Short;
    if (get_ver(pkt, size) != kPktVer) return Validity::BadVersion;
    if (get_cookie(pkt, size, stun) != kPktCookie) return Validity::BadCookie;
    const uint32_t seq = get_seq(pkt, size);
    if (static_cast<int32_t>(seq) < 0) return Validity::NegativeSeq;
    if (seq >= seq_limit) return Validity::SeqBeyond;
    return Validity::Valid;
}

bool build_image(uint8_t* pkt, size_t size, uint16_t nonce, uint32_t session, uint8_t level) {
    if (pkt == nullptr || size < kHeadRegionSize) return false;
    std::memset(pkt, kImageFillByte, size - 1);
    const bool ok = write_tag(pkt, size) && write_nonce(pkt, size, nonce) && write_mark(pkt, size) &&
                    write_fill(pkt, size) && set_ver(pkt, size, kPktVer) && set_flags(pkt, size, 0) &&
                    set_type(pkt, size, false, kTypeAuth) && set_cookie(pkt, size, false, kPktCookie) &&
                    set_seq(pkt, size, 0) && set_session(pkt, size, false, session) &&
                    set_level(pkt, size, level) && set_pair_count(pkt, size, 0) &&
                    set_len(pkt, size, false, kFreshImageLen);
    pkt[size - 1] = 0;
    return ok;
}

bool build_stun_image(uint8_t* pkt, size_t size, uint16_t nonce, uint32_t session) {
    if (!build_image(pkt, size, nonce, session, 0)) return false;
    return set_type(pkt, size, true, kStunImageType) && set_len(pkt, size, true, kStunImageLen) &&
           set_cookie(pkt, size, true, kPktCookie) && set_level(pkt, size, 0) &&
           put_bytes(pkt, size, kStunOffSessionEcho, kStunImageTxid, kStunImageTxidBytes);
}

} // namespace quality
} // namespace zeph
