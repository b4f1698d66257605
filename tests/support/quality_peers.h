// Peers of the quality detections, run by the test's own threads: our quality
// server on an address of the test, a relay in front of it, a UDP stand-in
// that keeps every datagram and answers what its callback makes of it, a
// keeper of the detections' reports, and a holder of client ports.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "udp_relay.h"
#include "zeph_nettools/net_tools.h"

class DetectServer;

namespace zeph_test {

constexpr uint16_t kQualityServerPort = 64000;

// Our quality server on ip:kQualityServerPort, stopped by the destructor.
class QualityServerOn {
public:
    explicit QualityServerOn(const std::string& ip);
    ~QualityServerOn();
    bool ok() const { return m_started; }
    DetectServer* operator->() const { return m_server; }

private:
    DetectServer* m_server = nullptr;
    bool m_started = false;
};

// A UDP relay on `listen` in front of our server on server_ip (null when it
// cannot start).
inline std::unique_ptr<zeph_relay::UdpRelay> relay_to_server(const std::string& listen, const std::string& server_ip,
                                                             zeph_relay::Impairment up = {},
                                                             zeph_relay::Impairment down = {}, uint64_t seed = 1) {
    zeph_relay::UdpRelayConfig cfg;
    cfg.listen_ip = listen;
    cfg.server_ip = server_ip;
    cfg.server_port = kQualityServerPort;
    cfg.to_server = up;
    cfg.to_client = down;
    cfg.seed = seed;
    auto relay = std::make_unique<zeph_relay::UdpRelay>(cfg);
    return relay->start() == 0 ? std::move(relay) : nullptr;
}

// A UDP socket bound to ip:port (0: a free port). Its thread keeps each
// datagram and hands a copy to `answer`, which turns it into the reply in
// place (true: send it back to the sender).
class UdpStandIn {
public:
    struct Got {
        std::vector<uint8_t> bytes;
        uint64_t at_ms;
        uint32_t from_ip; // host order
        uint16_t from_port;
        size_t index;
    };
    using Answer = std::function<bool(std::vector<uint8_t>& reply, const Got& got)>;

    UdpStandIn(const std::string& ip, uint16_t port, Answer answer);
    ~UdpStandIn();
    bool ok() const { return m_fd >= 0; }
    uint16_t port() const { return m_port; }
    std::vector<Got> got() const;
    size_t count() const;

private:
    void run();

    int m_fd = -1;
    uint16_t m_port = 0;
    Answer m_answer;
    std::atomic<bool> m_stop{false};
    mutable std::mutex m_mutex;
    std::vector<Got> m_got;
    std::thread m_thread;
};

// What our server does to a data packet, without the pairs, with `status`
// in the answer. False for any other packet.
bool answer_quality_data(std::vector<uint8_t>& p, uint32_t status);
// An auth answer carrying `result`. False for any other packet.
bool answer_quality_auth(std::vector<uint8_t>& p, uint32_t result);

// Reports of a detection: pass record_report as its callback; the test
// thread reads them with reports(n, timeout_ms), which waits until n came.
struct Report {
    int32_t id, code, p2;
    std::vector<DetectQosResult> results;
    uint64_t at_ms;
};
void record_report(int32_t id, int32_t code, int32_t p2, std::vector<DetectQosResult> results);
std::vector<Report> reports(size_t n = 0, int timeout_ms = 0);
void clear_reports();

// UDP ports first..first+count-1 bound on any address while it lives (one
// that another program holds is left out: it is taken all the same).
struct HeldUdpPorts {
    HeldUdpPorts(uint16_t first, uint16_t count);
    ~HeldUdpPorts();
    void release_last();
    std::vector<int> fds;
    bool all; // every port of the range is ours
};

} // namespace zeph_test
