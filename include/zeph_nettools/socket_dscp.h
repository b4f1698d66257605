/*
 * zeph_nettools: marking a socket's traffic with a quality-of-service class.
 */
#ifndef ZEPH_NETTOOLS_SOCKET_DSCP_H
#define ZEPH_NETTOOLS_SOCKET_DSCP_H

#include <stdint.h>

#include "zeph_nettools/export.h"

ZEPH_EXTERN_C_BEGIN

struct sockaddr;

/* Traffic classes (`level`). */
#define ZEPH_DSCP_BEST_EFFORT 0
#define ZEPH_DSCP_BACKGROUND 1
#define ZEPH_DSCP_EXCELLENT_EFFORT 2
#define ZEPH_DSCP_AUDIO_VIDEO 3 /* type-of-service byte 136 (DSCP 34, AF41) */
#define ZEPH_DSCP_VOICE 4       /* type-of-service byte 184 (DSCP 46, EF) */
#define ZEPH_DSCP_CONTROL 5     /* type-of-service byte 224 (DSCP 56, CS7) */

/*
 * Marks the traffic of socket `fd` with the class `level`. On Linux the
 * socket's type-of-service byte is set (IP_TOS); classes 1 and 2 have no byte
 * of their own and mark as best effort. `srv_addr` is an IPv4 destination or
 * null; with null the class applies to the socket's connected peer. Failures
 * are logged; the socket then works unmarked. No result.
 */
ZEPH_API void zeph_set_socket_dscp(uint32_t fd, uint32_t level, const struct sockaddr* srv_addr);

ZEPH_EXTERN_C_END

#endif
