// Exports of the multi-site quality detection and of the score table that
// every quality detection scores by. Each runs on the caller's thread; the
// detection goes on on its own thread and reports through the callback.
#include <cstdint>
#include <memory>
#include <new>
#include <vector>

#include "bwdetect/detect_multi_site.h"
#include "bwdetect/detect_qos_score.h"
#include "inc/net_tools_log.h"
#include "zeph_nettools/net_tools.h"

namespace {

void print_site_info(const DetectSiteInfo& s) {
    // The token and parameter are credentials: their lengths only.
    NT_LOGI("site_info %d %d %d %d %s token(%d) para(%d)", s.valid, s.index, s.port, static_cast<int>(s.delaybase),
            s.ip.c_str(), static_cast<int>(s.auth_token.size()), static_cast<int>(s.auth_para.size()));
}

} // namespace

extern "C" {

ZEPH_API uint32_t zeph_detect_start_mult_site_client(const std::vector<DetectSiteInfo>& sites,
                                                     DetectBwNotify notify) {
    NT_LOGI("enter");
    for (const DetectSiteInfo& s : sites) print_site_info(s);
    std::shared_ptr<DetectClientMultiSite> detect;
    try {
        detect = std::make_shared<DetectClientMultiSite>();
    } catch (const std::bad_alloc&) {
        NT_LOGE("make_shared failed");
        return 1;
    }
    return static_cast<uint32_t>(detect->start_client(sites, notify, detect));
}

ZEPH_API uint32_t zeph_detect_set_qos_roles(const std::vector<DetectRole>* roles) {
    NT_LOGI("enter");
    DetectQosScore* scorer = DetectQosScore::get_instance();
    if (scorer == nullptr) {
        NT_LOGE("pDetectQosScore is nullptr");
        return DETECT_ERR_NO_SCORER;
    }
    if (roles == nullptr) {
        NT_LOGE("the roles is invalid(count=%d)", 0);
        return DETECT_ERR_BAD_ROLES;
    }
    return static_cast<uint32_t>(scorer->set_roles(*roles));
}

ZEPH_API uint32_t zeph_detect_set_qos_weight(const uint32_t* weights) {
    NT_LOGI("enter");
    DetectQosScore* scorer = DetectQosScore::get_instance();
    if (scorer == nullptr) {
        NT_LOGE("pDetectQosScore is nullptr");
        return DETECT_ERR_NO_SCORER;
    }
    if (weights == nullptr) {
        NT_LOGE("weights is null");
        return DETECT_ERR_BAD_WEIGHT;
    }
    return static_cast<uint32_t>(scorer->set_weight(weights));
}

} // extern "C"
