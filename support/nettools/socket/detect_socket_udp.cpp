// DetectSocketUDP: sends the probe of its detection protocol (STUN binding
// request, NPS probe or ICE check) on its connected datagram socket and
// reads the sequence number back out of an answer. Runs on the thread that
// drives its detection; the start port of the bind walk is shared by all
// UDP sockets of the process.
#include <atomic>

#include "bwdetect/quality_wire.h"
#include "inc/detect_socket.h"

namespace {
std::atomic<uint16_t> s_udp_start_port{DETECT_SOCKET_START_PORT};
} // namespace

DetectSocketUDP::DetectSocketUDP() {
    m_sock_type = MORL_SOCK_DGRAM;
    m_sock_protocol = MORL_IPPROTO_UDP;
}

void DetectSocketUDP::send_buf(uint32_t seq) {
    switch (m_detect_type) {
    case DETECT_PROTO_STUN:
        stun_buf_init();
        send_stun_buf(seq);
        break;
    case DETECT_PROTO_STUN_CUSTOM:
        nps_buf_init();
        send_nps_buf(seq);
        break;
    case DETECT_PROTO_ICE:
        send_ice_buf();
        break;
    default:
        break;
    }
}

uint32_t DetectSocketUDP::get_recv_seq(const uint8_t* pkt, int32_t len) {
    switch (m_detect_type) {
    case DETECT_PROTO_STUN:
    case DETECT_PROTO_STUN_CUSTOM:
    case DETECT_PROTO_ICE:
        // A STUN server echoes the transaction id, and with it the word at 16.
        return zeph::quality::get_seq(pkt, len > 0 ? static_cast<size_t>(len) : 0);
    default:
        return 0;
    }
}

const char* DetectSocketUDP::get_type_str() const { return DETECT_SOCKET_KEY_UDP; }
uint32_t DetectSocketUDP::get_trans_type() const { return DETECT_TRANS_UDP; }
uint16_t DetectSocketUDP::get_start_port() const { return s_udp_start_port.load(); }
void DetectSocketUDP::set_start_port(uint16_t port) { s_udp_start_port.store(port); }
