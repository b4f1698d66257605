// Clock and log thinning shared by the transport's paths.
#pragma once

#include <cstdint>

#include "os_adapter/morl_os.h"

namespace zeph_media {

// Milliseconds of the process clock.
inline uint64_t NowMs() { return MORL_GetSystemTime(); }

// A warning that may repeat at line rate is written once in 4096 times,
// and at most once a second.
constexpr uint32_t kLogEveryCount = 4096;
constexpr uint32_t kLogEvery = kLogEveryCount - 1; // as a mask
constexpr uint64_t kLogGapMs = 1000;

} // namespace zeph_media
