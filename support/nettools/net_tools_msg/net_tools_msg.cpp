// NetToolsMsg: start and stop of the runtime (caller's thread, or the
// message thread when a detection's callback stops it), the socket table
// (any thread, briefly under m_detect_mutex) and the two sends to the
// message module (any thread).
#include "inc/net_tools_msg.h"

#include <cstring>
#include <new>

#include "inc/detect_socket.h"
#include "net_tools_msg/net_tools_msg_log.h"
#include "os_adapter/morl_os.h"
#include "securec/securec.h"

namespace {
// MORL_MSG_Init's queue limits: bytes and messages.
constexpr uint32_t kModuleMaxBytes = 0xA00000;
constexpr uint32_t kModuleMaxMessages = 1024;
// Waiting for the module's thread to deliver: 500 waits of 10 ms.
constexpr uint32_t kInitWaitMax = 500;
constexpr uint32_t kInitWaitStepMs = 10;
constexpr uint32_t kErrTextSize = 64;
// Waiting for the receive thread to run: at most 1 s.
constexpr uint32_t kStartWaitMax = 1000;
constexpr uint32_t kStartWaitStepMs = 1;
// Record tags of the three parameters and the body.
constexpr uint32_t kTagParam1 = 1, kTagParam2 = 2, kTagParam3 = 3, kTagBody = 4;
constexpr uint32_t kParamLen = 4;
// Results of the sends that the module does not give.
constexpr uint32_t kSendTooLarge = static_cast<uint32_t>(-1);
constexpr uint32_t kAsynNoMemory = 2;
constexpr uint32_t kSynNoMemory = 1;

// Fills a record of body_len + 64 bytes.
void fill_record(NetToolsMsgRecord* rec, uint32_t msg_id, uint32_t type, uint32_t p1, uint32_t p2, uint32_t p3,
                 uint32_t body_len) {
    rec->msg_id = msg_id;
    rec->reserved1 = 0;
    rec->reserved2 = 0;
    rec->type = type;
    rec->tag1 = kTagParam1;
    rec->len1 = kParamLen;
    rec->ulParam1 = p1;
    rec->tag2 = kTagParam2;
    rec->len2 = kParamLen;
    rec->ulParam2 = p2;
    rec->tag3 = kTagParam3;
    rec->len3 = kParamLen;
    rec->ulParam3 = p3;
    rec->tag4 = kTagBody;
    rec->body_len = body_len;
}
} // namespace

// The services are never destroyed: threads of the platform (timer,
// resolver, proxy) may still call into them while the process exits. The
// guard below stops the runtime at unload instead.
NetToolsMsg& g_net_tools_msg = *new NetToolsMsg;
NetToolsAsynDns& g_asyn_dns = *new NetToolsAsynDns;
NetToolsTimerSave& g_timer_save = *new NetToolsTimerSave;

namespace {
struct UnloadGuard {
    ~UnloadGuard() {
        if (g_net_tools_msg.running()) g_net_tools_msg.finish();
    }
} g_unload_guard;
} // namespace

NetToolsMsg::NetToolsMsg() = default;

NetToolsMsg::~NetToolsMsg() { finish(); }

