// DetectBase: the root of every detection and probe socket. It gives each
// object a millisecond clock of its own, a seven-state life cycle, a run flag
// that the object's thread loops read, one 1400-byte packet image with typed
// access to the quality packet's head (both layouts, through the codec of
// quality_wire.h), and the making of a non-blocking UDP socket connected to
// a server.
//
// The class has no thread. Its methods run on whichever thread calls them:
// the state and the run flag are atomics read and written from any of the
// object's threads; the clock fields are written once, by the constructor.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bwdetect/quality_wire.h"
#include "os_adapter/morl_os.h"
#include "zeph_nettools/net_tools.h"

class DetectSocket;

// The object's socket; its deleter is DetectBase::close_socket.
using DetectSockPtr = std::shared_ptr<MORL_SOCKET>;

// DetectSiteInfo, one site of a quality detection, is a record of the
// public header.

enum DetectState : int32_t {
    DETECT_STATE_IDLE = 0,       // nothing going on, or an exchanger ready for reuse
    DETECT_STATE_CONNECTING = 1, // the auth request is going out
    DETECT_STATE_SENDING = 2,    // authenticated or no auth needed; packets going out
    DETECT_STATE_FAILED = 3,     // the peer refused the token of a data packet
    DETECT_STATE_SEND_FIN = 4,   // all packets of the exchange are sent
    DETECT_STATE_STAT_FIN = 5,   // the statistics are computed and can be read
    DETECT_STATE_END = 6,        // the exchange with the server is over
};

// Results of check_token.
constexpr int32_t DETECT_ERR_TOO_MANY_SITES = 29;
constexpr int32_t DETECT_ERR_BAD_TOKEN = 30;
// Sites a quality detection takes at most.
constexpr size_t DETECT_MAX_SITES = 10;

class DetectBase {
public:
    DetectBase();
    virtual ~DetectBase();
    DetectBase(const DetectBase&) = delete;
    DetectBase& operator=(const DetectBase&) = delete;

    // ---- virtual operations (entry points of the event-driven runtime first) ----
    virtual uint32_t get_recv_msg_id();
    virtual void recv_pkt(const uint8_t* data, uint32_t len, std::shared_ptr<DetectSocket> sock,
                          std::shared_ptr<DetectBase> detect);
    virtual void recv_http_over_proxy_resp(std::shared_ptr<DetectSocket> sock, std::shared_ptr<DetectBase> detect,
                                           uint32_t result);
    virtual void recv_dns(const char* host, uint32_t addr);
    virtual void recv_timeout(uint64_t timer);
    // 1 for a good packet, 0 for a bad one; `len` is the datagram's length.
    virtual int32_t recv_pkt_is_valid(const uint8_t* pkt, size_t len);
    // 0 when `sock` is bound; anything else fails create_socket. The base
    // leaves the socket unbound.
    virtual int32_t bind_port(MORL_SOCKET sock);

    // ---- clock ----
    // Milliseconds since construction; 0xFFFFFFFF when the counter has no
    // frequency.
    int64_t get_runtime_current();
    // A moment on the scale of MORL_QueryPerformanceCounter (a packet's
    // arrival) read on this object's clock: milliseconds since
    // construction, 0 for a moment before it, 0xFFFFFFFF when the counter
    // has no frequency.
    int64_t runtime_at(int64_t counter) const;
    // The packet being handed to recv_pkt arrived at `counter` (0: unknown).
    // Set by the message thread around recv_pkt, read only there.
    void set_answer_arrival(int64_t counter) { m_answer_arrival = counter; }
    // The arrival of the packet being handled on this object's clock; the
    // current time when its arrival is unknown.
    int64_t answer_time();
    // second - first over the wrap of 32-bit times; read as signed where the
    // sign matters.
    static uint32_t get_time_diff(uint32_t first, uint32_t second);
    // 0 if `current` lies in [start, end] (a range that wraps when end is
    // below start); 1, with a log line, otherwise and always when end equals
    // start.
    static int32_t time_is_out_range(uint32_t start, uint32_t end, uint32_t current);

    // ---- sleeping ----
    // Sleeps one millisecond less than asked (but at least the request when
    // it is below 2), at most 40 ms.
    static void sleep_with_fine_timer(uint32_t sleep_time);
    // The sleep asked of the system for a request of `sleep_time`.
    static uint32_t fine_timer_sleep_ms(uint32_t sleep_time);
    // Measures what one nominal second of 1..5 ms sleeps really takes
    // (about 3 s of sleeping) into the precision table.
    void precision_sleep_time();
    uint32_t get_sleep_precision(uint32_t sleep_time) const;

    // ---- state and run flag ----
    // 0 if the switch was made, 1 if refused.
    int32_t set_state(int32_t new_state);
    int32_t get_state() const { return m_state.load(); }
    uint32_t is_running() const { return m_running.load(); }
    void set_running(uint32_t value) { m_running.exchange(value); }
    void set_is_stun(uint32_t value) { m_is_stun = value; }
    uint32_t get_is_stun() const { return m_is_stun; }

    // ---- packet image: token, parameter, sites ----
    // `token` is zero-terminated; the rest of the field is filled with FF.
    // Lengths are check_token's to enforce.
    void set_pkt_auth_token(uint8_t* pkt, size_t size, const char* token);
    void set_pkt_auth_para(uint8_t* pkt, size_t size, const char* para);
    // 0, DETECT_ERR_TOO_MANY_SITES or DETECT_ERR_BAD_TOKEN.
    static int32_t check_token(const std::vector<DetectSiteInfo>& sites);

