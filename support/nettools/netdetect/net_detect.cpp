#include "inc/net_detect.h"

#include <new>
#include <utility>

#include "commonlib/zeph_commonlib.h"
#include "inc/net_tools_log.h"
#include "os_adapter/morl_os.h"
#include "securec/securec.h"

namespace {

constexpr uint32_t kUnresolved = 0;
constexpr uint32_t kNoName = 0xFFFFFFFF;
constexpr uint32_t kMaxPolls = 10240;

// The plan: where each measurement goes. Index 6 shares server name 5.
struct PlanLine {
    uint16_t port;
    uint32_t protocol;
};
constexpr PlanLine kPlan[NetDetect::kLevels] = {
    {443, ZEPH_TRANS_ICMP}, {443, ZEPH_TRANS_ICMP}, {443, ZEPH_TRANS_TCP},   {443, ZEPH_TRANS_TCP},
    {1124, ZEPH_TRANS_TCP}, {10002, ZEPH_TRANS_UDP}, {443, ZEPH_TRANS_UDP},
};
constexpr uint32_t kLevelOf[NetDetect::kLevels] = {5, 6, 1, 2, 3, 3, 7};

// The collecting threads poll every 10 ms, at most 400 times, and give up
// after 8 s by the clock.
constexpr uint32_t kCollectPolls = 400;
constexpr uint32_t kCollectSleepMs = 10;
constexpr int32_t kCollectLimitMs = 8000;

std::atomic<int> g_live_base{0};
std::atomic<int> g_live_detect{0};

// Elapsed milliseconds between two readings of the module clock, each cut to
// 32 bits, taken as signed so that a wrap of the low half does no harm.
int32_t span_since(uint32_t start) {
    return static_cast<int32_t>(static_cast<uint32_t>(get_runtime_current()) - start);
}

uint32_t now32() { return static_cast<uint32_t>(get_runtime_current()); }

} // namespace

NetDetectResult net_detect_failure_record() {
    NetDetectResult r;
    if (memset_s(&r, sizeof r, 0, sizeof r) != 0) NT_LOGE("secure function return error");
    r.level = 7;
    r.level_num = 7;
    r.qos = 3;
    r.average = 1000;
    r.max = 1000;
    r.min = 1000;
    r.discard = 100;
    return r;
}

uint32_t net_detect_qos(int32_t discard, int32_t average) {
    if (discard == 0 && average <= 100) return 0;
    if (discard <= 25 && average <= 150) return 1;
    if (discard < 100) return 2;
    return 3;
}

// ---- NetDetectBase ----------------------------------------------------------------

NetDetectBase::NetDetectBase() : m_record(net_detect_failure_record()) { g_live_base.fetch_add(1); }

NetDetectBase::~NetDetectBase() {
    NT_LOGI("start");
    m_stop.exchange(1);
    // The probes' threads hold their own references; the pause lets them see
    // their limits before the last owner of the burst goes.
    MORL_SleepMs(2000);
    for (auto& probe : m_probes) probe.reset();
    NT_LOGI("[net_detect_base]leave_[%s:%d]", m_addr_str.c_str(), m_port);
    g_live_base.fetch_sub(1);
}

int NetDetectBase::live_count() { return g_live_base.load(); }

