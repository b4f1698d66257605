/*
 * zeph_nettools: ICE credential store and STUN Binding Request builder.
 *
 * The caller negotiates ICE elsewhere and stores, under a free text key, the
 * local and the remote user fragment and password and the channel number of
 * a media stream. The media transport and the probe sockets then ask for a
 * ready-made STUN Binding Request (USERNAME, MESSAGE-INTEGRITY, FINGERPRINT)
 * for that key without ever seeing the credentials.
 *
 * All functions are safe to call from any thread at the same time. Keys are
 * zero-terminated strings compared as byte strings. Every function returns
 * one of the ZEPH_STUN_* codes below.
 */
#ifndef ZEPH_NETTOOLS_STUN_H
#define ZEPH_NETTOOLS_STUN_H

#include <stdint.h>

#include "zeph_nettools/export.h"

ZEPH_EXTERN_C_BEGIN

/* Result codes. */
#define ZEPH_STUN_OK 0
#define ZEPH_STUN_ERR_NO_RECORD 1 /* the entry has no record */
#define ZEPH_STUN_ERR_PARAM 2     /* null key or argument, or a buffer too short */
#define ZEPH_STUN_ERR_NO_MEMORY 3
#define ZEPH_STUN_ERR_NOT_FOUND 4 /* no entry for the key */
#define ZEPH_STUN_ERR_BUILD 5     /* a step of building the packet failed */

/* Smallest buffers of the build functions: a bare STUN packet is always below
 * 256 bytes, and the packet with the 16-byte private head below 272. */
#define ZEPH_STUN_PACKET_BUF_SIZE 256
#define ZEPH_STUN_PRIVATE_PACKET_BUF_SIZE 288
#define ZEPH_STUN_PRIVATE_HEAD_SIZE 16

#define ZEPH_STUN_UFRAG_FIELD_SIZE 33
#define ZEPH_STUN_PASSWORD_FIELD_SIZE 257

/*
 * One side's ICE credentials as the caller hands them in: the user fragment
 * at offset 0 and the password at offset 33, each zero-terminated. A field
 * without its terminator is cut at the end of the field.
 */
typedef struct StunIceInfo {
    char ufrag[ZEPH_STUN_UFRAG_FIELD_SIZE];
    char password[ZEPH_STUN_PASSWORD_FIELD_SIZE];
} StunIceInfo;

/* Stores the local (resp. remote) side for `key`, making the entry if needed.
 * The other side and the channel number of an existing entry are kept. */
ZEPH_API uint32_t MORL_StunSetLocalIceInfo(const char* key, const StunIceInfo* info);
ZEPH_API uint32_t MORL_StunSetRemoteIceInfo(const char* key, const StunIceInfo* info);

/* Removes the entry and wipes its passwords. 0 also for an unknown key. */
ZEPH_API uint32_t MORL_StunClearIceInfo(const char* key);

/* Channel number of an existing entry (0 until set); setting it on an
 * unknown key gives ZEPH_STUN_ERR_NOT_FOUND and makes no entry. */
ZEPH_API uint32_t MORL_StunSetChannelId(const char* key, uint32_t channelId);
ZEPH_API uint32_t MORL_StunGetChannelId(const char* key, uint32_t* channelId);

/*
 * Builds a Binding Request for `key` into data. *dataLen gives the room on
 * entry (at least ZEPH_STUN_PACKET_BUF_SIZE) and the packet's length on
 * return. Every packet has a fresh random transaction id. The bytes that pad
 * the USERNAME value are not written: clear the buffer first. Do not send
 * the buffer after a non-zero result.
 */
ZEPH_API uint32_t MORL_StunBuildStunPacket(const char* key, uint8_t* data, uint32_t* dataLen);

/*
 * The same behind the 16-byte private head (FF 03 81 01, the channel number,
 * zero sequence, total length), for a caller that sends it on its own
 * socket. Room at least ZEPH_STUN_PRIVATE_PACKET_BUF_SIZE.
 */
ZEPH_API uint32_t MORL_StunBuildPacket(const char* key, uint8_t* data, uint32_t* dataLen);

/* As MORL_StunBuildPacket, for the first entry, in ascending key order,
 * whose key contains `key` anywhere ("stun_audio" finds "stun_audio_10"). */
ZEPH_API uint32_t MORL_StunBuildPacketOfFuzzyMatchKey(const char* key, uint8_t* data, uint32_t* dataLen);

/* Size of the private head in front of MORL_StunBuildPacket's output: 16. */
ZEPH_API uint32_t MORL_StunGetPrivateHeadSize(void);

ZEPH_EXTERN_C_END

#endif
