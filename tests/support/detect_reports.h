// Detection callback reports with arrival time and thread, and the check that a
// finished detection gave everything back. add() runs on the message thread, the rest on the test's.
#pragma once

#include <dirent.h>

#include <functional>
#include <mutex>
#include <vector>

#include "inc/net_tools_msg.h"
#include "waits.h"

namespace zeph_test {

template <class T>
class DetectReports {
public:
    using Pick = std::function<bool(const T&)>;
    struct Report {
        T value;
        uint64_t at_ms;
        bool on_message_thread;
    };
    void add(const T& v) {
        std::lock_guard<std::mutex> g(m_mu);
        m_all.push_back(Report{v, now_ms(), NetToolsMsg::on_message_thread()});
    }
    void clear() {
        std::lock_guard<std::mutex> g(m_mu);
        m_all.clear();
    }
    // The reports `pick` accepts (all without one), in arrival order.
    std::vector<Report> all(const Pick& pick = nullptr) const {
        std::lock_guard<std::mutex> g(m_mu);
        std::vector<Report> out;
        for (const Report& r : m_all)
            if (!pick || pick(r.value)) out.push_back(r);
        return out;
    }
    size_t count(const Pick& pick = nullptr) const { return all(pick).size(); }
    // Waits up to timeout_ms for at least n reports that `pick` accepts.
    bool wait_for(size_t n, int timeout_ms, const Pick& pick = nullptr) const {
        return wait_until([&] { return count(pick) >= n; }, timeout_ms);
    }

private:
    mutable std::mutex m_mu;
    std::vector<Report> m_all;
};

// Descriptors this process holds open.
inline int open_fds() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
    return n;
}

// The runtime holds nothing of a finished detection: no socket entry, kept
// pointer, timer or name request.
inline bool runtime_released(int timeout_ms = 3000) {
    return wait_until(
        [] {
            return g_net_tools_msg.table_size() == 0 && DetectPtrKeeper::size() == 0 && g_timer_save.size() == 0 &&
                   g_asyn_dns.size() == 0;
        },
        timeout_ms);
}

} // namespace zeph_test