int NetDetectBase::start(uint32_t num, uint32_t addr, uint16_t port, uint32_t protocol,
                         std::shared_ptr<NetDetectBase> self, NetDetectNotify notify) {
    m_addr = addr;
    m_port = port;
    m_protocol = protocol;
    m_record.num = num;
    m_notify = notify;
    m_self = std::move(self);
    char text[32] = {0};
    ipv4_int2str(text, sizeof text, addr);
    m_addr_str = text;

    try {
        const uint32_t total = burst_size(protocol);
        for (uint32_t i = 0; i < total; ++i) {
            if (protocol == ZEPH_TRANS_TCP) {
                if (zeph_is_proxy_configed() == 1) {
                    auto tcp = std::make_shared<PortDetectTCP>(zeph_get_proxy_addr(), zeph_get_proxy_port(), protocol);
                    tcp->set_use_proxy(1);
                    tcp->set_proxy_dst(addr, port);
                    m_probes[i] = std::move(tcp);
                } else {
                    m_probes[i] = std::make_shared<PortDetectTCP>(addr, port, protocol);
                }
            } else if (protocol == ZEPH_TRANS_UDP) {
                m_probes[i] = std::make_shared<PortDetectUDP>(addr, port, protocol);
            } else if (protocol == ZEPH_TRANS_ICMP) {
                // One ICMP probe sends all six echoes; places 1..5 carry the
                // results of echoes 1..5.
                if (i == 0) {
                    m_probes[0] = std::make_shared<PortDetectICMP>(addr, port, protocol);
                } else {
                    m_probes[i] = static_cast<PortDetectICMP&>(*m_probes[0]).get_slot(static_cast<int>(i));
                }
            }
            // Any other transport leaves the place empty: the measurement
            // then ends at its first poll with the failure values.
        }
    } catch (const std::bad_alloc&) {
        NT_LOGE("make_shared failed");
    }

    if (!start_detached(m_self, &NetDetectBase::detect_thread)) {
        m_self.reset();
        return 1;
    }
    return 0;
}

bool NetDetectBase::all_reached() const {
    for (const auto& probe : m_probes) {
        if (probe && probe->get_result() != PROBE_REACHED) return false;
    }
    return true;
}

void NetDetectBase::detect_thread() {
    const uint32_t total = burst_size(m_protocol);
    for (uint32_t i = 0; i < total; ++i) {
        if (!m_probes[i]) continue;
        m_probes[i]->set_time_out(m_time_out);
        m_probes[i]->start_probe(1);
        // The ICMP probe's own sender and receiver serve all six places.
        if (m_protocol == ZEPH_TRANS_ICMP) break;
        MORL_SleepMs(m_protocol == ZEPH_TRANS_TCP ? 50 : 30);
    }

    NT_LOGI("[net_detect_base]enter_thread [%s:%d] time_out=%d(ms) sleep=%d(ms)", m_addr_str.c_str(), m_port,
            m_time_out, m_sleep_ms);
    if (m_sleep_ms == 0) {
        m_self.reset();
        NT_LOGE("[net_detect_base]sleep_ms is 0");
        return;
    }

    uint32_t polls = m_time_out / m_sleep_ms;
    if (polls > kMaxPolls) polls = kMaxPolls;
    const uint32_t start = now32();
    for (uint32_t n = 0; n < polls; ++n) {
        MORL_SleepMs(m_sleep_ms);
        const int32_t span = span_since(start);
        if (span > static_cast<int32_t>(2 * m_time_out)) {
            NT_LOGE("[net_detect_base]timeout span_time=%d", span);
            break;
        }
        if (all_reached() || m_stop.load() != 0) break;
    }

    calc_detect_result();

    if (m_notify) {
        // The single detection's callback runs with the record locked, so a
        // caller sees it whole.
        OsMutexGuard guard(&m_mutex);
        m_record.is_proxy = zeph_is_proxy_configed();
        m_record.ready = 1;
        m_record.reported = 1;
        m_record.level = 1;
        m_record.level_num = 1;
        m_record.qos = net_detect_qos(m_record.discard, m_record.average);
        print_detect_result(m_record);
        m_notify(&m_record);
    }

    NT_LOGI("[net_detect_base]leave_thread");
    m_self.reset();
}

