/* Compiles the public headers as C and calls the library through them. */
#include <stdio.h>
#include <string.h>

#include <zeph_nettools/kest_sock.h>
#include <zeph_nettools/net_tools.h>
#include <zeph_nettools/settings.h>

int main(void) {
    if (strcmp(zeph_get_trans_protocol_type_str(11), "ICMP") != 0) return 1;
    if (strcmp(zeph_get_detect_protocol_type_str(7), "UNKNOW") != 0) return 1;
    {
        kest_fdset set;
        kest_fd_zero(&set);
        kest_fd_set(3, &set);
        kest_fd_set(3, &set);
        if (set.fd_count != 1 || kest_fd_isset(3, &set) != 1) return 1;
        kest_set_port(5000);
        if (kest_get_port() != 5000) return 1;
    }
    if (zeph_net_tools_init() != 0) return 1;
    zeph_net_tools_uninit();
    puts("embed ok");
    return 0;
}
