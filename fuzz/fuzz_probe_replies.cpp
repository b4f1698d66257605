// Arbitrary datagrams through the two reply checks of the port probes: the
// STUN answer check of the UDP probe and the echo reply check of the ICMP
// probe (which finds the ICMP head behind an IP header of any length).
//
// Input: byte 0 picks the probe's expectations, the rest is the datagram.
//   UDP:  the probe's one request carries the id of datagram bytes 8..19
//         when bit 0 of byte 0 is set, so both the match and the refusal
//         paths are reached.
//   ICMP: identifier and sequence base come from datagram bytes that the
//         head would hold when bit 1 is set, otherwise fixed values.
//
// Verdict: whether each check took the datagram for its answer, as
// "stun accepted|refused, icmp accepted|refused".
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_verdict.h"
#include "inc/port_detect.h"
#include "zeph_nettools/settings.h"

struct PortDetectTestAccess {
    static uint8_t* buf(PortDetectBase& p) { return p.m_buf; }
    static void set_udp_id(PortDetectUDP& p, const uint8_t* id) {
        std::memcpy(p.m_trans_ids[0], id, sizeof p.m_trans_ids[0]);
        p.m_trans_sent = 1;
    }
    static void set_icmp_ids(PortDetectICMP& p, uint16_t id, uint16_t base) {
        p.m_req_id = id;
        p.m_seq_base = base;
    }
};

namespace {

void quiet_sink(void*, int, const char*, const char*, const char*, int, const char*) {}

struct Probes {
    Probes() {
        zeph_settings_set_log_sink(quiet_sink, nullptr, 3);
        udp = std::make_shared<PortDetectUDP>(0x0100007F, 9, 2);
        icmp = std::make_shared<PortDetectICMP>(0x0100007F, 9, 11);
    }
    std::shared_ptr<PortDetectUDP> udp;
    std::shared_ptr<PortDetectICMP> icmp;
};

bool g_stun = false, g_icmp = false; // what the checks said of the last input

uint16_t be16_at(const uint8_t* d, size_t size, size_t at) {
    return at + 2 <= size ? uint16_t((d[at] << 8) | d[at + 1]) : 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Probes& probes = *new Probes;
    g_stun = g_icmp = false;
    if (size == 0) return 0;
    const uint8_t mode = data[0];
    const uint8_t* dgram = data + 1;
    const size_t len = size - 1 > 1024 ? 1024 : size - 1;

    uint8_t id[12] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xAA, 0xBB, 0xCC};
    if ((mode & 1) && len >= 20) std::memcpy(id, dgram + 8, sizeof id);
    PortDetectTestAccess::set_udp_id(*probes.udp, id);
    std::memset(PortDetectTestAccess::buf(*probes.udp), 0, 1024);
    if (len) std::memcpy(PortDetectTestAccess::buf(*probes.udp), dgram, len);
    // The length told may exceed what arrived in the buffer (a datagram cut
    // at 1024 bytes); the check must stay within the buffer.
    g_stun = probes.udp->is_stun_response(static_cast<int>(size - 1));

    uint16_t req_id = 0x4242, base = 100;
    if (mode & 2) {
        const size_t h = len ? size_t(dgram[0] & 0x0F) * 4 : 0;
        req_id = be16_at(dgram, len, h + 4);
        base = static_cast<uint16_t>(be16_at(dgram, len, h + 6) - (mode >> 5));
    }
    PortDetectTestAccess::set_icmp_ids(*probes.icmp, req_id, base);
    std::memset(PortDetectTestAccess::buf(*probes.icmp), 0, 1024);
    if (len) std::memcpy(PortDetectTestAccess::buf(*probes.icmp), dgram, len);
    g_icmp = probes.icmp->is_icmp_response(static_cast<int>(size - 1));
    return 0;
}

std::string FuzzVerdict()
{
    return std::string("stun ") + (g_stun ? "accepted" : "refused") + ", icmp " + (g_icmp ? "accepted" : "refused");
}
