// ProcessMORLMsg and what it dispatches to: runs on the message thread of
// "net_tools_detect" (socket table changes, packets, and the events that the
// timer, resolver and proxy threads post).
#include <cstdio>
#include <cstring>

#include "inc/detect_socket.h"
#include "inc/net_tools_msg.h"
#include "net_tools_msg/net_tools_msg_log.h"

namespace {
// Depth of message handling on this thread: above 0 while a callback of the
// module runs here.
thread_local int t_msg_depth = 0;

struct DepthScope {
    DepthScope() { ++t_msg_depth; }
    ~DepthScope() { --t_msg_depth; }
};

constexpr size_t kDottedSize = 32;

// The body of a delivered record, or null when the record is too short for
// what its length field claims.
const uint8_t* record_body(const MORL_MSG_Head* msg, const NetToolsMsgRecord*& rec, uint32_t& body_len) {
    if (msg->size < kMsgRecordHead) return nullptr;
    rec = reinterpret_cast<const NetToolsMsgRecord*>(MORL_MSG_Record(msg));
    body_len = rec->body_len;
    if (body_len > msg->size - kMsgRecordHead) return nullptr;
    return MORL_MSG_Record(msg) + kMsgRecordHead;
}

void process_common_msg(const NetToolsMsgRecord& rec, const uint8_t* body, uint32_t body_len, uint32_t seq) {
    switch (rec.msg_id) {
    case NET_TOOLS_MSG_CREATE_SOCKET: g_net_tools_msg.create_socket(rec); return;
    case NET_TOOLS_MSG_FREE_SOCKETS: {
        // The sender, when it named itself; only compared.
        const auto* owner = reinterpret_cast<const DetectBase*>(static_cast<uintptr_t>(rec.ulParam2) |
                                                                 (static_cast<uintptr_t>(rec.ulParam3) << 32));
        uint32_t count = rec.ulParam1;
        if (count > body_len / sizeof(int32_t)) count = body_len / sizeof(int32_t);
        for (uint32_t i = 0; i < count; ++i) {
            int32_t fd = 0;
            memcpy(&fd, body + i * sizeof(int32_t), sizeof fd);
            g_net_tools_msg.un_register_detect(fd, owner);
        }
        return;
    }
    case NET_TOOLS_MSG_DETECT_EVENT:
        g_net_tools_msg.run_event(static_cast<uint64_t>(rec.ulParam1) | (static_cast<uint64_t>(rec.ulParam2) << 32));
        return;
    case NET_TOOLS_MSG_HTTP_PROXY_CONNECT: {
        if (body_len < sizeof(DetectSocketBody)) {
            NT_LOG_AS(NT_LOG_ERROR, "ProcessCommonMsg", "detect_sock or detect pointer is null");
            return;
        }
        DetectSocketBody sb;
        memcpy(&sb, body, sizeof sb);
        char text[kDottedSize] = {};
        snprintf(text, sizeof text, "%u.%u.%u.%u", (sb.dest_ip >> 24) & 0xFF, (sb.dest_ip >> 16) & 0xFF,
                 (sb.dest_ip >> 8) & 0xFF, sb.dest_ip & 0xFF);
        std::shared_ptr<DetectBase> s = DetectPtrKeeper::peek_ptr(reinterpret_cast<const void*>(sb.sock_key));
        std::shared_ptr<DetectBase> d = DetectPtrKeeper::peek_ptr(reinterpret_cast<const void*>(sb.detect_key));
        DetectPtrKeeper::release(reinterpret_cast<const void*>(sb.sock_key), false);
        DetectPtrKeeper::release(reinterpret_cast<const void*>(sb.detect_key), false);
        std::shared_ptr<DetectSocket> sock = std::dynamic_pointer_cast<DetectSocket>(s);
        if (!sock || !d || sock->get_fd() == MORL_INVALID_SOCKET) {
            NT_LOG_AS(NT_LOG_ERROR, "ProcessCommonMsg", "detect_sock or detect is null");
            return;
        }
        const int32_t fd = sock->get_fd();
        g_net_tools_msg.register_detect(fd, sock, d);
        g_net_tools_msg.mark_proxy_pending(fd);
        // The socket connects to the configured proxy and asks it for its
        // destination; the result comes back through the message thread.
        const int32_t ret = sock->proxy_connect_asyn(http_proxy_connect_result);
        if (ret != 0) {
            NT_LOG_AS(NT_LOG_ERROR, "ProcessCommonMsg", "http proxy connect start err(%d) fd(%d) addr(%s:%u)", ret,
                      fd, text, static_cast<uint32_t>(sb.dest_port));
            g_net_tools_msg.proxy_result(fd, ret);
        }
        return;
    }
    default:
        NT_LOG_AS(NT_LOG_ERROR, "ProcessCommonMsg", "Error App seqId: (%u), Msg ID=0x%x", seq, rec.msg_id);
        return;
    }
}

// One family's block: the create, the ignored id and the packet id.
void process_family_msg(const char* name, uint32_t base, const NetToolsMsgRecord& rec, const uint8_t* body,
                        uint32_t body_len, uint32_t seq) {
    const uint32_t off = rec.msg_id - base;
    if (off != kMsgFamilyCreate && off != kMsgFamilyIgnored && off != kMsgFamilyRecv) {
        NT_LOG_AS(NT_LOG_ERROR, name, "Error App seqId: (%u), Msg ID=0x%x", seq, rec.msg_id);
        return;
    }
    const std::shared_ptr<DetectSocket>* sock_addr = nullptr;
    const std::shared_ptr<DetectBase>* detect_addr = nullptr;
    uint32_t len = 0;
    int64_t arrival = 0;
    if (body_len >= sizeof(DetectRecvBody)) {
        uint64_t sa = 0;
        uint64_t da = 0;
        memcpy(&len, body + offsetof(DetectRecvBody, len), sizeof len);
        memcpy(&arrival, body + offsetof(DetectRecvBody, arrival), sizeof arrival);
        memcpy(&sa, body + offsetof(DetectRecvBody, sock_addr), sizeof sa);
        memcpy(&da, body + offsetof(DetectRecvBody, detect_addr), sizeof da);
        sock_addr = reinterpret_cast<const std::shared_ptr<DetectSocket>*>(sa);
        detect_addr = reinterpret_cast<const std::shared_ptr<DetectBase>*>(da);
    }
    if (!message_check(sock_addr, detect_addr, rec.msg_id, seq)) return;
    std::shared_ptr<DetectSocket> sock = *sock_addr;
    std::shared_ptr<DetectBase> detect = *detect_addr;
    if (off == kMsgFamilyCreate) {
        g_net_tools_msg.create_socket(rec);
    } else if (off == kMsgFamilyRecv) {
        if (len > kRecvDataMax) len = kRecvDataMax;
        detect->set_answer_arrival(arrival);
        detect->recv_pkt(body, len, sock, detect);
        detect->set_answer_arrival(0);
    }
}
} // namespace

