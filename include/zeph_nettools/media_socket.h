/*
 * zeph_nettools: media transport.
 *
 * Real-time media travels over persistent TCP channels. Every packet, in
 * either direction, is framed by a 16-byte private head:
 *
 *   offset 0  tag        0xFF
 *          1  version    3
 *          2  pktType    ZEPH_MEDIA_PKT_*
 *          3  mediaType  ZEPH_MEDIA_*
 *          4  channel    32 bits, the sender's number
 *          8  pkgSeq     32 bits, per media type and packet type
 *         12  head_Len   16 bits, head plus body
 *         14  reserved   0
 *
 * multi-byte fields most significant byte first. A packet is at most
 * 2048 bytes, so a body holds at most 2032.
 *
 * Functions of the transport return 0 or one of the MEDIA_SOCKET_ERRCODE_*
 * codes below.
 */
#ifndef ZEPH_NETTOOLS_MEDIA_SOCKET_H
#define ZEPH_NETTOOLS_MEDIA_SOCKET_H

#include <stdint.h>

#include "zeph_nettools/export.h"

ZEPH_EXTERN_C_BEGIN

/* Media types. */
#define ZEPH_MEDIA_VIDEO 0
#define ZEPH_MEDIA_AUDIO 1
#define ZEPH_MEDIA_AUX 2
#define ZEPH_MEDIA_MS 3
#define ZEPH_MEDIA_DATA 4
#define ZEPH_MEDIA_TYPE_COUNT 5

/* Packet types. 5 to 9 are carried but have no meaning in the transport. */
#define ZEPH_MEDIA_PKT_RTP 0
#define ZEPH_MEDIA_PKT_RTCP 1
#define ZEPH_MEDIA_PKT_SIGNAL 2
#define ZEPH_MEDIA_PKT_ANNO 3
#define ZEPH_MEDIA_PKT_MOUSE 4
#define ZEPH_MEDIA_PKT_KEEPALIVE 128 /* body: a raw STUN packet */

#define ZEPH_MEDIA_PRIVATE_HEAD_SIZE 16
#define ZEPH_MEDIA_MAX_PACKET_SIZE 2048

typedef enum MediaSocketErrCode {
    MEDIA_SOCKET_ERRCODE_FAILED = -1000,
    MEDIA_SOCKET_ERRCODE_SESSION_ID_ZERO = -999,
    MEDIA_SOCKET_ERRCODE_SESSION_TABLE_FULL = -998,
    MEDIA_SOCKET_ERRCODE_NOT_FOUND_MEDIA_SOCKET = -997,
    MEDIA_SOCKET_ERRCODE_ALREADY_CREATED = -996,
    MEDIA_SOCKET_ERRCODE_INVALID_PARAM = -995,
    MEDIA_SOCKET_ERRCODE_NO_CREATE = -994,
    MEDIA_SOCKET_ERRCODE_CONNECT_ERROR = -993,
    MEDIA_SOCKET_ERRCODE_PROXY_AUTH = -992,
    /* -991 is not used */
    MEDIA_SOCKET_ERRCODE_CONNECT_TIMEOUT = -990,
    MEDIA_SOCKET_ERRCODE_NOT_CONNECTED = -989,
    MEDIA_SOCKET_ERRCODE_NEW_MEMORY = -988,
    MEDIA_SOCKET_ERRCODE_CREATE_SOCKET = -987,
    MEDIA_SOCKET_ERRCODE_NOT_FOUND_SOCKET = -986,
    MEDIA_SOCKET_ERRCODE_WRITE_BUFFER = -985,
    MEDIA_SOCKET_ERRCODE_READ_HEAD = -984,
    MEDIA_SOCKET_ERRCODE_BUFFER_NOT_EXIST = -983,
    MEDIA_SOCKET_ERRCODE_PACKET_LENGTH = -982,
    MEDIA_SOCKET_ERRCODE_SEND_ZERO = -981,
    MEDIA_SOCKET_ERRCODE_WOULD_BLOCK = -980,
    MEDIA_SOCKET_ERRCODE_EINTR = -979,
    MEDIA_SOCKET_ERRCODE_SEND_ERROR = -978,
    MEDIA_SOCKET_ERRCODE_WSA_NOT_INITIALISED = -977,
    MEDIA_SOCKET_ERRCODE_CHANNEL_DOWN = -976,
    MEDIA_SOCKET_ERRCODE_NO_SOCKET = -975,
    MEDIA_SOCKET_ERRCODE_CONNECT_EVENT = -974
} MediaSocketErrCode;

