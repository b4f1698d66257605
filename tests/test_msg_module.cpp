// The named message module: order, copies, synchronous sends and stops.
// Callbacks run on the module's thread and report through the probe below.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "msg/morl_msg.h"
#include "waits.h"

namespace {

using zeph_test::wait_until;

constexpr uint32_t kQueueBytes = 0xA00000;
constexpr uint32_t kQueueMessages = 1024;
constexpr int kWaitMs = 5000;

// What the callbacks saw, and a gate that holds a callback until opened.
struct Probe {
    std::mutex mu;
    std::condition_variable cv;
    std::vector<uint32_t> values, seqs; // first word and seq of each record, in delivery order
    bool gate_open = true;
    std::atomic<int> in_gate{0};

    void reset(bool open) {
        std::lock_guard<std::mutex> lk(mu);
        values.clear();
        seqs.clear();
        gate_open = open;
        in_gate = 0;
    }
    void open_gate() {
        std::lock_guard<std::mutex> lk(mu);
        gate_open = true;
        cv.notify_all();
    }
    size_t count() { std::lock_guard<std::mutex> lk(mu); return values.size(); }
};
Probe g_probe;

uint32_t first_word(const MORL_MSG_Head* m) {
    uint32_t v = 0;
    std::memcpy(&v, MORL_MSG_Record(m), sizeof v);
    return v;
}

void record_cb(const MORL_MSG_Head* m) {
    std::lock_guard<std::mutex> lk(g_probe.mu);
    g_probe.values.push_back(first_word(m));
    g_probe.seqs.push_back(m->seq);
}

void gated_cb(const MORL_MSG_Head* m) {
    std::unique_lock<std::mutex> lk(g_probe.mu);
    ++g_probe.in_gate;
    g_probe.cv.wait(lk, [] { return g_probe.gate_open; });
    g_probe.values.push_back(first_word(m));
}

// The record points at an int on the sender's stack; a slow callback writes through it.
struct StackRecord {
    uint32_t tag;
    int* out;
};
void stack_write_cb(const MORL_MSG_Head* m) {
    StackRecord r;
    std::memcpy(&r, MORL_MSG_Record(m), sizeof r);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    *r.out = static_cast<int>(r.tag);
}

int send_word(const char* module, uint32_t mid, uint32_t value) {
    return MORL_MSG_AsynSend(&value, sizeof value, "test", 0, module, mid, 3, value);
}

class MsgModule : public ::testing::Test {
protected:
    void SetUp() override { g_probe.reset(true); }
    void start(const char* name, uint32_t bytes = kQueueBytes, uint32_t messages = kQueueMessages) {
        name_ = name;
        ASSERT_EQ(MORL_MSG_Init(name, bytes, messages), MORL_MSG_OK);
        ASSERT_TRUE(wait_until([&] { return MORL_MSG_GetStatus(name) == MORL_MSG_STATUS_RUNNING; }, kWaitMs));
    }
    void TearDown() override {
        g_probe.open_gate();
        MORL_MSG_DestroyByName(name_.c_str());
    }
    std::string name_;
};

void sync_from_own_thread_cb(const MORL_MSG_Head* m) {
    int out = 0;
    StackRecord r{first_word(m), &out};
    void* response = &out;
    const int rc = MORL_MSG_SynSend(&r, sizeof r, "test", 1, m->to, 2, 10, &response, 0);
    std::lock_guard<std::mutex> lk(g_probe.mu);
    g_probe.values.push_back(rc == MORL_MSG_OK && response == nullptr ? static_cast<uint32_t>(out) : 0);
}

TEST_F(MsgModule, DeliversCopiesInOrderForEachSenderSynSendWaitsAndRefusesWhatCannotArrive) {
    start("msg_order_module_long_name");
    ASSERT_EQ(MORL_MSG_RegisterMIDByName(name_.c_str(), 1, record_cb), MORL_MSG_OK);
    EXPECT_EQ(MORL_MSG_RegisterMIDByName(name_.c_str(), 1, record_cb), MORL_MSG_ERR_EXISTS);
    EXPECT_EQ(MORL_MSG_Init(name_.c_str(), kQueueBytes, kQueueMessages), MORL_MSG_ERR_EXISTS);

    constexpr uint32_t kCount = 200;
    for (uint32_t i = 0; i < kCount; ++i) {
        uint32_t* record = new uint32_t(i);
        ASSERT_EQ(MORL_MSG_AsynSend(record, sizeof *record, "test", 0, name_.c_str(), 1, 3, i + 1), MORL_MSG_OK);
        *record = 0xDEADBEEF; // the module holds its own copy
        delete record;
    }
    ASSERT_TRUE(wait_until([] { return g_probe.count() == kCount; }, kWaitMs));
    for (uint32_t i = 0; i < kCount; ++i) {
        EXPECT_EQ(g_probe.values[i], i);
        EXPECT_EQ(g_probe.seqs[i], i + 1);
    }

    // Many senders keep their own order; every tenth send waits for its callback.
    g_probe.reset(true);
    constexpr uint32_t kSenders = 4;
    constexpr uint32_t kPerSender = 300;
    std::vector<std::thread> senders;
    for (uint32_t s = 0; s < kSenders; ++s) {
        senders.emplace_back([s, this] {
            for (uint32_t i = 0; i < kPerSender; ++i) {
                const uint32_t v = (s << 16) | i;
                EXPECT_EQ(i % 10 == 0 ? MORL_MSG_SynSend(&v, sizeof v, "test", 0, name_.c_str(), 1, 10, nullptr, 0)
                                      : send_word(name_.c_str(), 1, v),
                          MORL_MSG_OK);
            }
        });
    }
    for (auto& t : senders) t.join();
    ASSERT_TRUE(wait_until([&] { return g_probe.count() == kSenders * kPerSender; }, kWaitMs));
    std::vector<uint32_t> next(kSenders, 0);
    for (uint32_t v : g_probe.values) EXPECT_EQ(v & 0xFFFF, next[v >> 16]++);

    // A synchronous send returns after the callback ran, from another thread
    // and, without a deadlock, from the module's own.
    ASSERT_EQ(MORL_MSG_RegisterMIDByName(name_.c_str(), 2, stack_write_cb), MORL_MSG_OK);
    ASSERT_EQ(MORL_MSG_RegisterMIDByName(name_.c_str(), 3, sync_from_own_thread_cb), MORL_MSG_OK);
    int out = 0;
    StackRecord r{41, &out};
    std::thread([&] { EXPECT_EQ(MORL_MSG_SynSend(&r, sizeof r, "test", 0, name_.c_str(), 2, 10, nullptr, 0), 0); }).join();
    EXPECT_EQ(out, 41);
    g_probe.reset(true);
    ASSERT_EQ(send_word(name_.c_str(), 3, 42), MORL_MSG_OK);
    ASSERT_TRUE(wait_until([] { return g_probe.count() == 1; }, kWaitMs));
    EXPECT_EQ(g_probe.values[0], 42u);

    EXPECT_EQ(send_word(name_.c_str(), 7, 1), MORL_MSG_ERR_NO_MID);
    EXPECT_EQ(send_word("msg_no_such_module", 1, 1), MORL_MSG_ERR_NO_MODULE);
    EXPECT_EQ(MORL_MSG_UnRegMIDByName(name_.c_str(), 1), MORL_MSG_OK);
    EXPECT_EQ(send_word(name_.c_str(), 1, 1), MORL_MSG_ERR_NO_MID);
    EXPECT_NE(MORL_MSG_GenSeqId(), MORL_MSG_GenSeqId());
}

void destroy_self_cb(const MORL_MSG_Head* m) {
    const int rc = MORL_MSG_DestroyByName(m->to);
    std::lock_guard<std::mutex> lk(g_probe.mu);
    g_probe.values.push_back(static_cast<uint32_t>(rc));
}

TEST_F(MsgModule, DestroyFailsWaitingSendersJoinsTheRunningCallbackAndWorksFromItsOwnCallback) {
    start("msg_destroy");
    g_probe.reset(false);
    ASSERT_EQ(MORL_MSG_RegisterMIDByName(name_.c_str(), 1, gated_cb), MORL_MSG_OK);
    ASSERT_EQ(send_word(name_.c_str(), 1, 1), MORL_MSG_OK);
    ASSERT_TRUE(wait_until([] { return g_probe.in_gate == 1; }, kWaitMs));

    std::atomic<int> sync_rc{-1};
    std::atomic<bool> sending{false};
    std::thread sender([&] {
        uint32_t v = 2;
        sending = true;
        sync_rc = MORL_MSG_SynSend(&v, sizeof v, "test", 0, "msg_destroy", 1, 10, nullptr, 0);
    });
    ASSERT_EQ(send_word(name_.c_str(), 1, 3), MORL_MSG_OK);
    std::atomic<bool> destroyed{false};
    constexpr int kQueueGraceMs = 200; // for the synchronous send to queue behind the held callback
    ASSERT_TRUE(wait_until([&] { return sending.load(); }, kWaitMs));
    ASSERT_FALSE(wait_until([&] { return sync_rc != -1; }, kQueueGraceMs));
    std::thread destroyer([&] {
        EXPECT_EQ(MORL_MSG_DestroyByName("msg_destroy"), MORL_MSG_OK);
        destroyed = true;
    });
    ASSERT_TRUE(wait_until([&] { return sync_rc != -1; }, kWaitMs));
    EXPECT_EQ(sync_rc, MORL_MSG_ERR_STOPPED);
    EXPECT_EQ(MORL_MSG_GetStatus("msg_destroy"), MORL_MSG_STATUS_NONE);
    EXPECT_NE(send_word("msg_destroy", 1, 4), MORL_MSG_OK);
    EXPECT_FALSE(destroyed) << "the destroy returned while the callback still ran";

    g_probe.open_gate();
    destroyer.join();
    sender.join();
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(g_probe.count(), 1u) << "queued messages are dropped, not delivered";

    // A destroy from the module's own callback ends it; the name is free again.
    g_probe.reset(true);
    start("msg_destroy");
    ASSERT_EQ(MORL_MSG_RegisterMIDByName(name_.c_str(), 1, destroy_self_cb), MORL_MSG_OK);
    ASSERT_EQ(send_word(name_.c_str(), 1, 0), MORL_MSG_OK);
    ASSERT_TRUE(wait_until([] { return g_probe.count() == 1; }, kWaitMs));
    EXPECT_EQ(g_probe.values[0], static_cast<uint32_t>(MORL_MSG_OK));
    EXPECT_EQ(MORL_MSG_GetStatus(name_.c_str()), MORL_MSG_STATUS_NONE);
    start("msg_destroy");
    ASSERT_EQ(MORL_MSG_RegisterMIDByName(name_.c_str(), 1, record_cb), MORL_MSG_OK);
    ASSERT_EQ(send_word(name_.c_str(), 1, 7), MORL_MSG_OK);
    ASSERT_TRUE(wait_until([] { return g_probe.count() == 2; }, kWaitMs));
    EXPECT_EQ(g_probe.values[1], 7u);
}

TEST_F(MsgModule, QueueRefusesBeyondItsMessagesOrBytes) {
    constexpr uint32_t kMessages = 2;
    constexpr uint32_t kBytes = 64;
    start("msg_bounded", kBytes, kMessages);
    g_probe.reset(false);
    ASSERT_EQ(MORL_MSG_RegisterMIDByName(name_.c_str(), 1, gated_cb), MORL_MSG_OK);
    ASSERT_EQ(send_word(name_.c_str(), 1, 1), MORL_MSG_OK);
    ASSERT_TRUE(wait_until([] { return g_probe.in_gate == 1; }, kWaitMs));

    uint8_t big[kBytes + 1] = {};
    EXPECT_EQ(MORL_MSG_AsynSend(big, sizeof big, "test", 0, name_.c_str(), 1, 3, 0), MORL_MSG_ERR_FULL);
    EXPECT_EQ(send_word(name_.c_str(), 1, 2), MORL_MSG_OK);
    EXPECT_EQ(send_word(name_.c_str(), 1, 3), MORL_MSG_OK);
    EXPECT_EQ(send_word(name_.c_str(), 1, 4), MORL_MSG_ERR_FULL);

    g_probe.open_gate();
    ASSERT_TRUE(wait_until([] { return g_probe.count() == 3; }, kWaitMs));
    EXPECT_EQ(send_word(name_.c_str(), 1, 5), MORL_MSG_OK) << "room again once drained";
}

} // namespace
