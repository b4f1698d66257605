// Collects the records that net detections hand to their callback, for the
// net detection tests. The callback has no user pointer, so records go to
// one process-wide list and tests pick theirs by serial number.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <mutex>
#include <vector>

#include "inc/net_detect.h"
#include "peers.h"

namespace net_records {

struct Store {
    std::mutex mu;
    std::vector<NetDetectResult> recs;
};

inline Store& store() {
    static Store& s = *new Store; // library threads may still call in at exit
    return s;
}

inline void on_result(NetDetectResult* r) {
    std::lock_guard<std::mutex> lock(store().mu);
    store().recs.push_back(*r);
}

inline std::vector<NetDetectResult> of(uint32_t num) {
    std::lock_guard<std::mutex> lock(store().mu);
    std::vector<NetDetectResult> out;
    for (const auto& r : store().recs) {
        if (r.num == num) out.push_back(r);
    }
    return out;
}

inline bool wait_count(uint32_t num, size_t n, int timeout_ms) {
    return zeph_test::wait_until([&] { return of(num).size() >= n; }, timeout_ms, 5);
}

// Every detection object and probe of the process has been freed.
inline bool all_freed(int timeout_ms) {
    return zeph_test::wait_until(
        [] { return NetDetect::live_count() == 0 && NetDetectBase::live_count() == 0 && PortDetectBase::live_count() == 0; },
        timeout_ms, 10);
}

// True when this process may open raw ICMP sockets.
inline bool raw_icmp_allowed() {
    const int fd = ::socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

inline void expect_failure_values(const NetDetectResult& r) {
    EXPECT_EQ(r.qos, 3u);
    EXPECT_EQ(r.average, 1000);
    EXPECT_EQ(r.max, 1000);
    EXPECT_EQ(r.min, 1000);
    EXPECT_EQ(r.discard, 100);
}

} // namespace net_records
