// Named message modules. Senders run on any thread; each module's thread
// runs `Module::run` and the callbacks. The registry of names and each
// module's queue have a mutex of their own, never held together and never
// held while a callback runs.
#include "msg/morl_msg.h"

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <thread>

#include "os_adapter/morl_os.h"

namespace {

constexpr size_t kMaxModules = 64;
constexpr size_t kMaxMidsPerModule = 64;

// One waiting synchronous sender; lives on the sender's stack until `done`.
struct SyncWait {
    bool done = false;
    int result = MORL_MSG_OK;
};

// A queued message: the head and the copied record in one 8-byte aligned block.
struct Message {
    std::unique_ptr<uint64_t[]> block;
    uint32_t size = 0;
    SyncWait* wait = nullptr; // null for asynchronous sends

    const MORL_MSG_Head* head() const { return reinterpret_cast<const MORL_MSG_Head*>(block.get()); }
};

bool valid_name(const char* name) {
    if (name == nullptr || name[0] == '\0') {
        return false;
    }
    return std::strlen(name) <= MORL_MSG_NAME_MAX;
}

void copy_name(char (&dst)[MORL_MSG_NAME_MAX + 1], const char* src) {
    std::memset(dst, 0, sizeof dst);
    if (src != nullptr) {
        std::strncpy(dst, src, MORL_MSG_NAME_MAX);
    }
}

// Builds the head and the copy of the record; an empty block when memory runs out.
Message make_message(const void* record, uint32_t size, const char* from, uint32_t from_id, const char* to,
                     uint32_t to_id, uint32_t arg, uint32_t seq, bool sync) {
    Message m;
    const size_t words = (sizeof(MORL_MSG_Head) + size + sizeof(uint64_t) - 1) / sizeof(uint64_t);
    m.block.reset(new (std::nothrow) uint64_t[words]);
    if (!m.block) {
        return m;
    }
    auto* head = reinterpret_cast<MORL_MSG_Head*>(m.block.get());
    head->size = size;
    head->seq = seq;
    head->from_id = from_id;
    head->to_id = to_id;
    head->arg = arg;
    head->sync = sync ? 1 : 0;
    copy_name(head->from, from);
    copy_name(head->to, to);
    std::memcpy(m.block.get() + sizeof(MORL_MSG_Head) / sizeof(uint64_t), record, size);
    m.size = size;
    return m;
}

class Module : public std::enable_shared_from_this<Module> {
public:
    Module(std::string name, uint32_t max_bytes, uint32_t max_messages)
        : name_(std::move(name)), max_bytes_(max_bytes), max_messages_(max_messages) {}

    int start() {
        try {
            // The thread holds the module until it ends, so a destroy from
            // inside a callback may let it finish on its own.
            thread_ = std::thread([self = shared_from_this()] { self->run(); });
        } catch (const std::system_error&) {
            return MORL_MSG_ERR_NO_THREAD;
        }
        return MORL_MSG_OK;
    }

    int status() const {
        return delivering_.load(std::memory_order_acquire) ? MORL_MSG_STATUS_RUNNING : MORL_MSG_STATUS_STARTING;
    }

    int register_mid(uint32_t mid, MORL_MSG_Callback callback) {
        std::lock_guard<std::mutex> lk(mu_);
        if (mids_.count(mid) != 0) {
            return MORL_MSG_ERR_EXISTS;
        }
        if (mids_.size() >= kMaxMidsPerModule) {
            return MORL_MSG_ERR_TOO_MANY;
        }
        mids_[mid] = callback;
        return MORL_MSG_OK;
    }

    int unregister_mid(uint32_t mid) {
        std::lock_guard<std::mutex> lk(mu_);
        return mids_.erase(mid) != 0 ? MORL_MSG_OK : MORL_MSG_ERR_NO_MID;
    }

    bool on_own_thread() const { return std::this_thread::get_id() == thread_id_.load(); }

