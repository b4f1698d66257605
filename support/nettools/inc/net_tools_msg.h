// The event-driven detection runtime: the message core with its socket
// table (NetToolsMsg), the keeper of shared pointers whose addresses travel
// in messages (DetectPtrKeeper), the timer service (NetToolsTimerSave) and
// the name service (NetToolsAsynDns).
//
// Threads. One message thread (of the message module "net_tools_detect")
// runs every event of a detection: socket table changes, packets, timer
// expiries, DNS answers and proxy results. The receive thread polls the
// table's sockets and hands packets over synchronously. The timer thread,
// the resolver thread and the proxy thread only post events; they never call
// a detection. So a detection's events are serialised on one thread and none
// of them runs while a service holds a lock.
//
// Events of the services carry a weak reference to their detection and are
// dropped when the detection is gone, when it has stopped the timer or name
// request since, or when the timer was armed again since (each arming has a
// generation of its own).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "msg/morl_msg.h"

class DetectBase;
class DetectSocket;

// ---- messages ------------------------------------------------------------------
// A detection family owns a block of 16 ids; dispatch is on id & kMsgBlockMask.
enum : uint32_t {
    NET_TOOLS_MSG_CREATE_SOCKET = 0,
    NET_TOOLS_MSG_FREE_SOCKETS = 1,
    NET_TOOLS_MSG_DETECT_EVENT = 2, // a timer, DNS or proxy event for the message thread
    NET_TOOLS_MSG_HTTP_PROXY_CONNECT = 4,
    NET_TOOLS_MSG_NEARBY_BASE = 16,
    NET_TOOLS_MSG_NEARBY_RECV = 18,
    NET_TOOLS_MSG_SILENT_BASE = 32,
    NET_TOOLS_MSG_CONNECTIVITY_BASE = 48,
    NET_TOOLS_MSG_CONNECTIVITY_RECV = 50,
    NET_TOOLS_MSG_SIMPLE_QOS_BASE = 64,
    NET_TOOLS_MSG_SIMPLE_QOS_RECV = 66,
    NET_TOOLS_MSG_FAMILY_END = 80,
};
constexpr uint32_t kMsgBlockMask = 0xFFFFFFF0u;
// Offsets inside a family's block.
constexpr uint32_t kMsgFamilyCreate = 0;
constexpr uint32_t kMsgFamilyIgnored = 1;
constexpr uint32_t kMsgFamilyRecv = 2;

// Module ids of "net_tools_detect".
constexpr const char* kNetToolsModule = "net_tools_detect";
constexpr uint32_t kMidDetectRecv = 1; // requests of detections and service events
constexpr uint32_t kMidDetectMain = 2; // packets of the receive thread
// Last plain argument of the sends, carried unread by the module.
constexpr uint32_t kAsynSendArg = 3;
constexpr uint32_t kSynSendArg = 10;

// The record handed to the module: three tagged parameters and a tagged body.
struct NetToolsMsgRecord {
    uint32_t msg_id;
    uint32_t reserved1;
    uint32_t reserved2;
    uint32_t type;
    uint32_t tag1, len1, ulParam1;
    uint32_t tag2, len2, ulParam2;
    uint32_t tag3, len3, ulParam3;
    uint32_t tag4, body_len;
    uint8_t arucBody[4];
};
constexpr uint32_t kMsgRecordHead = 60;  // bytes in front of the body
constexpr uint32_t kMsgRecordExtra = 64; // allocation beyond the body length
constexpr uint32_t kMsgSizeMax = 2048;   // largest record
constexpr uint32_t kMsgBodyMax = kMsgSizeMax - kMsgRecordExtra;
static_assert(offsetof(NetToolsMsgRecord, arucBody) == kMsgRecordHead, "body at 60");

