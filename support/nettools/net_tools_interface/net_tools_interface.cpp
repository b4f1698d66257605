// Exports shared by all detections: protocol texts and the runtime start.
#include "zeph_nettools/net_tools.h"

#include "commonlib/zeph_commonlib.h"
#include "inc/net_tools_log.h"
#include "net_tools_util/net_tools_util.h"

namespace {
// Detection protocol numbers: the plain STUN binding, the private probe, ICE.
enum : uint32_t { kDetectStun = 0, kDetectStunCustom = 1, kDetectIce = 2 };
} // namespace

extern "C" {

ZEPH_API const char* zeph_get_detect_protocol_type_str(uint32_t type) {
    switch (type) {
    case kDetectStun: return "STUN";
    case kDetectStunCustom: return "STUN_CUSTOM";
    case kDetectIce: return "ICE";
    default: return "UNKNOW";
    }
}

ZEPH_API const char* zeph_get_trans_protocol_type_str(uint32_t type) {
    switch (type) {
    case ZEPH_TRANS_TCP: return "TCP";
    case ZEPH_TRANS_UDP: return "UDP";
    case ZEPH_TRANS_ICMP: return "ICMP";
    default: return "UNKNOW";
    }
}

// The threaded detections need only the module clock; the event-driven
// runtime (message module and receive thread) joins these two calls when
// those detections arrive.
ZEPH_API int32_t zeph_net_tools_init(void) {
    NT_LOGI("enter");
    zeph_http_tunnel_init();
    init_runtime_clock();
    return 0;
}

ZEPH_API int32_t zeph_net_tools_uninit(void) {
    NT_LOGI("enter");
    zeph_http_tunnel_uninit();
    return 0;
}

} // extern "C"
