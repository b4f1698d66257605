// IPv4 addresses as the tools, the loopback peers, the benchmarks and the
// tests write them: dotted text, 32-bit numbers in network byte order (first
// octet in the low byte) and socket addresses. Pure functions; any thread.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace zeph_tools {

// Dotted text to a network-order number ("127.0.0.1" -> 0x0100007F). False,
// and `be_addr` untouched, when `text` is not dotted IPv4.
inline bool ipv4_parse(const std::string& text, uint32_t& be_addr) {
    in_addr a{};
    if (inet_pton(AF_INET, text.c_str(), &a) != 1) return false;
    be_addr = a.s_addr;
    return true;
}

// As ipv4_parse, 0 when `text` is not dotted IPv4.
inline uint32_t ipv4_be(const std::string& text) {
    uint32_t be_addr = 0;
    return ipv4_parse(text, be_addr) ? be_addr : 0;
}

// A network-order number to dotted text.
inline std::string ipv4_text(uint32_t be_addr) {
    char buf[INET_ADDRSTRLEN] = {};
    in_addr a{};
    a.s_addr = be_addr;
    inet_ntop(AF_INET, &a, buf, sizeof buf);
    return buf;
}

// ip:port (port in host byte order) as a socket address. False when `ip`
// is not dotted IPv4; the address then holds the port and 0.0.0.0.
inline bool ipv4_sockaddr(const std::string& ip, uint16_t port, sockaddr_in& sa) {
    std::memset(&sa, 0, sizeof sa);
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    return ipv4_parse(ip, sa.sin_addr.s_addr);
}

} // namespace zeph_tools