bool NetToolsMsg::on_message_thread() { return t_msg_depth > 0; }

void ProcessMORLMsg(const MORL_MSG_Head* msg) {
    if (msg == nullptr) {
        NT_LOGE("ProcessMORLMsg input para error!");
        return;
    }
    DepthScope scope;
    const NetToolsMsgRecord* rec = nullptr;
    uint32_t body_len = 0;
    const uint8_t* body = record_body(msg, rec, body_len);
    if (body == nullptr) {
        NT_LOGE("ProcessMORLMsg input para error!");
        return;
    }
    const uint32_t seq = msg->seq;
    NT_LOGI("id(%d)", static_cast<int>(rec->msg_id));
    switch (rec->msg_id & kMsgBlockMask) {
    case 0: process_common_msg(*rec, body, body_len, seq); break;
    case NET_TOOLS_MSG_NEARBY_BASE:
        process_family_msg("ProcessNearbySimpleDetectMsg", NET_TOOLS_MSG_NEARBY_BASE, *rec, body, body_len, seq);
        break;
    case NET_TOOLS_MSG_SILENT_BASE: break;
    case NET_TOOLS_MSG_CONNECTIVITY_BASE:
        process_family_msg("ProcessConnectivityDetectMsg", NET_TOOLS_MSG_CONNECTIVITY_BASE, *rec, body, body_len,
                           seq);
        break;
    case NET_TOOLS_MSG_SIMPLE_QOS_BASE:
        process_family_msg("ProcessSimpleQosDetectMsg", NET_TOOLS_MSG_SIMPLE_QOS_BASE, *rec, body, body_len, seq);
        break;
    default:
        NT_LOG_AS(NT_LOG_ERROR, "ProcessMORLMsg", "Error App seqId: (%u), Msg ID=0x%x", seq, rec->msg_id);
        break;
    }
}

bool message_check(const std::shared_ptr<DetectSocket>* sock, const std::shared_ptr<DetectBase>* detect,
                   uint32_t msg_id, uint32_t seq) {
    if (sock == nullptr || detect == nullptr) {
        NT_LOGE("seq: (%u), detect_sock or detect pointer is null", seq);
        return false;
    }
    std::shared_ptr<DetectSocket> s = *sock;
    std::shared_ptr<DetectBase> d = *detect;
    if (!s || !d) {
        NT_LOGE("seq: (%u), detect_sock or detect is null", seq);
        return false;
    }
    const long sc = s.use_count();
    const long dc = d.use_count();
    const bool ok = sc >= 2 && sc < kUseCountEnd && dc >= 2 && dc < kUseCountEnd;
    if (ok) {
        NT_LOGI("seq: (%u), shared_count sockcnt(%d)detectcnt(%d)msgId(%u)sock(%u)", seq, static_cast<int>(sc),
                static_cast<int>(dc), msg_id, nt_log_addr(s.get()));
    } else {
        NT_LOGE("seq: (%u), shared_count sockcnt(%d)detectcnt(%d)msgId(%u)sock(%u)", seq, static_cast<int>(sc),
                static_cast<int>(dc), msg_id, nt_log_addr(s.get()));
    }
    return ok;
}