/* What the event callback receives, by value. */
typedef struct MediaEventInfo {
    uint32_t eventId;
    uint32_t errorCode;
} MediaEventInfo;

/* One received packet's body; `data` is valid only during the call, which
 * runs on the session's receive thread. */
typedef void (*MediaRecvCallback)(uint32_t sessionId, uint32_t pktType, uint32_t mediaType, const uint8_t* data,
                                  uint32_t len);
/* A session's events come one at a time, in the order raised: on the
 * session's own threads, or inside the media call that raised one, unless a
 * callback is running elsewhere then; that thread tells it next. */
typedef void (*MediaEventCallback)(uint32_t sessionId, uint32_t mediaType, MediaEventInfo event);
/* One finished, zero-terminated line: "[LEVEL]file(line)[function]:message". */
typedef void (*MediaLogCallback)(const char* line);

/* Counts of packets by type, fifteen 32-bit counters in this order. */
typedef struct MediaPacketCounts {
    uint32_t ErrCount;
    uint32_t RtpErrCount;
    uint32_t RtcpErrCount;
    uint32_t SignalErrCount;
    uint32_t AnnoErrCount;
    uint32_t MouseErrCount;
    uint32_t KeepaliveErrCount;
    uint32_t SuccessCount;
    uint32_t RtpSuccessCount;
    uint32_t RtcpSuccessCount;
    uint32_t SignalSuccessCount;
    uint32_t AnnoSuccessCount;
    uint32_t MouseSuccessCount;
    uint32_t KeepaliveSuccessCount;
    uint32_t UnknowCount; /* packet types other than 0..4 and 128 */
} MediaPacketCounts;

/*
 * Counters of one media type, as MORL_MediaGetStats copies them: 168 bytes,
 * all counters unsigned 32 bits in host (little-endian) order. They start
 * at 0 when the media type is created, never reset and wrap at 2^32; they
 * are diagnostics, read without a lock while the session runs.
 */
typedef struct MediaStats {
    uint32_t writeBufferErrCount; /* received bytes the receive ring could not take */
    uint32_t readHeadErrCount;    /* heads that could not be read */
    uint32_t dataLoss;            /* runs of dirty bytes dropped before a head */
    MediaPacketCounts recv;       /* packets delivered, or refused by their length */
    uint32_t sendCount;           /* packets handed to a channel by the send thread */
    uint32_t sendSuccessCount;    /* sends that took at least one byte */
    uint32_t sendErrCount;        /* sends that failed */
    uint32_t reserved;            /* not used */
    uint64_t lastSendErrLogTime;  /* ms, pacing of the send thread's warnings */
    uint32_t sendLenErrorCount;   /* short sends: the rest of the packet is lost */
    MediaPacketCounts send;       /* packets queued by MORL_MediaSend, or refused by a full ring */
    uint32_t readOnePktErrCount;  /* damaged packets found in the send ring */
    uint32_t noConnectSendCount;  /* MORL_MediaSend calls while no channel was connected */
} MediaStats;

#ifdef __cplusplus
static_assert(sizeof(MediaStats) == 168, "MediaStats is a 168-byte record");
#else
_Static_assert(sizeof(MediaStats) == 168, "MediaStats is a 168-byte record");
#endif

/* Events (eventId) told to the event callback. */
#define ZEPH_MEDIA_EVENT_CHANNEL_LOST 1    /* repaired inside, never told */
#define ZEPH_MEDIA_EVENT_SEND_FAILED 2     /* repaired inside, never told */
#define ZEPH_MEDIA_EVENT_RING_FLUSHED 3    /* errorCode 0 after a connect, -984 after damage */
#define ZEPH_MEDIA_EVENT_REFUSED 4         /* e.g. 403 from a proxy on a channel that never delivered */
#define ZEPH_MEDIA_EVENT_CONNECT_FAILED 5  /* errorCode: the proxy layer's result */
#define ZEPH_MEDIA_EVENT_CONNECT_DOMAIN 6  /* the connect went by the domain name */
#define ZEPH_MEDIA_EVENT_DIRTY_DATA 7      /* errorCode: bytes dropped since the last such event;
                                            * at most one a second per channel */
#define ZEPH_MEDIA_EVENT_NO_SOCKET 8       /* told after the media type was rebuilt, on the
                                            * session's repair thread */

