// Waits with a deadline for tests, benchmarks and test peers: a condition
// polled until it holds, and a monotonic clock in milliseconds. Runs on the
// caller's thread.
#pragma once

#include <cstdint>
#include <functional>

namespace zeph_test {

// Polls pred every step_ms until it is true or timeout_ms have passed.
// Returns the last value of pred.
bool wait_until(const std::function<bool()>& pred, int timeout_ms, int step_ms = 2);

// Milliseconds of a monotonic clock.
uint64_t now_ms();

// Sleeps ms milliseconds: the pause between two polls of a condition.
void sleep_ms(int ms);

} // namespace zeph_test
