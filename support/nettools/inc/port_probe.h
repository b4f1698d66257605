// Port probes.
//
// A probe answers one question about one destination: can this IPv4
// address and port be reached over this transport, and how long did the
// answer take. It runs on detached threads of its own; each such thread
// holds a shared reference to its probe, so a probe is never freed under a
// running thread. Owners watch `get_result()` from their own threads.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "inc/log_thinner.h"
#include "os_adapter/morl_os.h"
#include "zeph_nettools/net_tools.h"

enum ProbeResult : uint32_t {
    PROBE_IDLE = 0,
    PROBE_RUNNING = 1,
    PROBE_TIMEOUT = 2,
    PROBE_FAILED = 3,
    PROBE_PROXY_FAILED = 4,
    PROBE_REACHED = 5,
};

class PortDetectBase : public std::enable_shared_from_this<PortDetectBase> {
public:
    PortDetectBase(uint32_t addr, uint16_t port, uint32_t protocol);
    virtual ~PortDetectBase();
    PortDetectBase(const PortDetectBase&) = delete;
    PortDetectBase& operator=(const PortDetectBase&) = delete;

    virtual const char* get_type() const;
    virtual void resend();
    virtual uint16_t get_bind_port();
    virtual void set_bind_port(uint16_t port);

    void set_time_out(uint32_t ms) { m_time_out = ms; }
    uint32_t get_result() const { return m_result.load(); }
    void set_result(uint32_t r) { m_result.exchange(r); }
    uint32_t get_delay() const { return m_delay.load(); }
    void set_delay(uint32_t d) { m_delay.exchange(d); }
    uint32_t get_addr() const { return m_addr; }
    uint16_t get_port() const { return m_port; }
    uint16_t get_local_port() const { return m_local_port.load(); }
    uint32_t get_local_addr() const { return m_local_addr.load(); }
    const std::string& get_addr_str() const { return m_addr_str; }
    // Asks every thread of the probe to leave within one poll.
    void finish() { m_finish.exchange(1); }

    // Milliseconds since construction, by the probe's own counter.
    int64_t get_runtime_win() const;
    // The same clock in microseconds, for delays measured to the millisecond.
    int64_t get_runtime_us() const;

    void create_socket();
    static void close_socket(MORL_SOCKET* holder);
    // Creates and connects the socket and starts the thread(s) of the mode:
    // net_mode 0 establishes reachability, 1 measures one delay.
    void start_probe(uint32_t net_mode);
    int bind_port();

    // Probes alive in the process (for lifetime checks).
    static int live_count();

protected:
    // What a readiness handler of wait_socket tells it.
    enum class WaitStep {
        kDone, // the answer is in: the wait ends
        kMore, // something was read, nothing final: wait on until the end
        kIdle, // ready, but nothing could be read: sleep out the rest
    };

    MORL_SOCKET socket_fd() const { return m_socket ? *m_socket : MORL_INVALID_SOCKET; }
    bool stop_requested() const { return m_finish.load() != 0 || m_exit.load() != 0; }
    // MORL_Connect to m_addr:m_port (the moment of the call is kept in
    // m_sent_us), 10 ms pause, local name read back.
    void connect_and_read_name();
    // One poll of a probe thread: waits up to wait_ms for `events` on the
    // socket, and on each readiness calls on_ready(revents, at_us), at_us
    // being the moment the wait returned (probe clock). True when on_ready
    // said kDone. Never waits past wait_ms, so the caller sees its stop flags
    // once per poll; without a socket it is a plain sleep.
    template <class OnReady>
    bool wait_socket(int16_t events, uint32_t wait_ms, OnReady&& on_ready);
    // The skeleton of every probe thread: up to `polls` rounds, each one
    // wait of the caller's (`round(poll)`, true when the answer is in), with
    // the stop flags and the probe clock checked every round. TCP threads
    // look at the stop flags before their wait and take an answer at once;
    // the others look at the clock, then the stop flags, then the answer.
    struct PollPlan {
        uint32_t polls;
        int64_t start_ms;         // probe clock when the thread began
        int64_t limit_ms;         // a span beyond this ends the thread
        bool stop_first = false;  // the TCP order
        uint32_t give_up_from = 0; // 0: never; else past this poll, every
        uint32_t give_up_every = 1; // give_up_every-th poll, a span beyond
        int64_t give_up_ms = 0;     // give_up_ms ends the thread quietly
    };
    enum class PollEnd { kAnswered, kStopped, kTimedOut, kGaveUp, kPollsUsed };
    struct PollOutcome {
        PollEnd end;
        int64_t span_ms; // the span that ended it (kTimedOut)
    };
    template <class Round>
    PollOutcome poll_until_stop(const PollPlan& plan, Round&& round);
    // Whole milliseconds from `from_us` to `at_us`, rounded; at least 1, so
    // a measured delay never reads as "not measured".
    static uint32_t delay_ms(int64_t from_us, int64_t at_us);

