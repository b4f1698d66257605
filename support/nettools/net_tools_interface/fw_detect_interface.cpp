// The firewall detection. zeph_fw_detect_start runs on the caller's thread:
// it checks the sites, writes them into a PortDetectInfo and hands that to
// fw_detect_thread (one detached thread per call), which waits, resolves the
// names and starts an any-port PortDetect over them. fw_detect_ret_notify
// runs on the PortDetect's detect_thread and turns its record into the seven
// rows of the caller's callback.
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "commonlib/zeph_commonlib.h"
#include "inc/net_tools_log.h"
#include "inc/port_detect.h"
#include "net_tools_util/net_tools_util.h"
#include "os_adapter/morl_os.h"
#include "securec/securec.h"
#include "zeph_nettools/net_tools.h"

namespace {

enum : uint32_t { kFwOk = 0, kFwBadArgument = 1, kFwNoMemory = 3 };

// The detection begins this long after the call.
constexpr uint32_t kFwDetectDelayMs = 30000;
// One site per group of the record, each group with one entry.
constexpr size_t kFwMaxSites = ZEPH_PORT_DETECT_MAX_GROUPS;
// The entry's text field holds the name and its terminating NUL.
constexpr size_t kFwMaxAddrText = sizeof(PortDetectEntry::text) - 1;
// Buffer of a dotted address.
constexpr uint32_t kDottedSize = 32;

} // namespace

// Turns the PortDetect's copy of the record into seven rows, one per group
// whatever the number of sites, and calls the caller's notifier once.
static void fw_detect_ret_notify(void* result) {
    const PortDetectInfo* info = static_cast<const PortDetectInfo*>(result);
    const uint32_t is_proxy = zeph_is_proxy_configed();
    const FwDetectNotify notify =
        info ? reinterpret_cast<FwDetectNotify>(static_cast<uintptr_t>(info->notify)) : nullptr;
    std::string text;
    std::vector<FwDetectSite> rows;
    bool built = false;
    if (notify) {
        try {
            rows.reserve(ZEPH_PORT_DETECT_MAX_GROUPS);
            for (uint32_t i = 0; i < ZEPH_PORT_DETECT_MAX_GROUPS; ++i) {
                const PortDetectEntry& entry = info->groups[i].entries[0];
                char dotted[kDottedSize] = {};
                ipv4_int2str(dotted, sizeof dotted, entry.addr);
                FwDetectSite row;
                row.reached = entry.reached;
                row.protocol = 0;
                row.port = entry.port;
                row.index = i;
                row.is_proxy = is_proxy;
                row.addr = dotted;
                rows.push_back(std::move(row));
                text += dotted;
                text += ':';
                text += std::to_string(entry.port);
                text += '=';
                text += std::to_string(entry.reached);
                text += ',';
            }
            built = true;
        } catch (const std::bad_alloc&) {
            NT_LOGE("no memory for the result");
            text.clear();
        }
    }
    if (built) notify(0, 0, 0, rows);
    NT_LOGI("FW_Detect_Result=%d,%s", static_cast<int>(text.size()), text.c_str());
}

// Waits, resolves every site's name and runs the port detection over them.
// The record is this thread's own; PortDetect keeps a copy of it.
static void fw_detect_thread(std::unique_ptr<PortDetectInfo> info) {
    MORL_SleepMs(kFwDetectDelayMs);
    for (int32_t i = 0; i < info->group_num; ++i) {
        PortDetectEntry& entry = info->groups[i].entries[0];
        const uint32_t addr = get_addr_ipv4(entry.text);
        entry.addr = addr;
        if (addr == 0) {
            // Address 0 would reach this machine (directly or through a
            // proxy's CONNECT): such a site is not probed and reads not
            // reached.
            NT_LOGW("site %d: name not resolved, not probed", static_cast<int>(i));
            entry.protocol = 0;
        }
    }
    NT_LOGI("fw_detect_any: num=%08x detect_num=%d", info->num, info->group_num);
    std::shared_ptr<PortDetect> detect;
    try {
        detect = std::make_shared<PortDetect>(info.get(), fw_detect_ret_notify);
    } catch (const std::bad_alloc&) {
        NT_LOGE("make_shared failed");
        return;
    }
    const int rc = detect->start(info->num, detect);
    if (rc != 0) NT_LOGE("port detection did not start: %d", rc);
}

extern "C" {

ZEPH_API uint32_t zeph_fw_detect_start(uint32_t num, const std::vector<FwDetectSite>& sites, FwDetectNotify notify) {
    NT_LOGI("enter");
    if (sites.empty()) {
        NT_LOGI("size is zero");
        return kFwBadArgument;
    }
    if (sites.size() > kFwMaxSites) {
        NT_LOGI("%u sites, at most %u", static_cast<unsigned>(sites.size()), static_cast<unsigned>(kFwMaxSites));
        return kFwBadArgument;
    }
    if (!notify) {
        NT_LOGI("notify is null");
        return kFwBadArgument;
    }
    for (size_t i = 0; i < sites.size(); ++i) {
        const std::string& addr = sites[i].addr;
        if (addr.size() > kFwMaxAddrText || addr.find('\0') != std::string::npos) {
            NT_LOGI("site %u: address text over %u bytes or holding a NUL", static_cast<unsigned>(i),
                    static_cast<unsigned>(kFwMaxAddrText));
            return kFwBadArgument;
        }
    }

    std::unique_ptr<PortDetectInfo> info(new (std::nothrow) PortDetectInfo());
    if (!info) {
        NT_LOGE("malloc failed");
        return kFwNoMemory;
    }
    info->num = num;
    info->group_num = static_cast<int32_t>(sites.size());
    info->type = ZEPH_PORT_DETECT_ANY;
    info->notify = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(notify));
    int copy_errors = 0;
    for (size_t i = 0; i < sites.size(); ++i) {
        PortDetectGroup& group = info->groups[i];
        PortDetectEntry& entry = group.entries[0];
        group.detect_num = 1;
        entry.port = sites[i].port;
        entry.protocol = sites[i].protocol;
        entry.reached = 0; // only a probe that answers sets it
        if (!sites[i].addr.empty())
            copy_errors += memcpy_s(entry.text, sizeof entry.text, sites[i].addr.data(), sites[i].addr.size());
    }
    if (copy_errors != 0) NT_LOGE("secure function return error");

    try {
        std::thread(fw_detect_thread, std::move(info)).detach();
    } catch (const std::system_error& e) {
        NT_LOGE("thread start failed: %s", e.what());
        return kFwNoMemory;
    }
    return kFwOk;
}

} // extern "C"
