// DetectSocket: the probe endpoint of the event-driven detections, one class
// per transport (UDP, TCP, ICMP), made by SocketFactory<DetectSocket> from
// the text of its transport. A socket knows how to open itself, how to put
// the probe of its detection protocol on the wire and how to read the
// sequence number out of an answer. It has no thread and no lock: it is
// opened on the thread that starts its detection, driven by one thread at a
// time (message or timer thread), and read by the receive thread only
// through what does not change once the socket is in the message core's
// table (descriptor, transport, proxy address).
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "bwdetect/detect_base.h"
#include "commonlib/zeph_commonlib.h"
#include "inc/net_tools_log.h"

// ---- numbers shared with the detections ----------------------------------------------
// Detection protocol: which probe a UDP socket sends.
enum : uint32_t {
    DETECT_PROTO_STUN = 0,        // STUN binding request
    DETECT_PROTO_STUN_CUSTOM = 1, // the private NPS probe
    DETECT_PROTO_ICE = 2,         // ICE check built by the STUN service
};
// Transport numbers (get_trans_type).
enum : uint32_t {
    DETECT_TRANS_TCP = 1,
    DETECT_TRANS_UDP = 2,
    DETECT_TRANS_IP = 3, // the plain base class
    DETECT_TRANS_ICMP = 11,
};

// Local ports of bind: the walk starts here, moves on after each bind and
// wraps back to the start once it reaches the limit.
constexpr uint16_t DETECT_SOCKET_START_PORT = 60000;
constexpr uint16_t DETECT_SOCKET_PORT_LIMIT = 65000;
constexpr uint32_t DETECT_SOCKET_BIND_TRIES = 16;

// Probe sizes.
constexpr int32_t DETECT_NPS_PKT_LEN = 1200;    // default length of an NPS probe
constexpr uint32_t DETECT_STUN_REQ_LEN = 20;    // a STUN binding request is its header
constexpr uint32_t DETECT_ICE_BUF_SIZE = 288;   // room given to the STUN service for an ICE check
constexpr uint32_t DETECT_ICMP_REQ_LEN = 44;    // an echo request
constexpr uint8_t DETECT_NPS_LEVEL = 1;         // pkt_level of an NPS probe
constexpr uint16_t DETECT_NPS_TYPE = 2;         // pkt_type of an NPS probe
constexpr uint16_t DETECT_NPS_HEAD_LEN = 1400;  // pkt_len written in an NPS probe's head
// Key of the ICE information an ICE check is built for (any session).
constexpr const char* DETECT_ICE_KEY = "stun_audio";

// What http_proxy_connect answers when the socket has no descriptor.
constexpr uint32_t DETECT_PROXY_NO_SOCKET = 4;

// Keys of the factory.
constexpr const char* DETECT_SOCKET_KEY_UDP = "udp";
constexpr const char* DETECT_SOCKET_KEY_TCP = "tcp";
constexpr const char* DETECT_SOCKET_KEY_ICMP = "icmp";

// ---- the socket family -------------------------------------------------------------------

class DetectSocket : public DetectBase {
public:
    DetectSocket();
    ~DetectSocket() override;

    // ---- virtual operations ----
    // Starts a connect to the destination (the proxy, for TCP with one).
    // MORL_Connect's result; -1 without a descriptor. A non-blocking TCP
    // connect always gives -1 (would block) and is no failure.
    virtual int32_t connect();
    // Puts one probe on the wire: the connect for TCP, the form of the
    // detection protocol for UDP, an echo request for ICMP.
    virtual void send_buf(uint32_t seq);
    // The sequence number an answer carries; 0 when this transport or
    // protocol has none or the packet is no answer.
    virtual uint32_t get_recv_seq(const uint8_t* pkt, int32_t len);
    // MORL_Send of the connected socket; -1 without a descriptor.
    virtual int32_t send(const void* buf, uint32_t len);
    virtual const char* get_type_str() const;
    virtual uint32_t get_trans_type() const;
    virtual uint16_t get_start_port() const;
    virtual void set_start_port(uint16_t port);

