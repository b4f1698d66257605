// Relative timers, all served by one thread named "morl_timer".
//
// The service is a process-wide object that is never destroyed: detached
// library threads may still start or stop timers while the process exits.
// Callbacks run on the timer thread with no lock of the service held, so a
// callback may create, start, stop and free timers, its own included.
#include "os_adapter/morl_os.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>

namespace {

// The condition variable waits on the standard steady clock, which is the
// same monotonic kernel clock that MORL_GetSystemTime reads.
using Clock = std::chrono::steady_clock;
// Deadline, then arming order: timers due at the same moment fire in the
// order in which they were armed.
using QueueKey = std::pair<Clock::time_point, uint64_t>;

constexpr uint32_t kModeSelfFree = 2;
constexpr int kNoSuchTimer = 1;

struct Timer {
    MORL_TimerCallback callback = nullptr;
    uint32_t mode = 0;
    std::string name; // for a debugger; the service itself does not use it
    bool armed = false;
    QueueKey key{};
    uint64_t argument = 0;
    // Freed from inside its own callback: released once the callback returns.
    bool freed = false;
};

class TimerService {
public:
    MORL_TimerHandle create(MORL_TimerCallback callback, uint32_t mode, const char* name) {
        if (callback == nullptr) {
            return 0;
        }
        std::lock_guard<std::mutex> lk(mu_);
        if (!started_ && !start_thread()) {
            return 0;
        }
        // 64-bit handles count up and are never given out twice.
        MORL_TimerHandle h = next_handle_++;
        Timer& t = timers_[h];
        t.callback = callback;
        t.mode = mode;
        t.name = name != nullptr ? name : "";
        return h;
    }

    int start(MORL_TimerHandle h, uint32_t delay_ms, uint64_t argument) {
        std::lock_guard<std::mutex> lk(mu_);
        auto it = timers_.find(h);
        if (it == timers_.end() || it->second.freed) {
            return kNoSuchTimer;
        }
        Timer& t = it->second;
        disarm(t);
        t.key = QueueKey(Clock::now() + std::chrono::milliseconds(delay_ms), next_seq_++);
        t.argument = argument;
        t.armed = true;
        queue_.emplace(t.key, h);
        if (queue_.begin()->second == h) {
            wake_.notify_one(); // the new deadline is the nearest one
        }
        return 0;
    }

    int stop(MORL_TimerHandle h) {
        std::unique_lock<std::mutex> lk(mu_);
        return stop_locked(h, lk) ? 0 : kNoSuchTimer;
    }

    int free(MORL_TimerHandle h) {
        std::unique_lock<std::mutex> lk(mu_);
        if (!stop_locked(h, lk)) {
            return kNoSuchTimer;
        }
        auto it = timers_.find(h);
        if (it == timers_.end()) {
            return 0; // a fire-once timer released itself while we waited
        }
        if (running_ == h) {
            it->second.freed = true; // inside its own callback: the thread releases it
        } else {
            timers_.erase(it);
        }
        return 0;
    }

private:
    bool start_thread() {
        try {
            std::thread th([this] { run(); });
            thread_id_ = th.get_id();
            th.detach(); // lives as long as the process
        } catch (const std::system_error&) {
            return false;
        }
        started_ = true;
        return true;
    }

    void disarm(Timer& t) {
        if (t.armed) {
            queue_.erase(t.key);
            t.armed = false;
        }
    }

    // Disarms h and, unless called from h's own callback, waits until a
    // running callback of h has returned. Waking up, the timer is disarmed
    // again, since the callback may have re-armed it. False if h is unknown.
    bool stop_locked(MORL_TimerHandle h, std::unique_lock<std::mutex>& lk) {
        bool known = false;
        for (;;) {
            auto it = timers_.find(h);
            if (it == timers_.end()) {
                return known;
            }
            known = true;
            disarm(it->second);
            if (running_ != h || std::this_thread::get_id() == thread_id_) {
                return true;
            }
            done_.wait(lk);
        }
    }

    void run() {
        MORL_PthreadSetName("morl_timer");
        std::unique_lock<std::mutex> lk(mu_);
        for (;;) {
            if (queue_.empty()) {
                wake_.wait(lk);
                continue;
            }
            auto first = queue_.begin();
            // A copy: the queue entry may be gone when the wait ends.
            const Clock::time_point due = first->first.first;
            if (due > Clock::now()) {
                wake_.wait_until(lk, due);
                continue;
            }
            MORL_TimerHandle h = first->second;
            queue_.erase(first);
            Timer& t = timers_.at(h);
            t.armed = false;
            MORL_TimerCallback callback = t.callback;
            uint64_t argument = t.argument;
            running_ = h;

            lk.unlock();
            callback(argument);
            lk.lock();

            running_ = 0;
            auto it = timers_.find(h);
            if (it != timers_.end()) {
                // A fire-once timer goes after its callback, unless the
                // callback armed it again: then after that firing.
                if (it->second.freed || (it->second.mode == kModeSelfFree && !it->second.armed)) {
                    disarm(it->second);
                    timers_.erase(it);
                }
            }
            done_.notify_all();
        }
    }

    std::mutex mu_;
    std::condition_variable wake_; // the nearest deadline changed
    std::condition_variable done_; // a callback returned
    std::unordered_map<MORL_TimerHandle, Timer> timers_;
    std::map<QueueKey, MORL_TimerHandle> queue_;
    MORL_TimerHandle next_handle_ = 1;
    uint64_t next_seq_ = 1;
    MORL_TimerHandle running_ = 0; // whose callback runs now, 0 for none
    std::thread::id thread_id_;
    bool started_ = false;
};

TimerService& service() {
    static TimerService& s = *new TimerService; // never destroyed, see above
    return s;
}

} // namespace

MORL_TimerHandle MORL_CreateRelTimerM(MORL_TimerCallback callback, uint32_t mode, const char* name) {
    return service().create(callback, mode, name);
}

int MORL_StartRelTimer(MORL_TimerHandle timer, uint32_t delay_ms, uint64_t argument) {
    return service().start(timer, delay_ms, argument);
}

int MORL_StopRelTimer_Safe(MORL_TimerHandle timer) { return service().stop(timer); }

int MORL_FreeRelTimer(MORL_TimerHandle timer) { return service().free(timer); }
