// Targets from the command line to the records of the port detections. Runs
// on main.
#include "targets.h"

#include <netdb.h>

#include <cstring>

#include "ipv4.h"
#include "options.h"

namespace cli {

const char* proto_name(uint8_t protocol) {
    switch (protocol) {
    case ZEPH_TRANS_TCP: return "tcp";
    case ZEPH_TRANS_UDP: return "udp";
    case ZEPH_TRANS_ICMP: return "icmp";
    default: return "?";
    }
}

std::string Target::text() const {
    if (protocol == ZEPH_TRANS_ICMP) return host + "/icmp";
    return host + ":" + std::to_string(port) + "/" + proto_name(protocol);
}

bool parse_target(const std::string& text, Target& out, std::string& error) {
    error = "bad target '" + text + "', expected HOST:PORT/tcp|udp|icmp";
    auto slash = text.rfind('/');
    if (slash == std::string::npos) return false;
    std::string proto = text.substr(slash + 1);
    std::string hostport = text.substr(0, slash);
    Target t;
    if (proto == "tcp")
        t.protocol = ZEPH_TRANS_TCP;
    else if (proto == "udp")
        t.protocol = ZEPH_TRANS_UDP;
    else if (proto == "icmp")
        t.protocol = ZEPH_TRANS_ICMP;
    else
        return false;
    auto colon = hostport.rfind(':');
    if (colon == std::string::npos) {
        if (t.protocol != ZEPH_TRANS_ICMP) return false;
        t.host = hostport;
        t.port = 1;
    } else {
        t.host = hostport.substr(0, colon);
        if (!parse_port(hostport.substr(colon + 1), t.port)) {
            error = "bad port in '" + text + "' (1..65535)";
            return false;
        }
    }
    if (t.host.empty()) return false;
    out = t;
    error.clear();
    return true;
}

bool resolve_ipv4(const std::string& host, uint32_t& addr) {
    if (zeph_tools::ipv4_parse(host, addr)) return true;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* res = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || !res) return false;
    addr = reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr.s_addr;
    freeaddrinfo(res);
    return true;
}

void fill_port_info(const Groups& groups, PortDetectInfo& info) {
    std::memset(&info, 0, sizeof info);
    info.group_num = int32_t(groups.size());
    for (size_t g = 0; g < groups.size(); ++g) {
        info.groups[g].detect_num = int32_t(groups[g].size());
        for (size_t e = 0; e < groups[g].size(); ++e) {
            PortDetectEntry& en = info.groups[g].entries[e];
            en.addr = groups[g][e].addr;
            en.port = groups[g][e].port;
            en.protocol = groups[g][e].protocol;
        }
    }
}

} // namespace cli
