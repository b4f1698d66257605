// Thread: the session's receive thread ("TCPSocketRecvThread").
#include "mediaSocket/MediaSort.h"

#include "inc/byte_io.h"
#include "mediaSocket/MediaLog.h"
#include "securec/securec.h"

namespace {

// Delivers the lowest held packet and makes it the last one delivered.
void DeliverLowest(SortEntry& entry, const SortDeliver& deliver)
{
    auto it = entry.packets.begin();
    deliver(it->second.data, it->second.pktLen);
    entry.lastSeq = it->first;
    entry.packets.erase(it);
}

} // namespace

SortEntry* SortBuffers::Find(uint32_t ssrc)
{
    auto found = index_.find(ssrc);
    if (found == index_.end()) {
        return nullptr;
    }
    Slot& slot = found->second;
    // Seen again: to the front of the running streams (from the opened ones
    // on its second packet). splice keeps the iterator valid.
    running_.splice(running_.begin(), *slot.list, slot.it);
    slot.list = &running_;
    return &*slot.it;
}

SortEntry& SortBuffers::Open(uint32_t ssrc, uint16_t seq, const SortDeliver& deliver)
{
    if (index_.size() >= kMaxSortStreams) {
        Evict(deliver);
    }
    opened_.emplace_front();
    SortEntry& entry = opened_.front();
    entry.ssrc = ssrc;
    entry.lastSeq = seq;
    index_.emplace(ssrc, Slot{&opened_, opened_.begin()});
    return entry;
}

void SortBuffers::Evict(const SortDeliver& deliver)
{
    List& from = (opened_.size() >= kMaxOpenedStreams || running_.empty()) ? opened_ : running_;
    SortEntry& victim = from.back();
    while (!victim.packets.empty()) {
        DeliverLowest(victim, deliver);
    }
    index_.erase(victim.ssrc);
    from.pop_back();
}

bool ReadRtpSeqSsrc(const uint8_t* body, int32_t length, uint16_t& seq, uint32_t& ssrc)
{
    if (body == nullptr || length < kMinSortedBody) {
        return false;
    }
    zeph::ByteReader r(body, static_cast<size_t>(length));
    return r.skip(2) && r.get_be16(seq) && r.skip(4) && r.get_be32(ssrc);
}

void SortBufferProcess(SortBuffers& buffers, const uint8_t* body, int32_t length, const SortDeliver& deliver)
{
    uint16_t seq = 0;
    uint32_t ssrc = 0;
    if (!ReadRtpSeqSsrc(body, length, seq, ssrc)) {
        deliver(body, length);
        return;
    }

    SortEntry* entry = buffers.Find(ssrc);
    if (entry == nullptr) {
        // The first packet of a stream only tells where it starts.
        buffers.Open(ssrc, seq, deliver);
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
        DeliverLowest(*entry, deliver);
    }

    if (entry->packets.size() >= kMaxHeldPackets) {
        DeliverLowest(*entry, deliver);
    }
}
