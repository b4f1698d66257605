// The asynchronous resolver against the tests' own DNS server on loopback.
// Runs on the test's thread; the answers come on the resolver's.
#include <gtest/gtest.h>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dns/ravn_dns.h"
#include "dns_responder.h"
#include "peers.h"
#include "zeph_nettools/settings.h"

namespace {

using zeph_test::DnsResponder;
using zeph_test::ipv4_be;
using zeph_test::wait_until;

constexpr int kWaitMs = 5000;
// The resolver's deadline, with room for a loaded machine.
constexpr int kTimeoutWaitMs = static_cast<int>(RAVN_DNS_TIMEOUT_MS) + 3000;

struct Answer {
    uint32_t result;
    std::string host;
    int32_t count;
    uint32_t addr, ttl;
    uint64_t req_id;
    std::string thread;
    int stop_result; // of RAVN_NETB_DnsStop called inside the callback, when asked
};

std::mutex g_mu;
std::vector<Answer> g_answers;
std::atomic<bool> g_stop_inside{false};

void on_answer(uint32_t result, const char* host, const RAVN_DnsAddrRecord* list, int32_t count, uint32_t ttl,
               uint64_t req_id) {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    const int stop_result = g_stop_inside ? RAVN_NETB_DnsStop() : 0;
    std::lock_guard<std::mutex> lk(g_mu);
    g_answers.push_back(Answer{result, host, count, list != nullptr ? list->addr : 0xFFFFFFFF, ttl, req_id, name,
                               stop_result});
}

std::vector<Answer> answers() {
    std::lock_guard<std::mutex> lk(g_mu);
    return g_answers;
}
size_t answer_count() { return answers().size(); }

// "host result count addr ttl thread" of an answer; the ttl only with an address.
std::string text(const std::string& host, uint32_t result, int32_t count, uint32_t addr, const std::string& thread,
                 uint32_t ttl = DnsResponder::kTtl) {
    return host + " " + std::to_string(result) + " " + std::to_string(count) + " " + std::to_string(addr) + " " +
           (count == 1 ? std::to_string(ttl) : "-") + " " + thread;
}

uint32_t resolve(const char* host, uint64_t req_id) {
    return RAVN_NETB_DnsGetIpByAsynResolve(host, 0, 3, on_answer, req_id, 0);
}

class DnsModule : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dns_.ok());
        ASSERT_EQ(zeph_settings_set_dns_servers(dns_.server().c_str()), 0);
    }
    void TearDown() override {
        g_stop_inside = false;
        RAVN_NETB_DnsStop();
        std::lock_guard<std::mutex> lk(g_mu);
        g_answers.clear();
    }
    DnsResponder dns_;
};

TEST_F(DnsModule, EachRequestGetsOneAnswerWithItsNameOnTheResolverThread) {
    dns_.add("a.zeph.test", DnsResponder::address("127.1.2.3"));
    dns_.add("late.zeph.test", DnsResponder::address("127.9.9.9", 600));
    dns_.add("gone.zeph.test", DnsResponder::nxdomain());
    dns_.add("six.zeph.test", DnsResponder::aaaa_only());

    EXPECT_EQ(resolve("late.zeph.test", 16), RAVN_DNS_OK);
    EXPECT_EQ(resolve("a.zeph.test", 17), RAVN_DNS_OK);
    EXPECT_EQ(resolve("gone.zeph.test", 18), RAVN_DNS_OK);
    EXPECT_EQ(resolve("six.zeph.test", 19), RAVN_DNS_OK);
    EXPECT_EQ(resolve("not a name", 20), RAVN_DNS_ERR_PARAM);
    EXPECT_EQ(resolve("a..zeph.test", 21), RAVN_DNS_ERR_PARAM);
    EXPECT_EQ(RAVN_NETB_DnsGetIpByAsynResolve("a.zeph.test", 0, 3, nullptr, 22, 0), RAVN_DNS_ERR_PARAM);

    ASSERT_TRUE(wait_until([] { return answer_count() >= 4; }, kWaitMs));
    const std::vector<Answer> got = answers();
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(got.back().req_id, 16u) << "the late answer does not hold up the others";
    std::map<uint64_t, std::string> seen;
    for (const Answer& a : got) seen[a.req_id] = text(a.host, a.result, a.count, a.addr, a.thread, a.ttl);
    // A failure still gives a readable, zeroed record.
    EXPECT_EQ(seen, (std::map<uint64_t, std::string>{
                        {16, text("late.zeph.test", RAVN_DNS_OK, 1, ipv4_be("127.9.9.9"), "zeph_dns")},
                        {17, text("a.zeph.test", RAVN_DNS_OK, 1, ipv4_be("127.1.2.3"), "zeph_dns")},
                        {18, text("gone.zeph.test", RAVN_DNS_ERR_NOT_FOUND, 0, 0, "zeph_dns")},
                        {19, text("six.zeph.test", RAVN_DNS_ERR_NO_ADDRESS, 0, 0, "zeph_dns")}}));
}

