// Exports shared by all detections: protocol texts and the runtime start.
#include "zeph_nettools/net_tools.h"

#include "commonlib/zeph_commonlib.h"
#include "dns/ravn_dns.h"
#include "inc/net_tools_log.h"
#include "inc/net_tools_msg.h"
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

// Starts the event-driven runtime: the proxy tunnelling, the module clock,
// the message module "net_tools_detect" and the receive thread. Threaded
// detections need only the clock. One caller at a time.
ZEPH_API int32_t zeph_net_tools_init(void) {
    NT_LOGI("enter");
    zeph_http_tunnel_init();
    init_runtime_clock();
    return g_net_tools_msg.init();
}

// Stops the runtime again; safe without an init, and from inside a
// detection's result callback. The resolver thread serves only the
// runtime's name look-ups: it ends too (its pending requests are answered
// as stopped, and the stopped runtime drops those answers), and the next
// look-up starts it again.
ZEPH_API int32_t zeph_net_tools_uninit(void) {
    NT_LOGI("enter");
    zeph_http_tunnel_uninit();
    g_net_tools_msg.finish();
    RAVN_NETB_DnsStop();
    return 0;
}

} // extern "C"
