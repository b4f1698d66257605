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
typedef void (*MediaEventCallback)(uint32_t sessionId, uint32_t mediaType, MediaEventInfo event);
/* One finished, zero-terminated line: "[LEVEL]file(line)[function]:message". */
typedef void (*MediaLogCallback)(const char* line);

/*
 * Sets the process-wide sink of the transport's log lines (levels INFO,
 * WARN, ERROR). Lines are delivered on the thread that logs them; with no
 * sink set they are dropped, and nothing is kept for a sink set later.
 * Null removes the sink.
 */
ZEPH_API void MORL_MediaSetLogCallback(MediaLogCallback callback);

ZEPH_EXTERN_C_END

#endif