TEST_F(DnsModule, LiteralWithoutAQuestionBadServerTextRefusedChangedServersServeNewLookups) {
    DnsResponder second("127.0.0.2");
    ASSERT_TRUE(second.ok());
    dns_.add("first.zeph.test", DnsResponder::address("127.0.10.1", 500));
    second.add("second.zeph.test", DnsResponder::address("127.0.10.2"));
    for (const char* bad : {"127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1,", "localhost:53", " 127.0.0.1",
                            "127.0.0.1,127.0.0.2,127.0.0.3,127.0.0.4,127.0.0.5,127.0.0.6,127.0.0.7,127.0.0.8,127.0.0.9"}) {
        EXPECT_EQ(zeph_settings_set_dns_servers(bad), -1) << bad;
    }
    EXPECT_EQ(resolve("127.0.2.7", 1), RAVN_DNS_OK);
    ASSERT_TRUE(wait_until([] { return answer_count() == 1; }, kWaitMs));
    EXPECT_EQ(answers()[0].host + " " + answers()[0].thread, "127.0.2.7 zeph_dns");
    EXPECT_EQ(resolve("first.zeph.test", 2), RAVN_DNS_OK);
    ASSERT_TRUE(wait_until([&] { return !dns_.questions().empty(); }, kWaitMs));
    EXPECT_EQ(dns_.questions(), std::vector<std::string>{"first.zeph.test/A"}) << "the refused texts left it in place";
    ASSERT_EQ(zeph_settings_set_dns_servers(second.server().c_str()), 0);
    EXPECT_EQ(resolve("second.zeph.test", 3), RAVN_DNS_OK);
    ASSERT_TRUE(wait_until([] { return answer_count() == 3; }, kWaitMs));
    const char* want[] = {"", "127.0.2.7", "127.0.10.1", "127.0.10.2"};
    for (const Answer& a : answers()) {
        EXPECT_EQ(a.result, RAVN_DNS_OK) << a.host;
        EXPECT_EQ(a.addr, ipv4_be(want[a.req_id])) << a.host;
    }
    EXPECT_EQ(second.questions(), std::vector<std::string>{"second.zeph.test/A"});
}

TEST_F(DnsModule, SilenceEndsInOneTimeout) {
    dns_.add("quiet.zeph.test", DnsResponder::silent());
    const uint64_t start = zeph_test::now_ms();
    EXPECT_EQ(resolve("quiet.zeph.test", 5), RAVN_DNS_OK);
    ASSERT_TRUE(wait_until([] { return answer_count() == 1; }, kTimeoutWaitMs));
    const uint64_t took = zeph_test::now_ms() - start;
    EXPECT_EQ(answers()[0].result, RAVN_DNS_ERR_TIMEOUT);
    EXPECT_EQ(answers()[0].host, "quiet.zeph.test");
    EXPECT_LE(took, static_cast<uint64_t>(kTimeoutWaitMs));
    // c-ares gives up before the resolver's deadline: no second answer after it.
    EXPECT_FALSE(wait_until([] { return answer_count() > 1; }, 1000));
}

TEST_F(DnsModule, StopAnswersEveryPendingRequestOnceThenStartsAgain) {
    dns_.add("quiet.zeph.test", DnsResponder::silent());
    for (uint32_t i = 0; i < RAVN_DNS_MAX_PENDING; ++i) {
        ASSERT_EQ(resolve("quiet.zeph.test", i), RAVN_DNS_OK);
    }
    EXPECT_EQ(resolve("quiet.zeph.test", RAVN_DNS_MAX_PENDING), RAVN_DNS_ERR_BUSY);

    EXPECT_EQ(RAVN_NETB_DnsStop(), 0);
    std::vector<Answer> got = answers(); // all of them, before the stop returned
    ASSERT_EQ(got.size(), RAVN_DNS_MAX_PENDING);
    std::vector<int> seen(RAVN_DNS_MAX_PENDING, 0);
    for (const Answer& a : got) {
        EXPECT_EQ(a.result, RAVN_DNS_ERR_STOPPED);
        ++seen.at(a.req_id);
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), static_cast<long>(RAVN_DNS_MAX_PENDING));

    // A later request starts it again; a stop from inside a callback is refused.
    g_stop_inside = true;
    dns_.add("a.zeph.test", DnsResponder::address("127.1.2.3"));
    EXPECT_EQ(resolve("a.zeph.test", 1000), RAVN_DNS_OK);
    ASSERT_TRUE(wait_until([] { return answer_count() == RAVN_DNS_MAX_PENDING + 1; }, kWaitMs));
    got = answers();
    EXPECT_EQ(got.back().result, RAVN_DNS_OK);
    EXPECT_EQ(got.back().stop_result, -1);
}

} // namespace