// Body of NET_TOOLS_MSG_CREATE_SOCKET and NET_TOOLS_MSG_HTTP_PROXY_CONNECT.
struct DetectSocketBody {
    uint32_t dest_ip; // host order
    uint16_t dest_port;
    uint16_t pad1;
    uint32_t proxy_ip; // host order, 0 for none
    uint16_t proxy_port;
    uint16_t pad2;
    uint64_t sock_key;   // address of a std::shared_ptr<DetectSocket> kept by DetectPtrKeeper
    uint64_t detect_key; // address of the detection's std::shared_ptr, kept by DetectPtrKeeper
};
static_assert(sizeof(DetectSocketBody) == 32, "socket body is 32 bytes");

// Body of the packet ids. The two addresses point into the receive
// thread's frame, which waits in the synchronous send meanwhile. The body
// never leaves the process: its size is this header's alone (it must fit
// kMsgBodyMax), and `arrival` follows the older fields so that their
// offsets stay.
constexpr uint32_t kRecvDataMax = 1500;
struct DetectRecvBody {
    uint8_t data[kRecvDataMax];
    uint32_t len; // 0 for a completed TCP connect
    uint64_t sock_addr;
    uint64_t detect_addr;
    // When the answer arrived, on the scale of MORL_QueryPerformanceCounter:
    // the kernel's stamp of a datagram, or the poll's return that reported
    // a completed connect; 0 when unknown.
    int64_t arrival;
} __attribute__((packed));
static_assert(sizeof(DetectRecvBody) == 1528, "packet body is 1528 bytes");
static_assert(sizeof(DetectRecvBody) <= kMsgBodyMax, "packet body fits a message");

// Sockets one detection may have in the table at the same time.
constexpr int32_t kMaxSocketsPerDetection = 32;

// The table's view of one socket.
struct SocketDetectPair {
    std::shared_ptr<DetectSocket> sock;
    std::shared_ptr<DetectBase> detect;
};

// ---- DetectPtrKeeper -------------------------------------------------------------
// Holds a shared pointer alive while its address travels in a queued
// message. The key is the address of the sender's shared pointer; a lookup
// never dereferences a key, so a stale key finds nothing.
class DetectPtrKeeper {
public:
    template <class T>
    static void keep_ptr(std::shared_ptr<T>* key) {
        if (key != nullptr) {
            keep(key, std::shared_ptr<DetectBase>(*key));
        }
    }
    template <class T>
    static void release_ptr(std::shared_ptr<T>* key, bool force) {
        release(key, force);
    }
    static void release(const void* key, bool force);
    static std::shared_ptr<DetectBase> peek_ptr(const void* key);
    static size_t size(); // entries held

private:
    static void keep(const void* key, std::shared_ptr<DetectBase> ptr);
};

// ---- NetToolsMsg ------------------------------------------------------------------
class NetToolsMsg {
public:
    NetToolsMsg();
    virtual ~NetToolsMsg();
    NetToolsMsg(const NetToolsMsg&) = delete;
    NetToolsMsg& operator=(const NetToolsMsg&) = delete;

    // Starts the message module and the receive thread; 0 or -1. A running
    // module gives 0 at once.
    int32_t init();
    // Stops both; always 0. On the message thread (from inside an event) it
    // does not wait for the receive thread, which ends by itself; the next
    // init or finish on another thread joins it.
    int32_t finish();

    void register_detect(int32_t fd, std::shared_ptr<DetectSocket> sock, std::shared_ptr<DetectBase> detect);
    // Erases the entry of fd, but only if `owner` (when not null) is its
    // detection: a descriptor number can name another detection's socket
    // by now. An entry that still waits for its proxy result goes when the
    // result arrives.
    void un_register_detect(int32_t fd, const DetectBase* owner = nullptr);
    SocketDetectPair get_detect(int32_t fd);
    // Whether fd's entry is `sock`, without a log line.
    bool is_registered(int32_t fd, const DetectSocket* sock);
    size_t table_size();

    // Enters the socket of a DetectSocketBody in the table (message thread).
    std::shared_ptr<int32_t> create_socket(const NetToolsMsgRecord& record);

