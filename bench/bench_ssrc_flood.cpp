// Cost of the audio sort under a flood of invented SSRCs: a real stream of
// one packet per 20 forged SSRCs, 40 000 forged SSRCs in all, each sending
// `depth` packets (the first, then numbers that leave a gap, so that all
// but the first are held). Reports the time per packet, the resident memory
// the sort grew by, how many SSRCs it keeps at the end, and whether the real
// stream came out whole and in order. A run of the real stream alone gives
// the cost without a flood. Each scenario runs in a process of its own, so
// that none reuses memory another freed.
//
//   bench_ssrc_flood
//
// Runs on the main thread only.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <vector>

#include "mediaSocket/MediaSort.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kForgedSsrcs = 40000;
constexpr uint32_t kForgedPerRealPacket = 20;
constexpr uint32_t kRealSsrc = 0x5EA15EA1;
constexpr uint32_t kFirstForgedSsrc = 0xF1000000;
constexpr size_t kBodySize = 160; // 20 ms of G.711
constexpr uint16_t kForgedFirstSeq = 1000;

long ResidentBytes()
{
    std::ifstream statm("/proc/self/statm");
    long size = 0, resident = 0;
    statm >> size >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

void PutRtp(std::vector<uint8_t>& body, uint16_t seq, uint32_t ssrc)
{
    body[0] = 0x80;
    body[2] = uint8_t(seq >> 8);
    body[3] = uint8_t(seq);
    for (int i = 0; i < 4; ++i) body[8 + i] = uint8_t(ssrc >> (24 - 8 * i));
}

struct Outcome {
    double nsPerPacket = 0;
    double growthMb = 0;
    size_t kept = 0;
    bool realInOrder = true;
    uint64_t packets = 0;
};

// depth 0: the real stream alone.
Outcome Run(uint32_t depth)
{
    SortBuffers buffers;
    std::vector<uint8_t> body(kBodySize, 0x55);
    uint16_t expectNext = 2; // the first real packet only opens the stream
    Outcome o;
    const SortDeliver deliver = [&](const uint8_t* data, int32_t) {
        const uint32_t ssrc = uint32_t(data[8]) << 24 | uint32_t(data[9]) << 16 | uint32_t(data[10]) << 8 | data[11];
        if (ssrc != kRealSsrc) return;
        const uint16_t seq = uint16_t(data[2] << 8 | data[3]);
        if (seq != expectNext) o.realInOrder = false;
        expectNext = uint16_t(seq + 1);
    };
    const uint32_t realPackets = kForgedSsrcs / kForgedPerRealPacket;
    const long before = ResidentBytes();
    const auto start = Clock::now();
    uint32_t forged = kFirstForgedSsrc;
    for (uint32_t r = 1; r <= realPackets; ++r) {
        for (uint32_t f = 0; depth > 0 && f < kForgedPerRealPacket; ++f, ++forged) {
            for (uint32_t i = 0; i < depth; ++i) {
                PutRtp(body, uint16_t(kForgedFirstSeq + (i == 0 ? 0 : 2 * i)), forged);
                SortBufferProcess(buffers, body.data(), int32_t(body.size()), deliver);
                ++o.packets;
            }
        }
        PutRtp(body, uint16_t(r), kRealSsrc);
        SortBufferProcess(buffers, body.data(), int32_t(body.size()), deliver);
        ++o.packets;
    }
    const double ns = double(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count());
    o.nsPerPacket = ns / double(o.packets);
    o.growthMb = double(ResidentBytes() - before) / (1 << 20);
    o.kept = buffers.size();
    o.realInOrder = o.realInOrder && expectNext == uint16_t(realPackets + 1);
    return o;
}

} // namespace

int main()
{
    std::printf("%-34s %10s %10s %12s %6s %8s\n", "scenario", "packets", "ns/packet", "RSS growth", "kept", "real");
    const struct {
        const char* name;
        uint32_t depth;
    } scenarios[] = {
        {"real stream alone", 0},
        {"40000 forged SSRCs, 1 packet each", 1},
        {"40000 forged SSRCs, 2 packets each", 2},
        {"40000 forged SSRCs, 7 packets each", 7},
    };
    std::fflush(stdout);
    for (const auto& s : scenarios) {
        const pid_t child = fork();
        if (child == 0) {
            const Outcome o = Run(s.depth);
            std::printf("%-34s %10llu %10.0f %9.2f MB %6zu %8s\n", s.name, (unsigned long long)o.packets,
                        o.nsPerPacket, o.growthMb, o.kept, o.realInOrder ? "in order" : "BROKEN");
            std::fflush(stdout);
            _exit(0);
        }
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child) return 1;
    }
    std::printf("\nthe sort keeps at most %zu SSRCs per media type, %zu held packets each\n", kMaxSortStreams,
                kMaxHeldPackets - 1);
    return 0;
}
