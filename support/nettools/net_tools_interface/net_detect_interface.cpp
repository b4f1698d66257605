// Exports of the net detection: the seven-measurement plan, one single
// measurement, and the plan's server names.
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "commonlib/zeph_commonlib.h"
#include "inc/net_detect.h"
#include "inc/net_tools_log.h"
#include "zeph_nettools/net_tools.h"

namespace {

uint32_t start_plan(int32_t num, NetDetectNotify notify, uint64_t context) {
    std::shared_ptr<NetDetect> detect;
    try {
        detect = std::make_shared<NetDetect>();
    } catch (const std::bad_alloc&) {
        NT_LOGE("make_shared failed");
        return 1;
    }
    return static_cast<uint32_t>(detect->start(static_cast<uint32_t>(num), notify, detect, context));
}

} // namespace

extern "C" {

ZEPH_API uint32_t zeph_net_detect(int32_t num, NetDetectNotify notify) {
    NT_LOGI("enter net_detect: num=%08x", static_cast<uint32_t>(num));
    return start_plan(num, notify, 0);
}

ZEPH_API uint32_t zeph_net_detect_default(int32_t num, NetDetectNotify notify) {
    NT_LOGI("enter net_detect: default num=%08x", static_cast<uint32_t>(num));
    return start_plan(num, notify, 0);
}

ZEPH_API uint32_t zeph_net_detect_jni(int32_t num, NetDetectNotify notify, uint64_t context) {
    NT_LOGI("enter net_detect: num=%08x", static_cast<uint32_t>(num));
    return start_plan(num, notify, context);
}

ZEPH_API int32_t zeph_single_net_detect(uint32_t num, const char* addr, uint16_t port, uint8_t protocol,
                                        NetDetectNotify notify) {
    if (addr == nullptr || port == 0) {
        NT_LOGI("para is error addr[0x%08x], port[%d]",
                nt_log_addr(addr), port);
        return 1;
    }
    NT_LOGI("net_detect: num=%08x addr=%s port=%d", num, addr, port);
    const uint32_t ip = get_addr_ipv4(addr);
    if (ip == 0) {
        NT_LOGI("domain/ip(%s) is invalid", addr);
        return 1;
    }
    std::shared_ptr<NetDetectBase> detect;
    try {
        detect = std::make_shared<NetDetectBase>();
    } catch (const std::bad_alloc&) {
        NT_LOGE("make_shared failed");
        return 1;
    }
    return detect->start(num, ip, port, protocol, detect, notify);
}

ZEPH_API int32_t zeph_set_net_detect_srvs(const char** srvs, int32_t count) {
    NT_LOGI("enter set_srvs: srv_num=%d", count);
    NetDetectData* data = NetDetectData::get();
    if (data == nullptr) {
        NT_LOGI("pNetDetectData is nullptr");
        return 0;
    }
    try {
        std::vector<std::string> names;
        for (int32_t i = 0; srvs != nullptr && i < count && i < static_cast<int32_t>(NetDetectData::kNames); ++i) {
            names.emplace_back(srvs[i] != nullptr ? srvs[i] : "");
        }
        data->set_multi_srv_name(std::move(names));
    } catch (const std::bad_alloc&) {
        NT_LOGE("server names not taken: out of memory");
    }
    return 0;
}

} // extern "C"