    uint32_t net_tools_msg_asyn_send(uint32_t msg_id, uint32_t type, uint32_t param1, uint32_t param2,
                                     uint32_t param3, const void* body, uint32_t body_len, const char* from,
                                     uint32_t from_id, const char* to, uint32_t to_id, uint32_t arg);
    uint32_t net_tools_msg_syn_send(uint32_t msg_id, uint32_t type, uint32_t param1, uint32_t param2,
                                    uint32_t param3, const void* body, uint32_t body_len, const char* from,
                                    uint32_t from_id, const char* to, uint32_t to_id, uint32_t arg,
                                    void** response);

    // ---- events of the services, run on the message thread ----
    struct Event {
        enum Kind { Timer, Dns, Proxy } kind = Timer;
        uint64_t timer = 0;
        uint64_t generation = 0;
        uint64_t req_id = 0;
        std::string host;
        uint32_t addr = 0;
        int32_t fd = -1;
        int32_t result = 0;
    };
    // Queues the event for the message thread; false (and nothing queued)
    // when the module does not take it.
    bool post_event(Event event);
    // The message thread's side: takes the event of `key` out and runs it.
    void run_event(uint64_t key);
    // Proxy results (message thread).
    void proxy_result(int32_t fd, int32_t result);
    // A proxy connect ended without the message thread: the entry goes.
    void drop_proxy_entry(int32_t fd);
    void mark_proxy_pending(int32_t fd);

    // True on the message thread while it runs an event or message.
    static bool on_message_thread();

    bool running() const { return m_running.load(); }

    // Receive thread.
    void detect_recv_thread(uint64_t generation);

    // The receive thread's limits.
    int32_t m_recv_batch_max = 100;
    int32_t m_poll_timeout_ms = 2;
    int32_t m_syn_send_arg = static_cast<int32_t>(kSynSendArg);

private:
    struct Entry {
        SocketDetectPair pair;
        bool proxy_pending = false;
        bool free_requested = false;
    };
    // `polled_at`: when the poll that reported the socket returned, on the
    // scale of MORL_QueryPerformanceCounter (the arrival of a datagram the
    // kernel did not stamp).
    // Reads fd's first non-empty datagram of the pass into body, counting
    // the reads in *reads; false (and *reads 0) when none waits.
    bool read_first(int32_t fd, struct DetectRecvBody& body, int64_t polled_at, int32_t* reads);
    // One datagram into body; its length, or -1 when none waits.
    int read_datagram(int32_t fd, struct DetectRecvBody& body, int64_t polled_at);
    bool hand_over_read(int32_t fd, const SocketDetectPair& polled, struct DetectRecvBody& body, int32_t i);
    // The rest of fd's datagrams after `done` reads, up to the pass's bound.
    void recv_one_packet(int32_t fd, const SocketDetectPair& polled, int64_t polled_at, int32_t done);
    void tcp_is_connected(int32_t fd, const SocketDetectPair& polled, struct DetectRecvBody& body);
    bool same_entry(int32_t fd, const SocketDetectPair& polled);
    void hand_over(int32_t fd, const SocketDetectPair& polled, struct DetectRecvBody& body, uint32_t len,
                   int32_t i);
    void join_retired();

    std::atomic<bool> m_running{false};
    std::atomic<uint64_t> m_run_generation{0};
    std::atomic<uint64_t> m_recv_started{0}; // generation of the receive thread that runs
    std::mutex m_detect_mutex; // guards m_detect_map
    std::condition_variable m_detect_cond;
    std::map<int32_t, Entry> m_detect_map;

    std::mutex m_event_mutex; // guards m_events, m_next_event
    std::map<uint64_t, Event> m_events;
    uint64_t m_next_event = 1;

    std::mutex m_thread_mutex; // guards the thread objects
    std::thread m_recv_thread;
    std::vector<std::thread> m_retired;
};

// A detection's message to the core: from module id 2 to module id 1.
uint32_t post_detect_msg(uint32_t msg_id, uint32_t param1, uint32_t param2, const void* body, uint32_t body_len);
// NET_TOOLS_MSG_FREE_SOCKETS for `count` descriptors of `owner`'s sockets:
// the owner travels in ulParam2/ulParam3 (compared, never dereferenced), so
// that a descriptor number that by now belongs to another detection's
// socket leaves that entry alone. Use it rather than a bare free.
uint32_t post_free_sockets(const DetectBase* owner, const int32_t* fds, uint32_t count);