int32_t NetToolsMsg::init() {
    if (MORL_MSG_GetStatus(kNetToolsModule) == MORL_MSG_STATUS_RUNNING) return 0;
    join_retired();
    int ret = MORL_MSG_Init(kNetToolsModule, kModuleMaxBytes, kModuleMaxMessages);
    if (ret != 0) {
        NT_LOGE("MORL_MSG_Init err. ret(%d)", ret);
        return -1;
    }
    NT_LOGI("MORL_MSG_Init ok");

    const char* reg_name = "NetToolsMsg::register_detect_recv_msg_proc";
    int reg = MORL_MSG_RegisterMIDByName(kNetToolsModule, kMidDetectRecv, ProcessMORLMsg);
    if (reg != 0) {
        NT_LOG_AS(NT_LOG_ERROR, reg_name, "MORL_MSG_RegisterMIDByName err(detectRecv) ret(%u)",
                  static_cast<uint32_t>(reg));
    } else {
        reg = MORL_MSG_RegisterMIDByName(kNetToolsModule, kMidDetectMain, ProcessMORLMsg);
        if (reg != 0) {
            NT_LOG_AS(NT_LOG_ERROR, reg_name, "MORL_MSG_RegisterMIDByName err(detectMain) ret(%u)",
                      static_cast<uint32_t>(reg));
        }
    }
    if (reg != 0) {
        NT_LOGE("RegisterMsgProc err. ret(%d)", 2);
        MORL_MSG_DestroyByName(kNetToolsModule);
        return -1;
    }
    NT_LOGD("RegisterMsgProc ok");

    uint32_t waits = 0;
    while (MORL_MSG_GetStatus(kNetToolsModule) != MORL_MSG_STATUS_RUNNING && waits < kInitWaitMax) {
        MORL_SleepMs(kInitWaitStepMs);
        ++waits;
    }
    if (waits >= kInitWaitMax) {
        NT_LOGW("media msg thread init extra 5s!");
        return 0;
    }

    const uint64_t generation = m_run_generation.fetch_add(1) + 1;
    m_running.store(true);
    {
        // A receive thread of an earlier start sees its generation gone.
        std::lock_guard<std::mutex> guard(m_detect_mutex);
        m_detect_cond.notify_all();
    }
    try {
        std::thread t([this, generation] { detect_recv_thread(generation); });
        std::lock_guard<std::mutex> guard(m_thread_mutex);
        if (m_recv_thread.joinable()) m_retired.push_back(std::move(m_recv_thread));
        m_recv_thread = std::move(t);
    } catch (const std::exception& e) {
        m_running.store(false);
        NT_LOGE("receive thread start err(%s)", e.what());
    }
    // Returns once the receive thread runs, so that a stop right after
    // this start finds it.
    for (uint32_t i = 0; i < kStartWaitMax && m_running.load() && m_recv_started.load() != generation; ++i) {
        MORL_SleepMs(kStartWaitStepMs);
    }
    NT_LOGI("wait media main msg init finish count: %u", waits);
    return 0;
}

int32_t NetToolsMsg::finish() {
    NT_LOG_AS(NT_LOG_INFO, "NetToolsMsg::finish", "Enter");
    m_running.store(false);
    {
        std::lock_guard<std::mutex> guard(m_detect_mutex);
        m_detect_cond.notify_all();
    }
    const char* unreg_name = "NetToolsMsg::un_register_detect_recv_msg_proc";
    int ret = MORL_MSG_UnRegMIDByName(kNetToolsModule, kMidDetectRecv);
    if (ret != 0) {
        NT_LOG_AS(NT_LOG_ERROR, unreg_name, "MORL_MSG_UnRegMIDByName err(detectRecv) ret(%u)",
                  static_cast<uint32_t>(ret));
    } else {
        NT_LOG_AS(NT_LOG_INFO, unreg_name, "MORL_MSG_UnRegMIDByName ok(detectRecv)");
        ret = MORL_MSG_UnRegMIDByName(kNetToolsModule, kMidDetectMain);
        if (ret != 0) {
            NT_LOG_AS(NT_LOG_ERROR, unreg_name, "MORL_MSG_UnRegMIDByName err(detectMain) ret(%u)",
                      static_cast<uint32_t>(ret));
        } else {
            NT_LOG_AS(NT_LOG_INFO, unreg_name, "MORL_MSG_UnRegMIDByName ok(detectMain)");
        }
    }
    // Fails the receive thread's send still waiting, so that it can end.
    MORL_MSG_DestroyByName(kNetToolsModule);

    {
        std::lock_guard<std::mutex> guard(m_thread_mutex);
        if (m_recv_thread.joinable()) m_retired.push_back(std::move(m_recv_thread));
    }
    // On the message thread the receive thread may be waiting for the very
    // callback that called us: it ends by itself once that returns.
    if (!on_message_thread()) join_retired();

    // The table's sockets close, but for those that the proxy service still
    // uses: their entry goes when the result arrives. Queued events are void.
    std::vector<Entry> dropped;
    {
        std::lock_guard<std::mutex> guard(m_detect_mutex);
        for (auto it = m_detect_map.begin(); it != m_detect_map.end();) {
            if (it->second.proxy_pending) {
                ++it;
                continue;
            }
            dropped.push_back(std::move(it->second));
            it = m_detect_map.erase(it);
        }
    }
    {
        std::lock_guard<std::mutex> guard(m_event_mutex);
        m_events.clear();
    }
    dropped.clear();
    NT_LOG_AS(NT_LOG_INFO, "NetToolsMsg::finish", "Leave");
    return 0;
}

void NetToolsMsg::join_retired() {
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> guard(m_thread_mutex);
        threads.swap(m_retired);
    }
    for (auto& t : threads) t.join();
}

