// Drives the framer alone, without threads or sockets, over a byte stream
// that arrives in reads of the sizes the input chooses, and checks what it
// cuts: a packet is a valid head with a length in 16..2048 and all its bytes
// there; dirty bytes start no head and stop at the next one; nothing is
// ever cut from fewer than 16 bytes. The stream must come out cut the same
// whatever the reads were: each packet is compared with a cut of the whole
// stream at once.
//
// Input: 1 byte of read size (1..256), then the stream.
//
// Verdict: packets, dirty bytes, bad lengths, and the bytes left waiting.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz_verdict.h"
#include "mediaSocket/PrivateHead.h"

namespace {

#define CHECK(cond)                                                                                              \
    do {                                                                                                         \
        if (!(cond)) __builtin_trap();                                                                           \
    } while (0)

struct Outcome {
    size_t packets = 0;
    size_t dirty = 0;
    size_t badLengths = 0;
    size_t left = 0;
} g_outcome;

bool HeadAt(const uint8_t* p) { return PrivateHeadTest(p[0], p[1], p[2], p[3]); }

// Cuts everything that can be cut from data[0..size); returns the bytes spent.
size_t CutAll(const uint8_t* data, size_t size, std::vector<FrameCut>& cuts)
{
    size_t pos = 0;
    while (true) {
        const FrameCut cut = CutFrame(data + pos, size - pos);
        const size_t rest = size - pos;
        switch (cut.kind) {
        case FrameCut::NeedMore:
            CHECK(rest < 16 || (HeadAt(data + pos) && cut.head.head_Len > rest));
            return pos;
        case FrameCut::Packet:
            CHECK(cut.length >= 16 && cut.length <= 2048 && cut.length <= rest);
            CHECK(HeadAt(data + pos) && cut.head.head_Len == cut.length);
            break;
        case FrameCut::Dirty:
            CHECK(cut.length >= 1 && cut.length <= rest);
            for (size_t i = 0; i < cut.length; ++i) CHECK(rest - i >= 16 && !HeadAt(data + pos + i));
            CHECK(rest - cut.length < 16 || HeadAt(data + pos + cut.length));
            break;
        case FrameCut::BadLength:
            CHECK(cut.length == 16 && HeadAt(data + pos));
            CHECK(cut.head.head_Len < 16 || cut.head.head_Len > 2048);
            break;
        }
        cuts.push_back(cut);
        pos += cut.length;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    g_outcome = Outcome{};
    if (size < 1) return 0;
    const size_t readSize = 1 + data[0];
    const uint8_t* stream = data + 1;
    const size_t total = size - 1;

    std::vector<FrameCut> whole;
    const size_t spentWhole = CutAll(stream, total, whole);

    // The same stream, read by read: what waits is kept and cut again.
    std::vector<uint8_t> pending;
    std::vector<FrameCut> pieces;
    for (size_t at = 0; at < total; at += readSize) {
        const size_t n = std::min(readSize, total - at);
        pending.insert(pending.end(), stream + at, stream + at + n);
        const size_t spent = CutAll(pending.data(), pending.size(), pieces);
        pending.erase(pending.begin(), pending.begin() + static_cast<long>(spent));
    }
    // Dirty runs may split differently; everything else must match.
    std::vector<FrameCut> a, b;
    size_t dirtyA = 0, dirtyB = 0;
    auto split = [](const std::vector<FrameCut>& cuts, std::vector<FrameCut>& kept, size_t& dirty) {
        for (const auto& c : cuts) {
            if (c.kind == FrameCut::Dirty) {
                dirty += c.length;
            } else {
                kept.push_back(c);
            }
        }
    };
    split(whole, a, dirtyA);
    split(pieces, b, dirtyB);
    CHECK(a.size() == b.size() && dirtyA == dirtyB && total - spentWhole == pending.size());
    for (size_t i = 0; i < a.size(); ++i) CHECK(a[i].kind == b[i].kind && a[i].length == b[i].length);

    for (const auto& c : a) {
        if (c.kind == FrameCut::Packet) {
            ++g_outcome.packets;
        } else {
            ++g_outcome.badLengths;
        }
    }
    g_outcome.dirty = dirtyA;
    g_outcome.left = pending.size();
    return 0;
}

std::string FuzzVerdict()
{
    return "packets " + std::to_string(g_outcome.packets) + ", dirty " + std::to_string(g_outcome.dirty) +
           ", bad lengths " + std::to_string(g_outcome.badLengths) + ", left " + std::to_string(g_outcome.left);
}
