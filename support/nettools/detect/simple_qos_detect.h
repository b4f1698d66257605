// DetectSimpleQos: delay and loss to six servers, five probes each, as an
// event-driven detection on the detection runtime; NetDetectDataNew: the
// process-wide list of those six servers' names.
//
// Threads. `start` runs on the caller's thread and only makes the timers and
// the target table; it then arms the control timer at once, so that the
// whole detection (name answers, the phases, every probe, every answer and
// every report) runs on the message thread of the runtime, one event at a
// time. The table is therefore touched by one thread only and needs no lock.
// NetDetectDataNew is read and written from any thread under its mutex.
//
// The target table, one target per server name, in this order:
//
//   index  transport  port                     through the proxy
//     0      ICMP     10000 (unused by ICMP)   -
//     1      TCP      the proxy's own port     no: it reaches the proxy itself
//     2, 3   TCP      443                      yes, when one is configured
//     4, 5   UDP      10002 (STUN requests)    -
//
// Target 1 has port 0 when no proxy is configured: it gets no socket and is
// reported with nothing answered. A target with a proxy address is left to
// the proxy service, which this detection does not ask, so it too reports
// nothing answered. Since the detection ends early only when every probe of
// every target has its answer, a table with such a target always runs to
// the end of the probing phase.
//
// Phases: up to 1000 ms of name resolution (only while a name is not an
// address), then up to 3000 ms of probing, then one report per target.
// Each target sends its first probe at the start of the probing phase and
// the next one as soon as an answer comes; a lost answer is covered by a
// resend 300 ms after the last probe, but only once the target answered a
// first time: a target that never answers stays at one probe.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bwdetect/detect_base.h"
#include "os_adapter/morl_os.h"
#include "zeph_nettools/net_tools.h"

class DetectSocket;

// One probe of a target, in sending order.
struct SimpleQosProbe {
    uint32_t send_time = 0; // the detection's clock at sending, 0 before
    uint32_t recv_time = 0; // the detection's clock at the answer, 0 before
    uint32_t seq = 0;       // 1..5, 0 before
    uint32_t reserved = 0;
    uint8_t is_sent = 0;
};

// One server of the table.
struct SimpleQosTarget {
    static constexpr int32_t kProbes = 5;

    uint16_t port = 0;
    uint8_t protocol = 0;    // 1 TCP, 2 UDP, 11 ICMP
    uint8_t no_proxy = 0;    // 1: never through the proxy
    uint8_t detect_type = 0; // probe form of a UDP socket; 3 and above count as 0
    uint8_t reported = 0;    // 1 once its record went to the callback
    int8_t sent = 0;         // probes sent so far, 0..5
    std::array<SimpleQosProbe, kProbes> probes{};
    std::shared_ptr<DetectSocket> socket; // empty until the probing phase
    uint32_t addr = 0;                    // network byte order, 0 while unknown
    std::string domain;                   // name or dotted address
};

// The six server names, made at first use and never freed.
class NetDetectDataNew {
public:
    static constexpr size_t kNames = 6;
    // Longest name taken (a DNS name has at most 253 characters).
    static constexpr size_t kNameMax = 253;

    struct Entry {
        std::string name;
        uint32_t addr = 0; // network byte order; 0 when the name is not a dotted address
    };

    // The object; null only when it could not be made.
    static NetDetectDataNew* get();

    // Takes at most the first 6 names. An empty name, or the same dotted
    // address again, leaves its place as it was. 0; 1 (and nothing changed)
    // when a name is longer than kNameMax.
    int32_t set_multi_srv_name(std::vector<std::string> names);

    std::vector<Entry> get_list() const;
    // Index 6 reads entry 5; beyond that an empty name and 0.
    std::string get_srv_name(size_t index) const;
    uint32_t get_srv_addr(size_t index) const;
    // Appends every name that is set and not a dotted address.
    void get_unresolved(std::vector<std::string>& list) const;

private:
    NetDetectDataNew() = default;
    static size_t clamp_index(size_t index) { return index == kNames ? kNames - 1 : index; }

    mutable std::mutex m_mutex;
    std::array<Entry, kNames> m_entries;
};

class DetectSimpleQos : public DetectBase {
public:
    static constexpr size_t kTargets = NetDetectDataNew::kNames;
    // Detection states (m_detect_status).
    enum : uint32_t { kCreated = 0, kResolving = 1, kDetecting = 2, kFinished = 3 };

    DetectSimpleQos();
    ~DetectSimpleQos() override;

    // Makes the timers and the table and sets the detection going; `self`
    // keeps it alive until its last report. 0, or 1 when a timer could not
    // be made or armed (nothing has gone out, the callback never comes).
    int32_t start(uint32_t num, NetDetectNotify notify, std::shared_ptr<DetectSimpleQos> self, uint64_t context);

    uint32_t get_recv_msg_id() override;
    void recv_pkt(const uint8_t* data, uint32_t len, std::shared_ptr<DetectSocket> sock,
                  std::shared_ptr<DetectBase> detect) override;
    void recv_dns(const char* host, uint32_t addr) override;
    void recv_timeout(uint64_t timer) override;

    // The target table of the transport and port plan (above) for the six
    // entries; names and addresses from `entries`.
    static std::vector<SimpleQosTarget> make_targets(const std::vector<NetDetectDataNew::Entry>& entries);

    uint32_t m_dns_timeout = 1000;    // length of the name phase, ms
    uint32_t m_detect_timeout = 3000; // length of the probing phase, ms, and the largest delay that counts
    uint32_t m_send_interval = 300;   // resend after a lost answer, ms

private:
    void build_detect_addr();
    void check_dns_resolved();
    void set_detect_status(uint32_t status);
    void start_dns_resolve();
    void start_detect();
    void send_buf(size_t index);
    bool recv_save_result(SimpleQosTarget& target, uint32_t seq, uint32_t now, bool carries_seq);
    bool all_answered() const;
    void print_detect_result(size_t index);
    void finish_detect();
    bool arm(uint64_t timer, uint32_t delay);
    uint32_t now32();

    uint32_t m_num = 0;
    std::vector<SimpleQosTarget> m_targets;
    NetDetectNotify m_notify = nullptr;
    uint64_t m_context = 0;
    std::shared_ptr<DetectSimpleQos> m_self;
    uint32_t m_detect_status = kCreated;
    MORL_TimerHandle m_control_timer = 0;
    // One resend timer per target, by index into m_targets.
    std::array<MORL_TimerHandle, kTargets> m_send_timers{};
};
