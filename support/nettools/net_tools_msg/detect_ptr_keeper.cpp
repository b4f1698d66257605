// DetectPtrKeeper: runs on the thread of its caller (a detection posting a
// message, the message thread taking it). Its mutex is held with no other.
#include <map>
#include <mutex>

#include "inc/net_tools_msg.h"

namespace {
struct Kept {
    std::shared_ptr<DetectBase> ptr;
    int32_t count = 0;
};
struct KeeperTable {
    std::mutex mutex;
    std::map<const void*, Kept> map;
};
// Never destroyed: messages may still be taken while the process exits.
KeeperTable& table() {
    static KeeperTable& t = *new KeeperTable;
    return t;
}
} // namespace

void DetectPtrKeeper::keep(const void* key, std::shared_ptr<DetectBase> ptr) {
    std::shared_ptr<DetectBase> unused; // an unchanged entry drops the copy outside the lock
    KeeperTable& t = table();
    std::lock_guard<std::mutex> guard(t.mutex);
    auto it = t.map.find(key);
    if (it == t.map.end()) {
        t.map.emplace(key, Kept{std::move(ptr), 1});
    } else {
        ++it->second.count;
        unused = std::move(ptr);
    }
}

void DetectPtrKeeper::release(const void* key, bool force) {
    if (key == nullptr) return;
    std::shared_ptr<DetectBase> dropped;
    KeeperTable& t = table();
    {
        std::lock_guard<std::mutex> guard(t.mutex);
        auto it = t.map.find(key);
        if (it == t.map.end()) return;
        --it->second.count;
        if (it->second.count < 1 || force) {
            dropped = std::move(it->second.ptr);
            t.map.erase(it);
        }
    }
    // The object may end here, with no lock of ours held.
}

std::shared_ptr<DetectBase> DetectPtrKeeper::peek_ptr(const void* key) {
    if (key == nullptr) return std::shared_ptr<DetectBase>();
    KeeperTable& t = table();
    std::lock_guard<std::mutex> guard(t.mutex);
    auto it = t.map.find(key);
    return it == t.map.end() ? std::shared_ptr<DetectBase>() : it->second.ptr;
}

size_t DetectPtrKeeper::size() {
    KeeperTable& t = table();
    std::lock_guard<std::mutex> guard(t.mutex);
    return t.map.size();
}
