// The 16-byte private head that frames every media packet, and the one
// codec of its layout:
//
//   0 tag 0xFF | 1 version 3 | 2 pktType | 3 mediaType | 4..7 channel |
//   8..11 pkgSeq | 12..13 head_Len (head + body) | 14..15 reserved 0
//
// multi-byte fields most significant byte first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "inc/byte_io.h"

constexpr int32_t kPrivateHeadSize = 16;
constexpr int32_t kMaxMediaPacketSize = 2048;
constexpr int32_t kMaxMediaBodySize = kMaxMediaPacketSize - kPrivateHeadSize;
constexpr uint8_t kPrivateHeadTag = 0xFF;
constexpr uint8_t kPrivateHeadVersion = 3;
// Packet types 0..9 are media; 128 is the keepalive.
constexpr uint8_t kMaxMediaPktType = 9;
constexpr uint8_t kPktTypeKeepalive = 128;
// Marks the STUN service's own head: deliberately not a valid media head.
constexpr uint8_t kPktTypeStunPrivate = 129;
constexpr uint8_t kMaxMediaType = 4;
// Where head_Len stands in the head.
constexpr size_t kPrivateHeadLenOffset = 12;

// Field values of a head, host order.
struct PrivateHead {
    uint8_t tag = kPrivateHeadTag;
    uint8_t version = kPrivateHeadVersion;
    uint8_t pktType = 0;
    uint8_t mediaType = 0;
    uint32_t channel = 0;
    uint32_t pkgSeq = 0;
    uint16_t head_Len = kPrivateHeadSize;
    uint16_t reserved = 0;
};

bool WritePrivateHead(zeph::ByteWriter& w, const PrivateHead& head);
bool ReadPrivateHead(zeph::ByteReader& r, PrivateHead& head);

// head_Len of the 16 head bytes at head.
uint16_t PrivateHeadLength(const uint8_t* head);

// The head of a packet with a body of bodyLen bytes, written to out.
// Nothing is validated: a packet type the peer refuses, or a body above
// 2032 bytes (head_Len keeps the low 16 bits of 16 + bodyLen), is the
// caller's to avoid.
void BuildPrivateHead(uint32_t pktType, uint32_t mediaType, uint32_t channel, uint32_t pkgSeq, uint32_t bodyLen,
                      uint8_t out[kPrivateHeadSize]);

// The head test on the first four bytes of a head: tag 0xFF, version 3,
// packet type 0..9 or 128, media type 0..4. Length, channel and sequence
// are not looked at.
inline bool PrivateHeadTest(uint8_t tag, uint8_t version, uint8_t pktType, uint8_t mediaType)
{
    return tag == kPrivateHeadTag && version == kPrivateHeadVersion &&
           (pktType <= kMaxMediaPktType || pktType == kPktTypeKeepalive) && mediaType <= kMaxMediaType;
}

// The one framer of the transport: what stands at the start of a byte
// stream. Every cutter of framed packets (the receive path through its ring,
// the send ring, the media peer) takes its decisions from here.
struct FrameCut {
    enum Kind {
        NeedMore,  // fewer than 16 bytes, or a head whose packet is not all there
        Packet,    // a whole packet of `length` bytes, head included
        Dirty,     // `length` bytes (at least 1) that start no head: drop them
        BadLength, // a head whose head_Len is out of 16..2048: its 16 bytes are spent
    };
    Kind kind = NeedMore;
    size_t length = 0;
    PrivateHead head; // Packet and BadLength
};

// Cuts at the start of data[0..size). A head is looked for only where 16
// bytes stand, so that up to 15 trailing bytes always wait for more;
// head_Len is checked against 16..2048 before it is used.
FrameCut CutFrame(const uint8_t* data, size_t size);

// ", tag: 255, version: 3, pktType: 0, mediaType: Audio, channel: 7,
// pkgSeq: 1, head_Len: 216" for the 16 bytes at ph (which need not be a
// valid head); "ph is nul" for null.
std::string GetHeadText(const uint8_t* ph);

// Diagnostic rendering of an RTP (pktType 0) or RTCP (pktType 1) packet: the
// first two bytes as bits, lowest bit of the first byte first, then the
// header fields. Bytes past `len` read as zero. "buf is null" for null.
std::string GetPacketText(uint32_t pktType, const uint8_t* buf, size_t len);
