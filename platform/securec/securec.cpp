// Bounds-checked copies and formatting.
//
// Result codes: 0 success; EINVAL for a null pointer, a zero or absurd
// destination size, or overlapping buffers; ERANGE when the data does not
// fit. On failure the destination is cleared (the first byte for strings,
// all dest_max bytes for memory) whenever the destination itself is usable,
// so that a failed copy never leaves half-copied data behind.
#include "securec/securec.h"

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

// Sizes above this are taken for negative lengths cast to size_t.
constexpr size_t kMaxLen = 0x7FFFFFFF;

bool overlaps(const void* a, size_t alen, const void* b, size_t blen) {
    auto pa = reinterpret_cast<uintptr_t>(a);
    auto pb = reinterpret_cast<uintptr_t>(b);
    return pa < pb + blen && pb < pa + alen;
}

// Length of s, looking at no more than max characters.
size_t bounded_len(const char* s, size_t max) {
    const void* end = std::memchr(s, '\0', max);
    return end == nullptr ? max : static_cast<size_t>(static_cast<const char*>(end) - s);
}

} // namespace

int memcpy_s(void* dest, size_t dest_max, const void* src, size_t count) {
    if (dest == nullptr || dest_max == 0 || dest_max > kMaxLen) {
        return EINVAL;
    }
    if (src == nullptr) {
        std::memset(dest, 0, dest_max);
        return EINVAL;
    }
    if (count > dest_max) {
        std::memset(dest, 0, dest_max);
        return ERANGE;
    }
    if (count == 0 || dest == src) {
        return 0;
    }
    if (overlaps(dest, count, src, count)) {
        std::memset(dest, 0, dest_max);
        return EINVAL;
    }
    std::memcpy(dest, src, count);
    return 0;
}

int memmove_s(void* dest, size_t dest_max, const void* src, size_t count) {
    if (dest == nullptr || dest_max == 0 || dest_max > kMaxLen) {
        return EINVAL;
    }
    if (src == nullptr) {
        std::memset(dest, 0, dest_max);
        return EINVAL;
    }
    if (count > dest_max) {
        std::memset(dest, 0, dest_max);
        return ERANGE;
    }
    if (count != 0) {
        std::memmove(dest, src, count);
    }
    return 0;
}

int memset_s(void* dest, size_t dest_max, int c, size_t count) {
    if (dest == nullptr || dest_max == 0 || dest_max > kMaxLen) {
        return EINVAL;
    }
    if (count > dest_max) {
        std::memset(dest, c, dest_max); // fill what is there, report the overrun
        return ERANGE;
    }
    std::memset(dest, c, count);
    return 0;
}

int strcpy_s(char* dest, size_t dest_max, const char* src) {
    if (dest == nullptr || dest_max == 0 || dest_max > kMaxLen) {
        return EINVAL;
    }
    if (src == nullptr) {
        dest[0] = '\0';
        return EINVAL;
    }
    size_t n = bounded_len(src, dest_max);
    if (n >= dest_max) {
        dest[0] = '\0';
        return ERANGE;
    }
    if (dest == src) {
        return 0;
    }
    if (overlaps(dest, n + 1, src, n + 1)) {
        dest[0] = '\0';
        return EINVAL;
    }
    std::memcpy(dest, src, n + 1);
    return 0;
}

// Copies at most count characters of src and always ends the text.
int strncpy_s(char* dest, size_t dest_max, const char* src, size_t count) {
    if (dest == nullptr || dest_max == 0 || dest_max > kMaxLen) {
        return EINVAL;
    }
    if (src == nullptr || count > kMaxLen) {
        dest[0] = '\0';
        return EINVAL;
    }
    size_t n = bounded_len(src, count < dest_max ? count : dest_max);
    if (n >= dest_max) {
        dest[0] = '\0';
        return ERANGE;
    }
    if (dest != src && overlaps(dest, n + 1, src, n)) {
        dest[0] = '\0';
        return EINVAL;
    }
    std::memmove(dest, src, n);
    dest[n] = '\0';
    return 0;
}

namespace {

// Formats into dest, keeping at most limit characters. Returns the full
// length vsnprintf wanted, or -1 on a format error.
int format_into(char* dest, size_t limit, const char* format, va_list ap) {
    int n = std::vsnprintf(dest, limit + 1, format, ap);
    return n < 0 ? -1 : n;
}

} // namespace

int sprintf_s(char* dest, size_t dest_max, const char* format, ...) {
    if (dest == nullptr || dest_max == 0 || dest_max > kMaxLen) {
        return -1;
    }
    if (format == nullptr) {
        dest[0] = '\0';
        return -1;
    }
    va_list ap;
    va_start(ap, format);
    int n = format_into(dest, dest_max - 1, format, ap);
    va_end(ap);
    if (n < 0 || static_cast<size_t>(n) >= dest_max) {
        dest[0] = '\0';
        return -1;
    }
    return n;
}

// Writes at most count characters. A text longer than count but with count
// below dest_max is cut to count characters (and -1 returned); a text that
// does not fit dest_max at all leaves the empty text.
int snprintf_s(char* dest, size_t dest_max, size_t count, const char* format, ...) {
    if (dest == nullptr || dest_max == 0 || dest_max > kMaxLen) {
        return -1;
    }
    if (format == nullptr || count > kMaxLen) {
        dest[0] = '\0';
        return -1;
    }
    const size_t limit = count < dest_max ? count : dest_max - 1;
    va_list ap;
    va_start(ap, format);
    int n = format_into(dest, limit, format, ap);
    va_end(ap);
    if (n < 0) {
        dest[0] = '\0';
        return -1;
    }
    if (static_cast<size_t>(n) > limit) {
        if (count >= dest_max) {
            dest[0] = '\0';
        }
        return -1;
    }
    return n;
}
