// Port detection: one probe per destination of a PortDetectInfo, a wait for
// the first answer and a short while more, one callback, then a delayed free.
//
// The object lives by its own reference m_self (and by the reference that
// its detection thread holds while it runs). After the callback, uninit
// stops the probes and arms a one-shot timer that drops m_self 20 s later,
// long after every probe thread has seen its stop flag.
// Runs on the caller's thread (start), the detection thread (the watching,
// the callback, uninit) and the timer thread (the delayed free).
#include "inc/port_detect.h"

#include "commonlib/zeph_commonlib.h"
#include "inc/net_tools_log.h"
#include "net_tools_util/net_tools_util.h"
#include "securec/securec.h"

namespace {

std::atomic<int> g_live_detects{0};

constexpr uint32_t kDelayFreeMs = 20000;

// Ports that the three-port code reads from a group's entries 0, 1 and 2.
constexpr uint16_t kMediaUdpPort = 10002;
constexpr uint16_t kMediaTcpPort = 443;
constexpr uint16_t kSharePort = 1124;

const char* mode_name(uint32_t type) {
    switch (type) {
    case ZEPH_PORT_DETECT_ONE: return "one port";
    case ZEPH_PORT_DETECT_THREE: return "three port";
    case ZEPH_PORT_DETECT_ANY: return "any port";
    default: return "error port";
    }
}

// Words of the three-port values 0, 1 and 2.
const char* const kPortWords[3] = {"brel", "kest", "line"};

// Counts of the record, held to the room that the format has.
uint32_t group_count(const PortDetectInfo& info) {
    if (info.group_num < 0) return 0;
    return info.group_num > ZEPH_PORT_DETECT_MAX_GROUPS ? ZEPH_PORT_DETECT_MAX_GROUPS
                                                        : static_cast<uint32_t>(info.group_num);
}

uint32_t entry_count(const PortDetectGroup& group) {
    if (group.detect_num < 0) return 0;
    return group.detect_num > ZEPH_PORT_DETECT_MAX_ENTRIES ? ZEPH_PORT_DETECT_MAX_ENTRIES
                                                           : static_cast<uint32_t>(group.detect_num);
}

void delay_free_timer(uint64_t argument) {
    PortDetect::delayFree(reinterpret_cast<std::shared_ptr<PortDetect>*>(static_cast<uintptr_t>(argument)));
}

} // namespace

PortDetect::PortDetect(const PortDetectInfo* info, PortDetectNotify notify) {
    g_live_detects.fetch_add(1);
    if (memset_s(&m_info, sizeof m_info, 0, sizeof m_info) != 0) NT_LOGE("secure function return error");
    // Without a record or a callback there is nothing to detect and nobody
    // to tell: the object stays empty and its thread calls nobody.
    if (!info || !notify) return;
    if (memcpy_s(&m_info, sizeof m_info, info, sizeof *info) != 0) NT_LOGE("secure function return error");
    m_notify = notify;

    // Records with more than 7 groups or 4 entries can't be expressed by
    // the format; larger (or negative) counts are held to those limits here,
    // and the results report the counts that were served.
    m_info.group_num = static_cast<int32_t>(group_count(m_info));
    for (PortDetectGroup& group : m_info.groups) group.detect_num = static_cast<int32_t>(entry_count(group));
    const uint32_t groups = group_count(m_info);
    for (uint32_t i = 0; i < groups; ++i) {
        const PortDetectGroup& group = m_info.groups[i];
        const uint32_t entries = entry_count(group);
        for (uint32_t j = 0; j < entries; ++j) {
            const PortDetectEntry& entry = group.entries[j];
            switch (entry.protocol) {
            case ZEPH_TRANS_TCP:
                if (zeph_is_proxy_configed() == 1) {
                    auto tcp =
                        std::make_shared<PortDetectTCP>(zeph_get_proxy_addr(), zeph_get_proxy_port(), entry.protocol);
                    tcp->set_use_proxy(1);
                    tcp->set_proxy_dst(entry.addr, entry.port);
                    m_probes[i][j] = std::move(tcp);
                } else {
                    m_probes[i][j] = std::make_shared<PortDetectTCP>(entry.addr, entry.port, entry.protocol);
                }
                break;
            case ZEPH_TRANS_UDP:
                m_probes[i][j] = std::make_shared<PortDetectUDP>(entry.addr, entry.port, entry.protocol);
                break;
            case ZEPH_TRANS_ICMP:
                m_probes[i][j] = std::make_shared<PortDetectICMP>(entry.addr, entry.port, entry.protocol);
                break;
            default: break; // no probe: the slot stays empty
            }
        }
    }
}

