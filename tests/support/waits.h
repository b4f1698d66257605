// Waits with a deadline for tests, benchmarks and peers, and a monotonic clock. Caller's thread.
#pragma once

#include <cstdint>
#include <functional>

namespace zeph_test {

// Polls pred every step_ms until it holds or timeout_ms passed; the last value of pred.
bool wait_until(const std::function<bool()>& pred, int timeout_ms, int step_ms = 2);

// Milliseconds of a monotonic clock.
uint64_t now_ms();

// Sleeps ms milliseconds: the pause between two polls of a condition.
void sleep_ms(int ms);

} // namespace zeph_test