void NetToolsMsg::register_detect(int32_t fd, std::shared_ptr<DetectSocket> sock,
                                  std::shared_ptr<DetectBase> detect) {
    if (!sock || !detect) {
        NT_LOGE("para is null");
        return;
    }
    Entry old;
    {
        std::lock_guard<std::mutex> guard(m_detect_mutex);
        Entry& e = m_detect_map[fd];
        old = std::move(e);
        e = Entry{};
        e.pair.sock = std::move(sock);
        e.pair.detect = std::move(detect);
        m_detect_cond.notify_all();
    }
    // The replaced pair's references drop here, outside the lock.
}

void NetToolsMsg::un_register_detect(int32_t fd, const DetectBase* owner) {
    enum { kNone, kErased, kNewer, kProxy } what = kNone;
    Entry old;
    size_t remain = 0;
    {
        std::lock_guard<std::mutex> guard(m_detect_mutex);
        auto it = m_detect_map.find(fd);
        if (it == m_detect_map.end()) {
            what = kNone;
        } else if (owner != nullptr && it->second.pair.detect.get() != owner) {
            // The number names another detection's socket by now.
            what = kNewer;
        } else if (it->second.proxy_pending) {
            // The proxy service still works on the descriptor.
            it->second.free_requested = true;
            what = kProxy;
        } else {
            old = std::move(it->second);
            m_detect_map.erase(it);
            remain = m_detect_map.size();
            what = kErased;
        }
    }
    switch (what) {
    case kErased: NT_LOGI("fd(%d)remain(%d)", fd, static_cast<int>(remain)); break;
    case kNewer: NT_LOGI("fd(%d) belongs to another detection, kept", fd); break;
    case kProxy: NT_LOGI("fd(%d) waits for its proxy result, freed then", fd); break;
    default: NT_LOGD("No detect found for"); break;
    }
}

SocketDetectPair NetToolsMsg::get_detect(int32_t fd) {
    {
        std::lock_guard<std::mutex> guard(m_detect_mutex);
        auto it = m_detect_map.find(fd);
        if (it != m_detect_map.end()) return it->second.pair;
    }
    NT_LOGW("No detect found for");
    return SocketDetectPair{};
}

bool NetToolsMsg::is_registered(int32_t fd, const DetectSocket* sock) {
    std::lock_guard<std::mutex> guard(m_detect_mutex);
    auto it = m_detect_map.find(fd);
    return it != m_detect_map.end() && it->second.pair.sock.get() == sock;
}

size_t NetToolsMsg::table_size() {
    std::lock_guard<std::mutex> guard(m_detect_mutex);
    return m_detect_map.size();
}

void NetToolsMsg::mark_proxy_pending(int32_t fd) {
    std::lock_guard<std::mutex> guard(m_detect_mutex);
    auto it = m_detect_map.find(fd);
    if (it != m_detect_map.end()) it->second.proxy_pending = true;
}

void NetToolsMsg::drop_proxy_entry(int32_t fd) {
    Entry old;
    {
        std::lock_guard<std::mutex> guard(m_detect_mutex);
        auto it = m_detect_map.find(fd);
        if (it == m_detect_map.end() || !it->second.proxy_pending) return;
        old = std::move(it->second);
        m_detect_map.erase(it);
    }
    NT_LOGI("fd(%d) proxy result without runtime, entry dropped", fd);
}

uint32_t NetToolsMsg::net_tools_msg_asyn_send(uint32_t msg_id, uint32_t type, uint32_t param1, uint32_t param2,
                                              uint32_t param3, const void* body, uint32_t body_len,
                                              const char* from, uint32_t from_id, const char* to, uint32_t to_id,
                                              uint32_t arg) {
    if (body == nullptr) body_len = 0;
    const uint32_t size = body_len + kMsgRecordExtra;
    if (body_len > kMsgBodyMax) {
        NT_LOGE("msg size err(%u too large)", size);
        return kSendTooLarge;
    }
    uint8_t* buf = new (std::nothrow) uint8_t[size];
    if (buf == nullptr) {
        NT_LOGE("new fail!! size(%u)", size);
        return kAsynNoMemory;
    }
    memset_s(buf, size, 0, size);
    auto* rec = reinterpret_cast<NetToolsMsgRecord*>(buf);
    fill_record(rec, msg_id, type, param1, param2, param3, body_len);
    if (body_len != 0 && memcpy_s(buf + kMsgRecordHead, size - kMsgRecordHead, body, body_len) != 0) {
        NT_LOGE("msg_buf memcpy_s err");
    }
    const uint32_t seq = MORL_MSG_GenSeqId();
    NT_LOGD("MORL_MSG_AsynSend seqId: [%u], msg_id = 0x%08x[%u], ulParam123 = [%u, %u, %u], from [%s] to [%s], "
            "from id [%u] to [%u], size: [%u]",
            seq, msg_id, msg_id, param1, param2, param3, from, to, from_id, to_id, size);
    const int ret = MORL_MSG_AsynSend(buf, size, from, from_id, to, to_id, arg, seq);
    if (ret != 0) {
        const int err = MORL_GetLastErr();
        char text[kErrTextSize] = {};
        MORL_StrError_S(text, sizeof text, err);
        NT_LOGE("ret(%08x) system errno is %d: %s", static_cast<uint32_t>(ret), err, text);
    }
    delete[] buf;
    return static_cast<uint32_t>(ret);
}