DetectSockPtr NetToolsMsg::create_socket(const NetToolsMsgRecord& record) {
    if (record.body_len < sizeof(DetectSocketBody)) {
        NT_LOGE("detect_sock or detect pointer is null");
        return DetectSockPtr();
    }
    DetectSocketBody body;
    memcpy(&body, reinterpret_cast<const uint8_t*>(&record) + kMsgRecordHead, sizeof body);
    const void* sock_key = reinterpret_cast<const void*>(body.sock_key);
    const void* detect_key = reinterpret_cast<const void*>(body.detect_key);
    if (sock_key == nullptr || detect_key == nullptr) {
        NT_LOGE("detect_sock or detect pointer is null");
        return DetectSockPtr();
    }
    std::shared_ptr<DetectSocket> sock = std::dynamic_pointer_cast<DetectSocket>(DetectPtrKeeper::peek_ptr(sock_key));
    std::shared_ptr<DetectBase> detect = DetectPtrKeeper::peek_ptr(detect_key);
    DetectPtrKeeper::release(sock_key, false);
    DetectPtrKeeper::release(detect_key, false);
    if (!sock || !detect) {
        NT_LOGE("detect_sock or detect is null");
        return DetectSockPtr();
    }
    sock->set_dest_addr(body.dest_ip, body.dest_port);
    if (body.proxy_ip != 0) sock->set_proxy_addr(body.proxy_ip, body.proxy_port);
    DetectSockPtr holder = sock->m_sock;
    if (!holder) {
        NT_LOGE("create sock error");
        return DetectSockPtr();
    }
    const int32_t fd = *holder;
    NT_LOGI("sockptr(%x)fd(%d)type(%s)sock, shared_count sock(%d)detect(%d)", nt_log_addr(holder.get()), fd,
            sock->get_type_str(), static_cast<int>(sock.use_count()), static_cast<int>(detect.use_count()));
    register_detect(fd, std::move(sock), std::move(detect));
    return holder;
}

// ---- events of the services ---------------------------------------------------------------

bool NetToolsMsg::post_event(Event event) {
    uint64_t key = 0;
    {
        std::lock_guard<std::mutex> guard(m_event_mutex);
        key = m_next_event++;
        m_events.emplace(key, std::move(event));
    }
    const uint32_t ret = net_tools_msg_asyn_send(NET_TOOLS_MSG_DETECT_EVENT, 0, static_cast<uint32_t>(key),
                                                 static_cast<uint32_t>(key >> 32), 0, nullptr, 0, kNetToolsModule,
                                                 kMidDetectMain, kNetToolsModule, kMidDetectRecv, kAsynSendArg);
    if (ret == 0) return true;
    std::lock_guard<std::mutex> guard(m_event_mutex);
    m_events.erase(key);
    return false;
}

void NetToolsMsg::run_event(uint64_t key) {
    Event event;
    {
        std::lock_guard<std::mutex> guard(m_event_mutex);
        auto it = m_events.find(key);
        if (it == m_events.end()) {
            NT_LOGW("event(%llu) not found", static_cast<unsigned long long>(key));
            return;
        }
        event = std::move(it->second);
        m_events.erase(it);
    }
    switch (event.kind) {
    case Event::Timer: g_timer_save.notify_timeout_res(event.timer, event.generation); break;
    case Event::Dns: g_asyn_dns.notify_dns_res(event.req_id, event.host.c_str(), event.addr); break;
    case Event::Proxy: proxy_result(event.fd, event.result); break;
    }
}

void NetToolsMsg::proxy_result(int32_t fd, int32_t result) {
    Entry entry;
    {
        std::lock_guard<std::mutex> guard(m_detect_mutex);
        auto it = m_detect_map.find(fd);
        if (it == m_detect_map.end() || !it->second.proxy_pending) {
            it = m_detect_map.end();
        } else {
            entry = std::move(it->second);
            m_detect_map.erase(it);
        }
    }
    if (!entry.pair.sock) {
        NT_LOG_AS(NT_LOG_WARN, "NetToolsMsg::get_detect", "No detect found for");
        return;
    }
    if (entry.free_requested) {
        NT_LOGI("fd(%d) proxy result(%d) after its free, dropped", fd, result);
        return;
    }
    entry.pair.detect->recv_http_over_proxy_resp(entry.pair.sock, entry.pair.detect, static_cast<uint32_t>(result));
    NT_LOGI("fd(%d)remain(%d)", fd, static_cast<int>(table_size()));
}

void http_proxy_connect_result(int32_t fd, int32_t result) {
    NetToolsMsg::Event event;
    event.kind = NetToolsMsg::Event::Proxy;
    event.fd = fd;
    event.result = result;
    if (!g_net_tools_msg.post_event(std::move(event))) g_net_tools_msg.drop_proxy_entry(fd);
}