// The module callback.
void ProcessMORLMsg(const MORL_MSG_Head* msg);
// 2 <= use count < kUseCountEnd for both pointers behind the addresses.
bool message_check(const std::shared_ptr<DetectSocket>* sock, const std::shared_ptr<DetectBase>* detect,
                   uint32_t msg_id, uint32_t seq);
// Held copies of a detection: itself, its keeper entry, the four copies of
// one hand-over and a callback's own. Beside them each of its sockets may
// be named twice by the table (a freed socket not yet erased and the one
// replacing it), for up to kMaxSocketsPerDetection sockets.
constexpr long kUseCountHeadroom = 16;
constexpr long kUseCountEnd = 2 * kMaxSocketsPerDetection + kUseCountHeadroom + 1;
// The proxy service's callback (proxy thread).
void http_proxy_connect_result(int32_t fd, int32_t result);

// ---- NetToolsTimerSave ---------------------------------------------------------------
class NetToolsTimerSave {
public:
    NetToolsTimerSave() = default;
    virtual ~NetToolsTimerSave() = default;

    // Registers, then arms: the expiry reaches `detect`'s recv_timeout on the
    // message thread unless the timer is stopped or armed again first.
    // 0, or the error of the timer call.
    uint32_t start_timer(uint64_t timer, uint32_t delay, const std::weak_ptr<DetectBase>& detect);
    // After the return no expiry of this timer reaches its detection.
    void stop_timer(uint64_t timer);
    // The timer thread's callback; the argument is the arming's generation.
    static void timeout(uint64_t generation);
    // The message thread's side of an expiry.
    void notify_timeout_res(uint64_t timer, uint64_t generation);
    size_t size();

private:
    struct Entry {
        std::weak_ptr<DetectBase> detect;
        uint64_t generation = 0; // of the current arming, 0 when none is pending
    };
    std::mutex m_mutex;
    std::map<uint64_t, Entry> m_detect_by_timer;
    std::map<uint64_t, uint64_t> m_timer_by_generation;
    uint64_t m_next_generation = 1;
};

// ---- NetToolsAsynDns ---------------------------------------------------------------
struct RAVN_DnsAddrRecord;
class NetToolsAsynDns {
public:
    NetToolsAsynDns() = default;
    virtual ~NetToolsAsynDns() = default;

    // Resolves up to m_group_size names; each answer reaches `detect`'s
    // recv_dns on the message thread until stop_asyn_dns. The sum of the
    // resolver's results.
    uint32_t start_asyn_dns(const std::vector<std::string>& hosts, const std::weak_ptr<DetectBase>& detect);
    void stop_asyn_dns(const DetectBase* detect);
    // The resolver's callback (resolver thread).
    static void dns_arecord_ind(uint32_t result, const char* host, const RAVN_DnsAddrRecord* list, int32_t count,
                                uint32_t ttl, uint64_t req_id);
    // The message thread's side of an answer.
    void notify_dns_res(uint64_t req_id, const char* host, uint32_t addr);
    size_t size();

    const uint32_t m_group_size = 16;
    const uint32_t m_dns_param = 3;

private:
    std::mutex m_mutex;
    std::map<uint64_t, std::weak_ptr<DetectBase>> m_detect_by_group;
    uint64_t m_next_req_id = 16;
};

// ---- the process-wide services ----------------------------------------------------
extern NetToolsMsg& g_net_tools_msg;
extern NetToolsAsynDns& g_asyn_dns;
extern NetToolsTimerSave& g_timer_save;

// A time kept in a record: 0 means unknown, so a real 0 becomes 1.
inline uint32_t nt_stored_time(uint64_t ms) {
    const uint32_t t = static_cast<uint32_t>(ms);
    return t == 0 ? 1u : t;
}
// A measured delay: 0 means not measured, so a real 0 becomes 1.
inline uint32_t nt_measured_delay(uint32_t ms) { return ms == 0 ? 1u : ms; }
