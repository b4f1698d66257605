// Throughput of the media send ring: framed packets written as the send
// path writes them (head, then body) and taken back with ReadPacket, set
// against plain memcpy of the same bytes into and out of a flat buffer of
// the same size, in the same run.
//
//   bench_ring_buffer [--seconds S]    (default 0.5 s per measurement, best of 5)
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mediaSocket/PrivateHead.h"
#include "mediaSocket/RingBuffer.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kMaxBatch = 32; // packets written before they are read back

// Keeps the compiler from proving the copies useless.
void Use(const void* p)
{
    asm volatile("" : : "r"(p) : "memory");
}

struct Result {
    double packetsPerSec;
    double mbPerSec;
};

template <typename Round>
Result Measure(double seconds, size_t packetBytes, Round round)
{
    double best = 0;
    for (int rep = 0; rep < 5; ++rep) {
        uint64_t packets = 0;
        const auto start = Clock::now();
        const auto end = start + std::chrono::duration<double>(seconds);
        auto now = start;
        while (now < end) {
            for (int i = 0; i < 64; ++i) packets += round();
            now = Clock::now();
        }
        const double rate = static_cast<double>(packets) / std::chrono::duration<double>(now - start).count();
        best = std::max(best, rate);
    }
    return {best, best * static_cast<double>(packetBytes) / 1e6};
}

void Run(size_t packetBytes, int32_t capacity, double seconds)
{
    const size_t body = packetBytes - kPrivateHeadSize;
    std::vector<uint8_t> payload(body);
    for (size_t i = 0; i < body; ++i) payload[i] = static_cast<uint8_t>(i * 7 + 1);
    std::vector<uint8_t> out(kMaxMediaPacketSize);
    uint8_t head[kPrivateHeadSize];
    BuildPrivateHead(0, 0, 1, 1, static_cast<uint32_t>(body), head);

    // As many as the ring holds, at most 32.
    const int kBatch = std::min<int>(kMaxBatch, capacity / static_cast<int32_t>(packetBytes));
    RingBuffer ring(capacity);
    auto ringRound = [&]() -> uint64_t {
        for (int i = 0; i < kBatch; ++i) {
            ring.Write(head, kPrivateHeadSize);
            ring.Write(payload.data(), static_cast<int32_t>(body));
        }
        for (int i = 0; i < kBatch; ++i) {
            if (ring.ReadPacket(out.data(), static_cast<int32_t>(out.size())) != static_cast<int32_t>(packetBytes)) {
                std::fprintf(stderr, "ReadPacket failed\n");
                std::exit(1);
            }
            Use(out.data());
        }
        return kBatch;
    };

    // The same bytes copied into a flat buffer of the ring's size and out
    // again, with no framing, wrapping or checks.
    std::vector<uint8_t> flat(static_cast<size_t>(capacity));
    size_t pos = 0;
    auto memcpyRound = [&]() -> uint64_t {
        if (pos + kBatch * packetBytes > flat.size()) pos = 0;
        const size_t first = pos;
        for (int i = 0; i < kBatch; ++i) {
            std::memcpy(flat.data() + pos, head, kPrivateHeadSize);
            std::memcpy(flat.data() + pos + kPrivateHeadSize, payload.data(), body);
            pos += packetBytes;
        }
        Use(flat.data());
        for (int i = 0; i < kBatch; ++i) {
            std::memcpy(out.data(), flat.data() + first + static_cast<size_t>(i) * packetBytes, packetBytes);
            Use(out.data());
        }
        return kBatch;
    };

    const Result r = Measure(seconds, packetBytes, ringRound);
    const Result m = Measure(seconds, packetBytes, memcpyRound);
    std::printf("%5zu-byte packets, ring %7d B, %2d per round: ring %6.2f Mpkt/s %8.0f MB/s | memcpy %6.2f Mpkt/s %8.0f MB/s | "
                "ring/memcpy %.2f\n",
                packetBytes, capacity, kBatch, r.packetsPerSec / 1e6, r.mbPerSec, m.packetsPerSec / 1e6, m.mbPerSec,
                r.packetsPerSec / m.packetsPerSec);
}

} // namespace

int main(int argc, char** argv)
{
    double seconds = 0.5;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::string(argv[i]) == "--seconds") seconds = std::atof(argv[i + 1]);
    }
    std::printf("RingBuffer Write (head + body) + ReadPacket, up to %d packets per round, best of 5\n", kMaxBatch);
    for (int32_t capacity : {30720, 1024000}) {
        Run(200, capacity, seconds);
        Run(1200, capacity, seconds);
    }
    return 0;
}
