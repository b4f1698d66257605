// Peers of the quality detections, on the test's own threads: our quality server, a relay
// in front of it, a UDP stand-in, a keeper of the detections' reports, a holder of ports.
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

// A UDP relay on `listen` in front of our server on server_ip (null when it cannot start).
inline std::unique_ptr<zeph_relay::UdpRelay> relay_to_server(const std::string& listen, const std::string& server_ip,
                                                             zeph_relay::Impairment up = {},
                                                             zeph_relay::Impairment down = {}, uint64_t seed = 1) {
    zeph_relay::UdpRelayConfig cfg;
    cfg.listen_ip = listen, cfg.server_ip = server_ip, cfg.server_port = kQualityServerPort;
    cfg.to_server = up, cfg.to_client = down, cfg.seed = seed;
    auto relay = std::make_unique<zeph_relay::UdpRelay>(cfg);
    return relay->start() == 0 ? std::move(relay) : nullptr;
}

// A UDP socket on ip:port (0: a free port). Its thread keeps each datagram and hands a
// copy to `answer`, which turns it into the reply in place (true: send it back).
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

// What our server does to a data packet, without pairs, with `status`. False for any other.
bool answer_quality_data(std::vector<uint8_t>& p, uint32_t status);
// An auth answer carrying `result`. False for any other packet.
bool answer_quality_auth(std::vector<uint8_t>& p, uint32_t result);

// A detection's reports: record_report is its callback; reports(n, timeout_ms) waits for n.
struct Report {
    int32_t id, code, p2;
    std::vector<DetectQosResult> results;
    uint64_t at_ms;
};
void record_report(int32_t id, int32_t code, int32_t p2, std::vector<DetectQosResult> results);
std::vector<Report> reports(size_t n = 0, int timeout_ms = 0);
void clear_reports();

// UDP ports first..first+count-1 held on any address (one another program holds is taken all the same).
struct HeldUdpPorts {
    HeldUdpPorts(uint16_t first, uint16_t count);
    ~HeldUdpPorts();
    void release_last();
    std::vector<int> fds;
    bool all; // every port of the range is ours
};

} // namespace zeph_test
