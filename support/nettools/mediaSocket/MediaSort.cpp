#include "mediaSocket/MediaSort.h"

#include "inc/byte_io.h"
#include "mediaSocket/MediaLog.h"
#include "securec/securec.h"

bool ReadRtpSeqSsrc(const uint8_t* body, int32_t length, uint16_t& seq, uint32_t& ssrc)
{
    if (body == nullptr || length < kMinSortedBody) {
        return false;
    }
    zeph::ByteReader r(body, static_cast<size_t>(length));
    return r.skip(2) && r.get_be16(seq) && r.skip(4) && r.get_be32(ssrc);
}

void SortBufferProcess(std::vector<SortEntry>& entries, const uint8_t* body, int32_t length,
                       const SortDeliver& deliver)
{
    uint16_t seq = 0;
    uint32_t ssrc = 0;
    if (!ReadRtpSeqSsrc(body, length, seq, ssrc)) {
        deliver(body, length);
        return;
    }

    SortEntry* entry = nullptr;
    for (auto& e : entries) {
        if (e.ssrc == ssrc) {
            entry = &e;
            break;
        }
    }
    if (entry == nullptr) {
        // The first packet of a stream only tells where it starts.
        SortEntry fresh;
        fresh.ssrc = ssrc;
        fresh.lastSeq = seq;
        entries.push_back(std::move(fresh));
        return;
    }

    // Successor test in int arithmetic on purpose: 65535 + 1 is 65536, never
    // 0, so the wrap goes through the forced path below.
    if (static_cast<int32_t>(seq) == static_cast<int32_t>(entry->lastSeq) + 1) {
        deliver(body, length);
        entry->lastSeq = seq;
    } else {
        auto inserted = entry->packets.try_emplace(seq);
        if (inserted.second) {
            SortPacket& held = inserted.first->second;
            held.seq = seq;
            held.pktLen = static_cast<int16_t>(length);
            int ret = memcpy_s(held.data, sizeof(held.data), body, static_cast<size_t>(length));
            if (ret != 0) {
                MEDIA_LOGW << "memcpy failed! ret: " << ret << ", pktLen: " << length;
            }
        }
    }

    while (!entry->packets.empty() &&
           static_cast<int32_t>(entry->packets.begin()->first) == static_cast<int32_t>(entry->lastSeq) + 1) {
        auto it = entry->packets.begin();
        deliver(it->second.data, it->second.pktLen);
        entry->lastSeq = it->first;
        entry->packets.erase(it);
    }

    if (entry->packets.size() >= kMaxHeldPackets) {
        auto it = entry->packets.begin();
        deliver(it->second.data, it->second.pktLen);
        entry->lastSeq = it->first;
        entry->packets.erase(it);
    }
}