    // ---- addressing ----
    // `ip` in host byte order.
    void set_dest_addr(uint32_t ip, uint16_t port);
    void set_proxy_addr(uint32_t ip, uint16_t port);
    // `ip` in network byte order; used by bind.
    void set_local_ip(uint32_t ip) { m_local_ip = ip; }
    void set_detect_type(uint32_t type) { m_detect_type = type; }
    void set_pkt_len(int32_t len);

    uint32_t get_detect_type() const { return m_detect_type; }
    uint32_t get_dest_ip() const { return m_dest_ip; }
    const std::string& get_dest_ip_str() const { return m_dest_ip_str; }
    uint16_t get_dest_port() const { return m_dest_port; }
    uint32_t get_proxy_ip() const { return m_proxy_ip; }
    uint16_t get_proxy_port() const { return m_proxy_port; }
    uint16_t get_local_port() const { return m_local_port; }
    int32_t get_pkt_len() const { return m_pkt_len; }
    // The descriptor, MORL_INVALID_SOCKET while none is open.
    MORL_SOCKET get_fd() const { return m_sock ? *m_sock : MORL_INVALID_SOCKET; }

    // ---- opening ----
    // Opens a fresh non-blocking descriptor (dropping an old one); UDP and
    // ICMP are connected to the destination at once. Empty, with nothing
    // open, without a destination address and port or on failure.
    DetectSockPtr create();
    // Deleter of the descriptor holder: closes the descriptor and frees it.
    static void destory(MORL_SOCKET* holder);
    // Binds the local address to the next free port of this transport's
    // walk; the port obtained is get_local_port(), 0 when none was.
    void bind();
    // MORL_Sendto to ip (host byte order):port; -1 without a descriptor.
    int32_t sendto(const void* buf, uint32_t len, uint32_t ip, uint16_t port);

    // ---- probes ----
    void stun_buf_init();
    void send_stun_buf(uint32_t seq);
    void nps_buf_init();
    void send_nps_buf(uint32_t seq);
    void send_ice_buf();

    // ---- through the HTTP proxy ----
    // Hands the (not yet connected) descriptor to the proxy service, which
    // connects it to the configured proxy, opens a tunnel to the
    // destination and calls `on_result(fd, result)` once, later, on its own
    // thread (result 0: the tunnel is open). The message core gives its
    // result handler; the socket calls no detection itself. 0 when started,
    // -1 without a descriptor or when the service refused.
    int32_t proxy_connect_asyn(zeph_http_proxy_connect_cb on_result);

protected:
    // Fills the 16-byte socket address of ip (host byte order):port.
    static void make_addr(MORL_SockAddrIn& addr, uint32_t ip, uint16_t port);
    // MORL_Connect to ip (host byte order):port, with the log line of a
    // connect that did not complete at once.
    int32_t connect_to(uint32_t ip, uint16_t port);

    int32_t m_sock_type = 0;
    int32_t m_sock_protocol = 0;
    uint32_t m_detect_type = DETECT_PROTO_STUN;
    uint32_t m_dest_ip = 0; // host byte order
    std::string m_dest_ip_str;
    uint16_t m_dest_port = 0;
    uint32_t m_proxy_ip = 0; // host byte order
    uint16_t m_proxy_port = 0;
    uint32_t m_local_ip = 0; // network byte order
    uint16_t m_local_port = 0;
    int32_t m_pkt_len = DETECT_NPS_PKT_LEN;
};

class DetectSocketUDP : public DetectSocket {
public:
    DetectSocketUDP();
    void send_buf(uint32_t seq) override;
    // STUN, NPS and ICE answers: the big-endian word at offset 16.
    uint32_t get_recv_seq(const uint8_t* pkt, int32_t len) override;
    const char* get_type_str() const override;
    uint32_t get_trans_type() const override;
    uint16_t get_start_port() const override;
    void set_start_port(uint16_t port) override;
};

class DetectSocketTCP : public DetectSocket {
public:
    DetectSocketTCP();
    // With a proxy address, connects to the proxy instead of the destination.
    int32_t connect() override;
    const char* get_type_str() const override;
    uint32_t get_trans_type() const override;
    uint16_t get_start_port() const override;
    void set_start_port(uint16_t port) override;

