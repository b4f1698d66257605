// A DNS server of the tests' own on loopback UDP answering from a table of
// names (an address, maybe delayed, silence, NXDOMAIN or IPv6 only). Its own
// thread, started by the constructor and joined by the destructor.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "peers.h"

namespace zeph_test {

class DnsResponder {
public:
    enum class Kind { Address, Silent, NxDomain, AaaaOnly };
    struct Behaviour {
        Kind kind = Kind::NxDomain;
        uint32_t addr_be = 0; // the A record, network order
        int delay_ms = 0;     // the answer waits this long
    };
    static Behaviour address(const std::string& ip, int delay_ms = 0) {
        return Behaviour{Kind::Address, ipv4_be(ip), delay_ms};
    }
    static Behaviour silent() { return Behaviour{Kind::Silent, 0, 0}; }
    static Behaviour nxdomain() { return Behaviour{Kind::NxDomain, 0, 0}; }
    static Behaviour aaaa_only() { return Behaviour{Kind::AaaaOnly, 0, 0}; }

    // Names not in the table get NXDOMAIN.
    explicit DnsResponder(const std::string& ip = "127.0.0.1");
    ~DnsResponder();
    DnsResponder(const DnsResponder&) = delete;
    DnsResponder& operator=(const DnsResponder&) = delete;

    bool ok() const { return sock_.ok(); }
    // "IP:PORT", the text for zeph_settings_set_dns_servers.
    std::string server() const;
    void add(const std::string& name, Behaviour b);
    // Questions received, each as "name/type" with type "A", "AAAA" or its number.
    std::vector<std::string> questions() const;

    // Time to live of every record it gives.
    static constexpr uint32_t kTtl = 300;

private:
    struct Due { uint64_t at_ms; std::vector<uint8_t> packet; std::string ip; uint16_t port; };
    void run();
    void answer(const uint8_t* query, size_t len, const std::string& ip, uint16_t port);

    std::string ip_;
    UdpSocket sock_;
    mutable std::mutex mu_; // guards table_, questions_
    std::map<std::string, Behaviour> table_;
    std::vector<std::string> questions_;
    std::vector<Due> due_; // responder thread only
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

} // namespace zeph_test
