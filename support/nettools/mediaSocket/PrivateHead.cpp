// Codec and text renderings of the private media head.
#include "mediaSocket/PrivateHead.h"

#include <cstring>

#include "mediaSocket/MediaVocabulary.h"

bool WritePrivateHead(zeph::ByteWriter& w, const PrivateHead& head)
{
    return w.put_u8(head.tag) && w.put_u8(head.version) && w.put_u8(head.pktType) && w.put_u8(head.mediaType) &&
           w.put_be32(head.channel) && w.put_be32(head.pkgSeq) && w.put_be16(head.head_Len) &&
           w.put_be16(head.reserved);
}

bool ReadPrivateHead(zeph::ByteReader& r, PrivateHead& head)
{
    zeph::ByteReader probe = r;
    PrivateHead out;
    if (!(probe.get_u8(out.tag) && probe.get_u8(out.version) && probe.get_u8(out.pktType) &&
          probe.get_u8(out.mediaType) && probe.get_be32(out.channel) && probe.get_be32(out.pkgSeq) &&
          probe.get_be16(out.head_Len) && probe.get_be16(out.reserved))) {
        return false;
    }
    head = out;
    r = probe;
    return true;
}

uint16_t PrivateHeadLength(const uint8_t* head)
{
    zeph::ByteReader r(head + kPrivateHeadLenOffset, 2);
    uint16_t length = 0;
    r.get_be16(length);
    return length;
}

void BuildPrivateHead(uint32_t pktType, uint32_t mediaType, uint32_t channel, uint32_t pkgSeq, uint32_t bodyLen,
                      uint8_t out[kPrivateHeadSize])
{
    PrivateHead head;
    head.pktType = static_cast<uint8_t>(pktType);
    head.mediaType = static_cast<uint8_t>(mediaType);
    head.channel = channel;
    head.pkgSeq = pkgSeq;
    head.head_Len = static_cast<uint16_t>(kPrivateHeadSize + bodyLen);
    zeph::ByteWriter w(out, kPrivateHeadSize);
    WritePrivateHead(w, head); // 16 bytes always fit
}

FrameCut CutFrame(const uint8_t* data, size_t size)
{
    FrameCut cut;
    zeph::ByteReader r(data, size);
    size_t dirty = 0;
    while (r.remaining() >= static_cast<size_t>(kPrivateHeadSize)) {
        const uint8_t* at = r.peek(kPrivateHeadSize);
        if (PrivateHeadTest(at[0], at[1], at[2], at[3])) {
            break;
        }
        r.skip(1);
        ++dirty;
    }
    if (dirty != 0) {
        cut.kind = FrameCut::Dirty;
        cut.length = dirty;
        return cut;
    }
    if (!ReadPrivateHead(r, cut.head)) {
        return cut; // fewer than 16 bytes
    }
    if (cut.head.head_Len < kPrivateHeadSize || cut.head.head_Len > kMaxMediaPacketSize) {
        cut.kind = FrameCut::BadLength;
        cut.length = kPrivateHeadSize;
        return cut;
    }
    if (size >= cut.head.head_Len) {
        cut.kind = FrameCut::Packet;
        cut.length = cut.head.head_Len;
    }
    return cut;
}

std::string GetHeadText(const uint8_t* ph)
{
    if (ph == nullptr) {
        return "ph is nul";
    }
    zeph::ByteReader r(ph, kPrivateHeadSize);
    PrivateHead head;
    ReadPrivateHead(r, head);
    std::string text;
    text.reserve(128);
    text += ", tag: " + std::to_string(head.tag);
    text += ", version: " + std::to_string(head.version);
    text += ", pktType: " + std::to_string(head.pktType);
    text += ", mediaType: ";
    text += GetMediaTypeName(head.mediaType);
    text += ", channel: " + std::to_string(head.channel);
    text += ", pkgSeq: " + std::to_string(head.pkgSeq);
    text += ", head_Len: " + std::to_string(head.head_Len);
    return text;
}

namespace {

// The RTCP fields read reach byte 35.
constexpr size_t kPacketTextBytes = 36;

void AppendBits(std::string& text, uint8_t byte)
{
    for (int bit = 0; bit < 8; ++bit) {
        if (bit % 4 == 0) {
            text += ' ';
        }
        text += ((byte >> bit) & 1) ? '1' : '0';
    }
}

uint32_t Be32At(const uint8_t* p, size_t at)
{
    zeph::ByteReader r(p + at, 4);
    uint32_t v = 0;
    r.get_be32(v);
    return v;
}

uint16_t Be16At(const uint8_t* p, size_t at)
{
    zeph::ByteReader r(p + at, 2);
    uint16_t v = 0;
    r.get_be16(v);
    return v;
}

} // namespace

std::string GetPacketText(uint32_t pktType, const uint8_t* buf, size_t len)
{
    if (buf == nullptr) {
        return "buf is null";
    }
    // A short body renders with zeros where its bytes are missing, so that
    // this diagnostic never reads past what it was given.
    uint8_t p[kPacketTextBytes] = {};
    std::memcpy(p, buf, len < kPacketTextBytes ? len : kPacketTextBytes);

    std::string text;
    text.reserve(192);
    AppendBits(text, p[0]);
    AppendBits(text, p[1]);
    const unsigned version = p[0] >> 6;
    const unsigned padding = (p[0] >> 5) & 1;
    if (pktType == 0) {
        text += " rtp, bit2V: " + std::to_string(version);
        text += ", bit1P: " + std::to_string(padding);
        text += ", bit1X: " + std::to_string((p[0] >> 4) & 1);
        text += ", bit4CC: " + std::to_string(p[0] & 0x0F);
        text += ", bit1M: " + std::to_string(p[1] >> 7);
        text += ", bit7PT: " + std::to_string(p[1] & 0x7F);
        text += ", usSeq: " + std::to_string(Be16At(p, 2));
        text += ", ulTimeStamp: " + std::to_string(Be32At(p, 4));
        text += ", ulSsrc: " + std::to_string(Be32At(p, 8));
    } else if (pktType == 1) {
        text += " rtcp, bit2V: " + std::to_string(version);
        text += ", bit1P: " + std::to_string(padding);
        text += ", bit5RC: " + std::to_string(p[0] & 0x1F);
        text += ", bitPTRR: " + std::to_string(p[1]);
        text += ", length: " + std::to_string(Be16At(p, 2));
        text += ", ulSsrc: " + std::to_string(Be32At(p, 4));
        text += ", SSRC_1: " + std::to_string(Be32At(p, 8));
        text += ", lastSR: " + std::to_string(Be32At(p, 24));
        text += ", SSRC_2: " + std::to_string(Be32At(p, 32));
    } else {
        text += ", not found pktType; pktType: " + std::to_string(pktType);
    }
    return text;
}
