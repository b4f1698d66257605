// Passwords are wiped before their memory goes back to the heap: the replaced
// delete searches every freed block for them. Runs on the test's thread.
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstring>
#include <cstdlib>
#include <memory>
#include <new>

#include "mediaSocket/StunManager.h"
#include "zeph_nettools/stun.h"

namespace {

// One secret that fits inside a string object, two that need heap buffers.
const char* const kSecrets[] = {"Qz!sh0rt-pw", "Qz!L0ng-password-that-needs-a-heap-buffer-0123456789",
                                "Qz!L0nger-password-that-needs-a-larger-heap-buffer-0123456789-abcdefghijklmnopqrs"};
std::atomic<bool> g_watch{false};
std::atomic<int> g_leaks{0};
void* volatile g_escape = nullptr;

void Release(void* p) {
    if (p != nullptr && g_watch.load(std::memory_order_relaxed)) {
        for (const char* secret : kSecrets) {
            if (memmem(p, malloc_usable_size(p), secret, std::strlen(secret)) != nullptr) ++g_leaks;
        }
    }
    std::free(p);
}

} // namespace

void* operator new(size_t n) {
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void* operator new[](size_t n) { return operator new(n); }
void operator delete(void* p) noexcept { Release(p); }
void operator delete[](void* p) noexcept { Release(p); }
void operator delete(void* p, size_t) noexcept { Release(p); }
void operator delete[](void* p, size_t) noexcept { Release(p); }

TEST(StunWipe, EveryPathThatDropsAPasswordWipesIt) {
    // The watch is not blind: a record like ours without the wipe is seen.
    struct Unwiped {
        std::string inObject{kSecrets[0]}, onHeap{kSecrets[1]};
    };
    g_watch = true;
    g_escape = std::make_shared<Unwiped>().get(); // freed at once; kept from being optimised away
    EXPECT_EQ(g_leaks.exchange(0), 2);

    // Replaced by longer and shorter passwords, across the string's own room and the heap.
    for (const char* key : {"wipe_a", "wipe_b"}) {
        for (int i : {0, 1, 2, 0, 2, 1}) {
            StunIceInfo info{}; // not through std::string: no copy of ours on the heap
            std::strcpy(info.ufrag, "uf");
            std::strcpy(info.password, kSecrets[i]);
            ASSERT_EQ(MORL_StunSetLocalIceInfo(key, &info) + MORL_StunSetRemoteIceInfo(key, &info), 0u);
            uint8_t buf[288] = {};
            uint32_t len = sizeof buf;
            ASSERT_EQ(MORL_StunBuildPacketOfFuzzyMatchKey("wipe", buf, &len), 0u);
        }
    }
    // Cleared one by one, all at once (as at exit), and a destroyed table of our own.
    EXPECT_EQ(MORL_StunClearIceInfo("wipe_a"), 0u);
    StunManager::Instance().StunClearAll();
    EXPECT_EQ(StunManager::Instance().Size(), 0u); // dropped, not merely kept out of the watch
    {
        StunManager own;
        ASSERT_EQ(own.StunSetIceInfo("own", "uf", kSecrets[2], StunManager::kLocal), 0u);
        ASSERT_EQ(own.StunSetIceInfo("own", "uf", kSecrets[0], StunManager::kRemote), 0u);
    }
    g_watch = false;
    EXPECT_EQ(g_leaks.load(), 0);
}