uint32_t NetDetectBase::reduce_burst(const NetBurstSample* samples, uint32_t total, NetDetectResult& rec) {
    int32_t max = 0;
    int32_t min = 65535;
    int64_t sum = 0;
    uint32_t reached = 0;
    for (uint32_t i = 0; i < total; ++i) {
        if (!samples[i].reached) continue;
        const auto delay = static_cast<int32_t>(samples[i].delay);
        sum += delay;
        ++reached;
        if (delay > max) max = delay;
        if (delay < min) min = delay;
    }
    if (reached > 0) {
        rec.average = static_cast<int32_t>(sum / reached);
        rec.max = max;
        rec.min = min;
        rec.discard = static_cast<int32_t>((total - reached) * 100 / total);
    } else {
        const uint32_t num = rec.num;
        rec = net_detect_failure_record();
        rec.num = num;
    }
    rec.ready = 1;
    rec.qos = net_detect_qos(rec.discard, rec.average);
    return reached;
}

void NetDetectBase::calc_detect_result() {
    const uint32_t total = burst_size(m_protocol);
    // A probe still running at this moment counts as lost, whatever it would
    // report later.
    NetBurstSample samples[kMaxProbes] = {};
    for (uint32_t i = 0; i < total; ++i) {
        if (m_probes[i] && m_probes[i]->get_result() == PROBE_REACHED) {
            samples[i] = {true, m_probes[i]->get_delay()};
        }
    }
    uint32_t reached = 0;
    {
        OsMutexGuard guard(&m_mutex);
        reached = reduce_burst(samples, total, m_record);
    }
    if (reached == 0) NT_LOGE("null result [%s:%d]", m_addr_str.c_str(), m_port);
}

NetDetectResult NetDetectBase::get_record() {
    OsMutexGuard guard(&m_mutex);
    return m_record;
}

void NetDetectBase::print_detect_result(const NetDetectResult& rec) {
    NT_LOGI("[net_detect] num=%08x level=%d qos=%d discard=%d average=%d(ms) max=%d(ms) min=%d(ms)", rec.num,
            rec.level, rec.qos, rec.discard, rec.average, rec.max, rec.min);
}

// ---- NetDetectData ------------------------------------------------------------------

NetDetectData* NetDetectData::get() {
    // Never freed: detached detection threads may read it while the process exits.
    static NetDetectData* const data = new (std::nothrow) NetDetectData;
    return data;
}

void NetDetectData::set_multi_srv_name(std::vector<std::string> names) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (size_t i = 0; i < names.size() && i < kNames; ++i) {
        if (names[i].empty()) continue;
        NT_LOGI("srv[%d]=%s->len=%d", static_cast<int>(i), names[i].c_str(), static_cast<int>(names[i].size()));
        m_srv_names[i] = std::move(names[i]);
    }
}

std::string NetDetectData::get_srv_name(size_t index) const {
    if (index >= kNames) return std::string();
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_srv_names[index];
}

// ---- NetDetect ------------------------------------------------------------------------

NetDetect::NetDetect() {
    for (auto& r : m_results) r = net_detect_failure_record();
    g_live_detect.fetch_add(1);
}

NetDetect::~NetDetect() {
    m_stop.exchange(1);
    MORL_SleepMs(2000);
    for (auto& d : m_details) d.reset();
    NT_LOGI("[net_detect]leave_");
    g_live_detect.fetch_sub(1);
}

int NetDetect::live_count() { return g_live_detect.load(); }

uint32_t NetDetect::level_of(uint32_t index) { return index < kLevels ? kLevelOf[index] : 7; }

int NetDetect::start(uint32_t num, NetDetectNotify notify, std::shared_ptr<NetDetect> self, uint64_t context) {
    m_num = num;
    m_notify = notify;
    m_context = context;
    m_self = std::move(self);
    if (!start_detached(m_self, &NetDetect::detect_thread_normal)) {
        m_self.reset();
        return 1;
    }
    if (!start_detached(m_self, &NetDetect::detect_thread_port)) {
        // The normal thread alone still reports levels 5, 6, 1 and 2 and
        // then finds both threads done, so the final release still happens.
        m_port_done.exchange(1);
    }
    return 0;
}