    uint32_t m_sleep_ms = 10;
    uint32_t m_resend_ms = 300;
    uint32_t m_time_out = 0;
    std::atomic<uint32_t> m_delay{0};
    std::atomic<uint32_t> m_exit{0};
    std::atomic<uint32_t> m_finish{0};
    uint32_t m_addr;
    std::string m_addr_str;
    uint16_t m_port;
    std::atomic<uint16_t> m_local_port{0};
    std::atomic<uint32_t> m_local_addr{0};
    std::shared_ptr<MORL_SOCKET> m_socket;
    int32_t m_sock_type;
    int32_t m_sock_proto = 0;
    std::atomic<uint32_t> m_result{PROBE_IDLE};
    uint8_t m_buf[1024] = {};
    // Lines about datagrams that are not this probe's answer: a peer that
    // floods the probe gets the first few written, then one in thousands.
    zeph::LogThinner m_stray_lines;
    int64_t m_start_time = 0;
    int64_t m_freq_time = 0;
    // When the probe left (probe clock, microseconds): the last connect call
    // for TCP, the last request's send call for UDP.
    std::atomic<int64_t> m_sent_us{0};
    // When the last connect ended, if it did within the pause after the
    // call; -1 otherwise.
    std::atomic<int64_t> m_connect_end_us{-1};

    friend struct PortDetectTestAccess;
};

class PortDetectUDP : public PortDetectBase {
public:
    PortDetectUDP(uint32_t addr, uint16_t port, uint32_t protocol);
    ~PortDetectUDP() override;

    const char* get_type() const override;
    void resend() override;
    uint16_t get_bind_port() override;
    void set_bind_port(uint16_t port) override;

    void stun_request_send();
    // Checks the datagram of `length` bytes in m_buf against the requests sent.
    bool is_stun_response(int length);
    // Reads the datagrams waiting; when one answers a request, *answer_us
    // gets the moment it was read and the reading stops.
    WaitStep drain_stun(int64_t* answer_us);
    void detect_recv_thread();
    void net_detect_recv_thread();

private:
    std::string m_type = "udp";
    uint8_t m_trans_ids[10][12] = {};
    uint32_t m_trans_index = 0;
    // Requests sent so far; only slots that held a sent id are matched.
    uint32_t m_trans_sent = 0;

    friend struct PortDetectTestAccess;
};

class PortDetectTCP : public PortDetectBase {
public:
    PortDetectTCP(uint32_t addr, uint16_t port, uint32_t protocol);
    ~PortDetectTCP() override;

    const char* get_type() const override;
    void resend() override;
    uint16_t get_bind_port() override;
    void set_bind_port(uint16_t port) override;

    void set_use_proxy(uint32_t flag) { m_use_proxy = flag; }
    void set_proxy_dst(uint32_t addr, uint16_t port) {
        m_proxy_dst_addr = addr;
        m_proxy_dst_port = port;
    }
    int http_proxy_connect();

    void detect_recv_thread();
    void net_detect_recv_thread();
    void detect_recv_proxy_thread();

private:
    // Waits up to wait_ms for the connect under way to end, either way
    // (writable, or an error). True when it did; *end_us (if given) gets the
    // moment.
    bool wait_connect_end(uint32_t wait_ms, int64_t* end_us);

    std::string m_type = "tcp";
    uint32_t m_tcp_resend_ms = 1000;
    uint32_t m_proxy_dst_addr = 0;
    uint16_t m_proxy_dst_port = 0;
    uint32_t m_use_proxy = 0;

    friend struct PortDetectTestAccess;
};

class PortDetectICMP : public PortDetectBase {
public:
    PortDetectICMP(uint32_t addr, uint16_t port, uint32_t protocol);
    ~PortDetectICMP() override;

    const char* get_type() const override;

    // Slots 1..5 carry the results of echoes 1..5; others give nothing.
    std::shared_ptr<PortDetectBase> get_slot(int i);
    // Echo i's result holder: the probe itself for 0, its slot for 1..5.
    PortDetectBase* get_probe(int i);

    void send_icmp(int i);
    bool is_icmp_response(int length);
    void net_detect_send_thread();
    void net_detect_recv_thread();

private:
    // Reads the datagrams waiting and books each echo reply on its echo;
    // stops once `accepted` reaches the six.
    WaitStep drain_icmp(uint32_t& accepted);

    std::shared_ptr<PortDetectBase> m_slots[6];
    // When echo i was handed to the socket (probe clock, microseconds).
    std::atomic<int64_t> m_send_times[6] = {};
    std::string m_type = "icmp";
    uint16_t m_req_id = 0;
    uint16_t m_seq_base = 0;

    friend struct PortDetectTestAccess;
};
