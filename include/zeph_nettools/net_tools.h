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

/* ---- quality detections (C++ only) ------------------------------------------
 * These exports take and deliver standard strings and vectors: caller and
 * library are built with the same standard library. The names stay plain
 * (extern "C"), the records' layout is not a wire format. */
#ifdef __cplusplus
#include <string>
#include <vector>

/* One server site of a quality detection. */
struct DetectSiteInfo {
    int32_t valid = 0;       /* written by the detection: 1 if the site can be used */
    int16_t index = 0;       /* the caller's number for the site, reported back unchanged */
    uint16_t port = 0;       /* server port, host byte order */
    uint32_t delaybase = 0;  /* ms added to the measured one-way delay when scoring */
    std::string ip;          /* server address, dotted or a name */
    std::string auth_token;  /* 1 to 64 bytes */
    std::string auth_para;   /* 1 to 128 bytes */
};

/* One site's figures in a report. Delays and jitters in ms, loss rates in
 * thousandths; 10000 in a delay or jitter and 1000 in a loss mean that
 * nothing could be measured. "a_" is the average, "m_" the worst second;
 * "s" is towards the server, "r" back from it. */
struct DetectQosResult {
    int16_t index; /* the site's index */
    int32_t score; /* 0..7000 with the default table and weights, -1000 unusable */
    int32_t is_pre; /* 1 for the best site */
    int32_t a_delay, m_delay; /* round trip */
    int32_t a_s_jitter, m_s_jitter;
    int32_t a_r_jitter, m_r_jitter;
    int32_t a_s_loss, m_s_loss;
    int32_t a_r_loss, m_r_loss;
    int32_t max_s_cont_loss_num, max_r_cont_loss_num; /* longest runs of lost packets */
};
static_assert(sizeof(DetectQosResult) == 60, "DetectQosResult is 60 bytes");

/* One row of the score table: at this delay (ms, one way), jitter (ms) and
 * loss (thousandths) the score of each is `score`. */
struct DetectRole {
    int32_t valid;
    int32_t delay;
    int32_t jitter;
    int32_t loss;
    int32_t score;
};
static_assert(sizeof(DetectRole) == 20, "DetectRole is 20 bytes");

/* Callback of the quality detections: `id` 0; `p1` a result code, 0 for
 * results; `p2` the index of the best (or reported) site, else 0; the
 * results by value, so the callee owns its copy. Runs on a library thread. */
using DetectBwNotify = void (*)(int32_t id, int32_t p1, int32_t p2, std::vector<DetectQosResult> results);

/* How a long-time detection runs. */
struct DetectBwConfig {
    int32_t is_auth;             /* non-zero: the site's token and parameter go with every packet */
    int32_t level;               /* 0..6 (packets per second 25, 50, 100, 200, 200, 400, 800); else 1 */
    int32_t time_len;            /* seconds, at least 10: one report per whole 10 s */
    DetectBwNotify fun_callback; /* one record per report */
};

/* One server site of the nearest-site race, and its row in the results. */
struct OptSiteInfo {
    std::string name;        /* region name, reported back unchanged */
    std::string nodeName;    /* node name, reported back unchanged */
    std::string addr;        /* dotted address or host name */
    uint16_t port = 0;       /* server port, host byte order */
    uint16_t category_delay = 0; /* ms to hold the site back; above 300 reported as 300 */
    uint16_t delay = 0;      /* out: ms from its category's sending to its first answer, 65535 without one */
    uint16_t discard = 0;    /* out: probes without an answer, percent */
};

/* Callback of the race: `id` and `p1` 0; `p2` 0 for the best site (one
 * record, discard 0), 1 for the final table. The records are valid for the
 * call only. Runs on the detection runtime's message thread. */
using DetectOptNotify = void (*)(int32_t id, int32_t p1, uint32_t p2, const std::vector<OptSiteInfo>& results);

