// Arbitrary datagrams as answers to the probe sockets: the sequence number
// a UDP socket reads out of an answer for each detection protocol, and the
// echo reply check and sequence of an ICMP socket (an IP header of any
// length in front).
//
// Input: the datagram itself, copied into a buffer of exactly its length so
// that a read behind it is caught.
//
// Checks: a UDP socket of the STUN, NPS and ICE forms reads the big-endian
// word at 16 and nothing when the datagram is shorter; an unknown protocol
// reads 0. An ICMP answer is taken only as an echo reply with this socket's
// identifier whose head is all there, and its sequence is then the reply's;
// anything refused reads 0.
//
// Verdict: "udp seq=N" (or "udp none" for a datagram too short), then
// "icmp accepted seq=N" or "icmp refused: " and the check's own words.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_verdict.h"
#include "inc/detect_socket.h"
#include "zeph_nettools/settings.h"

namespace {

#define CHECK(cond)                                                                                              \
    do {                                                                                                         \
        if (!(cond)) __builtin_trap();                                                                           \
    } while (0)

constexpr size_t kMaxDatagram = 2048;
constexpr size_t kSeqOffset = 16;
constexpr size_t kSeqEnd = kSeqOffset + 4;
constexpr uint32_t kUnknownProto = 3;
constexpr size_t kIcmpHead = 12;
constexpr const char* kIcmpTag = "[icmp_detect] ";

std::string g_verdict;
std::string g_icmp_words; // the last "[icmp_detect]" line, without its tag

void record_sink(void*, int, const char*, const char*, const char*, int, const char* message) {
    const std::string line = message ? message : "";
    if (line.compare(0, std::strlen(kIcmpTag), kIcmpTag) == 0) g_icmp_words = line.substr(std::strlen(kIcmpTag));
}

struct Sockets {
    Sockets() {
        zeph_settings_set_log_sink(record_sink, nullptr, 3);
        for (uint32_t type = DETECT_PROTO_STUN; type <= kUnknownProto; ++type) {
            udp.push_back(std::make_shared<DetectSocketUDP>());
            udp.back()->set_detect_type(type);
        }
        icmp = std::make_shared<DetectSocketICMP>();
    }
    std::vector<std::shared_ptr<DetectSocketUDP>> udp;
    std::shared_ptr<DetectSocketICMP> icmp;
};

uint32_t be32_at(const uint8_t* d, size_t at) {
    return uint32_t(d[at]) << 24 | uint32_t(d[at + 1]) << 16 | uint32_t(d[at + 2]) << 8 | d[at + 3];
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Sockets& sockets = *new Sockets;
    if (size > kMaxDatagram) size = kMaxDatagram;
    // Exactly the datagram: no slack behind it for a read to hide in.
    std::unique_ptr<uint8_t[]> dgram(new uint8_t[size ? size : 1]);
    if (size) std::memcpy(dgram.get(), data, size);
    const int32_t len = static_cast<int32_t>(size);

    const uint32_t want = size >= kSeqEnd ? be32_at(dgram.get(), kSeqOffset) : 0;
    for (uint32_t type = DETECT_PROTO_STUN; type <= DETECT_PROTO_ICE; ++type)
        CHECK(sockets.udp[type]->get_recv_seq(dgram.get(), len) == want);
    CHECK(sockets.udp[kUnknownProto]->get_recv_seq(dgram.get(), len) == 0);
    g_verdict = size >= kSeqEnd ? "udp seq=" + std::to_string(want) : std::string("udp none");

    g_icmp_words.clear();
    const bool accepted = sockets.icmp->is_icmp_response(dgram.get(), len);
    const std::string words = g_icmp_words;
    const uint32_t seq = sockets.icmp->get_recv_seq(dgram.get(), len);
    if (accepted) {
        const size_t ihl = size_t(dgram[0] & 0x0F) * 4;
        CHECK(size >= ihl + kIcmpHead);
        CHECK(dgram[ihl] == 0);                            // echo reply
        CHECK(dgram[ihl + 4] == 0 && dgram[ihl + 5] == 0); // this socket's identifier
        CHECK(seq == (uint32_t(dgram[ihl + 6]) << 8 | dgram[ihl + 7]));
        g_verdict += ", icmp accepted seq=" + std::to_string(seq);
    } else {
        CHECK(seq == 0);
        g_verdict += ", icmp refused: " + words;
    }
    return 0;
}

std::string FuzzVerdict() { return g_verdict; }
