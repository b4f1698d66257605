// Marking of a socket's traffic with a quality-of-service class through the
// QoS service of the OS adapter.
#pragma once

#include <cstdint>

struct sockaddr;

class SocketDscp {
public:
    // Opens the QoS handle; on failure the handle stays 0 and every later
    // mark fails (and is logged) without further harm.
    SocketDscp();
    virtual ~SocketDscp();
    SocketDscp(const SocketDscp&) = delete;
    SocketDscp& operator=(const SocketDscp&) = delete;

    // Marks fd with traffic type `level` (0 best effort, 1 background,
    // 2 excellent effort, 3 audio and video, 4 voice, 5 control).
    // srv_addr is an IPv4 destination or null (the connected peer). The
    // outcome is only logged: an unmarked socket still works. Takes no lock.
    void set_socket_dscp(int32_t fd, int32_t level, const sockaddr* srv_addr);

private:
    uint64_t m_qos_handle = 0;
};

// The process-wide instance. Made during library load (and at the latest on
// the first call of socket_dscp()); never destroyed, so media threads still
// running while the process exits can keep marking sockets.
SocketDscp& socket_dscp();
extern SocketDscp& g_socket_dscp;