uint32_t NetToolsMsg::net_tools_msg_syn_send(uint32_t msg_id, uint32_t type, uint32_t param1, uint32_t param2,
                                             uint32_t param3, const void* body, uint32_t body_len, const char* from,
                                             uint32_t from_id, const char* to, uint32_t to_id, uint32_t arg,
                                             void** response) {
    if (body == nullptr) body_len = 0;
    const uint32_t size = body_len + kMsgRecordExtra;
    if (body_len > kMsgBodyMax) {
        NT_LOGE("msg size err(%u too large)", size);
        return kSendTooLarge;
    }
    uint8_t* buf = new (std::nothrow) uint8_t[size];
    if (buf == nullptr) {
        NT_LOGE("mediaNew fail!! size(%d)", static_cast<int>(size));
        return kSynNoMemory;
    }
    if (memset_s(buf, size, 0, size) != 0) NT_LOGE("NetToolsMsg::NetToolsMsgSynSend msg_buf memset_s err");
    auto* rec = reinterpret_cast<NetToolsMsgRecord*>(buf);
    fill_record(rec, msg_id, type, param1, param2, param3, body_len);
    if (memset_s(buf + kMsgRecordHead, size - kMsgRecordHead, 0, size - kMsgRecordHead) != 0) {
        NT_LOGE("NetToolsMsg::NetToolsMsgSynSend msg->arucBody memset_s err");
    }
    if (body_len != 0 && memcpy_s(buf + kMsgRecordHead, size - kMsgRecordHead, body, body_len) != 0) {
        NT_LOGE("NetToolsMsg::NetToolsMsgSynSend msg->arucBody memcpy_s err");
    }
    if (response != nullptr) *response = nullptr;
    const uint32_t seq = MORL_MSG_GenSeqId();
    NT_LOGD("MORL_MSG_SynSend seqId: [%u], msg_id = 0x%08x[%u], ulParam123 = [%u, %u, %u], from [%s] to [%s], "
            "from id [%u] to [%u]",
            seq, msg_id, msg_id, param1, param2, param3, from, to, from_id, to_id);
    const int ret = MORL_MSG_SynSend(buf, size, from, from_id, to, to_id, arg, response, seq);
    if (ret != 0) {
        const int err = MORL_GetLastErr();
        char text[kErrTextSize] = {};
        MORL_StrError_S(text, sizeof text, err);
        NT_LOGE("MORL_MSG_SynSend error:%#x, errno:%d[%s], seqId: [%u], msg_id = 0x%08x[%u], ulParam123 = [%u, "
                "%u, %u], from [%s] to [%s], from id [%u] to [%u]",
                static_cast<uint32_t>(ret), err, text, seq, msg_id, msg_id, param1, param2, param3, from, to,
                from_id, to_id);
    }
    delete[] buf;
    return static_cast<uint32_t>(ret);
}

uint32_t post_detect_msg(uint32_t msg_id, uint32_t param1, uint32_t param2, const void* body, uint32_t body_len) {
    return g_net_tools_msg.net_tools_msg_asyn_send(msg_id, 0, param1, param2, 0, body, body_len, kNetToolsModule,
                                                   kMidDetectMain, kNetToolsModule, kMidDetectRecv, kAsynSendArg);
}

uint32_t post_free_sockets(const DetectBase* owner, const int32_t* fds, uint32_t count) {
    const uint64_t tag = reinterpret_cast<uint64_t>(owner);
    return g_net_tools_msg.net_tools_msg_asyn_send(
        NET_TOOLS_MSG_FREE_SOCKETS, 0, count, static_cast<uint32_t>(tag), static_cast<uint32_t>(tag >> 32), fds,
        count * static_cast<uint32_t>(sizeof(int32_t)), kNetToolsModule, kMidDetectMain, kNetToolsModule,
        kMidDetectRecv, kAsynSendArg);
}