    // The proxy of http_proxy_connect: ip in network byte order.
    void set_http_proxy_ip(uint32_t ip) { m_http_proxy_ip = ip; }
    void set_http_proxy_port(uint16_t port) { m_http_proxy_port = port; }
    void set_http_proxy_flag(uint8_t flag) { m_http_proxy_flag = flag; }
    uint32_t get_http_proxy_ip() const { return m_http_proxy_ip; }
    uint16_t get_http_proxy_port() const { return m_http_proxy_port; }
    uint8_t get_http_proxy_flag() const { return m_http_proxy_flag; }
    // Blocking CONNECT handshake over a descriptor already connected to the
    // proxy: zeph_http_proxy_connect_ex's result, DETECT_PROXY_NO_SOCKET
    // without a descriptor.
    uint32_t http_proxy_connect();

private:
    uint32_t m_http_proxy_ip = 0;
    uint16_t m_http_proxy_port = 0;
    uint8_t m_http_proxy_flag = 0;
};

class DetectSocketICMP : public DetectSocket {
public:
    DetectSocketICMP();
    // An echo request with seq, or with the next of its own numbers when seq is 0.
    void send_buf(uint32_t seq) override;
    // The echo reply's sequence less the base; 0 for anything that is not
    // a reply to this socket.
    uint32_t get_recv_seq(const uint8_t* pkt, int32_t len) override;
    const char* get_type_str() const override;
    uint32_t get_trans_type() const override;
    uint16_t get_start_port() const override;

    // Writes an echo request into buf (at least DETECT_ICMP_REQ_LEN bytes)
    // and sends it to the destination; MORL_Sendto's result, -1 without a
    // descriptor.
    int32_t send_icmp(uint8_t* buf, uint32_t seq);
    // Whether the IP datagram pkt (as a raw socket reads it) is an echo
    // reply to this socket.
    bool is_icmp_response(const uint8_t* pkt, int32_t len);

private:
    uint16_t m_req_id = 0;
    uint16_t m_seq_base = 0;
    uint32_t m_next_seq = 0;
};

// ---- the factory ----------------------------------------------------------------------------

template <class Base>
class ISocketRegistrar {
public:
    virtual std::shared_ptr<Base> create() = 0;
    virtual ~ISocketRegistrar() = default;
};

// Makes sockets by the text of their transport. Registrars enter
// themselves at load; get_socket runs on any thread.
template <class Base>
class SocketFactory {
public:
    // The process's factory, made at the first use.
    static SocketFactory& instance();

    // Stores `registrar` under `key`, replacing an earlier one.
    void register_socket(const std::string& key, ISocketRegistrar<Base>* registrar) {
        std::lock_guard<std::mutex> guard(m_lock);
        m_socket_registry[key] = registrar;
    }

    // A new socket of the kind registered under `key`; empty, with an
    // error line, for an unknown key.
    std::shared_ptr<Base> get_socket(const std::string& key) {
        ISocketRegistrar<Base>* registrar = nullptr;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            auto it = m_socket_registry.find(key);
            if (it != m_socket_registry.end()) registrar = it->second;
        }
        if (registrar == nullptr) {
            NT_LOGE("No socket found for %s", key.c_str());
            return std::shared_ptr<Base>();
        }
        NT_LOGD("m_socket_registry[%s]=0x%x", key.c_str(),
                nt_log_addr(registrar));
        return registrar->create();
    }

private:
    SocketFactory() = default;
    std::mutex m_lock;
    std::map<std::string, ISocketRegistrar<Base>*> m_socket_registry;
};

// Defined beside the three registrars, so that every user of the factory
// brings them along.
template <>
SocketFactory<DetectSocket>& SocketFactory<DetectSocket>::instance();

template <class Base, class T>
class SocketRegistrar : public ISocketRegistrar<Base> {
public:
    explicit SocketRegistrar(const std::string& key) { SocketFactory<Base>::instance().register_socket(key, this); }
    // Empty when there is no memory for it: making a socket never throws.
    std::shared_ptr<Base> create() override {
        try {
            return std::make_shared<T>();
        } catch (const std::bad_alloc&) {
            return std::shared_ptr<Base>();
        }
    }
};
