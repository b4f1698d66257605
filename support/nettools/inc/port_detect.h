// Port detection: one probe per destination of a PortDetectInfo, one
// detection thread that watches them, one callback to the caller.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "inc/port_probe.h"
#include "zeph_nettools/net_tools.h"

// One port detection over up to 7 groups of up to 4 destinations.
class PortDetect {
public:
    PortDetect(const PortDetectInfo* info, PortDetectNotify notify);
    ~PortDetect();
    PortDetect(const PortDetect&) = delete;
    PortDetect& operator=(const PortDetect&) = delete;

    // Takes over `self`, starts the probes and the detection thread.
    // 0, or -1 when a thread could not be started.
    int start(uint32_t num, std::shared_ptr<PortDetect> self);

    void detect_thread();
    uint32_t detect_single_port();
    void detect_multi_port();
    uint32_t waitfor_first_reach();
    void detect_after_first_reach();
    void calc_single_port(uint32_t single, PortDetectResult& result);
    void calc_3_port(PortDetectResult& result);
    void calc_any_port(AnyPortResult& result);
    void uninit();
    static void delayFree(std::shared_ptr<PortDetect>* self);

    // PortDetect objects alive in the process (for lifetime checks).
    static int live_count();

private:
    uint32_t m_time_out = 3000;
    uint32_t m_sleep_ms = 10;
    uint32_t m_after_first_count = 100;
    PortDetectInfo m_info;
    std::shared_ptr<PortDetectBase> m_probes[ZEPH_PORT_DETECT_MAX_GROUPS][ZEPH_PORT_DETECT_MAX_ENTRIES];
    PortDetectNotify m_notify = nullptr;
    std::atomic<uint32_t> m_finished{0};
    std::shared_ptr<PortDetect> m_self;
    // Set by uninit when no timer could be armed: detect_thread then lets go
    // of m_self itself when it leaves.
    std::atomic<uint32_t> m_release_on_leave{0};

    friend struct PortDetectTestAccess;
};
