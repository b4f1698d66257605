// NetToolsTimerSave: start_timer and stop_timer run on the detection's
// thread (the message thread, or the caller's at the start); timeout runs
// on the timer thread and only posts; notify_timeout_res runs on the
// message thread and calls the detection with no lock held.
#include "inc/net_tools_msg.h"

#include "bwdetect/detect_base.h"
#include "net_tools_msg/net_tools_msg_log.h"
#include "os_adapter/morl_os.h"

namespace {
uint32_t low32(uint64_t v) { return static_cast<uint32_t>(v); }
} // namespace

uint32_t NetToolsTimerSave::start_timer(uint64_t timer, uint32_t delay, const std::weak_ptr<DetectBase>& detect) {
    uint64_t generation = 0;
    {
        // Registered before it is armed, so that even a delay of 0 finds it.
        std::lock_guard<std::mutex> guard(m_mutex);
        Entry& e = m_detect_by_timer[timer];
        if (e.generation != 0) m_timer_by_generation.erase(e.generation);
        generation = m_next_generation++;
        e.detect = detect;
        e.generation = generation;
        m_timer_by_generation[generation] = timer;
    }
    const int ret = MORL_StartRelTimer(timer, delay, generation);
    if (ret != 0) {
        NT_LOGE("MORL_StartRelTimer Error=0x%x", static_cast<uint32_t>(ret));
        std::lock_guard<std::mutex> guard(m_mutex);
        m_timer_by_generation.erase(generation);
        auto it = m_detect_by_timer.find(timer);
        if (it != m_detect_by_timer.end() && it->second.generation == generation) it->second.generation = 0;
        return static_cast<uint32_t>(ret);
    }
    NT_LOGI("start timer t_id(0x%x)delay(%u)", low32(timer), delay);
    return 0;
}

void NetToolsTimerSave::stop_timer(uint64_t timer) {
    MORL_StopRelTimer_Safe(timer);
    bool erased = false;
    size_t remain = 0;
    std::weak_ptr<DetectBase> dropped;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        auto it = m_detect_by_timer.find(timer);
        if (it != m_detect_by_timer.end()) {
            if (it->second.generation != 0) m_timer_by_generation.erase(it->second.generation);
            dropped = std::move(it->second.detect);
            m_detect_by_timer.erase(it);
            erased = true;
            remain = m_detect_by_timer.size();
        }
    }
    if (erased) {
        NT_LOGI("t_id(0x%x)remain(%u)", low32(timer), static_cast<uint32_t>(remain));
    } else {
        NT_LOGD("No detect found for");
    }
}

void NetToolsTimerSave::timeout(uint64_t generation) {
    if (generation == 0) {
        NT_LOGE("arg is null");
        return;
    }
    NetToolsTimerSave& self = g_timer_save;
    NetToolsMsg::Event event;
    event.kind = NetToolsMsg::Event::Timer;
    event.generation = generation;
    bool found = false;
    {
        std::lock_guard<std::mutex> guard(self.m_mutex);
        auto it = self.m_timer_by_generation.find(generation);
        if (it != self.m_timer_by_generation.end()) {
            event.timer = it->second;
            found = true;
        }
    }
    if (!found) {
        NT_LOG_AS(NT_LOG_WARN, "NetToolsTimerSave::notify_timeout_res", "No detect found for");
    } else if (!g_net_tools_msg.post_event(std::move(event))) {
        NT_LOGW("expiry of gen(%llu) not delivered", static_cast<unsigned long long>(generation));
    }
    NT_LOGD("%s", "");
}

void NetToolsTimerSave::notify_timeout_res(uint64_t timer, uint64_t generation) {
    std::shared_ptr<DetectBase> detect;
    bool current = false;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        auto it = m_detect_by_timer.find(timer);
        if (it != m_detect_by_timer.end() && it->second.generation == generation) {
            // Each arming fires once.
            m_timer_by_generation.erase(generation);
            it->second.generation = 0;
            detect = it->second.detect.lock();
            current = true;
        }
    }
    if (!current) {
        NT_LOGD("t_id(0x%x) stale gen(%llu) dropped", low32(timer), static_cast<unsigned long long>(generation));
        return;
    }
    if (!detect) {
        NT_LOGW("No detect found for");
        return;
    }
    detect->recv_timeout(timer);
}

size_t NetToolsTimerSave::size() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_detect_by_timer.size();
}
