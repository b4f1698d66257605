// DetectOptMultiSite: picks the nearest of up to 32 server sites by one
// burst of NPS probes per site. It answers twice: at once with the first
// site whose answer arrives, and when its finish timer expires with the
// table of every site's first-answer delay and loss.
//
// Threads. The detection has no thread and no lock. `start` runs on the
// caller's thread and ends by arming a timer or starting the name look-ups;
// from then on every event (packet, expiry, name answer) reaches it on the
// message thread of the detection runtime, one at a time, so the sites and
// categories are only touched there. Both callbacks run on the message
// thread, after each other, never at the same moment.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bwdetect/detect_base.h"
#include "zeph_nettools/net_tools.h"

class DetectSocket;

// Sites a race takes at most; the rest of a longer list is ignored.
constexpr uint32_t OPT_SITE_MAX = 32;
// Probes per site, sequence numbers 0..31.
constexpr uint32_t OPT_PROBES_PER_SITE = 32;
// Largest hold-back of a site, milliseconds; more is clipped to it.
constexpr uint16_t OPT_CATEGORY_DELAY_MAX = 300;
// A first category held back by less than this is sent at once.
constexpr uint16_t OPT_SEND_AT_ONCE_BELOW = 10;
// Answers this long after the first category's sending are dropped.
constexpr uint32_t OPT_RECV_SPAN_MAX = 1000;
// Limits of the name phase and of the probing (from the burst's preparing).
constexpr uint32_t OPT_DNS_TIMEOUT_MS = 1000;
constexpr uint32_t OPT_FINISH_TIMEOUT_MS = 1000;
// `delay` of a site without an answer.
constexpr uint16_t OPT_NO_ANSWER = 0xFFFF;
// Room of the result text in the log.
constexpr size_t OPT_RESULT_TEXT_SIZE = 2048;

// `start`'s results.
constexpr uint32_t OPT_START_OK = 0;
constexpr uint32_t OPT_START_FAILED = 1;

// `p2` of the callback.
constexpr uint32_t OPT_NOTIFY_BEST = 0;
constexpr uint32_t OPT_NOTIFY_TABLE = 1;

enum OptDetectStatus : uint32_t {
    OPT_STATUS_IDLE = 0,
    OPT_STATUS_DNS = 1,        // names being resolved
    OPT_STATUS_FIRST = 2,      // the first category sent (or waiting for its hold-back)
    OPT_STATUS_DETECTING = 3,  // a later category sent
    OPT_STATUS_FINISHED = 4,
};

class DetectOptMultiSite : public DetectBase {
public:
    DetectOptMultiSite();
    ~DetectOptMultiSite() override;

    // OPT_START_OK, or OPT_START_FAILED when a timer could not be made.
    uint32_t start(const std::vector<OptSiteInfo>& sites, DetectOptNotify notify,
                   std::shared_ptr<DetectOptMultiSite> self);

    uint32_t get_recv_msg_id() override;
    void recv_pkt(const uint8_t* data, uint32_t len, std::shared_ptr<DetectSocket> sock,
                  std::shared_ptr<DetectBase> detect) override;
    void recv_dns(const char* host, uint32_t addr) override;
    void recv_timeout(uint64_t timer) override;

private:
    struct OptSite {
        std::string name;
        std::string nodeName;
        std::string addr;
        uint16_t port = 0;
        uint16_t category_delay = 0;
        uint16_t first_delay = OPT_NO_ANSWER;
        uint16_t last_delay = OPT_NO_ANSWER;
        uint16_t recv_count = 0;
        uint32_t ip = 0; // network byte order, 0 while unknown
        std::shared_ptr<DetectSocket> socket;
    };
    struct OptCategory {
        uint32_t send_time = 0; // clock when its probes went out, 0 before
        uint16_t delay = 0;
        uint16_t count = 0;
        uint8_t sent = 0;
    };

    void set_detect_status(uint32_t status);
    void pre_send();
    void check_site();
    void start_detect();
    void finish_detect_timeout();
    void calc_result(std::vector<OptSiteInfo>& results);
    void stop_dns();
    OptSiteInfo site_record(const OptSite& site) const;
    uint32_t now_ms();

    uint32_t m_dns_timeout = OPT_DNS_TIMEOUT_MS;
    uint32_t m_finish_timeout = OPT_FINISH_TIMEOUT_MS;
    DetectOptNotify m_notify = nullptr;
    std::vector<OptSite> m_sites;
    std::shared_ptr<DetectOptMultiSite> m_self;
    std::vector<OptCategory> m_categories;
    uint64_t m_finish_timer = 0;
    uint64_t m_send_timer = 0;
    uint32_t m_pre_send_time = 0;
    uint32_t m_send_base = 0;
    uint32_t m_detect_status = OPT_STATUS_IDLE;
    uint32_t m_best_reported = 0;
    uint32_t m_dns_groups = 0; // look-up groups started and not yet stopped
};
