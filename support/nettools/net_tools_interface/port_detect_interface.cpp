// Exports of the port detection: three-port and any-port mode.
#include <memory>
#include <new>

#include "inc/net_tools_log.h"
#include "inc/port_detect.h"
#include "zeph_nettools/net_tools.h"

namespace {

// Makes the detection and hands it its own reference. An object that can't
// be had is reported like a thread that can't be started.
int32_t start_port_detect(uint32_t num, const PortDetectInfo* info, PortDetectNotify notify) {
    std::shared_ptr<PortDetect> detect;
    try {
        detect = std::make_shared<PortDetect>(info, notify);
    } catch (const std::bad_alloc&) {
        NT_LOGE("make_shared failed");
        return -1;
    }
    return detect->start(num, detect);
}

} // namespace

extern "C" {

ZEPH_API int32_t zeph_3port_detect(uint32_t num, PortDetectInfo* info, PortDetectNotify notify) {
    NT_LOGI("enter");
    if (!info) {
        NT_LOGI("info is null");
        return 1;
    }
    info->type = ZEPH_PORT_DETECT_THREE;
    NT_LOGI("port_detect_3: num=%08x group_num=%d", num, info->group_num);
    return start_port_detect(num, info, notify);
}

ZEPH_API int32_t zeph_any_port_detect(uint32_t num, PortDetectInfo* info, PortDetectNotify notify) {
    NT_LOGI("enter");
    if (!info) {
        NT_LOGI("info is null");
        return 1;
    }
    info->type = ZEPH_PORT_DETECT_ANY;
    NT_LOGI("port_detect_any: num=%08x detect_num=%d", num, info->groups[0].detect_num);
    return start_port_detect(num, info, notify);
}

} // extern "C"
