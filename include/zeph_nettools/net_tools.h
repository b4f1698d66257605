/*
 * zeph_nettools: network detections.
 *
 * Every detection export checks its arguments, starts the detection on
 * library threads and returns without waiting for the result; the result
 * arrives later through the callback, on a library thread. Results point to
 * records valid for the duration of the callback only. The port detections
 * (zeph_3port_detect, zeph_any_port_detect) start their probes on the
 * caller's thread, one after the other, about 10 ms per destination, so they
 * return after up to about 280 ms for a full record.
 *
 * Addresses in records are IPv4 in network byte order (the first octet of
 * the dotted form in the low byte); ports are in host byte order.
 * Transports: 1 TCP, 2 UDP, 11 ICMP.
 */
#ifndef ZEPH_NETTOOLS_NET_TOOLS_H
#define ZEPH_NETTOOLS_NET_TOOLS_H

#include <stdint.h>

#include "zeph_nettools/export.h"

ZEPH_EXTERN_C_BEGIN

/* ---- port detection ------------------------------------------------------ */

#define ZEPH_PORT_DETECT_MAX_GROUPS 7
#define ZEPH_PORT_DETECT_MAX_ENTRIES 4

#define ZEPH_TRANS_TCP 1
#define ZEPH_TRANS_UDP 2
#define ZEPH_TRANS_ICMP 11

/* Port detection modes (PortDetectInfo.type). */
#define ZEPH_PORT_DETECT_ONE 0
#define ZEPH_PORT_DETECT_THREE 1
#define ZEPH_PORT_DETECT_ANY 2

/* One destination, 132 bytes. */
typedef struct PortDetectEntry {
    union {
        uint32_t addr;  /* IPv4, network byte order */
        char text[128]; /* host name, for the firewall detection */
    };
    uint16_t port;    /* host byte order */
    uint8_t protocol; /* 1 TCP, 2 UDP, 11 ICMP; other values: no probe */
    uint8_t reached;  /* out: 1 when the destination answered */
} PortDetectEntry;

/* Up to 4 destinations, 536 bytes. */
typedef struct PortDetectGroup {
    int32_t detect_num; /* entries in use, at most 4 */
    uint32_t ret;       /* out, three-port mode: the group's code */
    PortDetectEntry entries[ZEPH_PORT_DETECT_MAX_ENTRIES];
} PortDetectGroup;

/* The caller's record, 3776 bytes; copied whole by the detection. */
typedef struct PortDetectInfo {
    int32_t group_num; /* groups in use, at most 7 */
    uint32_t num;      /* serial number, set by the export from its argument */
    uint32_t type;     /* mode, set by the export */
    uint32_t reserved;
    uint64_t notify; /* any-port mode: non-zero asks for the whole record as result */
    PortDetectGroup groups[ZEPH_PORT_DETECT_MAX_GROUPS];
} PortDetectInfo;

/* Result of one-port and three-port mode, 12 bytes. */
typedef struct PortDetectResult {
    uint32_t num;
    uint32_t type;
    uint32_t ret; /* one-port: 1 open, 0 closed; three-port: see zeph_3port_detect */
} PortDetectResult;

/* One group of an any-port result, 28 bytes. */
typedef struct AnyPortGroupResult {
    uint32_t reserved[2];
    uint32_t detect_num;
    uint32_t open[ZEPH_PORT_DETECT_MAX_ENTRIES]; /* 1 open, 0 closed */
} AnyPortGroupResult;

/* Result of any-port mode, 208 bytes. */
typedef struct AnyPortResult {
    uint32_t num;
    uint32_t type;
    uint32_t group_num;
    AnyPortGroupResult groups[ZEPH_PORT_DETECT_MAX_GROUPS];
} AnyPortResult;

/*
 * Result callback of the port detections. `result` points to a
 * PortDetectResult (one- and three-port mode), an AnyPortResult (any-port
 * mode) or a PortDetectInfo (any-port mode with `notify` set).
 */
typedef void (*PortDetectNotify)(void* result);

/*
 * Three-port detection. Each group holds the entries for ports 10002 (UDP),
 * 443 and 1124 in this order. The result code is
 *   (best group index << 24) | (media << 8) | share
 * with media 2 when port 10002 answered, 1 when only 443 did, else 0, and
 * share 2 when 1124 answered, else 0. 0 when nothing answered.
 * Returns 0, 1 for a null `info`, -1 when a thread could not be started.
 */