    // ---- head accessors: each takes a packet and its size, the layout by m_is_stun ----
    void set_pkt_tag(uint8_t* pkt, size_t size);
    void set_pkt_nonce(uint8_t* pkt, size_t size); // two random bytes
    void set_pkt_mark(uint8_t* pkt, size_t size);
    void set_pkt_fill(uint8_t* pkt, size_t size);
    void set_pkt_ver(uint8_t* pkt, size_t size, uint8_t ver);
    uint8_t get_pkt_ver(const uint8_t* pkt, size_t size) const;
    void set_pkt_flag(uint8_t* pkt, size_t size, uint8_t bits);
    void clear_pkt_flag(uint8_t* pkt, size_t size, uint8_t bits);
    int32_t test_pkt_flag(const uint8_t* pkt, size_t size, uint8_t bits) const;
    void set_pkt_type(uint8_t* pkt, size_t size, uint16_t type);
    uint16_t get_pkt_type(const uint8_t* pkt, size_t size) const;
    void set_pkt_cookie(uint8_t* pkt, size_t size);
    uint32_t get_pkt_cookie(const uint8_t* pkt, size_t size) const;
    void set_pkt_seq(uint8_t* pkt, size_t size, uint32_t seq);
    uint32_t get_pkt_seq(const uint8_t* pkt, size_t size) const;
    void set_pkt_session(uint8_t* pkt, size_t size, uint32_t session);
    uint32_t get_pkt_session(const uint8_t* pkt, size_t size) const;
    void set_pkt_time(uint8_t* pkt, size_t size, uint32_t time);
    uint32_t get_pkt_time(const uint8_t* pkt, size_t size) const;
    void set_pkt_level(uint8_t* pkt, size_t size, uint8_t level);
    uint8_t get_pkt_level(const uint8_t* pkt, size_t size) const;
    void set_pkt_pair_count(uint8_t* pkt, size_t size, uint8_t count);
    uint8_t get_pkt_pair_count(const uint8_t* pkt, size_t size) const;
    void set_pkt_len(uint8_t* pkt, size_t size, uint16_t len);
    uint16_t get_pkt_len(const uint8_t* pkt, size_t size) const;
    void set_pkt_pair_seq(uint8_t* pkt, size_t size, uint32_t index, uint32_t seq);
    uint32_t get_pkt_pair_seq(const uint8_t* pkt, size_t size, uint32_t index) const;
    void set_pkt_pair_time(uint8_t* pkt, size_t size, uint32_t index, uint32_t time);
    uint32_t get_pkt_pair_time(const uint8_t* pkt, size_t size, uint32_t index) const;
    void set_pkt_status(uint8_t* pkt, size_t size, uint32_t status);
    uint32_t get_pkt_status(const uint8_t* pkt, size_t size) const;
    void set_pkt_auth_result(uint8_t* pkt, size_t size, uint32_t result);
    // quality::kAuthNotAResponse (counts as refused) unless the type is the auth response.
    uint32_t get_auth_result(const uint8_t* pkt, size_t size) const;
    // The image a client sends from, in the private layout, with a fresh
    // random nonce (quality::build_image).
    void build_pkt_image(uint8_t* pkt, size_t size, uint32_t session, uint8_t level);
    // Its STUN form (quality::build_stun_image); switches this object to the
    // STUN layout.
    void build_stun_pkt_image(uint8_t* pkt, size_t size, uint32_t session);
    // Version, cookie, seq not negative and below `seq_limit`
    // (quality::kSeqNoLimit: none); 1 if all hold, else 0.
    int32_t base_pkt_is_valid(const uint8_t* pkt, size_t size, uint32_t seq_limit) const;

    // ---- sockets ----
    // A non-blocking IPv4 UDP socket, bound by bind_port, with large buffers;
    // empty on failure.
    DetectSockPtr create_socket();
    // create_socket, binding from `client_port` up (through bind_port), then
    // connected to server_ip:server_port; empty on failure.
    DetectSockPtr init_socket(const char* server_ip, uint16_t server_port, uint16_t client_port);
    // The deleter of every DetectSockPtr: closes the socket once and frees the holder.
    static void close_socket(MORL_SOCKET* sockptr);

    static const char* get_trans_str(uint32_t protocol);

protected:
    // Moves the clock's origin and rate (a test reads the clock as if the
    // object had run for months, or on a counter without a frequency).
    void set_clock(int64_t start_time, int64_t freq_time) {
        m_start_time = start_time;
        m_freq_time = freq_time;
    }
    // The start barrier of an event-driven detection: its start holds it for
    // its whole run on the caller's thread, and each event the runtime
    // delivers passes it first, so that no event overlaps the end of the start.
    std::unique_lock<std::mutex> hold_start_barrier() { return std::unique_lock<std::mutex>(m_start_mutex); }
    void pass_start_barrier() { std::lock_guard<std::mutex> passed(m_start_mutex); }

public:
    DetectSockPtr m_sock;
    uint8_t m_pkt_buf[zeph::quality::kImageSize] = {};

protected:
    std::atomic<int32_t> m_state{DETECT_STATE_IDLE};
    std::atomic<uint32_t> m_running{0};
    std::atomic<uint32_t> m_inited{1};
    int64_t m_start_time = 0;
    int64_t m_freq_time = 0;
    int64_t m_answer_arrival = 0;
    std::vector<uint32_t> m_sleep_precision;
    uint16_t m_cli_port = 0;
    uint32_t m_is_stun = 0;

private:
    std::mutex m_start_mutex;
};