uint32_t NetDetect::get_srv_ipv4(uint32_t index) {
    NetDetectData* data = NetDetectData::get();
    if (index == 6) index = 5;
    if (index >= 6 || !data) return kUnresolved;
    const std::string name = data->get_srv_name(index);
    const uint32_t addr = name.empty() ? kNoName : get_addr_ipv4(name.c_str());
    NT_LOGI("[net_detect] srv[%d]=%s(0x%x)", static_cast<int>(index), name.c_str(), addr);
    return addr;
}

void NetDetect::notify(NetDetectResult& rec) {
    if (m_notify) m_notify(&rec);
}

std::shared_ptr<NetDetectBase> NetDetect::detail(uint32_t index) {
    std::lock_guard<std::mutex> lock(m_detail_mutex);
    return m_details[index];
}

void NetDetect::start_detail(uint32_t index, uint16_t port, uint32_t protocol) {
    const uint32_t addr = get_srv_ipv4(index);
    if (addr != kUnresolved && addr != kNoName) {
        std::shared_ptr<NetDetectBase> base;
        try {
            base = std::make_shared<NetDetectBase>();
        } catch (const std::bad_alloc&) {
            NT_LOGE("make_shared failed");
        }
        {
            std::lock_guard<std::mutex> lock(m_detail_mutex);
            m_details[index] = base;
            m_results[index].num = m_num;
        }
        // Without an object the entry keeps its failure values and is
        // reported as such when the normal thread's wait runs out.
        if (base) base->start(m_num, addr, port, protocol, base, nullptr);
        return;
    }

    {
        std::lock_guard<std::mutex> lock(m_detail_mutex);
        m_details[index].reset();
        m_results[index].ready = 1;
    }
    // A name that does not resolve is a failed measurement; no name at all
    // is a measurement not asked for, reported with every measure 0. The
    // record is made afresh: only the fields below are set.
    NetDetectResult rec;
    if (addr == kUnresolved) {
        rec = net_detect_failure_record();
    } else if (memset_s(&rec, sizeof rec, 0, sizeof rec) != 0) {
        NT_LOGE("secure function return error");
    }
    rec.num = m_num;
    rec.level = level_of(index);
    rec.level_num = kLevels;
    rec.context = m_context;
    NetDetectBase::print_detect_result(rec);
    notify(rec);
}

void NetDetect::detect_thread_normal() {
    NT_LOGI("[net_detect]enter_thread_normal");
    for (uint32_t i = 0; i < kLevels; ++i) start_detail(i, kPlan[i].port, kPlan[i].protocol);
    m_started.exchange(1);
    const uint32_t start = now32();

    bool ran_out = true;
    for (uint32_t n = 0; n < kCollectPolls; ++n) {
        MORL_SleepMs(kCollectSleepMs);
        const int32_t span = span_since(start);
        if (span > kCollectLimitMs) {
            NT_LOGE("[net_detect] timeout span_time=%d", span);
            ran_out = false;
            break;
        }
        if (m_stop.load() != 0) {
            ran_out = false;
            break;
        }
        for (uint32_t i = 0; i < 4; ++i) {
            const std::shared_ptr<NetDetectBase> base = detail(i);
            if (!base || m_results[i].reported == 1) continue;
            NetDetectResult copy = base->get_record();
            if (copy.ready != 1) continue;
            m_results[i].ready = 1;
            m_results[i].reported = 1;
            m_results[i].context = m_context;
            copy.num = m_num;
            copy.level = level_of(i);
            copy.level_num = kLevels;
            copy.context = m_context;
            NetDetectBase::print_detect_result(copy);
            notify(copy);
        }
    }

    // Measurements that never ended are reported as failed, once the wait
    // ran its full course (not after a stop or the clock limit).
    if (ran_out) {
        for (uint32_t i = 0; i < 4; ++i) {
            if (m_results[i].ready != 0) continue;
            NetDetectResult rec = net_detect_failure_record();
            rec.num = m_num;
            rec.level = level_of(i);
            rec.level_num = kLevels;
            rec.context = m_context;
            NetDetectBase::print_detect_result(rec);
            notify(rec);
            NT_LOGI("index(%d)", static_cast<int>(i));
        }
    }

    m_normal_done.exchange(1);
    NT_LOGI("[net_detect]leave_thread_normal: normal(%d), port(%d)", m_normal_done.load(), m_port_done.load());
    self_release();
}

