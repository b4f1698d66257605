// DetectSocketICMP: echo requests on a raw socket and the recognition of
// the echo replies to them. Runs on the thread that drives its detection;
// the receive side's check runs on the message thread.
#include "inc/byte_io.h"
#include "inc/detect_socket.h"
#include "inc/icmp_wire.h"

namespace icmp = zeph::icmp;

DetectSocketICMP::DetectSocketICMP() {
    m_sock_type = MORL_SOCK_RAW;
    m_sock_protocol = MORL_IPPROTO_ICMP;
}

void DetectSocketICMP::send_buf(uint32_t seq) {
    if (seq == 0) seq = m_next_seq++;
    send_icmp(m_pkt_buf, seq);
}

uint32_t DetectSocketICMP::get_recv_seq(const uint8_t* pkt, int32_t len) {
    if (!is_icmp_response(pkt, len)) return 0;
    icmp::EchoHead head;
    icmp::read_echo_head(pkt, static_cast<size_t>(len), head);
    return static_cast<uint16_t>(head.seq - m_seq_base);
}

const char* DetectSocketICMP::get_type_str() const { return DETECT_SOCKET_KEY_ICMP; }
uint32_t DetectSocketICMP::get_trans_type() const { return DETECT_TRANS_ICMP; }
uint16_t DetectSocketICMP::get_start_port() const { return DETECT_SOCKET_START_PORT; }

int32_t DetectSocketICMP::send_icmp(uint8_t* buf, uint32_t seq) {
    if (!m_sock) {
        NT_LOGE("sock is null");
        return -1;
    }
    zeph::ByteWriter w(buf, DETECT_ICMP_REQ_LEN);
    const uint16_t wire_seq = static_cast<uint16_t>(m_seq_base + seq);
    if (!icmp::write_echo_request(w, m_req_id, wire_seq, static_cast<uint32_t>(get_runtime_current()))) return -1;
    MORL_SockAddrIn addr;
    make_addr(addr, m_dest_ip, 0);
    return MORL_Sendto(*m_sock, buf, static_cast<int>(DETECT_ICMP_REQ_LEN), 0, &addr, sizeof addr);
}

bool DetectSocketICMP::is_icmp_response(const uint8_t* pkt, int32_t len) {
    const size_t size = len > 0 ? static_cast<size_t>(len) : 0;
    icmp::EchoHead head;
    if (!icmp::read_echo_head(pkt, size, head)) {
        NT_LOGE("[icmp_detect] pkt_len is small(%d)", len);
        return false;
    }
    if (head.type != icmp::kEchoReply) {
        NT_LOGE("[icmp_detect] pkt_type is invalid(%u)", static_cast<unsigned>(head.type));
        return false;
    }
    if (head.id != m_req_id) {
        NT_LOGE("[icmp_detect] req_id is invalid(%u!=%u)", static_cast<unsigned>(head.id),
                static_cast<unsigned>(m_req_id));
        return false;
    }
    if (head.seq < m_seq_base) {
        NT_LOGE("[icmp_detect] seq_no is invalid(%u!=%u)", static_cast<unsigned>(head.seq),
                static_cast<unsigned>(m_seq_base));
        return false;
    }
    NT_LOGI("[icmp_detect] icmp success (reqid=%u, seq=%u)", static_cast<unsigned>(head.id),
            static_cast<unsigned>(head.seq));
    return true;
}
