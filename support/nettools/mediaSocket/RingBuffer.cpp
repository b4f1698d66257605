// Byte ring of the media transport.
#include "mediaSocket/RingBuffer.h"

#include <algorithm>
#include <new>

#include "mediaSocket/MediaLog.h"
#include "mediaSocket/PrivateHead.h"
#include "securec/securec.h"
#include "zeph_nettools/media_socket.h"

RingBuffer::RingBuffer(int32_t capacity) : capacity(capacity)
{
    if (!CapacityValid(capacity)) {
        MEDIA_LOGE << "capacity invalid! capacity: " << capacity;
        return;
    }
    storage = new (std::nothrow) uint8_t[capacity];
    if (storage == nullptr) {
        MEDIA_LOGE << "RingBuffer; new failed!";
        return;
    }
    (void)memset_s(storage, static_cast<size_t>(capacity), 0, static_cast<size_t>(capacity));
}

RingBuffer::~RingBuffer()
{
    delete[] storage;
    storage = nullptr;
}

// The ring is emptied: keeping stored bytes across a change of capacity
// would need a copy that may not fit, and no owner wants the old contents.
// Positions start again at 0, so they always lie inside the new storage.
int32_t RingBuffer::ResetCapacity(int32_t newCapacity)
{
    if (!CapacityValid(newCapacity)) {
        return 1;
    }
    delete[] storage;
    storage = nullptr;
    capacity = newCapacity;
    Clear();
    storage = new (std::nothrow) uint8_t[newCapacity];
    if (storage == nullptr) {
        MEDIA_LOGE << "RingBuffer::ResetCapacity; new failed!";
        return 0;
    }
    (void)memset_s(storage, static_cast<size_t>(newCapacity), 0, static_cast<size_t>(newCapacity));
    return 0;
}

int32_t RingBuffer::Write(const uint8_t* src, int32_t length)
{
    if (storage == nullptr) {
        return 0;
    }
    const int32_t used = usedSize.load(std::memory_order_relaxed);
    const int32_t n = std::min(length, capacity - used);
    if (src == nullptr || n <= 0) {
        return 0;
    }
    int secRet = 0;
    if (readPos > writePos) {
        secRet += memcpy_s(storage + writePos, static_cast<size_t>(readPos - writePos), src, static_cast<size_t>(n));
    } else {
        const int32_t tail = capacity - writePos;
        if (tail < n) {
            secRet += memcpy_s(storage + writePos, static_cast<size_t>(tail), src, static_cast<size_t>(tail));
            secRet += memcpy_s(storage, static_cast<size_t>(readPos), src + tail, static_cast<size_t>(n - tail));
        } else {
            secRet += memcpy_s(storage + writePos, static_cast<size_t>(tail), src, static_cast<size_t>(n));
        }
    }
    writePos = Advance(writePos, n);
    usedSize.store(used + n, std::memory_order_relaxed);
    if (secRet != 0) {
        MEDIA_LOGW << "memcpy_s failed, secRet: " << secRet;
    }
    return n;
}

int32_t RingBuffer::DoRead(uint8_t* dst, int32_t length, uint32_t peek)
{
    if (storage == nullptr) {
        return 0;
    }
    const int32_t used = usedSize.load(std::memory_order_relaxed);
    const int32_t n = std::min(length, used);
    if (dst == nullptr || n <= 0) {
        return 0;
    }
    int secRet = 0;
    const int32_t tail = capacity - readPos;
    if (n <= tail) {
        secRet += memcpy_s(dst, static_cast<size_t>(n), storage + readPos, static_cast<size_t>(n));
    } else {
        secRet += memcpy_s(dst, static_cast<size_t>(n), storage + readPos, static_cast<size_t>(tail));
        secRet += memcpy_s(dst + tail, static_cast<size_t>(n - tail), storage, static_cast<size_t>(n - tail));
    }
    if (peek == 0) {
        readPos = Advance(readPos, n);
        usedSize.store(used - n, std::memory_order_relaxed);
    }
    if (secRet != 0) {
        MEDIA_LOGW << "memcpy_s failed, secRet: " << secRet;
    }
    return n;
}

