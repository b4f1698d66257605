// Exports of the simple QoS detection: its six server names and its start.
// Run on the caller's thread; the detection then runs on the runtime's
// message thread.
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "detect/simple_qos_detect.h"
#include "inc/net_tools_log.h"
#include "inc/net_tools_msg.h"
#include "zeph_nettools/net_tools.h"

extern "C" {

ZEPH_API int32_t zeph_set_simple_qos_srvs(const std::vector<std::string>& names) {
    NT_LOGI("enter set_srvs: srv_num=%u", static_cast<uint32_t>(names.size()));
    NetDetectDataNew* data = NetDetectDataNew::get();
    if (data == nullptr) {
        NT_LOGE("pNetDetectDataNew is nullptr");
        return 1;
    }
    try {
        return data->set_multi_srv_name(names);
    } catch (const std::bad_alloc&) {
        NT_LOGE("no memory for the names");
        return 1;
    }
}

ZEPH_API int32_t zeph_simple_qos_detect(uint32_t num, NetDetectNotify notify, uint64_t context) {
    NT_LOGI("enter");
    if (notify == nullptr) {
        NT_LOGE("para is error func[0x%08x]", nt_log_addr(notify));
        return 1;
    }
    // Without the runtime no event would ever reach the detection.
    if (!g_net_tools_msg.running()) {
        NT_LOGE("net tools not initialized");
        return 1;
    }
    NT_LOGI("simple_qos_detect: num=%08x", num);
    std::shared_ptr<DetectSimpleQos> detect;
    try {
        detect = std::make_shared<DetectSimpleQos>();
    } catch (const std::bad_alloc&) {
        NT_LOGE("make_shared failed");
        return 1;
    }
    return detect->start(num, notify, detect, context);
}

} // extern "C"
