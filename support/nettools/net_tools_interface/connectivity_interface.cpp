// Exports of the connectivity detection: any number of targets in one
// record, or one target by its fields. They run on the caller's thread,
// check their arguments, make one DetectConnectivity and start it; the
// result comes later on the runtime's message thread.
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "detect/connectivity_detect.h"
#include "inc/net_tools_log.h"
#include "inc/net_tools_msg.h"
#include "zeph_nettools/net_tools.h"

namespace {

int32_t start_connectivity(uint32_t num, const std::vector<ConnectivitySite>& sites, ConnectivityNotify notify) {
    // Without the runtime no event would ever reach the detection, and the
    // caller would wait for a callback that never comes.
    if (!g_net_tools_msg.running()) {
        NT_LOGE("net tools not inited, call zeph_net_tools_init first");
        return CONNECTIVITY_ERR;
    }
    std::shared_ptr<DetectConnectivity> detect;
    try {
        detect = std::make_shared<DetectConnectivity>(sites, notify);
    } catch (const std::bad_alloc&) {
        NT_LOGE("make_shared failed");
        return CONNECTIVITY_ERR;
    }
    return detect->start(num, detect);
}

} // namespace

extern "C" {

ZEPH_API int32_t zeph_any_port_detect_new(const ConnectivityDetectInfo* info) {
    NT_LOGI("enter");
    if (info == nullptr || info->notify == nullptr) {
        NT_LOGE("para is error info[0x%08x], func[0x%08x]", nt_log_addr(info),
                info != nullptr ? nt_log_addr(info->notify) : 0u);
        return CONNECTIVITY_ERR;
    }
    for (size_t i = 0; i < info->sites.size(); ++i) {
        const ConnectivitySite& site = info->sites[i];
        if (site.port == 0 || site.addr.empty()) {
            NT_LOGE("detect count(%d) port(%d) addr.size(%s)", static_cast<int>(i), static_cast<int>(site.port),
                    site.addr.c_str());
            return CONNECTIVITY_ERR;
        }
    }
    NT_LOGI("port_detect_any: num=%08x detect_num=%d", info->num, static_cast<int>(info->sites.size()));
    return start_connectivity(info->num, info->sites, info->notify);
}

ZEPH_API int32_t zeph_single_port_detect(int32_t num, const char* addr, uint16_t port, uint8_t protocol,
                                         ConnectivityNotify notify) {
    NT_LOGI("enter");
    if (addr == nullptr || addr[0] == '\0' || port == 0 || notify == nullptr) {
        NT_LOGE("para is error addr[0x%08x], port[%d], func[0x%08x]", nt_log_addr(addr), static_cast<int>(port),
                nt_log_addr(notify));
        return CONNECTIVITY_ERR;
    }
    ConnectivitySite site;
    site.port = port;
    site.protocol = protocol;
    site.addr = addr;
    NT_LOGI("sn=%d addr=%s port=%u ", num, addr, static_cast<uint32_t>(port));
    return start_connectivity(static_cast<uint32_t>(num), {site}, notify);
}

} // extern "C"