    // Queues `m`; with a SyncWait, waits until the thread has delivered it or
    // the module stopped.
    int enqueue(Message m, SyncWait* wait) {
        std::unique_lock<std::mutex> lk(mu_);
        if (stopping_) {
            return MORL_MSG_ERR_STOPPED;
        }
        if (mids_.count(m.head()->to_id) == 0) {
            return MORL_MSG_ERR_NO_MID;
        }
        if (queue_.size() >= max_messages_ || m.size > max_bytes_ - queued_bytes_) {
            return MORL_MSG_ERR_FULL;
        }
        m.wait = wait;
        queued_bytes_ += m.size;
        queue_.push_back(std::move(m));
        work_.notify_one();
        if (wait == nullptr) {
            return MORL_MSG_OK;
        }
        done_.wait(lk, [wait] { return wait->done; });
        return wait->result;
    }

    // Runs the callback of a synchronous send made on this module's thread.
    int deliver_inline(const Message& m) {
        MORL_MSG_Callback cb = nullptr;
        {
            std::lock_guard<std::mutex> lk(mu_);
            auto it = mids_.find(m.head()->to_id);
            if (stopping_ || it == mids_.end()) {
                return stopping_ ? MORL_MSG_ERR_STOPPED : MORL_MSG_ERR_NO_MID;
            }
            cb = it->second;
        }
        cb(m.head());
        return MORL_MSG_OK;
    }

    // Stops the thread. The caller has already taken the name off the registry.
    void stop() {
        {
            std::lock_guard<std::mutex> lk(mu_);
            stopping_ = true;
            for (Message& m : queue_) {
                finish_wait(m.wait, MORL_MSG_ERR_STOPPED);
            }
            queue_.clear();
            queued_bytes_ = 0;
            work_.notify_one();
            done_.notify_all();
        }
        if (!thread_.joinable()) {
            return;
        }
        if (on_own_thread()) {
            thread_.detach(); // ends when the running callback returns
        } else {
            thread_.join();
        }
    }

private:
    void run() {
        thread_id_.store(std::this_thread::get_id());
        MORL_PthreadSetName(name_.c_str());
        delivering_.store(true, std::memory_order_release);
        std::unique_lock<std::mutex> lk(mu_);
        for (;;) {
            work_.wait(lk, [this] { return stopping_ || !queue_.empty(); });
            if (stopping_) {
                break;
            }
            Message m = std::move(queue_.front());
            queue_.pop_front();
            queued_bytes_ -= m.size;
            auto it = mids_.find(m.head()->to_id);
            MORL_MSG_Callback cb = it != mids_.end() ? it->second : nullptr;
            lk.unlock();
            if (cb != nullptr) {
                cb(m.head());
            }
            lk.lock();
            finish_wait(m.wait, cb != nullptr ? MORL_MSG_OK : MORL_MSG_ERR_NO_MID);
            done_.notify_all();
        }
        delivering_.store(false, std::memory_order_release);
    }

    static void finish_wait(SyncWait* wait, int result) {
        if (wait != nullptr) {
            wait->result = result;
            wait->done = true;
        }
    }

    const std::string name_;
    const uint32_t max_bytes_;
    const uint32_t max_messages_;
    std::thread thread_;
    std::atomic<std::thread::id> thread_id_{};
    std::atomic<bool> delivering_{false};

    std::mutex mu_; // guards everything below
    std::condition_variable work_;
    std::condition_variable done_;
    std::deque<Message> queue_;
    size_t queued_bytes_ = 0;
    std::map<uint32_t, MORL_MSG_Callback> mids_;
    bool stopping_ = false;
};

// The names of the running modules. Never destroyed: a module may be
// destroyed at unload, after the other module-scope objects are gone.
class Registry {
public:
    std::shared_ptr<Module> find(const char* name) {
        if (!valid_name(name)) {
            return nullptr;
        }
        std::lock_guard<std::mutex> lk(mu_);
        auto it = modules_.find(name);
        return it != modules_.end() ? it->second : nullptr;
    }

