// Bounded byte reader and writer with explicit big-endian helpers.
// Every wire codec of the library reads and writes through these; a read or
// write past the end fails (returns false) and leaves the cursor where it was.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zeph {

class ByteWriter {
public:
    ByteWriter(uint8_t* buf, size_t cap) : m_buf(buf), m_cap(buf ? cap : 0) {}

    bool put_u8(uint8_t v) { return put_raw(&v, 1); }
    bool put_be16(uint16_t v) {
        const uint8_t b[2] = {uint8_t(v >> 8), uint8_t(v)};
        return put_raw(b, 2);
    }
    bool put_be32(uint32_t v) {
        const uint8_t b[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
        return put_raw(b, 4);
    }
    bool put_bytes(const void* p, size_t n) { return put_raw(p, n); }
    bool fill(uint8_t v, size_t n) {
        if (n > m_cap - m_pos) return false;
        if (n) std::memset(m_buf + m_pos, v, n);
        m_pos += n;
        return true;
    }
    // Overwrites already written bytes at `at` (for lengths and checksums).
    bool patch_be16(size_t at, uint16_t v) {
        if (at > m_pos || m_pos - at < 2) return false;
        m_buf[at] = uint8_t(v >> 8);
        m_buf[at + 1] = uint8_t(v);
        return true;
    }
    bool patch_be32(size_t at, uint32_t v) {
        if (at > m_pos || m_pos - at < 4) return false;
        m_buf[at] = uint8_t(v >> 24);
        m_buf[at + 1] = uint8_t(v >> 16);
        m_buf[at + 2] = uint8_t(v >> 8);
        m_buf[at + 3] = uint8_t(v);
        return true;
    }

    size_t size() const { return m_pos; }
    size_t remaining() const { return m_cap - m_pos; }
    uint8_t* data() const { return m_buf; }

private:
    bool put_raw(const void* p, size_t n) {
        if (n > m_cap - m_pos) return false;
        if (n) std::memcpy(m_buf + m_pos, p, n);
        m_pos += n;
        return true;
    }
    uint8_t* m_buf;
    size_t m_cap;
    size_t m_pos = 0;
};

class ByteReader {
public:
    ByteReader(const uint8_t* buf, size_t len) : m_buf(buf), m_len(buf ? len : 0) {}

    bool get_u8(uint8_t& v) {
        if (remaining() < 1) return false;
        v = m_buf[m_pos++];
        return true;
    }
    bool get_be16(uint16_t& v) {
        if (remaining() < 2) return false;
        v = uint16_t((m_buf[m_pos] << 8) | m_buf[m_pos + 1]);
        m_pos += 2;
        return true;
    }
    bool get_be32(uint32_t& v) {
        if (remaining() < 4) return false;
        v = (uint32_t(m_buf[m_pos]) << 24) | (uint32_t(m_buf[m_pos + 1]) << 16) | (uint32_t(m_buf[m_pos + 2]) << 8) |
            uint32_t(m_buf[m_pos + 3]);
        m_pos += 4;
        return true;
    }
    bool get_bytes(void* out, size_t n) {
        if (remaining() < n) return false;
        if (n) std::memcpy(out, m_buf + m_pos, n);
        m_pos += n;
        return true;
    }
    bool skip(size_t n) {
        if (remaining() < n) return false;
        m_pos += n;
        return true;
    }
    // A view of the next n bytes without copying; null when they are not there.
    const uint8_t* peek(size_t n) const { return remaining() >= n ? m_buf + m_pos : nullptr; }

    size_t remaining() const { return m_len - m_pos; }
    size_t position() const { return m_pos; }

private:
    const uint8_t* m_buf;
    size_t m_len;
    size_t m_pos = 0;
};

} // namespace zeph
