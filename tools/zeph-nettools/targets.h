// Targets of the detections as the command line names them
// ("HOST:PORT/tcp|udp", "HOST/icmp"), their resolution to IPv4 and the
// record the port detections take. Runs on main.
#pragma once

#include <zeph_nettools/net_tools.h>

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

struct Target {
    std::string host;
    uint16_t port = 0;
    uint8_t protocol = 0; // ZEPH_TRANS_*
    uint32_t addr = 0;    // network byte order, once resolved
    std::string text() const; // "host:port/udp"
};

const char* proto_name(uint8_t protocol); // "tcp", "udp", "icmp"
// "HOST:PORT/tcp|udp|icmp" or "HOST/icmp" (the echo needs no port; the
// library still wants a non-zero one, so 1 is used).
bool parse_target(const std::string& text, Target& out, std::string& error);
// Dotted text or a name to IPv4 in network byte order (A records only).
bool resolve_ipv4(const std::string& host, uint32_t& addr);

// The targets of a port detection, by group, as given to the export.
using Groups = std::vector<std::vector<Target>>;

// Fills a PortDetectInfo from the groups (addresses already resolved).
void fill_port_info(const Groups& groups, PortDetectInfo& info);

} // namespace cli