    int create(const char* name, uint32_t max_bytes, uint32_t max_messages) {
        if (!valid_name(name) || max_bytes == 0 || max_messages == 0) {
            return MORL_MSG_ERR_PARAM;
        }
        std::lock_guard<std::mutex> lk(mu_);
        if (modules_.count(name) != 0) {
            return MORL_MSG_ERR_EXISTS;
        }
        if (modules_.size() >= kMaxModules) {
            return MORL_MSG_ERR_TOO_MANY;
        }
        std::shared_ptr<Module> m;
        try {
            m = std::make_shared<Module>(name, max_bytes, max_messages);
        } catch (const std::bad_alloc&) {
            return MORL_MSG_ERR_NO_MEMORY;
        }
        const int rc = m->start();
        if (rc == MORL_MSG_OK) {
            modules_.emplace(name, std::move(m));
        }
        return rc;
    }

    std::shared_ptr<Module> take(const char* name) {
        if (!valid_name(name)) {
            return nullptr;
        }
        std::lock_guard<std::mutex> lk(mu_);
        auto it = modules_.find(name);
        if (it == modules_.end()) {
            return nullptr;
        }
        std::shared_ptr<Module> m = std::move(it->second);
        modules_.erase(it);
        return m;
    }

private:
    std::mutex mu_;
    std::map<std::string, std::shared_ptr<Module>> modules_;
};

Registry& registry() {
    static Registry& r = *new Registry;
    return r;
}

std::atomic<uint32_t> g_next_seq{0};

int send(const void* record, uint32_t size, const char* from, uint32_t from_id, const char* to, uint32_t to_id,
         uint32_t arg, uint32_t seq, bool sync) {
    if (record == nullptr || size == 0) {
        return MORL_MSG_ERR_PARAM;
    }
    std::shared_ptr<Module> module = registry().find(to);
    if (!module) {
        return valid_name(to) ? MORL_MSG_ERR_NO_MODULE : MORL_MSG_ERR_PARAM;
    }
    Message m = make_message(record, size, from, from_id, to, to_id, arg, seq, sync);
    if (!m.block) {
        return MORL_MSG_ERR_NO_MEMORY;
    }
    if (!sync) {
        return module->enqueue(std::move(m), nullptr);
    }
    if (module->on_own_thread()) {
        return module->deliver_inline(m);
    }
    SyncWait wait;
    return module->enqueue(std::move(m), &wait);
}

} // namespace

int MORL_MSG_GetStatus(const char* name) {
    std::shared_ptr<Module> m = registry().find(name);
    return m ? m->status() : MORL_MSG_STATUS_NONE;
}

int MORL_MSG_Init(const char* name, uint32_t max_bytes, uint32_t max_messages) {
    return registry().create(name, max_bytes, max_messages);
}

int MORL_MSG_RegisterMIDByName(const char* name, uint32_t mid, MORL_MSG_Callback callback) {
    if (callback == nullptr) {
        return MORL_MSG_ERR_PARAM;
    }
    std::shared_ptr<Module> m = registry().find(name);
    return m ? m->register_mid(mid, callback) : MORL_MSG_ERR_NO_MODULE;
}

int MORL_MSG_UnRegMIDByName(const char* name, uint32_t mid) {
    std::shared_ptr<Module> m = registry().find(name);
    return m ? m->unregister_mid(mid) : MORL_MSG_ERR_NO_MODULE;
}

int MORL_MSG_DestroyByName(const char* name) {
    std::shared_ptr<Module> m = registry().take(name);
    if (!m) {
        return MORL_MSG_ERR_NO_MODULE;
    }
    m->stop();
    return MORL_MSG_OK;
}

uint32_t MORL_MSG_GenSeqId() {
    uint32_t seq = g_next_seq.fetch_add(1, std::memory_order_relaxed) + 1;
    while (seq == 0) {
        seq = g_next_seq.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    return seq;
}

int MORL_MSG_AsynSend(const void* record, uint32_t size, const char* from, uint32_t from_id, const char* to,
                      uint32_t to_id, uint32_t arg, uint32_t seq) {
    return send(record, size, from, from_id, to, to_id, arg, seq, false);
}

int MORL_MSG_SynSend(const void* record, uint32_t size, const char* from, uint32_t from_id, const char* to,
                     uint32_t to_id, uint32_t arg, void** response, uint32_t seq) {
    if (response != nullptr) {
        *response = nullptr;
    }
    return send(record, size, from, from_id, to, to_id, arg, seq, true);
}