void NetDetect::detect_thread_port() {
    NT_LOGI("[net_detect]enter_thread_port");
    const uint32_t start = now32();

    while (m_started.load() == 0 && m_stop.load() == 0) {
        MORL_SleepMs(kCollectSleepMs);
        const int32_t span = span_since(start);
        if (span > kCollectLimitMs) {
            NT_LOGE("[net_detect] timeout span_time=%d", span);
            break;
        }
    }

    // No early exit on success: the three port measurements are folded into
    // one record after the full round of polls.
    for (uint32_t n = 0; n < kCollectPolls; ++n) {
        if (m_stop.load() != 0) break;
        MORL_SleepMs(kCollectSleepMs);
        const int32_t span = span_since(start);
        if (span > kCollectLimitMs) {
            NT_LOGE("[net_detect] timeout span_time=%d", span);
            break;
        }
        for (uint32_t i = 4; i < kLevels; ++i) {
            std::shared_ptr<NetDetectBase> base;
            {
                std::lock_guard<std::mutex> lock(m_detail_mutex);
                if (m_results[i].reported == 1) continue;
                base = m_details[i];
            }
            if (!base) continue;
            NetDetectResult copy = base->get_record();
            if (copy.ready != 1) continue;
            copy.num = m_num;
            std::lock_guard<std::mutex> lock(m_detail_mutex);
            m_results[i] = copy;
            m_results[i].reported = 1;
        }
    }

    calc_port_result();

    m_port_done.exchange(1);
    NT_LOGI("[net_detect]leave_thread_port: normal(%d), port(%d)", m_normal_done.load(), m_port_done.load());
    self_release();
}

void NetDetect::fold_port_results(const NetDetectResult& tcp, const NetDetectResult& udp1,
                                  const NetDetectResult& udp2, NetDetectResult& out) {
    int32_t average = 0, max = 0, min = 0, discard = 0, count = 0;
    for (const NetDetectResult* r : {&tcp, &udp1, &udp2}) {
        if (r->discard >= 100) continue;
        average += r->average;
        max += r->max;
        min += r->min;
        discard += r->discard;
        ++count;
    }
    // TCP 1124 must answer, and at least one of the UDP ports; the means are
    // taken over the ports that answered.
    if (tcp.discard >= 100 || (udp1.discard >= 100 && udp2.discard >= 100) || count == 0) {
        out.average = 1000;
        out.max = 1000;
        out.min = 1000;
        out.discard = 100;
    } else {
        out.average = average / count;
        out.max = max / count;
        out.min = min / count;
        out.discard = discard / count;
    }
    out.qos = net_detect_qos(out.discard, out.average);
}

void NetDetect::calc_port_result() {
    NetDetectResult rec = net_detect_failure_record();
    {
        std::lock_guard<std::mutex> lock(m_detail_mutex);
        fold_port_results(m_results[4], m_results[5], m_results[6], rec);
    }
    rec.is_proxy = zeph_is_proxy_configed();
    rec.context = m_context;
    rec.num = m_num;
    rec.ready = 1;
    rec.level = 3;
    rec.level_num = kLevels;
    NetDetectBase::print_detect_result(rec);
    notify(rec);
}

void NetDetect::self_release() {
    if (m_normal_done.load() == 0 || m_port_done.load() == 0) return;
    if (m_released.exchange(1) != 0) return;
    MORL_SleepMs(4000);
    // This thread still holds its own reference: the object goes when the
    // thread has returned, never under this call.
    m_self.reset();
}