PortDetect::~PortDetect() {
    NT_LOGI("~PortDetect");
    g_live_detects.fetch_sub(1);
}

int PortDetect::live_count() { return g_live_detects.load(); }

int PortDetect::start(uint32_t num, std::shared_ptr<PortDetect> self) {
    m_info.num = num;
    m_self = std::move(self);

    for (auto& group : m_probes) {
        for (auto& probe : group) {
            if (!probe) continue;
            probe->set_time_out(m_time_out);
            probe->start_probe(0);
        }
    }

    if (!start_detached(m_self, &PortDetect::detect_thread)) {
        // Nothing will ever end this object: it goes with the caller's
        // reference. Started probes keep running on their own references
        // until their limits.
        std::shared_ptr<PortDetect> drop = std::move(m_self);
        return -1;
    }
    return 0;
}

void PortDetect::detect_thread() {
    if (m_notify) {
        switch (m_info.type) {
        case ZEPH_PORT_DETECT_ONE: {
            PortDetectResult result{};
            calc_single_port(detect_single_port(), result);
            m_notify(&result);
            break;
        }
        case ZEPH_PORT_DETECT_THREE: {
            PortDetectResult result{};
            detect_multi_port();
            calc_3_port(result);
            m_notify(&result);
            break;
        }
        case ZEPH_PORT_DETECT_ANY: {
            AnyPortResult result;
            if (memset_s(&result, sizeof result, 0, sizeof result) != 0) NT_LOGE("secure function return error");
            detect_multi_port();
            if (m_info.notify == 0) {
                calc_any_port(result);
                m_notify(&result);
            } else {
                m_notify(&m_info);
            }
            break;
        }
        default: break;
        }
    }
    uninit();
    NT_LOGI("[port_detect]leave_thread");
    // No timer could be armed: the detection ends with this thread.
    if (m_release_on_leave.load()) std::shared_ptr<PortDetect> drop = std::move(m_self);
}

uint32_t PortDetect::detect_single_port() {
    if (m_sleep_ms == 0) {
        NT_LOGE("[port_detect]sleep_ms is 0");
        return 3;
    }
    const uint32_t count = m_time_out / m_sleep_ms;
    const std::shared_ptr<PortDetectBase>& probe = m_probes[0][0];
    for (uint32_t i = 1; i < count; ++i) {
        if (probe && probe->get_result() == PROBE_REACHED) {
            NT_LOGI("[port_detect]wait_first waitcount=%d", i);
            return 2;
        }
        MORL_SleepMs(m_sleep_ms);
    }
    NT_LOGI("[port_detect]wait_first count:%u", count > 1 ? count : 1);
    return 3;
}

uint32_t PortDetect::waitfor_first_reach() {
    const uint32_t count = m_sleep_ms ? m_time_out / m_sleep_ms : 0;
    for (uint32_t i = 1; i < count; ++i) {
        for (auto& group : m_probes) {
            for (auto& probe : group) {
                if (probe && probe->get_result() == PROBE_REACHED) {
                    NT_LOGI("[port_detect]wait_first waitcount=%d", i);
                    return 1;
                }
            }
        }
        MORL_SleepMs(m_sleep_ms);
    }
    NT_LOGI("[port_detect]wait_first count:%u", count > 1 ? count : 1);
    return 3;
}

void PortDetect::detect_after_first_reach() {
    if (m_after_first_count < 2) {
        NT_LOGI("[port_detect]after_first count:%u", 1u);
        return;
    }
    uint32_t i = 1;
    for (; i < m_after_first_count; ++i) {
        bool all_reached = true;
        for (auto& group : m_probes) {
            for (auto& probe : group) {
                if (probe && probe->get_result() != PROBE_REACHED) all_reached = false;
            }
        }
        if (all_reached) break;
        MORL_SleepMs(m_sleep_ms);
    }
    NT_LOGI("[port_detect]after_first count:%u", i);
}

void PortDetect::detect_multi_port() {
    if (m_sleep_ms == 0) {
        NT_LOGE("[multi_port_detect]sleep_ms is 0");
        return;
    }
    // The first answer cuts the wait short: the others then get
    // m_after_first_count polls from that moment on.
    if (waitfor_first_reach() == 1) detect_after_first_reach();

    for (uint32_t i = 0; i < ZEPH_PORT_DETECT_MAX_GROUPS; ++i) {
        for (uint32_t j = 0; j < ZEPH_PORT_DETECT_MAX_ENTRIES; ++j) {
            const auto& probe = m_probes[i][j];
            if (probe) m_info.groups[i].entries[j].reached = probe->get_result() == PROBE_REACHED ? 1 : 0;
        }
    }
}

