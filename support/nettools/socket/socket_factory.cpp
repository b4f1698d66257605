// The factory of probe sockets and its three registrars, built at load
// before any export runs; get_socket runs on any thread.
#include "inc/detect_socket.h"

template <>
SocketFactory<DetectSocket>& SocketFactory<DetectSocket>::instance() {
    static SocketFactory<DetectSocket> factory;
    return factory;
}

namespace {
SocketRegistrar<DetectSocket, DetectSocketUDP> s_udp_registrar(DETECT_SOCKET_KEY_UDP);
SocketRegistrar<DetectSocket, DetectSocketTCP> s_tcp_registrar(DETECT_SOCKET_KEY_TCP);
SocketRegistrar<DetectSocket, DetectSocketICMP> s_icmp_registrar(DETECT_SOCKET_KEY_ICMP);
} // namespace
