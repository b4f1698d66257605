// Exports of the long-time detections: one site watched for minutes, in the
// quality packet's private form or towards a plain STUN server.
// Threads: the caller's; the detection runs on threads of its own.
#include <cstdint>
#include <memory>
#include <new>

#include "bwdetect/detect_long_time.h"
#include "inc/net_tools_log.h"
#include "zeph_nettools/net_tools.h"

namespace {

constexpr uint32_t kNoMemory = 1;

} // namespace

extern "C" {

ZEPH_API uint32_t zeph_detect_start_long_time_bw(const DetectSiteInfo* site, DetectBwConfig* config) {
    NT_LOGI("enter");
    std::shared_ptr<DetectSiteLongTime> detect;
    try {
        detect = std::make_shared<DetectSiteLongTime>();
    } catch (const std::bad_alloc&) {
        NT_LOGE("make_shared failed");
        return kNoMemory;
    }
    return static_cast<uint32_t>(detect->start(site, config, detect));
}

ZEPH_API uint32_t zeph_detect_start_stun_long_time(const DetectSiteInfo* site, DetectBwConfig* config) {
    NT_LOGI("enter");
    // Its thread takes this reference over and frees the detection at its
    // end; a refused start frees it here.
    DetectStunLongTime* made = new (std::nothrow) DetectStunLongTime;
    if (made == nullptr) {
        NT_LOGE("new failed");
        return kNoMemory;
    }
    std::shared_ptr<DetectStunLongTime> detect;
    try {
        detect.reset(made); // frees `made` itself when it throws
    } catch (const std::bad_alloc&) {
        NT_LOGE("make_shared failed");
        return kNoMemory;
    }
    return static_cast<uint32_t>(detect->start(site, config));
}

} // extern "C"