int32_t RingBuffer::Skip(int32_t length)
{
    const int32_t used = usedSize.load(std::memory_order_relaxed);
    const int32_t n = std::min(length, used);
    if (storage == nullptr || n <= 0) {
        return 0;
    }
    readPos = Advance(readPos, n);
    usedSize.store(used - n, std::memory_order_relaxed);
    return n;
}

void RingBuffer::Clear()
{
    readPos = 0;
    writePos = 0;
    usedSize.store(0, std::memory_order_relaxed);
}

int32_t RingBuffer::IsPrivateHead() const
{
    if (storage == nullptr || usedSize.load(std::memory_order_relaxed) < kPrivateHeadSize) {
        return 0;
    }
    // At least 16 bytes are stored, so capacity >= 16 and each step wraps at most once.
    const uint8_t* s = storage;
    const int32_t p1 = Advance(readPos, 1);
    const int32_t p2 = Advance(readPos, 2);
    const int32_t p3 = Advance(readPos, 3);
    return PrivateHeadTest(s[readPos], s[p1], s[p2], s[p3]) ? 1 : 0;
}

uint32_t RingBuffer::SkipToPrivateHead(uint8_t* dirty, int32_t* size)
{
    const int32_t room = (dirty != nullptr && size != nullptr && *size > 0) ? *size : 0;
    int32_t copied = 0;
    bool dropped = false;
    // The framer sees a window of the stored bytes: the head's 16 at first,
    // as a head mostly stands at the front; a packet's worth once the hunt
    // has started.
    uint8_t window[kMaxMediaPacketSize];
    int32_t windowSize = kPrivateHeadSize;
    while (storage != nullptr && GetUsedSize() >= kPrivateHeadSize) {
        const FrameCut cut = CutFrame(window, static_cast<size_t>(Peek(window, windowSize)));
        if (cut.kind != FrameCut::Dirty) {
            break;
        }
        const int32_t n = static_cast<int32_t>(cut.length);
        const int32_t keep = std::min(n, room - copied);
        if (keep > 0) {
            (void)memcpy_s(dirty + copied, static_cast<size_t>(room - copied), window, static_cast<size_t>(keep));
            copied += keep;
        }
        Skip(n);
        dropped = true;
        windowSize = kMaxMediaPacketSize;
    }
    if (size != nullptr) {
        *size = copied;
    }
    const uint32_t result = (storage != nullptr && GetUsedSize() >= kPrivateHeadSize) ? kHeadFound : kNoHead;
    return dropped ? result + kBytesDropped : result;
}

int32_t RingBuffer::ReadPacket(uint8_t* dst, int32_t size)
{
    if (dst == nullptr || size == 0) {
        return MEDIA_SOCKET_ERRCODE_FAILED;
    }
    int32_t none = 0;
    if ((SkipToPrivateHead(nullptr, &none) & kHeadFound) == 0 || size < kPrivateHeadSize) {
        return MEDIA_SOCKET_ERRCODE_FAILED;
    }
    // Judged by its head alone, so that a whole packet is copied once.
    uint8_t head[kPrivateHeadSize];
    const FrameCut cut = CutFrame(head, static_cast<size_t>(Peek(head, kPrivateHeadSize)));
    const int32_t length = cut.head.head_Len;
    const bool fits = cut.kind != FrameCut::BadLength && length <= size;
    if (fits && GetUsedSize() >= length) {
        return Read(dst, length);
    }
    // Damage: a length out of bounds or above size, or a packet cut short by
    // a full ring. What there is of it goes, so that the next call hunts
    // behind it.
    Read(dst, fits ? GetUsedSize() : kPrivateHeadSize);
    return MEDIA_SOCKET_ERRCODE_FAILED;
}