extern "C" {

/*
 * Scores up to 10 sites at once: a 3 s stream to each (the rate shared
 * evenly among them), one callback with a record per site in site order and
 * the best one marked (ties go to the first). Client ports are bound from
 * 64100 up, one per site. Returns 0; 26 for a null callback or no usable
 * site (a site needs ip, port, token and parameter); 31 for more than 10
 * sites or a token or parameter of a bad length. Later failures come through
 * the callback with no records: 23 when a site has no socket (its address
 * does not resolve, or it is not usable), 31 (twice) when a server refuses
 * the token.
 */
ZEPH_API uint32_t zeph_detect_start_mult_site_client(const std::vector<DetectSiteInfo>& sites,
                                                     DetectBwNotify notify);
/*
 * Replaces the score table for all later scoring. Rows must rise in delay,
 * jitter and loss and fall in score; the walk stops at a row with `valid` 0
 * or one that breaks the order; a row scoring -1000 is the limit (a site at
 * or beyond it in any of the three scores -1000). Returns 0; 26 when fewer
 * than two rows are usable (nothing changes); 33 when the scorer is not
 * available.
 */
ZEPH_API uint32_t zeph_detect_set_qos_roles(const std::vector<DetectRole>* roles);
/* Weights of delay, jitter and loss (three values, each 1..5; default 2, 2,
 * 3). Returns 0; 32 when one is out of range or `weights` is null (nothing
 * changes); 33 when the scorer is not available. */
ZEPH_API uint32_t zeph_detect_set_qos_weight(const uint32_t* weights);

/*
 * Watches one site for `time_len` seconds: back-to-back streams of 10 s at
 * the configured level, from two sockets in turn (bound from 64100 and 64101
 * up), each stream reported on its own about 11, 21, 31... s after the start
 * with one record whose `index` is the socket's (0, 1, 0, ...), scored with
 * the site's delaybase. Returns 0; 26 for a null argument, no address or
 * port, or no callback; 31 with is_auth and a missing token or parameter,
 * or one too long. A level outside 0..6 runs at 1, a time_len below 10 as 10.
 */
ZEPH_API uint32_t zeph_detect_start_long_time_bw(const DetectSiteInfo* site, DetectBwConfig* config);
/*
 * The same towards a plain STUN server (RFC 5389 Binding Requests of 1400
 * bytes, answered by Binding Success): always level 0, written back into
 * `config`. A STUN server tells no times of its own, so the two ways cannot
 * be told apart: all loss is reported as loss on the way back, and the
 * round-trip jitter is split evenly between the two directions.
 */
ZEPH_API uint32_t zeph_detect_start_stun_long_time(const DetectSiteInfo* site, DetectBwConfig* config);

/*
 * Races up to 32 sites (the rest is ignored): 32 NPS probes to each, sites
 * of equal category_delay sent together, a later category that much later.
 * The first answer is reported at once (p2 0); about a second after the
 * burst the table (p2 1) with every site that resolved, ascending by
 * category_delay. Names are resolved first (at most 1 s); a site whose name
 * does not resolve has no row. Needs zeph_net_tools_init. Returns 0; 1 for
 * a null callback, a runtime that is not started, or a timer that could
 * not be made (no callback follows).
 */
ZEPH_API uint32_t zeph_detect_start_opt_mult_site(const std::vector<OptSiteInfo>& sites, DetectOptNotify notify);

} /* extern "C" */

/* ---- connectivity detection (C++ only) ------------------------------------
 * Does each of up to 16 targets answer, over its transport and probe? The
 * whole detection takes at most about 5 s: up to 1 s resolving names, up to
 * 3 s waiting for a first answer, then 1 s for the other targets. UDP and
 * ICMP probes go out every 300 ms. Needs zeph_net_tools_init. */

/* One target; the same record comes back, filled in, in the result. */
struct ConnectivitySite {
    uint16_t port = 0;        /* host byte order, not 0 */
    uint8_t protocol = 0;     /* 1 TCP, 2 UDP, 11 ICMP; any other value counts as ICMP */
    uint8_t no_proxy = 0;     /* non-zero: a TCP target goes direct even when a proxy is in use */
    uint8_t detect_type = 0;  /* UDP probe: 0 STUN binding, 1 NPS probe, 2 ICE check; 3 and above count as 0 */
    uint8_t open = 0;         /* out: 1 when the target answered */
    uint32_t delay = 0;       /* out: ms from the opening of the target's socket to the report; 0 when
                                 no socket was opened (a name that did not resolve) */
    std::string addr;         /* dotted address or host name, not empty */
};

struct ConnectivityDetectInfo;
/* The result: the caller's record with `notify` null and the sites filled in. */
typedef ConnectivityDetectInfo ConnectivityResult;
/* Called once per accepted detection, on a library thread; the record is
 * valid for the call only. */
typedef void (*ConnectivityNotify)(ConnectivityResult* result);

struct ConnectivityDetectInfo {
    uint32_t num = 0;                    /* caller's serial number, reported back */
    ConnectivityNotify notify = nullptr; /* result callback */
    std::vector<ConnectivitySite> sites; /* at most the first 16 are probed and reported */
};

