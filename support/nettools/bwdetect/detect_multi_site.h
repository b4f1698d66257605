// DetectClientMultiSite: which of up to ten server sites serves best. One
// 3-second stream to every site at once, each from a socket of its own
// (bound from 64100 + the site's place up), the rate budget shared evenly
// among them; each site's figures scored by DetectQosScore and reported all
// at once, the best one marked.
//
// Threads: start_client runs on the caller's thread and starts one detached
// thread ("detect_multi_site") that starts the streams (two threads per
// exchanger), waits for them, scores and calls the callback with no lock of
// ours held. The object lives by m_self until that thread ends.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "bwdetect/detect_cli_pkt.h"
#include "bwdetect/detect_client.h"

// Results of start_client and codes of the callback.
constexpr int32_t DETECT_ERR_SITE_NO_SOCKET = 23;
constexpr int32_t DETECT_ERR_SITES_REFUSED = 31;

// The rate budget shared among the sites, in the level table's rate unit.
constexpr uint32_t DETECT_MULTI_SITE_BUDGET = 4096;

// The level and packet length of each of `sites` streams sharing the budget.
struct DetectMultiSitePlan {
    uint8_t level;
    int32_t pkt_len;
};
DetectMultiSitePlan detect_multi_site_plan(uint32_t sites);

class DetectClientMultiSite : public DetectClientBase {
public:
    DetectClientMultiSite();
    ~DetectClientMultiSite() override;

    // Checks the sites and starts the detection's thread. 0;
    // DETECT_ERR_BAD_ARGUMENT for a null callback or no usable site;
    // DETECT_ERR_SITES_REFUSED when check_token fails (too many sites, a bad
    // token or parameter length). `self` is the caller's shared pointer to
    // this object, kept until the thread ends.
    int32_t start_client(const std::vector<DetectSiteInfo>& sites, DetectBwNotify callback,
                         std::shared_ptr<DetectClientMultiSite> self);
    int32_t start_send_thread() override;

    // Marks each site valid (1) or not (0): a site needs a port, an address,
    // a token and a parameter. True when at least one is valid.
    bool check_site_info(std::vector<DetectSiteInfo>& sites);

private:
    void client_send_thread();
    // The socket of site `no`, added to m_socks when it could be made.
    void start_socket(uint32_t no);
    // Waits for every stream to be sent: DETECT_STATE_SEND_FIN, or
    // DETECT_STATE_FAILED (a server refused the token), or
    // DETECT_STATE_SENDING when the wait ran out.
    int32_t waitfor_send_fin();
    // Waits for every stream's figures; true when all are in.
    bool waitfor_get_stat();
    void notify_detect_result();
    void notify_failed(int32_t code);

    uint32_t m_site_num = 0;
    std::vector<std::shared_ptr<DetectCliPktAnyTime>> m_exchangers;
    std::vector<DetectSockPtr> m_socks;
    std::vector<DetectSiteInfo> m_sites;
    std::shared_ptr<DetectClientMultiSite> m_self;
};