/*
 * Sessions. A session is a non-zero id of the caller's choosing; at most six
 * exist at once. It is made by the first MORL_MediaCreateSocket of its id
 * and freed when MORL_MediaCloseSocket leaves no media type in it. Every
 * call below but the last two returns MEDIA_SOCKET_ERRCODE_NOT_FOUND_MEDIA_SOCKET
 * for an id that has no session.
 *
 * Any thread may call any of them, callbacks included: closing the last
 * media type from inside a receive callback returns at once, and the
 * session goes away once the callback has returned.
 */

/* Makes the session if needed, then the media type with min(default,
 * socketCount) channels (default 4 for audio, 1 for the others).
 * MEDIA_SOCKET_ERRCODE_CREATE_SOCKET when a socket cannot be made (no
 * descriptor left) or socketCount is 0; a session made by a failed call
 * does not stay. */
ZEPH_API int32_t MORL_MediaCreateSocket(uint32_t sessionId, uint32_t mediaType, uint32_t socketCount);
/* Closes the media type; the session goes when it was the last. */
ZEPH_API int32_t MORL_MediaCloseSocket(uint32_t sessionId, uint32_t mediaType);
/* Connects every channel of the media type to serverAddr:port (dotted IPv4),
 * in parallel, directly or through the HTTP proxy of settings.h. Blocks for
 * the connect, 2 s at most per channel beyond the proxy's own time. 0 when at
 * least one channel is up. `domain` may be null or empty. Channels already
 * connected stay on their connections, whatever the address, and go on
 * receiving: to move a media type to another server, close it and create it
 * again. A channel whose connect failed is tried again with a new socket. */
ZEPH_API int32_t MORL_MediaCreateChannel(uint32_t sessionId, uint32_t mediaType, const char* serverAddr, uint16_t port,
                                         const char* domain);
/* Closes and reconnects every channel of the media type. Only one connect or
 * re-creation of a media type runs at a time: while the session repairs it
 * on another thread, this and MORL_MediaCreateChannel return -1000 at once. */
ZEPH_API int32_t MORL_MediaReCreateChannel(uint32_t sessionId, uint32_t mediaType);
/* Queues one packet; never blocks on the network. 0, or
 *   -995  len above 2032 (ZEPH_MEDIA_MAX_PACKET_SIZE - 16), or data null
 *         with len not 0: nothing is queued;
 *   -994  media type not created;
 *   -975  no channel connected. When every socket of the media type is
 *         closed, the session rebuilds it on its own thread (at most once in
 *         5 s, 1000 times in all) and tells ZEPH_MEDIA_EVENT_NO_SOCKET when
 *         that succeeded; sends meanwhile get -975;
 *   -989  no socket left;
 *   -985  the send ring is full: this packet is lost. */
ZEPH_API int32_t MORL_MediaSend(uint32_t sessionId, uint32_t pktType, uint32_t mediaType, const uint8_t* data,
                                uint32_t len, uint32_t channel);
/* Replaces the rings of the media type by empty ones of `size` bytes,
 * clamped to 30720..1024000. Call it while no traffic runs. */
ZEPH_API int32_t MORL_MediaSetChannelBufSize(uint32_t sessionId, uint32_t mediaType, uint32_t size);
/* Bytes waiting in the send ring now (not its capacity), or a code. */
ZEPH_API int32_t MORL_MediaGetChannelBufSize(uint32_t sessionId, uint32_t mediaType);
/* Sets SO_RCVBUF (direction non-zero) or SO_SNDBUF of every channel. */
ZEPH_API int32_t MORL_MediaSetTcpBufSize(uint32_t sessionId, uint32_t mediaType, uint32_t size, uint32_t direction);
ZEPH_API int32_t MORL_MediaRegisterRecvCallback(uint32_t sessionId, uint32_t mediaType, MediaRecvCallback callback);
ZEPH_API int32_t MORL_MediaSetEventCallback(uint32_t sessionId, uint32_t mediaType, MediaEventCallback callback);
/* Copies the 168-byte record of the media type. */
ZEPH_API int32_t MORL_MediaGetStats(uint32_t sessionId, uint32_t mediaType, MediaStats* stats);
/* Always 1. */
ZEPH_API uint32_t MORL_MediaGetFirstSessionId(void);

/*
 * Sets the process-wide sink of the transport's log lines (levels INFO,
 * WARN, ERROR). Lines are delivered on the thread that logs them; with no
 * sink set they are dropped, and nothing is kept for a sink set later.
 * Null removes the sink.
 */
ZEPH_API void MORL_MediaSetLogCallback(MediaLogCallback callback);

ZEPH_EXTERN_C_END

#endif
