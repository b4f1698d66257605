/*
 * zeph_nettools: the tunnel socket shim.
 *
 * A thin socket interface for callers outside the library. kest_sendto and
 * kest_recvfrom wrap every UDP datagram in a small head and send it to one
 * tunnel port on the destination host; the real destination port travels in
 * the head:
 *
 *   offset 0  0xFF
 *   offset 1  0x01
 *   offset 2  destination port, most significant byte first
 *   offset 4  with the ssrc flag set only: 0xFF 0x02 0xEC 0xEC
 *
 * The other calls pass straight to the socket layer. They take the numbers
 * of the Windows socket interface (the KEST_* constants below), addresses in
 * the 16-byte IPv4 layout (a Linux struct sockaddr_in has it) and the
 * Windows fd_set layout (kest_fdset). Descriptors are 32-bit signed.
 *
 * The tunnel port and the ssrc flag are process-wide; set them before the
 * first send. All calls may be made from any thread.
 */
#ifndef ZEPH_NETTOOLS_KEST_SOCK_H
#define ZEPH_NETTOOLS_KEST_SOCK_H

#include <stdint.h>

#include "zeph_nettools/export.h"

ZEPH_EXTERN_C_BEGIN

struct sockaddr;

/* Numbers of the Windows socket interface that the calls take. */
#define KEST_AF_INET 2
#define KEST_SOCK_STREAM 1
#define KEST_SOCK_DGRAM 2
#define KEST_IPPROTO_IP 0
#define KEST_IPPROTO_TCP 6
#define KEST_IPPROTO_UDP 17
#define KEST_FIONBIO 0x8004667Eu  /* *arg != 0: non-blocking */
#define KEST_FIONREAD 0x4004667Fu /* *arg: bytes waiting */
#define KEST_SOL_SOCKET 0xFFFF
#define KEST_SO_REUSEADDR 0x0004
#define KEST_SO_BROADCAST 0x0020
#define KEST_SO_SNDBUF 0x1001
#define KEST_SO_RCVBUF 0x1002
#define KEST_SO_SNDTIMEO 0x1005 /* 32-bit milliseconds */
#define KEST_SO_RCVTIMEO 0x1006 /* 32-bit milliseconds */
#define KEST_SO_ERROR 0x1007
#define KEST_IP_TOS 3 /* level KEST_IPPROTO_IP */

/* kest_recvfrom's result for a datagram that does not carry the tunnel
 * head (4 bytes or less, or other first bytes). It is not a socket error. */
#define KEST_ERR_NOT_TUNNEL (-1000)

/* The Windows fd_set: a count, then up to 64 descriptors. */
#define KEST_FD_SETSIZE 64
typedef struct kest_fdset {
    uint32_t fd_count;
    int32_t fd_array[KEST_FD_SETSIZE];
} kest_fdset;

/* The Windows timeval (a Linux struct timeval has the same layout). */
typedef struct kest_timeval {
    long tv_sec;
    long tv_usec;
} kest_timeval;

/* ---- pass-through calls: results as the Windows calls give them ---------- */
/* A descriptor, or -1. */
ZEPH_API int32_t kest_socket(int32_t af, int32_t type, int32_t protocol);
/* 0, or -1. */
ZEPH_API int32_t kest_bind(int32_t fd, const struct sockaddr* addr, int32_t addrlen);
ZEPH_API int32_t kest_close_socket(int32_t fd);
/* The number of ready descriptors (each set cut to its ready ones), 0 when
 * the time ran out, -1 on failure. nfds is ignored. A null timeout waits
 * without limit. */
ZEPH_API int32_t kest_select(int32_t nfds, kest_fdset* readfds, kest_fdset* writefds, kest_fdset* exceptfds,
                             const kest_timeval* timeout);
/* KEST_FIONBIO or KEST_FIONREAD. 0, or -1. */
ZEPH_API int32_t kest_ioctl(int32_t fd, uint32_t cmd, uint32_t* arg);
/* 0, or -1. */
ZEPH_API int32_t kest_get_sock_opt(int32_t fd, int32_t level, int32_t name, void* value, int32_t* length);
ZEPH_API int32_t kest_set_sock_opt(int32_t fd, int32_t level, int32_t name, const void* value, int32_t length);

/* ---- descriptor sets: a null set does nothing and holds nothing ----------- */
/* Empties the set. */
ZEPH_API void kest_fd_zero(kest_fdset* set);
/* Adds fd unless it is already in the set or the set holds 64. */
ZEPH_API void kest_fd_set(int32_t fd, kest_fdset* set);
/* 1 if fd is in the set, else 0. */
ZEPH_API int32_t kest_fd_isset(int32_t fd, const kest_fdset* set);

/* ---- settings ------------------------------------------------------------ */
/* The port (host byte order) to which every datagram is sent; 0 at load. */
ZEPH_API void kest_set_port(uint16_t port);
ZEPH_API uint16_t kest_get_port(void);
/* Not 0: kest_sendto writes the 8-byte head. 0 at load. */
ZEPH_API void kest_set_ssrc_flag(uint32_t flag);
ZEPH_API uint32_t kest_get_ssrc_flag(void);
/* Always 0: failures are told by the calls' results. */
ZEPH_API int32_t kest_get_last_error(void);
/* Always 0: the shim keeps no buffer of its own. */
ZEPH_API int32_t kest_get_tunnel_bufsize(void);

/* ---- tunnelled datagrams --------------------------------------------------- */
/*
 * Sends buf[0..len) with the head in front to the address of `addr` (16-byte
 * IPv4, addrlen at least 16) at the tunnel port; the port of `addr` goes into
 * the head. The result counts the head: len + 4 (len + 8 with the ssrc flag)
 * when sent, 0 when no memory could be had, -1 on a socket error or when
 * `addr`, `buf` or `len` cannot be used.
 */
ZEPH_API int32_t kest_sendto(int32_t fd, const void* buf, int32_t len, int32_t flags, const struct sockaddr* addr,
                             int32_t addrlen);
/*
 * Receives one datagram, takes a 4-byte head off and writes up to len bytes
 * of what follows into buf. The port of `from` becomes the port of the head,
 * the peer's real port. Always 4 bytes are taken off: behind an 8-byte head
 * the second head word stays in front of the payload.
 * Result: the payload length; KEST_ERR_NOT_TUNNEL for a datagram of 4 bytes
 * or less or with other first bytes; -1 when no memory could be had; the
 * socket's -1 on a socket error. `from` may be null; if not, *fromlen must be
 * at least 16.
 */
ZEPH_API int32_t kest_recvfrom(int32_t fd, void* buf, int32_t len, int32_t flags, struct sockaddr* from,
                               int32_t* fromlen);

ZEPH_EXTERN_C_END

#endif
