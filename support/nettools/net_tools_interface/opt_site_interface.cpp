// Export of the nearest-site race: runs on the caller's thread, starts the
// detection and returns; its callbacks come on the runtime's message thread.
#include <cstdint>
#include <memory>
#include <new>
#include <vector>

#include "bwdetect/detect_opt.h"
#include "inc/net_tools_log.h"
#include "inc/net_tools_msg.h"
#include "zeph_nettools/net_tools.h"

namespace {

constexpr uint32_t kBadArgument = 1;

void print_opt_site_info(const OptSiteInfo& site) {
    NT_LOGI("site_info %s %s %s:%d %d", site.name.c_str(), site.nodeName.c_str(), site.addr.c_str(),
            static_cast<int>(site.port), static_cast<int>(site.category_delay));
}

} // namespace

extern "C" {

ZEPH_API uint32_t zeph_detect_start_opt_mult_site(const std::vector<OptSiteInfo>& sites, DetectOptNotify notify) {
    for (const OptSiteInfo& site : sites) print_opt_site_info(site);
    if (notify == nullptr) {
        NT_LOGE("notify is null");
        return kBadArgument;
    }
    // Without the runtime no event would ever reach the detection, and it
    // would neither report nor end.
    if (!g_net_tools_msg.running()) {
        NT_LOGE("net tools not initialized");
        return kBadArgument;
    }
    std::shared_ptr<DetectOptMultiSite> detect;
    try {
        detect = std::make_shared<DetectOptMultiSite>();
    } catch (const std::bad_alloc&) {
        NT_LOGE("make_shared failed");
        return kBadArgument;
    }
    return detect->start(sites, notify, detect);
}

} /* extern "C" */