ZEPH_API int32_t zeph_3port_detect(uint32_t num, PortDetectInfo* info, PortDetectNotify notify);
/* Any-port detection: the open or closed state of every destination.
 * Returns after about 10 ms per destination (the probes' start is paced).
 * The result reports the counts served: group_num at most 7, detect_num at
 * most 4 (negative counts as 0). */
ZEPH_API int32_t zeph_any_port_detect(uint32_t num, PortDetectInfo* info, PortDetectNotify notify);

/* ---- net detection ------------------------------------------------------- */

/* A measurement's outcome, 56 bytes. */
typedef struct NetDetectResult {
    uint32_t num;       /* caller's serial number */
    uint32_t level;     /* which measurement; 1 for a single detection */
    uint32_t level_num; /* 7 in plan records, 1 for a single detection */
    uint32_t qos;       /* quality class, 0 best to 3 worst */
    int32_t average;    /* delay, milliseconds */
    int32_t max;
    int32_t min;
    int32_t discard;   /* percent of probes without an answer, 0..100 */
    uint32_t is_proxy; /* a proxy was configured at reporting time */
    uint32_t ready;
    uint32_t reported;
    uint32_t reserved;
    uint64_t context; /* caller's context value (zeph_net_detect_jni) */
} NetDetectResult;

typedef void (*NetDetectNotify)(NetDetectResult* result);

/*
 * The seven-measurement plan over the servers set with
 * zeph_set_net_detect_srvs: ICMP to servers 0 and 1 (levels 5, 6), TCP 443
 * to servers 2 and 3 (levels 1, 2), and one level 3 record folding TCP 1124
 * to server 4 with UDP 10002 and 443 to server 5.
 * The callback may be called from two threads at the same time.
 * Returns 0, or 1 when out of memory.
 */
ZEPH_API uint32_t zeph_net_detect(int32_t num, NetDetectNotify notify);
ZEPH_API uint32_t zeph_net_detect_default(int32_t num, NetDetectNotify notify);
ZEPH_API uint32_t zeph_net_detect_jni(int32_t num, NetDetectNotify notify, uint64_t context);
/*
 * One measurement of `addr` (dotted or name): 4 TCP connects, 6 UDP STUN
 * requests or 6 ICMP echoes, reported once with level 1.
 * Returns 0, or 1 for a null or unresolvable address or port 0.
 */
ZEPH_API int32_t zeph_single_net_detect(uint32_t num, const char* addr, uint16_t port, uint8_t protocol,
                                        NetDetectNotify notify);
/* The six server names of the plan; at most the first 6 are taken, null is empty. Returns 0. */
ZEPH_API int32_t zeph_set_net_detect_srvs(const char** srvs, int32_t count);

/* ---- runtime and texts --------------------------------------------------------- */

/* Starts the detection runtime and the module clock. 0 on success. */
ZEPH_API int32_t zeph_net_tools_init(void);
ZEPH_API int32_t zeph_net_tools_uninit(void);

/* "STUN", "STUN_CUSTOM", "ICE" for 0, 1, 2, else "UNKNOW". Never null. */
ZEPH_API const char* zeph_get_detect_protocol_type_str(uint32_t type);
/* "TCP", "UDP", "ICMP" for 1, 2, 11, else "UNKNOW". Never null. */
ZEPH_API const char* zeph_get_trans_protocol_type_str(uint32_t type);

ZEPH_EXTERN_C_END

#ifdef __cplusplus
static_assert(sizeof(PortDetectEntry) == 132, "PortDetectEntry is 132 bytes");
static_assert(sizeof(PortDetectGroup) == 536, "PortDetectGroup is 536 bytes");
static_assert(sizeof(PortDetectInfo) == 3776, "PortDetectInfo is 3776 bytes");
static_assert(sizeof(PortDetectResult) == 12, "PortDetectResult is 12 bytes");
static_assert(sizeof(AnyPortResult) == 208, "AnyPortResult is 208 bytes");
static_assert(sizeof(NetDetectResult) == 56, "NetDetectResult is 56 bytes");
#else
_Static_assert(sizeof(PortDetectInfo) == 3776, "PortDetectInfo is 3776 bytes");
_Static_assert(sizeof(NetDetectResult) == 56, "NetDetectResult is 56 bytes");
#endif

#endif