extern "C" {

/*
 * Probes every site of `info` at once. Returns 0; 1 (and no callback) for a
 * null record or callback, a site with port 0 or an empty address, the
 * detection runtime not started, or no timer. An empty list is accepted and
 * reported, with no rows, after about 4 s.
 */
ZEPH_API int32_t zeph_any_port_detect_new(const ConnectivityDetectInfo* info);
/* One target with the STUN probe for UDP and no proxy exception. Returns 0;
 * 1 (and no callback) for a null or empty address, port 0, no callback, the
 * runtime not started or no timer. */
ZEPH_API int32_t zeph_single_port_detect(int32_t num, const char* addr, uint16_t port, uint8_t protocol,
                                         ConnectivityNotify notify);

} /* extern "C" */

/* ---- firewall detection (C++ only) ---------------------------------------- */

/* One target of a firewall detection and, filled in, one row of its result. */
struct FwDetectSite {
    uint8_t reached = 0;   /* out: 1 when the port was reached, else 0 */
    uint8_t protocol = 0;  /* in: 1 TCP, 2 UDP, 11 ICMP; out: 0 */
    uint16_t port = 0;     /* host byte order */
    uint32_t index = 0;    /* out: place of the row in the result, from 0 */
    uint32_t is_proxy = 0; /* out: 1 when an HTTP proxy was configured at reporting time */
    std::string addr;      /* in: dotted address or host name, at most 127 bytes; out: dotted address */
};

/* Result of a firewall detection: 0, 0, 0 and the rows, valid for the call
 * only. Called once per detection, on a library thread. */
using FwDetectNotify = void (*)(uint32_t, uint32_t, uint32_t, const std::vector<FwDetectSite>& rows);

extern "C" {

/*
 * Firewall detection: 30 s after the call the names are resolved and every
 * site is probed at once (TCP connect, UDP STUN Binding Request, ICMP echo),
 * as by zeph_any_port_detect; the result comes a few seconds later with
 * always 7 rows, one per site in order, then rows of 0.0.0.0 and port 0.
 * A name that does not resolve is not probed and reads not reached.
 * Returns 0; 1 for no site, more than 7, a null callback or an address text
 * over 127 bytes (or holding a NUL); 3 when out of memory or no thread could
 * be started. No callback follows a non-zero result.
 */
ZEPH_API uint32_t zeph_fw_detect_start(uint32_t num, const std::vector<FwDetectSite>& sites, FwDetectNotify notify);

} /* extern "C" */

/* ---- simple QoS detection (C++ only) ------------------------------------------
 * Delay and loss to six servers, five probes each, on the detection runtime
 * (zeph_net_tools_init first). The servers come from the six names set with
 * zeph_set_simple_qos_srvs, each probed its own way:
 *   0  ICMP echo            1  TCP connect to the proxy port (the configured
 *   2, 3  TCP connect 443      HTTP proxy itself; no proxy: nothing to probe)
 *   4, 5  UDP STUN Binding Request to port 10002
 * These two exports are additions of this library: the detection had no
 * entry of its own. */
extern "C" {

/*
 * The six server names, dotted addresses or host names (resolved at the
 * start of each detection, for at most 1 s). At most the first 6 are taken;
 * an empty name leaves its place as it was. Returns 0; 1 (nothing changes)
 * when a name is longer than 253 characters.
 */
ZEPH_API int32_t zeph_set_simple_qos_srvs(const std::vector<std::string>& names);
/*
 * Starts one detection: names are resolved (up to 1 s), then every server
 * with an address gets a first probe; each answer sends the next probe at
 * once, and after a lost answer the next one goes 300 ms later. A server
 * that does not answer its first probe gets no second one. After at most
 * 3 s of probing (earlier when every probe of every server has its answer)
 * `notify` gets one NetDetectResult per server, on the runtime's message
 * thread: `level` the server's place 0..5, `level_num` 6, `num` and
 * `context` as given, delays in ms over the answered probes (an answer later
 * than 3000 ms does not count), `discard` the share of the five probes
 * without an answer (probes never sent count as lost), `qos` as for the net
 * detection. A server with no address or no probe is reported with discard
 * 100, qos 3 and delays of 3000. A record can come as soon as a server's
 * fifth probe is answered, the others at the end.
 * Without a proxy the second server has no port and is always such a
 * record, so a detection then always runs its full 3 s; with a proxy the
 * servers 2 and 3 go through it and are not watched, so they report no
 * answer.
 * Returns 0; 1 for a null callback, a runtime that is not started, or a
 * timer that cannot be made (then the callback never comes).
 */
ZEPH_API int32_t zeph_simple_qos_detect(uint32_t num, NetDetectNotify notify, uint64_t context);

} /* extern "C" */
#endif /* __cplusplus */

#endif
