// Drives a RingBuffer with a script of operations taken from the input and
// checks every result against a plain deque model of the same ring: byte
// order across the end of storage, the hunt for a head with its result
// bits and dirty-byte capture, and whole-packet reads.
//
// Input: 2 bytes capacity selector, then operations of 1 opcode byte and
// 2 argument bytes (Write takes its bytes from the input).
//
// Verdict: the ring's capacity, whole packets read, hunts that dropped
// bytes, and the bytes left at the end.
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <string>
#include <vector>

#include "fuzz_verdict.h"
#include "mediaSocket/PrivateHead.h"
#include "mediaSocket/RingBuffer.h"

namespace {

#define CHECK(cond)                                                                                              \
    do {                                                                                                         \
        if (!(cond)) __builtin_trap();                                                                           \
    } while (0)

struct Model {
    size_t capacity;
    std::deque<uint8_t> bytes;

    bool HeadAtFront() const
    {
        return bytes.size() >= 16 && PrivateHeadTest(bytes[0], bytes[1], bytes[2], bytes[3]);
    }

    uint32_t Hunt(std::vector<uint8_t>* dirty, size_t room)
    {
        if (bytes.size() < 16) return RingBuffer::kNoHead;
        bool dropped = false;
        while (bytes.size() >= 16) {
            if (HeadAtFront()) return dropped ? 3 : 1;
            if (dirty != nullptr && dirty->size() < room) dirty->push_back(bytes.front());
            bytes.pop_front();
            dropped = true;
        }
        return dropped ? 6 : 4;
    }
};

// What the last input came to.
struct Outcome {
    int32_t capacity = 0;
    size_t packets = 0;
    size_t droppingHunts = 0;
    size_t left = 0;
} g_outcome;

struct Input {
    const uint8_t* data;
    size_t size;
    size_t pos = 0;
    bool Take(size_t n, const uint8_t** out)
    {
        if (size - pos < n) return false;
        *out = data + pos;
        pos += n;
        return true;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input in{data, size};
    const uint8_t* p = nullptr;
    g_outcome = Outcome{};
    if (!in.Take(2, &p)) return 0;
    // Mostly small rings, so that the end of storage is crossed often.
    const uint16_t sel = static_cast<uint16_t>(p[0] << 8 | p[1]);
    const int32_t capacity = (sel & 0x8000) ? static_cast<int32_t>(sel & 0x7FFF) : 1 + (sel % 300);
    RingBuffer ring(capacity);
    g_outcome.capacity = capacity;
    Model model{ring.HasStorage() ? static_cast<size_t>(capacity) : 0, {}};

    std::vector<uint8_t> out(4096), dirty(4096);
    while (in.Take(3, &p)) {
        const uint8_t op = p[0] % 8;
        const int32_t arg = static_cast<int32_t>((p[1] << 8 | p[2]) % 4096);
        switch (op) {
        case 0: { // Write arg bytes of the input (or what is left of it)
            const size_t n = std::min<size_t>(static_cast<size_t>(arg), in.size - in.pos);
            const uint8_t* src = nullptr;
            in.Take(n, &src);
            const size_t expect = std::min(n, model.capacity - model.bytes.size());
            CHECK(ring.Write(src, static_cast<int32_t>(n)) == static_cast<int32_t>(n == 0 ? 0 : expect));
            if (n != 0) model.bytes.insert(model.bytes.end(), src, src + expect);
            break;
        }
        case 1:
        case 2: { // Read, Peek
            const int32_t n = (op == 1) ? ring.Read(out.data(), arg) : ring.Peek(out.data(), arg);
            const size_t expect = std::min<size_t>(static_cast<size_t>(arg), model.bytes.size());
            CHECK(n == static_cast<int32_t>(expect));
            for (size_t i = 0; i < expect; ++i) CHECK(out[i] == model.bytes[i]);
            if (op == 1) model.bytes.erase(model.bytes.begin(), model.bytes.begin() + static_cast<long>(expect));
            break;
        }
        case 3: { // Skip
            const size_t expect = std::min<size_t>(static_cast<size_t>(arg), model.bytes.size());
            CHECK(ring.Skip(arg) == static_cast<int32_t>(expect));
            model.bytes.erase(model.bytes.begin(), model.bytes.begin() + static_cast<long>(expect));
            break;
        }
        case 4: { // SkipToPrivateHead with a dirty buffer of arg bytes
            int32_t room = arg;
            std::vector<uint8_t> expectDirty;
            const uint32_t expect = model.Hunt(&expectDirty, static_cast<size_t>(arg));
            CHECK(ring.SkipToPrivateHead(dirty.data(), &room) == expect);
            if (expect & RingBuffer::kBytesDropped) ++g_outcome.droppingHunts;
            CHECK(room == static_cast<int32_t>(expectDirty.size()));
            for (size_t i = 0; i < expectDirty.size(); ++i) CHECK(dirty[i] == expectDirty[i]);
            break;
        }
        case 5: { // ReadPacket into a destination of arg bytes
            const int32_t n = ring.ReadPacket(out.data(), arg);
            int32_t expect = -1000;
            if (arg != 0 && (model.Hunt(nullptr, 0) & 1) && arg >= 16) {
                uint8_t head[16];
                for (size_t i = 0; i < 16; ++i) head[i] = model.bytes[i];
                model.bytes.erase(model.bytes.begin(), model.bytes.begin() + 16);
                const int32_t length = head[12] << 8 | head[13];
                if (length >= 16 && length <= 2048 && length <= arg) {
                    const size_t body = std::min<size_t>(static_cast<size_t>(length - 16), model.bytes.size());
                    for (size_t i = 0; i < body; ++i) CHECK(out[16 + i] == model.bytes[i]);
                    model.bytes.erase(model.bytes.begin(), model.bytes.begin() + static_cast<long>(body));
                    if (16 + body == static_cast<size_t>(length)) expect = length;
                }
                for (size_t i = 0; i < 16; ++i) CHECK(out[i] == head[i]);
            }
            CHECK(n == expect);
            if (n > 0) ++g_outcome.packets;
            break;
        }
        case 6:
            CHECK(ring.IsPrivateHead() == (model.HeadAtFront() ? 1 : 0));
            break;
        default:
            if (arg % 16 == 0) {
                ring.Clear();
                model.bytes.clear();
            }
            break;
        }
        CHECK(ring.GetUsedSize() == static_cast<int32_t>(model.bytes.size()));
    }
    g_outcome.left = model.bytes.size();
    // Whatever is left reads back in order.
    std::vector<uint8_t> rest(model.bytes.size() + 1);
    CHECK(ring.Read(rest.data(), static_cast<int32_t>(rest.size())) == static_cast<int32_t>(model.bytes.size()));
    for (size_t i = 0; i < model.bytes.size(); ++i) CHECK(rest[i] == model.bytes[i]);
    return 0;
}

std::string FuzzVerdict()
{
    return "capacity " + std::to_string(g_outcome.capacity) + ", packets " + std::to_string(g_outcome.packets) +
           ", dropping hunts " + std::to_string(g_outcome.droppingHunts) + ", left " + std::to_string(g_outcome.left);
}
