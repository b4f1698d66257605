// Net detection: rates the way to one destination (NetDetectBase) or to the
// seven destinations of the plan (NetDetect) by delay, loss and a quality
// class `qos`, 0 best to 3 worst.
//
// NetDetectBase measures one destination with a burst of probes in net mode
// (4 TCP connects, 6 UDP STUN requests or 6 ICMP echoes) and reduces it to a
// NetDetectResult. NetDetect runs seven of them against the server names kept
// by NetDetectData and reports them one by one as they end:
//
//   index  server  port   transport  level reported
//     0      0      443    ICMP        5
//     1      1      443    ICMP        6
//     2      2      443    TCP         1
//     3      3      443    TCP         2
//     4      4      1124   TCP         3 (the three folded into one record)
//     5      5      10002  UDP         3
//     6      5      443    UDP         3
//
// Both objects live by a self reference (`m_self`) and by the detached
// threads that run them; each thread holds a shared reference of its own, so
// the object is destroyed on whichever thread lets go last, never under a
// thread that still runs. Their destructors sleep so that the probes' threads
// can leave first; the end of a plan takes 4 s, then 2 s, then 2 s per
// measurement, all after the last callback.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "inc/port_detect.h"
#include "net_tools_util/net_tools_util.h"
#include "zeph_nettools/net_tools.h"

// The record a measurement starts with and reports when nothing answered:
// num 0, level 7, level_num 7, qos 3, delays 1000, discard 100, the rest 0.
NetDetectResult net_detect_failure_record();

// Quality class of a measurement, first match winning:
//   discard 0 and average <= 100 -> 0; discard <= 25 and average <= 150 -> 1;
//   discard < 100 -> 2; otherwise 3.
uint32_t net_detect_qos(int32_t discard, int32_t average);

// One place of a burst as the reduction sees it.
struct NetBurstSample {
    bool reached;   // the probe reports PROBE_REACHED
    uint32_t delay; // its delay, milliseconds
};

class NetDetectBase {
public:
    static constexpr uint32_t kMaxProbes = 6;

    NetDetectBase();
    ~NetDetectBase();
    NetDetectBase(const NetDetectBase&) = delete;
    NetDetectBase& operator=(const NetDetectBase&) = delete;

    // Builds the burst and starts detect_thread, which keeps `self` in m_self
    // until it ends. `notify` is the callback of a single detection (called
    // once, under m_mutex); null inside NetDetect, which collects by
    // get_record(). 0, or 1 when the thread could not be started.
    int start(uint32_t num, uint32_t addr, uint16_t port, uint32_t protocol, std::shared_ptr<NetDetectBase> self,
              NetDetectNotify notify);

    void detect_thread();
    void calc_detect_result();
    // Copy of the record, taken under m_mutex.
    NetDetectResult get_record();

    // Places of the burst: 4 for TCP, 6 otherwise.
    static uint32_t burst_size(uint32_t protocol) { return protocol == ZEPH_TRANS_TCP ? 4 : kMaxProbes; }
    // Folds `total` places into rec: average, max, min, discard and qos when
    // at least one place was reached, else the failure values with rec.num
    // kept. Sets rec.ready. Returns the number of places reached.
    static uint32_t reduce_burst(const NetBurstSample* samples, uint32_t total, NetDetectResult& rec);
    static void print_detect_result(const NetDetectResult& rec);

    // NetDetectBase objects alive in the process (for lifetime checks).
    static int live_count();

private:
    bool all_reached() const;

    std::atomic<uint32_t> m_stop{0};
    uint32_t m_sleep_ms = 10;
    uint32_t m_time_out = 2500;
    uint32_t m_protocol = 0;
    uint32_t m_addr = 0;
    std::string m_addr_str;
    uint16_t m_port = 0;
    NetDetectNotify m_notify = nullptr;
    NetDetectResult m_record;
    OsRecursiveMutex m_mutex;
    std::shared_ptr<PortDetectBase> m_probes[kMaxProbes];
    std::shared_ptr<NetDetectBase> m_self;
};

class NetDetect {
public:
    static constexpr uint32_t kLevels = 7;

    NetDetect();
    ~NetDetect();
    NetDetect(const NetDetect&) = delete;
    NetDetect& operator=(const NetDetect&) = delete;

    // Starts detect_thread_normal and detect_thread_port, which keep `self`
    // in m_self until both have ended. 0, or 1 when no thread could be started.
    int start(uint32_t num, NetDetectNotify notify, std::shared_ptr<NetDetect> self, uint64_t context);

    // Address of the plan's server for `index` (6 shares the name of 5):
    // 0xFFFFFFFF when no name is set, 0 when it does not resolve.
    static uint32_t get_srv_ipv4(uint32_t index);
    // Level reported for the measurement at `index`: 5, 6, 1, 2, 3, 3, 7.
    static uint32_t level_of(uint32_t index);
    // The level 3 fold of TCP 1124 and UDP 10002 / 443: failed when TCP
    // failed or both UDP ports did, else the means over the ports that
    // answered. Fills average, max, min, discard and qos of out.
    static void fold_port_results(const NetDetectResult& tcp, const NetDetectResult& udp1,
                                  const NetDetectResult& udp2, NetDetectResult& out);

    void detect_thread_normal();
    void detect_thread_port();

    // NetDetect objects alive in the process (for lifetime checks).
    static int live_count();

private:
    void start_detail(uint32_t index, uint16_t port, uint32_t protocol);
    void notify(NetDetectResult& rec);
    std::shared_ptr<NetDetectBase> detail(uint32_t index);
    void calc_port_result();
    void self_release();

    NetDetectResult m_results[kLevels];
    std::shared_ptr<NetDetectBase> m_details[kLevels];
    uint32_t m_num = 0;
    std::atomic<uint32_t> m_stop{0};
    std::atomic<uint32_t> m_port_done{0};
    std::atomic<uint32_t> m_normal_done{0};
    std::atomic<uint32_t> m_started{0};
    NetDetectNotify m_notify = nullptr;
    uint64_t m_context = 0;
    std::shared_ptr<NetDetect> m_self;

    // Set by the thread that takes on the final release, so that it happens once.
    std::atomic<uint32_t> m_released{0};
    // The port thread normally reads m_details[4..6] and m_results[4..6] only
    // after m_started; this lock keeps it safe when it stops waiting for that
    // (a resolver slower than 8 s) and runs beside start_detail.
    std::mutex m_detail_mutex;
};

// The plan's six server names; one process-wide object, never freed.
class NetDetectData {
public:
    static constexpr size_t kNames = 6;

    // The object, made at first use; null only when it could not be had.
    static NetDetectData* get();

    // Takes at most the first 6 names; an empty one leaves its place as it was.
    void set_multi_srv_name(std::vector<std::string> names);
    // Name at `index` (0..5), empty when unset or out of range.
    std::string get_srv_name(size_t index) const;

private:
    NetDetectData() = default;

    mutable std::mutex m_mutex;
    std::string m_srv_names[kNames];
};