void PortDetect::calc_single_port(uint32_t single, PortDetectResult& result) {
    result.num = m_info.num;
    result.type = m_info.type;
    result.ret = single == 2 ? 1 : 0;
    NT_LOGI("[port_detect] return num=%08x port=%d ret=%s", m_info.num, m_info.groups[0].entries[0].port,
            result.ret ? "open" : "close");
}

void PortDetect::calc_3_port(PortDetectResult& result) {
    result.num = m_info.num;
    result.type = m_info.type;

    // The entries' places are fixed (10002, 443, 1124) and read whatever
    // detect_num says; the ports are checked so that a group laid out
    // otherwise can't claim a value.
    uint32_t best_index = 0;
    uint32_t best = 0;
    const uint32_t groups = group_count(m_info);
    for (uint32_t i = 0; i < groups; ++i) {
        PortDetectGroup& group = m_info.groups[i];
        const PortDetectEntry* e = group.entries;
        uint32_t media = 0;
        if (e[0].port == kMediaUdpPort && e[0].reached == 1)
            media = 2;
        else if (e[1].port == kMediaTcpPort && e[1].reached == 1)
            media = 1;
        const uint32_t share = (e[2].port == kSharePort && e[2].reached == 1) ? 2 : 0;
        group.ret = media * 256 + share;
        // Only a strictly better group replaces the best: the first of
        // equals stays.
        if (group.ret > best) {
            best = group.ret;
            best_index = i;
        }
    }
    result.ret = (best_index << 24) + best;
    NT_LOGI("[port_detect] %s return num=%08x ret=%08x media[%s] share[%s]", mode_name(m_info.type), result.num,
            result.ret, kPortWords[((best >> 8) & 0xFF) % 3], kPortWords[(best & 0xFF) % 3]);
}

void PortDetect::calc_any_port(AnyPortResult& result) {
    result.num = m_info.num;
    result.type = m_info.type;
    result.group_num = static_cast<uint32_t>(m_info.group_num);

    char text[1024] = {0};
    int len = 0;
    const uint32_t groups = group_count(m_info);
    for (uint32_t i = 0; i < groups; ++i) {
        const PortDetectGroup& group = m_info.groups[i];
        const uint32_t entries = entry_count(group);
        result.groups[i].detect_num = static_cast<uint32_t>(group.detect_num);

        int n = sprintf_s(text + len, sizeof text - len, "group[%d]=[", static_cast<int>(i));
        if (n > 0) len += n;
        for (uint32_t j = 0; j < entries; ++j) {
            const PortDetectEntry& entry = group.entries[j];
            result.groups[i].open[j] = entry.reached;
            n = sprintf_s(text + len, sizeof text - len, "%u:%s,", static_cast<unsigned>(entry.port),
                          entry.reached ? "open" : "close");
            if (n > 0) len += n;
        }
        // The group's last separator becomes its closing bracket.
        if (len < 1 || len > static_cast<int>(sizeof text)) {
            NT_LOGE("secure function return error len=%d", len);
        } else {
            text[len - 1] = ']';
        }
    }
    NT_LOGI("[port_detect] %s return num=%08x ret=%s", mode_name(m_info.type), m_info.num, text);
}

void PortDetect::uninit() {
    for (auto& group : m_probes) {
        for (auto& probe : group) {
            if (probe) probe->finish();
        }
    }
    m_finished.exchange(1);

    // A mode 2 timer fires once and frees itself.
    const MORL_TimerHandle timer = MORL_CreateRelTimerM(&delay_free_timer, MORL_TIMER_FIRE_ONCE, "PortDetect::uninit");
    if (timer) {
        NT_LOGI("[port_detect] 10s auto free self");
        if (MORL_StartRelTimer(timer, kDelayFreeMs, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&m_self))) == 0)
            return;
        // An unarmed timer never fires and so never frees itself.
        MORL_FreeRelTimer(timer);
    }
    NT_LOGI("[port_detect]leave_thread");
    for (auto& group : m_probes) {
        for (auto& probe : group) probe.reset();
    }
    m_release_on_leave.exchange(1);
}

void PortDetect::delayFree(std::shared_ptr<PortDetect>* self) {
    if (!self || !*self) return;
    PortDetect& detect = **self;
    NT_LOGI("[port_detect] auto free self");
    for (auto& group : detect.m_probes) {
        for (auto& probe : group) probe.reset();
    }
    // Moved out first: the object (and m_self within it) may be destroyed
    // when this reference goes.
    std::shared_ptr<PortDetect> drop = std::move(*self);
}
