// Bounds the log lines a peer can cause: the first lines of a kind are
// written in full, then one in every few thousand. Any thread may ask.
#pragma once

#include <atomic>
#include <cstdint>

namespace zeph {

class LogThinner {
public:
    // True when this occurrence gets its line.
    bool take() {
        const uint32_t n = m_count.fetch_add(1, std::memory_order_relaxed);
        return n < kFullLines || (n - kFullLines) % kThinEvery == 0;
    }

    static constexpr uint32_t kFullLines = 16;
    static constexpr uint32_t kThinEvery = 4096;

private:
    std::atomic<uint32_t> m_count{0};
};

} // namespace zeph
