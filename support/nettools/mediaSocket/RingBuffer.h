// Byte ring of the media transport. Besides being a FIFO it knows the
// private head well enough to hunt for the next head in a damaged stream
// (SkipToPrivateHead) and to take one whole framed packet (ReadPacket).
//
// All `capacity` bytes are usable: readPos == writePos means empty or full,
// usedSize tells which. The class has no lock; its owners serialise it.
#pragma once

#include <atomic>
#include <cstdint>

class RingBuffer {
public:
    static constexpr int32_t kMinCapacity = 1;
    static constexpr int32_t kMaxCapacity = 0x100000;

    // Result bits of SkipToPrivateHead.
    static constexpr uint32_t kHeadFound = 1;
    static constexpr uint32_t kBytesDropped = 2;
    static constexpr uint32_t kNoHead = 4;

    // A capacity outside 1..0x100000, or a failed allocation, gives a ring
    // without storage, which behaves as a ring that stores nothing.
    explicit RingBuffer(int32_t capacity);
    ~RingBuffer();
    RingBuffer(const RingBuffer&) = delete;
    RingBuffer& operator=(const RingBuffer&) = delete;

    // Replaces the storage by a new, empty one of this capacity. 1 when the
    // capacity is out of range (nothing changes), else 0.
    int32_t ResetCapacity(int32_t capacity);

    // Stores as much of src[0..length) as fits; returns the bytes stored.
    int32_t Write(const uint8_t* src, int32_t length);
    // Copies up to length stored bytes to dst; with peek 0 they are consumed.
    int32_t DoRead(uint8_t* dst, int32_t length, uint32_t peek);
    int32_t Read(uint8_t* dst, int32_t length) { return DoRead(dst, length, 0); }
    int32_t Peek(uint8_t* dst, int32_t length) { return DoRead(dst, length, 1); }
    // Drops up to length bytes; returns the bytes dropped.
    int32_t Skip(int32_t length);
    void Clear();

    // 1 when at least 16 bytes are stored and the first four pass the head
    // test (they may straddle the end of the storage), else 0.
    int32_t IsPrivateHead() const;

    // Drops bytes until a head stands at the read position or fewer than 16
    // bytes remain (those stay). Up to *size dropped bytes are copied to
    // dirty (may be null); *size returns how many were copied. Result: 1 head
    // found at once, 3 head found after dropping, 4 no head and nothing
    // dropped, 6 no head after dropping.
    uint32_t SkipToPrivateHead(uint8_t* dirty, int32_t* size);

    // Takes one whole framed packet into dst[0..size) and returns its length,
    // or -1000. Leading bytes that are no head are dropped; a head whose
    // length is out of 16..2048 or above size is consumed and the call fails,
    // so that the next call hunts behind it.
    int32_t ReadPacket(uint8_t* dst, int32_t size);

    int32_t GetCapacity() const { return capacity; }
    int32_t GetReadPos() const { return readPos; }
    int32_t GetWritePos() const { return writePos; }
    // May be read by any thread without the owner's lock, as a hint of how
    // much waits in the ring.
    int32_t GetUsedSize() const { return usedSize.load(std::memory_order_relaxed); }
    bool HasStorage() const { return storage != nullptr; }
    // Bytes a Write would store now; 0 for a ring without storage.
    int32_t GetFreeSize() const { return storage != nullptr ? capacity - GetUsedSize() : 0; }

private:
    static bool CapacityValid(int32_t value) { return value >= kMinCapacity && value <= kMaxCapacity; }
    // pos + n for 0 <= n <= capacity, taken modulo capacity without a division.
    int32_t Advance(int32_t pos, int32_t n) const
    {
        const int32_t room = capacity - pos;
        return n < room ? pos + n : n - room;
    }

    int32_t readPos = 0;
    int32_t writePos = 0;
    // Written only by the thread that owns the ring; relaxed atomic so that
    // the unlocked reads of GetUsedSize are well defined.
    std::atomic<int32_t> usedSize{0};
    int32_t capacity = 0;
    uint8_t* storage = nullptr;
};
