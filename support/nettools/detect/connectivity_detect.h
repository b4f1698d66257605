// DetectConnectivity: does each of up to 16 targets answer, over its
// transport and probe? A state machine with no thread of its own:
//
//   1 resolving      names go to the resolver (literal addresses pass at once)
//   2 detecting      one probe socket per target, UDP/ICMP probes every 300 ms
//   3 first response 1 s more for the other targets
//   4 finished       sockets freed, timers stopped, the caller hears the result
//
// Threads. `start` runs on the caller's thread (and with it, for literal
// addresses, the first start_detect). Every later event (packet, proxy
// result, DNS answer, timer expiry) runs on the runtime's message thread,
// one at a time, so the state needs no lock; each event first passes the
// start barrier, so none of them overlaps the end of `start`. The result
// callback runs on the message thread with no lock of ours held.
//
// Life. The object keeps itself alive through m_self from `start` to
// `finish_detect`; afterwards only the message core's table entries hold
// it, and it goes when the last of them is erased.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bwdetect/detect_base.h"
#include "inc/detect_socket.h"
#include "zeph_nettools/net_tools.h"

// Targets of one detection at most.
constexpr size_t CONNECTIVITY_MAX_TARGETS = 16;

// States.
enum : int32_t {
    CONNECTIVITY_IDLE = 0,
    CONNECTIVITY_RESOLVING = 1,
    CONNECTIVITY_DETECTING = 2,
    CONNECTIVITY_FIRST_RESP = 3,
    CONNECTIVITY_FINISHED = 4,
};

// Results of start and of the exports.
constexpr int32_t CONNECTIVITY_OK = 0;
constexpr int32_t CONNECTIVITY_ERR = 1;

struct ConnectivityTarget {
    uint16_t port = 0;
    uint8_t protocol = 0;
    uint8_t no_proxy = 0;
    uint8_t detect_type = 0;
    uint8_t open = 0;
    uint32_t start_time = 0; // object clock when the socket was opened; 0 while none was
    std::shared_ptr<DetectSocket> sock;
    uint32_t ip = 0; // network byte order, 0 until known
    std::string addr;
};

class DetectConnectivity : public DetectBase {
public:
    DetectConnectivity(const std::vector<ConnectivitySite>& sites, ConnectivityNotify notify);
    ~DetectConnectivity() override;

    // 0, or 1 when a timer cannot be made (then nothing was sent).
    int32_t start(uint32_t num, std::shared_ptr<DetectConnectivity> self);

    void set_detect_status(int32_t status);
    void start_detect();
    // 1 when resolver requests were started, else 0.
    int32_t resolve_addrs();
    void send_buf(const std::shared_ptr<DetectSocket>& sock, uint32_t seq);
    void send_schedule_timeout();
    void process_control_timeout();
    // True when it finished the detection.
    bool check_all_open();
    void finish_detect();
    void calc_any_port();

    uint32_t get_recv_msg_id() override;
    void recv_pkt(const uint8_t* data, uint32_t len, std::shared_ptr<DetectSocket> sock,
                  std::shared_ptr<DetectBase> detect) override;
    void recv_http_over_proxy_resp(std::shared_ptr<DetectSocket> sock, std::shared_ptr<DetectBase> detect,
                                   uint32_t result) override;
    void recv_dns(const char* host, uint32_t addr) override;
    void recv_timeout(uint64_t timer) override;

    // Objects alive in the process (each detection frees itself; a count
    // that does not come back to where it was is a leak).
    static uint32_t instances() { return s_instances.load(); }

private:
    // The target whose socket is `sock`, or null.
    ConnectivityTarget* find_target(const DetectSocket* sock);
    bool through_proxy(const ConnectivityTarget& target) const;
    // Opens the target's socket and enters it in the message core's table.
    void open_target(ConnectivityTarget& target);
    void arm(uint64_t timer, uint32_t delay);

    uint32_t m_num = 0;
    std::vector<ConnectivityTarget> m_targets;
    ConnectivityNotify m_notify = nullptr;
    std::shared_ptr<DetectConnectivity> m_self;
    int32_t m_detect_status = CONNECTIVITY_IDLE;
    uint64_t m_control_timer = 0;
    uint64_t m_send_timer = 0;
    uint32_t m_send_seq = 0;
    uint32_t m_dns_timeout = 1000;
    uint32_t m_detect_timeout = 3000;
    uint32_t m_first_resp_timeout = 1000;
    uint32_t m_send_interval = 300;

    static std::atomic<uint32_t> s_instances;
};
