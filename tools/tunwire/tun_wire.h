// A delaying wire between two network namespaces, for checking detections
// against a known truth on machines without kernel traffic shaping.
//
// Side A (the client) owns 198.18.0.1, side B (the server) 198.18.0.2, each
// on a point-to-point TUN device in a network namespace of its own that the
// wire makes and that nothing else can reach. The shuttle thread, owned by
// the wire, reads every IPv4 packet that one side's kernel sends to its TUN
// and writes it into the other side's TUN after a delay drawn per packet
// (delay, jitter, loss per direction, seeded). Nothing is rewritten: each
// kernel sees packets to its own address, so TCP handshakes, UDP exchanges
// and ICMP echoes (answered by B's kernel) all feel a real delay.
//
// The wire logs what it did to every packet, so that the truth of a
// round trip is known: see `round_trips`.
//
// Needs root (or CAP_SYS_ADMIN and CAP_NET_ADMIN) and /dev/net/tun;
// `TunWire::permitted` says whether this process has them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "udp_relay.h"

namespace zeph_wire {

using zeph_relay::Impairment;
using zeph_relay::JitterModel;

// The two addresses: 198.18.0.0/15 is the benchmarking range, and these
// exist only inside the wire's namespaces.
extern const char* const kAddrA;
extern const char* const kAddrB;

enum class Side { A, B };

struct TunWireConfig {
    Impairment a_to_b;
    Impairment b_to_a;
    JitterModel jitter_model = JitterModel::Uniform;
    // A packet never leaves before one that arrived earlier in the same
    // direction (a single FIFO link) when set; jitter may reorder otherwise.
    bool keep_order = false;
    uint64_t seed = 1;
    // Packet records kept until `take_log`; later packets are still
    // forwarded, only counted in `log_overflow`.
    size_t max_log = 1 << 16;
};

// What the wire saw of one IPv4 packet. Ports, ids and sequence numbers
// are in host byte order.
struct PacketInfo {
    uint8_t proto = 0; // IP protocol number: 1 ICMP, 6 TCP, 17 UDP
    uint16_t sport = 0, dport = 0;
    uint8_t tcp_flags = 0;
    uint8_t icmp_type = 0;
    uint16_t icmp_id = 0, icmp_seq = 0;
    // UDP payload bytes 4 to 19 when present: a STUN cookie and transaction
    // id, which an answer repeats.
    bool has_tag = false;
    uint8_t tag[16] = {};
};

// Reads the headers of an IPv4 packet. False when it isn't one or is cut
// short; transport fields stay 0 when the packet is a later fragment.
bool parse_ipv4_packet(const uint8_t* p, size_t n, PacketInfo& out);

struct WireRecord {
    double at_ms = 0;    // when the shuttle read it, ms since the wire started
    bool a_to_b = true;  // direction
    bool dropped = false;
    double delay_ms = 0; // delay drawn for it; 0 for a dropped packet
    // When the shuttle wrote it into the other side, on the same clock; -1
    // when dropped, refused, or still held back when the log was taken.
    double out_ms = -1;
    PacketInfo info;
};

struct WireDirectionStats {
    uint64_t forwarded = 0;
    uint64_t dropped = 0;      // by the loss draw
    uint64_t write_failed = 0; // the TUN refused the packet
    double delay_sum_ms = 0;   // over forwarded packets
    double late_sum_ms = 0;    // lateness of the writes against their due times
    double late_max_ms = 0;
};

struct WireStats {
    WireDirectionStats a_to_b, b_to_a;
    uint64_t not_ipv4 = 0; // read and discarded (IPv6 chatter of the devices)
    uint64_t log_overflow = 0;
};

// One request from A and B's answer to it: a TCP SYN and its SYN-ACK (or
// RST), an ICMP echo and its reply, a UDP datagram and the first answer
// with the same tag.
struct RoundTrip {
    uint8_t proto = 0;
    double at_ms = 0; // when the first copy of the request reached the wire
    bool answered = false;
    // From the request reaching the wire to the answer leaving it towards A
    // (as written, or as due when the write came after the log was taken):
    // the path's delay both ways plus B's own time. Meaningful when answered.
    double truth_ms = 0;
};

// Pairs requests and answers in a log. A request repeated before its answer
// (a retransmitted SYN) counts once, from its first copy.
std::vector<RoundTrip> round_trips(const std::vector<WireRecord>& log);

// Plain baselines through whatever path the calling thread's namespace
// has, timed on the steady clock: the wire's truth checked against an
// ordinary client. Each gives the milliseconds taken, or -1 on failure or
// after `timeout_ms`.
//
// A blocking TCP connect (SYN to SYN-ACK).
double plain_connect_ms(const char* ip, uint16_t port, int timeout_ms);
// One ICMP echo on a raw socket (root), answered by the kernel at `ip`.
double plain_echo_ms(const char* ip, uint16_t id, uint16_t seq, int timeout_ms);
// One STUN Binding Request over UDP, to a responder at ip:port.
double plain_stun_ms(const char* ip, uint16_t port, int timeout_ms);

class TunWire {
public:
    explicit TunWire(TunWireConfig config);
    // Stops the shuttle; packets still held back are discarded.
    ~TunWire();
    TunWire(const TunWire&) = delete;
    TunWire& operator=(const TunWire&) = delete;

    // True when this process may make namespaces and TUN devices; otherwise
    // false with the reason in `why`.
    static bool permitted(std::string* why);

    // Makes both namespaces and their devices and starts the shuttle.
    // 0, or -1 with `error` filled.
    int start(std::string* error = nullptr);
    void stop();

    // Moves the calling thread into a side's namespace: sockets it opens
    // and threads it starts from then on live there. Before start, or when
    // the kernel refuses, -1 with `error` filled.
    int enter(Side side, std::string* error = nullptr);
    // Runs `fn` on a thread of its own inside a side's namespace and waits
    // for it: for servers that must live in B while the caller stays in A.
    int run_in(Side side, const std::function<void()>& fn, std::string* error = nullptr);

    // Changes the impairment of both directions for packets read from now
    // on; the draws start again from the configured seed.
    void set_impairment(const Impairment& a_to_b, const Impairment& b_to_a);

    // The records since the last call (or the start), oldest first.
    std::vector<WireRecord> take_log();
    WireStats stats() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace zeph_wire
