// NetToolsAsynDns: start_asyn_dns and stop_asyn_dns run on the detection's
// thread; dns_arecord_ind runs on the resolver thread and only posts;
// notify_dns_res runs on the message thread and calls the detection with no
// lock held.
#include "inc/net_tools_msg.h"

#include <cstdio>

#include "bwdetect/detect_base.h"
#include "dns/ravn_dns.h"
#include "net_tools_msg/net_tools_msg_log.h"

namespace {
constexpr size_t kDottedSize = 16;
uint32_t low32(uint64_t v) { return static_cast<uint32_t>(v); }
} // namespace

uint32_t NetToolsAsynDns::start_asyn_dns(const std::vector<std::string>& hosts,
                                         const std::weak_ptr<DetectBase>& detect) {
    uint64_t first = 0;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        first = m_next_req_id;
        m_next_req_id += m_group_size;
        m_detect_by_group[first / m_group_size] = detect;
    }
    uint32_t count = static_cast<uint32_t>(hosts.size());
    if (count > m_group_size) {
        NT_LOGW("resolve dns num(%u) is out of range(%u)", count, m_group_size);
        count = m_group_size;
    }
    uint32_t sum = 0;
    uint64_t req = first;
    for (uint32_t i = 0; i < count; ++i, ++req) {
        NT_LOGD("start dns(%s)req_id(%u)", hosts[i].c_str(), low32(req));
        sum += RAVN_NETB_DnsGetIpByAsynResolve(hosts[i].c_str(), 0, m_dns_param, dns_arecord_ind, req, 0);
    }
    return sum;
}

void NetToolsAsynDns::stop_asyn_dns(const DetectBase* detect) {
    bool found = false;
    uint64_t group = 0;
    size_t remain = 0;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        for (auto it = m_detect_by_group.begin(); it != m_detect_by_group.end();) {
            std::shared_ptr<DetectBase> d = it->second.lock();
            if (!d) {
                // A detection that ended without stopping: its group goes too.
                it = m_detect_by_group.erase(it);
            } else if (!found && d.get() == detect) {
                group = it->first;
                it = m_detect_by_group.erase(it);
                found = true;
            } else {
                ++it;
            }
        }
        remain = m_detect_by_group.size();
    }
    if (found) {
        NT_LOGI("req_id(%u)remain(%u)", low32(group), static_cast<uint32_t>(remain));
    } else {
        NT_LOGD("No detect found for");
    }
}

void NetToolsAsynDns::dns_arecord_ind(uint32_t result, const char* host, const RAVN_DnsAddrRecord* list,
                                      int32_t count, uint32_t ttl, uint64_t req_id) {
    if (req_id == 0 || host == nullptr || list == nullptr) {
        NT_LOGE("para is null! para(%x)host(%s)list(%x)", low32(req_id), host != nullptr ? host : "null",
                nt_log_addr(list));
        return;
    }
    const uint32_t addr = list->addr;
    char ip[kDottedSize] = {};
    snprintf(ip, sizeof ip, "%u.%u.%u.%u", addr & 0xFF, (addr >> 8) & 0xFF, (addr >> 16) & 0xFF, (addr >> 24) & 0xFF);
    NT_LOGI("res=%d host(%s)ip(%s)cnt(%d)ttl(%d)reqid(%u)", static_cast<int>(result), host, ip, count,
            static_cast<int>(ttl), low32(req_id));
    if (count == 0) {
        NT_LOGE("resolve success num is zero");
        return;
    }
    if (list->type != RAVN_DNS_ADDR_IPV4) {
        NT_LOGW("iptype=%u", list->type);
        return;
    }
    NetToolsMsg::Event event;
    event.kind = NetToolsMsg::Event::Dns;
    event.req_id = req_id;
    event.host = host;
    event.addr = addr;
    if (!g_net_tools_msg.post_event(std::move(event))) {
        NT_LOGW("answer of reqid(%u) not delivered", low32(req_id));
    }
}

void NetToolsAsynDns::notify_dns_res(uint64_t req_id, const char* host, uint32_t addr) {
    std::shared_ptr<DetectBase> detect;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        auto it = m_detect_by_group.find(req_id / m_group_size);
        if (it != m_detect_by_group.end()) detect = it->second.lock();
    }
    if (!detect) {
        NT_LOGW("No detect found for");
        return;
    }
    detect->recv_dns(host, addr);
}

size_t NetToolsAsynDns::size() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_detect_by_group.size();
}
